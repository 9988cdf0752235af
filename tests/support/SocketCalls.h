// The socket calls of a test's main thread, watched and made to fail: the binary that this is
// compiled into has them in front of the C library's. Calls of other threads pass unseen.
//
// In that binary every allocation changes errno, as a call that succeeds may: who looks at a
// failing call's errno later than right behind it sees a wrong one.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

// While it lives, one call fails: of `name` ("socket", "send", "recv") the `which`-th from now on,
// counted from 1, with `error` as its errno.
class FailingSocketCall {
 public:
  FailingSocketCall(const std::string& name, int which, int error);
  ~FailingSocketCall();
  FailingSocketCall(const FailingSocketCall&) = delete;
  FailingSocketCall& operator=(const FailingSocketCall&) = delete;
};

// While it lives, a `send` takes no more than this many bytes.
class ShortSend {
 public:
  explicit ShortSend(std::size_t bytes);
  ~ShortSend();
  ShortSend(const ShortSend&) = delete;
  ShortSend& operator=(const ShortSend&) = delete;
};

// How many receives were begun since the latest `socket`. When the second has begun, the bytes of
// the first are consumed. Any thread may ask.
int ReceivesBegun();

// The calls since the latest ForgetSocketCalls, as in "socket", "connect 127.0.0.1:5302",
// "send 382 flags 0", "recv 4096 flags 0".
std::vector<std::string> SocketCalls();
void ForgetSocketCalls();
