// An in-memory file that the fuzz targets hand to loaders which take a path.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

class FuzzFile {
 public:
  FuzzFile() : fd_(memfd_create("fuzz-input", MFD_CLOEXEC)) {
    if (fd_ < 0) abort();
    path_ = "/proc/self/fd/" + std::to_string(fd_);
  }
  ~FuzzFile() { close(fd_); }
  FuzzFile(const FuzzFile&) = delete;
  FuzzFile& operator=(const FuzzFile&) = delete;

  // Replaces the content; the returned path opens it from the start.
  const std::string& set(const uint8_t* data, size_t size) {
    if (ftruncate(fd_, 0) != 0) abort();
    size_t done = 0;
    while (done < size) {
      const ssize_t n = pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
      if (n <= 0) abort();
      done += static_cast<size_t>(n);
    }
    return path_;
  }

 private:
  int fd_;
  std::string path_;
};
