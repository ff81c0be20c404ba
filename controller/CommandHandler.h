// The controller's answers to the commands of the three channels, worked on
// the slot bytes of an area: connect and disconnect with client sequence
// numbers, define and delete of tag lists, reads and writes of their values.
//
// Client sequence numbers are granted so that their low byte (all that the
// define and data swap commands carry) is never 0 and never that of another
// live client; when all 255 are taken the client idle for longest is dropped.
// Each controller instance starts granting sequence numbers and handle bases
// from seeded values of its own, so that a client's sequence numbers and
// handles from before a controller restart do not match the new instance's.
//
// Tag list handles: each connection gets a range of its own, base+1 ..
// base+N with base = (connection serial) x 65536, kept below 2^31 and never
// shared with another live connection. A client keeps the lists of an old
// connection in its chain and looks handles up first match first, so numbers
// must not repeat across connections. Deleting a list closes the gap: later
// handles of that connection move down by one, as the client's chain does.
//
// An answer writes every field first and Flag last. Refusals set a non-zero
// Err (errInfo on the connect channel) from RefusalCode and log one line.
//
// Thread-safe: one lock serialises all commands and the image (Lock()).
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "ProcessImage.h"

namespace qorvarlok::controller {

// A string value cut to the bytes its element holds keeps its terminator, so
// that the controller's strings stay strings (copied of wire bytes sent).
void TerminateIfCut(uint8_t* target, uint32_t copied, uint32_t wire, const TypeLayout* type);

// Err of a refused define or data swap command; errInfo of a refused
// disconnect. (2, 3 and 4 on the connect channel are what the client maps to
// its ERR_CONNECT_REFUSED codes.)
enum RefusalCode : uint32_t {
  kRefuseNone = 0,
  kRefuseBadRequest = 1,    // Flag or Rw not a request of the channel
  kRefuseUnknownClient = 2, // Seq of no connected client
  kRefuseUnknownName = 3,   // a name that does not resolve
  kRefuseStaleHandle = 4,   // TagsHandle of no list of the client
  kRefuseBadSize = 5,       // Size, ByteLength or entry sizes that disagree or exceed the area
  kRefuseOutOfArea = 6,     // an entry offset puts values beyond the area
  kRefuseBadRange = 7,      // a range write beyond the array or with a bad element length
  kRefuseTooManyLists = 8,  // the client holds the maximum number of lists
};

// errInfo of a refused connect-channel command.
constexpr uint32_t kConnectUnknownClient = 3;  // disconnect of a sequence number never granted
constexpr uint32_t kConnectBadRequest = 4;     // a Flag that is no connect-channel request

struct ListEntry {
  std::string name;
  Location location;
  uint32_t wireSize = 0;  // bytes the client reserves for the value
};

struct TagList {
  std::vector<ListEntry> entries;
  uint32_t byteLength = 0;
};

struct ClientState {
  uint32_t seq = 0;
  uint32_t handleBase = 0;     // a multiple of kHandleRange
  std::vector<TagList> lists;  // handle h is lists[h - handleBase - 1]
  uint64_t lastUse = 0;
};

class CommandHandler {
 public:
  static constexpr size_t kMaxClients = 255;
  static constexpr uint32_t kHandleRange = 65536;
  static constexpr size_t kMaxListsPerClient = kHandleRange - 1;
  static constexpr uint32_t kHandleBases = 0x7FFFu;  // bases 1..32767 x 65536: handles stay below 2^31

  // dataSwapAreaSize bounds the lists a define accepts: their values must fit
  // behind the header and entries of a data swap command. firstSeq 0 seeds the
  // first client sequence number and handle base from the clock and the
  // process id; any other firstSeq starts the handle bases at the first.
  CommandHandler(ProcessImage& image, uint32_t dataSwapAreaSize, uint32_t firstSeq = 0);

  // Each works on the request in area[0, size) and writes the answer there,
  // Flag last, or not at all when setFlag is false (a fault to inject).
  // Areas smaller than the slot header are ignored.
  void Connect(uint8_t* area, size_t size, bool setFlag = true);
  void Define(uint8_t* area, size_t size, bool setFlag = true);
  void DataSwap(uint8_t* area, size_t size, bool setFlag = true);

  std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(m_mutex); }
  ProcessImage& Image() { return m_image; }

  // For tests and status lines; take the lock.
  size_t ClientCount();
  size_t ListCount(uint32_t seq);

 private:
  uint32_t GrantSequence();
  uint32_t NextHandleBase();
  ClientState* FindClient(uint8_t seqByte);
  static TagList* FindList(ClientState& client, uint32_t handle);
  uint32_t DefineList(uint8_t* area, size_t size, ClientState& client, uint32_t& handle);
  uint32_t DeleteList(uint8_t* area, ClientState& client);
  uint32_t ReadValues(uint8_t* area, size_t size, const TagList& list, uint32_t count);
  uint32_t WriteValues(uint8_t* area, size_t size, const TagList& list, uint32_t count);
  uint32_t WriteRange(uint8_t* area, size_t size, const TagList& list);

  ProcessImage& m_image;
  uint32_t m_dataSwapAreaSize;
  std::mutex m_mutex;
  std::map<uint8_t, ClientState> m_clients;  // by the low byte of the sequence number
  uint32_t m_nextSeq;
  uint32_t m_connections = 0;  // connects granted so far; picks the handle base
  uint32_t m_beat = 0;
  uint64_t m_commands = 0;
  std::vector<uint32_t> m_offsets;  // the data swap command's entries, as taken from the slot
};

}  // namespace qorvarlok::controller
