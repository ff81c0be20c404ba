// One tag of the tags manager's table: a tagTagDesc in a heap block of its
// own, names in local form. Nodes made for an indexed name carry that name.
#pragma once

#include "QorVarlok/ZelVarlok.h"

namespace qorvarlok::tags {

struct TagNode : tagTagDesc {};

}  // namespace qorvarlok::tags
