// The operations on the app list, and for each its peer: a bare parse, search and write.
#ifndef ZOL_BENCH_APPLIST_H
#define ZOL_BENCH_APPLIST_H

#include <array>
#include <cstdint>
#include <string>

struct ListOperation {
    const char* name;  ///< "row/side"
    void (*run)(const std::string& appid);
};
extern const std::array<ListOperation, 6> listOperations;

/// The last app of such a list is the one to switch, so that the whole list is searched.
std::string appid(std::int64_t number);

/// A list in which every other app is on.
std::string appList(std::int64_t apps);

#endif
