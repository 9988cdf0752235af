// TCP on the loopback, in small pieces.
#pragma once

#include <cstdint>
#include <string>

constexpr std::uint16_t NVM_PORT = 5302;

// A listening socket.
class Listener {
 public:
  Listener(const std::string& address, std::uint16_t port);
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  // Whether somebody has connected, or does so within the time.
  bool HasVisitor(int milliseconds = 0) const;

  // The next visitor's connection; the caller's.
  int Accept() const;

 private:
  int socket_;
};

// A client's end of a connection. Nothing here waits longer than 20 seconds.
class Connection {
 public:
  Connection(const std::string& address, std::uint16_t port);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The other side may have ended the connection.
  void Send(const std::string& text);

  // Ends the sending side, then resets the connection.
  void Reset();

  // What comes until the other side closes.
  std::string ReceiveAll();

  // Whether the other side closes or resets the connection within the time; what it sends until
  // then is thrown away.
  bool HasEnded(int milliseconds = 20000);

 private:
  int socket_;
};

// Whether a socket listens there. Opens no connection to it.
bool IsListening(const std::string& address, std::uint16_t port);
