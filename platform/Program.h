// What the programs (varlok, varlok-sim) need of the system: how they are
// asked to stop and tell that they are ready, and their environment. Stop requests are SIGINT/SIGTERM on Linux; Ctrl-C,
// Ctrl-Break, console close, or the named stop event of RequestStop on
// Windows, which has no signal that another process can send.
#pragma once

#include <cstdint>
#include <string>

namespace qorvarlok::platform {

// A program that writes to a pipe nobody reads goes on (SIGPIPE ignored).
void IgnoreBrokenPipe();
// Makes the stop requests wait for WaitForStopRequest; call before any thread starts.
void BlockStopRequests();
// Blocks until a stop request arrives; gives its number (the signal, or the console event).
int WaitForStopRequest();
// Calls handler (which may only set a flag) on a stop request, instead of ending the program.
void OnStopRequest(void (*handler)(int));
// Asks the program with this process id to stop as on Ctrl-C; false if it cannot be asked.
bool RequestStop(uint32_t processId);

// Writes the line to the inherited pipe that the number names (a file
// descriptor on Linux, a handle value on Windows) and closes it. False on failure.
bool WriteReadyLine(uint64_t pipe, const char* line);

// Sets a variable of the process environment, where the platform's libraries read it.
void SetEnvironment(const std::string& name, const std::string& value);

}  // namespace qorvarlok::platform
