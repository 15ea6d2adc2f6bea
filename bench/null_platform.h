// A platform that costs as little as one can: what is measured over it is the library.
#ifndef ZOL_BENCH_NULL_PLATFORM_H
#define ZOL_BENCH_NULL_PLATFORM_H

/// What every string key holds. Writes are accepted and forgotten.
extern const char* platformText;

/// The user data of this thread's latest subscription.
extern thread_local void* platformSubscriber;

#endif
