// Taking a tag name with array indices apart: "App.GVL.grid[1,3].y" gives the
// base name "App.GVL.grid.y" and the indices [1,3] under the array's full name
// "App.GVL.grid". Pure text work on bytes, no table, no locale.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace qorvarlok::tags {

// Indices are kept wider than int: a run of digits too long for int
// saturates at kIndexOverflow, which lies outside every int range, so a huge
// index fails the bounds check instead of wrapping into a valid one.
using IndexList = std::vector<int64_t>;
using IndexMap = std::map<std::string, IndexList>;
constexpr int64_t kIndexOverflow = int64_t{1} << 32;

// The first match of (\d+)(?:,(\d+)){0,1}(?:,(\d+)){0,1} anywhere in text,
// one index per group that took part. False when text holds no digit.
// Hand-written so that texts of any length take linear time and no stack.
bool ParseIndexList(std::string_view text, IndexList& out);

// Splits name into base name and indices per array name. A bracket without
// digits stores nothing; a repeated array name keeps its last list. False
// when a "[" has no "]" after it: such a name is no tag name.
bool SplitIndexedName(const std::string& name, std::string& base, IndexMap& indices);

// The stricter form: every bracket text must be exactly "[d]", "[d,d]" or
// "[d,d,d]". Fills bare (name without brackets) and brackets (the bracket
// texts, brackets included). False, with brackets emptied, on a "[" without
// "]" or a bracket text of another form. A "[" at the very start of the name
// ends the scan as if no bracket followed.
bool SplitStrictName(const std::string& name, std::string& bare, std::vector<std::string>& brackets);

}  // namespace qorvarlok::tags
