#include "WideConv.h"

#include <locale.h>

#include <climits>
#include <clocale>
#include <map>
#include <mutex>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <vector>

namespace qorvarlok::platform {

std::wstring narrowToWide(const char* text) {
  if (text == nullptr) return std::wstring();
  std::mbstate_t state{};
  const char* source = text;
  std::wstring out;
  wchar_t wc = 0;
  size_t left = std::strlen(text);
  while (left > 0) {
    const size_t n = std::mbrtowc(&wc, source, left, &state);
    if (n == 0 || n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2)) break;
    out.push_back(wc);
    source += n;
    left -= n;
  }
  return out;
}

std::string wideToNarrow(const std::wstring& text) {
  std::mbstate_t state{};
  std::string out;
  char buffer[MB_LEN_MAX];
  for (wchar_t wc : text) {
    const size_t n = std::wcrtomb(buffer, wc, &state);
    if (n == static_cast<size_t>(-1)) break;
    out.append(buffer, n);
  }
  return out;
}

namespace {

// What setlocale(LC_ALL, "") picks the character set from.
std::string DefaultLocaleName() {
  for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"}) {
    const char* value = std::getenv(variable);
    if (value != nullptr && *value != 0) return value;
  }
  return "C";
}

}  // namespace

// setlocale is not safe while other threads run (it swaps the process's
// locale under every conversion, message and number format of the program),
// so it is called once per default the environment names, not once per
// character; the conversion goes through uselocale on the calling thread.
// The locale objects are kept for the process's life: another thread may
// still convert through one, and there is one per default the program ever had.
UserCharEncoder::UserCharEncoder() {
  static std::mutex mutex;
  static auto* made = new std::map<std::string, locale_t>();
  std::lock_guard<std::mutex> lock(mutex);
  const std::string name = DefaultLocaleName();
  auto it = made->find(name);
  if (it == made->end()) {
    std::setlocale(LC_ALL, "");  // the process locale is left at the user's default, as before
    it = made->emplace(name, newlocale(LC_CTYPE_MASK, "", static_cast<locale_t>(0))).first;
  }
  if (it->second != static_cast<locale_t>(0)) m_pPrevious = uselocale(it->second);
}

UserCharEncoder::~UserCharEncoder() {
  if (m_pPrevious != nullptr) uselocale(static_cast<locale_t>(m_pPrevious));
}

int UserCharEncoder::Encode(wchar_t c, char* out) {
  static_assert(MB_LEN_MAX <= kMaxBytes, "a character's bytes fit");
  const size_t n = std::wcrtomb(out, c, &m_state);
  return n == static_cast<size_t>(-1) ? -1 : static_cast<int>(n);
}

}  // namespace qorvarlok::platform
