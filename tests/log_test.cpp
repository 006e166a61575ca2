// The logger's line formats, thresholds, silent mode, rotation and error texts. The
// screen lines are the subject here, so standard error itself is captured.
#include "test_prelude.hpp"

#include "log-rotate-min.hpp"

namespace {

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    log_set_level(QMLOG_OFF);
    log_set_filename(nullptr);
    log_set_screentrace(0);
    log_set_quiet(0);
    log_set_maxsize(0);
    log_set_lock(nullptr);
    qm__progname = "qm-av-broker";
  }
  void TearDown() override { SetUp(); }

  // What one line at `level` writes to standard error.
  static std::string screen_of(int level, const char* message = "m", int line = 1) {
    ::testing::internal::CaptureStderr();
    log_log(level, "fn", "a.cpp", line, "%s", message);
    return ::testing::internal::GetCapturedStderr();
  }

  TempDir dir_;
  const std::string path_ = dir_.file("broker.log");
};

const std::string kStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3,4}\])";
const std::string kPidTid = " PID: +" + std::to_string(getpid()) + R"( TID: +\d+ )";

TEST_F(LogTest, ScreenAndFileLinesHaveTheirFormats) {
  log_set_level(QMLOG_INFO);
  log_set_screentrace(1);
  log_set_filename(path_.c_str());
  qm__progname = "/opt/bin/broker";
  const std::string screen = screen_of(QMLOG_WARN, "value=7", 42);
  EXPECT_TRUE(std::regex_match(screen, std::regex(kStamp + " \x1b\\[33mWARN " + kPidTid +
                                                  R"(/opt/bin/broker:fn\(\): value=7 \x1b\[90m\(a\.cpp:42\)\x1b\[0m \n)")))
      << screen;
  const std::string file = read_file(path_);
  EXPECT_TRUE(std::regex_match(file, std::regex(kStamp + " WARN " + kPidTid + R"(/opt/bin/broker:fn\(\): value=7\n)")))
      << file;

  // The source suffix goes into the file only at the trace threshold.
  log_set_level(QMLOG_TRACE);
  screen_of(QMLOG_INFO, "at-trace", 10);
  EXPECT_TRUE(read_file(path_).ends_with("at-trace (a.cpp:10)\n"));

  const char* names[] = {"OFF  ", "FATAL", "ERROR", "WARN ", "INFO ", "DEBUG", "TRACE"};
  const char* colours[] = {"\x1b[94m", "\x1b[36m", "\x1b[31m", "\x1b[33m", "\x1b[32m", "\x1b[35m", "\x1b[34m"};
  for (int level = QMLOG_OFF; level <= QMLOG_TRACE; ++level) {
    EXPECT_NE(screen_of(level).find(std::string(colours[level]) + names[level] + " PID:"), std::string::npos) << level;
  }

  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  log_debug("hello %s", "world");
  EXPECT_LOGGED(::testing::internal::GetCapturedStderr(),
      "/opt/bin/broker:TestBody(): hello world \x1b[90m(log_test.cpp:" + std::to_string(line) + ")");
}

// Where one line goes, by threshold, screen trace, quiet mode and file.
TEST_F(LogTest, ThresholdsScreenTraceQuietAndFileDecideWhereALineGoes) {
  const struct {
    int threshold;
    int screentrace;
    bool file;
    int quiet;
    int level;
    bool on_screen;
    bool in_file;
  } cases[] = {
      {QMLOG_WARN, 1, false, 0, QMLOG_INFO, false, false},
      {QMLOG_WARN, 1, false, 0, QMLOG_ERROR, true, false},
      {QMLOG_OFF, 1, false, 0, QMLOG_FATAL, false, false},    // the initial threshold: nothing
      {QMLOG_TRACE, 0, false, 0, QMLOG_FATAL, false, false},  // neither file nor screen trace: silent
      {100, 1, false, 0, 7, false, false},                    // levels out of range
      {100, 1, false, 0, -1, false, false},
      {QMLOG_INFO, 0, true, 0, QMLOG_INFO, true, true},  // not quiet: the screen as well
      {QMLOG_INFO, 0, true, 1, QMLOG_INFO, false, true},
      {QMLOG_INFO, 1, true, 1, QMLOG_INFO, true, true},  // screen trace overrides quiet
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "threshold " << c.threshold << " screentrace " << c.screentrace << " file "
                                    << c.file << " quiet " << c.quiet << " level " << c.level);
    fs::remove(path_);
    log_set_level(c.threshold);
    log_set_screentrace(c.screentrace);
    log_set_filename(c.file ? path_.c_str() : nullptr);
    log_set_quiet(c.quiet);
    EXPECT_EQ(screen_of(c.level, "the-line").find("the-line") != std::string::npos, c.on_screen);
    EXPECT_EQ(read_file(path_).find("the-line") != std::string::npos, c.in_file);
  }
}

TEST_F(LogTest, FileProblemsDropTheLine) {
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  const std::string unopenable = dir_.file("missing-dir/broker.log");
  log_set_filename(unopenable.c_str());
  EXPECT_EQ(screen_of(QMLOG_INFO), "");

  log_set_filename(path_.c_str());
  log_set_lock([](void*, int lock) { return lock ? -1 : 0; });
  EXPECT_EQ(screen_of(QMLOG_INFO),
            "quillmere Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n");
  EXPECT_EQ(read_file(path_), "");
}

// Rotation happens before the line is appended, once the file has reached the threshold.
TEST_F(LogTest, RotationRenamesAtExactlyTheThresholdAndKeepsOneGeneration) {
  log_set_filename(path_.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  log_set_maxsize(1);
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "first");  // a missing file is created
  EXPECT_NE(read_file(path_).find("first"), std::string::npos);

  write_file(path_, std::string(1048575, 'a'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "below");
  EXPECT_FALSE(fs::exists(path_ + ".1"));

  write_file(path_, std::string(1048576, 'b'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "after-rotation");
  EXPECT_EQ(fs::file_size(path_ + ".1"), 1048576u);
  const std::string fresh = read_file(path_);
  EXPECT_NE(fresh.find("after-rotation"), std::string::npos);
  EXPECT_LT(fresh.size(), 200u);

  write_file(path_, std::string(1048576, 'c'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "second");
  EXPECT_EQ(read_file(path_ + ".1"), std::string(1048576, 'c'));  // the older .1 is replaced

  EXPECT_EQ(QMLogCheckLogSwitch(nullptr, 1), 0);
  EXPECT_EQ(QMLogCheckLogSwitch(path_.c_str(), 0), 0);
  EXPECT_EQ(QMLogCheckLogSwitch(dir_.file("absent.log").c_str(), 1), -1);
  EXPECT_EQ(QMLogCheckLogSwitch((dir_.path().string() + "/" + std::string(4090, 'n')).c_str(), 1), -1);
}

// What a value from outside looks like in a line: nothing in it can end the line, start
// another, steer the terminal or run on without bound.
TEST(LogSafe, EscapesControlsAndBrokenUtf8AndCapsTheLength) {
  using namespace std::string_literals;
  std::string escaped_newlines;
  for (int i = 0; i < 128; ++i) escaped_newlines += "\\n";
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"", ""},
      {"a\nINFO forged"s, "a\\nINFO forged"},
      {"\r\t\\"s, "\\r\\t\\\\"},
      {"nul\0x"s, "nul\\x00x"},
      {"\x1b[31mred\x7f"s, "\\x1b[31mred\\x7f"},
      {"gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac \xf0\x9f\x94\x92"s, "gr\xc3\xbc\xc3\x9f" "e \xe2\x82\xac \xf0\x9f\x94\x92"},
      {"nel\xc2\x85ls\xe2\x80\xa8ps\xe2\x80\xa9"s, "nel\\u0085ls\\u2028ps\\u2029"},
      {"\xff\xc0\xaf"s, "\\xff\\xc0\\xaf"},                // never valid; an overlong '/'
      {"\xed\xa0\x80"s, "\\xed\\xa0\\x80"},                // a UTF-16 surrogate
      {"cut \xe2\x82"s, "cut \\xe2\\x82"},                 // a sequence that stops short
      {std::string(300, 'u'), std::string(256, 'u') + "...(300 bytes)"},
      {std::string(200, '\n'), escaped_newlines + "...(200 bytes)"},
      {std::string(255, 'a') + "\xc3\xa9", std::string(255, 'a') + "...(257 bytes)"},  // never half a character
  };
  for (const auto& c : cases) EXPECT_EQ(log_safe(c.in), c.out) << c.in;
  EXPECT_EQ(log_safe(static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(log_safe(std::string(1000000, 'x')).size(), LOG_SAFE_MAX_BYTES + std::string("...(1000000 bytes)").size());
}

}  // namespace
