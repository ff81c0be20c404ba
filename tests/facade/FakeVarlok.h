// A backend for the facade's tests: tag lists are made in the real tags
// manager, but nothing talks to a controller. Every call is recorded; each
// operation returns a chosen code or throws on demand.
#pragma once

#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "Varlok.h"

namespace qvtest {

class FakeVarlok : public ZelmonteVarlok::Varlok {
 public:
  enum class Fault { None, StdException, Other };

  // Configuration, set before the facade calls in.
  void SetCode(const std::string& operation, unsigned int code) {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    m_codes[operation] = code;
  }
  void SetFault(const std::string& operation, Fault fault) {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    m_faults[operation] = fault;
  }

  std::vector<std::string> Calls() {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    return m_calls;
  }
  size_t CountOf(const std::string& operation) {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    size_t n = 0;
    for (const auto& c : m_calls) n += c == operation ? 1 : 0;
    return n;
  }
  std::vector<int> LastTypes() {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    return m_lastTypes;
  }
  std::vector<int> LastLengths() {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    return m_lastLengths;
  }
  // What the typed write handed over: strings as text, anything else as its bytes.
  std::vector<std::string> LastWritten() {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    return m_lastWritten;
  }
  std::string LastAddress() {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    return m_lastAddress;
  }
  void* Device() { return &m_deviceToken; }

  // Set when two backend calls, of any fake in the process, ever overlap.
  static std::atomic<bool>& Overlapped() {
    static std::atomic<bool> overlapped{false};
    return overlapped;
  }
  // How long each call stays inside, to widen the window for overlaps.
  std::chrono::microseconds dwell{0};

  unsigned int InitializeCom() override { return Step("InitializeCom"); }
  unsigned int ExitVarlokCommunication() override { return Step("ExitVarlokCommunication"); }

  void* ConnectToPlcDevice(const std::string& address, unsigned int& err) override {
    {
      std::lock_guard<std::mutex> lock(m_recordMutex);
      m_lastAddress = address;
    }
    const unsigned int code = Step("ConnectToPlcDevice");
    if (code != 0) {
      err = code;
      return nullptr;
    }
    m_device = &m_deviceToken;
    return m_device;
  }
  unsigned int DisconnectFromPlcDevice(void*) override {
    const unsigned int code = Step("DisconnectFromPlcDevice");
    if (code == 0) m_device = nullptr;
    return code;
  }

  void* CreateTagsHandle(const std::vector<std::string>& names, unsigned int period, unsigned int& err) override {
    const unsigned int code = Step(period == 100 ? "CreateTagsHandle" : "CreateTagsHandle(bad period)");
    if (code != 0) {
      err = code;
      return nullptr;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    qorvarlok::tags::TagsList* list = nullptr;
    err = GetTagManager()->createHandleByTagsListNames(&list, 1, names);
    if (err != 0) return nullptr;
    // Numbered by position in the chain, as the controller numbers its lists.
    int32_t number = 0;
    for (auto* it = GetTagManager()->ListHead()->next; it != GetTagManager()->ListHead(); it = it->next) ++number;
    list->handle = number;
    return &list->handle;
  }
  void* CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& err) override {
    return CreateTagsHandle(std::vector<std::string>{name}, period, err);
  }
  unsigned int DeleteTagsHandle(void*& handle) override {
    const unsigned int code = Step("DeleteTagsHandle");
    std::lock_guard<std::mutex> lock(m_mutex);
    GetTagManager()->deleteFromList(handle);
    return code;
  }

  void SetPlcDevice(void* device) override { m_device = device; }
  void* GetPlcDevice() override { return m_device; }

  unsigned int ReadTag(void*, tagTagVarValue**, unsigned int&) override { return Step("ReadTag(array)"); }
  unsigned int ReadTag(void*, std::vector<tagTagVarValue>&, unsigned int&) override { return Step("ReadTag(vector)"); }
  unsigned int WriteTag(void*, std::vector<std::string>&) override { return Step("WriteTag"); }
  unsigned int WriteTagValue(void*, unsigned char*, unsigned int) override { return Step("WriteTagValue(raw)"); }
  unsigned int ReadArray(void*, void*, int, unsigned int, unsigned int) override { return Step("ReadArray"); }
  unsigned int WriteArray(void*, void*, int, unsigned int, unsigned int) override { return Step("WriteArray"); }
  unsigned int WriteStructField(void*, const void*, int*) override { return Step("WriteStructField"); }

  // Answers from a buffer of its own, four bytes 01 02 03 04.
  unsigned int ReadStructField(void*, void** data, int* length) override {
    const unsigned int code = Step("ReadStructField");
    if (code != 0) return code;
    *data = m_structBytes;
    *length = sizeof(m_structBytes);
    return 0;
  }

  // Strings get "text" / L"wide", anything else bytes 0xA0 + its position.
  unsigned int ReadTagValue(void*, std::vector<void*>& heads, std::vector<int>& types,
                            std::vector<int>& lengths) override {
    Record(types, lengths, {});
    const unsigned int code = Step("ReadTagValue");
    if (code != 0) return code;
    for (size_t i = 0; i < heads.size(); ++i) {
      if (types[i] == TAG_TYPE_STRING) {
        *static_cast<std::string*>(heads[i]) = "text";
      } else if (types[i] == TAG_TYPE_WSTRING) {
        *static_cast<std::wstring*>(heads[i]) = L"wide";
      } else {
        std::memset(heads[i], static_cast<int>(0xA0 + i), static_cast<size_t>(lengths[i]));
      }
    }
    return 0;
  }
  unsigned int WriteTagValue(void*, std::vector<void*>& heads, std::vector<int>& types,
                             std::vector<int>& lengths) override {
    std::vector<std::string> written;
    for (size_t i = 0; i < heads.size(); ++i) {
      if (types[i] == TAG_TYPE_STRING) {
        written.push_back(*static_cast<std::string*>(heads[i]));
      } else if (types[i] == TAG_TYPE_WSTRING) {
        const std::wstring& w = *static_cast<std::wstring*>(heads[i]);
        written.emplace_back(w.begin(), w.end());
      } else {
        written.emplace_back(static_cast<const char*>(heads[i]), static_cast<size_t>(lengths[i]));
      }
    }
    Record(types, lengths, written);
    return Step("WriteTagValue");
  }

 private:
  unsigned int Step(const std::string& operation) {
    if (InFlight().fetch_add(1) != 0) Overlapped() = true;
    if (dwell.count() > 0) std::this_thread::sleep_for(dwell);
    InFlight().fetch_sub(1);
    std::lock_guard<std::mutex> lock(m_recordMutex);
    m_calls.push_back(operation);
    switch (m_faults[operation]) {
      case Fault::StdException:
        throw std::runtime_error("fake failure");
      case Fault::Other:
        throw 42;
      case Fault::None:
        break;
    }
    return m_codes[operation];
  }
  void Record(const std::vector<int>& types, const std::vector<int>& lengths, std::vector<std::string> written) {
    std::lock_guard<std::mutex> lock(m_recordMutex);
    m_lastTypes = types;
    m_lastLengths = lengths;
    m_lastWritten = std::move(written);
  }
  static std::atomic<int>& InFlight() {
    static std::atomic<int> inFlight{0};
    return inFlight;
  }

  std::mutex m_recordMutex;
  std::map<std::string, unsigned int> m_codes;
  std::map<std::string, Fault> m_faults;
  std::vector<std::string> m_calls;
  std::vector<int> m_lastTypes;
  std::vector<int> m_lastLengths;
  std::vector<std::string> m_lastWritten;
  std::string m_lastAddress;
  std::atomic<void*> m_device{nullptr};
  int m_deviceToken = 0;
  unsigned char m_structBytes[4] = {1, 2, 3, 4};
};

}  // namespace qvtest
