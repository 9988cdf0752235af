#include "SocketCalls.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

constexpr std::size_t NO_LIMIT = static_cast<std::size_t>(-1);

std::vector<std::string> calls;
std::atomic<int> receivesBegun = 0;
std::size_t sendLimit = NO_LIMIT;

std::string failingName;
int callsUntilFailure = 0;
int failingError = 0;

bool IsMainThread() {
  return getpid() == gettid();
}

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

std::string Describe(const sockaddr* address) {
  const auto* const ip = reinterpret_cast<const sockaddr_in*>(address);
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &ip->sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(ip->sin_port));
}

}  // namespace

FailingSocketCall::FailingSocketCall(const std::string& name, int which, int error) {
  failingName = name;
  callsUntilFailure = which;
  failingError = error;
}

FailingSocketCall::~FailingSocketCall() {
  failingName.clear();
}

ShortSend::ShortSend(std::size_t bytes) {
  sendLimit = bytes;
}

ShortSend::~ShortSend() {
  sendLimit = NO_LIMIT;
}

int ReceivesBegun() {
  return receivesBegun;
}

std::vector<std::string> SocketCalls() {
  return calls;
}

void ForgetSocketCalls() {
  calls.clear();
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
  if (IsMainThread()) {
    calls.push_back("socket");
    receivesBegun = 0;
    if (MustFail("socket")) {
      return -1;
    }
  }
  return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}

extern "C" int connect(int descriptor, const sockaddr* address, socklen_t size) {
  if (IsMainThread() && address->sa_family == AF_INET) {
    calls.push_back("connect " + Describe(address));
  }
  return static_cast<int>(syscall(SYS_connect, descriptor, address, size));
}

extern "C" ssize_t send(int descriptor, const void* bytes, size_t size, int flags) {
  if (IsMainThread()) {
    calls.push_back("send" + Numbers(size, flags));
    if (MustFail("send")) {
      return -1;
    }
    size = std::min(size, sendLimit);
  }
  return syscall(SYS_sendto, descriptor, bytes, size, flags, nullptr, 0);
}

extern "C" ssize_t recv(int descriptor, void* bytes, size_t size, int flags) {
  if (IsMainThread()) {
    calls.push_back("recv" + Numbers(size, flags));
    ++receivesBegun;
    if (MustFail("recv")) {
      return -1;
    }
  }
  return syscall(SYS_recvfrom, descriptor, bytes, size, flags, nullptr, nullptr);
}
