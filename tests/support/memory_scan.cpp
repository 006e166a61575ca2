#include "memory_scan.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "qm_handles.hpp"

namespace qmtest {

namespace {

// Far above any heap region a test makes; the sanitizers' shadow memory is larger.
constexpr unsigned long kLargestScanned = 128ul << 20;

struct region {
  unsigned long start;
  unsigned long end;
};

std::vector<region> s_writable_regions() {
  std::ifstream maps("/proc/self/maps");
  std::vector<region> out;
  std::string line;
  while (std::getline(maps, line)) {
    unsigned long start = 0;
    unsigned long end = 0;
    char perms[5] = {};
    if (sscanf(line.c_str(), "%lx-%lx %4s", &start, &end, perms) != 3) continue;
    if (perms[0] != 'r' || perms[1] != 'w' || perms[3] != 'p') continue;
    if (line.find("[stack]") != std::string::npos || line.find("[vvar]") != std::string::npos) continue;
    if (end - start > kLargestScanned) continue;
    out.push_back({start, end});
  }
  return out;
}

}  // namespace

size_t occurrences_in_own_memory(std::string_view needle) {
  if (needle.empty()) return 0;
  const qm::unique_fd mem(open("/proc/self/mem", O_RDONLY | O_CLOEXEC));
  if (!mem) throw std::runtime_error("cannot open /proc/self/mem");
  // The region list comes first: the buffer below then lies in a region of its own or
  // in one already listed, and holds only what it copied from elsewhere.
  const std::vector<region> regions = s_writable_regions();
  constexpr size_t kChunk = 1 << 20;
  std::string buffer(kChunk + needle.size(), '\0');
  size_t found = 0;
  for (const region& r : regions) {
    size_t carried = 0;  // the tail of the previous chunk, so a match across chunks counts
    for (unsigned long at = r.start; at < r.end; at += kChunk) {
      const size_t want = std::min<unsigned long>(kChunk, r.end - at);
      const ssize_t got = pread(mem.get(), buffer.data() + carried, want, static_cast<off_t>(at));
      if (got <= 0) break;
      const std::string_view window(buffer.data(), carried + static_cast<size_t>(got));
      for (size_t pos = window.find(needle); pos != std::string_view::npos; pos = window.find(needle, pos + 1)) ++found;
      carried = std::min(needle.size() - 1, window.size());
      std::copy(window.end() - static_cast<long>(carried), window.end(), buffer.begin());
    }
  }
  return found;
}

}  // namespace qmtest
