// Test access to the client singleton: bring it back to "not set up", as a
// lost mapping would, so that each test starts from a fresh set-up.
#pragma once

#include "ShmComClient.h"

namespace qorvarlok::shm {

class ShmComClientProbe {
 public:
  static void MarkLost(ShmComClient* client) { client->m_bInitialized = false; }
  // Whatever state the singleton is in, the next GetInstance sets it up anew.
  static void ForceNewSetUp() {
    if (ShmComClient* client = ShmComClient::GetInstance()) MarkLost(client);
  }
};

}  // namespace qorvarlok::shm
