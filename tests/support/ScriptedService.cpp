#include "ScriptedService.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>
#include <utility>

#include "Process.h"
#include "SocketCalls.h"

namespace {

constexpr int MOMENT = 1;  // milliseconds

bool IsWhole(const std::string& request) {
  const std::size_t length = request.find("\r\nContent-length: ");
  const std::size_t headEnd = request.find("\r\n\r\n");
  return length != std::string::npos && headEnd != std::string::npos &&
         request.size() - (headEnd + 4) >=
             std::strtoul(request.c_str() + request.find(' ', length), nullptr, 10);
}

// Appends all that is there, or comes within a moment; false when the client has closed.
bool Drain(int connection, std::string& text) {
  pollfd wait = {connection, POLLIN, 0};
  char chunk[4096];
  while (poll(&wait, 1, MOMENT) == 1) {
    const ssize_t count = recv(connection, chunk, sizeof chunk, 0);
    if (count <= 0) {
      return false;
    }
    text.append(chunk, static_cast<std::size_t>(count));
  }
  return true;
}

void SendAll(int connection, const std::string& text) {
  for (std::size_t sent = 0; sent < text.size();) {
    const ssize_t count = send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (count <= 0) {
      return;  // the client has gone, or does not read
    }
    sent += static_cast<std::size_t>(count);
  }
}

}  // namespace

ScriptedService::ScriptedService(std::vector<ScriptedReply> replies, const std::string& address)
    : listener_(address, NVM_PORT), replies_(std::move(replies)), thread_([this] { Run(); }) {}

ScriptedService::~ScriptedService() {
  Stop();
}

std::vector<std::string> ScriptedService::Stop() {
  isStopping_ = true;
  if (thread_.joinable()) {
    thread_.join();
  }
  for (const int connection : std::exchange(held_, {})) {
    close(connection);
  }
  return requests_;
}

void ScriptedService::Run() {
  while (true) {
    const bool isLastLook = isStopping_;
    if (listener_.HasVisitor(MOMENT)) {
      const int connection = listener_.Accept();
      const timeval timeout = {20, 0};
      setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
      requests_.push_back(ReceiveRequest(connection));
      const std::size_t number = requests_.size();
      Play(connection, number <= replies_.size() ? replies_[number - 1]
                                                 : ScriptedReply{{}, ScriptedReply::End::kClose});
    } else if (isLastLook) {
      return;
    }
  }
}

std::string ScriptedService::ReceiveRequest(int connection) const {
  std::string request;
  bool isLastLook = false;
  while (!isLastLook && !IsWhole(request)) {
    isLastLook = isStopping_ || ReceivesBegun() > 0;
    isLastLook |= !Drain(connection, request);
  }
  return request;
}

void ScriptedService::Play(int connection, const ScriptedReply& reply) {
  for (std::size_t i = 0; i < reply.chunks.size() && IsWaitedFor(i); ++i) {
    SendAll(connection, reply.chunks[i]);
  }
  if (reply.end == ScriptedReply::End::kHold) {
    held_.push_back(connection);
    return;
  }
  if (reply.end == ScriptedReply::End::kReset) {
    const linger atOnce = {1, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
  }
  close(connection);
}

bool ScriptedService::IsWaitedFor(std::size_t chunk) const {
  const auto isBegun = [&] { return ReceivesBegun() > static_cast<int>(chunk); };
  return chunk == 0 || (Eventually([&] { return isBegun() || isStopping_; }) && isBegun());
}

std::string HttpReply(const std::string& body) {
  return "HTTP/1.1 200 OK\r\ncontent-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}
