// The broker binary with its REST front door on: a scan by the curl command over TLS,
// the door's place in the teardown, and a half TLS configuration refused at start-up.
#include "test_prelude.hpp"

#include "amqp_fixture.hpp"
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
  const std::string listening = "HTTP frontend started on 0.0.0.0:";
  ASSERT_TRUE(env.wait_for_log(listening));
  const std::string started = env.broker_log();
  const std::string port = std::to_string(atoi(started.c_str() + started.find(listening) + listening.size()));
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
  EXPECT_LOGGED(log, "HTTP_TLS_CERT and HTTP_TLS_KEY must be set together; refusing to start");
  EXPECT_LOGGED(log, "Failed to start HTTP frontend on 0.0.0.0:");
  EXPECT_NOT_LOGGED(log, "qm-av-broker ready");
}

}  // namespace
