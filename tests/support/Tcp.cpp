#include "Tcp.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "Files.h"

namespace {

sockaddr_in SocketAddress(const std::string& address, std::uint16_t port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(port);
  EXPECT_EQ(inet_pton(AF_INET, address.c_str(), &result.sin_addr), 1) << address;
  return result;
}

int NewSocket() {
  return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

}  // namespace

Listener::Listener(const std::string& address, std::uint16_t port) : socket_(NewSocket()) {
  const int on = 1;
  setsockopt(socket_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const sockaddr_in own = SocketAddress(address, port);
  EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0) << address;
  EXPECT_EQ(listen(socket_, 16), 0);
}

Listener::~Listener() {
  close(socket_);
}

bool Listener::HasVisitor(int milliseconds) const {
  pollfd wait = {socket_, POLLIN, 0};
  return poll(&wait, 1, milliseconds) == 1;
}

int Listener::Accept() const {
  return accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
}

Connection::Connection(const std::string& address, std::uint16_t port) : socket_(NewSocket()) {
  const timeval timeout = {20, 0};
  setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  setsockopt(socket_, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
  const sockaddr_in other = SocketAddress(address, port);
  EXPECT_EQ(connect(socket_, reinterpret_cast<const sockaddr*>(&other), sizeof other), 0);
}

Connection::~Connection() {
  if (socket_ >= 0) {
    close(socket_);
  }
}

void Connection::Send(const std::string& text) {
  const ssize_t count = send(socket_, text.data(), text.size(), MSG_NOSIGNAL);
  EXPECT_TRUE(count == static_cast<ssize_t>(text.size()) || errno == EPIPE || errno == ECONNRESET);
}

void Connection::Reset() {
  const linger atOnce = {1, 0};
  setsockopt(socket_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  shutdown(socket_, SHUT_WR);
  close(socket_);
  socket_ = -1;
}

std::string Connection::ReceiveAll() {
  std::string received;
  char chunk[4096];
  ssize_t count;
  while ((count = recv(socket_, chunk, sizeof chunk, 0)) > 0) {
    received.append(chunk, static_cast<std::size_t>(count));
  }
  EXPECT_EQ(count, 0) << "the other side did not close; so far it sent: " << received;
  return received;
}

bool Connection::HasEnded(int milliseconds) {
  pollfd ready = {socket_, POLLIN, 0};
  char chunk[4096];
  while (poll(&ready, 1, milliseconds) == 1) {
    if (recv(socket_, chunk, sizeof chunk, 0) <= 0) {
      return true;
    }
  }
  return false;
}

bool IsListening(const std::string& address, std::uint16_t port) {
  // The kernel's table shows a listening socket as "LOCAL:PORT 00000000:0000 0A".
  char entry[64];
  std::snprintf(entry, sizeof entry, ": %08X:%04X 00000000:0000 0A ",
                SocketAddress(address, port).sin_addr.s_addr, port);
  return ReadText("/proc/net/tcp").find(entry) != std::string::npos;
}
