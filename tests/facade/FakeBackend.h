// A backend for the facade's tests: tag lists live in the real tags manager, nothing talks to a
// controller. Every call is recorded by name; each name answers a chosen code or throws on demand.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <stdexcept>
#include <thread>

#include "Varlok.h"

namespace qvtest {

class FakeVarlok : public ZelmonteVarlok::Varlok {
 public:
  enum class Fault { None, StdException, Other };
  std::map<std::string, unsigned int> codes;  // set before the facade calls in; read under the record lock
  std::map<std::string, Fault> faults;
  std::chrono::microseconds dwell{0};  // widens the window for overlapping calls
  // What the typed calls handed over: strings as text, anything else as its bytes.
  std::vector<int> types, lengths;
  std::vector<std::string> written;
  static inline std::atomic<bool> overlapped{false};  // two calls of any fakes ever overlapped

  size_t CountOf(const std::string& call) {
    std::lock_guard<std::mutex> lock(m_record);
    return size_t(std::count(m_calls.begin(), m_calls.end(), call));
  }
  unsigned int InitializeCom() override { return Step("InitializeCom"); }
  unsigned int ExitVarlokCommunication() override { return Step("ExitVarlokCommunication"); }
  void* ConnectToPlcDevice(const std::string& address, unsigned int& err) override {
    err = Step("ConnectToPlcDevice", " " + address);
    return m_device = err == 0 ? this : nullptr;
  }
  unsigned int DisconnectFromPlcDevice(void*) override {
    const unsigned int code = Step("DisconnectFromPlcDevice");
    return m_device = code == 0 ? nullptr : m_device.load(), code;
  }
  void* CreateTagsHandle(const std::vector<std::string>& names, unsigned int period, unsigned int& err) override {
    if ((err = Step("CreateTagsHandle", period == 100 ? "" : " bad period")) != 0) return nullptr;
    std::lock_guard<std::mutex> lock(m_mutex);
    qorvarlok::tags::TagsList* list = nullptr;
    if ((err = GetTagManager()->createHandleByTagsListNames(&list, 1, names)) != 0) return nullptr;
    list->handle = ++m_lists;
    return &list->handle;
  }
  void* CreateTagsHandle(const std::string& name, unsigned int period, unsigned int& e) override {
    return CreateTagsHandle(std::vector<std::string>{name}, period, e);
  }
  unsigned int DeleteTagsHandle(void*& handle) override {
    const unsigned int code = Step("DeleteTagsHandle");
    std::lock_guard<std::mutex> lock(m_mutex);
    return GetTagManager()->deleteFromList(handle), code;
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
  unsigned int ReadStructField(void*, void** data, int* length) override {
    const unsigned int code = Step("ReadStructField");
    if (code == 0) *data = m_struct, *length = sizeof(m_struct);
    return code;
  }
  // Strings get "text" / L"wide", anything else bytes 0xA0 + its position.
  unsigned int ReadTagValue(void*, std::vector<void*>& heads, std::vector<int>& t, std::vector<int>& l) override {
    const unsigned int code = Step("ReadTagValue", "", &t, &l);
    for (size_t i = 0; code == 0 && i < heads.size(); ++i) {
      if (t[i] == TAG_TYPE_STRING) *static_cast<std::string*>(heads[i]) = "text";
      else if (t[i] == TAG_TYPE_WSTRING) *static_cast<std::wstring*>(heads[i]) = L"wide";
      else std::memset(heads[i], static_cast<int>(0xA0 + i), static_cast<size_t>(l[i]));
    }
    return code;
  }
  unsigned int WriteTagValue(void*, std::vector<void*>& heads, std::vector<int>& t, std::vector<int>& l) override {
    std::vector<std::string> values;
    for (size_t i = 0; i < heads.size(); ++i) {
      const auto* w = static_cast<const std::wstring*>(heads[i]);
      values.push_back(t[i] == TAG_TYPE_STRING    ? *static_cast<const std::string*>(heads[i])
                       : t[i] == TAG_TYPE_WSTRING ? std::string(w->begin(), w->end())
                                                  : std::string(static_cast<const char*>(heads[i]), size_t(l[i])));
    }
    return Step("WriteTagValue", "", &t, &l, &values);
  }

 private:
  unsigned int Step(const std::string& name, const std::string& detail = "", const std::vector<int>* t = nullptr,
                    const std::vector<int>* l = nullptr, std::vector<std::string>* values = nullptr) {
    static std::atomic<int> inFlight{0};
    if (inFlight.fetch_add(1) != 0) overlapped = true;
    if (dwell.count() > 0) std::this_thread::sleep_for(dwell);
    inFlight.fetch_sub(1);
    std::lock_guard<std::mutex> lock(m_record);
    m_calls.push_back(name + detail);
    if (t) types = *t, lengths = *l, written = values ? std::move(*values) : std::vector<std::string>{};
    if (faults[name] == Fault::StdException) throw std::runtime_error("fake failure");
    if (faults[name] == Fault::Other) throw 42;
    return codes[name];
  }

  std::mutex m_record;
  std::vector<std::string> m_calls;
  std::atomic<void*> m_device{nullptr};
  int32_t m_lists = 0;
  unsigned char m_struct[4] = {1, 2, 3, 4};  // what a struct read answers
};

}  // namespace qvtest
