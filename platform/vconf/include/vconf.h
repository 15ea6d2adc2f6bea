/// @file
/// What the library expects of the platform's key-value store. On a TV the platform supplies it; on a desk the
/// stand-in beside this header does. A header of the platform's own must declare the same names: the functions, the
/// record `keynode_t`, under any tag, and the members of it that are named here.
///
/// Common to all functions:
/// - `key` and texts are NUL-terminated, are not changed, and nothing is kept of them after the call.
/// - Any thread may call at any time, several at once, and also from inside a handler.
/// - A result of 0 means success; any other number means failure, and then nothing has been changed.
/// - A value has a type. Reading a key in another type than it was written in fails; writing replaces value and type.
///
/// What the stand-in adds to that: keys are 1 to 511 bytes and texts at most 64 MiB long; a null argument fails; a call
/// that fails for any reason but a missing key writes one line to the log that says what is wrong. Keys that begin with
/// "memory/" last until the machine restarts, all others are on disk when the call that writes them returns. Others see
/// a write a little earlier, so they may have acted on one that a power loss takes back or that fails at the very last,
/// because the disk reports an error. After fork() the child may use every function, and has no subscriptions yet.
#ifndef VCONF_H
#define VCONF_H

#ifdef __cplusplus
extern "C" {
#endif

/// The type of a key's value, as `keynode_t` tells it.
enum { VCONF_TYPE_BOOL = 0, VCONF_TYPE_INT = 1, VCONF_TYPE_STRING = 2 };

/// A changed key, as a handler sees it. The record and the texts in it belong to the store and end with the call.
typedef struct keynode_t keynode_t;
struct keynode_t {
    const char* keyname;  ///< The key; never null.
    int type;             ///< One of the types above. The library does not look at it.
    struct {
        int i;          ///< The value of an integer or boolean key, a boolean as 0 or 1; otherwise 0.
        const char* s;  ///< The value of a string key; otherwise null, so that a key written in another type than its
                        ///< watchers expect does no harm. Where a platform has a union here, it does.
    } value;
};

/// Is called after a key has changed.
/// @param node       The key with its value.
/// @param user_data  What was given with the subscription.
/// Runs on a thread of the store's choosing, with no lock of the store held. It must not throw, and should not end
/// the thread. The stand-in's thread has all signals blocked; a handler that starts a program by fork() and exec()
/// unblocks them for it.
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
/// @param handler    Is called once for every write of the key that is accepted after this call has returned, whoever
///                   writes it and also when the value stays the same, in the order of the writes, with the value of
///                   that write. A store may drop the values between when a process falls far behind, but never the
///                   last one.
/// @param user_data  Handed to the handler unchanged; the store does not look at it.
int vconf_notify_key_changed(const char* key, vconf_callback_fn handler, void* user_data);

/// Ends the subscription of that handler to that key. It does not wait for a call of the handler that has begun, so a
/// handler may make this call; one call more, for a write before the end, may still begin after it has returned.
int vconf_ignore_key_changed(const char* key, vconf_callback_fn handler);

#ifdef __cplusplus
}
#endif

#endif
