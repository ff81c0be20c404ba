// The controller's side of the RtosLib64 platform: the objects that clients
// find by name (three areas, six events, the alive marker), created and owned
// by one RtosHost per partition.
//
// Ownership: RtosHost::Create claims the partition (a robust mutex held by a
// keeper thread of the host for the host's whole life, so a killed controller
// is seen as dead at once), removes the leftovers of a crashed controller and
// creates the areas and events. The destructor removes exactly what this host
// created, and only then gives the partition up. Areas are cut to 0 bytes
// before their names go (at the end, and when a crashed controller's
// leftovers are removed), so a client still mapping them faults on its next
// access of the slot and sets up anew rather than talking to nobody: the
// client must guard every access of a slot, reads included.
//
// Threads: WaitRequest, SignalAnswer, Wake and the accessors may be called
// from any thread, one serving thread per channel being the intended use.
// TruncateAreas is for fault injection ("vanish in the middle of a command").
// Destroy the host only once no thread is left in WaitRequest (Wake them).
//
// Built as the static library RtosHost (target qv_rtoshost), linked by the
// controller; it shares the object layout code with libRtosLib64.so but not
// its process state.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace qorvarlok::rtos {

enum class Channel : uint8_t { Connect = 0, Notify = 1, DataSwap = 2 };

struct RtosHostOptions {
  // Empty: the partition of the environment (VARLOK_PARTITION, default "varlok").
  std::string partition;
  // Sizes in bytes of ConnectArea, NotifyArea, DataSwapArea; each at least 1.
  uint32_t connectAreaSize = 512;
  uint32_t notifyAreaSize = 0x500000;
  uint32_t dataSwapAreaSize = 0x500000;
  // How long WaitRequest spins before it sleeps, every time (no back-off, so
  // that a client's spin can catch the answer to a request sent right after
  // the last one); 0 sleeps at once and saves the processor.
  uint32_t spinMicroseconds = 50;
  // How long Create waits for the partition to become free.
  uint32_t claimTimeoutMs = 500;
};

enum class RtosHostError : uint32_t {
  None = 0,
  InvalidPartition,  // empty, too long, or holding '/' or non-printable characters
  InvalidSize,       // an area size of 0
  PartitionBusy,     // another living controller holds the partition
  System,            // a system call failed; the message names it and errno
};

struct RtosHostStatus {
  RtosHostError code = RtosHostError::None;
  std::string message;           // one line, for the controller's log
  bool cleanedLeftovers = false;  // objects of a dead controller were removed
};

class RtosHost {
 public:
  // Null on failure, with status->code and status->message set (status may be null).
  static std::unique_ptr<RtosHost> Create(const RtosHostOptions& options, RtosHostStatus* status);
  ~RtosHost();
  RtosHost(const RtosHost&) = delete;
  RtosHost& operator=(const RtosHost&) = delete;

  const std::string& Partition() const;
  uint8_t* Area(Channel channel) const;
  uint32_t AreaSize(Channel channel) const;

  // Waits for the channel's Windows-to-RTOS event (auto-reset): 0 when it was
  // signalled, RTE_ERROR_TIMEOUT (4203) when timeoutMs ran out.
  uint32_t WaitRequest(Channel channel, uint32_t timeoutMs);
  // Signals the channel's RTOS-to-Windows event. 0 on success.
  uint32_t SignalAnswer(Channel channel);
  // Sets the Windows-to-RTOS event so that a serving thread blocked in
  // WaitRequest returns; that thread then checks its own stop flag.
  void Wake(Channel channel);

  // Fault injection: cuts every area to 0 bytes, so clients' accesses fault.
  // False if a truncation failed, and always where CanCutAreas is false.
  bool TruncateAreas();
  // Whether this system can cut an area under a client's mapping (not on
  // Windows, where a view keeps its pages for as long as it is mapped).
  static bool CanCutAreas();

 private:
  struct Impl;
  explicit RtosHost(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> m_pImpl;
};

}  // namespace qorvarlok::rtos
