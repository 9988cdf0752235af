// An nVm service that does what the test says: it takes connections on the service's port, one
// after the other, notes each request and plays a reply.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "Tcp.h"

struct ScriptedReply {
  enum class End {
    kHold,   // the connection stays open until the service ends
    kClose,  // closed behind the last chunk
    kReset,  // the same, but the client sees a reset
  };

  // Each is sent when the client has consumed those before it and waits for more. What the client
  // does not wait for is not sent. (A client in a process of its own gets the first one only.)
  std::vector<std::string> chunks;
  End end = End::kHold;
};

class ScriptedService {
 public:
  // One reply for each connection; connections beyond these are closed without one.
  explicit ScriptedService(std::vector<ScriptedReply> replies,
                           const std::string& address = "127.0.0.1");
  ~ScriptedService();

  // Ends the service, once its client is done. Gives what was received, a text for each connection
  // that was made, an empty one when nothing was sent over it.
  std::vector<std::string> Stop();

 private:
  void Run();
  std::string ReceiveRequest(int connection) const;
  void Play(int connection, const ScriptedReply& reply);
  bool IsWaitedFor(std::size_t chunk) const;

  Listener listener_;
  std::vector<ScriptedReply> replies_;
  std::vector<std::string> requests_;
  std::vector<int> held_;
  std::atomic<bool> isStopping_ = false;
  std::thread thread_;
};

// An HTTP reply with this body, as the service writes its header.
std::string HttpReply(const std::string& body);
