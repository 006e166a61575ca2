// The logger's line formats, thresholds, silent mode, rotation and error texts.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <regex>
#include <string>

#include "log-rotate-min.hpp"
#include "log.hpp"
#include "qmerror.hpp"
#include "test_support.hpp"

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
    log_set_udata(nullptr);
    qm__progname = "qm-av-broker";
  }
  void TearDown() override { SetUp(); }

  std::string capture_stderr(void (*emit)()) {
    ::testing::internal::CaptureStderr();
    emit();
    return ::testing::internal::GetCapturedStderr();
  }

  qmtest::TempDir dir_;
};

const std::string kStamp = R"(\[\d{4}-\d{2}-\d{2} \d{2}:\d{2}:\d{2}\.\d{3,4}\])";

TEST_F(LogTest, ScreenLineHasStampColouredLevelPidTidProgramFunctionAndGreySuffix) {
  log_set_level(QMLOG_INFO);
  log_set_screentrace(1);
  const std::string out = capture_stderr([] { log_log(QMLOG_WARN, "probe", "unit.cpp", 42, "value=%d", 7); });
  const std::string pattern = kStamp + " \x1b\\[33mWARN  PID: +" + std::to_string(getpid()) +
                              R"( TID: +\d+ qm-av-broker:probe\(\): value=7 \x1b\[90m\(unit\.cpp:42\)\x1b\[0m \n)";
  EXPECT_TRUE(std::regex_match(out, std::regex(pattern))) << out;
}

TEST_F(LogTest, EveryLevelHasItsNameAndColour) {
  log_set_level(QMLOG_TRACE);
  log_set_screentrace(1);
  const char* names[] = {"OFF  ", "FATAL", "ERROR", "WARN ", "INFO ", "DEBUG", "TRACE"};
  const char* colours[] = {"\x1b[94m", "\x1b[36m", "\x1b[31m", "\x1b[33m", "\x1b[32m", "\x1b[35m", "\x1b[34m"};
  for (int level = QMLOG_OFF; level <= QMLOG_TRACE; ++level) {
    ::testing::internal::CaptureStderr();
    log_log(level, "f", "x.cpp", 1, "m");
    const std::string out = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(out.find(std::string(colours[level]) + names[level] + " PID:"), std::string::npos) << out;
  }
}

TEST_F(LogTest, MacrosSupplyFunctionBaseNameAndLine) {
  log_set_level(QMLOG_DEBUG);
  log_set_screentrace(1);
  ::testing::internal::CaptureStderr();
  const int line = __LINE__ + 1;
  log_debug("hello %s", "world");
  const std::string out = ::testing::internal::GetCapturedStderr();
  EXPECT_NE(out.find("():"), std::string::npos);
  EXPECT_NE(out.find("hello world"), std::string::npos);
  EXPECT_NE(out.find("(log_test.cpp:" + std::to_string(line) + ")"), std::string::npos) << out;
}

TEST_F(LogTest, ThresholdDropsMoreVerboseLevels) {
  log_set_screentrace(1);
  log_set_level(QMLOG_WARN);
  const std::string out = capture_stderr([] {
    log_log(QMLOG_INFO, "f", "x.cpp", 1, "info-dropped");
    log_log(QMLOG_WARN, "f", "x.cpp", 1, "warn-kept");
    log_log(QMLOG_ERROR, "f", "x.cpp", 1, "error-kept");
  });
  EXPECT_EQ(out.find("info-dropped"), std::string::npos);
  EXPECT_NE(out.find("warn-kept"), std::string::npos);
  EXPECT_NE(out.find("error-kept"), std::string::npos);
}

TEST_F(LogTest, InitialThresholdIsOffSoNothingIsWritten) {
  log_set_screentrace(1);
  const std::string out = capture_stderr([] { log_log(QMLOG_FATAL, "f", "x.cpp", 1, "never"); });
  EXPECT_EQ(out, "");
}

TEST_F(LogTest, NoFileAndNoScreenTraceIsSilentEvenOnStandardError) {
  log_set_level(QMLOG_TRACE);
  const std::string out = capture_stderr([] { log_log(QMLOG_FATAL, "f", "x.cpp", 1, "silent"); });
  EXPECT_EQ(out, "");
}

TEST_F(LogTest, OutOfRangeLevelsAreIgnored) {
  log_set_level(100);
  log_set_screentrace(1);
  const std::string out = capture_stderr([] {
    log_log(7, "f", "x.cpp", 1, "too-high");
    log_log(-1, "f", "x.cpp", 1, "negative");
  });
  EXPECT_EQ(out, "");
}

TEST_F(LogTest, FileLineIsPlainAndGoesBesideTheScreenLine) {
  const std::string path = dir_.file("broker.log");
  log_set_level(QMLOG_INFO);
  log_set_filename(path.c_str());
  const std::string screen = capture_stderr([] { log_log(QMLOG_INFO, "fn", "a.cpp", 9, "both %s", "ways"); });
  EXPECT_NE(screen.find("\x1b[32mINFO "), std::string::npos);  // quiet is 0: screen too
  const std::string file = qmtest::read_file(path);
  const std::string pattern = kStamp + " INFO  PID: +" + std::to_string(getpid()) +
                              R"( TID: +\d+ qm-av-broker:fn\(\): both ways\n)";
  EXPECT_TRUE(std::regex_match(file, std::regex(pattern))) << file;
}

TEST_F(LogTest, FileLineCarriesSourceSuffixOnlyAtTraceThreshold) {
  const std::string path = dir_.file("broker.log");
  log_set_filename(path.c_str());
  log_set_quiet(1);
  log_set_level(QMLOG_DEBUG);
  log_log(QMLOG_INFO, "fn", "a.cpp", 9, "at-debug");
  log_set_level(QMLOG_TRACE);
  log_log(QMLOG_INFO, "fn", "a.cpp", 10, "at-trace");
  const std::string file = qmtest::read_file(path);
  EXPECT_NE(file.find("at-debug\n"), std::string::npos) << file;
  EXPECT_NE(file.find("at-trace (a.cpp:10)\n"), std::string::npos) << file;
}

TEST_F(LogTest, QuietSuppressesScreenUnlessScreenTraceForcesIt) {
  const std::string path = dir_.file("broker.log");
  log_set_filename(path.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  EXPECT_EQ(capture_stderr([] { log_log(QMLOG_INFO, "f", "x.cpp", 1, "quiet"); }), "");
  log_set_screentrace(1);
  EXPECT_NE(capture_stderr([] { log_log(QMLOG_INFO, "f", "x.cpp", 1, "forced"); }).find("forced"),
            std::string::npos);
}

TEST_F(LogTest, ProgramNameIsTheReplaceableGlobal) {
  log_set_level(QMLOG_INFO);
  log_set_screentrace(1);
  qm__progname = "/opt/bin/broker";
  EXPECT_NE(capture_stderr([] { log_log(QMLOG_INFO, "f", "x.cpp", 1, "m"); }).find(" /opt/bin/broker:f(): m"),
            std::string::npos);
}

TEST_F(LogTest, LockFailureDropsTheFileLineWithNotice) {
  const std::string path = dir_.file("broker.log");
  log_set_filename(path.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  log_set_lock([](void*, int lock) { return lock ? -1 : 0; });
  const std::string out = capture_stderr([] { log_log(QMLOG_INFO, "f", "x.cpp", 1, "lost"); });
  EXPECT_EQ(out, "quillmere Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n");
  EXPECT_EQ(out.size(), 84u);
  EXPECT_EQ(qmtest::read_file(path), "");
}

TEST_F(LogTest, UnopenableFileDropsTheLineSilently) {
  const std::string path = dir_.file("missing-dir/broker.log");
  log_set_filename(path.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  EXPECT_EQ(capture_stderr([] { log_log(QMLOG_INFO, "f", "x.cpp", 1, "dropped"); }), "");
}

// Rotation happens before the line is appended, once the file has reached the threshold.
TEST_F(LogTest, RotationRenamesAtExactlyTheThresholdAndKeepsOneGeneration) {
  const std::string path = dir_.file("broker.log");
  log_set_filename(path.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  log_set_maxsize(1);

  qmtest::write_file(path, std::string(1048575, 'a'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "below");
  EXPECT_FALSE(std::filesystem::exists(path + ".1"));
  EXPECT_GT(std::filesystem::file_size(path), 1048575u);

  qmtest::write_file(path, std::string(1048576, 'b'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "after-rotation");
  ASSERT_TRUE(std::filesystem::exists(path + ".1"));
  EXPECT_EQ(std::filesystem::file_size(path + ".1"), 1048576u);
  const std::string fresh = qmtest::read_file(path);
  EXPECT_NE(fresh.find("after-rotation"), std::string::npos);
  EXPECT_LT(fresh.size(), 200u);

  qmtest::write_file(path, std::string(1048576, 'c'));
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "second");
  EXPECT_EQ(qmtest::read_file(path + ".1"), std::string(1048576, 'c'));  // the older .1 is replaced
}

TEST_F(LogTest, RotationCheckResults) {
  const std::string path = dir_.file("r.log");
  EXPECT_EQ(QMLogCheckLogSwitch(nullptr, 1), 0);
  EXPECT_EQ(QMLogCheckLogSwitch(path.c_str(), 0), 0);
  EXPECT_EQ(QMLogCheckLogSwitch(path.c_str(), 1), -1);  // not there yet
  qmtest::write_file(path, "x");
  EXPECT_EQ(QMLogCheckLogSwitch(path.c_str(), 1), 0);
  EXPECT_TRUE(std::filesystem::exists(path));
  const std::string long_name = dir_.path().string() + "/" + std::string(4090, 'n');
  EXPECT_EQ(QMLogCheckLogSwitch(long_name.c_str(), 1), -1);
}

TEST_F(LogTest, MissingFileIsCreatedByTheFirstLine) {
  const std::string path = dir_.file("new.log");
  log_set_filename(path.c_str());
  log_set_level(QMLOG_INFO);
  log_set_quiet(1);
  log_set_maxsize(1);
  log_log(QMLOG_INFO, "f", "x.cpp", 1, "first");
  EXPECT_NE(qmtest::read_file(path).find("first"), std::string::npos);
}

// What a value from outside looks like in a line: nothing in it can end the line, start
// another, steer the terminal or run on without bound.
TEST(LogSafe, EscapesControlsAndBrokenUtf8AndCapsTheLength) {
  using namespace std::string_literals;
  const struct {
    std::string in;
    std::string out;
  } cases[] = {
      {"alice", "alice"},
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
      {std::string(200, '\n'), [] {
         std::string escaped;
         for (int i = 0; i < 128; ++i) escaped += "\\n";
         return escaped + "...(200 bytes)";
       }()},
      {std::string(255, 'a') + "\xc3\xa9", std::string(255, 'a') + "...(257 bytes)"},  // never half a character
  };
  for (const auto& c : cases) EXPECT_EQ(log_safe(c.in), c.out) << c.in;
  EXPECT_EQ(log_safe(static_cast<const char*>(nullptr)), "(null)");
  EXPECT_EQ(log_safe("tab\there"), "tab\\there");
  EXPECT_EQ(log_safe(std::string(1000000, 'x')).size(), LOG_SAFE_MAX_BYTES + std::string("...(1000000 bytes)").size());
}

TEST(QMstrerrorTest, ReturnsTheSystemTextAndHandlesUnknownNumbers) {
  EXPECT_STREQ(QMstrerror(ENOENT), "No such file or directory");
  EXPECT_STREQ(QMstrerror(EACCES), "Permission denied");
  EXPECT_NE(std::string(QMstrerror(99999)).find("Unknown error"), std::string::npos);
}

}  // namespace
