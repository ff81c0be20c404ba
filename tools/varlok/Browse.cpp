// varlok browse [--flat] FILE [TAG]: the tags of a symbol file, as an
// indented tree opened level by level, or as the library's flat list.
#include <QorVarlok/ZelVarlok.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Commands.h"
#include "TagTypes.h"

namespace varlok {

namespace {

// Bounds the walk: a structure that contains itself by value expands without end.
constexpr int kMaxDepth = 64;

struct Level {
  tagTagDesc* descs = nullptr;
  unsigned int count = 0;
};

const char* accessName(int access) {
  switch (access) {
    case ACCESS_READ: return "Read";
    case ACCESS_WRITE: return "Write";
    case ACCESS_READWRITE: return "ReadWrite";
    default: return "-";
  }
}

std::string typeLabel(const tagTagDesc& d) {
  std::string label = typeName(d.Type);
  if (d.BaseType != VARLOK_NOT_SET) label += std::string("<") + typeName(d.BaseType) + ">";
  if (d.Type == TAG_TYPE_SUBRANGE) label += "[" + std::to_string(d.MinValue) + ".." + std::to_string(d.MaxValue) + "]";
  return label;
}

// Groups of the node tree carry no type: they are the only records with
// the unset type code, since the reader refuses unknown type classes.
bool isGroup(const tagTagDesc& d) { return d.Type == VARLOK_NOT_SET; }

// Only these can have children; asking a leaf for them is an error the
// library logs, so the walk does not ask.
bool mayHaveChildren(const tagTagDesc& d) {
  switch (d.Type) {
    case VARLOK_NOT_SET:
    case TAG_TYPE_UNION:
    case TAG_TYPE_STRUCTURE:
    case TAG_TYPE_FUNCTION_BLOCK:
      return true;
    case TAG_TYPE_ARRAY:
      return d.BaseType == TAG_TYPE_STRUCTURE;
    default:
      return false;
  }
}

std::string text(const char* s) { return s == nullptr ? std::string() : std::string(s); }

// Display width of UTF-8 text: one column per character.
size_t widthOf(const char* s) {
  size_t n = 0;
  for (; s != nullptr && *s != '\0'; ++s) {
    if ((static_cast<unsigned char>(*s) & 0xC0) != 0x80) ++n;
  }
  return n;
}

// Names and types of one listing line up in columns.
struct Columns {
  size_t name = 0;
  size_t type = 0;
  size_t size = 0;
  size_t access = 0;
};

const char* shownName(const tagTagDesc& d, bool fullNames) { return fullNames ? d.FullName : d.Name; }

void widen(Columns& c, const tagTagDesc& d, bool fullNames) {
  if (isGroup(d)) return;
  c.name = std::max(c.name, widthOf(shownName(d, fullNames)));
  c.type = std::max(c.type, typeLabel(d).size());
  c.size = std::max(c.size, std::to_string(d.Size).size());
  if (d.Comment != nullptr && d.Comment[0] != '\0') c.access = std::max(c.access, std::strlen(accessName(d.AccessType)));
}

void pad(std::string& line, size_t used, size_t column) { line.append(column > used ? column - used : 0, ' '); }

void printLine(const tagTagDesc& d, bool fullNames, int depth, const Columns& columns) {
  const char* name = shownName(d, fullNames);
  std::string line(static_cast<size_t>(depth) * 2, ' ');
  line += name == nullptr ? "" : name;
  if (!isGroup(d)) {
    pad(line, widthOf(name), columns.name);
    const std::string type = typeLabel(d);
    line += "  " + type;
    pad(line, type.size(), columns.type);
    const std::string size = std::to_string(d.Size);
    line += "  " + size;
    pad(line, size.size(), columns.size);
    line += std::string("  ") + accessName(d.AccessType);
    if (d.Comment != nullptr && d.Comment[0] != '\0') {
      pad(line, std::strlen(accessName(d.AccessType)), columns.access);
      line += std::string("  // ") + d.Comment;
    }
  }
  line += '\n';
  std::fwrite(line.data(), 1, line.size(), stdout);
}

// The open symbol file; released when the command ends.
class SymbolFile {
 public:
  explicit SymbolFile(const std::wstring& path) { m_handle = CreateSymbolConfigHandleW(path.c_str(), &m_code); }
  ~SymbolFile() {
    if (m_handle != nullptr) ReleaseSymbolConfigHandle(m_handle);
  }
  SymbolFile(const SymbolFile&) = delete;
  SymbolFile& operator=(const SymbolFile&) = delete;

  void* handle() const { return m_handle; }
  // The library writes the code only on failure; a null handle without one is still a failure.
  unsigned int code() const { return m_code != 0 ? m_code : ERR_UNDEFINED; }

 private:
  void* m_handle = nullptr;
  unsigned int m_code = 0;
};

// A leaf answers ERR_INVALID_TAG_HANDLE, which here just means "no children".
unsigned int childrenOf(const tagTagDesc& d, Level& out) {
  out = Level();
  const unsigned int r = GetSymbolConfigSubTagsDesc(d.TagsHandle, &out.descs, &out.count);
  if (r == ERR_INVALID_TAG_HANDLE) {
    out = Level();
    return 0;
  }
  return r;
}

void reportFailure(const std::string& what, unsigned int code) { reportCode("browse", what.c_str(), code); }

// Depth-first, children right after their parent.
int printTree(const Level& level, int depth) {
  if (depth >= kMaxDepth) {
    std::fprintf(stderr, "varlok browse: the tree is deeper than %d levels; a type may contain itself\n", kMaxDepth);
    return kExitFailed;
  }
  Columns columns;
  for (unsigned int i = 0; i < level.count; ++i) widen(columns, level.descs[i], false);
  for (unsigned int i = 0; i < level.count; ++i) {
    const tagTagDesc& d = level.descs[i];
    printLine(d, false, depth, columns);
    if (!mayHaveChildren(d)) continue;
    Level children;
    const unsigned int r = childrenOf(d, children);
    if (r != 0) {
      reportFailure("children of '" + text(d.FullName) + "'", r);
      return kExitFailed;
    }
    const int result = printTree(children, depth + 1);
    if (result != kExitOk) return result;
  }
  return kExitOk;
}

// Walks down by full name: a record either is the tag or is an ancestor,
// whose full name is followed by "." in the tag's.
const tagTagDesc* findTag(const Level& top, const std::string& tag) {
  Level level = top;
  for (int depth = 0; depth < kMaxDepth; ++depth) {
    const tagTagDesc* next = nullptr;
    for (unsigned int i = 0; i < level.count && next == nullptr; ++i) {
      const std::string name = text(level.descs[i].FullName);
      if (name == tag) return &level.descs[i];
      if (tag.size() > name.size() && tag.compare(0, name.size(), name) == 0 && tag[name.size()] == '.') {
        next = &level.descs[i];
      }
    }
    if (next == nullptr || !mayHaveChildren(*next) || childrenOf(*next, level) != 0) return nullptr;
  }
  return nullptr;
}

bool isBelow(const std::string& fullName, const std::string& tag) {
  return tag.empty() || fullName == tag ||
         (fullName.size() > tag.size() && fullName.compare(0, tag.size(), tag) == 0 && fullName[tag.size()] == '.');
}

int browseFlat(const SymbolFile& file, const std::string& tag) {
  Level all;
  const unsigned int r = GetSymbolConfigParseResult(file.handle(), &all.descs, &all.count);
  if (r != 0) {
    reportCode("browse", "flat list", r);  // also when memory ran out in the listing
    return kExitFailed;
  }
  Columns columns;
  for (unsigned int i = 0; i < all.count; ++i) {
    if (isBelow(text(all.descs[i].FullName), tag)) widen(columns, all.descs[i], true);
  }
  bool any = false;
  for (unsigned int i = 0; i < all.count; ++i) {
    const tagTagDesc& d = all.descs[i];
    if (!isBelow(text(d.FullName), tag)) continue;
    printLine(d, true, 0, columns);
    any = true;
  }
  if (!tag.empty() && !any) {
    std::fprintf(stderr, "varlok browse: no tag '%s'\n", tag.c_str());
    return kExitFailed;
  }
  return kExitOk;
}

int browseTree(const SymbolFile& file, const std::string& tag) {
  Level top;
  const unsigned int r = GetSymbolConfigToppestTagsDesc(file.handle(), &top.descs, &top.count);
  if (r != 0) {
    reportFailure("top level", r);
    return kExitFailed;
  }
  if (tag.empty()) return printTree(top, 0);
  const tagTagDesc* start = findTag(top, tag);
  if (start == nullptr) {
    std::fprintf(stderr, "varlok browse: no tag '%s'\n", tag.c_str());
    return kExitFailed;
  }
  Level children;
  if (!mayHaveChildren(*start) || childrenOf(*start, children) != 0 || children.count == 0) {
    printLine(*start, true, 0, Columns());  // a leaf: show the tag itself
    return kExitOk;
  }
  return printTree(children, 0);
}

// The path in the locale's multibyte form, as the shell gave it.
bool toWide(const std::string& path, std::wstring& wide) {
  const size_t n = std::mbstowcs(nullptr, path.c_str(), 0);
  if (n == static_cast<size_t>(-1)) return false;
  wide.assign(n, L'\0');
  std::mbstowcs(&wide[0], path.c_str(), n);
  return true;
}

}  // namespace

int runBrowse(const Args& args) {
  bool flat = false;
  Args words;
  for (const std::string& a : args) {
    if (a == "--flat") {
      flat = true;
    } else if (a.size() > 1 && a[0] == '-') {
      std::fprintf(stderr, "varlok browse: unknown option '%s'\n", a.c_str());
      return kExitUsage;
    } else {
      words.push_back(a);
    }
  }
  if (words.empty() || words.size() > 2) {
    std::fprintf(stderr, "usage: varlok browse [--flat] FILE [TAG]\n");
    return kExitUsage;
  }
  std::wstring path;
  if (!toWide(words[0], path)) {
    std::fprintf(stderr, "varlok browse: the path '%s' is not valid in this locale\n", words[0].c_str());
    return kExitUsage;
  }
  const SymbolFile file(path);
  if (file.handle() == nullptr) {
    reportFailure("cannot open '" + words[0] + "'", file.code());
    return kExitFailed;
  }
  const std::string tag = words.size() == 2 ? words[1] : std::string();
  return flat ? browseFlat(file, tag) : browseTree(file, tag);
}

}  // namespace varlok
