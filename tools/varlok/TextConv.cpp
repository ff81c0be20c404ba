#include "TextConv.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>

namespace varlok {

namespace {

// One iconv descriptor for the duration of a conversion.
class Converter {
 public:
  Converter(const char* to, const char* from) : m_cd(::iconv_open(to, from)) {}
  ~Converter() {
    if (valid()) ::iconv_close(m_cd);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;

  bool valid() const { return m_cd != reinterpret_cast<iconv_t>(-1); }

  std::string run(const char* text) {
    std::string out;
    char* in = const_cast<char*>(text);
    size_t inLeft = std::strlen(text);
    char buffer[256];
    while (inLeft > 0) {
      char* outPtr = buffer;
      size_t outLeft = sizeof(buffer);
      const size_t r = ::iconv(m_cd, &in, &inLeft, &outPtr, &outLeft);
      out.append(buffer, sizeof(buffer) - outLeft);
      if (r != static_cast<size_t>(-1)) continue;
      if (errno == E2BIG) continue;
      // EILSEQ or a truncated sequence at the end: show one '?' and go on.
      out.push_back('?');
      ++in;
      --inLeft;
    }
    return out;
  }

 private:
  iconv_t m_cd;
};

}  // namespace

std::string gbkToUtf8(const char* gbk) {
  if (gbk == nullptr) return std::string();
  Converter conv("UTF-8", "GBK");
  if (!conv.valid()) return std::string(gbk);  // no GBK module: raw bytes beat nothing
  return conv.run(gbk);
}

}  // namespace varlok
