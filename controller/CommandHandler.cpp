#include "CommandHandler.h"


#include <algorithm>
#include <chrono>
#include <cstring>
#include <random>

#include "QorVarlok/ZelVarlok.h"
#include "SlotFormat.h"
#include "VarlokLog.h"

namespace qorvarlok::controller {

using namespace slot;

namespace {

// Two instances started one after the other, even in the same process, get
// unrelated starting points: the clock's nanoseconds and the system's
// entropy, mixed so that close inputs land far apart.
uint32_t SeededSequence() {
  uint64_t x = static_cast<uint64_t>(std::chrono::high_resolution_clock::now().time_since_epoch().count()) ^
               (static_cast<uint64_t>(std::random_device{}()) << 32);
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  x ^= x >> 31;
  const auto seq = static_cast<uint32_t>(x);
  return seq == 0 ? 1 : seq;
}

}  // namespace

void TerminateIfCut(uint8_t* target, uint32_t copied, uint32_t wire, const TypeLayout* type) {
  if (wire <= copied || copied == 0) return;
  if (type->shape == Shape::String) target[copied - 1] = 0;
  if (type->shape == Shape::WString && copied >= 2) target[copied - 1] = target[copied - 2] = 0;
}

CommandHandler::CommandHandler(ProcessImage& image, uint32_t dataSwapAreaSize, uint32_t firstSeq)
    : m_image(image),
      m_dataSwapAreaSize(dataSwapAreaSize),
      m_nextSeq(firstSeq != 0 ? firstSeq : SeededSequence()),
      // A client keeps the lists of a connection to a controller that died in
      // its chain and looks handles up first match first: a restarted
      // controller that numbered from the same base would have the client's
      // new lists found as its dead ones.
      m_connections(firstSeq != 0 ? 0 : SeededSequence() % kHandleBases) {}

size_t CommandHandler::ClientCount() {
  auto lock = Lock();
  return m_clients.size();
}

size_t CommandHandler::ListCount(uint32_t seq) {
  auto lock = Lock();
  auto it = m_clients.find(static_cast<uint8_t>(seq));
  return it == m_clients.end() || it->second.seq != seq ? 0 : it->second.lists.size();
}

// ------------------------------------------------------------------ connect
uint32_t CommandHandler::GrantSequence() {
  if (m_clients.size() >= kMaxClients) {
    auto idle = std::min_element(m_clients.begin(), m_clients.end(),
                                 [](const auto& a, const auto& b) { return a.second.lastUse < b.second.lastUse; });
    VLOG(warn, "CommandHandler::Connect", "client seq {} dropped: all {} client slots are taken", idle->second.seq,
         kMaxClients);
    m_clients.erase(idle);
  }
  const uint32_t base = NextHandleBase();
  while (true) {
    const uint32_t seq = m_nextSeq++;
    if (m_nextSeq == 0) m_nextSeq = 1;
    const auto low = static_cast<uint8_t>(seq);
    if (low == 0 || m_clients.count(low) != 0) continue;
    ClientState& client = m_clients[low];
    client.seq = seq;
    client.handleBase = base;
    client.lastUse = ++m_commands;
    return seq;
  }
}

// At most 255 clients live among 32767 bases, so a free one is always near.
uint32_t CommandHandler::NextHandleBase() {
  while (true) {
    const uint32_t base = (m_connections++ % kHandleBases + 1) * kHandleRange;
    if (std::none_of(m_clients.begin(), m_clients.end(),
                     [base](const auto& c) { return c.second.handleBase == base; }))
      return base;
  }
}

TagList* CommandHandler::FindList(ClientState& client, uint32_t handle) {
  if (handle <= client.handleBase || handle - client.handleBase > client.lists.size()) return nullptr;
  return &client.lists[handle - client.handleBase - 1];
}

void CommandHandler::Connect(uint8_t* area, size_t size, bool setFlag) {
  if (area == nullptr || size < kConnectSlotSize) return;
  auto lock = Lock();
  const uint32_t flag = Load<uint32_t>(area, kConnectFlag);
  const uint32_t seq = Load<uint32_t>(area, kConnectSeq);
  uint32_t errInfo = 0;
  if (flag == kConnectRequest) {
    const uint32_t granted = GrantSequence();
    Store<uint32_t>(area, kConnectSeq, granted);
    VLOG(info, "CommandHandler::Connect", "connect: client seq {} granted, {} connected", granted, m_clients.size());
  } else if (flag == kDisconnectRequest || flag == kDisconnectAlias) {
    auto it = m_clients.find(static_cast<uint8_t>(seq));
    if (it != m_clients.end() && it->second.seq == seq) {
      VLOG(info, "CommandHandler::Connect", "disconnect: client seq {} with {} lists", seq, it->second.lists.size());
      m_clients.erase(it);
    } else {
      errInfo = kConnectUnknownClient;
      VLOG(warn, "CommandHandler::Connect", "refused disconnect: client seq {} is not connected", seq);
    }
  } else {
    errInfo = kConnectBadRequest;
    VLOG(warn, "CommandHandler::Connect", "refused connect command: Flag {} is no request", flag);
  }
  Store<uint32_t>(area, kConnectBeat, ++m_beat);
  Store<uint32_t>(area, kConnectErrInfo, errInfo);
  if (setFlag) PublishFlag<uint32_t>(area, kConnectFlag, kDone);
}

ClientState* CommandHandler::FindClient(uint8_t seqByte) {
  auto it = m_clients.find(seqByte);
  if (it == m_clients.end()) return nullptr;
  it->second.lastUse = ++m_commands;
  return &it->second;
}

// ------------------------------------------------------------------- define
void CommandHandler::Define(uint8_t* area, size_t size, bool setFlag) {
  if (area == nullptr || size < kDefineEntries) return;
  auto lock = Lock();
  const uint8_t flag = Load<uint8_t>(area, kDefineFlag);
  const uint8_t seq = Load<uint8_t>(area, kDefineSeq);
  uint32_t err = kRefuseNone;
  ClientState* client = FindClient(seq);
  if (client == nullptr) {
    err = kRefuseUnknownClient;
    VLOG(warn, "CommandHandler::Define", "refused define command: client seq byte {} is not connected", seq);
  } else if (flag == kDefineRequest) {
    uint32_t handle = 0;
    err = DefineList(area, size, *client, handle);
    if (err == kRefuseNone) Store<uint32_t>(area, kDefineHandle, handle);
  } else if (flag == kDeleteRequest) {
    err = DeleteList(area, *client);
  } else {
    err = kRefuseBadRequest;
    VLOG(warn, "CommandHandler::Define", "refused define command: Flag {} is no request", flag);
  }
  Store<uint16_t>(area, kDefineErr, static_cast<uint16_t>(err));
  if (setFlag) PublishFlag<uint8_t>(area, kDefineFlag, static_cast<uint8_t>(kDone));
}

uint32_t CommandHandler::DefineList(uint8_t* area, size_t size, ClientState& client, uint32_t& handle) {
  const uint32_t count = Load<uint32_t>(area, kDefineSize);
  const uint32_t byteLength = Load<uint32_t>(area, kDefineByteLength);
  if (client.lists.size() >= kMaxListsPerClient) {
    VLOG(warn, "CommandHandler::Define", "refused define: client seq {} holds {} lists already", client.seq,
         client.lists.size());
    return kRefuseTooManyLists;
  }
  if (count > (size - kDefineEntries) / kEntrySize) {
    VLOG(warn, "CommandHandler::Define", "refused define: Size {} does not fit the area of {} bytes", count, size);
    return kRefuseBadSize;
  }
  TagList list;
  list.byteLength = byteLength;
  list.entries.reserve(count);
  uint64_t total = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const auto* entry = reinterpret_cast<const char*>(area + kDefineEntries + size_t{i} * kEntrySize);
    ListEntry e;
    e.name.assign(entry, strnlen(entry, kEntryNameLength));
    e.wireSize = Load<uint32_t>(area, kDefineEntries + size_t{i} * kEntrySize + kEntrySizeField);
    const ResolveResult r = m_image.Resolve(e.name, e.location);
    if (r != ResolveResult::Ok) {
      VLOG(warn, "CommandHandler::Define", "refused define: client seq {}, entry {} \"{}\": {}", client.seq, i,
           e.name, ToText(r));
      return kRefuseUnknownName;
    }
    total += e.wireSize;
    list.entries.push_back(std::move(e));
  }
  if (total != byteLength) {
    VLOG(warn, "CommandHandler::Define", "refused define: ByteLength {} but the entries' sizes add up to {}",
         byteLength, total);
    return kRefuseBadSize;
  }
  if (kSwapEntries + uint64_t{count} * 4 + byteLength > m_dataSwapAreaSize) {
    VLOG(warn, "CommandHandler::Define", "refused define: {} tags of {} bytes do not fit the data swap area", count,
         byteLength);
    return kRefuseBadSize;
  }
  client.lists.push_back(std::move(list));
  handle = client.handleBase + static_cast<uint32_t>(client.lists.size());
  VLOG(info, "CommandHandler::Define", "define: client seq {} handle {} with {} tags, {} bytes", client.seq, handle,
       count, byteLength);
  return kRefuseNone;
}

uint32_t CommandHandler::DeleteList(uint8_t* area, ClientState& client) {
  const uint32_t handle = Load<uint32_t>(area, kDefineHandle);
  if (FindList(client, handle) == nullptr) {
    VLOG(warn, "CommandHandler::Define", "refused delete: client seq {} has no list {}", client.seq, handle);
    return kRefuseStaleHandle;
  }
  client.lists.erase(client.lists.begin() + (handle - client.handleBase - 1));
  VLOG(info, "CommandHandler::Define", "delete: client seq {} handle {}, {} lists left", client.seq, handle,
       client.lists.size());
  return kRefuseNone;
}

// ---------------------------------------------------------------- data swap
void CommandHandler::DataSwap(uint8_t* area, size_t size, bool setFlag) {
  if (area == nullptr || size < kSwapEntries) return;
  auto lock = Lock();
  const uint8_t flag = Load<uint8_t>(area, kSwapFlag);
  const uint8_t seq = Load<uint8_t>(area, kSwapSeq);
  const uint8_t rw = Load<uint8_t>(area, kSwapRw);
  const uint32_t count = Load<uint32_t>(area, kSwapSize);
  const uint32_t handle = Load<uint32_t>(area, kSwapHandle);
  uint32_t err = kRefuseNone;
  ClientState* client = nullptr;
  const TagList* list = nullptr;
  if ((rw != kRead && rw != kWrite) || flag != rw) {
    err = kRefuseBadRequest;
    VLOG(warn, "CommandHandler::DataSwap", "refused data swap: Flag {} with Rw {}", flag, rw);
  } else if ((client = FindClient(seq)) == nullptr) {
    err = kRefuseUnknownClient;
    VLOG(warn, "CommandHandler::DataSwap", "refused data swap: client seq byte {} is not connected", seq);
  } else if ((list = FindList(*client, handle)) == nullptr) {
    err = kRefuseStaleHandle;
    VLOG(warn, "CommandHandler::DataSwap", "refused data swap: client seq {} has no list {}", client->seq, handle);
  } else if (count > (size - kSwapEntries) / 4) {
    err = kRefuseBadSize;
    VLOG(warn, "CommandHandler::DataSwap", "refused data swap: Size {} does not fit the area of {} bytes", count, size);
  } else {
    // The client's process can change the slot while we work on it: the
    // offsets are taken once, so the ones checked are the ones used.
    m_offsets.resize(count);
    if (count != 0) std::memcpy(m_offsets.data(), area + kSwapEntries, size_t{count} * 4);
    err = rw == kRead ? ReadValues(area, size, *list, count) : WriteValues(area, size, *list, count);
  }
  Store<uint32_t>(area, kSwapErr, err);
  if (setFlag) PublishFlag<uint8_t>(area, kSwapFlag, static_cast<uint8_t>(kDone));
}

namespace {

// Entry offsets are the client's running offsets; each value must lie in the area.
bool EntriesInArea(const uint32_t* offsets, size_t size, const TagList& list, uint32_t count) {
  const uint64_t room = size - (kSwapEntries + uint64_t{count} * 4);
  for (uint32_t i = 0; i < count; ++i)
    if (uint64_t{offsets[i]} + list.entries[i].wireSize > room) return false;
  return true;
}

// A write of an array through a range descriptor (0, start, bytes, element
// length) rather than one offset per tag. A list whose tag count happens to be
// 4 is taken as a range write only when its entries are not its running offsets.
bool IsRangeWrite(const uint32_t* offsets, const TagList& list, uint32_t count) {
  if (count != 4 || list.entries.empty() || list.entries[0].location.type->shape != Shape::Array) return false;
  if (list.entries.size() != 4) return true;
  uint32_t running = 0;
  for (uint32_t i = 0; i < 4; ++i) {
    if (offsets[i] != running) return true;
    running += list.entries[i].wireSize;
  }
  return false;
}

}  // namespace

uint32_t CommandHandler::ReadValues(uint8_t* area, size_t size, const TagList& list, uint32_t count) {
  if (count != list.entries.size()) {
    VLOG(warn, "CommandHandler::DataSwap", "refused read: Size {} for a list of {} tags", count, list.entries.size());
    return kRefuseBadSize;
  }
  if (!EntriesInArea(m_offsets.data(), size, list, count)) {
    VLOG(warn, "CommandHandler::DataSwap", "refused read: an entry offset puts values beyond the area");
    return kRefuseOutOfArea;
  }
  uint8_t* values = area + kSwapEntries + size_t{count} * 4;
  for (uint32_t i = 0; i < count; ++i) {
    const ListEntry& e = list.entries[i];
    const uint32_t n = std::min(e.wireSize, e.location.size);
    uint8_t* target = values + m_offsets[i];
    std::memcpy(target, m_image.Data() + e.location.offset, n);
    std::memset(target + n, 0, e.wireSize - n);
  }
  return kRefuseNone;
}

uint32_t CommandHandler::WriteValues(uint8_t* area, size_t size, const TagList& list, uint32_t count) {
  if (IsRangeWrite(m_offsets.data(), list, count)) return WriteRange(area, size, list);
  if (count != list.entries.size()) {
    VLOG(warn, "CommandHandler::DataSwap", "refused write: Size {} for a list of {} tags", count, list.entries.size());
    return kRefuseBadSize;
  }
  if (!EntriesInArea(m_offsets.data(), size, list, count)) {
    VLOG(warn, "CommandHandler::DataSwap", "refused write: an entry offset puts values beyond the area");
    return kRefuseOutOfArea;
  }
  const uint8_t* values = area + kSwapEntries + size_t{count} * 4;
  for (uint32_t i = 0; i < count; ++i) {
    const ListEntry& e = list.entries[i];
    const uint32_t n = std::min(e.wireSize, e.location.size);
    uint8_t* target = m_image.Data() + e.location.offset;
    std::memcpy(target, values + m_offsets[i], n);
    TerminateIfCut(target, n, e.wireSize, e.location.type);
  }
  return kRefuseNone;
}

uint32_t CommandHandler::WriteRange(uint8_t* area, size_t size, const TagList& list) {
  const uint32_t start = m_offsets[1];
  const uint32_t bytes = m_offsets[2];
  const uint32_t elementLength = m_offsets[3];
  const Location& array = list.entries[0].location;
  const uint8_t* values = area + kSwapEntries + 16;
  if (bytes > size - (kSwapEntries + 16)) {
    VLOG(warn, "CommandHandler::DataSwap", "refused range write: {} bytes beyond the area", bytes);
    return kRefuseOutOfArea;
  }
  uint8_t* target = m_image.Data() + array.offset;
  if (start == 0 && bytes == array.size) {  // the whole array, in the controller's own layout
    std::memcpy(target, values, bytes);
    return kRefuseNone;
  }
  if (elementLength == 0 || bytes % elementLength != 0) {
    if (bytes == 0) return kRefuseNone;
    VLOG(warn, "CommandHandler::DataSwap", "refused range write: {} bytes in elements of {}", bytes, elementLength);
    return kRefuseBadRange;
  }
  const TypeLayout* element = array.type->element;
  const uint64_t n = bytes / elementLength;
  if (uint64_t{start} + n > array.type->usableElements) {
    VLOG(warn, "CommandHandler::DataSwap", "refused range write: elements {} to {} of an array of {}", start,
         uint64_t{start} + n, array.type->usableElements);
    return kRefuseBadRange;
  }
  const uint32_t copy = std::min(elementLength, element->size);
  for (uint64_t k = 0; k < n; ++k) {
    uint8_t* at = target + (start + k) * element->size;
    std::memcpy(at, values + k * elementLength, copy);
    TerminateIfCut(at, copy, elementLength, element);
  }
  return kRefuseNone;
}

}  // namespace qorvarlok::controller
