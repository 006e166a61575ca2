// The broker binary with its nats-server steps: a managed child that is provisioned,
// restarted after a crash, reloaded on SIGHUP and stopped with the broker, and the
// fatal start-up paths. An external server is used in broker_main_test.
#include "test_prelude.hpp"

#include "admin_client.hpp"

#include "callout_fixture.hpp"

namespace {

// The targets of a process's descriptors above 2, less anonymous inodes, whose names do not
// tell one from another.
std::set<std::string> fd_targets(pid_t pid) {
  std::set<std::string> targets;
  const std::filesystem::path dir = "/proc/" + std::to_string(pid) + "/fd";
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    if (std::stoi(entry.path().filename().string()) <= 2) continue;
    const std::string target = std::filesystem::read_symlink(entry.path(), ec).string();
    if (!ec && !target.starts_with("anon_inode:")) targets.insert(target);
  }
  return targets;
}

class BrokerNats : public ::testing::Test {
 protected:
  std::vector<std::string> base_args(const std::string& url) {
    write_file(dir_.file("credentials.conf"), "");
    return {broker_binary(),
            "--nats-url", url,
            "--auth-file", dir_.file("credentials.conf"),
            "--auth-signing-key", dir_.file("issuer.seed"),
            "--amqp-enabled", "false",
            "--update-binary", "false",
            "--trace-to-screen", "1"};
  }

  // A broker managing `binary` with a configuration for the reserved port.
  std::vector<std::string> managed_args(const std::string& binary, const std::string& server_log = "") {
    const std::string config = dir_.file("nats.conf");
    write_nats_server_config(config, port_.port(), dir_.file("js"), "", server_log);
    std::vector<std::string> args = base_args(port_.url());
    args.insert(args.end(), {"--nats-server-binary", binary, "--nats-server-config", config, "--nats-server-pid-file",
                             dir_.file("nats.pid")});
    return args;
  }

  pid_t server_pid() const {
    const std::string text = read_file(dir_.file("nats.pid"));
    return text.empty() ? -1 : std::stoi(text);
  }

  TempDir dir_;
  // The managed server's port stays ours while the test runs, restarts included.
  const ReservedPort port_;
};

TEST_F(BrokerNats, ManagedChildIsProvisionedRestartedReloadedAndStopped) {
  const std::string url = port_.url();
  const std::string server_log = dir_.file("nats.log");
  std::vector<std::string> args = managed_args(nats_server_binary(), server_log);
  args.insert(args.end(), {"--js-work-services", "scan.a"});
  // Open without close-on-exec, as a careless library would: the broker inherits it, its
  // nats-server must not.
  const std::string marker = dir_.file("inherited-marker");
  write_file(marker, "");
  const qm::unique_fd inherited(open(marker.c_str(), O_RDONLY));
  const int admin_port = free_port();
  for (const std::string& arg : admin_args(admin_port)) args.push_back(arg);
  Child broker(args);
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 60s)) << broker.err();
  const auto readyz = [&] { return admin_get(admin_port, "/readyz"); };
  ASSERT_TRUE(wait_until([&] { return readyz().status == 200; }, 10s)) << readyz().body;
  EXPECT_LOGGED(broker.err(), "nats-server: running (pid=");
  const pid_t first = server_pid();

  kill(first, SIGKILL);
  // Not ready from the moment the child is found dead, through the back-off, until the
  // new one is; alive all along.
  // (The relay may notice the lost connection first: then the body says so before the
  // supervisor has reaped the child.)
  HttpResponse down;
  EXPECT_TRUE(wait_until(
      [&] {
        down = readyz();
        return down.status == 503 && down.body.find(R"("nats-server":{"ready":false,"state":"down"})") != std::string::npos;
      },
      10s))
      << down.status << " " << down.body;
  EXPECT_EQ(admin_get(admin_port, "/healthz").status, 200);
  ASSERT_TRUE(broker.wait_for_err("nats-server: restarting in 500ms", 20s)) << broker.err();
  pid_t second = -1;
  ASSERT_TRUE(wait_until(
      [&] {
        second = server_pid();
        return second > 0 && second != first && nats_accepts_connections(url);
      },
      20s));

  EXPECT_TRUE(qmtest::wait_until([&] { return readyz().status == 200; }, 20s)) << readyz().body;
  EXPECT_EQ(qmtest::metric_value(qmtest::scrape(admin_port), "qm_av_broker_natsd_restarts_total"), 1);
  // The new child started empty (memory storage): the buckets and the work queue are
  // provisioned again without a restart of the broker.
  std::string streams;
  EXPECT_TRUE(qmtest::wait_until(
      [&] {
        qmtest::NatsLogin client = qmtest::nats_login(url, "", "", 1000);
        streams = client.conn ? qmtest::request(client.conn, "$JS.API.STREAM.NAMES", "", 1000) : "";
        return streams.find("KV_qm-av-scan-data") != std::string::npos && streams.find("JOBS_scan_a") != std::string::npos;
      },
      30s))
      << streams << broker.err();
  const std::set<std::string> broker_fds = fd_targets(broker.pid());
  EXPECT_TRUE(broker_fds.contains(marker));
  for (const std::string& target : fd_targets(second)) EXPECT_FALSE(broker_fds.contains(target)) << target;

  broker.signal(SIGHUP);
  EXPECT_TRUE(broker.wait_for_err("SIGHUP: reloading credential store + forwarding to nats-server", 10s));
  const std::string reloads = R"(qm_av_broker_credentials_reloads_total{result="ok"})";
  EXPECT_TRUE(wait_until([&] { return metric_value(scrape(admin_port), reloads) == 1; }, 10s));
  EXPECT_TRUE(wait_until(
      [&] { return read_file(server_log).find("Reloaded server configuration") != std::string::npos; }, 10s));

  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0) << broker.err();
  EXPECT_FALSE(process_running(second));
  EXPECT_LOGGED(broker.err(), "during shutdown");
  EXPECT_NOT_LOGGED(broker.err(), "crash #2");
  EXPECT_FALSE(std::filesystem::exists(dir_.file("nats.pid")));
}

// Supervision that gives up leaves the broker without a server: it shuts down in order
// with exit code 1, so that the service manager starts it afresh.
TEST_F(BrokerNats, SpentRestartBudgetShutsTheBrokerDownWithExitCodeOne) {
  // The real server the first time; every restart fails at once. Each run records its
  // signal state first, with builtins only (nats-server would reset its own, and the
  // shell blocks everything while it starts a command).
  const std::string binary = dir_.file("flaky-nats-server");
  const std::string masks = dir_.file("masks");
  const std::string record = "while read -r key value; do case $key in SigBlk:|SigIgn:) echo \"$key $value\";; esac; "
                             "done < /proc/$$/status >> " + masks + "\n";
  write_file(binary, "#!/bin/sh\n" + record + "[ -e " + dir_.file("ran") + " ] && exit 1\ntouch " +
                                 dir_.file("ran") + "\nexec " + nats_server_binary() + " \"$@\"\n");
  chmod(binary.c_str(), 0755);
  Child broker(managed_args(binary));
  ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 60s)) << broker.err();
  kill(server_pid(), SIGKILL);
  // Five restarts with back-off: 0.5 + 1 + 2 + 4 + 8 s.
  EXPECT_EQ(broker.wait(90s), 1) << broker.err();
  const std::string log = broker.err();
  const size_t gave_up = log.find("nats-server: exceeded restart budget (5)");
  ASSERT_NE(gave_up, std::string::npos) << log;
  EXPECT_LT(gave_up, log.find("nats-server: supervision gave up"));
  EXPECT_LT(gave_up, log.find("qm-av-broker shutting down"));
  EXPECT_LOGGED(log, "qm-av-broker stopped (rc=1)");

  // The broker blocks its process signals in every thread and ignores SIGPIPE: the
  // children, the first and those the supervisor's thread restarts, start with neither.
  std::istringstream lines(read_file(masks));
  int runs = 0;
  for (std::string key, mask; lines >> key >> mask; runs += key == "SigBlk:") {
    const uint64_t forbidden = key == "SigBlk:" ? ~uint64_t{0} : uint64_t{1} << (SIGPIPE - 1);
    EXPECT_EQ(std::stoull(mask, nullptr, 16) & forbidden, 0u) << key << " " << mask;
  }
  EXPECT_EQ(runs, 6);
}

// A start-up that cannot finish: a stop during one of its long waits ends the broker at
// once (in order, exit code 0), never after the wait has run its course; a server that
// never answers ends it with exit code 1, named in the log, and a managed child that is
// gone ends the wait for it at once. A managed child that never answered is not left behind.
TEST_F(BrokerNats, StartUpsThatCannotFinishEndTheBroker) {
  NatsServer without_jetstream(NatsServerOptions{false, "", 0});
  const std::string nowhere = port_.url();
  const std::string sleeper = dir_.file("sleeper");
  const std::string sleeper_pid = dir_.file("sleeper.pid");
  write_file(sleeper, "#!/bin/sh\necho $$ > " + sleeper_pid + "\nexec sleep 600\n");
  chmod(sleeper.c_str(), 0755);
  const std::string missing = dir_.file("missing-nats-server");
  const std::vector<std::string> external = {"--nats-server-managed", "false"};
  const std::vector<std::string> stopped = {"qm-av-broker shutting down", "qm-av-broker stopped (rc=0)"};
  const struct {
    const char* name;
    std::string url;
    std::vector<std::string> extra;
    const char* waiting;  // the broker is in the wait once this is logged, and is sent `sig`
    int sig;
    int code;
    std::vector<std::string> logged;
  } cases[] = {
      {"external server's readiness", nowhere, external, "readiness probe not ready yet", SIGTERM, 0, stopped},
      {"managed child's readiness", nowhere, {"--nats-server-binary", sleeper, "--nats-server-config", "/dev/null"},
       "readiness probe not ready yet", SIGINT, 0, stopped},
      {"KV bootstrap's retries", without_jetstream.url(), external, "KV bootstrap: JetStream not ready yet", SIGTERM, 0,
       stopped},
      {"external server never answers", nowhere,
       {"--nats-server-managed", "false", "--nats-server-ready-timeout-seconds", "1"}, nullptr, 0, 1,
       {"nats-server: external server not reachable at " + nowhere}},
      {"managed child never answers", nowhere,
       {"--nats-server-binary", sleeper, "--nats-server-config", "/dev/null", "--nats-server-ready-timeout-seconds",
        "1"},
       nullptr, 0, 1,
       {"nats-server: readiness probe timed out after 1s (last status: ", "qm-av-broker stopped (rc=1)"}},
      {"managed binary missing", nowhere,
       {"--nats-server-binary", missing, "--nats-server-config", dir_.file("nats.conf")}, nullptr, 0, 1,
       {"nats-server: execv(" + missing + ") failed: ", "nats-server supervisor failed to start",
        "qm-av-broker stopped (rc=1)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove(sleeper_pid);
    std::vector<std::string> args = base_args(c.url);
    args.insert(args.end(), {"--nats-server-ready-timeout-seconds", "600", "--tracelevel", "5"});
    args.insert(args.end(), c.extra.begin(), c.extra.end());
    const int admin_port = free_port();
    for (const std::string& arg : admin_args(admin_port)) args.push_back(arg);
    Child broker(args);
    if (c.waiting != nullptr) {
      ASSERT_TRUE(broker.wait_for_err(c.waiting, 30s)) << broker.err();
      // Alive from the start, not ready until the start-up is through.
      EXPECT_EQ(admin_get(admin_port, "/healthz").status, 200);
      const HttpResponse ready = admin_get(admin_port, "/readyz");
      EXPECT_EQ(ready.status, 503);
      EXPECT_NE(ready.body.find(R"("relay":{"ready":false,"state":"starting"})"), std::string::npos) << ready.body;
      broker.signal(c.sig);
    }
    EXPECT_EQ(broker.wait(30s), c.code) << broker.err();
    const std::string log = broker.err();
    for (const auto& line : c.logged) EXPECT_LOGGED(log, line);
    EXPECT_NOT_LOGGED(log, "qm-av-broker ready");
    EXPECT_TRUE(c.code != 0 || log.find("FATAL") == std::string::npos);
    const std::string child = read_file(sleeper_pid);
    EXPECT_TRUE(child.empty() || !process_running(std::stoi(child))) << child;
  }
}

// A broker killed outright cannot stop its server: the test fixture's process group
// does, so that no test leaves a nats-server behind.
TEST_F(BrokerNats, AKilledBrokersServerGoesWithItsFixture) {
  pid_t server = -1;
  {
    Child broker(managed_args(nats_server_binary()));
    ASSERT_TRUE(broker.wait_for_err("qm-av-broker ready", 60s)) << broker.err();
    server = server_pid();
    ASSERT_TRUE(process_running(server));
    broker.signal(SIGKILL);
    ASSERT_EQ(broker.wait(30s), 128 + SIGKILL);
    EXPECT_TRUE(process_running(server));  // orphaned, not ended
  }
  EXPECT_TRUE(wait_until([&] { return !process_running(server); }, 30s));
}

}  // namespace
