// Routes the process logger into a temporary file for the life of the object, so that a
// test can check the exact lines a module wrote.
#pragma once

#include <string>

#include "log.hpp"
#include "test_support.hpp"

namespace qmtest {

class CapturedLog {
 public:
  CapturedLog() : path_(dir_.file("log")) {
    previous_level_ = log_get_level();
    log_set_filename(path_.c_str());
    log_set_level(QMLOG_TRACE);
  }
  ~CapturedLog() {
    log_set_filename(nullptr);
    log_set_level(previous_level_);
  }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::string text() const { return read_file(path_); }
  bool contains(const std::string& needle) const { return text().find(needle) != std::string::npos; }

 private:
  TempDir dir_;
  std::string path_;
  int previous_level_ = 0;
};

}  // namespace qmtest
