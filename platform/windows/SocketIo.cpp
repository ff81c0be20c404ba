#include "SocketIo.h"

#include <winsock2.h>

#include <climits>

namespace qorvarlok::platform {

namespace {

SOCKET Sock(NativeSocket socket) { return static_cast<SOCKET>(socket); }

bool SetLimit(NativeSocket socket, int option, long ms) {
  const DWORD limit = static_cast<DWORD>(ms);  // Windows takes milliseconds as a DWORD
  return ::setsockopt(Sock(socket), SOL_SOCKET, option, reinterpret_cast<const char*>(&limit), sizeof limit) == 0;
}

SocketStep StepOf(int n, size_t* moved) {
  if (n > 0) {
    *moved = static_cast<size_t>(n);
    return SocketStep::Done;
  }
  *moved = 0;
  if (n == 0) return SocketStep::Closed;
  const int error = ::WSAGetLastError();
  if (error == WSAEINTR) return SocketStep::Again;
  if (error == WSAETIMEDOUT || error == WSAEWOULDBLOCK) return SocketStep::TimedOut;
  return SocketStep::Failed;
}

int Chunk(size_t size) { return size > INT_MAX ? INT_MAX : static_cast<int>(size); }

}  // namespace

bool MakeBlocking(NativeSocket socket) {
  u_long nonBlocking = 0;
  return ::ioctlsocket(Sock(socket), FIONBIO, &nonBlocking) == 0;
}

bool SetSendLimit(NativeSocket socket, long ms) { return SetLimit(socket, SO_SNDTIMEO, ms); }
bool SetReceiveLimit(NativeSocket socket, long ms) { return SetLimit(socket, SO_RCVTIMEO, ms); }

SocketStep SendSome(NativeSocket socket, const uint8_t* data, size_t size, size_t* moved) {
  const int n = ::send(Sock(socket), reinterpret_cast<const char*>(data), Chunk(size), 0);
  if (n == 0) return *moved = 0, SocketStep::Failed;
  return StepOf(n, moved);
}

SocketStep ReceiveSome(NativeSocket socket, uint8_t* data, size_t size, size_t* moved) {
  return StepOf(::recv(Sock(socket), reinterpret_cast<char*>(data), Chunk(size), 0), moved);
}

void CloseSocket(NativeSocket socket) { ::closesocket(Sock(socket)); }

}  // namespace qorvarlok::platform
