// Clean-up of runtime directories left behind by broker processes that are gone.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "gw_sasl_setup.hpp"
#include "test_support.hpp"

namespace fs = std::filesystem;

namespace {

// A pid that certainly names no process: a child that has exited and been reaped.
pid_t dead_pid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

// Creates "/tmp/qm-av-broker-<suffix>" with a populated "sasl" subdirectory and
// removes whatever is left of it afterwards.
class RuntimeDir {
 public:
  explicit RuntimeDir(const std::string& suffix) : path_("/tmp/qm-av-broker-" + suffix) {
    fs::remove_all(path_);
    fs::create_directories(path_ + "/sasl");
    qmtest::write_file(path_ + "/sasl/quillmere-av-scangateway.conf", "mech_list: PLAIN\n");
    qmtest::write_file(path_ + "/sasl/other", "x");
  }
  ~RuntimeDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  bool exists() const { return fs::exists(path_); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(SaslSweep, RemovesDirectoriesOfDeadPidsOnly) {
  RuntimeDir stale(std::to_string(dead_pid()));
  RuntimeDir live(std::to_string(getpid()));
  RuntimeDir init_owned("1");  // pid 1 exists (and may belong to another user): kept
  sweep_stale_sasl_runtime_dirs();
  EXPECT_FALSE(stale.exists());
  EXPECT_TRUE(live.exists());
  EXPECT_TRUE(fs::exists(live.path() + "/sasl/other"));
  EXPECT_TRUE(init_owned.exists());
}

TEST(SaslSweep, KeepsNonNumericZeroAndOutOfRangeSuffixes) {
  const std::string dead = std::to_string(dead_pid());
  RuntimeDir mixed(dead + "abc");
  RuntimeDir zero("0");
  RuntimeDir negative("-" + dead);
  RuntimeDir spaced(" " + dead);
  RuntimeDir huge("99999999999999999999999");
  sweep_stale_sasl_runtime_dirs();
  EXPECT_TRUE(mixed.exists());
  EXPECT_TRUE(zero.exists());
  EXPECT_TRUE(negative.exists());
  EXPECT_TRUE(spaced.exists());
  EXPECT_TRUE(huge.exists());
}

TEST(SaslSweep, ADirectoryWithUnexpectedNestingIsLeftInPlace) {
  // Only the files of "sasl" are removed, without recursion: a nested directory keeps it alive.
  RuntimeDir stale(std::to_string(dead_pid()));
  fs::create_directories(stale.path() + "/sasl/nested");
  sweep_stale_sasl_runtime_dirs();
  EXPECT_TRUE(stale.exists());
  EXPECT_FALSE(fs::exists(stale.path() + "/sasl/other"));
}

TEST(SaslSweep, StaleDirectoryWithoutSaslSubdirectoryIsRemoved) {
  const std::string path = "/tmp/qm-av-broker-" + std::to_string(dead_pid());
  fs::create_directories(path);
  sweep_stale_sasl_runtime_dirs();
  EXPECT_FALSE(fs::exists(path));
}

}  // namespace
