#include "qmhlp_network.hpp"

#include "test_prelude.hpp"

namespace {

// Every outcome but the time-out: the error text names the peer, and a failed connection
// logs the port as given and the caller's previous text.
TEST(CheckConnect, AnswersOpenRefusedAndUnusablePeers) {
  const ReservedPort listener;
  listener.listen(8);
  const std::string open = std::to_string(listener.port());
  const ReservedPort nobody;  // bound, never listening: refused
  const std::string refused = std::to_string(nobody.port());
  const struct {
    const char* host;
    const char* port;
    int rc;
    std::string error;  // the buffer afterwards
  } cases[] = {
      {"127.0.0.1", open.c_str(), 0, "caller-text"},
      {"127.0.0.1", refused.c_str(), -2, "Failed to connect to 127.0.0.1:" + refused},
      {"127.0.0.1", "0", -2, "Failed to connect to 127.0.0.1:0"},
      // glibc reports no EINVAL for "abc": it reads as port 0 and is tried like "0".
      {"127.0.0.1", "abc", -2, "Failed to connect to 127.0.0.1:0"},
      {"no-such-host.invalid", "4222", -2, "Failed to connect to no-such-host.invalid:4222"},
      {nullptr, "1", -1, "Failed to convert port value to integer: (null)"},
      {"127.0.0.1", nullptr, -1, "Failed to convert port value to integer: (null)"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << (c.host ? c.host : "NULL") << ":" << (c.port ? c.port : "NULL"));
    LogCapture log(QMLOG_WARN);
    char error[QMHLP_ERROR_BUFFER_SIZE] = "caller-text";
    EXPECT_EQ(qmhlp_CheckConnect(c.host, c.port, error), c.rc);
    EXPECT_EQ(std::string(error), c.error);
    if (c.rc == -2) {
      EXPECT_LOGGED(log, std::string("Failed to connect to ") + c.host + ":" + c.port + ": caller-text");
    }
  }
  EXPECT_EQ(qmhlp_CheckConnect("127.0.0.1", nullptr, nullptr), -1);
}

// A listener whose accept queue is full drops further SYNs, so a connect to it hangs:
// the closest thing to a silent host on loopback.
TEST(CheckConnect, SilentPeerTimesOutAfterThreeSeconds) {
  const ReservedPort listener;
  listener.listen(0);
  const int port = listener.port();
  std::vector<qm::unique_fd> fillers;
  for (int i = 0; i < 4; ++i) fillers.emplace_back(connect_loopback(port, false));
  // Check that a further connect really hangs before asserting on the helper.
  const qm::unique_fd probe(connect_loopback(port, false));
  pollfd writable{probe.get(), POLLOUT, 0};
  if (poll(&writable, 1, 300) != 0) {
    GTEST_SKIP() << "this kernel answers connects beyond a full accept queue; no silent peer on loopback";
  }

  char error[QMHLP_ERROR_BUFFER_SIZE] = "";
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(qmhlp_CheckConnect("127.0.0.1", std::to_string(port).c_str(), error), -2);
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_GE(took, std::chrono::milliseconds(2900));
  EXPECT_EQ(std::string(error), "Failed to connect to 127.0.0.1:" + std::to_string(port));
}

TEST(HostHelpers, TheHostsIpIsADottedQuad) {
  const char* ip = qmhlp_GetMyIP();
  if (ip == nullptr) GTEST_SKIP() << "the host name does not resolve here";
  in_addr parsed{};
  EXPECT_EQ(inet_pton(AF_INET, ip, &parsed), 1) << ip;
}

}  // namespace
