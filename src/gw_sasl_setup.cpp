#include "gw_sasl_setup.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <vector>

#include "log.hpp"
#include "qm_handles.hpp"

namespace {

constexpr char kRuntimeDirPrefix[] = "/tmp/qm-av-broker-";

// The pid a runtime directory's name ends in, or 0 when that suffix is not a whole
// positive number.
long s_runtime_dir_pid(const char* suffix) {
  if (*suffix < '0' || *suffix > '9') return 0;  // also rules out blanks and signs strtol would take
  char* end = nullptr;
  errno = 0;
  const long pid = strtol(suffix, &end, 10);
  if (errno != 0 || *end != '\0' || pid < 1 || pid > INT_MAX) return 0;
  return pid;
}

// Only a pid the kernel reports as absent is stale; EPERM means it lives under another user.
bool s_process_gone(long pid) { return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

// In a world-writable /tmp anyone can plant a name: only a real directory of this user's
// is ours to empty.
bool s_own_directory(const struct stat& st) { return S_ISDIR(st.st_mode) && st.st_uid == geteuid(); }

// `name` below dir_fd, opened as a directory of ours without following a symbolic link;
// closed when it is anything else, or was swapped between the look and the open.
qm::unique_fd s_open_own_dir(int dir_fd, const char* name) {
  struct stat seen {};
  if (fstatat(dir_fd, name, &seen, AT_SYMLINK_NOFOLLOW) != 0 || !s_own_directory(seen)) return {};
  qm::unique_fd fd(openat(dir_fd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  struct stat opened {};
  if (!fd || fstat(fd.get(), &opened) != 0 || !s_own_directory(opened) || opened.st_dev != seen.st_dev ||
      opened.st_ino != seen.st_ino)
    return {};
  return fd;
}

// The names in the directory open at dir_fd, "." and ".." left out.
std::vector<std::string> s_entries(int dir_fd) {
  std::vector<std::string> names;
  const int listing_fd = dup(dir_fd);  // closedir closes its own descriptor
  if (listing_fd < 0) return names;
  qm::dir_ptr listing(fdopendir(listing_fd));
  if (!listing) {
    close(listing_fd);
    return names;
  }
  while (const dirent* entry = readdir(listing.get())) {
    if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0) names.emplace_back(entry->d_name);
  }
  return names;
}

// Empties "sasl" below the runtime directory (one level: entries are unlinked, links
// included, never followed; a nested directory stays) and removes it.
void s_remove_sasl_dir(int runtime_fd) {
  {
    const qm::unique_fd sasl = s_open_own_dir(runtime_fd, "sasl");
    if (!sasl) return;
    for (const std::string& name : s_entries(sasl.get())) unlinkat(sasl.get(), name.c_str(), 0);
  }
  unlinkat(runtime_fd, "sasl", AT_REMOVEDIR);
}

}  // namespace

void sweep_stale_sasl_runtime_dirs() { sweep_stale_sasl_runtime_dirs_at(kRuntimeDirPrefix); }

void sweep_stale_sasl_runtime_dirs_at(const char* prefix) {
  if (prefix == nullptr) return;
  try {
    const std::string full(prefix);
    const size_t slash = full.rfind('/');
    if (slash == std::string::npos) return;
    const std::string parent = slash == 0 ? "/" : full.substr(0, slash);
    const std::string name_prefix = full.substr(slash + 1);
    const qm::unique_fd parent_fd(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parent_fd) return;
    for (const std::string& name : s_entries(parent_fd.get())) {
      if (name.compare(0, name_prefix.size(), name_prefix) != 0) continue;
      const long pid = s_runtime_dir_pid(name.c_str() + name_prefix.size());
      if (pid == 0 || !s_process_gone(pid)) continue;
      {
        const qm::unique_fd runtime = s_open_own_dir(parent_fd.get(), name.c_str());
        if (!runtime) continue;
        s_remove_sasl_dir(runtime.get());
      }
      if (unlinkat(parent_fd.get(), name.c_str(), AT_REMOVEDIR) == 0)
        log_debug("sweep: removed stale SASL runtime dir %s (pid %ld no longer exists)",
                  (full.substr(0, slash + 1) + name).c_str(), pid);
    }
  } catch (const std::bad_alloc&) {
    // Nothing swept: the directories wait for the next start.
  }
}
