// varlok: browse a controller's symbol file, explain the library's codes, and
// read, write and watch the tags of a running controller.
#include <QorVarlok/ZelVarlok.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <new>

#include "Commands.h"
#include "TextConv.h"

namespace {

void printUsage(std::FILE* out) {
  std::fprintf(out,
               "usage: varlok COMMAND [ARGS]\n"
               "\n"
               "  browse [--flat] FILE [TAG]  the tags of a symbol file: a tree, indented one level\n"
               "                              per step, each tag with type, size and access;\n"
               "                              TAG starts below that tag; --flat prints full names\n"
               "  describe CODE...            the text of an error code (hex 0x... or decimal)\n"
               "\n"
               "  against a running controller: on this machine through shared memory (--partition\n"
               "  selects one), or over TCP with --host HOST[:PORT] (default port 4850; the token,\n"
               "  if the controller asks for one, from the environment variable VARLOK_TCP_TOKEN):\n"
               "  read  --symbols FILE TAG...          one read of the tags, values decoded by type\n"
               "  write --symbols FILE TAG=VALUE...    text values; a whole array or structure alone, as hex\n"
               "  watch --symbols FILE [--interval MS] [--count N] TAG...\n"
               "                              reads again and again, redrawn in place, until interrupted\n"
               "  version                     the library's version\n");
}

int run(int argc, char** argv) {
  if (argc < 2) {
    printUsage(stderr);
    return varlok::kExitUsage;
  }
  const std::string command = argv[1];
  const varlok::Args args(argv + 2, argv + argc);
  if (command == "browse") return varlok::runBrowse(args);
  if (command == "describe") return varlok::runDescribe(args);
  if (command == "read") return varlok::runRead(args);
  if (command == "write") return varlok::runWrite(args);
  if (command == "watch") return varlok::runWatch(args);
  if (command == "version" || command == "--version") {
    std::printf("%s\n", GetVarlokVersionInfo());
    return varlok::kExitOk;
  }
  if (command == "help" || command == "--help" || command == "-h") {
    printUsage(stdout);
    return varlok::kExitOk;
  }
  std::fprintf(stderr, "varlok: unknown command '%s'\n", command.c_str());
  printUsage(stderr);
  return varlok::kExitUsage;
}

}  // namespace

int main(int argc, char** argv) {
  // Paths from the shell are in the user's locale; the library reads them so too.
  std::setlocale(LC_CTYPE, "");
  varlok::openTextConversion();
  try {
    return run(argc, argv);
  } catch (const std::bad_alloc&) {
    std::fputs("varlok: out of memory\n", stderr);  // what allocates nothing can still be said
    return varlok::kExitFailed;
  }
}
