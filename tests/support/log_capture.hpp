// Sends the process logger to a temporary file for the lifetime of the object, so that
// a test can read exactly what a module logged. One at a time per process.
#pragma once

#include <gtest/gtest.h>

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

// The text a log assertion reads: a capture's, or a child's output as it is.
inline std::string log_text(const LogCapture& capture) { return capture.text(); }
inline const std::string& log_text(const std::string& text) { return text; }
::testing::AssertionResult assert_logged(const char* log_expr, const char* needle_expr, const std::string& text,
                                         const std::string& needle);
::testing::AssertionResult assert_not_logged(const char* log_expr, const char* needle_expr, const std::string& text,
                                             const std::string& needle);

}  // namespace qmtest

// A log line that is the behaviour under test: `needle` occurs in `log` (a LogCapture or
// a string); on failure the whole log is shown.
#define EXPECT_LOGGED(log, needle) EXPECT_PRED_FORMAT2(::qmtest::assert_logged, ::qmtest::log_text(log), needle)
#define ASSERT_LOGGED(log, needle) ASSERT_PRED_FORMAT2(::qmtest::assert_logged, ::qmtest::log_text(log), needle)
// A text that must never appear (a secret, a step that must not happen).
#define EXPECT_NOT_LOGGED(log, needle) \
  EXPECT_PRED_FORMAT2(::qmtest::assert_not_logged, ::qmtest::log_text(log), needle)
