// The commands of the varlok tool. Each takes its own arguments (after the
// command word) and returns the process exit code.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace varlok {

// Exit codes shared by all commands.
constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;  // the library reported an error, or a tag was not found
constexpr int kExitUsage = 2;   // the command line itself is wrong

using Args = std::vector<std::string>;

int runBrowse(const Args& args);
int runDescribe(const Args& args);
int runRead(const Args& args);
int runWrite(const Args& args);
int runWatch(const Args& args);

// "0x10000403 <text in UTF-8>", the form every command uses for a failure code.
// *described is false when the library had no text for it.
std::string describeCode(unsigned int code, bool* described = nullptr);
// The same into a caller's buffer, without allocating, so that a failure met
// when memory has run out is still told; gives out.
const char* describeCodeInto(unsigned int code, char* out, size_t capacity, bool* described = nullptr);
// Prints "varlok <command>: <what>: <code and text>" to stderr, without allocating.
void reportCode(const char* command, const char* what, unsigned int code);

}  // namespace varlok
