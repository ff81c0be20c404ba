#include "SocketIo.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

namespace qorvarlok::platform {

namespace {

int Fd(NativeSocket socket) { return static_cast<int>(socket); }

bool SetLimit(NativeSocket socket, int option, long ms) {
  timeval tv{};
  tv.tv_sec = ms / 1000;
  tv.tv_usec = (ms % 1000) * 1000;
  return ::setsockopt(Fd(socket), SOL_SOCKET, option, &tv, sizeof tv) == 0;
}

SocketStep StepOf(ssize_t n, size_t* moved) {
  if (n > 0) {
    *moved = static_cast<size_t>(n);
    return SocketStep::Done;
  }
  *moved = 0;
  if (n == 0) return SocketStep::Closed;
  if (errno == EINTR) return SocketStep::Again;
  if (errno == EAGAIN || errno == EWOULDBLOCK) return SocketStep::TimedOut;
  return SocketStep::Failed;
}

}  // namespace

bool MakeBlocking(NativeSocket socket) {
  const int flags = ::fcntl(Fd(socket), F_GETFL);
  return flags >= 0 && ::fcntl(Fd(socket), F_SETFL, flags & ~O_NONBLOCK) == 0;
}

bool SetSendLimit(NativeSocket socket, long ms) { return SetLimit(socket, SO_SNDTIMEO, ms); }
bool SetReceiveLimit(NativeSocket socket, long ms) { return SetLimit(socket, SO_RCVTIMEO, ms); }

SocketStep SendSome(NativeSocket socket, const uint8_t* data, size_t size, size_t* moved) {
  const ssize_t n = ::send(Fd(socket), data, size, MSG_NOSIGNAL);
  if (n == 0) return *moved = 0, SocketStep::Failed;  // nothing taken of a non-empty send
  return StepOf(n, moved);
}

SocketStep ReceiveSome(NativeSocket socket, uint8_t* data, size_t size, size_t* moved) {
  return StepOf(::recv(Fd(socket), data, size, 0), moved);
}

void CloseSocket(NativeSocket socket) { ::close(Fd(socket)); }

}  // namespace qorvarlok::platform
