// Path of the running executable (the stand-in for GetModuleFileNameA).
#pragma once

#include <string>

namespace qorvarlok::platform {

// Absolute path of the running executable, empty if it cannot be read.
std::string executablePath();

}  // namespace qorvarlok::platform
