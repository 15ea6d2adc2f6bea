/// @file
/// What the library expects of the platform's key-value store. A TV has its own; elsewhere the desk platform beside
/// this header takes its place. A platform's own header must declare the same names: the functions, the record
/// `keynode_t` (under any tag) and its members `keyname`, `value.i` and `value.s`.
///
/// Common to all functions:
/// - `key` and texts are NUL-terminated. They are not changed, and not kept after the call.
/// - Any thread may call at any time, several at once, and also inside a handler. No function throws.
/// - A result of 0 means success; any other number means failure, and then nothing has been changed.
/// - A value has a type. Reading a key with another type fails; writing replaces value and type.
///
/// In addition, on the desk platform: keys are 1 to 511 bytes and texts at most 64 MiB long; a null argument fails; a
/// call that fails writes one line to the log that says why, except for a missing key. Keys that begin with "memory/"
/// last until the machine restarts; all others are on disk before the write returns. Other threads and processes see a
/// write a little earlier, so they may act on one that is lost in a power failure or that fails because of a disk
/// error. After fork() the child may use every function, and has no subscriptions yet.
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/// The type of a key's value, as in `keynode_t`.
enum { VCONF_TYPE_BOOL = 0, VCONF_TYPE_INT = 1, VCONF_TYPE_STRING = 2 };

/// A changed key, as passed to a handler. The record and its texts belong to the store and are valid during the call.
typedef struct keynode_t keynode_t;
struct keynode_t {
    const char* keyname;  ///< The key; never null.
    int type;             ///< One of the types above. The library does not look at it.
    struct {
        int i;          ///< The value of an integer or boolean key, a boolean as 0 or 1; otherwise 0.
        const char* s;  ///< The value of a string key; otherwise null, so that a key written in another type than its
                        ///< watchers expect does no harm. With a union here, as some platforms have, it does harm.
    } value;
};

/// Called after a key has changed, on a thread of the store's choosing and with no lock of the store held.
/// @param node       The key and its value.
/// @param user_data  The pointer passed with the subscription.
/// It must not throw and should not end the thread. The desk platform's thread has all signals blocked; a handler that
/// starts a program by fork() and exec() must unblock them for it.
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

/// Reads a string key.
/// @return A copy of the text from malloc, which the caller frees, or null on failure.
char* vconf_get_str(const char* key);

/// Writes a string key.
int vconf_set_str(const char* key, const char* value);

/// Reads an integer key.
/// @param[out] value  Receives the integer; not touched on failure.
int vconf_get_int(const char* key, int* value);

/// Writes an integer key.
int vconf_set_int(const char* key, int value);

/// Reads a boolean key.
/// @param[out] value  Receives 0 or 1; not touched on failure.
int vconf_get_bool(const char* key, int* value);

/// Writes a boolean key: 0 for 0, 1 for any other number.
int vconf_set_bool(const char* key, int value);

/// Subscribes a handler to a key, which need not exist yet.
/// @param handler    Called once for every write of the key that is accepted after this call has returned, by whichever
///                   process, in the order of the writes and with the value of that write, even if the value stays the
///                   same. When a process falls far behind, a store may skip values, but never the last one. The
///                   handler is not called inside this call.
/// @param user_data  Passed to the handler; the store does not use it.
int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data);

/// Ends the subscription of that handler to that key. It does not wait for a running call of the handler, so a handler
/// may end its own subscription. One more call, for an earlier write, may still begin after this call has returned.
int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler);

#ifdef __cplusplus
}
#endif

#endif
