// Where the library's log file goes; the set-up itself runs at load.
#pragma once

#include <string>

namespace qorvarlok::log {

// "/client" for "/opt/app/client.bin" ("\\client" for "C:\\app\\client.exe"): from the
// system's last path separator up to the last dot.
std::string executablePart(const std::string& exePath);
// "./varloklogs/" + executable part + "/Varlok.log", relative to the current directory.
std::string logFilePath(const std::string& exePath);

}  // namespace qorvarlok::log
