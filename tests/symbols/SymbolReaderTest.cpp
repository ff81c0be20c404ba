// The reader: every failure with its code, line, message and log line, and the
// nesting check that runs before the parser.
#include <gtest/gtest.h>
#include <tinyxml.h>

#include <algorithm>
#include <iterator>
#include <memory>
#include <random>

#include "SymbolTestFiles.h"
#include "XmlDepthScan.h"

using namespace qorvarlok::symbols;
using symtest::Document;

namespace {

const std::string kDInt = "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
const char* kVar = "        <Node name=\"v\" type=\"T_DINT\" access=\"Read\"/>\n";

std::string Deep(int levels) {
  std::string xml;
  for (int i = 0; i < levels; ++i) xml = "<a>" + xml + "</a>";
  return symtest::kHeader + xml + "</Symbolconfiguration>\n";
}

struct FailureCase {
  std::string xml;          // "<missing>": no file; "<directory>": a directory
  unsigned int code;        // with lineMarker, the line of its first occurrence is added
  const char* lineMarker;
  std::string messageTail;  // after the description; "(" alone: any parser text follows
  std::string logLine;      // exact, or else logFragment
  std::string logFragment;
};

TEST(SymbolReader, EveryFailureHasItsCodeLineMessageAndLogLine) {
  const unsigned int F = ERR_XML_ILLEGL_XML_FORMAT, L = ERR_XML_LINE_ERROR, T = ERR_XML_TYPE_DEF_ERROR;
  const std::string header = symtest::kHeader, load = "cannot load the symbol file: ";
  auto types = [](const std::string& t) { return Document(kDInt + "    " + t + "\n", kVar); };
  auto vars = [](const std::string& v) { return Document(kDInt, "        " + v + "\n"); };
  const std::vector<FailureCase> cases = {
      {"<missing>", F, nullptr, "(Failed to open file)", "", load + "Failed to open file"},
      {"<directory>", F, nullptr, "(Not a regular file)", load + "Not a regular file", ""},
      {"", F, nullptr, "(Error document empty.)", "", load + "Error document empty."},
      {header.substr(0, header.size() - 20), F, nullptr, "(", "", load},  // truncated
      {"<SymbolConfiguration><Header/></SymbolConfiguration>\n", ERR_XML_NO_SYMB_MARK, nullptr, "",
       "the symbol file has no Symbolconfiguration element", ""},
      {"<Symbolconfiguration>\n<TypeList/>\n</Symbolconfiguration>\n", ERR_XML_NO_HEADER, nullptr, "",
       "the symbol file has no Header element", ""},
      {types(R"(<TypeOdd name="X" size="1" iecname="X" typeclass="Bool"/>)"), L, "TypeOdd", "", "",
       "unknown type element TypeOdd"},
      {types(R"(<TypeSimple name="T_X" iecname="X" typeclass="DInt"/>)"), L, "T_X", "", "",
       "needs name, size, iecname and typeclass"},
      {types(R"(<TypeSimple name="T_X" size="4" iecname="X" typeclass="DINT"/>)"), L, "T_X", "", "",
       "type T_X has the unknown type class DINT"},
      {types(R"(<TypeUserDef name="U" size="4" iecname="U" typeclass="Userdef" pouclass="PROGRAM"/>)"), L, "PROGRAM",
       "", "", "unknown type class Userdef"},
      {types(R"(<TypeSimple name="SR" size="4" iecname="SR" typeclass="Subrange" underlyingtype="T_DINT")"
             R"( lowerborder="0"/>)"), L, "\"SR\"", "", "", "subrange SR needs underlyingtype"},
      {types("<TypeArray name=\"A\" size=\"4\" iecname=\"A\" typeclass=\"Array\">\n<D minrange=\"0\" maxrange=\"0\"/>"
             "</TypeArray>"), L, "TypeArray", "", "", "array A needs a basetype and at least one dimension"},
      {types(R"(<TypeArray name="A" size="4" iecname="A" typeclass="Array" basetype="T_DINT"/>)"), L, "TypeArray", "",
       "", "array A needs a basetype and at least one dimension"},
      {types("<TypeArray name=\"A\" size=\"8\" iecname=\"A\" typeclass=\"Array\" basetype=\"T_DINT\">\n"
             "<D minrange=\"0\" maxrange=\"1\"/>\n<D minrange=\"0\" MARK=\"1\"/></TypeArray>"),
       L, "MARK", "", "", "array dimension needs minrange and maxrange"},
      {types("<TypeUserDef name=\"S\" size=\"4\" iecname=\"S\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
             "<UserDefElement iecname=\"m\"/></TypeUserDef>"), L, "\"m\"", "", "",
       "member of S needs iecname and type"},
      {vars(std::string(kVar) + R"(<Node name="bad" type="T_DINT"/>)"), L, "\"GVL\"", "", "",
       "needs name, type and access"},  // reported at its group's line
      {vars(R"(<Node><Node><Node name="v" type="T_DINT" access="Read"/></Node></Node>)"), L, "<Node><Node>", "", "",
       "node without a name"},
      {header + "  <NodeList>\n    <Node>\n    </Node>\n  </NodeList>\n</Symbolconfiguration>\n", L, "<Node>", "", "",
       "top node without a name"},
      {vars(R"(<Node name="v" type="T_NOPE" access="Read"/>)"), T, nullptr, "(T_NOPE)",
       "type T_NOPE of variable v is not defined", ""},
      {vars(R"(<Node name="r" type="T_NOPE" access="Read" referencetype=""/>)"), T, nullptr, "(T_NOPE)",
       "type T_NOPE of variable r is not defined", ""},
      {Document(R"(<TypeSimple name="SR" size="4" iecname="SR" typeclass="Subrange" underlyingtype="T_GONE" )"
                R"(lowerborder="0" upperborder="9"/>)", R"(<Node name="s" type="SR" access="Read"/>)"),
       T, nullptr, "(T_GONE)", "base type of s (SR) is not defined", ""},
      {Deep(kMaxElementDepth + 5), F, nullptr, "(", "",
       "refused before parsing: Elements nested deeper than 128 levels at line 8"},
  };
  auto& log = qvtest::Log();
  symtest::TempDir dir;
  for (const FailureCase& c : cases) {
    SCOPED_TRACE(c.logLine + c.logFragment);
    log.Clear();
    const std::string path = c.xml == "<missing>"     ? dir.Path("absent.xml")
                             : c.xml == "<directory>" ? dir.Path("")
                                                      : dir.Write("case.xml", c.xml);
    unsigned int code = 0;
    EXPECT_EQ(ReadSymbolConfig(symtest::Wide(path), &code), nullptr);
    unsigned int expected = c.code;
    if (c.lineMarker != nullptr) {
      const size_t at = c.xml.find(c.lineMarker);
      ASSERT_NE(at, std::string::npos);
      expected |= static_cast<unsigned int>(1 + std::count(c.xml.begin(), c.xml.begin() + at, '\n'));
    }
    EXPECT_EQ(code, expected) << std::hex << code;
    const std::string message = ReadErrorDescription(expected) + c.messageTail;  // "(": a prefix only
    EXPECT_EQ(c.messageTail == "(" ? LastParseMessage().substr(0, message.size()) : LastParseMessage(), message);
    if (!c.logLine.empty()) EXPECT_EQ(log.CountOf(spdlog::level::err, c.logLine), 1u) << c.logLine;
    else EXPECT_TRUE(log.Contains(c.logFragment)) << c.logFragment;
  }
  ASSERT_NE(symtest::Read(dir.Write("ok.xml", symtest::SmallFile())), nullptr);
  EXPECT_TRUE(LastParseMessage().empty()) << "a good reading clears it";
}

// Engineering tools on Chinese systems write GBK names into files declared
// UTF-8. What the parser reads passes unchanged; what it cannot read fails
// with the parser's own words, never the nesting check's.
TEST(SymbolReader, GbkBytesInAFileDeclaredUtf8AreTheParsersToJudge) {
  const std::string motor = "\xB5\xE7\xBB\xFA", hello = "\xC4\xE3\xBA\xC3";  // GBK for "motor" and "hello"
  auto file = [](const std::string& name) {
    return Document(kDInt, "<!--" + name + "-->\n<Node name=\"" + name + "\" type=\"T_DINT\" access=\"Read\">"
                    "<Comment>" + name + "</Comment></Node>\n");
  };
  symtest::TempDir dir;
  const auto opened = symtest::Read(dir.Write("gbk.xml", file(motor)));
  ASSERT_NE(opened, nullptr) << LastParseMessage();
  tagTagDesc* all = nullptr;
  unsigned int count = 0;
  ASSERT_EQ(GetAllTagsDescription(opened.get(), &all, &count), 0u);
  ASSERT_EQ(count, 1u);
  EXPECT_EQ(std::make_pair(std::string(all[0].FullName), std::string(all[0].Comment)),
            std::make_pair("App.GVL." + motor, motor));
  // The last byte of "hello" is a UTF-8 lead that takes the closing quote along: the parser fails.
  unsigned int code = 0;
  TiXmlDocument parser;
  parser.Parse(file(hello).c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
  ASSERT_TRUE(parser.Error());
  EXPECT_EQ(symtest::Read(dir.Write("gbk.xml", file(hello)), &code), nullptr);
  EXPECT_EQ(code, ERR_XML_ILLEGL_XML_FORMAT);
  EXPECT_EQ(LastParseMessage(), ReadErrorDescription(code) + std::string("(") + parser.ErrorDesc() + ")");
}

TEST(XmlDepthScan, MeasuresNestingAsTheParserReadsIt) {
  const std::vector<std::tuple<std::string, int, bool>> cases = {  // text, depth, refused
      {"<a><b/><c><d></d></c></a>", 3, false}, {"<a x=\"</a></a>\"><b><c/></b></a>", 3, false},
      {"<a x='<b><b><b>'/>", 1, false}, {"<a \"<b>", 1, false} /* a quote not after = opens nothing */,
      {"<a><!-- <b><c><d> --><e/></a>", 2, false}, {"<a><![CDATA[<b><c></a>]]></a>", 1, false},
      {"<?xml version=\"1>0\"?><a><b/></a>", 2, false}, {"<!DOCTYPE x><a/>", 1, false},
      {"</a></a><b><c/></b>", 2, false},  // stray closings at top level
      {"<a/>text<b><c/></b>", 1, false},  // text at the top level ends the document
      {"<a><b x=1 x=2/><c><d/></c></a>", 2, false},  // the parser gives up at the second x, and so does the scan
      // In UTF-8 a lead byte takes its followers whatever they are, a closing included, as the parser reads it.
      {"<?xml version=\"1.0\"?><a>\xC3</a><a></a></a>", 2, false},
      {"<?xml version=\"1.0\" encoding=\"GBK\"?><a>\xC3</a><a></a></a>", 1, false},
      {"<?xml version=\"1.0\"?><a>\xE4\xB8\xAD<b x=\"\xC3\xA9\"/></a>", 2, false},
      {"<?xml version=\"1.0\"?><a><!--\xB5\xE7\xBB\xFA--><b/></a>", 2, false},  // comments go byte by byte
      {"\xEF\xBB\xBF<\xEF\xBB\xBF a><b/></a>", 2, false},  // a byte order mark is white space in UTF-8
      {"<a>&#x<b>x1;</a>", 1, false},                           // a reference runs to its ';', over markup
      {"<a b=\"&#65;&#x41;\"><c/></a>", 2, false},
      {"<a>\r\n<b>\r<c/></b></a>", 3, false},
      {"<?xml version=\"1.0\"?><a>\xE4\xB8", 1, true},  // the parser would step past the end of its buffer
  };
  for (const auto& [xml, depth, refused] : cases) {
    const XmlDepthResult r = ScanXmlDepth(xml);
    EXPECT_EQ(std::make_pair(r.maxDepth, r.refused), std::make_pair(depth, refused)) << xml.substr(0, 60) << r.reason;
  }
  const std::string deep = [] { std::string s; for (int i = 0; i < 100000; ++i) s += "<a>"; return s; }();
  const XmlDepthResult r = ScanXmlDepth(deep);
  EXPECT_EQ(r.maxDepth, kMaxElementDepth + 1);  // stops at the first level too deep
  EXPECT_EQ(r.line, 1);
}

int DomDepth(const TiXmlNode* node) {
  int deepest = 0;
  for (const TiXmlNode* c = node->FirstChild(); c != nullptr; c = c->NextSibling())
    deepest = std::max(deepest, (c->ToElement() != nullptr ? 1 : 0) + DomDepth(c));
  return deepest;
}

// Random markup: the scan reaches exactly as deep as the parser builds, also
// where the parser stops at an error (it keeps what it built). The fuzz target
// fuzz_xmldepth checks the same much further.
TEST(XmlDepthScan, AgreesWithTheParserOnRandomMarkup) {
  const char* pieces[] = {"<a>", "</a>", "<b/>", "<c x=", "\"", "'", "=", ">", "/>", "<!--", "-->", "<![CDATA[", "]]>",
                          "<?xml version=", "<?xml encoding='latin1'?>", "?>", "&#x", "&#", ";", "41", "\xC3", "\xE4",
                          " ", "x", "<", "</", "<!DOCTYPE ", "&amp;", "\n", "\xBB\xFA", "\xEF\xBB\xBF"};
  std::mt19937 random(20261121);
  int parsed = 0;
  for (int round = 0; round < 20000; ++round) {
    std::string text;
    for (int i = 0, n = 1 + static_cast<int>(random() % 40); i < n; ++i) text += pieces[random() % std::size(pieces)];
    const XmlDepthResult scan = ScanXmlDepth(text, 1 << 20);
    if (scan.refused) continue;  // the parser would read past the end of the text
    TiXmlDocument document;
    document.Parse(text.c_str(), nullptr, TIXML_ENCODING_UNKNOWN);
    parsed += !document.Error();
    EXPECT_EQ(scan.maxDepth, DomDepth(&document)) << text;
  }
  EXPECT_GT(parsed, 50);
}

}  // namespace
