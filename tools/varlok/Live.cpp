// varlok read / write / watch: tags of a running controller, through shared
// memory on this machine or, with --host, over TCP.
#include <QorVarlok/ZelVarlok.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "Commands.h"
#include "Program.h"
#include "TagTypes.h"
#include "ValueText.h"

namespace varlok {

namespace {

struct LiveOptions {
  std::string symbols;
  std::string partition;
  std::string host;  // empty: shared memory
  long intervalMs = 500;
  long count = 0;  // watch: reads before stopping; 0 until interrupted
  Args words;      // tags, or TAG=VALUE pairs
};

bool parseNumber(const std::string& text, long& value) {
  if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos) return false;
  value = std::strtol(text.c_str(), nullptr, 10);
  return true;
}

bool parseOptions(const char* command, const Args& args, bool watch, LiveOptions& o) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    const bool hasValue = i + 1 < args.size();
    if (a == "--symbols" && hasValue) {
      o.symbols = args[++i];
    } else if (a == "--partition" && hasValue) {
      o.partition = args[++i];
    } else if (a == "--host" && hasValue) {
      o.host = args[++i];
    } else if (watch && a == "--interval" && hasValue && parseNumber(args[i + 1], o.intervalMs) && o.intervalMs > 0) {
      ++i;
    } else if (watch && a == "--count" && hasValue && parseNumber(args[i + 1], o.count)) {
      ++i;
    } else if (a.size() > 1 && a[0] == '-' && a[1] == '-') {
      std::fprintf(stderr, "varlok %s: unknown or incomplete option '%s'\n", command, a.c_str());
      return false;
    } else {
      o.words.push_back(a);
    }
  }
  if (o.symbols.empty() || o.words.empty()) {
    std::fprintf(stderr, "usage: varlok %s --symbols FILE [--partition NAME | --host HOST[:PORT]]%s %s...\n", command,
                 watch ? " [--interval MS] [--count N]" : "", std::strcmp(command, "write") == 0 ? "TAG=VALUE" : "TAG");
    return false;
  }
  return true;
}

bool isWhole(int type) {
  return type == TAG_TYPE_ARRAY || type == TAG_TYPE_STRUCTURE || type == TAG_TYPE_UNION ||
         type == TAG_TYPE_FUNCTION_BLOCK;
}

// One tag as the command handles it. Arrays and structures move as whole
// runs of bytes, each in a list of its own; the other tags share one list.
struct Item {
  std::string name;
  int type = VARLOK_NOT_SET;
  int elementType = VARLOK_NOT_SET;
  int size = 0;
  HTAGLIST list = nullptr;  // own list of a whole array or structure
};

// One connection and its tag lists, taken down in the reverse order.
class Session {
 public:
  explicit Session(const char* command) : m_command(command) {}
  ~Session() {
    for (HTAGLIST list : m_lists) m_varlok.DeleteTagsHandle(list);
    if (m_device != nullptr) m_varlok.DisconnectFromDevice(m_device);
    if (m_bInitialized) m_varlok.ExitVarlokCommunication();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool open(const LiveOptions& o) {
    // The partition is the platform's configuration, read at its first use.
    if (!o.partition.empty()) qorvarlok::platform::SetEnvironment("VARLOK_PARTITION", o.partition);
    const bool tcp = !o.host.empty();
    unsigned int code = m_varlok.InitializeCom(tcp ? COM_TYPE_TCP : COM_TYPE_LOCAL, o.symbols.c_str());
    if (code != 0) return fail("InitializeCom", code);
    m_bInitialized = true;
    code = 0;
    m_device = m_varlok.ConnectToPlcDevice(tcp ? o.host.c_str() : "Local", code);
    if (m_device == nullptr || code != 0) return fail("ConnectToPlcDevice", code != 0 ? code : ERR_UNDEFINED);
    return true;
  }

  HTAGLIST define(const std::vector<std::string>& names) {
    unsigned int code = 0;
    HTAGLIST list = m_varlok.CreateTagsHandle(std::vector<std::string>(names), code);
    if (list == nullptr || code != 0) {
      fail("CreateTagsHandle", code != 0 ? code : ERR_UNDEFINED);
      return nullptr;
    }
    m_lists.push_back(list);
    return list;
  }

  // Looks each tag up in the table and defines the lists.
  bool prepare(const std::vector<std::string>& names, std::vector<Item>& items, HTAGLIST& shared) {
    std::vector<std::string> sharedNames;
    for (const std::string& n : names) {
      Item item;
      item.name = n;
      if (const tagTagDesc* d = m_varlok.GetTagDescByName(n)) {
        item.type = d->Type;
        item.elementType = d->BaseType;
        item.size = d->Size;
      }
      if (item.type == TAG_TYPE_ARRAY && elementWidth(item.elementType) == 0) {
        // Neither the element-wise nor the structure route takes these whole.
        std::fprintf(stderr, "varlok %s: %s: arrays of %s are not moved whole; name their members\n", m_command,
                     n.c_str(), typeName(item.elementType));
        return false;
      }
      if (isWhole(item.type)) {
        item.list = define({n});
        if (item.list == nullptr) return false;
      } else {
        sharedNames.push_back(n);
      }
      items.push_back(item);
    }
    shared = sharedNames.empty() ? nullptr : define(sharedNames);
    return sharedNames.empty() || shared != nullptr;
  }

  bool fail(const char* step, unsigned int code) const {
    reportCode(m_command, step, code);
    return false;
  }

  ZelVarlok& varlok() { return m_varlok; }

 private:
  const char* m_command;
  ZelVarlok m_varlok;
  bool m_bInitialized = false;
  void* m_device = nullptr;
  std::vector<HTAGLIST> m_lists;
};

// An array of an elementary type moves element-wise; anything else whole.
bool byElements(const Item& item) { return item.type == TAG_TYPE_ARRAY && elementWidth(item.elementType) > 0; }

// "App.GVL.x = 5" lines of one read, in the order of the items.
bool readLines(Session& s, const std::vector<Item>& items, HTAGLIST shared, std::vector<std::string>& lines) {
  std::vector<tagTagVarValue> values;
  unsigned int count = 0;
  if (shared != nullptr) {
    const unsigned int code = s.varlok().ReadTagList(shared, values, count);
    if (code != 0) return s.fail("ReadTagList", code);
  }
  lines.clear();
  size_t next = 0;
  for (const Item& item : items) {
    if (item.list == nullptr) {
      if (next >= count || next >= values.size()) return s.fail("ReadTagList", ERR_READ_FAILED);
      const tagTagVarValue& v = values[next++];
      lines.push_back(item.name + " = " +
                      valueToText(v.Type, VARLOK_NOT_SET, static_cast<const unsigned char*>(v.Value),
                                  static_cast<size_t>(v.ValueLength > 0 ? v.ValueLength : 0)));
      continue;
    }
    std::vector<unsigned char> bytes(static_cast<size_t>(item.size > 0 ? item.size : 0));
    const unsigned int code =
        byElements(item) ? s.varlok().ReadArray(item.list, elementWidth(item.elementType), bytes.data(), 0, 0)
                         : s.varlok().ReadStructField(item.list, bytes.data(), item.size);
    if (code != 0) return s.fail(byElements(item) ? "ReadArray" : "ReadStructField", code);
    lines.push_back(item.name + " = " + valueToText(item.type, item.elementType, bytes.data(), bytes.size()));
  }
  return true;
}

volatile sig_atomic_t g_stop = 0;

void onSignal(int) { g_stop = 1; }

}  // namespace

int runRead(const Args& args) {
  LiveOptions o;
  if (!parseOptions("read", args, false, o)) return kExitUsage;
  Session s("read");
  std::vector<Item> items;
  HTAGLIST shared = nullptr;
  std::vector<std::string> lines;
  if (!s.open(o) || !s.prepare(o.words, items, shared) || !readLines(s, items, shared, lines)) return kExitFailed;
  for (const std::string& l : lines) std::printf("%s\n", l.c_str());
  return kExitOk;
}

// A whole array or structure from hex bytes.
bool writeWhole(Session& s, const Item& item, const std::string& value) {
  std::vector<unsigned char> bytes;
  if (!parseHex(value, bytes)) {
    std::fprintf(stderr, "varlok write: %s takes hex bytes, such as 01 00 00 00\n", item.name.c_str());
    return false;
  }
  // The library copies the tag's whole size from the buffer: never hand it less.
  if (bytes.size() != static_cast<size_t>(item.size)) {
    std::fprintf(stderr, "varlok write: %s takes %d bytes, not %zu\n", item.name.c_str(), item.size, bytes.size());
    return false;
  }
  const unsigned int code =
      byElements(item) ? s.varlok().WriteArray(item.list, elementWidth(item.elementType), bytes.data(), 0, 0)
                       : s.varlok().WriteStructField(item.list, bytes.data(), static_cast<int>(bytes.size()));
  return code == 0 || s.fail(byElements(item) ? "WriteArray" : "WriteStructField", code);
}

int runWrite(const Args& args) {
  LiveOptions o;
  if (!parseOptions("write", args, false, o)) return kExitUsage;
  std::vector<std::string> names, values;
  for (const std::string& w : o.words) {
    const size_t eq = w.find('=');
    if (eq == std::string::npos || eq == 0) {
      std::fprintf(stderr, "varlok write: not TAG=VALUE: '%s'\n", w.c_str());
      return kExitUsage;
    }
    names.push_back(w.substr(0, eq));
    values.push_back(w.substr(eq + 1));
  }
  Session s("write");
  std::vector<Item> items;
  HTAGLIST shared = nullptr;
  if (!s.open(o) || !s.prepare(names, items, shared)) return kExitFailed;
  std::vector<std::string> texts;
  for (size_t i = 0; i < items.size(); ++i) {
    if (items[i].list == nullptr) {
      texts.push_back(values[i]);
    } else if (!writeWhole(s, items[i], values[i])) {
      return kExitFailed;
    }
  }
  if (shared != nullptr) {
    const unsigned int code = s.varlok().WriteTagList(shared, texts);
    if (code != 0) {
      s.fail("WriteTagList", code);
      return kExitFailed;
    }
  }
  return kExitOk;
}

int runWatch(const Args& args) {
  LiveOptions o;
  if (!parseOptions("watch", args, true, o)) return kExitUsage;
  qorvarlok::platform::OnStopRequest(onSignal);
  Session s("watch");
  std::vector<Item> items;
  HTAGLIST shared = nullptr;
  if (!s.open(o) || !s.prepare(o.words, items, shared)) return kExitFailed;
  std::vector<std::string> lines;
  size_t drawn = 0;
  for (long n = 0; g_stop == 0 && (o.count == 0 || n < o.count); ++n) {
    const auto start = std::chrono::steady_clock::now();
    if (!readLines(s, items, shared, lines)) return kExitFailed;
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    // Back to the first line of the previous drawing, then overwrite it.
    if (drawn > 0) std::printf("\033[%zuA", drawn);
    for (const std::string& l : lines) std::printf("\033[K%s\n", l.c_str());
    std::printf("\033[Kread #%ld, round trip %.3f ms\n", n + 1, ms);
    std::fflush(stdout);
    drawn = lines.size() + 1;
    const auto next = start + std::chrono::milliseconds(o.intervalMs);
    while (g_stop == 0 && std::chrono::steady_clock::now() < next && (o.count == 0 || n + 1 < o.count)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  return kExitOk;
}

}  // namespace varlok
