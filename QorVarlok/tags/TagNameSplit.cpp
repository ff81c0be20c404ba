#include "TagNameSplit.h"

namespace qorvarlok::tags {

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads a run of digits from pos on; pos ends behind it. Saturates.
int64_t readDigits(std::string_view text, size_t& pos) {
  int64_t value = 0;
  while (pos < text.size() && isDigit(text[pos])) {
    value = value * 10 + (text[pos] - '0');
    if (value > kIndexOverflow) value = kIndexOverflow;
    ++pos;
  }
  return value;
}

// ",digits" at pos: the optional group of the index pattern.
bool commaDigitsAt(std::string_view text, size_t pos) {
  return pos + 1 < text.size() && text[pos] == ',' && isDigit(text[pos + 1]);
}

// The exact form "[d]", "[d,d]" or "[d,d,d]".
bool isStrictBracket(std::string_view text) {
  if (text.size() < 3 || text.front() != '[' || text.back() != ']') return false;
  const std::string_view inner = text.substr(1, text.size() - 2);
  size_t pos = 0;
  for (int group = 0; group < 3; ++group) {
    if (pos >= inner.size() || !isDigit(inner[pos])) return false;
    readDigits(inner, pos);
    if (pos == inner.size()) return true;
    if (inner[pos] != ',') return false;
    ++pos;
  }
  return false;
}

}  // namespace

bool ParseIndexList(std::string_view text, IndexList& out) {
  out.clear();
  size_t pos = 0;
  while (pos < text.size() && !isDigit(text[pos])) ++pos;
  if (pos == text.size()) return false;
  out.push_back(readDigits(text, pos));
  // Both optional groups are greedy and nothing follows them in the pattern,
  // so the leftmost match never needs to give a group back.
  for (int group = 0; group < 2 && commaDigitsAt(text, pos); ++group) {
    ++pos;
    out.push_back(readDigits(text, pos));
  }
  return true;
}

bool SplitIndexedName(const std::string& name, std::string& base, IndexMap& indices) {
  base.clear();
  indices.clear();
  size_t pos = 0;
  for (;;) {
    const size_t open = name.find('[', pos);
    if (open == std::string::npos) {
      base.append(name, pos, std::string::npos);
      return true;
    }
    const size_t close = name.find(']', pos);
    if (close == std::string::npos) return false;
    base.append(name, pos, open - pos);
    // A "]" before the "[" leaves an empty or reversed span: no digits.
    IndexList list;
    if (close > open && ParseIndexList(std::string_view(name).substr(open + 1, close - open - 1), list)) {
      indices[base] = std::move(list);
    }
    pos = close + 1;
  }
}

bool SplitStrictName(const std::string& name, std::string& bare, std::vector<std::string>& brackets) {
  bare.clear();
  brackets.clear();
  size_t pos = 0;
  for (;;) {
    const size_t open = name.find('[', pos);
    if (open == std::string::npos || open == 0) {
      bare.append(name, pos, std::string::npos);
      return true;
    }
    const size_t close = name.find(']', open);
    const std::string_view text =
        close == std::string::npos ? std::string_view() : std::string_view(name).substr(open, close - open + 1);
    if (close == std::string::npos || !isStrictBracket(text)) {
      brackets.clear();
      return false;
    }
    bare.append(name, pos, open - pos);
    brackets.emplace_back(text);
    pos = close + 1;
  }
}

}  // namespace qorvarlok::tags
