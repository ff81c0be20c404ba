// Path of the running executable (GetModuleFileNameA on Windows).
#pragma once

#include <string>

namespace qorvarlok::platform {

// Absolute path of the running executable, empty if it cannot be read.
std::string executablePath();
// The separator of the directories in that path: '\\' on Windows, '/' elsewhere.
char executablePathSeparator();

}  // namespace qorvarlok::platform
