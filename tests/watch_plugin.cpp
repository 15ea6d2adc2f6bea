// A plugin that follows the assistant language, for watch_test.

#include "ZOLWatch.h"

// Tells of changes from here on, or no more.
extern "C" __attribute__((visibility("default"))) void follow(void (*tell)(const char* value))
{
    static ZOLWatch watch;
    watch = {};
    if (tell != nullptr) {
        watch = ZOLWatch::ZOLLanguage([tell](const std::string& value) { tell(value.c_str()); });
    }
}
