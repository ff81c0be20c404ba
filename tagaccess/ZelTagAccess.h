/* ZelTagAccess: the seven calls through which a client reaches a controller's
   tags over TCP, with our own tag-access protocol (TagAccessProtocol.h).
   C linkage; every result is a 32-bit code, 0 for success, taken from the
   client library's error table (ZelVarlok.h).

   Ownership. A device (ConnectToDevice) owns its socket and its lists; a
   list handle (DefineTagList) stays usable until DeleteTagList or until its
   device is disconnected. The record array and the value bytes that
   ReadTagListValue hands out belong to the list and stay valid until the
   next call on the same list. A handle is the address of a cell whose first
   32 bits hold the controller's number of the list; cells are reused, never
   freed, so a stale handle reads a number instead of freed memory.

   Threads. Any thread may call; the calls on one device run one at a time.
   Each device has a thread of its own that sends a keep-alive when it has
   been idle for a third of the controller's idle limit.

   Configuration, read at ConnectToDevice:
     VARLOK_TCP_TOKEN       the token the controller asks for (none when unset)
     VARLOK_TCP_TIMEOUT_MS  time limit of a connect and of each request (default 3000) */
#ifndef QORVARLOK_ZELTAGACCESS_H
#define QORVARLOK_ZELTAGACCESS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define ZTA_API __declspec(dllexport)
#else
#define ZTA_API __attribute__((visibility("default")))
#endif

/* The port an address without one means. */
#define ZTA_DEFAULT_PORT 4850
#define ZTA_TOKEN_ENV "VARLOK_TCP_TOKEN"
#define ZTA_TIMEOUT_ENV "VARLOK_TCP_TIMEOUT_MS"
#define ZTA_DEFAULT_TIMEOUT_MS 3000
/* The only mode ConnectToDevice knows: TCP with the protocol's handshake. */
#define ZTA_MODE_TCP 1
/* ConnectToDevice: the controller could not be reached (refused, timed out, no such host). */
#define ZTA_ERR_UNREACHABLE 1u
/* The most value bytes one list may hold: its values travel in one frame. */
#define ZTA_MAX_LIST_VALUE_BYTES (16u * 1024u * 1024u - 8u)
/* A width in DefineTagList's width array that takes the controller's own. */
#define ZTA_WIDTH_OF_CONTROLLER 0xFFFFFFFFu

/* One value of a list: the layout and stride of tagTagVarValue (ZelVarlok.h). */
typedef struct ZtaTagValue {
  const char* FullName;
  int Type;
  int ValueLength;
  void* Value;
} ZtaTagValue;

ZTA_API uint32_t InitializeCommunication(void);
/* address: "host" or "host:port" ("[v6]:port"); mode: ZTA_MODE_TCP. Null and
   *err set on failure: ZTA_ERR_UNREACHABLE, ERR_USER_NAME_OR_PASSWORD,
   ERR_VENDER_NOT_MATCHED (another protocol or version), ERR_TOO_MANY_GW_CLIENTS. */
ZTA_API void* ConnectToDevice(const char* address, int32_t mode, uint32_t* err);
ZTA_API uint32_t DisconnectFromDevice(void* device);
/* widths: null, or count widths: the bytes the caller lays out for each value
   (ZTA_WIDTH_OF_CONTROLLER: the controller's). The controller copies what fits
   and fills the rest with zeros, so both sides agree on the list's layout. */
ZTA_API void* DefineTagList(void* device, const char** names, uint32_t count, uint32_t period, const void* widths,
                            uint32_t* err);
ZTA_API uint32_t DeleteTagList(void* list);
ZTA_API uint32_t ReadTagListValue(void* list, ZtaTagValue** values, uint32_t* count);
/* image: the address of a pointer to the list's values, laid out one after the
   other in list order; the length is the list's own. */
ZTA_API uint32_t WriteTagListValue(void* list, void** image);

#ifdef __cplusplus
}
#endif

#endif
