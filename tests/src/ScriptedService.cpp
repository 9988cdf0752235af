#include "ScriptedService.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <utility>

#include "NvmManipulator.h"

namespace {

constexpr std::size_t NO_LIMIT = static_cast<std::size_t>(-1);
constexpr int MAX_RECEIVES_BEYOND = 10000;

std::vector<std::string> calls;
std::vector<std::size_t> bytesSent;  // over each connection to the service
std::size_t sendLimit = NO_LIMIT;
std::string failingName;
int callsUntilFailure;
int failingError;

ScriptedService* service;

bool MustFail(const std::string& name) {
  if (name != failingName || --callsUntilFailure != 0) {
    return false;
  }
  errno = failingError;
  return true;
}

std::string Numbers(std::size_t size, int flags) {
  return " " + std::to_string(size) + " flags " + std::to_string(flags);
}

int NewSocket(int type) {
  return static_cast<int>(syscall(SYS_socket, AF_INET, type, 0));
}

}  // namespace

ScriptedService::ScriptedService(std::vector<ScriptedReply> replies)
    : listener_(NewSocket(SOCK_STREAM | SOCK_CLOEXEC)), replies_(std::move(replies)) {
  const int on = 1;
  setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(NVM_SERVICE_PORT);
  own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&own), sizeof own), 0);
  EXPECT_EQ(listen(listener_, 16), 0);
  bytesSent.clear();
  service = this;
}

ScriptedService::~ScriptedService() {
  Stop();
}

std::vector<std::string> ScriptedService::Stop() {
  if (service != nullptr) {
    Accept();
    for (const int connection : connections_) {
      close(connection);
    }
    close(listener_);
    service = nullptr;
  }
  return requests_;
}

// Takes the connections that were made, and what was sent over them.
void ScriptedService::Accept() {
  while (requests_.size() < bytesSent.size()) {
    const int connection = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::string request(bytesSent[requests_.size()], '\0');
    for (std::size_t length = 0; length < request.size();) {
      const ssize_t count = read(connection, &request[length], request.size() - length);
      if (count <= 0) {
        throw std::runtime_error("the request did not arrive");
      }
      length += static_cast<std::size_t>(count);
    }
    connections_.push_back(connection);
    requests_.push_back(request);
    chunk_ = sent_ = 0;
    unread_ = 0;
  }
}

ssize_t ScriptedService::Receive(int descriptor, void* bytes, std::size_t size, int flags) {
  BeforeReceive();
  const ssize_t count = syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr, nullptr);
  unread_ -= count > 0 ? count : 0;
  return count;
}

void ScriptedService::BeforeReceive() {
  Accept();
  if (connections_.empty() || (unread_ > 0 && sent_ == 0)) {
    return;
  }
  const ScriptedReply& reply = replies_.at(requests_.size() - 1);
  if (chunk_ == reply.chunks.size()) {
    End(reply.end);
    return;
  }
  const std::string& chunk = reply.chunks[chunk_];
  const ssize_t count = syscall(SYS_sendto, connections_.back(), chunk.data() + sent_,
                                chunk.size() - sent_, MSG_DONTWAIT | MSG_NOSIGNAL, nullptr, 0);
  // When the client has to read first, the rest follows at the next receive.
  sent_ += count > 0 ? static_cast<std::size_t>(count) : 0;
  unread_ += count > 0 ? count : 0;
  if (sent_ == chunk.size()) {
    ++chunk_;
    sent_ = 0;
  }
}

void ScriptedService::End(ScriptedReply::End end) {
  if (end == ScriptedReply::End::kWhole || ++receivesBeyond_ > MAX_RECEIVES_BEYOND) {
    throw std::runtime_error("the client receives on");
  }
  if (end != ScriptedReply::End::kSilent && connections_.back() != -1) {
    close(std::exchange(connections_.back(), -1));
  }
}

int ScriptedService::Connections() {
  return service == nullptr ? 0
                            : static_cast<int>(std::count_if(service->connections_.begin(),
                                                             service->connections_.end(),
                                                             [](int one) { return one != -1; }));
}

std::string HttpReply(const std::string& body) {
  return "HTTP/1.1 200 OK\r\ncontent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::vector<std::string> SocketCalls() {
  return calls;
}

void ForgetSocketCalls() {
  calls.clear();
  failingName.clear();
  sendLimit = NO_LIMIT;
}

void FailSocketCall(const std::string& name, int which, int error) {
  failingName = name;
  callsUntilFailure = which;
  failingError = error;
}

void LimitSend(std::size_t bytes) {
  sendLimit = bytes;
}

void* operator new(std::size_t size) {
  void* const memory = std::malloc(size);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  errno = ERANGE;
  return memory;
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

extern "C" int socket(int domain, int type, int protocol) noexcept {
  calls.push_back("socket");
  return MustFail("socket") ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int connect(int descriptor, const sockaddr* address, socklen_t size) {
  const auto* const ip = reinterpret_cast<const sockaddr_in*>(address);
  calls.push_back(std::string("connect ") + inet_ntoa(ip->sin_addr) + ":" +
                  std::to_string(ntohs(ip->sin_port)));
  const auto result = static_cast<int>(syscall(SYS_connect, descriptor, address, size));
  if (result == 0 && service != nullptr) {
    bytesSent.push_back(0);
  }
  return result;
}

extern "C" ssize_t send(int descriptor, const void* bytes, size_t size, int flags) {
  calls.push_back("send" + Numbers(size, flags));
  if (MustFail("send")) {
    return -1;
  }
  const ssize_t count =
      syscall(SYS_sendto, descriptor, bytes, std::min(size, sendLimit), flags, nullptr, 0);
  if (count > 0 && !bytesSent.empty()) {
    bytesSent.back() += static_cast<std::size_t>(count);
  }
  return count;
}

extern "C" ssize_t recv(int descriptor, void* bytes, size_t size, int flags) {
  calls.push_back("recv" + Numbers(size, flags));
  if (MustFail("recv")) {
    return -1;
  }
  return service != nullptr
             ? service->Receive(descriptor, bytes, size, flags)
             : syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr, nullptr);
}
