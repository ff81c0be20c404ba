// Other processes for the transport's tests and benchmark: varlok-sim, or this
// test program again as a helper; each stopped only by the id it was given.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ExePath.h"
#include "TestSystem.h"

namespace shmtest {

// This test program, to run again as a helper.
inline std::string ThisProgram() { return qorvarlok::platform::executablePath(); }

// varlok-sim, serving once it says so on --ready-fd (within timeoutMs).
struct SimProcess {
  bool Start(const std::string& exe, std::vector<std::string> args, int timeoutMs = 5000) {
    child = std::make_unique<testsys::Child>();
    args.insert(args.end(), {"--log-level", "warn"});
    testsys::ChildOptions options;
    options.readyPipe = true;
    return child->Start(exe, args, options) && child->WaitReady(timeoutMs).find("ready\n") != std::string::npos;
  }
  int Stop() { return child ? child->Stop() : -1; }  // the exit code, or -1
  void Kill() {
    if (child) child->Kill();
  }
  std::unique_ptr<testsys::Child> child;
};

}  // namespace shmtest
