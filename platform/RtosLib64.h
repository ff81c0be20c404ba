/* RtosLib64: the eight calls through which a client reaches the controller's
   partition: named shared memory areas, auto-reset events, and a liveness
   test. C linkage. All results are 32-bit; 0 is success except RtosIsAlive,
   which gives non-zero while the partition's controller runs.

   Object names carry the partition name, which only this library knows
   (environment variable VARLOK_PARTITION, default "varlok"). On Windows the
   vendor's RtosLib64.dll exports the eight by ordinal only (50, 54, 59, 60,
   73, 82, 101, 102); ours exports them by the same ordinals. Handles and
   mappings are never given back: there is no call for it. */
#ifndef QORVARLOK_RTOSLIB64_H
#define QORVARLOK_RTOSLIB64_H

#include <stdint.h>
#include <wchar.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
/* Exported by RtosLib64.def, the eight calls by the vendor's ordinals. */
#define RTOS_API
#else
#define RTOS_API __attribute__((visibility("default")))
#endif

/* Result of RtosWaitEvent when the timeout ran out. */
#define RTE_ERROR_TIMEOUT 4203u
/* Further results of this implementation. */
#define RTE_ERROR_INVALID_PARAMETER 4201u /* null pointer, bad name, bad id, bad range */
#define RTE_ERROR_NOT_FOUND 4202u         /* no area or event of that name in a running partition */
#define RTE_ERROR_PARTITION_DOWN 4204u    /* no controller runs the partition */
#define RTE_ERROR_SYSTEM 4205u            /* a system call failed */

typedef void* RTOS_EVENT;

RTOS_API uint32_t RtosInit(void);
RTOS_API uint32_t RtosOpenEvent(uint32_t reserved1, uint32_t reserved2, const char* name, RTOS_EVENT* event);
RTOS_API uint32_t RtosSendEvent(RTOS_EVENT event);
RTOS_API uint32_t RtosWaitEvent(RTOS_EVENT event, uint32_t timeoutMs);
RTOS_API uint32_t RtosIsAlive(void);
RTOS_API uint32_t RtosQueryShmId(const wchar_t* name, uint32_t mode, uint32_t* id);
RTOS_API uint32_t RtosMapShm(uint32_t id, uint32_t offset, uint32_t length, uint32_t* reserved, void** address);
RTOS_API uint32_t RtosQueryShmSize(uint32_t id, uint32_t* size);

/* Not among the eight: the partition name of every object name (VARLOK_PARTITION,
   default "varlok"), for the named mutexes; null when the variable holds a name
   that cannot be used (empty, too long, '/' or non-printable characters). */
RTOS_API const char* RtosPartitionName(void);
/* Not among the eight: how long RtosWaitEvent spins before it sleeps, in
   microseconds, for this process (default 50; 0 sleeps at once). Gives the old value. */
RTOS_API uint32_t RtosSetEventSpin(uint32_t microseconds);

#ifdef __cplusplus
}
#endif

#endif
