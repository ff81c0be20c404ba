// The six list operations of ShareMemCom: checks in their fixed order, then
// one data swap command over the list's own buffers.
#include <algorithm>
#include <cstring>
#include <exception>
#include <string>

#include "ShareMemCom.h"
#include "ShmComClient.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

using qorvarlok::shm::rwCmd;
using qorvarlok::shm::ShmComClient;
using qorvarlok::tags::TagNode;

namespace {
bool IsStringType(int type) { return type == TAG_TYPE_STRING || type == TAG_TYPE_WSTRING; }
bool IsCompoundType(int type) { return type == TAG_TYPE_STRUCTURE || type == TAG_TYPE_ARRAY; }
}  // namespace

// ------------------------------------------------------------ shared pieces

uint32_t ShareMemCom::FindList(void* handle, qorvarlok::log::Site func, Step3 text, bool requireTags, TagsList*& list) {
  list = (handle != nullptr && m_pTagManager != nullptr) ? m_pTagManager->searchShmTagsList(handle) : nullptr;
  if (list == nullptr) {
    VLOG(err, func, "tagsList == nullptr");
    return ERR_INVALID_VAR_DEFS;
  }
  if (list->handle != 0 && list->clientSeq == m_clientSeq && !(requireTags && list->length == 0)) return 0;
  switch (text) {
    case Step3::Short:
      VLOG(err, func, "handle={},clientSeq={},ReadClientSeq={}", list->handle, list->clientSeq, m_clientSeq);
      break;
    case Step3::WithLength:
      VLOG(err, func, "handle={},clientSeq={},ReadClientSeq={},length={}", list->handle, list->clientSeq,
           m_clientSeq, list->length);
      break;
    case Step3::Numbered:
      VLOG(err, func, "l1={},l2={},l3={},l4={}", list->handle, list->clientSeq, m_clientSeq, list->length);
      break;
  }
  return ERR_INVALID_VAR_DEFS;
}

uint32_t ShareMemCom::CheckTypedLength(const TagNode& node, size_t i, Walk walk, qorvarlok::log::Site func,
                                       const std::vector<int>& types, const std::vector<int>& lengths) {
  const bool stringType = IsStringType(node.Type);
  const bool match = stringType ? types[i] == node.Type : lengths[i] == node.Size;
  if (match) return 0;
  if (walk == Walk::WriteValue) {
    if (stringType) {
      VLOG(warn, func, "left={},right={}", node.Type, types[i]);
    } else {
      VLOG(warn, func, "left={},right={}", node.Size, lengths[i]);
    }
  } else if (stringType) {
    VLOG(err, func, "t1={}, t2={}", node.Type, types[i]);
  } else {
    VLOG(err, func, "node1={},node2={}", node.Size, lengths[i]);
  }
  return ERR_UNMATCH_WITH_DEFINE;
}

uint32_t ShareMemCom::WalkNodes(TagsList& list, Walk walk, qorvarlok::log::Site func, const std::vector<int>* types,
                                const std::vector<int>* lengths) {
  const bool read = walk == Walk::ArrayRead || walk == Walk::VectorRead || walk == Walk::ReadValue;
  const bool typed = types != nullptr && lengths != nullptr;
  const uint8_t passedBit = read ? 1 : 2;
  const bool passed = (list.m_passedWalks & passedBit) != 0;
  if (passed && !typed) return 0;
  for (size_t i = 0; i < list.nodeArray.size(); ++i) {
    const TagNode* node = list.nodeArray[i];
    if (passed) {  // nothing left but the caller's types and lengths
      const uint32_t r = CheckTypedLength(*node, i, walk, func, *types, *lengths);
      if (r != 0) return r;
      continue;
    }
    if (node == nullptr) {
      VLOG(err, func, "pTagNode == nullptr");
      return ERR_EXIST_INVAILD_VAR;
    }
    if (read ? !IsReadable(node->AccessType) : !IsWritable(node->AccessType)) {
      VLOG(err, func, "access type is {}", node->AccessType);
      return ERR_READ_WRITE_DENIED;
    }
    if (IsCompoundType(node->Type)) {
      if (walk == Walk::VectorRead) {
        VLOG(warn, func, "type={}", node->Type);
      } else if (walk == Walk::Write) {
        VLOG(err, func, "Type:{}", node->Type);
      } else {
        VLOG(err, func, "Type={}", node->Type);
      }
      return ERR_UNMATCH_TYPE_PARA;
    }
    if (typed) {
      const uint32_t r = CheckTypedLength(*node, i, walk, func, *types, *lengths);
      if (r != 0) return r;
    }
  }
  list.m_passedWalks |= passedBit;
  return 0;
}

rwCmd ShareMemCom::MakeRwCmd(TagsList& list, uint8_t rw, uint32_t size, uint32_t byteTotal) {
  // A range write leaves four entries behind; never let a later command read past them.
  if (list.offsets.size() < size) list.offsets.resize(size, 0);
  rwCmd cmd;
  cmd.Err = 0;
  cmd.Flag = rw;
  cmd.Rw = rw;
  cmd.Seq = static_cast<uint8_t>(m_clientSeq & 0xFF);
  cmd.Size = size;
  cmd.ByteTotal = byteTotal;
  cmd.TagsHandle = static_cast<uint32_t>(list.handle);
  cmd.SessionId = sessionId();
  cmd.pIndex = list.offsets.data();
  cmd.pValue = list.valueBuffer;
  return cmd;
}

uint32_t ShareMemCom::SendRw(rwCmd& cmd) {
  ShmComClient* client = ShmComClient::GetInstance();
  if (client == nullptr) return ERR_RTOS_UNAVAILABLE;
  return client->WriteRwCmd(cmd);
}

uint32_t ShareMemCom::SendRwGuarded(rwCmd& cmd) {
  try {
    return SendRw(cmd);
  } catch (...) {
    return ERR_RTOS_UNAVAILABLE;
  }
}

namespace {
void ClearBuffer(qorvarlok::tags::TagsList& list) {
  if (list.valueBuffer != nullptr && list.totalBytes > 0) std::memset(list.valueBuffer, 0, list.totalBytes);
}
}  // namespace

void ShareMemCom::FillRecords(TagsList& list, tagTagVarValue* records, size_t count) {
  uint32_t offset = 0;
  for (size_t i = 0; i < count; ++i) {
    const TagsList::Shape& tag = list.m_shapes[i];
    records[i].FullName = tag.FullName;
    records[i].Type = tag.Type;
    records[i].ValueLength = tag.Size;
    records[i].Value = list.valueBuffer + offset;
    offset += static_cast<uint32_t>(tag.Size);
  }
}

// ---------------------------------------------------------------------- reads

unsigned int ShareMemCom::ReadList(void* handle, qorvarlok::log::Site func, Walk walk, TagsList*& list) {
  uint32_t r = FindList(handle, func, Step3::WithLength, true, list);
  if (r == 0) r = WalkNodes(*list, walk, func, nullptr, nullptr);
  if (r != 0) return r;
  ClearBuffer(*list);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwRead, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r != 0) VLOG_HEX(func, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

unsigned int ShareMemCom::ReadTag(void* handle, tagTagVarValue** values, unsigned int& count) {
  constexpr const char* kFunc = "ShareMemCom::ReadTag";
  count = 0;
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  const uint32_t r = ReadList(handle, kFunc, Walk::ArrayRead, list);
  if (r != 0) return r;
  // The record array holds one record per byte of the list, so it fits any list of non-empty tags.
  const size_t n = std::min<size_t>(list->length, list->totalBytes);
  if (n < list->length) VLOG(warn, kFunc, "records={}, tags={}", n, list->length);
  FillRecords(*list, list->values, n);
  if (values != nullptr) *values = list->values;
  count = static_cast<unsigned int>(n);
  return 0;
}

unsigned int ShareMemCom::ReadTag(void* handle, std::vector<tagTagVarValue>& values, unsigned int& count) {
  constexpr const char* kFunc = "ShareMemCom::ReadTag";
  values.clear();
  count = 0;
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ShmComClient::GetInstance()->ReadClientSeq()={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  const uint32_t r = ReadList(handle, kFunc, Walk::VectorRead, list);
  if (r != 0) return r;
  values.resize(list->length);
  FillRecords(*list, values.data(), values.size());
  count = static_cast<unsigned int>(values.size());
  return 0;
}

void ShareMemCom::CopyOutTyped(TagsList& list, std::vector<void*>& dataHeads) {
  uint32_t offset = 0;
  for (size_t i = 0; i < list.nodeArray.size(); ++i) {
    const TagNode* node = list.nodeArray[i];
    const unsigned char* src = list.valueBuffer + offset;
    const size_t size = static_cast<size_t>(node->Size);
    if (node->Type == TAG_TYPE_STRING) {
      auto* text = static_cast<std::string*>(dataHeads[i]);
      text->clear();
      text->resize(size);  // keeps the NUL padding: the size is the node's
      std::memcpy(&(*text)[0], src, size);
    } else if (node->Type == TAG_TYPE_WSTRING) {
      auto* text = static_cast<std::wstring*>(dataHeads[i]);
      text->clear();
      text->resize(size / 2);
      for (size_t u = 0; u < size / 2; ++u) {
        uint16_t unit = 0;
        std::memcpy(&unit, src + u * 2, 2);
        (*text)[u] = static_cast<wchar_t>(unit);
      }
    } else {
      std::memcpy(dataHeads[i], src, size);
    }
    offset += static_cast<uint32_t>(node->Size);
  }
}

namespace {
// Typed calls come with one pointer, type and length per tag; a short vector
// or a null pointer would be read past or through.
bool TypedArgsFit(const std::vector<void*>& heads, const std::vector<int>& types, const std::vector<int>& lengths,
                  size_t n) {
  return types.size() >= n && lengths.size() >= n &&
         std::none_of(heads.begin(), heads.end(), [](void* p) { return p == nullptr; });
}
}  // namespace

uint32_t ShareMemCom::CheckTypedCall(void* handle, qorvarlok::log::Site func, Walk walk,
                                     const std::vector<void*>& dataHeads, const std::vector<int>& types,
                                     const std::vector<int>& lengths, TagsList*& list) {
  uint32_t r = FindList(handle, func, Step3::Short, false, list);
  if (r != 0) return r;
  if (dataHeads.size() != list->length) {
    VLOG(err, func, "length={}, size={}", list->length, dataHeads.size());
    return ERR_UNMATCH_WITH_DEFINE;
  }
  if (!TypedArgsFit(dataHeads, types, lengths, list->length)) throw CallerBufferFault();
  return WalkNodes(*list, walk, func, &types, &lengths);
}

unsigned int ShareMemCom::ReadTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                       std::vector<int>& lengths) {
  constexpr const char* kFunc = "ShareMemCom::ReadTagValue";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = CheckTypedCall(handle, kFunc, Walk::ReadValue, dataHeads, types, lengths, list);
  if (r != 0) return r;
  ClearBuffer(*list);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwRead, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r != 0) {
    VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
    return r;
  }
  CopyOutTyped(*list, dataHeads);
  return 0;
}

// --------------------------------------------------------------------- writes

unsigned int ShareMemCom::WriteTag(void* handle, std::vector<std::string>& values) {
  constexpr const char* kFunc = "ShareMemCom::WriteTag";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = FindList(handle, kFunc, Step3::Short, false, list);
  if (r == 0) r = WalkNodes(*list, Walk::Write, kFunc, nullptr, nullptr);
  if (r != 0) return r;
  // Deliberately after the walk.
  if (values.size() != list->length) {
    VLOG(err, kFunc, "length={}, size={}", list->length, values.size());
    return ERR_UNMATCH_WITH_DEFINE;
  }
  ClearBuffer(*list);
  unsigned char* position = list->valueBuffer;
  for (size_t i = 0; i < list->m_shapes.size(); ++i) {
    const TagsList::Shape& tag = list->m_shapes[i];
    int size = tag.Size;
    if (serializeString(values[i], tag.Type, position, size) != 0) {
      VLOGU(err, kFunc, "serializeString, tagNodeValue, %s", values[i]);
      return ERR_WRITE_FAILED;
    }
    position += tag.Size;
  }
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

uint32_t ShareMemCom::CopyInTyped(TagsList& list, std::vector<void*>& dataHeads, qorvarlok::log::Site func) {
  uint32_t offset = 0;
  for (size_t i = 0; i < list.nodeArray.size(); ++i) {
    const TagNode* node = list.nodeArray[i];
    if (node == nullptr) {
      VLOGP(warn, func, "tagsList->nodeArray[%d]==nullptr", static_cast<int>(i));
      continue;
    }
    unsigned char* p = list.valueBuffer + offset;
    const size_t size = static_cast<size_t>(node->Size);
    if (node->Type == TAG_TYPE_STRING) {
      const auto* text = static_cast<const std::string*>(dataHeads[i]);
      if (static_cast<int32_t>(text->length()) > node->Size - 1) {
        VLOG(warn, func, "length={}, size={}", text->length(), node->Size);
        return ERR_OVERSTEP_ACCESS;
      }
      std::memset(p, 0, size);
      std::memcpy(p, text->data(), text->length());
    } else if (node->Type == TAG_TYPE_WSTRING) {
      const auto* text = static_cast<const std::wstring*>(dataHeads[i]);
      const int32_t units = node->Size / 2;
      if (static_cast<int32_t>(text->length()) > units - 1) {
        VLOG(warn, func, "length={}, swapsize={}", text->length(), units);
        return ERR_OVERSTEP_ACCESS;
      }
      std::memset(p, 0, size);
      for (size_t u = 0; u < text->length(); ++u) {
        const auto unit = static_cast<uint16_t>((*text)[u]);
        std::memcpy(p + u * 2, &unit, 2);
      }
    } else {
      std::memcpy(p, dataHeads[i], size);
    }
    offset += static_cast<uint32_t>(node->Size);
  }
  return 0;
}

unsigned int ShareMemCom::WriteTagValue(void* handle, std::vector<void*>& dataHeads, std::vector<int>& types,
                                        std::vector<int>& lengths) {
  constexpr const char* kFunc = "ShareMemCom::WriteTagValue";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = CheckTypedCall(handle, kFunc, Walk::WriteValue, dataHeads, types, lengths, list);
  if (r != 0) return r;
  ClearBuffer(*list);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, list->length, list->totalBytes);
  r = CopyInTyped(*list, dataHeads, kFunc);
  if (r != 0) return r;
  r = SendRwGuarded(cmd);
  if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd err ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

unsigned int ShareMemCom::WriteTagValue(void* handle, unsigned char* data, unsigned int rawCount) {
  try {
    return WriteTagValueRaw(handle, data, rawCount);
  } catch (const std::exception& e) {
    VLOGP(warn, "ShareMemCom::WriteTagValue", "exception=%s", e.what());
    return ERR_WRITE_FAILED;
  }
}

unsigned int ShareMemCom::WriteTagValueRaw(void* handle, unsigned char* data, unsigned int rawCount) {
  constexpr const char* kFunc = "ShareMemCom::WriteTagValue";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = FindList(handle, kFunc, Step3::Short, false, list);
  if (r != 0) return r;
  if (rawCount != list->length) {
    VLOG(err, kFunc, "left={},right={}", rawCount, list->length);
    return ERR_UNMATCH_WITH_DEFINE;
  }
  if (list->length == 0) {
    VLOG(err, kFunc, "tagsList->length() == 0");
    return ERR_EXIST_INVAILD_VAR;
  }
  // The raw form trusts its caller beyond the first tag.
  const TagNode* first = list->nodeArray[0];
  if (first == nullptr) {
    VLOG(err, kFunc, "pTagNode == nullptr");
    return ERR_EXIST_INVAILD_VAR;
  }
  if (!IsWritable(first->AccessType)) {
    VLOG(err, kFunc, "access type is {}", first->AccessType);
    return ERR_READ_WRITE_DENIED;
  }
  ClearBuffer(*list);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, list->length, list->totalBytes);
  CopyCallerBytes(list->valueBuffer, data, list->totalBytes);  // a null data faults here, not as a code
  r = SendRw(cmd);  // a standard exception here reads as ERR_WRITE_FAILED
  if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

}  // namespace ZelmonteVarlok
