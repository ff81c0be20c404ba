#include "ProcessImage.h"

#include <algorithm>
#include <cctype>

#include "VarlokLog.h"

namespace qorvarlok::controller {

namespace {

struct Segment {
  std::string ident;
  std::vector<std::vector<int64_t>> indexGroups;
};

bool ParseIndex(const std::string& text, int64_t& out) {
  size_t i = 0;
  while (i < text.size() && text[i] == ' ') ++i;
  size_t end = text.size();
  while (end > i && text[end - 1] == ' ') --end;
  bool negative = false;
  if (i < end && text[i] == '-') {
    negative = true;
    ++i;
  }
  if (i == end || end - i > 10) return false;  // no digits, or beyond any 32-bit bound
  int64_t value = 0;
  for (; i < end; ++i) {
    if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    value = value * 10 + (text[i] - '0');
  }
  out = negative ? -value : value;
  return true;
}

bool ParseGroup(const std::string& inside, std::vector<int64_t>& indices) {
  size_t start = 0;
  while (true) {
    const size_t comma = inside.find(',', start);
    int64_t value = 0;
    if (!ParseIndex(inside.substr(start, comma == std::string::npos ? std::string::npos : comma - start), value))
      return false;
    indices.push_back(value);
    if (comma == std::string::npos) return true;
    start = comma + 1;
  }
}

// "App.GVL.grid[1,3].y" -> App, GVL, grid [1,3], y
bool Split(const std::string& name, std::vector<Segment>& out) {
  size_t i = 0;
  while (true) {
    Segment seg;
    while (i < name.size() && name[i] != '.' && name[i] != '[' && name[i] != ']') seg.ident += name[i++];
    if (seg.ident.empty()) return false;
    while (i < name.size() && name[i] == '[') {
      const size_t close = name.find(']', i);
      if (close == std::string::npos) return false;
      std::vector<int64_t> indices;
      if (!ParseGroup(name.substr(i + 1, close - i - 1), indices)) return false;
      seg.indexGroups.push_back(std::move(indices));
      i = close + 1;
    }
    out.push_back(std::move(seg));
    if (i == name.size()) return true;
    if (name[i] != '.') return false;
    ++i;
  }
}

ResolveResult ApplyIndices(const std::vector<int64_t>& indices, Location& at) {
  const TypeLayout* array = at.type;
  if (array->shape != Shape::Array) return ResolveResult::NotAnArray;
  if (indices.size() != array->bounds.size()) return ResolveResult::WrongDimensions;
  uint64_t flat = 0;
  for (size_t d = 0; d < indices.size(); ++d) {
    const auto [lo, hi] = array->bounds[d];
    if (indices[d] < lo || indices[d] > hi) return ResolveResult::IndexOutOfBounds;
    flat = flat * static_cast<uint64_t>(static_cast<int64_t>(hi) - lo + 1) + static_cast<uint64_t>(indices[d] - lo);
  }
  if (flat >= array->usableElements) return ResolveResult::IndexOutOfBounds;
  at.offset += static_cast<uint32_t>(flat * array->element->size);
  at.type = array->element;
  at.size = array->element->size;
  return ResolveResult::Ok;
}

ResolveResult ApplyMember(const std::string& member, Location& at) {
  if (at.type->shape == Shape::Array) return ResolveResult::NotAddressable;
  const MemberLayout* m = at.type->FindMember(member);
  if (m == nullptr || !m->placed) return ResolveResult::UnknownMember;
  at.offset += m->offset;
  at.type = m->type;
  at.size = m->type->size;
  return ResolveResult::Ok;
}

}  // namespace

const char* ToText(ResolveResult r) {
  switch (r) {
    case ResolveResult::Ok: return "resolved";
    case ResolveResult::Malformed: return "malformed name";
    case ResolveResult::UnknownVariable: return "unknown variable";
    case ResolveResult::UnknownMember: return "unknown member";
    case ResolveResult::NotAnArray: return "index on a non-array";
    case ResolveResult::WrongDimensions: return "wrong number of indices";
    case ResolveResult::IndexOutOfBounds: return "index out of bounds";
    case ResolveResult::NotAddressable: return "member of an array without an element index";
  }
  return "unknown";
}

std::unique_ptr<ProcessImage> ProcessImage::Build(const symbols::SymbolConfiguration& config) {
  static const symbols::TypeTable kNoTypes;
  std::unique_ptr<ProcessImage> image(new ProcessImage(config.types != nullptr ? *config.types : kNoTypes));
  uint64_t offset = 0;
  if (config.nodes != nullptr) image->AddGroup(*config.nodes, "", offset);
  if (offset > UINT32_MAX) {
    VLOG(err, "ProcessImage::Build", "the variables need {} bytes, more than an image can hold; none is kept", offset);
    image->m_variables.clear();
    offset = 0;
  }
  image->m_size = static_cast<uint32_t>(offset);
  image->m_storage.assign((offset + 7) / 8, 0);
  VLOG(info, "ProcessImage::Build", "process image of {} bytes with {} variables", image->m_size,
       image->m_variables.size());
  return image;
}

void ProcessImage::AddGroup(const symbols::NodeWithChildren& group, const std::string& prefix, uint64_t& offset) {
  for (const symbols::NodeBase* child : group.Children()) {
    if (child == nullptr) continue;
    const std::string full = prefix.empty() ? child->name : prefix + "." + child->name;
    if (const auto* variable = dynamic_cast<const symbols::VariableNode*>(child)) {
      AddVariable(*variable, full, offset);
    } else if (const auto* sub = dynamic_cast<const symbols::NodeWithChildren*>(child)) {
      AddGroup(*sub, full, offset);
    }
  }
}

void ProcessImage::AddVariable(const symbols::VariableNode& node, const std::string& fullName, uint64_t& offset) {
  if (node.isReference != 0) return;
  const TypeLayout* type = m_layouts.Get(node.type);
  if (type == nullptr) {
    VLOG(err, "ProcessImage::AddVariable", "variable {} has no usable type {}; it gets no storage", fullName,
         node.type);
    return;
  }
  if (m_variables.count(fullName) != 0) {
    VLOG(warn, "ProcessImage::AddVariable", "variable {} appears twice; the first one is kept", fullName);
    return;
  }
  offset = AlignUp(offset, std::min<uint32_t>(type->align, 8));
  Variable v{fullName, type, static_cast<uint32_t>(std::min<uint64_t>(offset, UINT32_MAX)), node.access};
  m_variables.emplace(fullName, v);
  offset += type->size;
}

const Variable* ProcessImage::FindVariable(const std::string& fullName) const {
  auto it = m_variables.find(fullName);
  return it == m_variables.end() ? nullptr : &it->second;
}

ResolveResult ProcessImage::Resolve(const std::string& name, Location& out) const {
  std::vector<Segment> segments;
  if (!Split(name, segments)) return ResolveResult::Malformed;
  std::string prefix;
  size_t i = 0;
  const Variable* variable = nullptr;
  for (; i < segments.size(); ++i) {
    prefix += (i == 0 ? "" : ".") + segments[i].ident;
    variable = FindVariable(prefix);
    if (variable != nullptr) break;
    if (!segments[i].indexGroups.empty()) return ResolveResult::UnknownVariable;
  }
  if (variable == nullptr) return ResolveResult::UnknownVariable;
  Location at{variable->offset, variable->type->size, variable->type, variable->access};
  for (size_t s = i; s < segments.size(); ++s) {
    if (s != i) {
      const ResolveResult r = ApplyMember(segments[s].ident, at);
      if (r != ResolveResult::Ok) return r;
    }
    for (const auto& group : segments[s].indexGroups) {
      const ResolveResult r = ApplyIndices(group, at);
      if (r != ResolveResult::Ok) return r;
    }
  }
  out = at;
  return ResolveResult::Ok;
}

}  // namespace qorvarlok::controller
