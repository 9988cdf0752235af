// The socket calls of the nVm client, watched and made to fail, and a service that they meet. The
// binary that this is compiled into has `socket`, `connect`, `send` and `recv` in front of the C
// library's.
//
// In that binary every allocation changes errno, as a call that succeeds may: code that reads a
// failing call's errno later than right behind the call sees a wrong one.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

// It is the other end of the client's connection and runs in the client's thread: it does its part
// in the client's `connect`, `send` and `recv`. One at a time, and one connection at a time.
class ScriptedService {
 public:
  // Each chunk is sent when the client has read those before it and begins another receive. A
  // further receive is an error and throws. A reply of no chunks closes the connection.
  using Reply = std::vector<std::string>;

  // One reply for each connection.
  explicit ScriptedService(std::vector<Reply> replies);
  ~ScriptedService();
  ScriptedService(const ScriptedService&) = delete;
  ScriptedService& operator=(const ScriptedService&) = delete;

  // What was received over each connection that was made.
  const std::vector<std::string>& Requests() const { return requests_; }

  // The client's calls: it connects this descriptor, has sent so many bytes, begins to receive so
  // many.
  void Accept(int client);
  void Read(std::size_t size);
  void Write(std::size_t size);

 private:
  std::vector<Reply> replies_;
  std::vector<std::string> requests_;
  int connection_ = -1;    // the latest, while it is open
  std::size_t chunk_ = 0;  // of the reply: the next one, or the one begun
  std::size_t sent_ = 0;   // of that chunk
};

// An HTTP reply with this body, as the service writes its header.
std::string HttpReply(const std::string& body);

// The calls since the latest ForgetSocketCalls, as in "socket", "connect 127.0.0.1:5302",
// "send 382 flags 0", "recv 4096 flags 0".
std::vector<std::string> SocketCalls();

// Nothing fails any more, either.
void ForgetSocketCalls();

// From now on the `which`-th call of `name` ("socket", "send", "recv"), counted from 1, fails with
// this errno.
void FailSocketCall(const std::string& name, int which, int error);

// From now on a `send` takes no more than this many bytes.
void LimitSend(std::size_t bytes);
