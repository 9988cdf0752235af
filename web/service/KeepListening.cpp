// Starts lighttpd in its service and keeps its listening sockets open over a restart: a client that
// connects meanwhile waits in the kernel's queue and is not refused.
//
//   keep-listening LIGHTTPD CONFIGURATION
//
// It asks lighttpd for the addresses of its configuration and listens on each. systemd stores a
// copy of the sockets (the unit's FileDescriptorStoreMax=). Then it becomes lighttpd, which takes
// the sockets over as by socket activation. systemd passes the copies to the next start, and closes
// them when the service is stopped. A socket whose address is no longer in the configuration is
// shut down: that refuses clients at once, and makes systemd drop its copy.
//
// lighttpd itself opens addresses that are not numeric, and all of them where there is no systemd.
// It also opens those that failed here, and reports why.
//
// No C++ runtime, like the gate.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr int FIRST_DESCRIPTOR = 3;  // systemd's descriptors begin here
constexpr int MAX_SOCKETS = 16;      // the unit's FileDescriptorStoreMax=
constexpr int BACKLOG = 128;

struct Address {
  sockaddr_storage name;
  socklen_t length;
  bool isTaken;
};

Address addresses[MAX_SOCKETS];
int count = 0;

// HOST:PORT, as in lighttpd's configuration; an IPv6 host with brackets or without.
void AddAddress(char* text) {
  char* const colon = std::strrchr(text, ':');
  if (colon == nullptr || count == MAX_SOCKETS) {
    return;
  }
  *colon = '\0';
  char* host = text;
  if (*host == '[' && colon[-1] == ']') {
    colon[-1] = '\0';
    ++host;
  }
  char* end = nullptr;
  const long port = std::strtol(colon + 1, &end, 10);
  if (port < 1 || port > 65535 || *end != '\0') {
    return;
  }
  Address address = {};
  auto* const ip4 = reinterpret_cast<sockaddr_in*>(&address.name);
  auto* const ip6 = reinterpret_cast<sockaddr_in6*>(&address.name);
  if (inet_pton(AF_INET, host, &ip4->sin_addr) == 1) {
    ip4->sin_family = AF_INET;
    ip4->sin_port = htons(static_cast<in_port_t>(port));
    address.length = sizeof *ip4;
  } else if (inet_pton(AF_INET6, host, &ip6->sin6_addr) == 1) {
    ip6->sin6_family = AF_INET6;
    ip6->sin6_port = htons(static_cast<in_port_t>(port));
    address.length = sizeof *ip6;
  } else {
    return;
  }
  addresses[count++] = address;
}

// Reads what `lighttpd -p` prints: the server's address, and those of its socket conditions.
void ReadAddresses(std::FILE* configuration) {
  constexpr char INDENTATION[] = "    ";
  char line[4096];
  char host[80] = "";
  char port[8] = "";
  while (std::fgets(line, sizeof line, configuration) != nullptr) {
    if (std::strncmp(line, INDENTATION, sizeof INDENTATION - 1) != 0) {
      continue;
    }
    const char* const text = line + sizeof INDENTATION - 1;
    char socket[80];
    if (std::sscanf(text, "$SERVER[\"socket\"] == \"%79[^\"]", socket) == 1) {
      AddAddress(socket);
    } else if (std::sscanf(text, "server.bind = \"%79[^\"]", host) != 1) {
      std::sscanf(text, "server.port = %7[0-9]", port);
    }
  }
  char both[sizeof host + sizeof port];
  std::snprintf(both, sizeof both, "%s:%s", host, port);
  AddAddress(both);
}

void AskForAddresses(const char* lighttpd, const char* configuration) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) == -1) {
    return;
  }
  const pid_t child = fork();
  if (child == 0) {
    // lighttpd reports an error in its configuration again when it starts.
    const int nowhere = open("/dev/null", O_RDWR);
    dup2(nowhere, STDERR_FILENO);
    dup2(ends[1], STDOUT_FILENO);
    execl(lighttpd, lighttpd, "-p", "-f", configuration, static_cast<char*>(nullptr));
    _exit(EXIT_FAILURE);
  }
  close(ends[1]);
  std::FILE* const printed = fdopen(ends[0], "r");
  ReadAddresses(printed);
  std::fclose(printed);
  while (child != -1 && waitpid(child, nullptr, 0) == -1 && errno == EINTR) {
  }
}

// The configured address on which the socket listens, or null.
Address* AddressOf(int socket) {
  int isListening = 0;
  socklen_t size = sizeof isListening;
  Address own = {};
  own.length = sizeof own.name;
  if (getsockopt(socket, SOL_SOCKET, SO_ACCEPTCONN, &isListening, &size) == -1 ||
      isListening == 0 ||
      getsockname(socket, reinterpret_cast<sockaddr*>(&own.name), &own.length) == -1) {
    return nullptr;
  }
  for (Address& address : addresses) {
    if (address.length == own.length && std::memcmp(&address.name, &own.name, own.length) == 0) {
      return &address;
    }
  }
  return nullptr;
}

// With the same options as lighttpd. -1: failed.
int Listen(const Address& address) {
  const int listener = socket(address.name.ss_family, SOCK_STREAM, 0);
  if (listener == -1) {
    return -1;
  }
  const int on = 1;
  setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  setsockopt(listener, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  if (address.name.ss_family == AF_INET6) {
    setsockopt(listener, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  }
  if (bind(listener, reinterpret_cast<const sockaddr*>(&address.name), address.length) == -1 ||
      listen(listener, BACKLOG) == -1) {
    close(listener);
    return -1;
  }
  return listener;
}

// Gives systemd a copy of the socket.
void Store(int listener, const char* systemd) {
  char text[] = "FDSTORE=1";
  iovec content = {text, sizeof text - 1};
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof listener)] = {};
  sockaddr_un name = {};
  name.sun_family = AF_UNIX;
  std::snprintf(name.sun_path, sizeof name.sun_path, "%s", systemd);
  msghdr message = {};
  message.msg_name = &name;
  message.msg_namelen =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + std::strlen(name.sun_path));
  if (name.sun_path[0] == '@') {
    name.sun_path[0] = '\0';
  }
  message.msg_iov = &content;
  message.msg_iovlen = 1;
  message.msg_control = room;
  message.msg_controllen = sizeof room;
  cmsghdr* const header = CMSG_FIRSTHDR(&message);
  header->cmsg_level = SOL_SOCKET;
  header->cmsg_type = SCM_RIGHTS;
  header->cmsg_len = CMSG_LEN(sizeof listener);
  std::memcpy(CMSG_DATA(header), &listener, sizeof listener);
  const int sender = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sender == -1 || sendmsg(sender, &message, MSG_NOSIGNAL) == -1) {
    std::fprintf(stderr, "keep-listening: systemd does not keep a socket: %s\n",
                 std::strerror(errno));
  }
  close(sender);
}

// Moves the socket to the next descriptor of socket activation.
void MoveTo(int listener, int* next) {
  if (listener != *next) {
    dup2(listener, *next);
    close(listener);
  }
  ++*next;
}

// The number of sockets that systemd passed to us.
int PassedSockets() {
  const char* const process = std::getenv("LISTEN_PID");
  const char* const number = std::getenv("LISTEN_FDS");
  return process != nullptr && number != nullptr && std::atol(process) == getpid()
             ? std::atoi(number)
             : 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "Usage: keep-listening LIGHTTPD CONFIGURATION\n");
    return EXIT_FAILURE;
  }
  const char* const systemd = std::getenv("NOTIFY_SOCKET");
  const int end = FIRST_DESCRIPTOR + PassedSockets();
  int next = FIRST_DESCRIPTOR;
  if (systemd != nullptr) {
    AskForAddresses(argv[1], argv[2]);
  }
  for (int descriptor = FIRST_DESCRIPTOR; descriptor < end; ++descriptor) {
    Address* const address = AddressOf(descriptor);
    if (address == nullptr || address->isTaken) {
      shutdown(descriptor, SHUT_RDWR);
      close(descriptor);
    } else {
      address->isTaken = true;
      MoveTo(descriptor, &next);
    }
  }
  for (const Address& address : addresses) {
    const int listener = address.length == 0 || address.isTaken ? -1 : Listen(address);
    if (listener != -1) {
      Store(listener, systemd);
      MoveTo(listener, &next);
    }
  }
  unsetenv("NOTIFY_SOCKET");
  unsetenv("LISTEN_FDNAMES");
  unsetenv("LISTEN_FDS");
  if (next != FIRST_DESCRIPTOR) {
    char text[24];
    std::snprintf(text, sizeof text, "%d", next - FIRST_DESCRIPTOR);
    setenv("LISTEN_FDS", text, 1);
    std::snprintf(text, sizeof text, "%ld", static_cast<long>(getpid()));
    setenv("LISTEN_PID", text, 1);
  }
  execl(argv[1], argv[1], "-D", "-f", argv[2], static_cast<char*>(nullptr));
  std::fprintf(stderr, "keep-listening: %s: %s\n", argv[1], std::strerror(errno));
  return EXIT_FAILURE;
}
