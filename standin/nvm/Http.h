// The HTTP side of the nVm service: libmicrohttpd, held to what the service's clients send.
//
// One thread, so that there is none to be exhausted and nothing to be locked. A connection carries
// one request. Served is a GET with its order in its body, which no web page can make a browser
// send:
//
//   GET /nVm?FunctionName=NAME
//   Host             the address of the service, with or without its port
//   Content-length   the body's, at most 4 KiB
//
// and beside these no other headers than Accept, User-Agent, Content-type, Connection and
// Accept-Encoding, which HTTP libraries send, each once at most. Everything else gets an HTTP error
// status and an empty body, and reaches nobody.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

struct HttpUser {
  // The body of the reply to a request.
  std::function<std::string(const std::string& function, const std::string& body)> answer;
  // Hears of a request that was refused: its method and path, and why. Both are as they came.
  std::function<void(const std::string& request, unsigned status, const std::string& reason)>
      refused;
  // Hears what the library has to say: a request that is no HTTP, a want of descriptors.
  std::function<void(const std::string& message)> failed;
};

// A listening socket, or -1 with errno set. The caller's.
int ListenHttp(const std::string& address, std::uint16_t port);

// Serves the requests of `listener`, which ListenHttp made for the same address and port. What
// `user` throws costs the one connection. Returns only when the library does not start: false.
bool ServeHttp(int listener, const std::string& address, std::uint16_t port, const HttpUser& user);
