// The backend's table of the seven ZelTagAccess calls. The real library is
// the default; tests replace entries to produce answers that a real
// controller cannot give on demand, and put the defaults back afterwards.
#pragma once

#include "ZelTagAccess.h"

namespace qorvarlok::tagaccess {

struct TagAccessApi {
  uint32_t (*InitializeCommunication)();
  void* (*ConnectToDevice)(const char* address, int32_t mode, uint32_t* err);
  uint32_t (*DisconnectFromDevice)(void* device);
  void* (*DefineTagList)(void* device, const char** names, uint32_t count, uint32_t period, const void* widths,
                         uint32_t* err);
  uint32_t (*DeleteTagList)(void* list);
  uint32_t (*ReadTagListValue)(void* list, ZtaTagValue** values, uint32_t* count);
  uint32_t (*WriteTagListValue)(void* list, void** image);
};

// The process's table, filled with the real library's calls.
TagAccessApi& TagAccess();
// The real library's calls, to restore after a test.
TagAccessApi RealTagAccessApi();

}  // namespace qorvarlok::tagaccess
