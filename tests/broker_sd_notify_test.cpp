// Readiness notifications over a real UNIX datagram socket.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "broker_sd_notify.hpp"
#include "test_support.hpp"

namespace {

// A bound datagram socket standing in for the service manager.
class NotifyListener {
 public:
  // path: a file path, or a name starting with '@' for the abstract namespace.
  explicit NotifyListener(const std::string& name) {
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (name[0] == '@') {
      memcpy(addr.sun_path + 1, name.data() + 1, name.size() - 1);
    } else {
      memcpy(addr.sun_path, name.c_str(), name.size() + 1);
    }
    // The full structure size, as the sender uses: abstract names are padded with zeros.
    bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    timeval tv{2, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  }
  ~NotifyListener() { close(fd_); }
  bool bound() const { return bound_; }
  std::string receive() {
    char buf[256];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    return n < 0 ? std::string("<nothing>") : std::string(buf, static_cast<size_t>(n));
  }

 private:
  int fd_ = -1;
  bool bound_ = false;
};

class SdNotifyTest : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("NOTIFY_SOCKET"); }
  qmtest::TempDir dir_;
};

TEST_F(SdNotifyTest, SendsStateToAPathSocket) {
  const std::string path = dir_.file("notify.sock");
  NotifyListener listener(path);
  ASSERT_TRUE(listener.bound());
  setenv("NOTIFY_SOCKET", path.c_str(), 1);
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  EXPECT_EQ(listener.receive(), "READY=1");
  EXPECT_EQ(broker_sd_notify("STOPPING=1"), 0);
  EXPECT_EQ(listener.receive(), "STOPPING=1");
}

TEST_F(SdNotifyTest, SendsStateToAnAbstractSocket) {
  const std::string name = "@qmtest-notify-" + std::to_string(getpid());
  NotifyListener listener(name);
  ASSERT_TRUE(listener.bound());
  setenv("NOTIFY_SOCKET", name.c_str(), 1);
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  EXPECT_EQ(listener.receive(), "READY=1");
}

TEST_F(SdNotifyTest, NothingToDoReturnsZero) {
  unsetenv("NOTIFY_SOCKET");
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  setenv("NOTIFY_SOCKET", "", 1);
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  setenv("NOTIFY_SOCKET", dir_.file("unused").c_str(), 1);
  EXPECT_EQ(broker_sd_notify(nullptr), 0);
}

TEST_F(SdNotifyTest, MissingSocketFailsWithTheSendError) {
  setenv("NOTIFY_SOCKET", dir_.file("nobody-listens").c_str(), 1);
  errno = 0;
  EXPECT_EQ(broker_sd_notify("READY=1"), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SdNotifyTest, NamesLongerThan107BytesAreRefused) {
  const std::string path_107 = "/" + std::string(106, 'p');
  setenv("NOTIFY_SOCKET", (path_107 + "x").c_str(), 1);
  errno = 0;
  EXPECT_EQ(broker_sd_notify("READY=1"), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);

  setenv("NOTIFY_SOCKET", ("@" + std::string(108, 'a')).c_str(), 1);
  errno = 0;
  EXPECT_EQ(broker_sd_notify("READY=1"), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);

  // 107 bytes fit (the send then fails for want of a listener, not for the length).
  setenv("NOTIFY_SOCKET", path_107.c_str(), 1);
  errno = 0;
  EXPECT_EQ(broker_sd_notify("READY=1"), -1);
  EXPECT_NE(errno, ENAMETOOLONG);

  const std::string abstract_107 = "@qm" + std::string(104, 'z') + std::to_string(getpid() % 10);
  NotifyListener listener(abstract_107);
  ASSERT_TRUE(listener.bound());
  setenv("NOTIFY_SOCKET", abstract_107.c_str(), 1);
  EXPECT_EQ(broker_sd_notify("READY=1"), 0);
  EXPECT_EQ(listener.receive(), "READY=1");
}

}  // namespace
