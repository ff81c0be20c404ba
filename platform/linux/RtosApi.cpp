#include "RtosApi.h"

namespace qorvarlok::platform {

RtosApi RealRtosApi() {
  return RtosApi{&RtosInit,   &RtosOpenEvent,  &RtosSendEvent, &RtosWaitEvent,
                 &RtosIsAlive, &RtosQueryShmId, &RtosMapShm,    &RtosQueryShmSize};
}

RtosApi& Rtos() {
  static RtosApi table = RealRtosApi();
  return table;
}

}  // namespace qorvarlok::platform
