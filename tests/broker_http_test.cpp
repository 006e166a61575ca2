// The broker binary with its REST front door on: a scan by the curl command over TLS,
// the door's place in the teardown, and a half TLS configuration refused at start-up.
#include "test_prelude.hpp"
#include <fstream>

#include "amqp_fixture.hpp"
#include "http_fixture.hpp"
#include "test_certificates.hpp"

namespace {

TEST(BrokerHttp, CurlScansOverTlsAndTheDoorStopsBeforeTheRelay) {
  TempDir dir;
  const TestCertificates certs = make_test_certificates(dir, "qmtest broker CA");
  // Port 0: the kernel chooses, and the start-up line says which.
  AmqpEnvOptions options;
  options.broker_args = {"--http-enabled", "true", "--http-listen-port", "0", "--http-tls-cert", certs.cert_file,
                         "--http-tls-key", certs.key_file};
  AmqpEnv env(options);
  const std::string port = std::to_string(broker_http_port(env));
  Child& broker = env.broker();
  write_file(dir.file("hello.txt"), "hello scanner\n");
  Child curl({"/usr/bin/curl", "-sS", "--cacert", certs.ca_file, "-u", "scanner:scanner-secret", "-H",
              "X-Target-Service: scan", "-F", R"(request={"scan":1})", "-F", "payload=@" + dir.file("hello.txt"),
              "https://127.0.0.1:" + port + "/vsi"});
  ASSERT_EQ(curl.wait(60s), 0) << curl.err();
  EXPECT_EQ(json_member(curl.out(), "sha256"), sha256_hex("hello scanner\n")) << curl.out();

  broker.signal(SIGTERM);
  EXPECT_EQ(broker.wait(30s), 0);
  const std::string log = broker.err();
  EXPECT_NOT_LOGGED(log, "[MHD]");
  const size_t door_stopped = log.find("http_frontend: stopped");
  ASSERT_NE(door_stopped, std::string::npos) << log;
  EXPECT_LT(door_stopped, log.find("Tearing down NATS relay"));
}

TEST(BrokerHttp, CertificateWithoutKeyIsFatal) {
  NatsServer nats;
  TempDir dir;
  write_file(dir.file("users.conf"), "");
  Child broker({broker_binary(), "--nats-server-managed", "false", "--nats-url", nats.url(), "--auth-file",
                dir.file("users.conf"), "--auth-signing-key", dir.file("issuer.seed"), "--amqp-enabled", "false",
                "--update-binary", "false", "--http-enabled", "true", "--http-listen-port", "0",
                "--http-tls-cert", dir.file("server.pem")});
  ASSERT_EQ(broker.wait(60s), 1) << broker.err();
  const std::string log = broker.err();
  EXPECT_LOGGED(log, "Failed to start HTTP frontend on 0.0.0.0:");
  EXPECT_NOT_LOGGED(log, "qm-av-broker ready");
}

// The door reads no body it would refuse, and stages an accepted one as it arrives: the
// broker's peak memory stays near its in-flight budget (32 MiB, room for the 8 uploads at
// once) and far below what the clients send, 8 times the budget. (The broker's sanitizer
// quarantine is kept small, or freed chunks would count as held.)
TEST(BrokerHttp, MemoryStaysBoundedWhateverTheBodies) {
  constexpr size_t kMiB = 1048576;
  constexpr const char* kScannerBasic = "c2Nhbm5lcjpzY2FubmVyLXNlY3JldA==";  // scanner:scanner-secret
  AmqpEnvOptions options;
  options.broker_args = {"--http-enabled", "true", "--http-listen-port", "0", "--relay-timeout-ms", "120000",
                         "--max-inflight-mb", "32"};
  options.env = {"ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:quarantine_size_mb=8"};
  options.tracelevel = 4;
  AmqpEnv env(options);
  const int port = broker_http_port(env);
  const pid_t broker = env.broker().pid();
  const auto peak_growth_mib = [&](long before_kib) { return (proc_status_kib(broker, "VmHWM") - before_kib) / 1024; };
  const auto reset_peak = [&] {
    std::ofstream("/proc/" + std::to_string(broker) + "/clear_refs") << "5";  // VmHWM back to VmRSS
    return proc_status_kib(broker, "VmRSS");
  };

  const std::string anonymous_body = test_payload(64 * kMiB);
  long before = reset_peak();
  const RawPost refused = raw_multipart_post(port, "", anonymous_body);
  EXPECT_EQ(refused.text.substr(0, 12), "HTTP/1.1 401") << refused.text.substr(0, 200);
  EXPECT_TRUE(refused.closed);
  EXPECT_LT(peak_growth_mib(before), 16);

  const std::string payload = test_payload(32 * kMiB);
  const std::string digest = sha256_hex(payload);
  before = reset_peak();
  std::vector<std::future<RawPost>> uploads;
  for (int i = 0; i < 8; ++i)
    uploads.push_back(std::async(std::launch::async, [&] { return raw_multipart_post(port, kScannerBasic, payload); }));
  for (auto& upload : uploads) {
    const RawPost answer = upload.get();
    EXPECT_EQ(answer.text.substr(0, 12), "HTTP/1.1 200") << answer.text.substr(0, 300);
    EXPECT_EQ(json_member(answer.body(), "sha256"), digest);
    EXPECT_EQ(json_member(answer.body(), "size"), std::to_string(payload.size()));
  }
  EXPECT_LT(peak_growth_mib(before), 96);  // 39 MiB in a run under ASan; the bodies are 256 MiB
}

}  // namespace
