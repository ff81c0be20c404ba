// Path of the running executable (GetModuleFileNameA on Windows), and how
// the process ends.
#pragma once

#include <string>
#include <thread>

namespace qorvarlok::platform {

// Absolute path of the running executable, empty if it cannot be read.
std::string executablePath();
// The separator of the directories in that path: '\\' on Windows, '/' elsewhere.
char executablePathSeparator();
// Whether a library's background threads outlive the program's main()
// until the library's own static objects are destroyed. On Windows they do
// not: the process ends them before a DLL's destructors run, and joining
// one then never returns; a library that must not hang at exit there keeps
// no worker of its own.
bool workerThreadsSurviveExit();
// Whether the thread has already ended without being joined: at process
// exit on Windows, a DLL's thread is gone and joining it would never return.
bool threadHasEnded(std::thread& thread);

}  // namespace qorvarlok::platform
