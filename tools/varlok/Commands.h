// The commands of the varlok tool. Each takes its own arguments (after the
// command word) and returns the process exit code.
#pragma once

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

}  // namespace varlok
