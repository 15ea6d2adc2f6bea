// What the tool does, one function a command. Each returns the exit code, or throws UsageError or Failure.
#ifndef ZOLCTL_COMMANDS_H
#define ZOLCTL_COMMANDS_H

#include <string>
#include <vector>

namespace zolctl {

int list(bool withKey, bool json);
int get(const std::string& name, bool json);
int set(const std::string& name, const std::string& value);
int injectValue(const std::string& name, const std::string& value);
int dump();
/// @param path  The file, or "-" for standard input.
int load(const std::string& path);

int listConcurrent(bool json);
int switchConcurrent(const std::vector<std::string>& apps, bool on);

}  // namespace zolctl

#endif
