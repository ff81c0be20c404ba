#include "TagAccessClient.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "QorVarlok/ZelVarlok.h"
#include "SocketIo.h"

namespace qorvarlok::tagaccess {

namespace {

long MsUntil(Clock::time_point deadline) {
  return static_cast<long>(std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count());
}

namespace sys = qorvarlok::platform;

}  // namespace

// ------------------------------------------------------------------ answers
uint32_t ApplyDefineAnswer(const DefineAnswer& answer, const std::vector<uint32_t>& widths, ClientList& list) {
  if (answer.tags.size() != list.names.size()) return ERR_PLC_DEFINE_FAILED;
  uint64_t total = 0;
  for (size_t i = 0; i < answer.tags.size(); ++i) {
    const uint32_t asked = i < widths.size() ? widths[i] : kWidthOfController;
    if (asked != kWidthOfController && answer.tags[i].width != asked) return ERR_PLC_DEFINE_FAILED;
    total += answer.tags[i].width;
  }
  if (total > kMaxListValueBytes) return ERR_TOO_MANY_TAGS;
  list.id = answer.list;
  list.values.assign(static_cast<size_t>(total), 0);
  list.records.resize(answer.tags.size());
  size_t offset = 0;
  for (size_t i = 0; i < answer.tags.size(); ++i) {
    ZtaTagValue& r = list.records[i];
    r.FullName = list.names[i].c_str();
    r.Type = answer.tags[i].type;
    r.ValueLength = static_cast<int>(answer.tags[i].width);
    r.Value = list.values.data() + offset;
    offset += answer.tags[i].width;
  }
  return 0;
}

uint32_t ApplyReadAnswer(Bytes body, ClientList& list) {
  Bytes values;
  if (DecodeReadAnswer(body, values) != Refusal::Ok || values.size != list.values.size()) return ERR_READ_FAILED;
  if (values.size != 0) std::memcpy(list.values.data(), values.data, values.size);
  return 0;
}

bool ParseAddress(const std::string& address, std::string& host, uint16_t& port) {
  port = ZTA_DEFAULT_PORT;
  std::string rest;
  if (!address.empty() && address[0] == '[') {
    const size_t close = address.find(']');
    if (close == std::string::npos) return false;
    host = address.substr(1, close - 1);
    rest = address.substr(close + 1);
    if (!rest.empty() && rest[0] != ':') return false;
  } else {
    const size_t colon = address.find(':');
    host = address.substr(0, colon);
    if (colon != std::string::npos) {
      if (address.find(':', colon + 1) != std::string::npos) return false;  // a bare v6 address needs brackets
      rest = address.substr(colon);
    }
  }
  if (host.empty()) return false;
  if (rest.empty()) return true;
  const std::string digits = rest.substr(1);
  if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != std::string::npos) return false;
  const unsigned long value = std::stoul(digits);
  if (value == 0 || value > 65535) return false;
  port = static_cast<uint16_t>(value);
  return true;
}

// ------------------------------------------------------------------ device
Device::Device(uint32_t timeoutMs) : m_socket(m_io), m_timeoutMs(timeoutMs), m_lastExchange(Clock::now()) {}

Device::~Device() { Close(); }

std::shared_ptr<Device> Device::Connect(const std::string& address, uint32_t timeoutMs, const std::string& token,
                                        uint32_t& err) {
  std::string host;
  uint16_t port = 0;
  err = ZTA_ERR_UNREACHABLE;
  if (!ParseAddress(address, host, port)) return nullptr;
  // The connect runs on the device's own context: a socket cannot be moved
  // from one context to another on every system (on Windows it stays bound to
  // the completion port of the first).
  std::shared_ptr<Device> device(new Device(timeoutMs));
  asio::io_context& io = device->m_io;
  asio::error_code ec;
  asio::ip::tcp::resolver resolver(io);
  const auto endpoints = resolver.resolve(host, std::to_string(port), ec);
  if (ec) return nullptr;
  asio::ip::tcp::socket& socket = device->m_socket;
  bool done = false;
  asio::async_connect(socket, endpoints, [&](const asio::error_code& e, const asio::ip::tcp::endpoint&) {
    ec = e;
    done = true;
  });
  io.run_for(std::chrono::milliseconds(timeoutMs));
  if (!done) {
    socket.close(ec);  // aborts the attempt; its handler runs below
    io.restart();
    io.run();
    return nullptr;
  }
  if (ec) return nullptr;
  socket.set_option(asio::ip::tcp::no_delay(true), ec);
  // Asio left the descriptor non-blocking after the connect; the device's calls block with time limits.
  const auto native = static_cast<sys::NativeSocket>(socket.native_handle());
  if (!sys::MakeBlocking(native) || !sys::SetSendLimit(native, timeoutMs)) return nullptr;
  err = device->Handshake(token);
  return err == 0 ? device : nullptr;
}

uint32_t Device::Handshake(const std::string& token) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Hello hello;
  hello.token = token;
  const uint32_t id = NextId();
  m_out.clear();
  AppendHello(m_out, id, hello);
  Frame answer;
  uint32_t code = Exchange(id, MsgType::Hello, answer);
  // No answer in time, or the connection ended: the controller was not reached.
  if (code == ERR_NOT_CONNECTED && m_bBadFrame) return ERR_VENDER_NOT_MATCHED;  // another protocol answered
  if (code == ERR_WAIT_TIMEOUT || code == ERR_NOT_CONNECTED) return ZTA_ERR_UNREACHABLE;
  if (code != 0) return code;
  HelloAnswer info;
  if (DecodeHelloAnswer(answer.body, info) != Refusal::Ok || info.version != kProtocolVersion) {
    Break();
    return ERR_VENDER_NOT_MATCHED;
  }
  if (info.idleLimitMs != 0) {
    const uint32_t interval = std::max<uint32_t>(info.idleLimitMs / 3, 1);
    m_keepAlive = std::thread(&Device::KeepAliveLoop, this, interval);
  }
  return 0;
}

uint32_t Device::NextId() {
  if (++m_lastId == 0) m_lastId = 1;  // 0 is the controller's, for words that answer nothing
  return m_lastId;
}

void Device::Break() {
  m_bBroken = true;
  asio::error_code ec;
  m_socket.shutdown(asio::ip::tcp::socket::shutdown_both, ec);
}

bool Device::SendAll(Clock::time_point deadline, bool& timedOut) {
  timedOut = false;
  const auto fd = static_cast<sys::NativeSocket>(m_socket.native_handle());
  size_t sent = 0;
  while (sent < m_out.size()) {
    size_t n = 0;
    const sys::SocketStep step = sys::SendSome(fd, m_out.data() + sent, m_out.size() - sent, &n);
    if (step == sys::SocketStep::Done) {
      sent += n;
      continue;
    }
    if (step == sys::SocketStep::Again) continue;
    if (step == sys::SocketStep::TimedOut && MsUntil(deadline) > 0) continue;
    timedOut = step == sys::SocketStep::TimedOut;
    return false;
  }
  return true;
}

long Device::Receive(Clock::time_point deadline) {
  const auto fd = static_cast<sys::NativeSocket>(m_socket.native_handle());
  while (true) {
    const long left = MsUntil(deadline);
    if (left <= 0) return -1;
    // Changing the limit costs a call: only when it is off by more than a millisecond.
    if (left < m_receiveLimitMs - 1 || left > m_receiveLimitMs + 1) {
      if (!sys::SetReceiveLimit(fd, left)) return 0;
      m_receiveLimitMs = left;
    }
    size_t room = 0;
    uint8_t* at = m_in.Space(room);
    size_t n = 0;
    const sys::SocketStep step = sys::ReceiveSome(fd, at, room, &n);
    if (step == sys::SocketStep::Done) {
      m_in.Commit(n);
      return static_cast<long>(n);
    }
    if (step == sys::SocketStep::Again || step == sys::SocketStep::TimedOut) continue;
    return 0;
  }
}

uint32_t Device::Exchange(uint32_t id, MsgType type, Frame& answer) {
  if (m_bBroken) return ERR_NOT_CONNECTED;
  const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(m_timeoutMs);
  bool timedOut = false;
  if (!SendAll(deadline, timedOut)) {
    Break();  // a request sent in part leaves the stream unusable
    return timedOut ? ERR_WAIT_TIMEOUT : ERR_NOT_CONNECTED;
  }
  m_lastExchange = Clock::now();
  while (true) {
    Frame frame;
    const Refusal r = m_in.Next(frame);
    if (r == Refusal::Ok) {
      if (frame.header.requestId == 0 && frame.header.status != 0) {
        Break();  // the controller says why it ends the connection
        return frame.header.status;
      }
      if (frame.header.requestId != id) continue;  // the answer of a request given up: dropped
      if (frame.header.type != AnswerOf(type)) {
        m_bBadFrame = true;
        Break();
        return ERR_NOT_CONNECTED;
      }
      answer = frame;
      return frame.header.status;
    }
    if (r != Refusal::Truncated) {
      m_bBadFrame = true;
      Break();
      return ERR_NOT_CONNECTED;
    }
    const long n = Receive(deadline);
    if (n < 0) return ERR_WAIT_TIMEOUT;
    if (n == 0) {
      Break();
      return ERR_NOT_CONNECTED;
    }
  }
}

ClientList* Device::Find(ListCell* cell) {
  auto it = m_lists.find(cell);
  return it == m_lists.end() ? nullptr : it->second.get();
}

uint32_t Device::Define(const std::vector<std::string>& names, const std::vector<uint32_t>& widths, uint32_t period,
                        ListCell* cell) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto list = std::make_unique<ClientList>();
  list->names = names;
  DefineRequest request;
  request.period = period;
  request.names = names;
  request.widths = widths;
  const uint32_t id = NextId();
  m_out.clear();
  AppendDefine(m_out, id, request);
  Frame frame;
  uint32_t code = Exchange(id, MsgType::Define, frame);
  if (code != 0) return code;
  DefineAnswer answer;
  if (DecodeDefineAnswer(frame.body, answer) != Refusal::Ok) return ERR_PLC_DEFINE_FAILED;
  code = ApplyDefineAnswer(answer, widths, *list);
  if (code != 0) {
    // A list the client cannot use: give it back rather than leave it on the controller.
    const uint32_t deleteId = NextId();
    m_out.clear();
    AppendListRequest(m_out, MsgType::Delete, deleteId, answer.list);
    Exchange(deleteId, MsgType::Delete, frame);
    return code;
  }
  cell->number = static_cast<int32_t>(list->id);
  m_lists[cell] = std::move(list);
  return 0;
}

uint32_t Device::Delete(ListCell* cell) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ClientList* list = Find(cell);
  if (list == nullptr) return ERR_INVALID_TAG_HANDLE;
  const uint32_t id = NextId();
  m_out.clear();
  AppendListRequest(m_out, MsgType::Delete, id, list->id);
  Frame frame;
  const uint32_t code = Exchange(id, MsgType::Delete, frame);
  // The list goes here whatever the controller says: it ends with the connection in any case.
  m_lists.erase(cell);
  return code;
}

uint32_t Device::Read(ListCell* cell, ZtaTagValue** values, uint32_t* count) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ClientList* list = Find(cell);
  if (list == nullptr) return ERR_INVALID_TAG_HANDLE;
  const uint32_t id = NextId();
  m_out.clear();
  AppendListRequest(m_out, MsgType::Read, id, list->id);
  Frame frame;
  uint32_t code = Exchange(id, MsgType::Read, frame);
  if (code == 0) code = ApplyReadAnswer(frame.body, *list);
  if (code != 0) return code;
  if (values != nullptr) *values = list->records.data();
  if (count != nullptr) *count = static_cast<uint32_t>(list->records.size());
  return 0;
}

uint32_t Device::Write(ListCell* cell, const void* image) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ClientList* list = Find(cell);
  if (list == nullptr) return ERR_INVALID_TAG_HANDLE;
  if (image == nullptr && !list->values.empty()) return ERR_INVALID_PARAMS;
  const uint32_t id = NextId();
  m_out.clear();
  AppendWrite(m_out, id, list->id, static_cast<const uint8_t*>(image), static_cast<uint32_t>(list->values.size()));
  Frame frame;
  const uint32_t code = Exchange(id, MsgType::Write, frame);
  return code != 0 ? code : (DecodeEmpty(frame.body) == Refusal::Ok ? 0 : ERR_PLC_READ_WRITE_FAILED);
}

std::vector<ListCell*> Device::Cells() {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<ListCell*> cells;
  for (const auto& entry : m_lists) cells.push_back(entry.first);
  return cells;
}

void Device::KeepAliveLoop(uint32_t intervalMs) {
  std::unique_lock<std::mutex> wake(m_wakeMutex);
  while (!m_bStop) {
    m_wake.wait_for(wake, std::chrono::milliseconds(intervalMs));
    if (m_bStop) break;
    wake.unlock();
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (!m_bBroken && Clock::now() - m_lastExchange >= std::chrono::milliseconds(intervalMs)) {
        const uint32_t id = NextId();
        m_out.clear();
        AppendKeepAlive(m_out, id);
        Frame frame;
        Exchange(id, MsgType::KeepAlive, frame);
      }
    }
    wake.lock();
  }
}

void Device::Close() {
  {
    std::lock_guard<std::mutex> wake(m_wakeMutex);
    m_bStop = true;
  }
  m_wake.notify_all();
  if (m_keepAlive.joinable()) m_keepAlive.join();
  std::lock_guard<std::mutex> lock(m_mutex);
  m_lists.clear();
  m_bBroken = true;
  asio::error_code ec;
  m_socket.close(ec);
}

// ---------------------------------------------------------------- registry
Registry& Registry::Instance() {
  static Registry* registry = new Registry();
  return *registry;
}

void* Registry::AddDevice(std::shared_ptr<Device> device) {
  std::lock_guard<std::mutex> lock(m_mutex);
  void* key = device.get();
  m_devices[key] = std::move(device);
  return key;
}

std::shared_ptr<Device> Registry::FindDevice(void* device) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_devices.find(device);
  return it == m_devices.end() ? nullptr : it->second;
}

std::shared_ptr<Device> Registry::TakeDevice(void* device) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_devices.find(device);
  if (it == m_devices.end()) return nullptr;
  std::shared_ptr<Device> taken = std::move(it->second);
  m_devices.erase(it);
  return taken;
}

ListCell* Registry::NewCell(const std::shared_ptr<Device>& device) {
  std::lock_guard<std::mutex> lock(m_mutex);
  ListCell* cell = nullptr;
  if (!m_free.empty()) {
    cell = m_free.front();
    m_free.pop_front();
  } else {
    cell = &m_cells.emplace_back();
  }
  cell->number = 0;
  ++cell->generation;
  m_lists[cell] = device;
  return cell;
}

std::shared_ptr<Device> Registry::DeviceOfList(void* handle) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto it = m_lists.find(handle);
  return it == m_lists.end() ? nullptr : it->second.lock();
}

void Registry::FreeCell(ListCell* cell) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_lists.erase(cell) != 0) m_free.push_back(cell);
}

}  // namespace qorvarlok::tagaccess
