#include "SymbolConfigReader.h"

#include <sys/stat.h>
#include <tinyxml.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "VarlokLog.h"
#include "VarlokTypes.h"
#include "WideConv.h"
#include "XmlDepthScan.h"

namespace qorvarlok::symbols {

namespace {

constexpr const char* kReadFile = "SymbolConfigReader::ReadFile";

// Decimal with the reading of atoi (white space, sign, digits up to the first
// other character, no digits gives 0), saturated instead of overflowing.
int ParseInt(const char* text) {
  if (text == nullptr) return 0;
  const char* p = text;
  while (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r' || *p == '\v' || *p == '\f') ++p;
  bool negative = false;
  if (*p == '-' || *p == '+') negative = (*p++ == '-');
  long long value = 0;
  while (*p >= '0' && *p <= '9') {
    if (value <= static_cast<long long>(INT_MAX) + 1) value = value * 10 + (*p - '0');
    ++p;
  }
  if (negative) value = -value;
  if (value > INT_MAX) return INT_MAX;
  if (value < INT_MIN) return INT_MIN;
  return static_cast<int>(value);
}

char* CopyText(const std::string& text) {
  char* copy = new char[text.size() + 1];
  std::memcpy(copy, text.c_str(), text.size() + 1);
  return copy;
}

std::string Formatted(const char* description, const char* detail) {
  return std::string(description) + "(" + detail + ")";
}

// Holds the first failure of a reading: its code and the element's line.
struct Failure {
  unsigned int code = 0;
  void AtLine(const TiXmlElement* element) { code = ERR_XML_LINE_ERROR | static_cast<unsigned int>(element->Row()); }
  bool Set() const { return code != 0; }
};

const char* Text(const TiXmlElement* parent, const char* child) {
  const TiXmlElement* element = parent->FirstChildElement(child);
  return element != nullptr ? element->GetText() : nullptr;
}

std::string OrEmpty(const char* text) { return text != nullptr ? std::string(text) : std::string(); }

// ------------------------------------------------------------------ header
SymbolHeader* ReadHeader(const TiXmlElement* element) {
  auto* header = new SymbolHeader();
  header->version = PackVersion(Text(element, "Version"));
  if (const TiXmlElement* object = element->FirstChildElement("SymbolConfigObject")) {
    header->compilerVersion = PackVersion(object->Attribute("compiler"));
    header->runtimeId = PackVersion(object->Attribute("runtimeid"));
    header->profile = OrEmpty(object->Attribute("profile"));
  }
  if (const TiXmlElement* project = element->FirstChildElement("ProjectInfo")) {
    header->projectName = OrEmpty(project->Attribute("name"));
  }
  return header;
}

// ------------------------------------------------------------------- types
TypeBase* ReadSimple(const TiXmlElement* element, int typeClass, Failure& failure) {
  auto type = std::make_unique<TypeSimple>();
  if (typeClass == TAG_TYPE_SUBRANGE) {
    const char* underlying = element->Attribute("underlyingtype");
    const char* lower = element->Attribute("lowerborder");
    const char* upper = element->Attribute("upperborder");
    if (underlying == nullptr || lower == nullptr || upper == nullptr) {
      VLOG(err, kReadFile, "line {}: subrange {} needs underlyingtype, lowerborder and upperborder", element->Row(),
           OrEmpty(element->Attribute("name")));
      failure.AtLine(element);
      return nullptr;
    }
    type->underlyingType = underlying;
    type->lowerBorder = ParseInt(lower);
    type->upperBorder = ParseInt(upper);
  }
  return type.release();
}

TypeBase* ReadArray(const TiXmlElement* element, Failure& failure) {
  const char* baseType = element->Attribute("basetype");
  const TiXmlElement* dimension = element->FirstChildElement();
  if (baseType == nullptr || dimension == nullptr) {
    VLOG(err, kReadFile, "line {}: array {} needs a basetype and at least one dimension", element->Row(),
         OrEmpty(element->Attribute("name")));
    failure.AtLine(element);
    return nullptr;
  }
  auto type = std::make_unique<TypeArray>();
  type->baseType = baseType;
  for (; dimension != nullptr; dimension = dimension->NextSiblingElement()) {
    const char* minRange = dimension->Attribute("minrange");
    const char* maxRange = dimension->Attribute("maxrange");
    if (minRange == nullptr || maxRange == nullptr) {
      VLOG(err, kReadFile, "line {}: array dimension needs minrange and maxrange", dimension->Row());
      failure.AtLine(dimension);
      return nullptr;
    }
    type->AppendRange(new ArrayRange{ParseInt(minRange), ParseInt(maxRange)});
  }
  return type.release();
}

TypeBase* ReadUserDef(const TiXmlElement* element, Failure& failure) {
  auto type = std::make_unique<TypeUserDef>();
  type->baseType = OrEmpty(element->Attribute("basetype"));
  for (const TiXmlElement* child = element->FirstChildElement("UserDefElement"); child != nullptr;
       child = child->NextSiblingElement()) {
    if (std::strcmp(child->Value(), "UserDefElement") != 0) continue;
    const char* iecName = child->Attribute("iecname");
    const char* memberType = child->Attribute("type");
    if (iecName == nullptr || memberType == nullptr) {
      VLOG(err, kReadFile, "line {}: member of {} needs iecname and type", child->Row(),
           OrEmpty(element->Attribute("name")));
      failure.AtLine(child);
      return nullptr;
    }
    auto member = std::make_unique<UserDefElement>();
    member->iecName = iecName;
    member->type = memberType;
    const char* varType = child->Attribute("vartype");
    member->varType = varType != nullptr ? toVarKind(varType) : 0;
    member->enumValue = ParseInt(child->Attribute("enumvalue"));
    type->AppendElement(member.release());
  }
  return type.release();
}

TypeBase* ReadType(const TiXmlElement* element, Failure& failure) {
  const char* name = element->Attribute("name");
  const char* size = element->Attribute("size");
  const char* nativeSize = element->Attribute("nativesize");
  const char* iecName = element->Attribute("iecname");
  const char* typeClass = element->Attribute("typeclass");
  if (name == nullptr || size == nullptr || iecName == nullptr || typeClass == nullptr) {
    VLOG(err, kReadFile, "line {}: type element {} needs name, size, iecname and typeclass", element->Row(),
         element->Value());
    failure.AtLine(element);
    return nullptr;
  }
  const int code = toTagTypeCode(typeClass, element->Attribute("pouclass"), iecName);
  if (code == VARLOK_NOT_SET) {
    VLOG(err, kReadFile, "line {}: type {} has the unknown type class {}", element->Row(), name, typeClass);
    failure.AtLine(element);
    return nullptr;
  }
  const std::string kind = element->Value();
  TypeBase* type = nullptr;
  if (kind == "TypeSimple") {
    type = ReadSimple(element, code, failure);
  } else if (kind == "TypeArray") {
    type = ReadArray(element, failure);
  } else if (kind == "TypeUserDef") {
    type = ReadUserDef(element, failure);
  } else {
    VLOG(err, kReadFile, "line {}: unknown type element {}", element->Row(), kind);
    failure.AtLine(element);
  }
  if (type == nullptr) return nullptr;
  type->name = name;
  type->iecName = iecName;
  type->typeClass = code;
  type->size = ParseInt(nativeSize != nullptr ? nativeSize : size);
  return type;
}

TypeTable* ReadTypeList(const TiXmlElement* root, Failure& failure) {
  auto table = std::make_unique<TypeTable>();
  const TiXmlElement* list = root->FirstChildElement("TypeList");
  if (list == nullptr) return table.release();
  for (const TiXmlElement* element = list->FirstChildElement(); element != nullptr;
       element = element->NextSiblingElement()) {
    TypeBase* type = ReadType(element, failure);
    if (type == nullptr) return nullptr;
    table->Append(type);
  }
  table->Sort();
  return table.release();
}

// ------------------------------------------------------------------- nodes
const TiXmlElement* FirstNode(const TiXmlElement* element) { return element->FirstChildElement("Node"); }

const TiXmlElement* NextNode(const TiXmlElement* element) {
  for (const TiXmlElement* next = element->NextSiblingElement(); next != nullptr; next = next->NextSiblingElement())
    if (std::strcmp(next->Value(), "Node") == 0) return next;
  return nullptr;
}

// The variables of a group element; a variable lacking a required attribute
// is reported at the group's line.
bool ReadVariables(const TiXmlElement* group, NodeWithChildren* into, Failure& failure) {
  for (const TiXmlElement* v = FirstNode(group); v != nullptr; v = NextNode(v)) {
    const char* name = v->Attribute("name");
    const char* type = v->Attribute("type");
    const char* access = v->Attribute("access");
    if (name == nullptr || type == nullptr || access == nullptr) {
      VLOG(err, kReadFile, "line {}: a variable of group {} (line {}) needs name, type and access", v->Row(),
           OrEmpty(group->Attribute("name")), group->Row());
      failure.AtLine(group);
      return false;
    }
    auto variable = std::make_unique<VariableNode>();
    variable->name = name;
    variable->type = type;
    variable->access = toAccessType(access);
    variable->comment = OrEmpty(Text(v, "Comment"));
    variable->isReference = v->Attribute("referencetype") != nullptr ? 1 : 0;
    into->AppendChild(variable.release());
  }
  return true;
}

// The group rule: children named "Node" become groups; a child whose first
// "Node" child has a "Node" child of its own holds groups, any other holds
// variables. Recursion is bounded by the element depth checked before parsing.
void CollectGroups(const TiXmlElement* element, std::vector<NodeBase*>& out, Failure& failure) {
  for (const TiXmlElement* child = FirstNode(element); child != nullptr; child = NextNode(child)) {
    const char* name = child->Attribute("name");
    if (name == nullptr) {
      VLOG(err, kReadFile, "line {}: node without a name", child->Row());
      failure.AtLine(child);
      return;
    }
    auto group = std::make_unique<NodeWithChildren>();
    const TiXmlElement* first = FirstNode(child);
    if (first != nullptr && FirstNode(first) != nullptr) {
      std::vector<NodeBase*> children;
      CollectGroups(child, children, failure);
      group->AppendChildren(children);
    } else {
      ReadVariables(child, group.get(), failure);
    }
    if (failure.Set()) return;
    group->name = name;
    out.push_back(group.release());
  }
}

AppNodes* ReadNodeList(const TiXmlElement* root, Failure& failure) {
  auto nodes = std::make_unique<AppNodes>();
  const TiXmlElement* list = root->FirstChildElement("NodeList");
  if (list == nullptr) return nodes.release();
  for (const TiXmlElement* top = list->FirstChildElement("Node"); top != nullptr; top = top->NextSiblingElement()) {
    const char* name = top->Attribute("name");
    if (name == nullptr) {
      VLOG(err, kReadFile, "line {}: top node without a name", top->Row());
      failure.AtLine(top);
      return nullptr;
    }
    std::vector<NodeBase*> children;
    CollectGroups(top, children, failure);
    auto group = std::make_unique<NodeWithChildren>();
    group->AppendChildren(children);  // owned now, so released on failure too
    if (failure.Set()) return nullptr;
    group->name = name;
    nodes->AppendChild(group.release());
  }
  return nodes.release();
}

SymbolConfiguration* ReadRoot(const TiXmlElement* root, Failure& failure) {
  const TiXmlElement* headerElement = root->FirstChildElement("Header");
  if (headerElement == nullptr) {
    VLOG(err, kReadFile, "the symbol file has no Header element");
    failure.code = ERR_XML_NO_HEADER;
    return nullptr;
  }
  std::unique_ptr<SymbolHeader> header(ReadHeader(headerElement));
  std::unique_ptr<TypeTable> types(ReadTypeList(root, failure));
  if (failure.Set()) return nullptr;
  std::unique_ptr<AppNodes> nodes(ReadNodeList(root, failure));
  if (failure.Set()) return nullptr;
  return new SymbolConfiguration(header.release(), types.release(), nodes.release());
}

struct FileCloser {
  void operator()(std::FILE* file) const {
    if (file != nullptr) std::fclose(file);
  }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

// Reads the whole file for the nesting check, then rewinds it for the parser.
// Empty detail when the file may be parsed.
std::string CheckNesting(std::FILE* file) {
  std::string data;
  char chunk[65536];
  size_t n = 0;
  while ((n = std::fread(chunk, 1, sizeof(chunk), file)) > 0) data.append(chunk, n);
  std::rewind(file);
  const XmlDepthResult scan = ScanXmlDepth(data);
  if (scan.refused) return "Line " + std::to_string(scan.line) + ": " + scan.reason;
  if (scan.maxDepth > kMaxElementDepth)
    return "Elements nested deeper than " + std::to_string(kMaxElementDepth) + " levels at line " +
           std::to_string(scan.line);
  return std::string();
}

}  // namespace

SymbolConfiguration* SymbolConfigReader::ReadFile(const std::wstring& path, char** message) {
  m_lastError = 0;
  FilePtr file(std::fopen(platform::wideToNarrow(path).c_str(), "rb"));
  try {
    return Read(file.get(), message);
  } catch (const std::bad_alloc&) {
    // A file larger than the memory at hand: refused like any unreadable file.
    return Refuse(ERR_XML_ILLEGL_XML_FORMAT, "Not enough memory to read the file", message);
  }
}

SymbolConfiguration* SymbolConfigReader::Refuse(unsigned int code, const char* detail, char** message) {
  VLOG(err, kReadFile, "cannot load the symbol file: {}", detail);
  m_lastError = code;
  if (message != nullptr) *message = CopyText(Formatted(ReadErrorDescription(code), detail));
  return nullptr;
}

SymbolConfiguration* SymbolConfigReader::Read(std::FILE* file, char** message) {
  if (file != nullptr) {
    // The parser sizes its buffer from the file's length: only a regular file has a true one.
    struct stat info {};
    if (fstat(fileno(file), &info) != 0 || !S_ISREG(info.st_mode))
      return Refuse(ERR_XML_ILLEGL_XML_FORMAT, "Not a regular file", message);
    const std::string nesting = CheckNesting(file);
    if (!nesting.empty()) {
      VLOG(err, kReadFile, "refused before parsing: {}", nesting);
      m_lastError = ERR_XML_ILLEGL_XML_FORMAT;
      if (message != nullptr) *message = CopyText(Formatted(ReadErrorDescription(m_lastError), nesting.c_str()));
      return nullptr;
    }
  }
  TiXmlDocument document;
  if (!document.LoadFile(file, TIXML_ENCODING_UNKNOWN)) {
    VLOG(err, kReadFile, "cannot load the symbol file: {} (line {})", document.ErrorDesc(), document.ErrorRow());
    m_lastError = ERR_XML_ILLEGL_XML_FORMAT;
    if (message != nullptr) *message = CopyText(Formatted(ReadErrorDescription(m_lastError), document.ErrorDesc()));
    return nullptr;
  }
  const TiXmlElement* root = document.FirstChildElement("Symbolconfiguration");
  if (root == nullptr) {
    VLOG(err, kReadFile, "the symbol file has no Symbolconfiguration element");
    m_lastError = ERR_XML_NO_SYMB_MARK;
    if (message != nullptr) *message = CopyText(ReadErrorDescription(m_lastError));
    return nullptr;
  }
  Failure failure;
  SymbolConfiguration* configuration = ReadRoot(root, failure);
  if (configuration == nullptr) {
    m_lastError = failure.code;
    // A line error's description carries the line number.
    if (message != nullptr) *message = CopyText(ReadErrorDescription(m_lastError));
  }
  return configuration;
}

}  // namespace qorvarlok::symbols
