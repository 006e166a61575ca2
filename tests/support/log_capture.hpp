// Sends the process logger to a temporary file for the lifetime of the object, so that
// a test can read exactly what a module logged. One at a time per process.
#pragma once

#include <chrono>
#include <string>

#include "log.hpp"
#include "test_support.hpp"

namespace qmtest {

class LogCapture {
 public:
  // level: the logger threshold while capturing (QMLOG_DEBUG by default).
  explicit LogCapture(int level = QMLOG_DEBUG);
  ~LogCapture();
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string text() const;
  size_t count(const std::string& needle) const;
  bool contains(const std::string& needle) const { return count(needle) > 0; }
  bool wait_for(const std::string& needle, std::chrono::milliseconds timeout, size_t times = 1) const;
  // Forgets what was captured so far.
  void clear();

  // Occurrences of needle in text (a child's output, say).
  static size_t count_in(const std::string& text, const std::string& needle);

 private:
  TempDir dir_;
  std::string path_;
};

}  // namespace qmtest
