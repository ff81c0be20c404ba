// The reader: every failure code with its line and message, the header and
// the number rules, the type table, and the nesting check before parsing.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <algorithm>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "SymbolTestFiles.h"
#include "VarlokTypes.h"
#include "XmlDepthScan.h"
#include "LogCapture.h"

using namespace qorvarlok::symbols;
using symtest::Document;
using symtest::LineOf;

namespace {

const char* kDInt = "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
const char* kVar = "        <Node name=\"v\" type=\"T_DINT\" access=\"Read\"/>\n";

std::string Described(unsigned int code) { return ReadErrorDescription(code); }

std::string Deep(int levels) {
  std::string xml = std::string(symtest::kHeader);
  for (int i = 0; i < levels; ++i) xml += "<a>";
  for (int i = 0; i < levels; ++i) xml += "</a>";
  return xml + "</Symbolconfiguration>\n";
}

struct FailureCase {
  const char* name;
  std::string xml;          // the file; "<missing>" for no file at all
  unsigned int code;        // expected code; with lineMarker, the line is added
  const char* lineMarker;   // text on the line the error must name, or null
  std::string messageTail;  // after the description: "(...)" for load failures, empty otherwise
  std::string logLine;      // the reader's log line, exact; empty: checked by fragment
  std::string logFragment;
};

std::vector<FailureCase> FailureCases() {
  const std::string header = symtest::kHeader;
  return {
      {"missing file", "<missing>", ERR_XML_ILLEGL_XML_FORMAT, nullptr, "(Failed to open file)", "",
       "cannot load the symbol file: Failed to open file"},
      {"a directory", "<directory>", ERR_XML_ILLEGL_XML_FORMAT, nullptr, "(Not a regular file)",
       "cannot load the symbol file: Not a regular file", ""},
      {"empty file", "", ERR_XML_ILLEGL_XML_FORMAT, nullptr, "(Error document empty.)", "",
       "cannot load the symbol file: Error document empty."},
      {"white space only", " \n\t\n", ERR_XML_ILLEGL_XML_FORMAT, nullptr, "(Error document empty.)", "",
       "Error document empty."},
      {"truncated", header.substr(0, header.size() - 20), ERR_XML_ILLEGL_XML_FORMAT, nullptr, "", "",
       "cannot load the symbol file: "},
      {"root name differs in case", "<SymbolConfiguration><Header/></SymbolConfiguration>\n", ERR_XML_NO_SYMB_MARK,
       nullptr, "", "the symbol file has no Symbolconfiguration element", ""},
      {"no header", "<Symbolconfiguration>\n<TypeList/>\n</Symbolconfiguration>\n", ERR_XML_NO_HEADER, nullptr, "",
       "the symbol file has no Header element", ""},
      {"unknown type element", Document(std::string(kDInt) + "    <TypeOdd name=\"X\" size=\"1\" iecname=\"X\" "
                                                             "typeclass=\"Bool\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "TypeOdd", "", "", "unknown type element TypeOdd"},
      {"type without size", Document("    <TypeSimple name=\"T_DINT\" iecname=\"DINT\" typeclass=\"DInt\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "T_DINT", "", "", "needs name, size, iecname and typeclass"},
      {"unknown type class", Document("    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DINT\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "T_DINT", "", "", "type T_DINT has the unknown type class DINT"},
      {"userdef with another class", Document("    <TypeUserDef name=\"U\" size=\"4\" iecname=\"U\" typeclass=\"Userdef\" pouclass=\"PROGRAM\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "PROGRAM", "", "", "unknown type class Userdef"},
      {"subrange without upper border", Document(std::string(kDInt) + "    <TypeSimple name=\"SR\" size=\"4\" iecname=\"SR\" typeclass=\"Subrange\" underlyingtype=\"T_DINT\" lowerborder=\"0\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "\"SR\"", "", "", "subrange SR needs underlyingtype"},
      {"array without base type", Document(std::string(kDInt) + "    <TypeArray name=\"A\" size=\"4\" iecname=\"A\" typeclass=\"Array\">\n      <D minrange=\"0\" maxrange=\"0\"/>\n    </TypeArray>\n", kVar),
       ERR_XML_LINE_ERROR, "TypeArray", "", "", "array A needs a basetype and at least one dimension"},
      {"array without dimension", Document(std::string(kDInt) + "    <TypeArray name=\"A\" size=\"4\" iecname=\"A\" typeclass=\"Array\" basetype=\"T_DINT\"/>\n", kVar),
       ERR_XML_LINE_ERROR, "TypeArray", "", "", "array A needs a basetype and at least one dimension"},
      {"dimension without maxrange", Document(std::string(kDInt) + "    <TypeArray name=\"A\" size=\"8\" iecname=\"A\" typeclass=\"Array\" basetype=\"T_DINT\">\n      <D minrange=\"0\" maxrange=\"1\"/>\n      <D minrange=\"0\" MARK=\"1\"/>\n    </TypeArray>\n", kVar),
       ERR_XML_LINE_ERROR, "MARK", "", "", "array dimension needs minrange and maxrange"},
      {"member without type", Document(std::string(kDInt) + "    <TypeUserDef name=\"S\" size=\"4\" iecname=\"S\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n      <UserDefElement iecname=\"m\"/>\n    </TypeUserDef>\n", kVar),
       ERR_XML_LINE_ERROR, "\"m\"", "", "", "member of S needs iecname and type"},
      {"variable without access reported at its group",
       Document(kDInt, "        <Node name=\"ok\" type=\"T_DINT\" access=\"Read\"/>\n        <Node name=\"bad\" type=\"T_DINT\"/>\n"),
       ERR_XML_LINE_ERROR, "\"GVL\"", "", "", "needs name, type and access"},
      {"group without name", Document(kDInt, "        <Node><Node><Node name=\"v\" type=\"T_DINT\" access=\"Read\"/></Node></Node>\n"),
       ERR_XML_LINE_ERROR, "<Node><Node>", "", "", "node without a name"},
      {"top node without name", header + "  <NodeList>\n    <Node>\n    </Node>\n  </NodeList>\n</Symbolconfiguration>\n",
       ERR_XML_LINE_ERROR, "<Node>", "", "", "top node without a name"},
      {"undefined variable type", Document(kDInt, "        <Node name=\"v\" type=\"T_NOPE\" access=\"Read\"/>\n"),
       ERR_XML_TYPE_DEF_ERROR, nullptr, "(T_NOPE)", "type T_NOPE of variable v is not defined", ""},
      {"reference of an undefined type", Document(kDInt, "        <Node name=\"r\" type=\"T_NOPE\" access=\"Read\" referencetype=\"\"/>\n"),
       ERR_XML_TYPE_DEF_ERROR, nullptr, "(T_NOPE)", "type T_NOPE of variable r is not defined", ""},
      {"subrange of an undefined type", Document("    <TypeSimple name=\"SR\" size=\"4\" iecname=\"SR\" typeclass=\"Subrange\" underlyingtype=\"T_GONE\" lowerborder=\"0\" upperborder=\"9\"/>\n",
                                                  "        <Node name=\"s\" type=\"SR\" access=\"Read\"/>\n"),
       ERR_XML_TYPE_DEF_ERROR, nullptr, "(T_GONE)", "base type of s (SR) is not defined", ""},
      {"nesting deeper than the limit", Deep(kMaxElementDepth + 5), ERR_XML_ILLEGL_XML_FORMAT, nullptr, "", "",
       "refused before parsing: Elements nested deeper than 128 levels at line 8"},
  };
}

}  // namespace

TEST(SymbolReader, EveryFailureHasItsCodeLineMessageAndLogLine) {
  auto& log = qvtest::Log();
  symtest::TempDir dir;
  for (const FailureCase& c : FailureCases()) {
    SCOPED_TRACE(c.name);
    log.Clear();
    const std::string path = c.xml == "<missing>"     ? dir.Path("absent.xml")
                             : c.xml == "<directory>" ? dir.Path("")
                                                      : dir.Write("case.xml", c.xml);
    unsigned int code = 0;
    TagsConfig* config = ReadSymbolConfig(symtest::Wide(path), &code);
    EXPECT_EQ(config, nullptr);
    delete config;
    unsigned int expected = c.code;
    if (c.lineMarker != nullptr) {
      const int line = LineOf(c.xml, c.lineMarker);
      ASSERT_GT(line, 0);
      expected |= static_cast<unsigned int>(line);
    }
    EXPECT_EQ(code, expected) << std::hex << code;
    const std::string message = LastParseMessage();
    if (c.messageTail.empty() && c.code != ERR_XML_ILLEGL_XML_FORMAT) {
      EXPECT_EQ(message, Described(expected));
    } else if (!c.messageTail.empty()) {
      EXPECT_EQ(message, Described(expected) + c.messageTail);
    } else {
      EXPECT_EQ(message.rfind(Described(expected) + "(", 0), 0u) << message;
    }
    if (!c.logLine.empty()) {
      EXPECT_EQ(log.CountOf(spdlog::level::err, c.logLine), 1u) << c.logLine;
    } else {
      EXPECT_TRUE(log.Contains(c.logFragment)) << c.logFragment;
    }
  }
}

TEST(SymbolReader, LineErrorDescriptionCarriesTheLine) {
  symtest::TempDir dir;
  const std::string xml = Document("    <TypeOdd name=\"X\" size=\"1\" iecname=\"X\" typeclass=\"Bool\"/>\n", "");
  unsigned int code = 0;
  EXPECT_EQ(ReadSymbolConfig(symtest::Wide(dir.Write("odd.xml", xml)), &code), nullptr);
  EXPECT_EQ(code, ERR_XML_LINE_ERROR | 9u);
  qorvarlok::SetVarlokLanguage(1);
  const std::string english = ReadErrorDescription(code);
  qorvarlok::SetVarlokLanguage(0);
  EXPECT_EQ(english, "The symbol configuration file has a line error(Line 9)");
}

TEST(SymbolReader, SuccessClearsTheLastMessageAndLeavesTheCodeAlone) {
  symtest::TempDir dir;
  unsigned int code = 0;
  EXPECT_EQ(ReadSymbolConfig(symtest::Wide(dir.Path("none.xml")), &code), nullptr);
  EXPECT_FALSE(LastParseMessage().empty());
  code = 7;
  symtest::OpenedConfig ok(dir.Write("ok.xml", symtest::SmallFile()));
  ASSERT_NE(ok.config, nullptr);
  EXPECT_EQ(ok.code, 0u);
  unsigned int untouched = 7;
  TagsConfig* again = ReadSymbolConfig(symtest::Wide(dir.Path("ok.xml")), &untouched);
  EXPECT_EQ(untouched, 7u);
  EXPECT_TRUE(LastParseMessage().empty());
  delete again;
}

TEST(SymbolReader, HeaderAndTypeAttributesFollowTheNumberRules) {
  symtest::TempDir dir;
  const std::string types =
      "    <TypeSimple name=\"N\" size=\"8\" nativesize=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
      "    <TypeSimple name=\"Z\" size=\"abc\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
      "    <TypeSimple name=\"R\" size=\" -5x\" iecname=\"SR\" typeclass=\"Subrange\" underlyingtype=\"N\" "
      "lowerborder=\" -12abc\" upperborder=\"99999999999999\"/>\n"
      "    <TypeSimple name=\"S\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\"/>\n"
      "    <TypeUserDef name=\"E\" size=\"2\" iecname=\"E\" typeclass=\"Enum\" basetype=\"N\">\n"
      "      <UserDefElement iecname=\"a\" type=\"N\"/>\n"
      "      <UserDefElement iecname=\"b\" type=\"N\" vartype=\"VAR_IN_OUT\" enumvalue=\"-7\"/>\n"
      "      <UserDefElement iecname=\"c\" type=\"N\" vartype=\"var\"/>\n"
      "      <Other iecname=\"skipped\"/>\n"
      "    </TypeUserDef>\n";
  symtest::OpenedConfig opened(dir.Write("h.xml", Document(types, "        <Node name=\"v\" type=\"N\" access=\"READWRITE\" referencetype=\"\"/>\n")));
  ASSERT_NE(opened.config, nullptr);
  const SymbolConfiguration& doc = *opened.config->symbolConfiguration;
  EXPECT_EQ(doc.header->version, 0x01000000u);
  EXPECT_EQ(doc.header->compilerVersion, 0x01020304u);
  EXPECT_EQ(doc.header->runtimeId, 0x01020304u);
  EXPECT_EQ(doc.header->profile, "standard");
  EXPECT_EQ(doc.header->projectName, "Demo");
  EXPECT_EQ(doc.types->Find("N")->size, 4);
  EXPECT_EQ(doc.types->Find("Z")->size, 0);
  const auto* range = dynamic_cast<const TypeSimple*>(doc.types->Find("R"));
  ASSERT_NE(range, nullptr);
  EXPECT_EQ(range->size, -5);
  EXPECT_EQ(range->lowerBorder, -12);
  EXPECT_EQ(range->upperBorder, 2147483647);  // saturated, never undefined
  EXPECT_EQ(range->underlyingType, "N");
  const TypeBase* simpleStruct = doc.types->Find("S");
  EXPECT_NE(dynamic_cast<const TypeSimple*>(simpleStruct), nullptr);
  EXPECT_EQ(simpleStruct->typeClass, TAG_TYPE_STRUCTURE);
  const auto* e = dynamic_cast<const TypeUserDef*>(doc.types->Find("E"));
  ASSERT_NE(e, nullptr);
  ASSERT_EQ(e->elements.size(), 3u);
  EXPECT_EQ(e->elements[0]->varType, 0);
  EXPECT_EQ(e->elements[1]->varType, 3);
  EXPECT_EQ(e->elements[1]->enumValue, -7);
  EXPECT_EQ(e->elements[2]->varType, VARLOK_NOT_SET);
  const auto* gvl = dynamic_cast<const NodeWithChildren*>(
      dynamic_cast<const NodeWithChildren*>(doc.nodes->Children()[0])->Children()[0]);
  const auto* v = dynamic_cast<const VariableNode*>(gvl->Children()[0]);
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v->access, VARLOK_NOT_SET);
  EXPECT_EQ(v->isReference, 1);
  EXPECT_TRUE(IsReference(v, nullptr));
  EXPECT_TRUE(IsReference(nullptr, e->elements[1]));
  EXPECT_FALSE(IsReference(nullptr, nullptr));
}

TEST(SymbolReader, HeaderOnlyFileIsValidAndEmpty) {
  symtest::TempDir dir;
  symtest::OpenedConfig opened(dir.Write("h.xml", "<Symbolconfiguration><Header/></Symbolconfiguration>"));
  ASSERT_NE(opened.config, nullptr);
  EXPECT_EQ(opened.config->symbolConfiguration->types->Count(), 0);
  EXPECT_TRUE(opened.config->symbolConfiguration->nodes->Children().empty());
  EXPECT_EQ(opened.config->symbolConfiguration->header->version, 0u);
}

TEST(SymbolReader, VariableDirectlyUnderATopNodeIsAnEmptyGroup) {
  symtest::TempDir dir;
  const std::string xml = std::string(symtest::kHeader) +
                          "<NodeList><Node name=\"App\"><Node name=\"x\" type=\"NOPE\" access=\"Read\"/></Node>"
                          "</NodeList></Symbolconfiguration>";
  symtest::OpenedConfig opened(dir.Write("t.xml", xml));
  ASSERT_NE(opened.config, nullptr);  // the unknown type is never looked at
  const auto* app = dynamic_cast<const NodeWithChildren*>(opened.config->symbolConfiguration->nodes->Children()[0]);
  ASSERT_EQ(app->Children().size(), 1u);
  EXPECT_NE(dynamic_cast<const NodeWithChildren*>(app->Children()[0]), nullptr);
}

TEST(SymbolModel, PackVersion) {
  struct {
    const char* text;
    uint32_t packed;
  } cases[] = {{"1.2.3.4", 0x01020304u}, {nullptr, 0u},          {"", 0u},
               {"3.5.17.0", 0x03051100u}, {"1.2.256.4", 0x01030004u}, {"255.255.255.255", 0xFFFFFFFFu}};
  for (const auto& c : cases) EXPECT_EQ(PackVersion(c.text), c.packed) << (c.text ? c.text : "null");
}

TEST(SymbolModel, TypeTableFindIsExactBinarySearch) {
  TypeTable empty;
  EXPECT_EQ(empty.Find("A"), nullptr);
  TypeTable table;
  for (const char* name : {"Mytype_b", "MyType", "A", "Zulu", "m"}) {
    auto* t = new TypeSimple();
    t->name = name;
    table.Append(t);
  }
  table.Sort();
  const char* order[] = {"A", "MyType", "Mytype_b", "Zulu", "m"};
  for (int i = 0; i < table.Count(); ++i) EXPECT_EQ(table.Types()[i]->name, order[i]);
  for (const char* name : order) {
    ASSERT_NE(table.Find(name), nullptr) << name;
    EXPECT_EQ(table.Find(name)->name, name);
  }
  EXPECT_EQ(table.Find("Mytype"), nullptr);
  EXPECT_EQ(table.Find("zz"), nullptr);  // behind the last entry
  EXPECT_EQ(table.Find("0"), nullptr);   // before the first
  char* message = nullptr;
  SymbolConfiguration doc(nullptr, nullptr, nullptr);
  EXPECT_EQ(doc.FindType("X", &message), nullptr);
  ASSERT_NE(message, nullptr);
  EXPECT_EQ(std::string(message), Described(ERR_XML_TYPE_DEF_ERROR) + "(X)");
  delete[] message;
}

TEST(XmlDepthScan, MeasuresNestingAsTheParserReadsIt) {
  struct {
    const char* name;
    std::string xml;
    int depth;
    bool refused;
  } cases[] = {
      {"plain", "<a><b/><c><d></d></c></a>", 3, false},
      {"closings inside a quoted value", "<a x=\"</a></a>\"><b><c/></b></a>", 3, false},
      {"openings inside a quoted value", "<a x='<b><b><b>'/>", 1, false},
      {"quote not after =", "<a \"<b>", 1, false},
      {"comment", "<a><!-- <b><c><d> --><e/></a>", 2, false},
      {"cdata", "<a><![CDATA[<b><c></a>]]></a>", 1, false},
      {"declaration", "<?xml version=\"1.0\" encoding=\"utf-8\"?><a><b/></a>", 2, false},
      {"declaration with a quoted >", "<?xml version=\"1>0\"?><a><b/></a>", 2, false},
      {"doctype", "<!DOCTYPE x><a/>", 1, false},
      {"stray closings at top level", "</a></a><b><c/></b>", 2, false},
      {"utf-8 lead byte swallowing a closing", "<?xml version=\"1.0\"?><a>\xC3</a><a></a></a>", 1, true},
      {"same bytes in a legacy encoding", "<?xml version=\"1.0\" encoding=\"GBK\"?><a>\xC3</a><a></a></a>", 1,
       false},
      {"valid utf-8 text", "<?xml version=\"1.0\"?><a>\xE4\xB8\xAD<b x=\"\xC3\xA9\"/></a>", 2, false},
      {"character reference swallowing markup", "<a>&#x<b>x1;</a>", 1, true},
      {"character reference", "<a b=\"&#65;&#x41;\"><c/></a>", 2, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const XmlDepthResult r = ScanXmlDepth(c.xml.data(), c.xml.size());
    EXPECT_EQ(r.refused, c.refused) << r.reason;
    if (!c.refused) {
      EXPECT_EQ(r.maxDepth, c.depth);
    }
  }
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "<a>";
  const XmlDepthResult r = ScanXmlDepth(deep.data(), deep.size());
  EXPECT_EQ(r.maxDepth, kMaxElementDepth + 1);  // stops at the first level too deep
  EXPECT_EQ(r.line, 1);
}

namespace {

int DomDepth(const TiXmlNode* node) {
  int deepest = 0;
  std::vector<std::pair<const TiXmlNode*, int>> stack{{node, 0}};
  while (!stack.empty()) {
    auto [n, depth] = stack.back();
    stack.pop_back();
    for (const TiXmlNode* c = n->FirstChild(); c != nullptr; c = c->NextSibling()) {
      const int d = c->ToElement() != nullptr ? depth + 1 : depth;
      deepest = std::max(deepest, d);
      stack.push_back({c, d});
    }
  }
  return deepest;
}

}  // namespace

// Random markup: the scan must never see a text shallower than the parser
// builds it, also where the parser stops at an error (it keeps what it built).
TEST(XmlDepthScan, NeverUnderestimatesWhatTheParserBuilds) {
  const char* pieces[] = {"<a>", "</a>", "<b/>", "<c x=", "\"", "'", "=", ">", "/>", "<!--", "-->", "<![CDATA[", "]]>",
                          "<?xml version=", "<?xml encoding='latin1'?>", "?>", "&#x", "&#", ";", "41", "\xC3", "\xE4",
                          " ", "x", "<", "</", "<!DOCTYPE ", "&amp;", "\n"};
  std::mt19937 random(20261121);
  int parsed = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    const int length = 1 + static_cast<int>(random() % 40);
    for (int i = 0; i < length; ++i) text += pieces[random() % (sizeof(pieces) / sizeof(pieces[0]))];
    const XmlDepthResult scan = ScanXmlDepth(text.data(), text.size());
    TiXmlDocument document;
    document.Parse(text.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
    if (scan.refused) continue;
    if (!document.Error()) ++parsed;
    EXPECT_GE(scan.maxDepth, DomDepth(&document)) << text;
  }
  EXPECT_GT(parsed, 50);
}
