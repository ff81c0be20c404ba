// The varlok tool as a separate process: exit codes and the exact bytes it
// prints, offline on symbol files and live against a simulated controller.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "TestSystem.h"

namespace {

struct Result {
  int exitCode = -1;
  std::string out, err;
};

std::string readFile(const std::string& path) {
  std::ostringstream s;
  s << std::ifstream(path, std::ios::binary).rdbuf();
  return s.str();
}

// A fresh directory per test: the tool's files and its log land there.
class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    m_dir = testsys::MakeTempDir("varlok-cli-");
    ASSERT_FALSE(m_dir.empty());
  }
  void TearDown() override {
    std::error_code ignored;
    if (!m_dir.empty()) std::filesystem::remove_all(m_dir, ignored);
  }

  std::string path(const std::string& name) const { return m_dir + "/" + name; }

  std::string file(const std::string& name, const std::string& content) const {
    std::ofstream(path(name), std::ios::binary) << content;
    return path(name);
  }

  // Runs exe (varlok unless named) with the arguments in the test's
  // directory, within addressSpace bytes if given; a run that outlives 10 s
  // is killed and fails the test instead of hanging it.
  Result run(const std::vector<std::string>& args, const char* exe = VARLOK_EXE, size_t addressSpace = 0) const {
    Result r;
    const std::string outPath = path(".stdout"), errPath = path(".stderr");
    testsys::ChildOptions options;
    options.workDir = m_dir;
    options.stdoutPath = outPath;
    options.stderrPath = errPath;
    options.env = {{"LC_ALL", "C.UTF-8"}};
    options.addressSpace = addressSpace;
    testsys::Child child;
    if (!child.Start(exe, args, options)) {
      ADD_FAILURE() << "cannot start " << exe;
      return r;
    }
    r.exitCode = child.Wait(10000);
    if (r.exitCode == -1) {
      child.Kill();
      ADD_FAILURE() << "varlok did not end within 10 s";
      return r;
    }
    r.out = testsys::ProgramText(readFile(outPath)), r.err = testsys::ProgramText(readFile(errPath));
    return r;
  }

  std::string m_dir;
};

const char* const kHeader =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<Symbolconfiguration>\n"
    "  <Header><Version>1.0.0.0</Version><ProjectInfo name=\"Demo\"/></Header>\n";

// A small machine: a commented DInt, an array of structures, a UTF-8 name,
// a read-only subrange and an enumeration inside a second group.
std::string smallFile() {
  return std::string(kHeader) +
         "  <TypeList>\n"
         "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
         "    <TypeSimple name=\"T_INT\" size=\"2\" iecname=\"INT\" typeclass=\"Int\"/>\n"
         "    <TypeSimple name=\"T_PCT\" size=\"2\" iecname=\"PCT\" typeclass=\"Subrange\" underlyingtype=\"T_INT\""
         " lowerborder=\"0\" upperborder=\"100\"/>\n"
         "    <TypeUserDef name=\"T_MODE\" size=\"2\" iecname=\"MODE\" typeclass=\"Enum\" basetype=\"T_INT\">\n"
         "      <UserDefElement iecname=\"Off\" type=\"T_INT\" enumvalue=\"0\"/>\n"
         "      <UserDefElement iecname=\"On\" type=\"T_INT\" enumvalue=\"1\"/></TypeUserDef>\n"
         "    <TypeUserDef name=\"T_POINT\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
         "      <UserDefElement iecname=\"x\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
         "      <UserDefElement iecname=\"y\" type=\"T_DINT\" vartype=\"VAR\"/></TypeUserDef>\n"
         "    <TypeArray name=\"T_ARR\" size=\"48\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_POINT\">\n"
         "      <ArrayDim minrange=\"0\" maxrange=\"1\"/><ArrayDim minrange=\"1\" maxrange=\"3\"/></TypeArray>\n"
         "  </TypeList>\n  <NodeList>\n    <Node name=\"App\">\n      <Node name=\"GVL\">\n"
         "        <Node name=\"speed\" type=\"T_DINT\" access=\"ReadWrite\"><Comment>motor speed</Comment></Node>\n"
         "        <Node name=\"grid\" type=\"T_ARR\" access=\"Read\"/>\n"
         "        <Node name=\"\xE6\xB8\xA9\xE5\xBA\xA6\" type=\"T_DINT\" access=\"Write\"/>\n"
         "      </Node>\n      <Node name=\"IO\">\n"
         "        <Node name=\"load\" type=\"T_PCT\" access=\"Read\"/>\n"
         "        <Node name=\"mode\" type=\"T_MODE\" access=\"ReadWrite\"/>\n"
         "      </Node>\n    </Node>\n  </NodeList>\n</Symbolconfiguration>\n";
}

struct Case {
  const char* what;
  std::vector<std::string> args;  // "FILE" stands for the small file
  int exitCode;
  const char* out;
  const char* err;  // a fragment of stderr; empty: stderr must be empty
};

TEST_F(Cli, BrowseAndDescribe) {
  const std::string small = file("small.xml", smallFile());
  const Case cases[] = {
      {"the whole tree", {"browse", "FILE"}, 0,
       "App\n"
       "  GVL\n"
       "    speed  DInt              4   ReadWrite  // motor speed\n"
       "    grid   Array<Structure>  48  Read\n"
       "      .x  DInt  4  Read\n"
       "      .y  DInt  4  Read\n"
       "    \xE6\xB8\xA9\xE5\xBA\xA6     DInt              4   Write\n"
       "  IO\n"
       "    load  Subrange<Int>[0..100]  2  Read\n"
       "    mode  Enum<Int>              2  ReadWrite\n",
       ""},
      {"flat below a tag, options anywhere", {"browse", "FILE", "--flat", "App.GVL.grid"}, 0,
       "App.GVL.grid    Array<Structure>  48  Read\n"
       "App.GVL.grid.x  DInt              4   Read\n"
       "App.GVL.grid.y  DInt              4   Read\n",
       ""},
      {"a prefix is not a tag", {"browse", "FILE", "App.GV"}, 1, "", "varlok browse: no tag 'App.GV'\n"},
      {"line error", {"describe", "0x12000007"}, 0,
       "0x12000007 \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87\xE4\xBB\xB6\xE8\xA1\x8C\xE9\x94\x99\xE8\xAF\xAF"
       "(7 \xE8\xA1\x8C)\n",
       ""},
      {"several codes, hex and decimal", {"describe", "1", "268436483"}, 0,
       "0x00000001 \xE6\x9C\xAA\xE5\xAE\x9A\xE4\xB9\x89\xE9\x94\x99\xE8\xAF\xAF\xE7\xA0\x81(ID:1)\n"
       "0x10000403 \xE6\x97\xA0\xE6\x95\x88\xE7\x9A\x84\xE6\xA0\x87\xE7\xAD\xBE\xE5\x8F\xA5\xE6\x9F\x84\n",
       ""},
      {"words are refused before anything is printed", {"describe", "1", "xyz"}, 2, "", "not a 32-bit code: 'xyz'"},
      {"33 bits", {"describe", "0x1FFFFFFFF"}, 2, "", "not a 32-bit code"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> args = c.args;
    for (std::string& a : args)
      if (a == "FILE") a = small;
    const Result r = run(args);
    EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
    EXPECT_EQ(r.out, c.out);
    if (c.err[0] == '\0') EXPECT_EQ(r.err, "");
    else EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

// A flat listing that runs out of memory tells its failure in UTF-8 like every
// other message, and ends with the failure's exit code rather than a crash.
TEST_F(Cli, FlatListingOutOfMemoryTellsItsFailureInUtf8) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "AddressSanitizer cannot run within an address-space limit";
#endif
  if (!testsys::CanLimitAddressSpace()) GTEST_SKIP() << "no address-space limit for a child here";
  std::string types = "<TypeSimple name=\"T0\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>";
  for (int i = 1; i <= 21; ++i)  // 2^22 tags, within the bound, not within 300 MB
    types += "<TypeUserDef name=\"T" + std::to_string(i) + "\" size=\"4\" iecname=\"S\" typeclass=\"Userdef\" "
             "pouclass=\"STRUCTURE\"><UserDefElement iecname=\"a\" type=\"T" + std::to_string(i - 1) +
             "\"/><UserDefElement iecname=\"b\" type=\"T" + std::to_string(i - 1) + "\"/></TypeUserDef>";
  const std::string big = file("big.xml", "<Symbolconfiguration><Header/><TypeList>" + types +
                                              "</TypeList><NodeList><Node name=\"App\"><Node name=\"GVL\"><Node "
                                              "name=\"v\" type=\"T21\" access=\"Read\"/></Node></Node></NodeList>"
                                              "</Symbolconfiguration>");
  const Result r = run({"browse", "--flat", big}, VARLOK_EXE, size_t{300} << 20);
  EXPECT_EQ(r.exitCode, 1);
  // The library's catch-all code, described by the mask rule as a line error: 符号配置文件行错误(-301989890 行)
  EXPECT_EQ(r.err, "varlok browse: flat list: 0xFFFFFFFE \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87"
                   "\xE4\xBB\xB6\xE8\xA1\x8C\xE9\x94\x99\xE8\xAF\xAF(-301989890 \xE8\xA1\x8C)\n");
}

TEST_F(Cli, BadFilesExitWithTheCodeAndItsText) {
  const std::pair<std::string, const char*> cases[] = {
      // 符号配置文件不是XML文件格式
      {"", "0x10000400 \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87\xE4\xBB\xB6\xE4\xB8\x8D\xE6\x98\xAF"
           "XML\xE6\x96\x87\xE4\xBB\xB6\xE6\xA0\xBC\xE5\xBC\x8F\n"},
      {"<SymbolConfiguration><Header/></SymbolConfiguration>", "0x10000401 "},
      {"<Symbolconfiguration><TypeList/></Symbolconfiguration>", "0x10000402 "},
  };
  for (const auto& c : cases) {
    const std::string p = file("bad.xml", c.first);
    const Result r = run({"browse", p});
    EXPECT_EQ(r.exitCode, 1) << c.second;
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("varlok browse: cannot open '" + p + "': " + c.second), std::string::npos) << r.err;
  }
}

#ifdef VARLOK_SIM_EXE
// A simulated controller on a partition of its own, stopped by its pid.
class LiveCli : public Cli {
 protected:
  void SetUp() override {
    Cli::SetUp();
    m_partition = "varlok-cli-" + std::to_string(testsys::ProcessId());
    testsys::ChildOptions options;
    options.readyPipe = true;
    ASSERT_TRUE(m_sim.Start(VARLOK_SIM_EXE, {"--symbols", DEMO_XML, "--partition", m_partition, "--tcp", "0",
                                             "--log-level", "warn"}, options));
    const std::string text = m_sim.WaitReady(10000);  // "tcp 127.0.0.1:PORT\nready\n"
    ASSERT_NE(text.find("ready\n"), std::string::npos) << "varlok-sim did not start";  // closed without a word if it failed
    m_host = text.substr(4, text.find('\n') - 4);
  }
  void TearDown() override {
    EXPECT_EQ(m_sim.Stop(), 0) << "varlok-sim did not stop cleanly";
    Cli::TearDown();
  }
  Result live(const char* command, std::vector<std::string> words) const {
    words.insert(words.begin(), {command, "--symbols", DEMO_XML, "--partition", m_partition});
    return run(words);
  }

  std::string m_partition, m_host;
  testsys::Child m_sim;
};

TEST_F(LiveCli, OverTcpWithHostTheSameImageAndHelpOfBothTools) {
  const Result w = run({"write", "--symbols", DEMO_XML, "--host", m_host, "App.Types.vDInt=77", "App.GVL.message=tcp"});
  ASSERT_EQ(w.exitCode, 0) << w.err;
  const Result local = live("read", {"App.Types.vDInt", "App.GVL.message"});
  EXPECT_EQ(local.out, "App.Types.vDInt = 77\nApp.GVL.message = 'tcp'\n") << local.err;
  const Result remote = run({"read", "--symbols", DEMO_XML, "--host", m_host, "App.Types.vDInt", "App.GVL.counters"});
  EXPECT_EQ(remote.out, "App.Types.vDInt = 77\nApp.GVL.counters = [0, 0, 0, 0, 0, 0, 0, 0, 0, 0]\n") << remote.err;
  const Result refused = run({"read", "--symbols", DEMO_XML, "--host", "127.0.0.1:1", "App.Types.vDInt"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_NE(refused.err.find("varlok read: ConnectToPlcDevice: 0x10000103"), std::string::npos) << refused.err;
  const Result help = run({"--help"});
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_NE(help.out.find("--host HOST[:PORT]"), std::string::npos);
  const Result simHelp = run({"--help"}, VARLOK_SIM_EXE);
  EXPECT_EQ(simHelp.exitCode, 0);
  EXPECT_EQ(simHelp.out.rfind("usage: varlok-sim --symbols FILE", 0), 0u) << simHelp.out;
  EXPECT_NE(simHelp.out.find("--tcp [ADDR:]PORT"), std::string::npos);
}

TEST_F(LiveCli, WriteThenReadBackDecodedByType) {
  const Result w = live("write", {"App.Types.vDInt=-42", "App.Types.vReal=1.5", "App.Types.vLInt=-5000000000",
                                  "App.GVL.message=hello", "App.Types.vWord=65535"});
  ASSERT_EQ(w.exitCode, 0) << w.err;
  EXPECT_EQ(w.out, "");
  const Result r = live("read", {"App.Types.vDInt", "App.Types.vReal", "App.Types.vLInt", "App.GVL.message",
                                 "App.Types.vWord"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out,
            "App.Types.vDInt = -42\nApp.Types.vReal = 1.5\nApp.Types.vLInt = -5000000000\n"
            "App.GVL.message = 'hello'\nApp.Types.vWord = 65535\n");
}

TEST_F(LiveCli, WatchRedrawsInPlace) {
  const Result r = live("watch", {"--interval", "20", "--count", "3", "App.Types.vDInt", "App.GVL.counters"});
  ASSERT_EQ(r.exitCode, 0) << r.err;
  // After the first drawing, the cursor goes up over the three lines before each redraw.
  size_t ups = 0;
  for (size_t at = r.out.find("\033[3A"); at != std::string::npos; at = r.out.find("\033[3A", at + 1)) ++ups;
  EXPECT_EQ(ups, 2u) << r.out;
  EXPECT_NE(r.out.find("\033[KApp.Types.vDInt = "), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("\033[Kread #3, round trip "), std::string::npos) << r.out;
}
#endif

}  // namespace
