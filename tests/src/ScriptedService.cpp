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
#include <utility>

namespace {

constexpr auto NO_LIMIT = static_cast<std::size_t>(-1);

std::vector<std::string> calls;
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

}  // namespace

ScriptedService::ScriptedService(std::vector<Reply> replies) : replies_(std::move(replies)) {
  service = this;
}

ScriptedService::~ScriptedService() {
  close(connection_);
  service = nullptr;
}

void ScriptedService::Accept(int client) {
  close(connection_);
  int ends[2];
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  dup2(ends[0], client);
  close(ends[0]);
  connection_ = ends[1];
  requests_.emplace_back();
  chunk_ = sent_ = 0;
}

void ScriptedService::Read(std::size_t size) {
  std::string bytes(size, '\0');
  EXPECT_EQ(read(connection_, bytes.data(), size), size);
  requests_.back() += bytes;
}

void ScriptedService::Write(std::size_t size) {
  const Reply& reply = replies_.at(requests_.size() - 1);
  if (reply.empty()) {
    close(std::exchange(connection_, -1));
    return;
  }
  const std::string& chunk = reply.at(chunk_);
  const std::string part = chunk.substr(sent_, size);
  EXPECT_EQ(write(connection_, part.data(), part.size()), part.size());
  sent_ += part.size();
  if (sent_ == chunk.size()) {
    ++chunk_;
    sent_ = 0;
  }
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
  if (service == nullptr) {
    return static_cast<int>(syscall(SYS_connect, descriptor, address, size));
  }
  service->Accept(descriptor);
  return 0;
}

extern "C" ssize_t send(int descriptor, const void* bytes, size_t size, int flags) {
  calls.push_back("send " + std::to_string(size) + " flags " + std::to_string(flags));
  if (MustFail("send")) {
    return -1;
  }
  const ssize_t count =
      syscall(SYS_sendto, descriptor, bytes, std::min(size, sendLimit), flags, nullptr, 0);
  if (count > 0 && service != nullptr) {
    service->Read(static_cast<std::size_t>(count));
  }
  return count;
}

extern "C" ssize_t recv(int descriptor, void* bytes, size_t size, int flags) {
  calls.push_back("recv " + std::to_string(size) + " flags " + std::to_string(flags));
  if (MustFail("recv")) {
    return -1;
  }
  if (service != nullptr) {
    service->Write(size);
  }
  return syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr, nullptr);
}
