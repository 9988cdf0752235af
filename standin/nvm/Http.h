// The HTTP side of the nVm service: libmicrohttpd, limited to what the service's clients send.
//
// One thread: clients cannot exhaust a pool, and nothing needs a lock. A connection carries one
// request, a GET. `answer` refuses an empty body as no packet, and no web page can make a browser
// send a GET with a body:
//
//   GET /nVm?FunctionName=NAME
//   Host             the address of the service, with or without its port
//   Content-length   the body's, at most 4 KiB
//
// Besides these it accepts the headers that HTTP libraries send: Accept, User-Agent, Content-type,
// Connection and Accept-Encoding, each at most once. Everything else gets an HTTP error status and
// an empty body, and `answer` is not called.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct HttpCallbacks {
  // The body of the reply to a request.
  std::function<std::string(const std::string& function, const std::string& body)> answer;
  // Called for a refused request, with its method and path, unchanged, and the reason.
  std::function<void(const std::string& request, unsigned status, const std::string& reason)>
      refused;
  // Called with the library's own messages: a request that is not HTTP, no descriptors left.
  std::function<void(const std::string& message)> failed;
};

// A listening socket, which the caller owns, or -1 with errno set.
int ListenHttp(const std::string& address, std::uint16_t port);

// Serves the requests of `listener`, which ListenHttp made for the same address and port. An
// exception of a callback ends only that connection. Returns only when the library does not start:
// false.
bool ServeHttp(int listener, const std::string& address, std::uint16_t port,
               const HttpCallbacks& callbacks);
