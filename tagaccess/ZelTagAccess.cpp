// The seven C calls of ZelTagAccess over Device and Registry. Nothing throws
// out of them: an allocation that fails ends as a code.
#include "ZelTagAccess.h"

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "TagAccessClient.h"

using namespace qorvarlok::tagaccess;

namespace {

void SetErr(uint32_t* err, uint32_t code) {
  if (err != nullptr) *err = code;
}

uint32_t TimeoutMs() {
  const char* text = std::getenv(ZTA_TIMEOUT_ENV);
  if (text == nullptr || *text == '\0') return ZTA_DEFAULT_TIMEOUT_MS;
  char* end = nullptr;
  const unsigned long v = std::strtoul(text, &end, 10);
  return (*end != '\0' || v == 0 || v > 3600000) ? ZTA_DEFAULT_TIMEOUT_MS : static_cast<uint32_t>(v);
}

template <typename F>
uint32_t Guarded(F&& f) {
  try {
    return f();
  } catch (const std::bad_alloc&) {
    return ERR_TOO_MANY_TAGS;
  } catch (...) {
    return ERR_UNDEFINED;
  }
}

// The names and widths of a define, checked before anything is sent.
uint32_t CollectNames(const char** names, uint32_t count, const void* widths, std::vector<std::string>& outNames,
                      std::vector<uint32_t>& outWidths) {
  if (count > kMaxNamesPerList) return ERR_TOO_MANY_TAGS;
  if (names == nullptr && count != 0) return ERR_INVALID_PARAMS;
  const auto* w = static_cast<const uint32_t*>(widths);
  uint64_t bodyBytes = 8;
  for (uint32_t i = 0; i < count; ++i) {
    if (names[i] == nullptr) return ERR_INVALID_PARAMS;
    outNames.emplace_back(names[i]);
    // No controller knows a name that the protocol cannot carry.
    if (outNames.back().empty() || outNames.back().size() > kMaxNameLength) return ERR_EXIST_INVAILD_VAR;
    outWidths.push_back(w != nullptr ? w[i] : kWidthOfController);
    bodyBytes += 6 + outNames.back().size();
  }
  return bodyBytes > kMaxBody ? ERR_TOO_MANY_TAGS : 0;
}

}  // namespace

extern "C" {

ZTA_API uint32_t InitializeCommunication(void) { return 0; }

ZTA_API void* ConnectToDevice(const char* address, int32_t mode, uint32_t* err) {
  void* result = nullptr;
  const uint32_t code = Guarded([&]() -> uint32_t {
    if (address == nullptr || mode != ZTA_MODE_TCP) return ERR_INVALID_PARAMS;
    const char* token = std::getenv(ZTA_TOKEN_ENV);
    uint32_t e = 0;
    std::shared_ptr<Device> device = Device::Connect(address, TimeoutMs(), token != nullptr ? token : "", e);
    if (!device) return e;
    result = Registry::Instance().AddDevice(std::move(device));
    return 0;
  });
  SetErr(err, code);
  return code == 0 ? result : nullptr;
}

ZTA_API uint32_t DisconnectFromDevice(void* device) {
  return Guarded([&]() -> uint32_t {
    std::shared_ptr<Device> d = Registry::Instance().TakeDevice(device);
    if (!d) return ERR_INVALID_DEVICE_CLIENT;
    for (ListCell* cell : d->Cells()) Registry::Instance().FreeCell(cell);
    d->Close();
    return 0;
  });
}

ZTA_API void* DefineTagList(void* device, const char** names, uint32_t count, uint32_t period, const void* widths,
                            uint32_t* err) {
  void* result = nullptr;
  const uint32_t code = Guarded([&]() -> uint32_t {
    std::shared_ptr<Device> d = Registry::Instance().FindDevice(device);
    if (!d) return ERR_INVALID_DEVICE_CLIENT;
    std::vector<std::string> list;
    std::vector<uint32_t> w;
    const uint32_t checked = CollectNames(names, count, widths, list, w);
    if (checked != 0) return checked;
    ListCell* cell = Registry::Instance().NewCell(d);
    const uint32_t c = d->Define(list, w, period, cell);
    if (c != 0) {
      Registry::Instance().FreeCell(cell);
      return c;
    }
    result = cell;
    return 0;
  });
  SetErr(err, code);
  return code == 0 ? result : nullptr;
}

ZTA_API uint32_t DeleteTagList(void* list) {
  return Guarded([&]() -> uint32_t {
    std::shared_ptr<Device> d = Registry::Instance().DeviceOfList(list);
    if (!d) return ERR_INVALID_TAG_HANDLE;
    const uint32_t code = d->Delete(static_cast<ListCell*>(list));
    Registry::Instance().FreeCell(static_cast<ListCell*>(list));
    return code;
  });
}

ZTA_API uint32_t ReadTagListValue(void* list, ZtaTagValue** values, uint32_t* count) {
  return Guarded([&]() -> uint32_t {
    std::shared_ptr<Device> d = Registry::Instance().DeviceOfList(list);
    if (!d) return ERR_INVALID_TAG_HANDLE;
    return d->Read(static_cast<ListCell*>(list), values, count);
  });
}

ZTA_API uint32_t WriteTagListValue(void* list, void** image) {
  return Guarded([&]() -> uint32_t {
    std::shared_ptr<Device> d = Registry::Instance().DeviceOfList(list);
    if (!d) return ERR_INVALID_TAG_HANDLE;
    return d->Write(static_cast<ListCell*>(list), image != nullptr ? *image : nullptr);
  });
}

}  // extern "C"
