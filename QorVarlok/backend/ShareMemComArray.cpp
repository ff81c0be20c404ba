// Whole arrays, array ranges and whole structures as raw bytes in the
// controller's layout. Only the list's first node is examined; the list's
// whole byte length is what moves.
#include <cstring>

#include "ShareMemCom.h"
#include "ShmComClient.h"
#include "VarlokLog.h"

namespace ZelmonteVarlok {

using qorvarlok::shm::rwCmd;
using qorvarlok::tags::TagNode;

namespace {
constexpr uint32_t kRangeEntries = 4;

// memset must not see a null pointer, even for zero bytes.
void Clear(unsigned char* buffer, uint32_t n) {
  if (n > 0) std::memset(buffer, 0, n);
}
}  // namespace

// A null data buffer is tested nowhere among the checks below: it meets the
// copy, behind every documented check, as the copy through it would. There it
// throws CallerBufferFault instead of faulting.

uint32_t ShareMemCom::ArrayHead(void* handle, qorvarlok::log::Site func, bool write, TagsList*& list) {
  uint32_t r = FindList(handle, func, Step3::WithLength, true, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray.empty() ? nullptr : list->nodeArray[0];
  if (node == nullptr) {
    VLOG(err, func, "pArrayNode == nullptr");
    return ERR_EXIST_INVAILD_VAR;
  }
  if (write ? !IsWritable(node->AccessType) : !IsReadable(node->AccessType)) {
    VLOG(err, func, "access type is {}", node->AccessType);
    return ERR_READ_WRITE_DENIED;
  }
  return 0;
}

uint32_t ShareMemCom::StructHead(void* handle, qorvarlok::log::Site func, bool write, TagsList*& list) {
  uint32_t r = FindList(handle, func, write ? Step3::WithLength : Step3::Numbered, true, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray.empty() ? nullptr : list->nodeArray[0];
  if (node == nullptr) {
    VLOG(err, func, "pStructNode == nullptr");
    return ERR_EXIST_INVAILD_VAR;
  }
  if (write ? !IsWritable(node->AccessType) : !IsReadable(node->AccessType)) {
    VLOG(err, func, "access type is {}", node->AccessType);
    return ERR_READ_WRITE_DENIED;
  }
  return 0;
}

unsigned int ShareMemCom::ReadArray(void* handle, void* data, int length, unsigned int start, unsigned int count) {
  constexpr const char* kFunc = "ShareMemCom::ReadArray";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = ArrayHead(handle, kFunc, false, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray[0];
  if (node->Type != TAG_TYPE_ARRAY) {
    VLOG(err, kFunc, "Type:{}", node->Type);
    return ERR_UNMATCH_TYPE_PARA;
  }
  // No table knows the element size of an array of structures.
  if (node->BaseType != TAG_TYPE_STRUCTURE && length != baseByteLength(node->BaseType)) {
    VLOG(err, kFunc, "baseByteLength ={},length={}", baseByteLength(node->BaseType), length);
    return ERR_UNMATCH_TYPE_PARA;
  }
  Clear(list->valueBuffer, list->totalBytes);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwRead, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r != 0) {
    VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
    return r;
  }
  if (start == 0 && count == 0) {
    CopyCallerBytes(data, list->valueBuffer, list->totalBytes);
    return 0;
  }
  const uint32_t elementBytes = static_cast<uint32_t>(length);
  // The range is judged in 32 bits, after the exchange.
  const uint32_t right = (start + count) * elementBytes;
  if (right > list->totalBytes) {
    VLOG(err, kFunc, "left={}, right={}", list->totalBytes, right);
    return ERR_OVERSTEP_ACCESS;
  }
  // A product that wrapped passes the test above; the copy itself must still lie in the buffer.
  const uint64_t first = uint64_t{start} * elementBytes;
  const uint64_t bytes = uint64_t{count} * elementBytes;
  if (first + bytes > list->totalBytes) {
    VLOG(err, kFunc, "range beyond the array: offset={}, bytes={}, total={}", first, bytes, list->totalBytes);
    return ERR_OVERSTEP_ACCESS;
  }
  CopyCallerBytes(data, list->valueBuffer + first, static_cast<size_t>(bytes));
  return 0;
}

unsigned int ShareMemCom::WriteArray(void* handle, void* data, int length, unsigned int start, unsigned int count) {
  constexpr const char* kFunc = "ShareMemCom::WriteArray";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = ArrayHead(handle, kFunc, true, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray[0];
  if (node->Type != TAG_TYPE_ARRAY) {
    VLOG(err, kFunc, "pArrayNode->Type {}", node->Type);
    return ERR_UNMATCH_TYPE_PARA;
  }
  if (node->BaseType != TAG_TYPE_STRUCTURE && length != baseByteLength(node->BaseType)) {
    VLOG(err, kFunc, "l1={},l2={}", baseByteLength(node->BaseType), length);
    return ERR_UNMATCH_TYPE_PARA;
  }
  const uint32_t elementBytes = static_cast<uint32_t>(length);
  if (start == 0 && count == 0) {
    const uint32_t bytes = list->totalBytes;
    CopyCallerBytes(list->valueBuffer, data, bytes);  // not cleared first
    list->offsets.assign({0, 0, bytes, elementBytes});
    rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, kRangeEntries, list->totalBytes);
    r = SendRwGuarded(cmd);
    if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
    return r;
  }
  // A range: checked before any traffic, the slice sent from the value block's first byte.
  const uint32_t bytes = count * elementBytes;
  const uint32_t end = (start + count) * elementBytes;
  if (bytes > list->totalBytes || end > list->totalBytes) {
    VLOG(err, kFunc, "l1={},l2={},l3={},l4={}", start, count, elementBytes, list->totalBytes);
    return ERR_OVERSTEP_ACCESS;
  }
  Clear(list->valueBuffer, list->totalBytes);
  CopyCallerBytes(list->valueBuffer, data, bytes);
  list->offsets.assign({0, start, bytes, elementBytes});
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, kRangeEntries, bytes);
  r = SendRw(cmd);  // nothing caught on this path: an exception goes on to the facade
  if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

unsigned int ShareMemCom::ReadStructField(void* handle, void** data, int* length) {
  constexpr const char* kFunc = "ShareMemCom::ReadStructField";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "ReadClientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = StructHead(handle, kFunc, false, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray[0];
  if (node->Type != TAG_TYPE_STRUCTURE) {
    VLOG(err, kFunc, "Type={}", node->Type);
    return ERR_UNMATCH_TYPE_PARA;
  }
  if (length == nullptr || data == nullptr) throw CallerBufferFault();
  if (node->Size != *length) {
    VLOG(err, kFunc, "baseByteLength = {}, length = {}", node->Size, *length);
    return ERR_UNALIGNED_STRUCT;
  }
  Clear(list->valueBuffer, list->totalBytes);
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwRead, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r == 0 && list->valueBuffer != nullptr) {
    CopyCallerBytes(*data, list->valueBuffer, list->totalBytes);
    return 0;
  }
  VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  VLOGP(err, kFunc, "WriteRwCmd Err:%d, pData:%p", static_cast<int>(r), static_cast<void*>(list->valueBuffer));
  return r;
}

unsigned int ShareMemCom::WriteStructField(void* handle, const void* data, int* length) {
  constexpr const char* kFunc = "ShareMemCom::WriteStructField";
  if (m_clientSeq == 0) {
    VLOG(err, kFunc, "m_clientSeq={}", m_clientSeq);
    return ERR_NOT_CONNECTED;
  }
  std::lock_guard<std::mutex> lock(m_mutex);
  TagsList* list = nullptr;
  uint32_t r = StructHead(handle, kFunc, true, list);
  if (r != 0) return r;
  const TagNode* node = list->nodeArray[0];
  if (node->Type != TAG_TYPE_STRUCTURE) {
    VLOG(err, kFunc, "type = {}", node->Type);
    return ERR_UNMATCH_TYPE_PARA;
  }
  if (length == nullptr) throw CallerBufferFault();
  if (node->Size != *length) {
    VLOG(err, kFunc, "bytes={},len={}", node->Size, *length);
    return ERR_UNALIGNED_STRUCT;
  }
  CopyCallerBytes(list->valueBuffer, data, list->totalBytes);  // not cleared first
  rwCmd cmd = MakeRwCmd(*list, qorvarlok::shm::kRwWrite, list->length, list->totalBytes);
  r = SendRwGuarded(cmd);
  if (r != 0) VLOG_HEX(kFunc, "DataSwapCmd ValueBuffer ", list->valueBuffer, list->totalBytes);
  return r;
}

}  // namespace ZelmonteVarlok
