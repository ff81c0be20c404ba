// The varlok tool as a separate process: exit codes, the exact bytes it
// prints, and its refusals of bad files and bad arguments.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "QorVarlok/ZelVarlok.h"

namespace {

struct Result {
  int exitCode = -1;
  std::string out;
  std::string err;
};

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
}

// A fresh directory per test: the tool's files and its log land there.
class Cli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/varlok-cli-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_dir = pattern;
  }
  void TearDown() override {
    if (!m_dir.empty()) std::system(("rm -rf '" + m_dir + "'").c_str());
  }

  std::string path(const std::string& name) const { return m_dir + "/" + name; }

  std::string file(const std::string& name, const std::string& content) const {
    writeFile(path(name), content);
    return path(name);
  }

  // Runs varlok with the arguments in the test's directory; a run that
  // outlives 10 s is killed and fails the test instead of hanging it.
  Result run(const std::vector<std::string>& args, const char* locale = "C.UTF-8") const {
    Result r;
    const std::string outPath = path(".stdout"), errPath = path(".stderr");
    const pid_t pid = ::fork();
    if (pid == 0) {
      if (::chdir(m_dir.c_str()) != 0) ::_exit(126);
      const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      const int err = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out < 0 || err < 0) ::_exit(126);
      ::dup2(out, 1);
      ::dup2(err, 2);
      ::setenv("LC_ALL", locale, 1);
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(VARLOK_EXE));
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      ::execv(VARLOK_EXE, argv.data());
      ::_exit(127);
    }
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (::waitpid(pid, &status, WNOHANG) == 0) {
      if (std::chrono::steady_clock::now() > deadline) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &status, 0);
        ADD_FAILURE() << "varlok did not end within 10 s";
        return r;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = readFile(outPath);
    r.err = readFile(errPath);
    return r;
  }

  std::string m_dir;
};

const char* const kHeader =
    "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
    "<Symbolconfiguration>\n"
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
         "      <UserDefElement iecname=\"On\" type=\"T_INT\" enumvalue=\"1\"/>\n"
         "    </TypeUserDef>\n"
         "    <TypeUserDef name=\"T_POINT\" size=\"8\" iecname=\"POINT\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\">\n"
         "      <UserDefElement iecname=\"x\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
         "      <UserDefElement iecname=\"y\" type=\"T_DINT\" vartype=\"VAR\"/>\n"
         "    </TypeUserDef>\n"
         "    <TypeArray name=\"T_ARR\" size=\"48\" iecname=\"ARRAY\" typeclass=\"Array\" basetype=\"T_POINT\">\n"
         "      <ArrayDim minrange=\"0\" maxrange=\"1\"/><ArrayDim minrange=\"1\" maxrange=\"3\"/>\n"
         "    </TypeArray>\n"
         "  </TypeList>\n"
         "  <NodeList>\n"
         "    <Node name=\"App\">\n"
         "      <Node name=\"GVL\">\n"
         "        <Node name=\"speed\" type=\"T_DINT\" access=\"ReadWrite\"><Comment>motor speed</Comment></Node>\n"
         "        <Node name=\"grid\" type=\"T_ARR\" access=\"Read\"/>\n"
         "        <Node name=\"\xE6\xB8\xA9\xE5\xBA\xA6\" type=\"T_DINT\" access=\"Write\"/>\n"
         "      </Node>\n"
         "      <Node name=\"IO\">\n"
         "        <Node name=\"load\" type=\"T_PCT\" access=\"Read\"/>\n"
         "        <Node name=\"mode\" type=\"T_MODE\" access=\"ReadWrite\"/>\n"
         "      </Node>\n"
         "    </Node>\n"
         "  </NodeList>\n"
         "</Symbolconfiguration>\n";
}

struct Case {
  const char* what;
  std::vector<std::string> args;  // "FILE" stands for the small file
  int exitCode;
  const char* out;
  const char* err;  // a fragment of stderr; empty: stderr must be empty
};

void expectCase(const Case& c, const Result& r) {
  SCOPED_TRACE(c.what);
  EXPECT_EQ(r.exitCode, c.exitCode) << r.err;
  EXPECT_EQ(r.out, c.out);
  if (c.err[0] == '\0') {
    EXPECT_EQ(r.err, "");
  } else {
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
  }
}

TEST_F(Cli, BrowseTheSmallFile) {
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
      {"the flat list", {"browse", "--flat", "FILE"}, 0,
       "App.GVL.speed   DInt                   4   ReadWrite  // motor speed\n"
       "App.GVL.grid    Array<Structure>       48  Read\n"
       "App.GVL.grid.x  DInt                   4   Read\n"
       "App.GVL.grid.y  DInt                   4   Read\n"
       "App.GVL.\xE6\xB8\xA9\xE5\xBA\xA6      DInt                   4   Write\n"
       "App.IO.load     Subrange<Int>[0..100]  2   Read\n"
       "App.IO.mode     Enum<Int>              2   ReadWrite\n",
       ""},
      {"below a group", {"browse", "FILE", "App.IO"}, 0,
       "load  Subrange<Int>[0..100]  2  Read\n"
       "mode  Enum<Int>              2  ReadWrite\n",
       ""},
      {"below an array of structures", {"browse", "FILE", "App.GVL.grid"}, 0,
       ".x  DInt  4  Read\n"
       ".y  DInt  4  Read\n",
       ""},
      {"a leaf shows itself", {"browse", "FILE", "App.GVL.speed"}, 0,
       "App.GVL.speed  DInt  4  ReadWrite  // motor speed\n", ""},
      {"an enumeration has no members as tags", {"browse", "FILE", "App.IO.mode"}, 0,
       "App.IO.mode  Enum<Int>  2  ReadWrite\n", ""},
      {"flat below a tag, options anywhere", {"browse", "FILE", "--flat", "App.GVL.grid"}, 0,
       "App.GVL.grid    Array<Structure>  48  Read\n"
       "App.GVL.grid.x  DInt              4   Read\n"
       "App.GVL.grid.y  DInt              4   Read\n",
       ""},
      {"a prefix is not a tag", {"browse", "FILE", "App.GV"}, 1, "", "varlok browse: no tag 'App.GV'\n"},
      {"unknown tag", {"browse", "FILE", "App.GVL.nothing"}, 1, "", "varlok browse: no tag 'App.GVL.nothing'\n"},
      {"unknown tag, flat", {"browse", "--flat", "FILE", "App.X"}, 1, "", "varlok browse: no tag 'App.X'\n"},
      {"member of a leaf", {"browse", "FILE", "App.GVL.speed.x"}, 1, "", "no tag 'App.GVL.speed.x'"},
  };
  for (const Case& c : cases) {
    std::vector<std::string> args = c.args;
    for (std::string& a : args)
      if (a == "FILE") a = small;
    expectCase(c, run(args));
  }
}

TEST_F(Cli, BadFilesExitWithTheCodeAndItsText) {
  struct FileCase {
    const char* what;
    std::string content;  // empty name below: no file at all
    const char* message;
  };
  const std::string types = "  <TypeList>\n    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
  const FileCase cases[] = {
      {"empty", "", "0x10000400 \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87\xE4\xBB\xB6\xE4\xB8\x8D\xE6\x98\xAF"
                    "XML\xE6\x96\x87\xE4\xBB\xB6\xE6\xA0\xBC\xE5\xBC\x8F\n"},
      {"malformed", "<Symbolconfiguration><Header>", "0x10000400 "},
      {"no root mark", "<SymbolConfiguration><Header/></SymbolConfiguration>", "0x10000401 "},
      {"no header", "<Symbolconfiguration><TypeList/></Symbolconfiguration>", "0x10000402 "},
      {"unknown type element on line 6",
       std::string(kHeader) + types + "    <TypeBogus name=\"X\" size=\"4\" iecname=\"X\" typeclass=\"DInt\"/>\n"
                                      "  </TypeList>\n</Symbolconfiguration>\n",
       // 符号配置文件行错误(6 行)
       "0x12000006 \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87\xE4\xBB\xB6\xE8\xA1\x8C\xE9\x94\x99\xE8\xAF\xAF(6 "
       "\xE8\xA1\x8C)\n"},
      {"variable of an unknown type",
       std::string(kHeader) + types + "  </TypeList>\n  <NodeList><Node name=\"App\"><Node name=\"GVL\">"
                                      "<Node name=\"v\" type=\"T_NONE\" access=\"Read\"/></Node></Node></NodeList>\n"
                                      "</Symbolconfiguration>\n",
       "0x10000410 "},
  };
  for (const FileCase& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string p = file("bad.xml", c.content);
    const Result r = run({"browse", p});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("varlok browse: cannot open '" + p + "': " + c.message), std::string::npos) << r.err;
  }
  const Result missing = run({"browse", path("missing.xml")});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.err.find("cannot open '" + path("missing.xml") + "': 0x10000400 "), std::string::npos) << missing.err;
}

TEST_F(Cli, ATypeThatContainsItselfIsNotExpandedForEver) {
  const std::string p = file("self.xml", std::string(kHeader) +
                                             "  <TypeList>\n"
                                             "    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n"
                                             "    <TypeUserDef name=\"T_SELF\" size=\"8\" iecname=\"SELF\" typeclass=\"Userdef\""
                                             " pouclass=\"STRUCTURE\">\n"
                                             "      <UserDefElement iecname=\"n\" type=\"T_DINT\"/>\n"
                                             "      <UserDefElement iecname=\"next\" type=\"T_SELF\"/>\n"
                                             "    </TypeUserDef>\n"
                                             "  </TypeList>\n"
                                             "  <NodeList><Node name=\"App\"><Node name=\"GVL\">"
                                             "<Node name=\"chain\" type=\"T_SELF\" access=\"Read\"/></Node></Node></NodeList>\n"
                                             "</Symbolconfiguration>\n");
  const Result r = run({"browse", p});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out,
            "App\n  GVL\n    chain  Structure  8  Read\n      n     DInt       4  Read\n      next  Structure  8  Read\n");
}

TEST_F(Cli, TheWalkStopsAtItsDepthLimit) {
  // 70 structures, each holding the next: deeper than any machine, and the
  // walk must end with an error rather than recurse without bound.
  std::string types = "  <TypeList>\n    <TypeSimple name=\"T_DINT\" size=\"4\" iecname=\"DINT\" typeclass=\"DInt\"/>\n";
  for (int i = 0; i < 70; ++i) {
    const std::string inner = i == 69 ? "T_DINT" : "T_S" + std::to_string(i + 1);
    types += "    <TypeUserDef name=\"T_S" + std::to_string(i) + "\" size=\"4\" iecname=\"S" + std::to_string(i) +
             "\" typeclass=\"Userdef\" pouclass=\"STRUCTURE\"><UserDefElement iecname=\"m\" type=\"" + inner +
             "\"/></TypeUserDef>\n";
  }
  const std::string p = file("deep.xml", std::string(kHeader) + types +
                                             "  </TypeList>\n  <NodeList><Node name=\"App\"><Node name=\"GVL\">"
                                             "<Node name=\"d\" type=\"T_S0\" access=\"Read\"/></Node></Node></NodeList>\n"
                                             "</Symbolconfiguration>\n");
  const Result r = run({"browse", p});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.err, "varlok browse: the tree is deeper than 64 levels; a type may contain itself\n");
  EXPECT_EQ(r.out.rfind("App\n  GVL\n    d  Structure  4  Read\n      m  Structure  4  Read\n", 0), 0u) << r.out;
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 64);
}

TEST_F(Cli, NonAsciiPathInAUtf8Locale) {
  const std::string p = file("\xE7\xAC\xA6\xE5\x8F\xB7.xml", smallFile());
  const Result r = run({"browse", p, "App.IO"});
  EXPECT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(r.out.rfind("load", 0), 0u) << r.out;
}

TEST_F(Cli, DescribeCodes) {
  const Case cases[] = {
      {"success", {"describe", "0"}, 0, "0x00000000 \xE6\x97\xA0\xE9\x94\x99\xE8\xAF\xAF\n", ""},
      {"hex", {"describe", "0x10000403"}, 0,
       "0x10000403 \xE6\x97\xA0\xE6\x95\x88\xE7\x9A\x84\xE6\xA0\x87\xE7\xAD\xBE\xE5\x8F\xA5\xE6\x9F\x84\n", ""},
      {"decimal", {"describe", "268436483"}, 0,
       "0x10000403 \xE6\x97\xA0\xE6\x95\x88\xE7\x9A\x84\xE6\xA0\x87\xE7\xAD\xBE\xE5\x8F\xA5\xE6\x9F\x84\n", ""},
      {"upper-case prefix, unknown code", {"describe", "0X1000010a"}, 0,
       "0x1000010A \xE6\x9C\xAA\xE5\xAE\x9A\xE4\xB9\x89\xE9\x94\x99\xE8\xAF\xAF\xE7\xA0\x81(ID:1000010a)\n", ""},
      {"line error", {"describe", "0x12000007"}, 0,
       "0x12000007 \xE7\xAC\xA6\xE5\x8F\xB7\xE9\x85\x8D\xE7\xBD\xAE\xE6\x96\x87\xE4\xBB\xB6\xE8\xA1\x8C\xE9\x94\x99\xE8\xAF\xAF"
       "(7 \xE8\xA1\x8C)\n",
       ""},
      {"several codes, one line each", {"describe", "1", "0x10000104"}, 0,
       "0x00000001 \xE6\x9C\xAA\xE5\xAE\x9A\xE4\xB9\x89\xE9\x94\x99\xE8\xAF\xAF\xE7\xA0\x81(ID:1)\n"
       "0x10000104 \xE9\x80\x9A\xE4\xBF\xA1\xE8\xBF\x9E\xE6\x8E\xA5\xE6\x96\xAD\xE5\xBC\x80,"
       "\xE9\x9C\x80\xE9\x87\x8D\xE6\x96\xB0\xE5\xBB\xBA\xE7\xAB\x8B\xE8\xBF\x9E\xE6\x8E\xA5\n",
       ""},
      {"no code", {"describe"}, 2, "", "give at least one code"},
      {"words are refused before anything is printed", {"describe", "1", "xyz"}, 2, "", "not a 32-bit code: 'xyz'"},
      {"negative", {"describe", "-1"}, 2, "", "not a 32-bit code: '-1'"},
      {"sign", {"describe", "+5"}, 2, "", "not a 32-bit code: '+5'"},
      {"blank", {"describe", " 5"}, 2, "", "not a 32-bit code"},
      {"prefix alone", {"describe", "0x"}, 2, "", "not a 32-bit code: '0x'"},
      {"33 bits", {"describe", "0x1FFFFFFFF"}, 2, "", "not a 32-bit code"},
      {"33 bits decimal", {"describe", "4294967296"}, 2, "", "not a 32-bit code"},
      {"trailing garbage", {"describe", "12abc"}, 2, "", "not a 32-bit code"},
      {"empty", {"describe", ""}, 2, "", "not a 32-bit code"},
  };
  for (const Case& c : cases) expectCase(c, run(c.args));
}

TEST_F(Cli, CommandLineMistakes) {
  const std::string small = file("small.xml", smallFile());
  const Case cases[] = {
      {"no command", {}, 2, "", "usage: varlok"},
      {"unknown command", {"brows"}, 2, "", "varlok: unknown command 'brows'"},
      {"browse without a file", {"browse"}, 2, "", "usage: varlok browse"},
      {"browse with too many words", {"browse", small, "A", "B"}, 2, "", "usage: varlok browse"},
      {"unknown option", {"browse", "--tree", small}, 2, "", "unknown option '--tree'"},
  };
  for (const Case& c : cases) expectCase(c, run(c.args));
  const Result version = run({"version"});
  EXPECT_EQ(version.exitCode, 0);
  EXPECT_EQ(version.out, std::string(GetVarlokVersionInfo()) + "\n");
}

TEST_F(Cli, LogsUnderTheCurrentDirectory) {
  run({"browse", path("missing.xml")});
  EXPECT_EQ(::access(path("varloklogs/varlok/Varlok.log").c_str(), F_OK), 0);
}

TEST_F(Cli, NoControllerOnThePartition) {
  const Result r = run({"read", "--symbols", DEMO_XML, "--partition", "varlok-cli-nobody", "App.Types.vDInt"});
  EXPECT_EQ(r.exitCode, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "varlok read: InitializeCom: 0x10000109 \xE6\x9C\xAA\xE5\xAE\x9A\xE4\xB9\x89\xE9\x94\x99\xE8\xAF\xAF"
                   "\xE7\xA0\x81(ID:10000109)\n");
}

#ifdef VARLOK_SIM_EXE
// A simulated controller on a partition of its own, stopped by its pid.
class LiveCli : public Cli {
 protected:
  void SetUp() override {
    Cli::SetUp();
    m_partition = "varlok-cli-" + std::to_string(::getpid());
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    m_sim = ::fork();
    if (m_sim == 0) {
      ::close(fds[0]);
      const std::string fd = std::to_string(fds[1]);
      ::execl(VARLOK_SIM_EXE, VARLOK_SIM_EXE, "--symbols", DEMO_XML, "--partition", m_partition.c_str(), "--ready-fd",
              fd.c_str(), "--log-level", "warn", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(fds[1]);
    char ready[8] = {0};
    const bool served = ::read(fds[0], ready, sizeof(ready) - 1) > 0;  // closed without a word if it failed
    ::close(fds[0]);
    ASSERT_TRUE(served) << "varlok-sim did not start";
  }
  void TearDown() override {
    if (m_sim > 0) {
      ::kill(m_sim, SIGTERM);
      ::waitpid(m_sim, nullptr, 0);
    }
    Cli::TearDown();
  }
  Result live(const char* command, std::vector<std::string> words) const {
    words.insert(words.begin(), {command, "--symbols", DEMO_XML, "--partition", m_partition});
    return run(words);
  }

  std::string m_partition;
  pid_t m_sim = -1;
};

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

TEST_F(LiveCli, WholeArraysAndStructuresMoveAsBytes) {
  const Result w = live("write", {"App.GVL.counters=0x0100000002000000030000000400000005000000"
                                  "06000000070000000800000009000000ffffffff"});
  ASSERT_EQ(w.exitCode, 0) << w.err;
  const Result r = live("read", {"App.GVL.counters"});
  EXPECT_EQ(r.out, "App.GVL.counters = [1, 2, 3, 4, 5, 6, 7, 8, 9, -1]\n") << r.err;

  const Result shortWrite = live("write", {"App.GVL.counters=01 00"});
  EXPECT_EQ(shortWrite.exitCode, 1);
  EXPECT_EQ(shortWrite.err, "varlok write: App.GVL.counters takes 40 bytes, not 2\n");
  const Result after = live("read", {"App.GVL.counters"});
  EXPECT_EQ(after.out, "App.GVL.counters = [1, 2, 3, 4, 5, 6, 7, 8, 9, -1]\n") << "a refused write changed the values";
}

TEST_F(LiveCli, RefusalsCarryTheCodeAndItsText) {
  const Result unknown = live("read", {"App.GVL.nothing"});
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_EQ(unknown.err.rfind("varlok read: CreateTagsHandle: 0x10000501 ", 0), 0u) << unknown.err;
  const Result structs = live("read", {"App.GVL.grid"});
  EXPECT_EQ(structs.exitCode, 1);
  EXPECT_EQ(structs.err, "varlok read: App.GVL.grid: arrays of Structure are not moved whole; name their members\n");
  const Result pair = live("write", {"App.Types.vDInt"});
  EXPECT_EQ(pair.exitCode, 2);
  EXPECT_EQ(pair.err, "varlok write: not TAG=VALUE: 'App.Types.vDInt'\n");
  const Result noSymbols = run({"read", "App.Types.vDInt"});
  EXPECT_EQ(noSymbols.exitCode, 2);
  EXPECT_NE(noSymbols.err.find("usage: varlok read --symbols FILE"), std::string::npos);
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
