#include "Http.h"

#include <arpa/inet.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <map>
#include <memory>

namespace {

// Ten times the largest request of a client.
constexpr std::size_t MAX_BODY_BYTES = std::size_t{4} * 1024;
// For the headers of a request and of its reply.
constexpr std::size_t CONNECTION_MEMORY_BYTES = std::size_t{8} * 1024;
constexpr unsigned MAX_CONNECTIONS = 256;
// For a connection as a whole: the library's own timeout starts again with every byte.
constexpr std::chrono::seconds CONNECTION_TIMEOUT(5);

using Clock = std::chrono::steady_clock;

struct Server {
  const std::string address;
  const std::uint16_t port;
  const HttpCallbacks& callbacks;
  std::map<MHD_Connection*, Clock::time_point> deadlines = {};
};

struct Refusal {
  unsigned status = 0;  // 0: none
  const char* reason = "";
};

struct Request {
  Refusal refusal;
  std::string body = {};
};

// --- Which requests are served

const char* Header(MHD_Connection* connection, const char* name) {
  return MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
}

int Count(MHD_Connection* connection, MHD_ValueKind kind) {
  return MHD_get_connection_values(connection, kind, nullptr, nullptr);
}

Refusal Check(MHD_Connection* connection, const Server& server, const std::string& path,
              const std::string& method) {
  if (method != MHD_HTTP_METHOD_GET) {
    return {MHD_HTTP_METHOD_NOT_ALLOWED, "the method is not GET"};
  }
  if (path != "/nVm") {
    return {MHD_HTTP_NOT_FOUND, "no such path"};
  }
  if (Count(connection, MHD_GET_ARGUMENT_KIND) != 1 ||
      MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "FunctionName") == nullptr) {
    return {MHD_HTTP_BAD_REQUEST, "FunctionName is not the one parameter"};
  }
  constexpr const char* KNOWN_HEADERS[] = {"Host",           "Accept",         "User-Agent",
                                           "Content-type",   "Content-length", "Connection",
                                           "Accept-Encoding"};
  const auto known =
      std::count_if(std::begin(KNOWN_HEADERS), std::end(KNOWN_HEADERS),
                    [&](const char* header) { return Header(connection, header) != nullptr; });
  if (Count(connection, MHD_HEADER_KIND) != known) {
    return {MHD_HTTP_FORBIDDEN, "a header that no client sends"};
  }
  const char* const host = Header(connection, "Host");
  if (host != nullptr && host != server.address &&
      host != server.address + ":" + std::to_string(server.port)) {
    return {MHD_HTTP_FORBIDDEN, "the host is another"};
  }
  return {};
}

// True: the body is not chunked, and its announced length, if any, is within the limit.
bool HasAcceptableLength(MHD_Connection* connection) {
  const char* const length = Header(connection, "Content-length");
  return Header(connection, "Transfer-Encoding") == nullptr &&
         (length == nullptr || std::strtoull(length, nullptr, 10) <= MAX_BODY_BYTES);
}

// --- Replies

// The clients find the length in lower case only, and want the beginning of the body in their first
// receive buffer. So a reply has two length headers, ours and the library's: if the library sent no
// header of its own, it would send the headers in a packet of their own, before the body.
MHD_Result Reply(MHD_Connection* connection, unsigned status, const std::string& body) {
  const std::unique_ptr<MHD_Response, decltype(&MHD_destroy_response)> response(
      MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()),
                                      MHD_RESPMEM_MUST_COPY),
      MHD_destroy_response);
  if (response == nullptr) {
    return MHD_NO;
  }
  MHD_set_response_options(response.get(), MHD_RF_INSANITY_HEADER_CONTENT_LENGTH, MHD_RO_END);
  const std::string length = std::to_string(body.size());
  const bool isComplete =
      MHD_add_response_header(response.get(), "content-type", "text/xml") == MHD_YES &&
      MHD_add_response_header(response.get(), "content-length", length.c_str()) == MHD_YES &&
      MHD_add_response_header(response.get(), "connection", "close") == MHD_YES &&
      (status != MHD_HTTP_METHOD_NOT_ALLOWED ||
       MHD_add_response_header(response.get(), "allow", "GET") == MHD_YES);
  return isComplete ? MHD_queue_response(connection, status, response.get()) : MHD_NO;
}

MHD_Result Refuse(MHD_Connection* connection, const Server& server, const std::string& request,
                  const Refusal& refusal) {
  server.callbacks.refused(request, refusal.status, refusal.reason);
  return Reply(connection, refusal.status, "");
}

// --- Callbacks of the library. They must not throw.

// Called once with the headers, then with each piece of the body, then with an empty piece.
MHD_Result HandleRequest(void* data, MHD_Connection* connection, const char* path,
                         const char* method, const char* /*version*/, const char* piece,
                         std::size_t* pieceSize, void** state) try {
  const Server& server = *static_cast<Server*>(data);
  const std::string line = std::string(method) + ' ' + path;
  auto* const request = static_cast<Request*>(*state);
  if (request == nullptr) {
    const Refusal refusal = Check(connection, server, path, method);
    if (!HasAcceptableLength(connection)) {
      return Refuse(connection, server, line,
                    refusal.status != 0
                        ? refusal
                        : Refusal{MHD_HTTP_CONTENT_TOO_LARGE, "the body is too long"});
    }
    *state = new Request{refusal};
    return MHD_YES;
  }
  if (*pieceSize != 0) {
    request->body.append(piece, *pieceSize);
    *pieceSize = 0;
    return MHD_YES;
  }
  if (request->refusal.status != 0) {
    return Refuse(connection, server, line, request->refusal);
  }
  return Reply(connection, MHD_HTTP_OK,
               server.callbacks.answer(
                   MHD_lookup_connection_value(connection, MHD_GET_ARGUMENT_KIND, "FunctionName"),
                   request->body));
} catch (const std::exception&) {
  return MHD_NO;
}

void EndRequest(void* /*data*/, MHD_Connection* /*connection*/, void** state,
                MHD_RequestTerminationCode /*code*/) {
  delete static_cast<Request*>(*state);
  *state = nullptr;
}

// The library closes the connection the next time it checks it.
void Disconnect(MHD_Connection* connection) {
  shutdown(MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd,
           SHUT_RDWR);
}

void HandleConnection(void* data, MHD_Connection* connection, void** /*context*/,
                      MHD_ConnectionNotificationCode code) {
  auto& deadlines = static_cast<Server*>(data)->deadlines;
  if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
    deadlines.erase(connection);
    return;
  }
  try {
    deadlines[connection] = Clock::now() + CONNECTION_TIMEOUT;
  } catch (const std::exception&) {
    Disconnect(connection);
  }
}

__attribute__((format(printf, 2, 0))) void HandleMessage(void* data, const char* format,
                                                         va_list arguments) try {
  char text[256];
  std::vsnprintf(text, sizeof text, format, arguments);
  const std::string message = text;
  static_cast<Server*>(data)->callbacks.failed(message.substr(0, message.find('\n')));
} catch (const std::exception&) {
  // Out of memory: it cannot be logged.
}

// --- The loop

// Waits for events, but at most half a second: a connection may time out meanwhile, and after
// connections or descriptors ran out the library has to run to listen again.
void Wait(MHD_Daemon* daemon) {
  constexpr int MILLISECONDS = 500;
  int limit = MILLISECONDS;
  MHD_UNSIGNED_LONG_LONG wanted = 0;
  if (MHD_get_timeout(daemon, &wanted) == MHD_YES) {
    limit = static_cast<int>(std::min<MHD_UNSIGNED_LONG_LONG>(wanted, MILLISECONDS));
  }
  pollfd ready = {MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, POLLIN, 0};
  poll(&ready, 1, limit);
}

}  // namespace

int ListenHttp(const std::string& address, std::uint16_t port) {
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(port);
  if (inet_pton(AF_INET, address.c_str(), &own.sin_addr) != 1) {
    errno = EINVAL;
    return -1;
  }
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (listener == -1) {
    return -1;
  }
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  const bool isListening =
      bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 &&
      listen(listener, SOMAXCONN) == 0;
  return isListening ? listener : -1;
}

bool ServeHttp(int listener, const std::string& address, std::uint16_t port,
               const HttpCallbacks& callbacks) {
  Server server{address, port, callbacks};
  MHD_Daemon* const daemon = MHD_start_daemon(
      MHD_USE_EPOLL | MHD_USE_ERROR_LOG, port, nullptr, nullptr, HandleRequest, &server,
      MHD_OPTION_EXTERNAL_LOGGER, HandleMessage, static_cast<void*>(&server),
      MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT, MAX_CONNECTIONS,
      MHD_OPTION_CONNECTION_MEMORY_LIMIT, CONNECTION_MEMORY_BYTES, MHD_OPTION_NOTIFY_COMPLETED,
      EndRequest, nullptr, MHD_OPTION_NOTIFY_CONNECTION, HandleConnection,
      static_cast<void*>(&server), MHD_OPTION_END);
  if (daemon == nullptr) {
    return false;
  }
  while (true) {
    Wait(daemon);
    for (const auto& [connection, deadline] : server.deadlines) {
      if (Clock::now() >= deadline) {
        Disconnect(connection);
      }
    }
    MHD_run(daemon);
  }
}
