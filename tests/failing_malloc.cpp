// Makes the n-th allocation of the test program and of all its libraries fail. Is built without sanitizers, whose own
// start-up comes through here; it is theirs to find leaks.

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

std::atomic<int> failingAllocation{0};  // from now on, of those that are to be counted; 0 for none
bool isCounted();                       // the next allocation of this thread; is defined by the test

static bool fails()
{
    if (failingAllocation <= 0 || !isCounted() || --failingAllocation != 0) {
        return false;
    }
    errno = ENOMEM;
    return true;
}
// The sanitizer's, where there is one, or the C library's.
#define REAL(name) (__interceptor_##name != nullptr ? __interceptor_##name : __libc_##name)
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): these are their names
extern "C" {
[[gnu::weak]] void* __interceptor_malloc(size_t size);
[[gnu::weak]] void* __interceptor_realloc(void* block, size_t size);
void* __libc_malloc(size_t size);
void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) noexcept { return fails() ? nullptr : REAL(malloc)(size); }
void* realloc(void* block, size_t size) noexcept { return fails() ? nullptr : REAL(realloc)(block, size); }
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

void* operator new(size_t size)
{
    if (void* block = std::malloc(size)) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept { std::free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { std::free(block); }
