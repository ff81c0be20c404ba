/* The header and the calls used from plain C, as a controller vendor's
   client would: proves the C linkage and that the header is C. */
#include <stddef.h>

#include "RtosLib64.h"

uint32_t RtosLib64CallsFromC(uint32_t results[4]) {
  uint32_t id = 0;
  RTOS_EVENT event = NULL;
  results[0] = RtosInit();
  results[1] = RtosIsAlive();
  results[2] = RtosQueryShmId(L"ConnectArea", 4, &id);
  results[3] = RtosOpenEvent(0, 0, "EVENT_CONNECT_RTOS2WIN", &event);
  return id;
}
