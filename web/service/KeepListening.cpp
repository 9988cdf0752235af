// Stands before lighttpd in its service: the sockets on which it listens outlive it, so whoever
// connects while it is started anew waits in the kernel's queue and is not refused.
//
//   keep-listening LIGHTTPD CONFIGURATION
//
// Asks lighttpd which addresses its configuration names, listens on each, gives systemd a copy of
// the sockets (FileDescriptorStoreMax= of the unit), and becomes lighttpd, which takes them over as
// those of socket activation. systemd hands the copies to the next start, and closes them when the
// service is stopped. A socket whose address the configuration does not name any more is shut down:
// that refuses clients at once, and makes systemd forget it.
//
// Addresses that are not numeric lighttpd opens itself, and all where there is no systemd. So it
// does with what could not be opened here, and tells why.
//
// In C, but for the names, like the gate.

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

constexpr int FIRST = 3;  // systemd's descriptors begin here
constexpr int MOST = 16;  // the unit's FileDescriptorStoreMax=
constexpr int QUEUE = 128;

struct Address {
  sockaddr_storage name;
  socklen_t length;
  bool isTaken;
};

Address addresses[MOST];
int count = 0;

// HOST:PORT, as lighttpd's configuration has it; the host of IPv6 in brackets or without.
void AddAddress(char* text) {
  char* const colon = std::strrchr(text, ':');
  if (colon == nullptr || count == MOST) {
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

// Of what `lighttpd -p` prints: the address of the server, and those of its own conditions.
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
    // What is wrong it says once more when it is started.
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

// The address on which the socket listens, or none.
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

// As lighttpd does it. -1 when it cannot be done.
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
      listen(listener, QUEUE) == -1) {
    close(listener);
    return -1;
  }
  return listener;
}

// systemd keeps a copy of the socket.
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

// Moves the socket to where the next one of systemd's is looked for.
void HandOn(int listener, int* next) {
  if (listener != *next) {
    dup2(listener, *next);
    close(listener);
  }
  ++*next;
}

// The number of sockets that systemd gave us.
int Given() {
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
  const int end = FIRST + Given();
  int next = FIRST;
  if (systemd != nullptr) {
    AskForAddresses(argv[1], argv[2]);
  }
  for (int given = FIRST; given < end; ++given) {
    Address* const address = AddressOf(given);
    if (address == nullptr || address->isTaken) {
      shutdown(given, SHUT_RDWR);
      close(given);
    } else {
      address->isTaken = true;
      HandOn(given, &next);
    }
  }
  for (const Address& address : addresses) {
    const int listener = address.length == 0 || address.isTaken ? -1 : Listen(address);
    if (listener != -1) {
      Store(listener, systemd);
      HandOn(listener, &next);
    }
  }
  unsetenv("NOTIFY_SOCKET");
  unsetenv("LISTEN_FDNAMES");
  unsetenv("LISTEN_FDS");
  if (next != FIRST) {
    char text[24];
    std::snprintf(text, sizeof text, "%d", next - FIRST);
    setenv("LISTEN_FDS", text, 1);
    std::snprintf(text, sizeof text, "%ld", static_cast<long>(getpid()));
    setenv("LISTEN_PID", text, 1);
  }
  execl(argv[1], argv[1], "-D", "-f", argv[2], static_cast<char*>(nullptr));
  std::fprintf(stderr, "keep-listening: %s: %s\n", argv[1], std::strerror(errno));
  return EXIT_FAILURE;
}
