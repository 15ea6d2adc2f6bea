/// @file
/// The name of every vconf key that the library reads, writes or watches, for C++. ZOLSettings.h spells them out.
#ifndef ZOL_VCONF_KEYS_H
#define ZOL_VCONF_KEYS_H

#include "ZOLSettings.h"

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-const-variable"  // nobody uses all of them

/// The keys. Each has the name of its setting: `ZOLVconfKey::OSDLanguage` is "db/menu_widget/language".
namespace ZOLVconfKey {
// NOLINTNEXTLINE(bugprone-macro-parentheses): an array takes no parentheses
#define ZOL_VCONF_KEY(name, type, read, write, watch, key, description) constexpr char name[] = key;
/// The setting's key.
/// @{
ZOL_SETTINGS(ZOL_VCONF_KEY)
/// @}
#undef ZOL_VCONF_KEY
}  // namespace ZOLVconfKey

#pragma GCC diagnostic pop

#endif
