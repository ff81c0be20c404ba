// The client side of the tag-access protocol: one Device per connection,
// with its lists, and the process-wide registry that turns the opaque
// pointers of the C calls back into them.
//
// A request is sent and its answer awaited in the caller's thread, on a
// blocking socket whose time limits follow the request's deadline; frames
// with another request id (answers that came too late) are dropped. A
// connection that failed (closed, reset, a frame that breaks the protocol,
// a request sent only in part) is marked broken and answers
// ERR_NOT_CONNECTED at once from then on.
#pragma once

#include <asio.hpp>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "TagAccessProtocol.h"
#include "ZelTagAccess.h"

namespace qorvarlok::tagaccess {

using Clock = std::chrono::steady_clock;

// What a list handle points at: the controller's number of the list first.
struct ListCell {
  int32_t number = 0;
  uint32_t generation = 0;
};

// A list as the client keeps it: names for the records, the records, the values.
struct ClientList {
  uint32_t id = 0;
  std::vector<std::string> names;
  std::vector<ZtaTagValue> records;
  std::vector<uint8_t> values;
};

// Checks a define answer against what was asked (count, the widths the
// caller fixed, the bound of a list) and lays the list out. 0 or
// ERR_PLC_DEFINE_FAILED (a broken answer) or ERR_TOO_MANY_TAGS.
uint32_t ApplyDefineAnswer(const DefineAnswer& answer, const std::vector<uint32_t>& widths, ClientList& list);
// Takes a read answer's values into the list. 0 or ERR_READ_FAILED.
uint32_t ApplyReadAnswer(Bytes body, ClientList& list);

// The address the caller gave: "host", "host:port", "[v6]" or "[v6]:port".
bool ParseAddress(const std::string& address, std::string& host, uint16_t& port);

class Device {
 public:
  // Null with err set on failure (see ZelTagAccess.h).
  static std::shared_ptr<Device> Connect(const std::string& address, uint32_t timeoutMs, const std::string& token,
                                         uint32_t& err);
  ~Device();
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  uint32_t Define(const std::vector<std::string>& names, const std::vector<uint32_t>& widths, uint32_t period,
                  ListCell* cell);
  uint32_t Delete(ListCell* cell);
  uint32_t Read(ListCell* cell, ZtaTagValue** values, uint32_t* count);
  uint32_t Write(ListCell* cell, const void* image);
  // Ends the keep-alive thread and the connection; later requests answer ERR_NOT_CONNECTED.
  void Close();
  std::vector<ListCell*> Cells();

 private:
  explicit Device(uint32_t timeoutMs);
  uint32_t Handshake(const std::string& token);
  // Sends m_out (one request of id) and waits for its answer. The code of
  // the exchange, or the answer's status; frame valid until the next exchange.
  uint32_t Exchange(uint32_t id, MsgType type, Frame& answer);
  bool SendAll(Clock::time_point deadline, bool& timedOut);
  // >0 bytes, 0 closed or failed, -1 timed out.
  long Receive(Clock::time_point deadline);
  uint32_t NextId();
  void Break();
  void KeepAliveLoop(uint32_t intervalMs);
  ClientList* Find(ListCell* cell);

  asio::io_context m_io;
  asio::ip::tcp::socket m_socket;
  uint32_t m_timeoutMs;
  std::mutex m_mutex;  // one exchange at a time; guards everything below
  FrameAssembler m_in{false};
  std::vector<uint8_t> m_out;
  uint32_t m_lastId = 0;
  bool m_bBroken = false;
  bool m_bBadFrame = false;  // the stream broke the protocol
  long m_receiveLimitMs = -1;  // the SO_RCVTIMEO in force
  Clock::time_point m_lastExchange;
  std::unordered_map<ListCell*, std::unique_ptr<ClientList>> m_lists;

  std::mutex m_wakeMutex;
  std::condition_variable m_wake;
  bool m_bStop = false;
  std::thread m_keepAlive;
};

// The devices and lists that the C calls know. Cells are never freed: a
// stale handle still points at readable memory. Leaked at exit on purpose,
// so that no device thread meets a destroyed registry.
class Registry {
 public:
  static Registry& Instance();
  void* AddDevice(std::shared_ptr<Device> device);
  std::shared_ptr<Device> FindDevice(void* device);
  std::shared_ptr<Device> TakeDevice(void* device);
  ListCell* NewCell(const std::shared_ptr<Device>& device);
  std::shared_ptr<Device> DeviceOfList(void* handle);
  void FreeCell(ListCell* cell);

 private:
  std::mutex m_mutex;
  std::unordered_map<void*, std::shared_ptr<Device>> m_devices;
  std::unordered_map<const void*, std::weak_ptr<Device>> m_lists;
  std::deque<ListCell> m_cells;
  std::deque<ListCell*> m_free;  // oldest first: a freed cell waits as long as it can
};

}  // namespace qorvarlok::tagaccess
