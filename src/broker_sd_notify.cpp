#include "broker_sd_notify.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMaxSocketName = sizeof(sockaddr_un::sun_path) - 1;  // 107

// Fills addr from the NOTIFY_SOCKET text; false (errno ENAMETOOLONG) when it does not fit.
bool s_build_address(const char* name, sockaddr_un& addr) {
  addr = {};
  addr.sun_family = AF_UNIX;
  if (name[0] == '@') {
    const size_t len = strlen(name) - 1;
    if (len > kMaxSocketName) {
      errno = ENAMETOOLONG;
      return false;
    }
    addr.sun_path[0] = '\0';
    memcpy(addr.sun_path + 1, name + 1, len);
    return true;
  }
  const size_t len = strlen(name);
  if (len > kMaxSocketName) {
    errno = ENAMETOOLONG;
    return false;
  }
  memcpy(addr.sun_path, name, len + 1);
  return true;
}

}  // namespace

int broker_sd_notify(const char* state) {
  if (state == nullptr) return 0;
  const char* name = getenv("NOTIFY_SOCKET");
  if (name == nullptr || name[0] == '\0') return 0;

  sockaddr_un addr{};
  if (!s_build_address(name, addr)) return -1;
  const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  // Always the full structure size, also for abstract names: an abstract name is then
  // padded with zero bytes, which the service manager's own socket is bound with too.
  const ssize_t sent = sendto(fd, state, strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&addr),
                              sizeof addr);
  const int send_errno = errno;
  close(fd);
  if (sent < 0) {
    errno = send_errno;
    return -1;
  }
  return 0;
}
