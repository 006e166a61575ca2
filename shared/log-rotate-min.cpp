#include "log-rotate-min.hpp"

#include <sys/stat.h>

#include <cstdio>

int QMLogCheckLogSwitch(const char* filename, size_t maxsize_mb) {
  if (filename == nullptr || maxsize_mb == 0) return 0;
  struct stat st {};
  if (stat(filename, &st) != 0) return -1;
  if (static_cast<size_t>(st.st_size) < (maxsize_mb << 20)) return 0;

  char rotated[4096];
  int n = snprintf(rotated, sizeof rotated, "%s.1", filename);
  if (n < 1 || n >= static_cast<int>(sizeof rotated)) return -1;
  // Replaces an earlier ".1"; the next append starts a fresh file.
  (void)rename(filename, rotated);
  return 0;
}
