#include "qmhlp_network.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.hpp"
#include "qmerror.hpp"

namespace {

constexpr size_t kHostBufferSize = 2048;
constexpr int kConnectTimeoutSec = 3;

char s_fqdn[kHostBufferSize];
char s_ip[kHostBufferSize];

// A dotted quad is used as it is; a name takes its first IPv4 address; a name that does
// not resolve gives 0.0.0.0, and the connect then fails.
in_addr in_build_addr(const char* server) {
  log_debug("Resolving %s", server);
  in_addr addr{};
  if (inet_aton(server, &addr) != 0) return addr;
  const hostent* he = gethostbyname(server);
  if (he != nullptr && he->h_addrtype == AF_INET && he->h_addr_list[0] != nullptr) {
    memcpy(&addr, he->h_addr_list[0], sizeof addr);
  } else {
    addr.s_addr = htonl(INADDR_ANY);
  }
  return addr;
}

// Waits for a non-blocking connect to finish; true when it did without error.
bool s_connect_completed(int fd, char* error) {
  fd_set writable;
  FD_ZERO(&writable);
  FD_SET(fd, &writable);
  timeval timeout{kConnectTimeoutSec, 0};
  const int ready = select(fd + 1, nullptr, &writable, nullptr, &timeout);
  if (ready == 0) {
    snprintf(error, QMHLP_ERROR_BUFFER_SIZE, "connect timed out after %ds", kConnectTimeoutSec);
    return false;
  }
  if (ready < 0) {
    snprintf(error, QMHLP_ERROR_BUFFER_SIZE, "select failed: %s", QMstrerror(errno));
    return false;
  }
  int pending = 0;
  socklen_t len = sizeof pending;
  if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &len) != 0 || pending != 0) return false;
  return true;
}

int s_try_connect(const char* server, int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(static_cast<uint16_t>(port));
  addr.sin_addr = in_build_addr(server);
  int result = 0;
  const int flags = fcntl(fd, F_GETFL, 0);
  if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) != 0) {
    result = -2;
  } else if (connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
    // The reason goes to a scratch buffer: the caller's buffer is only filled at the end.
    char scratch[QMHLP_ERROR_BUFFER_SIZE];
    if (errno != EINPROGRESS || !s_connect_completed(fd, scratch)) result = -2;
  }
  close(fd);
  return result;
}

}  // namespace

int qmhlp_CheckConnect(const char* server, const char* port_s, char* error) {
  char scratch[QMHLP_ERROR_BUFFER_SIZE] = "";
  if (error == nullptr) error = scratch;
  if (server == nullptr || port_s == nullptr) {
    snprintf(error, QMHLP_ERROR_BUFFER_SIZE, "Failed to convert port value to integer: %s", "(null)");
    return -1;
  }
  log_trace("Checking connection to %s:%s", server, port_s);
  errno = 0;
  const long port = strtol(port_s, nullptr, 10);
  if (port == 0 && errno == EINVAL) {
    snprintf(error, QMHLP_ERROR_BUFFER_SIZE, "Failed to convert port value to integer: %s", QMstrerror(errno));
    return -1;
  }
  const int result = s_try_connect(server, static_cast<int>(port));
  if (result != 0) {
    // Logged before the buffer is filled, so the line shows what the caller passed in.
    log_warn("Failed to connect to %s:%s: %s", server, port_s, error);
    snprintf(error, QMHLP_ERROR_BUFFER_SIZE, "Failed to connect to %s:%d", server, static_cast<int>(port));
    return result;
  }
  log_debug("Connection to %s:%s successful", server, port_s);
  return 0;
}

const char* qmhlp_GetMyFQDN() {
  if (gethostname(s_fqdn, sizeof s_fqdn) != 0) {
    log_error("Failed to get hostname");
    return nullptr;
  }
  s_fqdn[sizeof s_fqdn - 1] = '\0';
  return s_fqdn;
}

const char* qmhlp_GetMyIP() {
  char name[kHostBufferSize];
  if (gethostname(name, sizeof name) != 0) {
    log_error("Failed to get hostname");
    return nullptr;
  }
  name[sizeof name - 1] = '\0';
  const hostent* he = gethostbyname(name);
  if (he == nullptr) {
    log_error("Failed to get host by name");
    return nullptr;
  }
  if (he->h_addrtype != AF_INET || he->h_addr_list[0] == nullptr) return nullptr;
  in_addr addr{};
  memcpy(&addr, he->h_addr_list[0], sizeof addr);
  if (inet_ntop(AF_INET, &addr, s_ip, sizeof s_ip) == nullptr) return nullptr;
  return s_ip;
}
