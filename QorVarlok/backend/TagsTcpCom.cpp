#include "TagsTcpCom.h"

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "TagAccessApi.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

using qorvarlok::tagaccess::TagAccess;
using qorvarlok::tags::TagNode;
namespace qlog = qorvarlok::log;

// The closed library's records are handed to callers as they are.
static_assert(sizeof(ZtaTagValue) == sizeof(tagTagVarValue), "record stride");
static_assert(offsetof(ZtaTagValue, FullName) == offsetof(tagTagVarValue, FullName), "record layout");
static_assert(offsetof(ZtaTagValue, Type) == offsetof(tagTagVarValue, Type), "record layout");
static_assert(offsetof(ZtaTagValue, ValueLength) == offsetof(tagTagVarValue, ValueLength), "record layout");
static_assert(offsetof(ZtaTagValue, Value) == offsetof(tagTagVarValue, Value), "record layout");

namespace {

// The typed calls give each variable's kind in types: 17 a std::string, 18 a
// std::wstring object. Their bytes are no value buffer; taken as raw bytes,
// as the documented adapter takes them, the object itself would be overwritten.
constexpr int kStringObject = 17;
constexpr int kWStringObject = 18;

void ReadInto(void* head, int kind, const unsigned char* from, size_t n) {
  if (head == nullptr) throw CallerBufferFault();
  if (kind == kStringObject) {
    static_cast<std::string*>(head)->assign(reinterpret_cast<const char*>(from), n);
  } else if (kind == kWStringObject) {
    auto* text = static_cast<std::wstring*>(head);
    text->assign(n / 2, L'\0');
    for (size_t u = 0; u < n / 2; ++u) (*text)[u] = static_cast<wchar_t>(from[2 * u] | (from[2 * u + 1] << 8));
  } else {
    CopyCallerBytes(head, from, n);
  }
}

void WriteFrom(unsigned char* to, int kind, const void* head, size_t n) {
  if (head == nullptr && n != 0) throw CallerBufferFault();
  if (kind == kStringObject) {
    const auto* text = static_cast<const std::string*>(head);
    std::memset(to, 0, n);
    std::memcpy(to, text->data(), std::min(n, text->size()));
  } else if (kind == kWStringObject) {
    const auto* text = static_cast<const std::wstring*>(head);
    std::memset(to, 0, n);
    for (size_t u = 0; u < n / 2 && u < text->size(); ++u) {
      to[2 * u] = static_cast<unsigned char>((*text)[u] & 0xFF);
      to[2 * u + 1] = static_cast<unsigned char>(((*text)[u] >> 8) & 0xFF);
    }
  } else {
    CopyCallerBytes(to, head, n);
  }
}

int KindOf(const std::vector<int>& types, size_t i) { return i < types.size() ? types[i] : 0; }

size_t LengthOf(const ZtaTagValue& record) {
  return record.ValueLength > 0 ? static_cast<size_t>(record.ValueLength) : 0;
}

}  // namespace

TagsTcpCom::TagsTcpCom() { VLOG(info, "TagsTcpCom::TagsTcpCom", "new TagsTcpCom"); }

TagsTcpCom::~TagsTcpCom() {
  VLOGP(warn, "TagsTcpCom::~TagsTcpCom", "delete TagsTcpCom m_pPlcDevice %p", m_pPlcDevice);
}

// ------------------------------------------------------------------ lifecycle

unsigned int TagsTcpCom::InitializeCom() {
  const uint32_t r = TagAccess().InitializeCommunication();
  if (r != 0) VLOG(warn, "TagsTcpCom::InitializeCom", "{}", r);
  return r;
}

unsigned int TagsTcpCom::ExitVarlokCommunication() { return 0; }

void* TagsTcpCom::ConnectToPlcDevice(const std::string& address, unsigned int& err) {
  uint32_t e = 0;
  void* device = TagAccess().ConnectToDevice(address.c_str(), ZTA_MODE_TCP, &e);
  if (e == 0 && device != nullptr) {
    m_pPlcDevice = device;
    err = 0;
    return device;
  }
  VLOG(err, "TagsTcpCom::ConnectToPlcDevice", "TCP ConnectToPlcDevice err={}", e);
  err = e == ZTA_ERR_UNREACHABLE ? ERR_CONNECT_FAILED : e;
  return nullptr;
}

unsigned int TagsTcpCom::DisconnectFromPlcDevice(void* device) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pTagManager != nullptr) m_pTagManager->releaseAllTcpTagsList();
  m_pPlcDevice = nullptr;
  // The local lists are gone whatever the library answers.
  return TagAccess().DisconnectFromDevice(device);
}

void TagsTcpCom::SetPlcDevice(void* device) { m_pPlcDevice = device; }

void* TagsTcpCom::GetPlcDevice() { return m_pPlcDevice; }

// ------------------------------------------------------------- define, delete

std::vector<uint32_t> TagsTcpCom::WidthsOf(const std::vector<std::string>& names) {
  // The library lays a list out by the controller's widths unless told ours;
  // told ours, the two sides can never disagree on where a value lies, and
  // the images this backend builds are exactly as long as the library reads.
  std::vector<uint32_t> widths;
  widths.reserve(names.size());
  for (const std::string& name : names) {
    const TagNode* node = m_pTagManager != nullptr ? m_pTagManager->findTagNode(name) : nullptr;
    widths.push_back(node != nullptr && node->Size >= 0 ? static_cast<uint32_t>(node->Size)
                                                         : ZTA_WIDTH_OF_CONTROLLER);
  }
  return widths;
}

void* TagsTcpCom::CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& err) {
  constexpr const char* kFunc = "TagsTcpCom::CreateTagsHandle";
  std::lock_guard<std::mutex> lock(m_mutex);
  const std::vector<std::string> names{name};
  const std::vector<uint32_t> widths = WidthsOf(names);
  const char* pointers[] = {name.c_str()};
  uint32_t e = 0;
  void* handle = TagAccess().DefineTagList(m_pPlcDevice, pointers, 1, period, widths.data(), &e);
  err = e;
  if (handle == nullptr || err != 0) {
    VLOG(err, kFunc, "handle == nullptr || err = {}", err);
    return handle;
  }
  if (m_pTagManager == nullptr) {
    VLOG(err, kFunc, "tagManager is nullptr");
    return handle;
  }
  err = m_pTagManager->createTcpTagListByHandle(handle, names);
  if (err != 0) VLOG(warn, kFunc, "createTcpTagListByHandle:{}", err);
  return handle;
}

void* TagsTcpCom::CreateTagsHandle(const std::vector<std::string>& names, unsigned int period, unsigned int& err) {
  constexpr const char* kFunc = "TagsTcpCom::CreateTagsHandle";
  std::vector<const char*> pointers(names.size());
  for (size_t i = 0; i < names.size(); ++i) pointers[i] = names[i].c_str();
  std::lock_guard<std::mutex> lock(m_mutex);
  const std::vector<uint32_t> widths = WidthsOf(names);
  uint32_t e = 0;
  void* handle = TagAccess().DefineTagList(m_pPlcDevice, pointers.data(), static_cast<uint32_t>(names.size()),
                                           period, widths.data(), &e);
  err = e;
  if (err != 0) {
    VLOG(err, kFunc, "{}", err);
  } else if (m_pTagManager == nullptr) {
    VLOG(err, kFunc, "tagManager is nullptr");
  } else {
    // A failure here still returns the handle; the list on the controller stays.
    err = m_pTagManager->createTcpTagListByHandle(handle, names);
    if (err != 0) VLOG(warn, kFunc, "createTcpTagListByHandle:{}", err);
  }
  return handle;
}

unsigned int TagsTcpCom::DeleteTagsHandle(void*& handle) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pTagManager != nullptr) m_pTagManager->deleteTcpTagsList(handle);
  return TagAccess().DeleteTagList(handle);
}

// ---------------------------------------------------------------- the lists

TagsTcpCom::TagsList* TagsTcpCom::LookUp(void* handle, qlog::level level, qlog::Site func) {
  TagsList* list = m_pTagManager != nullptr ? m_pTagManager->searchTcpTagsList(handle) : nullptr;
  if (list == nullptr) qlog::write(func.loc, level, "tagslist == nullptr");
  return list;
}

unsigned int TagsTcpCom::ReadTag(void* handle, tagTagVarValue** values, unsigned int& count) {
  constexpr const char* kFunc = "TagsTcpCom::ReadTag";
  std::lock_guard<std::mutex> lock(m_mutex);
  if (LookUp(handle, qlog::err, kFunc) == nullptr) return ERR_INVALID_VAR_DEFS;
  // The caller gets the library's own records.
  const uint32_t r = TagAccess().ReadTagListValue(handle, reinterpret_cast<ZtaTagValue**>(values), &count);
  if (r != 0) VLOG(warn, kFunc, "ReadTagListValue:{}", r);
  return r;
}

unsigned int TagsTcpCom::ReadTag(void* handle, std::vector<tagTagVarValue>& values, unsigned int& count) {
  constexpr const char* kFunc = "TagsTcpCom::ReadTag";
  std::lock_guard<std::mutex> lock(m_mutex);
  if (LookUp(handle, qlog::err, kFunc) == nullptr) return ERR_INVALID_VAR_DEFS;
  values.clear();
  ZtaTagValue* records = nullptr;
  const uint32_t r = TagAccess().ReadTagListValue(handle, &records, &count);
  if (r != 0) {
    VLOG(warn, kFunc, "ReadTagListValue:{}", r);
    return r;
  }
  if (records != nullptr) {
    const auto* first = reinterpret_cast<const tagTagVarValue*>(records);
    values.assign(first, first + count);
  }
  return 0;
}

unsigned int TagsTcpCom::WriteTag(void* handle, std::vector<std::string>& values) {
  constexpr const char* kFunc = "TagsTcpCom::WriteTag";
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = LookUp(handle, qlog::warn, kFunc);
  if (list == nullptr) return ERR_INVALID_VAR_DEFS;
  if (values.size() != list->length) {
    VLOG(warn, kFunc, "");
    return ERR_UNMATCH_WITH_DEFINE;
  }
  std::vector<unsigned char> image(list->totalBytes, 0);
  size_t position = 0;
  for (size_t i = 0; i < list->m_shapes.size() && i < values.size(); ++i) {
    const TagsList::Shape& tag = list->m_shapes[i];
    int size = tag.Size;
    // A value that does not convert stays zero and the write goes on.
    serializeString(values[i], tag.Type, image.data() + position, size);
    position += static_cast<size_t>(std::max(tag.Size, 0));
  }
  void* data = image.data();
  return TagAccess().WriteTagListValue(handle, &data);
}

unsigned int TagsTcpCom::CheckLengths(const TagsList& list, std::vector<void*>& dataHeads, std::vector<int>& lengths,
                                      int& sum) {
  sum = 0;
  for (size_t i = 0; i < list.nodeArray.size(); ++i) {
    if (i >= lengths.size() || lengths[i] != list.nodeArray[i]->Size) {
      dataHeads.clear();
      lengths.clear();
      return ERR_UNMATCH_TYPE_PARA;
    }
    sum += lengths[i];
  }
  return 0;
}

unsigned int TagsTcpCom::ReadTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                      std::vector<int>& lengths) {
  constexpr const char* kFunc = "TagsTcpCom::ReadTagValue";
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = LookUp(handle, qlog::warn, kFunc);
  if (list == nullptr) return ERR_INVALID_VAR_DEFS;
  if (dataHeads.size() != list->length) return ERR_UNMATCH_WITH_DEFINE;
  int sum = 0;
  if (CheckLengths(*list, dataHeads, lengths, sum) != 0) return ERR_UNMATCH_TYPE_PARA;
  if (static_cast<int64_t>(sum) != static_cast<int64_t>(list->totalBytes)) {
    VLOG(warn, kFunc, "para={},byte={}", sum, list->totalBytes);
    return ERR_UNMATCH_TYPE_PARA;
  }
  ZtaTagValue* records = nullptr;
  uint32_t count = 0;
  const uint32_t r = TagAccess().ReadTagListValue(handle, &records, &count);
  if (r != 0) return r;
  for (size_t i = 0; i < dataHeads.size() && i < count && records != nullptr; ++i) {
    // Never more than the caller's length: the library's width could only differ if it broke its word.
    const size_t n = std::min(LengthOf(records[i]), static_cast<size_t>(lengths[i]));
    ReadInto(dataHeads[i], KindOf(types, i), static_cast<const unsigned char*>(records[i].Value), n);
  }
  return 0;
}

unsigned int TagsTcpCom::WriteTagValue(void* handle, unsigned char* data, unsigned int rawCount) {
  constexpr const char* kFunc = "TagsTcpCom::WriteTagValue";
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = LookUp(handle, qlog::err, kFunc);
  if (list == nullptr) return ERR_INVALID_VAR_DEFS;
  if (rawCount != list->length) {
    VLOG(err, kFunc, "tagslist={}, rawCount={}", list->length, rawCount);
    return ERR_UNMATCH_WITH_DEFINE;
  }
  if (data == nullptr && list->totalBytes != 0) throw CallerBufferFault();
  void* image = data;
  const uint32_t r = TagAccess().WriteTagListValue(handle, &image);
  if (r != 0) VLOG(warn, kFunc, "{}", r);
  return r;
}

unsigned int TagsTcpCom::WriteTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                       std::vector<int>& lengths) {
  constexpr const char* kFunc = "TagsTcpCom::WriteTagValue";
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = LookUp(handle, qlog::err, kFunc);
  if (list == nullptr) return ERR_INVALID_VAR_DEFS;
  if (dataHeads.size() != list->length) {
    VLOG(err, kFunc, "tagslist={}, vDataHeadBuff={}", list->length, dataHeads.size());
    return ERR_UNMATCH_WITH_DEFINE;
  }
  int sum = 0;
  if (CheckLengths(*list, dataHeads, lengths, sum) != 0) return ERR_UNMATCH_TYPE_PARA;
  if (static_cast<int64_t>(sum) != static_cast<int64_t>(list->totalBytes)) return ERR_UNMATCH_TYPE_PARA;
  size_t offset = 0;
  for (size_t i = 0; i < dataHeads.size(); ++i) {
    const size_t n = static_cast<size_t>(std::max(lengths[i], 0));
    WriteFrom(list->valueBuffer + offset, KindOf(types, i), dataHeads[i], n);
    offset += n;
  }
  void* image = list->valueBuffer;
  const uint32_t r = TagAccess().WriteTagListValue(handle, &image);
  if (r != 0) VLOG(warn, kFunc, "{}", r);
  return r;
}

// ------------------------------------------------------- arrays, structures

unsigned int TagsTcpCom::ReadArray(void* handle, void* data, int length, unsigned int start, unsigned int count) {
  constexpr const char* kFunc = "TagsTcpCom::ReadArray";
  if (length == 0) {
    std::lock_guard<std::mutex> lock(m_mutex);
    TagsList* list = m_pTagManager != nullptr ? m_pTagManager->searchTcpTagsList(handle) : nullptr;
    // An unknown handle would be read through a null list here: refused instead.
    if (list == nullptr || list->nodeArray.empty()) {
      VLOG(err, kFunc, "tagslist == nullptr");
      return ERR_INVALID_VAR_DEFS;
    }
    length = baseByteLength(list->nodeArray[0]->BaseType);
  }
  ZtaTagValue* records = nullptr;
  uint32_t n = 0;
  uint32_t r = TagAccess().ReadTagListValue(handle, &records, &n);
  if (r == 0 && n > 0 && records != nullptr) {
    const ZtaTagValue& first = records[0];
    if (start == 0 && count == 0) {
      CopyCallerBytes(data, first.Value, LengthOf(first));
    } else {
      // Reckoned in 64 bits: a product that wraps in 32 would pass the test and read far outside the value.
      const uint64_t element = static_cast<uint32_t>(length);
      if ((uint64_t{start} + count) * element > LengthOf(first)) return ERR_OVERSTEP_ACCESS;
      CopyCallerBytes(data, static_cast<const unsigned char*>(first.Value) + start * element,
              static_cast<size_t>(count * element));
    }
  }
  VLOG(warn, kFunc, "{}", r);
  return r;
}

unsigned int TagsTcpCom::WriteArray(void* handle, void* data, int, unsigned int, unsigned int) {
  // The whole array, from the caller's buffer, whatever range was named.
  if (data == nullptr) throw CallerBufferFault();
  return TagAccess().WriteTagListValue(handle, &data);
}

unsigned int TagsTcpCom::ReadStructField(void* handle, void** data, int* length) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_pTagManager == nullptr || m_pTagManager->searchTcpTagsList(handle) == nullptr) return ERR_INVALID_VAR_DEFS;
  ZtaTagValue* records = nullptr;
  uint32_t n = 0;
  // A failed read looks like a success with an untouched buffer.
  if (TagAccess().ReadTagListValue(handle, &records, &n) != 0) return 0;
  if (length == nullptr || data == nullptr) throw CallerBufferFault();
  const int valueLength = n > 0 && records != nullptr ? records[0].ValueLength : 0;
  if (valueLength != *length) return ERR_UNALIGNED_STRUCT;
  if (valueLength > 0) CopyCallerBytes(*data, records[0].Value, static_cast<size_t>(valueLength));
  return 0;
}

unsigned int TagsTcpCom::WriteStructField(void* handle, const void* data, int*) {
  if (data == nullptr) throw CallerBufferFault();
  void* image = const_cast<void*>(data);
  return TagAccess().WriteTagListValue(handle, &image);
}

}  // namespace ZelmonteVarlok
