// One defined tag list: the tags in the caller's order, their running
// offsets, the value buffer and, for shared memory, the record array.
// Shared-memory lists are chained behind a sentinel in the controller's
// handle order; the caller's HTAGLIST is the address of the `handle` field.
#pragma once

#include <cstdint>
#include <vector>

#include "QorVarlok/ZelVarlok.h"
#include "TagNode.h"

namespace qorvarlok::tags {

class TagsList {
 public:
  TagsList();
  ~TagsList();
  TagsList(const TagsList&) = delete;
  TagsList& operator=(const TagsList&) = delete;

  uint32_t clientSeq = 0;    // client sequence the list was defined under
  uint32_t length = 0;       // tags in nodeArray
  uint32_t totalBytes = 0;   // sum of the node sizes: length of valueBuffer
  int32_t handle = 0;        // controller's handle number (shm) or -1 (TCP)
  int32_t kind = 32767;
  std::vector<TagNode*> nodeArray;  // nodes belong to the manager's table
  // What the cyclic operations read of each tag, side by side and in list
  // order: the nodes lie scattered over the heap, and touching 10 000 of
  // them costs a cache miss each. Filled with nodeArray, never apart from it.
  struct Shape {
    const char* FullName;
    int Type;
    int Size;
  };
  std::vector<Shape> m_shapes;
  std::vector<uint32_t> offsets;    // shm: byte offset of each tag; the entry vector
  TagsList* prev = this;
  TagsList* next = this;
  tagTagVarValue* values = nullptr;      // shm: totalBytes default records
  unsigned char* valueBuffer = nullptr;  // totalBytes bytes
  // Which untyped checks of every tag (present, readable or writable, not a
  // structure or array) the list has passed: its tags never change once it
  // is built, so a cyclic read or write walks them once, not every cycle.
  uint8_t m_passedWalks = 0;
};

}  // namespace qorvarlok::tags
