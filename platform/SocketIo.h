// Plain blocking calls with time limits on a connected TCP socket that Asio
// opened: the tag-access client's device sends and receives through these
// rather than through Asio's reactor (one call per frame, no thread hop).
#pragma once

#include <cstddef>
#include <cstdint>

namespace qorvarlok::platform {

// The system's socket: a file descriptor on Linux, a SOCKET on Windows.
using NativeSocket = std::uintptr_t;

enum class SocketStep { Done, Again, TimedOut, Closed, Failed };

// Switches the socket to blocking calls (Asio leaves it non-blocking after a connect).
bool MakeBlocking(NativeSocket socket);
// Time limits of one send or receive call, in milliseconds (> 0).
bool SetSendLimit(NativeSocket socket, long ms);
bool SetReceiveLimit(NativeSocket socket, long ms);
// One call: Done with *moved bytes, Again when interrupted, TimedOut when the
// limit passed, Closed when the peer ended the stream, Failed otherwise.
// A send never raises a signal on a broken connection.
SocketStep SendSome(NativeSocket socket, const uint8_t* data, size_t size, size_t* moved);
SocketStep ReceiveSome(NativeSocket socket, uint8_t* data, size_t size, size_t* moved);
void CloseSocket(NativeSocket socket);

}  // namespace qorvarlok::platform
