// Clean-up of runtime directories left behind by broker processes that are gone.
#include "test_prelude.hpp"

#include "gw_sasl_setup.hpp"

namespace {

// A pid that certainly names no process: a child that has exited and been reaped.
pid_t dead_pid() {
  const pid_t pid = fork();
  if (pid == 0) _exit(0);
  waitpid(pid, nullptr, 0);
  return pid;
}

// The sweep runs on a prefix in a temporary directory of the test's own, never on the
// machine's /tmp.
class SaslSweep : public ::testing::Test {
 protected:
  // "<prefix><suffix>" with a populated "sasl" subdirectory.
  std::string runtime_dir(const std::string& suffix) {
    const std::string path = prefix_ + suffix;
    fs::create_directories(path + "/sasl");
    write_file(path + "/sasl/quillmere-av-scangateway.conf", "mech_list: PLAIN\n");
    write_file(path + "/sasl/other", "x");
    return path;
  }
  void sweep() { sweep_stale_sasl_runtime_dirs_at(prefix_.c_str()); }

  TempDir dir_;
  const std::string prefix_ = dir_.file("qm-av-broker-");
};

// One sweep over every kind of entry. Anyone can plant names in /tmp: a link under a stale
// name, or a "sasl" link inside a stale directory, must not lead the sweep into emptying
// what it points to.
TEST_F(SaslSweep, RemovesWhatDeadPidsLeftAndNothingElse) {
  LogCapture log;
  const std::string dead = std::to_string(dead_pid());
  const std::string stale = runtime_dir(dead);
  const std::string other_name = dir_.file("qm-av-other-" + dead);
  fs::create_directories(other_name);
  // A live pid (pid 1 may belong to another user), and suffixes that are no pid at all.
  std::vector<std::string> kept;
  for (const std::string& suffix : {std::to_string(getpid()), std::string("1"), dead + "abc", std::string("0"),
                                    "-" + dead, " " + dead, std::string("99999999999999999999999"), std::string("")}) {
    kept.push_back(runtime_dir(suffix));
  }
  // Only the files of "sasl" are removed, without recursion: a nested directory keeps it alive.
  const std::string nested = runtime_dir(std::to_string(dead_pid()));
  fs::create_directories(nested + "/sasl/nested");
  const std::string bare = prefix_ + std::to_string(dead_pid());
  fs::create_directories(bare);
  const std::string victim = dir_.file("victim");
  fs::create_directories(victim + "/sasl");
  write_file(victim + "/sasl/precious", "keep");
  write_file(victim + "/precious", "keep");
  const std::string linked = prefix_ + std::to_string(dead_pid());
  fs::create_directory_symlink(victim, linked);
  const std::string holder = prefix_ + std::to_string(dead_pid());
  fs::create_directories(holder);
  fs::create_directory_symlink(victim, holder + "/sasl");
  const std::string with_link_inside = runtime_dir(std::to_string(dead_pid()));
  fs::create_symlink(victim + "/precious", with_link_inside + "/sasl/link");
  // A directory of another user, when root can make one.
  const std::string foreign = runtime_dir(std::to_string(dead_pid()));
  bool given_away = true;
  for (const std::string& path : {foreign, foreign + "/sasl", foreign + "/sasl/other"}) {
    given_away = given_away && chown(path.c_str(), 65534, 65534) == 0;
  }
  sweep();
  EXPECT_FALSE(fs::exists(stale));
  EXPECT_LOGGED(log, "sweep: removed stale SASL runtime dir " + stale + " (pid " + dead + " no longer exists)");
  for (const auto& path : kept) EXPECT_TRUE(fs::exists(path + "/sasl/other")) << path;
  EXPECT_TRUE(fs::exists(other_name));
  EXPECT_TRUE(fs::exists(nested + "/sasl/nested"));
  EXPECT_FALSE(fs::exists(nested + "/sasl/other"));
  EXPECT_FALSE(fs::exists(bare));
  EXPECT_EQ(read_file(victim + "/sasl/precious"), "keep");
  EXPECT_EQ(read_file(victim + "/precious"), "keep");
  EXPECT_TRUE(fs::is_symlink(linked));
  EXPECT_TRUE(fs::is_symlink(holder + "/sasl"));
  EXPECT_FALSE(fs::exists(fs::symlink_status(with_link_inside)));  // the link went, not its target
  EXPECT_TRUE(!given_away || fs::exists(foreign + "/sasl/other"));
}

}  // namespace
