#include "TagsList.h"

namespace qorvarlok::tags {

TagsList::TagsList() = default;

TagsList::~TagsList() {
  delete[] values;
  values = nullptr;
  delete[] valueBuffer;
  valueBuffer = nullptr;
}

}  // namespace qorvarlok::tags
