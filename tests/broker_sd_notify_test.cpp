// Readiness notifications over real UNIX datagram sockets, at the edges of the address
// size. The broker's own READY=1 and STOPPING=1 are checked end to end (broker_main_test).
#include "broker_sd_notify.hpp"

#include "test_prelude.hpp"

namespace {

// 107 bytes is the most a name can have, for a path and for an abstract name (after '@');
// failures keep their errno, and without a socket there is nothing to do.
TEST(SdNotify, ReachesNamesOf107BytesAndFailuresKeepTheirErrno) {
  TempDir dir;
  const std::string base = dir.path().string() + "/";
  std::string abstract = "@qm" + std::to_string(getpid());
  abstract += std::string(108 - abstract.size(), 'z');
  const struct {
    std::string name;
    bool listening;
    int rc;
    int err;  // errno after a failure
  } cases[] = {
      {base + std::string(107 - base.size(), 'p'), true, 0, 0},
      {abstract, true, 0, 0},
      {"", false, 0, 0},
      {dir.file("nobody-listens"), false, -1, ENOENT},
      {"/" + std::string(107, 'p'), false, -1, ENAMETOOLONG},
      {"@" + std::string(108, 'a'), false, -1, ENAMETOOLONG},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::optional<NotifySocket> listener;
    if (c.listening) listener.emplace(c.name);
    setenv("NOTIFY_SOCKET", c.name.c_str(), 1);
    errno = 0;
    EXPECT_EQ(broker_sd_notify("READY=1"), c.rc);
    EXPECT_EQ(c.rc == 0 ? 0 : errno, c.err);
    EXPECT_EQ(listener ? listener->receive() : "READY=1", "READY=1");
  }
  EXPECT_EQ(broker_sd_notify(nullptr), 0);
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
}

}  // namespace
