#include "gw_sasl_setup.hpp"

#include <dirent.h>
#include <glob.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.hpp"

namespace {

constexpr char kRuntimeDirPrefix[] = "/tmp/qm-av-broker-";

// The pid a runtime directory belongs to, or 0 when its suffix is not a whole positive number.
long s_runtime_dir_pid(const char* path) {
  const char* suffix = path + strlen(kRuntimeDirPrefix);
  if (*suffix < '0' || *suffix > '9') return 0;  // also rules out blanks and signs strtol would take
  char* end = nullptr;
  errno = 0;
  const long pid = strtol(suffix, &end, 10);
  if (errno != 0 || *end != '\0' || pid < 1 || pid > INT_MAX) return 0;
  return pid;
}

// Only a pid the kernel reports as absent is stale; EPERM means it lives under another user.
bool s_process_gone(long pid) { return kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH; }

// Empties "<dir>/sasl" (one level, no recursion) and removes it.
void s_remove_sasl_dir(const char* dir) {
  char sasl_dir[4096];
  int n = snprintf(sasl_dir, sizeof sasl_dir, "%s/sasl", dir);
  if (n < 0 || n >= static_cast<int>(sizeof sasl_dir)) return;
  if (DIR* d = opendir(sasl_dir)) {
    while (dirent* entry = readdir(d)) {
      if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
      char file[4096];
      n = snprintf(file, sizeof file, "%s/%s", sasl_dir, entry->d_name);
      if (n < 0 || n >= static_cast<int>(sizeof file)) continue;
      unlink(file);
    }
    closedir(d);
  }
  rmdir(sasl_dir);
}

}  // namespace

void sweep_stale_sasl_runtime_dirs() {
  glob_t matches{};
  const int rc = glob("/tmp/qm-av-broker-*", 0, nullptr, &matches);
  if (rc != 0) {
    globfree(&matches);
    return;
  }
  for (size_t i = 0; i < matches.gl_pathc; ++i) {
    const char* dir = matches.gl_pathv[i];
    const long pid = s_runtime_dir_pid(dir);
    if (pid == 0 || !s_process_gone(pid)) continue;
    s_remove_sasl_dir(dir);
    if (rmdir(dir) == 0)
      log_debug("sweep: removed stale SASL runtime dir %s (pid %ld no longer exists)", dir, pid);
  }
  globfree(&matches);
}
