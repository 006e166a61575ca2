// Readiness notifications over real UNIX datagram sockets, at the edges of the address
// size. The broker's own READY=1 and STOPPING=1 are checked end to end (broker_main_test).
#include "broker_sd_notify.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "test_support.hpp"

namespace {

class SdNotify : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("NOTIFY_SOCKET"); }
  qmtest::TempDir dir_;
};

// 107 bytes is the most a name can have, for a path and for an abstract name (after '@').
TEST_F(SdNotify, ReachesPathAndAbstractSocketsOf107Bytes) {
  const std::string dir = dir_.path().string() + "/";
  std::string abstract = "@qm" + std::to_string(getpid());
  abstract += std::string(108 - abstract.size(), 'z');
  for (const std::string& name : {dir + std::string(107 - dir.size(), 'p'), abstract}) {
    SCOPED_TRACE(name);
    const qmtest::NotifySocket listener(name);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    ASSERT_EQ(broker_sd_notify("READY=1"), 0);
    EXPECT_EQ(listener.receive(), "READY=1");
  }
}

TEST_F(SdNotify, NothingToDoSucceedsAndFailuresKeepTheirErrno) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  setenv("NOTIFY_SOCKET", dir_.file("unused").c_str(), 1);
  EXPECT_EQ(broker_sd_notify(nullptr), 0);
  const struct {
    std::string name;
    int rc;
    int err;
  } cases[] = {
      {"", 0, 0},
      {dir_.file("nobody-listens"), -1, ENOENT},
      {"/" + std::string(107, 'p'), -1, ENAMETOOLONG},
      {"@" + std::string(108, 'a'), -1, ENAMETOOLONG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    setenv("NOTIFY_SOCKET", c.name.c_str(), 1);
    errno = 0;
    EXPECT_EQ(broker_sd_notify("READY=1"), c.rc);
    EXPECT_EQ(errno, c.err);
  }
}

}  // namespace
