// A fresh process for the chaining of the fault guard: it sets what handled
// SIGBUS before (argv[1]: "own" handler or "default" action), installs the
// guard, and faults on a truncated area inside a guarded region, then outside.
// Exit: 42 own handler ran; 1 set-up failed; 2 guarded fault not turned into
// a result; 3 unguarded fault swallowed.
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "FaultGuard.h"
#include "RtosHost.h"

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  struct sigaction before {};
  sigemptyset(&before.sa_mask);
  before.sa_flags = SA_SIGINFO;
  before.sa_sigaction = [](int signal, siginfo_t*, void*) { _exit(signal == SIGBUS ? 42 : 43); };
  if (std::strcmp(argv[1], "own") != 0) before = {};  // SIG_DFL, also over a sanitizer's handler
  sigaction(SIGBUS, &before, nullptr);
  qorvarlok::platform::InstallFaultGuard();

  setenv("VARLOK_PARTITION", argv[2], 1);
  qorvarlok::rtos::RtosHostOptions options;
  options.dataSwapAreaSize = 4096;
  auto host = qorvarlok::rtos::RtosHost::Create(options, nullptr);
  if (host == nullptr || !host->TruncateAreas()) return 1;
  volatile uint8_t* slot = host->Area(qorvarlok::rtos::Channel::DataSwap);  // a mapping like a client's
  if (qorvarlok::platform::RunFaultGuarded([&] { slot[0] = 1; })) return 2;
  slot[0] = 1;
  return 3;
}
