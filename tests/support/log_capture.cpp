#include "log_capture.hpp"

#include "log.hpp"

namespace qmtest {

LogCapture::LogCapture(int level) : path_(dir_.file("captured.log")) {
  write_file(path_, "");
  log_set_filename(path_.c_str());
  log_set_screentrace(0);
  log_set_quiet(1);
  log_set_level(level);
}

// Back to the logger's initial state, quiet mode included.
LogCapture::~LogCapture() {
  log_set_level(QMLOG_OFF);
  log_set_filename(nullptr);
  log_set_quiet(0);
}

std::string LogCapture::text() const { return read_file(path_); }

size_t LogCapture::count(const std::string& needle) const { return count_in(text(), needle); }

size_t LogCapture::count_in(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size())) ++n;
  return n;
}

bool LogCapture::wait_for(const std::string& needle, std::chrono::milliseconds timeout, size_t times) const {
  return wait_until([&] { return count(needle) >= times; }, timeout);
}

void LogCapture::clear() { write_file(path_, ""); }

::testing::AssertionResult assert_logged(const char* log_expr, const char*, const std::string& text,
                                         const std::string& needle) {
  if (text.find(needle) != std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "not in " << log_expr << ": " << needle << "\n--- " << log_expr << ":\n"
                                       << text;
}

::testing::AssertionResult assert_not_logged(const char* log_expr, const char*, const std::string& text,
                                             const std::string& needle) {
  if (text.find(needle) == std::string::npos) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "unexpectedly in " << log_expr << ": " << needle;
}

}  // namespace qmtest
