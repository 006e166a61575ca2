// Self-update end to end with the real binaries: an installed version-directory layout,
// the broker started from latest/bin, a package made by scripts/package.sh and served by
// the local update server.
#include "test_prelude.hpp"

#include "admin_client.hpp"
#include "amqp_fixture.hpp"
#include "callout_fixture.hpp"
#include "update_server_fixture.hpp"

namespace qmtest {
namespace {

constexpr const char* kComponent = "qm-av-broker_nats-bin-linux-glibc2.28.amd64";
constexpr const char* kVersionA = "20250101001";
constexpr const char* kVersionB = "20250301002";
constexpr const char* kStampA = "1700000000";

// <base>/qm-av-broker/<stamp A>/bin with version A, the broker and nats-server, and
// "latest" pointing at it; a temporary directory for the broker beside it.
struct InstalledLayout {
  InstalledLayout() {
    const fs::path bin = workdir + "/" + kStampA + "/bin";
    fs::create_directories(bin);
    fs::create_directories(base + "/config");
    fs::create_directories(tmpdir);
    write_file((bin / ".version.qm").string(), kVersionA);
    fs::copy_file(broker_binary(), bin / "qm-av-broker");
    fs::copy_file(nats_server_binary(), bin / "nats-server");
    fs::create_symlink(workdir + "/" + kStampA, workdir + "/latest");
  }
  TempDir dir;
  const std::string base = dir.file("opt");
  const std::string workdir = base + "/qm-av-broker";
  const std::string latest_bin = workdir + "/latest/bin";
  const std::string tmpdir = dir.file("tmp");
};

// An Ed25519 key pair made with the openssl command: <name>.pem (private), <name>.pub.
std::string make_key(const TempDir& dir, const std::string& name) {
  const std::string key = dir.file(name + ".pem");
  Child openssl({"/bin/sh", "-c", "openssl genpkey -algorithm ed25519 -out \"$0\" && openssl pkey -in \"$0\" -pubout -out \"$1\"",
                 key, dir.file(name + ".pub")});
  EXPECT_EQ(openssl.wait(60s), 0) << openssl.err();
  return key;
}

// The base64 signature of `file` by `key`, as scripts/package.sh writes it.
std::string sign(const std::string& key, const std::string& file) {
  Child openssl({"/bin/sh", "-c", "openssl pkeyutl -sign -rawin -inkey \"$0\" -in \"$1\" | base64 -w0", key, file});
  EXPECT_EQ(openssl.wait(60s), 0) << openssl.err();
  return openssl.out();
}

std::string make_package(const TempDir& out, const std::string& version, const std::string& signing_key) {
  Child packer({"/bin/bash", std::string(QM_SOURCE_DIR) + "/scripts/package.sh", out.path().string(), version},
               {"QM_BROKER_BINARY=" + broker_binary(), "QM_NATS_SERVER=" + nats_server_binary(),
                "QM_UPDATE_SIGNING_KEY=" + signing_key});
  const std::string package = out.file(std::string(kComponent) + "_" + version + ".zip");
  if (packer.wait(300s) != 0) ADD_FAILURE() << packer.err();
  EXPECT_EQ(packer.out(), package + "\n");
  return package;
}

size_t update_requests(const UpdateServer& server) { return LogCapture::count_in(server.requests(), "/v1/update?"); }

// Version A, trusting one update key and the https update server's CA, asks and is told
// nothing is newer. Packages that are not signed by that key (a wrong key, a byte changed
// after signing, no signature, a manual package without its .sig) are each refused with
// nothing installed. Then a package signed by scripts/package.sh is installed; activation
// closes both front doors while a scan on an open AMQP connection is in flight, and the
// drain ends once it is answered, long before its time-out. nats-server is stopped,
// "latest" flipped, the exit status is 0, and B starts from latest/bin.
TEST(UpdateEndToEnd, OnlyPackagesSignedByTheUpdateKeyAreInstalledAndTheDrainEndsWithTheLastRequest) {
  InstalledLayout layout;
  TempDir keys;
  const std::string update_key = make_key(keys, "update");
  const std::string wrong_key = make_key(keys, "wrong");
  TempDir packages;
  const std::string package = make_package(packages, kVersionB, update_key);
  UpdateServer server(true);
  server.plan(R"({"/v1/update": {"status": 304}})");

  AmqpEnvOptions options;
  options.bin_dir = layout.latest_bin;
  options.env = {"TMPDIR=" + layout.tmpdir};
  // The HTTP door on a port of the system's choosing: that the drain closes it shows in the
  // log, and what closing does is the HTTP front door's own test.
  options.broker_args = {"--update-binary", "true", "--update-server", server.base_url(), "--update-check-interval",
                         "1s", "--update-ca-file", server.ca_file(), "--update-public-key", keys.file("update.pub"),
                         "--update-maintenance-window", "00:00-23:59", "--update-drain-timeout-seconds", "600",
                         "--pid-file", layout.base + "/broker.pid", "--http-enabled", "true", "--http-listen-port",
                         "0", "--relay-timeout-ms", "120000"};
  const int admin_port = free_port();
  for (const std::string& arg : admin_args(admin_port)) options.broker_args.push_back(arg);
  options.worker = false;  // the test's own, so that it can hold a request in flight
  AmqpEnv env(options);
  ScanWorker worker(env.nats_url(), AmqpEnv::kService, false, 4, AmqpEnv::kWorkerUser, AmqpEnv::kWorkerPassword);
  ASSERT_TRUE(wait_until([&] { return update_requests(server) > 0; }, 60s)) << env.broker_log();
  EXPECT_NE(server.requests().find(std::string("/v1/update?component=") + kComponent +
                                   "&version=latest&ssl=1&have=" + kVersionA + "\n"),
            std::string::npos)
      << server.requests();
  EXPECT_EQ(LogCapture::count_in(env.broker_log(), "verified by MD5 alone"), 0u);
  ScanClient open_before(env);
  EXPECT_TRUE(wait_until([&] { return admin_get(admin_port, "/readyz").status == 200; }, 10s));

  const std::string blob = packages.file("blob");
  write_file(blob, "a package nobody may install");
  std::string tampered = read_file(blob);
  tampered[3] ^= 1;
  struct Refused {
    const char* what;
    std::string body;
    std::string signature;     // "" for none
    std::string expected_log;  // after "Update package <name> "
  };
  const std::vector<Refused> refused = {
      {"wrong key", read_file(blob), sign(wrong_key, blob), "does not carry a valid signature"},
      {"tampered byte", tampered, sign(update_key, blob), "does not carry a valid signature"},
      {"no signature", read_file(blob), "", "is not signed"},
  };
  int sequence = 10;
  for (const Refused& row : refused) {
    SCOPED_TRACE(row.what);
    const std::string name = std::string(kComponent) + "_202503010" + std::to_string(++sequence) + ".zip";
    server.add_file(name, row.body);
    server.add_file(name + ".sig", row.signature);
    server.plan_package(name, row.signature.empty() ? "" : name + ".sig");
    ASSERT_TRUE(env.wait_for_log("Update package " + name + " " + row.expected_log, 60s)) << env.broker_log();
    EXPECT_EQ(dir_entries(layout.workdir), (std::set<std::string>{kStampA, "latest"}));
  }
  server.plan(R"({"/v1/update": {"status": 304}})");
  const std::string manual = layout.workdir + "/" + manual_package_name(kComponent);
  write_file(manual, read_file(package));  // its .sig left behind
  ASSERT_TRUE(env.wait_for_log("Update package " + manual_package_name(kComponent) + " is not signed", 60s));
  EXPECT_FALSE(fs::exists(manual));
  EXPECT_EQ(dir_entries(layout.workdir), (std::set<std::string>{kStampA, "latest"}));
  EXPECT_TRUE(fs::is_empty(layout.tmpdir));

  // In flight when the doors close: the worker is stopped until the drain has been seen.
  worker.child().signal(SIGSTOP);
  const std::string payload = "in flight during the drain";
  const int ticket = open_before.client.send(
      open_before.sender, scan_request(AmqpEnv::kService, "{}", &payload, open_before.reply_address, "drain-1"));
  EXPECT_EQ(open_before.client.outcome(ticket, 20s), Outcome::accepted);
  const std::string package_name = fs::path(package).filename().string();
  server.add_file(package_name, read_file(package));
  server.add_file(package_name + ".sig", read_file(package + ".sig"));
  server.plan_package(package_name, package_name + ".sig");
  ASSERT_TRUE(env.wait_for_log("broker_update: front doors closed", 120s)) << env.broker_log();
  // A balancer hears "not ready" for the whole drain; the broker itself stays alive.
  const HttpResponse draining = admin_get(admin_port, "/readyz");
  EXPECT_EQ(draining.status, 503);
  for (const char* check : {R"("update":{"ready":false,"state":"draining"})", R"("amqp":{"ready":false,)",
                            R"("http":{"ready":false,)"})
    EXPECT_NE(draining.body.find(check), std::string::npos) << check << " in " << draining.body;
  EXPECT_EQ(admin_get(admin_port, "/healthz").status, 200);
  EXPECT_EQ(metric_value(scrape(admin_port), "qm_av_broker_ready"), 0);
  AmqpClient late(env.port(), env.login(), 20s);
  EXPECT_FALSE(late.is_open());
  EXPECT_TRUE(env.wait_for_log("http_frontend: stopped accepting new connections"));
  EXPECT_NOT_LOGGED(env.broker_log(), "nothing in flight at the front doors");
  worker.child().signal(SIGCONT);
  const auto reply = open_before.client.receive(60s);
  ASSERT_TRUE(reply.has_value());
  EXPECT_NE(reply_json(*reply).find("\"ReturnCode\":0"), std::string::npos) << reply_json(*reply);

  ASSERT_EQ(env.broker().wait(120s), 0) << env.broker_log();
  const std::string log = env.broker_log();
  for (const char* step : {"broker_update: staged new version", "broker_update: starting activation",
                           "nothing in flight at the front doors", "broker_update: stopping nats-server child",
                           "broker_update: flipping", "broker_update: activation complete"}) {
    EXPECT_LOGGED(log, step);
  }
  EXPECT_LOGGED(env.callout().server_log(), "Server Exiting");
  const fs::path active = fs::read_symlink(layout.workdir + "/latest");
  EXPECT_NE(active.filename().string(), kStampA);
  EXPECT_EQ(active.parent_path(), layout.workdir);
  EXPECT_EQ(read_file(layout.latest_bin + "/.version.qm"), kVersionB);
  // Version A is kept as a backup; the package and its unpacked copy are gone.
  EXPECT_EQ(dir_entries(layout.workdir), (std::set<std::string>{kStampA, active.filename().string(), "latest"}));
  EXPECT_TRUE(fs::is_empty(layout.tmpdir));
  EXPECT_FALSE(fs::exists(layout.base + "/broker.pid"));

  CalloutOptions again;
  again.bin_dir = layout.latest_bin;
  CalloutEnv restarted(again);  // throws unless it comes up
  EXPECT_TRUE(restarted.broker().running());
}

}  // namespace
}  // namespace qmtest
