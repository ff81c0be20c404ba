// Uses the installed library through its public header only.
#include <QorVarlok/ZelVarlok.h>

#include <cstdio>
#include <cstring>

static int failures = 0;

static void check(bool ok, const char* what) {
  if (!ok) {
    std::printf("consumer: FAILED %s\n", what);
    ++failures;
  }
}

int main() {
  const char* text = ReadErrorDescription(ERR_INVALID_TAG_HANDLE);
  check(text != nullptr && std::strcmp(text, "\xCE\xDE\xD0\xA7\xB5\xC4\xB1\xEA\xC7\xA9\xBE\xE4\xB1\xFA") == 0,
        "ReadErrorDescription gives the GBK text");
  const char* version = GetVarlokVersionInfo();
  check(version != nullptr && version[0] != '\0', "GetVarlokVersionInfo gives a text");

  unsigned int code = 0;
  void* handle = CreateSymbolConfigHandleW(L"/nonexistent/qorvarlok-consumer.xml", &code);
  check(handle == nullptr && code == ERR_XML_ILLEGL_XML_FORMAT, "a missing symbol file is refused with its code");

  const tagTagDesc desc;
  check(desc.Type == VARLOK_NOT_SET, "records come with the header");

  if (failures == 0) std::printf("consumer: all checks passed (library %s)\n", version);
  return failures == 0 ? 0 : 1;
}
