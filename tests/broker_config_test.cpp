// The command line: defaults, parsing quirks, clamps, required options, finalize and usage.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "broker_config.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"

namespace {

using config_ptr = qm::c_ptr<broker_config_t, broker_config_free>;

struct parse_outcome {
  config_ptr cfg;
  broker_parse_result_t result;
  std::string err;
};

const std::vector<std::string> kRequired = {"--nats-url", "nats://127.0.0.1:4222", "--nats-server-binary",
                                            "/bin/ns", "--nats-server-config", "/etc/ns.conf",
                                            "--auth-signing-key", "/k", "--auth-file", "/a"};

parse_outcome parse(std::vector<std::string> args, bool with_required = true) {
  std::vector<std::string> words{"/usr/bin/qm-av-broker"};
  if (with_required) words.insert(words.end(), kRequired.begin(), kRequired.end());
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);

  parse_outcome out{config_ptr(broker_config_new()), BROKER_PARSE_EXIT_FAILURE, {}};
  ::testing::internal::CaptureStderr();
  out.result = broker_config_parse(out.cfg.get(), static_cast<int>(words.size()), argv.data());
  out.err = ::testing::internal::GetCapturedStderr();
  return out;
}

TEST(ConfigDefaults, EveryRecordStartsWithItsDocumentedDefaults) {
  config_ptr cfg(broker_config_new());
  ASSERT_TRUE(cfg);
  EXPECT_FALSE(cfg->nats_url);
  EXPECT_TRUE(cfg->nats_server_managed);
  EXPECT_EQ(cfg->nats_server_ready_timeout_sec, 30);
  EXPECT_TRUE(cfg->auth_callout_enabled);
  EXPECT_EQ(cfg->kv_replicas, 1);
  EXPECT_TRUE(cfg->kv_scandata_allow_direct);
  EXPECT_TRUE(cfg->js_transient_memory);
  EXPECT_EQ(cfg->js_ackwait_ms, 35000);
  EXPECT_EQ(cfg->js_maxdeliver, 3);
  EXPECT_EQ(cfg->js_maxackpending, 0);
  EXPECT_EQ(cfg->js_maxwaiting, 0);
  EXPECT_EQ(cfg->js_stream_maxage_ms, 0);
  EXPECT_EQ(cfg->log_level, QMLOG_INFO);
  EXPECT_TRUE(cfg->log_screen_trace);
  EXPECT_EQ(cfg->log_maxsize_mb, 0u);
  EXPECT_EQ(cfg->update_drain_timeout_seconds, 30);
  EXPECT_TRUE(cfg->update_config.update_binary);
  EXPECT_FALSE(cfg->update_config.update_data);
  EXPECT_FALSE(cfg->update_config.update_engine);
  EXPECT_EQ(cfg->update_config.update_check_interval, 60);
  EXPECT_EQ(cfg->update_config.update_max_backups, 3);
  EXPECT_FALSE(cfg->update_config.no_certificate_check);
  EXPECT_FALSE(cfg->network_config.http_proxy);

  const auth_config_t& auth = *cfg->auth;
  EXPECT_EQ(auth.backend_type, AUTH_BACKEND_FILE);
  EXPECT_EQ(auth.ldap_pool_size, 4);
  EXPECT_EQ(auth.ldap_idle_timeout_seconds, 300);
  EXPECT_FALSE(auth.signing_key_path);

  const gw_config_t& gw = *cfg->gw;
  EXPECT_EQ(gw.listen_backlog, 65535);
  EXPECT_TRUE(gw.amqp_enabled);
  EXPECT_EQ(*gw.amqp_listen_host, "0.0.0.0");
  EXPECT_EQ(gw.amqp_listen_port, 5672);
  EXPECT_FALSE(gw.http_enabled);
  EXPECT_EQ(*gw.http_listen_host, "0.0.0.0");
  EXPECT_EQ(gw.http_listen_port, 8443);
  EXPECT_EQ(*gw.http_servlet_path, "/vsi");
  EXPECT_EQ(gw.auth_cache_ttl_seconds, 120);
  EXPECT_EQ(gw.auth_cache_max_entries, 1024);
  EXPECT_EQ(gw.auth_negative_cache_ttl_seconds, 10);
  EXPECT_EQ(gw.auth_cache_refresh_threshold_pct, 50);
  EXPECT_EQ(gw.max_msg_size_bytes, 268435456u);
  EXPECT_EQ(gw.amqp_relay_workers, 4);
  EXPECT_EQ(gw.relay_timeout_ms, 30000);
  EXPECT_EQ(gw.relay_max_timeout_ms, 300000);
  EXPECT_EQ(gw.js_ackwait_ms, 0);
}

TEST(ConfigDefaults, FreeAcceptsNull) {
  broker_config_free(nullptr);
  auth_config_free(nullptr);
  gw_config_free(nullptr);
  broker_config_finalize(nullptr);
}

TEST(ConfigParsing, EveryOptionReachesItsField) {
  auto r = parse({"--nats-cert-path", "/ca.pem", "--kv-replicas", "3", "--js-work-services", "a,b",
                  "--js-ackwait-ms", "1000", "--js-maxdeliver", "7", "--js-maxackpending", "9",
                  "--js-maxwaiting", "11", "--js-stream-maxage-ms", "13", "--nats-server-ready-timeout-seconds",
                  "5", "--nats-server-pid-file", "/ns.pid", "--pid-file", "/b.pid", "--auth-nats-user", "au",
                  "--auth-nats-password", "ap", "--ldap-url", "ldap://l", "--ldap-base-dn", "dc=x",
                  "--ldap-bind-dn", "cn=s", "--ldap-bind-password", "lp", "--ldap-user-filter", "(uid=%s)",
                  "--ldap-fallback-url", "ldap://f", "--ldap-fallback-base-dn", "dc=f", "--ldap-fallback-bind-dn",
                  "cn=f", "--ldap-fallback-bind-password", "fp", "--ldap-fallback-user-filter", "(cn=%s)",
                  "--ldap-group-attribute", "memberOf", "--ldap-cacert", "/l.pem", "--permissions-file", "/p.json",
                  "--gw-nats-user", "gu", "--gw-nats-password", "gp", "--listen-backlog", "128",
                  "--amqp-listen-host", "127.0.0.1", "--amqp-listen-port", "5673", "--amqp-tls-cert", "/c",
                  "--amqp-tls-key", "/k2", "--amqp-tls-ca", "/ca2", "--http-enabled", "yes", "--http-listen-host",
                  "::1", "--http-listen-port", "9443", "--http-tls-cert", "/hc", "--http-tls-key", "/hk",
                  "--http-servlet-path", "/scan", "--auth-cache-ttl-seconds", "60", "--auth-cache-max-entries",
                  "64", "--auth-negative-cache-ttl-seconds", "5", "--max-msg-size-mb", "2", "--amqp-relay-workers",
                  "8", "--relay-timeout-ms", "100", "--relay-max-timeout-ms", "200", "--update-binary", "no",
                  "--update-check-interval", "15", "--update-drain-timeout-seconds", "7", "--update-max-backups",
                  "2", "--update-maintenance-window", "01:00-02:00", "--update-server", "https://u",
                  "--update-no-cert-check", "TRUE", "--http-proxy", "http://proxy:3128", "--tracefile", "/t.log",
                  "--tracefile-maxsize", "10"});
  ASSERT_EQ(r.result, BROKER_PARSE_RUN) << r.err;
  const broker_config_t& c = *r.cfg;
  EXPECT_EQ(*c.nats_url, "nats://127.0.0.1:4222");
  EXPECT_EQ(*c.nats_server_binary, "/bin/ns");
  EXPECT_EQ(*c.nats_server_config, "/etc/ns.conf");
  EXPECT_EQ(*c.nats_cert_path, "/ca.pem");
  EXPECT_EQ(c.kv_replicas, 3);
  EXPECT_EQ(*c.js_work_services, "a,b");
  EXPECT_EQ(c.js_ackwait_ms, 1000);
  EXPECT_EQ(c.js_maxdeliver, 7);
  EXPECT_EQ(c.js_maxackpending, 9);
  EXPECT_EQ(c.js_maxwaiting, 11);
  EXPECT_EQ(c.js_stream_maxage_ms, 13);
  EXPECT_EQ(c.nats_server_ready_timeout_sec, 5);
  EXPECT_EQ(*c.nats_server_pid_file, "/ns.pid");
  EXPECT_EQ(*c.pid_file, "/b.pid");
  EXPECT_EQ(*c.auth->nats_user, "au");
  EXPECT_EQ(*c.auth->nats_password, "ap");
  EXPECT_EQ(*c.auth->signing_key_path, "/k");
  EXPECT_EQ(*c.auth->ldap_url, "ldap://l");
  EXPECT_EQ(*c.auth->ldap_base_dn, "dc=x");
  EXPECT_EQ(*c.auth->ldap_bind_dn, "cn=s");
  EXPECT_EQ(*c.auth->ldap_bind_password, "lp");
  EXPECT_EQ(*c.auth->ldap_user_filter, "(uid=%s)");
  EXPECT_EQ(*c.auth->ldap_fallback_url, "ldap://f");
  EXPECT_EQ(*c.auth->ldap_fallback_base_dn, "dc=f");
  EXPECT_EQ(*c.auth->ldap_fallback_bind_dn, "cn=f");
  EXPECT_EQ(*c.auth->ldap_fallback_bind_password, "fp");
  EXPECT_EQ(*c.auth->ldap_fallback_user_filter, "(cn=%s)");
  EXPECT_EQ(*c.auth->ldap_group_attribute, "memberOf");
  EXPECT_EQ(*c.auth->ldap_cacert_path, "/l.pem");
  EXPECT_EQ(*c.auth->permissions_file_path, "/p.json");
  EXPECT_EQ(*c.gw->nats_user, "gu");
  EXPECT_EQ(*c.gw->nats_password, "gp");
  EXPECT_EQ(*c.gw->credential_file, "/a");
  EXPECT_EQ(c.gw->listen_backlog, 128);
  EXPECT_EQ(*c.gw->amqp_listen_host, "127.0.0.1");
  EXPECT_EQ(c.gw->amqp_listen_port, 5673);
  EXPECT_EQ(*c.gw->amqp_tls_cert, "/c");
  EXPECT_EQ(*c.gw->amqp_tls_key, "/k2");
  EXPECT_EQ(*c.gw->amqp_tls_ca, "/ca2");
  EXPECT_TRUE(c.gw->http_enabled);
  EXPECT_EQ(*c.gw->http_listen_host, "::1");
  EXPECT_EQ(c.gw->http_listen_port, 9443);
  EXPECT_EQ(*c.gw->http_tls_cert, "/hc");
  EXPECT_EQ(*c.gw->http_tls_key, "/hk");
  EXPECT_EQ(*c.gw->http_servlet_path, "/scan");
  EXPECT_EQ(c.gw->auth_cache_ttl_seconds, 60);
  EXPECT_EQ(c.gw->auth_cache_max_entries, 64);
  EXPECT_EQ(c.gw->auth_negative_cache_ttl_seconds, 5);
  EXPECT_EQ(c.gw->max_msg_size_bytes, 2u * 1048576u);
  EXPECT_EQ(c.gw->amqp_relay_workers, 8);
  EXPECT_EQ(c.gw->relay_timeout_ms, 100);
  EXPECT_EQ(c.gw->relay_max_timeout_ms, 200);
  EXPECT_FALSE(c.update_config.update_binary);
  EXPECT_EQ(c.update_config.update_check_interval, 15);
  EXPECT_EQ(c.update_drain_timeout_seconds, 7);
  EXPECT_EQ(c.update_config.update_max_backups, 2);
  EXPECT_EQ(*c.update_maintenance_window, "01:00-02:00");
  EXPECT_EQ(*c.update_config.update_server, "https://u");
  EXPECT_TRUE(c.update_config.no_certificate_check);
  EXPECT_EQ(*c.network_config.http_proxy, "http://proxy:3128");
  EXPECT_EQ(*c.log_file, "/t.log");
  EXPECT_EQ(c.log_maxsize_mb, 10u);
}

TEST(ConfigParsing, BooleansAcceptTrueYesAndOneOnly) {
  for (const char* yes : {"true", "TRUE", "True", "yes", "YES", "1"}) {
    auto r = parse({"--kv-scandata-allow-direct", "false", "--kv-scandata-allow-direct", yes});
    EXPECT_TRUE(r.cfg->kv_scandata_allow_direct) << yes;
  }
  for (const char* no : {"false", "no", "0", "2", "on", "y", "", " true", "true "}) {
    auto r = parse({"--kv-scandata-allow-direct", no});
    EXPECT_FALSE(r.cfg->kv_scandata_allow_direct) << "'" << no << "'";
  }
}

TEST(ConfigParsing, TraceToScreenIsAnIntegerSoTrueMeansOff) {
  EXPECT_FALSE(parse({"--trace-to-screen", "true"}).cfg->log_screen_trace);
  EXPECT_FALSE(parse({"--trace-to-screen", "0"}).cfg->log_screen_trace);
  EXPECT_TRUE(parse({"--trace-to-screen", "1"}).cfg->log_screen_trace);
  EXPECT_TRUE(parse({"--trace-to-screen", "-3"}).cfg->log_screen_trace);
}

TEST(ConfigParsing, ClampsAndFloors) {
  EXPECT_EQ(parse({"--tracelevel", "9"}).cfg->log_level, 6);
  EXPECT_EQ(parse({"--tracelevel", "-1"}).cfg->log_level, 0);
  EXPECT_EQ(parse({"--tracelevel", "abc"}).cfg->log_level, 0);
  EXPECT_EQ(parse({"--ldap-pool-size", "65"}).cfg->auth->ldap_pool_size, 64);
  EXPECT_EQ(parse({"--ldap-pool-size", "-2"}).cfg->auth->ldap_pool_size, 0);
  EXPECT_EQ(parse({"--ldap-idle-timeout-seconds", "90000"}).cfg->auth->ldap_idle_timeout_seconds, 86400);
  EXPECT_EQ(parse({"--ldap-idle-timeout-seconds", "-5"}).cfg->auth->ldap_idle_timeout_seconds, 0);
  EXPECT_EQ(parse({"--auth-cache-refresh-threshold-percent", "101"}).cfg->gw->auth_cache_refresh_threshold_pct, 100);
  EXPECT_EQ(parse({"--auth-cache-refresh-threshold-percent", "-1"}).cfg->gw->auth_cache_refresh_threshold_pct, 0);
  EXPECT_EQ(parse({"--max-msg-size-mb", "-5"}).cfg->gw->max_msg_size_bytes, 0u);
  EXPECT_EQ(parse({"--max-msg-size-mb", "0"}).cfg->gw->max_msg_size_bytes, 0u);
  EXPECT_EQ(parse({"--max-msg-size-mb", "99999999999999999999"}).cfg->gw->max_msg_size_bytes, SIZE_MAX);
  EXPECT_EQ(parse({"--amqp-relay-workers", "0"}).cfg->gw->amqp_relay_workers, 1);
  EXPECT_EQ(parse({"--amqp-relay-workers", "-4"}).cfg->gw->amqp_relay_workers, 1);
  EXPECT_EQ(parse({"--update-check-interval", "-10"}).cfg->update_config.update_check_interval, 0);
  EXPECT_EQ(parse({"--update-check-interval", "1"}).cfg->update_config.update_check_interval, 1);
  EXPECT_EQ(parse({"--update-drain-timeout-seconds", "-1"}).cfg->update_drain_timeout_seconds, 0);
  EXPECT_EQ(parse({"--update-max-backups", "-1"}).cfg->update_config.update_max_backups, 0);
  // No bounds here: nonsense passes through for the subsystems to judge.
  EXPECT_EQ(parse({"--kv-replicas", "-7"}).cfg->kv_replicas, -7);
  EXPECT_EQ(parse({"--relay-timeout-ms", "-1"}).cfg->gw->relay_timeout_ms, -1);
  EXPECT_EQ(parse({"--amqp-listen-port", "70000"}).cfg->gw->amqp_listen_port, 70000);
}

TEST(ConfigParsing, IntegersAreReadLeniently) {
  EXPECT_EQ(parse({"--js-maxdeliver", "abc"}).cfg->js_maxdeliver, 0);
  EXPECT_EQ(parse({"--js-maxdeliver", "12xyz"}).cfg->js_maxdeliver, 12);
  EXPECT_EQ(parse({"--js-maxdeliver", ""}).cfg->js_maxdeliver, 0);
  EXPECT_EQ(parse({"--js-maxdeliver", " 5"}).cfg->js_maxdeliver, 5);
}

TEST(ConfigParsing, ListenBacklogKeepsDefaultForNonPositiveValuesWithoutPrinting) {
  // The warning is logged before the logger is configured, so it never shows.
  log_set_level(QMLOG_OFF);
  for (const char* bad : {"0", "-1", "abc", ""}) {
    auto r = parse({"--listen-backlog", bad});
    EXPECT_EQ(r.cfg->gw->listen_backlog, 65535) << bad;
    EXPECT_EQ(r.err, "") << bad;
  }
  EXPECT_EQ(parse({"--listen-backlog", "1"}).cfg->gw->listen_backlog, 1);
}

TEST(ConfigParsing, TransientStorageWords) {
  auto file = parse({"--js-transient-storage", "FILE"});
  EXPECT_FALSE(file.cfg->js_transient_memory);
  EXPECT_EQ(file.err, "");

  auto memory = parse({"--js-transient-storage", "MEMORY"});
  EXPECT_TRUE(memory.cfg->js_transient_memory);
  EXPECT_EQ(memory.err, "");

  auto disk = parse({"--js-transient-storage", "disk"});
  EXPECT_TRUE(disk.cfg->js_transient_memory);
  EXPECT_EQ(disk.err, "--js-transient-storage: unknown value 'disk' \u2014 using memory\n");
}

TEST(ConfigParsing, BackendWords) {
  EXPECT_EQ(auth_config_parse_backend(nullptr), AUTH_BACKEND_FILE);
  EXPECT_EQ(auth_config_parse_backend("file"), AUTH_BACKEND_FILE);
  EXPECT_EQ(auth_config_parse_backend("LDAP"), AUTH_BACKEND_LDAP);
  EXPECT_EQ(auth_config_parse_backend("File+LDAP"), AUTH_BACKEND_FILE_THEN_LDAP);
  EXPECT_EQ(auth_config_parse_backend("file,ldap"), AUTH_BACKEND_FILE_THEN_LDAP);
  EXPECT_EQ(auth_config_parse_backend("FileThenLdap"), AUTH_BACKEND_FILE_THEN_LDAP);
  EXPECT_EQ(auth_config_parse_backend("ldap+file"), AUTH_BACKEND_FILE);
  EXPECT_EQ(auth_config_parse_backend(""), AUTH_BACKEND_FILE);
  EXPECT_EQ(parse({"--auth-backend", "ldap"}).cfg->auth->backend_type, AUTH_BACKEND_LDAP);
}

TEST(ConfigParsing, LaterOccurrenceOverridesEarlier) {
  auto r = parse({"--amqp-listen-port", "1", "--amqp-listen-port", "2", "--tracefile", "/a", "--tracefile", "/b"});
  EXPECT_EQ(r.cfg->gw->amqp_listen_port, 2);
  EXPECT_EQ(*r.cfg->log_file, "/b");
}

TEST(ConfigRequired, MissingOptionsAreReportedFirstToLastWithUsage) {
  struct step {
    std::vector<std::string> args;
    const char* missing;
  };
  const std::vector<step> steps = {
      {{}, "--nats-url"},
      {{"--nats-url", "u"}, "--nats-server-binary"},
      {{"--nats-url", "u", "--nats-server-binary", "b"}, "--nats-server-config"},
      {{"--nats-url", "u", "--nats-server-binary", "b", "--nats-server-config", "c"}, "--auth-signing-key"},
      {{"--nats-url", "u", "--nats-server-binary", "b", "--nats-server-config", "c", "--auth-signing-key", "k"},
       "--auth-file"},
  };
  for (const auto& s : steps) {
    auto r = parse(s.args, false);
    EXPECT_EQ(r.result, BROKER_PARSE_EXIT_FAILURE);
    const std::string expected = std::string("/usr/bin/qm-av-broker: ") + s.missing + " is required\nUsage: ";
    EXPECT_EQ(r.err.rfind(expected, 0), 0u) << r.err.substr(0, 120);
  }
}

TEST(ConfigRequired, SwitchedOffSubsystemsDropTheirRequirements) {
  auto external = parse({"--nats-url", "u", "--nats-server-managed", "false", "--auth-signing-key", "k",
                         "--auth-file", "a"},
                        false);
  EXPECT_EQ(external.result, BROKER_PARSE_RUN) << external.err;

  auto no_callout = parse({"--nats-url", "u", "--nats-server-managed", "no", "--auth-callout-enabled", "0",
                           "--auth-file", "a"},
                          false);
  EXPECT_EQ(no_callout.result, BROKER_PARSE_RUN) << no_callout.err;

  auto no_file = parse({"--nats-url", "u", "--nats-server-managed", "no", "--auth-callout-enabled", "0"}, false);
  EXPECT_EQ(no_file.result, BROKER_PARSE_EXIT_FAILURE);
  EXPECT_EQ(no_file.err.rfind("/usr/bin/qm-av-broker: --auth-file is required\n", 0), 0u);
}

TEST(ConfigRequired, AllThreeSubsystemsDisabledIsRefused) {
  auto r = parse({"--auth-callout-enabled", "false", "--amqp-enabled", "false"});
  EXPECT_EQ(r.result, BROKER_PARSE_EXIT_FAILURE);
  EXPECT_EQ(r.err,
            "/usr/bin/qm-av-broker: all three subsystems (auth-callout, AMQP, HTTP) are disabled \u2014 nothing to "
            "do; refusing to start.\n");
  EXPECT_EQ(parse({"--auth-callout-enabled", "false", "--amqp-enabled", "false", "--http-enabled", "true"}).result,
            BROKER_PARSE_RUN);
}

TEST(ConfigRequired, PrintIssuerNkeySkipsEveryOtherCheck) {
  auto r = parse({"--print-issuer-nkey", "--auth-signing-key", "/seed"}, false);
  EXPECT_EQ(r.result, BROKER_PARSE_PRINT_ISSUER_NKEY);
  EXPECT_EQ(*r.cfg->auth->signing_key_path, "/seed");
  auto after = parse({"--auth-signing-key", "/seed", "--print-issuer-nkey"}, false);
  EXPECT_EQ(after.result, BROKER_PARSE_PRINT_ISSUER_NKEY);

  auto without_key = parse({"--print-issuer-nkey"}, false);
  EXPECT_EQ(without_key.result, BROKER_PARSE_EXIT_FAILURE);
  EXPECT_EQ(without_key.err, "/usr/bin/qm-av-broker: --print-issuer-nkey requires --auth-signing-key\n");
}

TEST(ConfigErrors, UnknownOptionsMissingArgumentsAndStrayWordsPrintUsage) {
  for (const auto& args : std::vector<std::vector<std::string>>{
           {"--no-such-option", "x"}, {"--nats-url"}, {"-x"}, {"stray"}, {"--help=1"}}) {
    auto r = parse(args);
    EXPECT_EQ(r.result, BROKER_PARSE_EXIT_FAILURE) << args[0];
    EXPECT_NE(r.err.find("Usage: /usr/bin/qm-av-broker --nats-url <url>"), std::string::npos) << args[0];
  }
}

TEST(ConfigErrors, HelpWinsAndPrintsTheUsage) {
  for (const char* word : {"--help", "-h"}) {
    auto r = parse({word});
    EXPECT_EQ(r.result, BROKER_PARSE_EXIT_OK);
    EXPECT_EQ(r.err.rfind("Usage: /usr/bin/qm-av-broker --nats-url <url>", 0), 0u);
  }
}

// Hostile command lines: nothing crashes (the suite runs under the sanitizers) and
// whatever is stored is stored whole.
TEST(ConfigErrors, HostileArgumentsAreStoredWholeOrRefused) {
  const std::string huge(1 << 20, 'x');
  auto r = parse({"--nats-url", huge, "--ldap-user-filter", "", "--tracelevel", huge, "--amqp-listen-port",
                  "99999999999999999999999", "--max-msg-size-mb", "-99999999999999999999"});
  ASSERT_EQ(r.result, BROKER_PARSE_RUN);
  EXPECT_EQ(r.cfg->nats_url->size(), huge.size());
  EXPECT_EQ(*r.cfg->auth->ldap_user_filter, "");
  EXPECT_EQ(r.cfg->log_level, 0);
  EXPECT_EQ(r.cfg->gw->max_msg_size_bytes, 0u);

  std::vector<std::string> repeated;
  for (int i = 0; i < 5000; ++i) {
    repeated.push_back("--tracefile");
    repeated.push_back(std::to_string(i));
  }
  auto rep = parse(repeated);
  EXPECT_EQ(*rep.cfg->log_file, "4999");

  auto empty_names = parse({"--", "--nats-url"});
  EXPECT_EQ(empty_names.result, BROKER_PARSE_EXIT_FAILURE);
}

TEST(ConfigFinalize, CopiesSharedSettingsIntoBothSubRecords) {
  auto r = parse({"--nats-cert-path", "/ca", "--js-work-services", "svc", "--js-ackwait-ms", "999",
                  "--tracelevel", "6", "--tracefile", "/log", "--trace-to-screen", "0", "--tracefile-maxsize", "3"});
  ASSERT_EQ(r.result, BROKER_PARSE_RUN);
  broker_config_t& c = *r.cfg;
  c.auth->nats_url = "stale";
  broker_config_finalize(&c);
  for (const auto* url : {&c.auth->nats_url, &c.gw->nats_url}) EXPECT_EQ(**url, "nats://127.0.0.1:4222");
  EXPECT_EQ(*c.auth->nats_cert_path, "/ca");
  EXPECT_EQ(*c.gw->nats_cert_path, "/ca");
  EXPECT_EQ(*c.gw->js_services, "svc");
  EXPECT_EQ(c.gw->js_ackwait_ms, 999);
  EXPECT_EQ(c.auth->log_level, 6);
  EXPECT_EQ(c.gw->log_level, 6);
  EXPECT_EQ(*c.auth->log_file, "/log");
  EXPECT_EQ(*c.gw->log_file, "/log");
  EXPECT_FALSE(c.auth->log_screen_trace);
  EXPECT_FALSE(c.gw->log_screen_trace);
  EXPECT_EQ(c.auth->log_maxsize_mb, 3u);
  EXPECT_EQ(c.gw->log_maxsize_mb, 3u);

  // Copies, not shared storage: changing the top level later leaves the sub-records alone.
  *c.log_file = "/other";
  EXPECT_EQ(*c.gw->log_file, "/log");

  // An unset top-level value unsets the copy.
  c.nats_cert_path.reset();
  broker_config_finalize(&c);
  EXPECT_FALSE(c.auth->nats_cert_path);
  EXPECT_FALSE(c.gw->nats_cert_path);
}

TEST(ConfigUsage, ListsEveryHeadingInOrderAndTheOptions) {
  ::testing::internal::CaptureStderr();
  print_usage("/x/qm-av-broker");
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(text.rfind("Usage: /x/qm-av-broker --nats-url <url> --nats-server-binary <path> --nats-server-config "
                       "<path>",
                       0),
            0u);
  EXPECT_NE(text.find("--auth-signing-key <path> --auth-file <path> [options]"), std::string::npos);
  const char* headings[] = {"Required:",
                            "nats-server child (default: managed):",
                            "Broker self-pid file (default: not written):",
                            "Auth callout subsystem (default: enabled):",
                            "Gateway subsystem (NATS-side credentials):",
                            "Listeners (both front doors):",
                            "AMQP acceptor (default: enabled, 0.0.0.0:5672, plaintext):",
                            "HTTPS REST frontend (default: disabled):",
                            "Auth result cache (HTTP frontend only):",
                            "Limits:",
                            "JetStream scan-dispatch work queues (off unless --js-work-services is set):",
                            "Auto-update",
                            "Logging:",
                            "Diagnostics:"};
  size_t at = 0;
  for (const char* h : headings) {
    const size_t found = text.find(std::string("\n") + h, at);
    ASSERT_NE(found, std::string::npos) << h;
    at = found + 1;
  }
  EXPECT_TRUE(text.ends_with("-h, --help                           Show this help message\n"));
  // Every option of the table except the two unlisted KV options appears.
  for (const char* opt :
       {"--nats-url", "--nats-cert-path", "--js-work-services", "--js-ackwait-ms", "--js-maxdeliver",
        "--js-maxackpending", "--js-maxwaiting", "--js-stream-maxage-ms", "--js-transient-storage",
        "--nats-server-binary", "--nats-server-config", "--nats-server-managed",
        "--nats-server-ready-timeout-seconds", "--nats-server-pid-file", "--pid-file", "--auth-callout-enabled",
        "--auth-nats-user", "--auth-nats-password", "--auth-signing-key", "--auth-backend", "--auth-file",
        "--ldap-url", "--ldap-base-dn", "--ldap-bind-dn", "--ldap-bind-password", "--ldap-user-filter",
        "--ldap-fallback-url", "--ldap-fallback-base-dn", "--ldap-fallback-bind-dn",
        "--ldap-fallback-bind-password", "--ldap-fallback-user-filter", "--ldap-pool-size",
        "--ldap-idle-timeout-seconds", "--ldap-group-attribute", "--ldap-cacert", "--permissions-file",
        "--gw-nats-user", "--gw-nats-password", "--listen-backlog", "--amqp-enabled", "--amqp-listen-host",
        "--amqp-listen-port", "--amqp-tls-cert", "--amqp-tls-key", "--amqp-tls-ca", "--http-enabled",
        "--http-listen-host", "--http-listen-port", "--http-tls-cert", "--http-tls-key", "--http-servlet-path",
        "--auth-cache-ttl-seconds", "--auth-cache-max-entries", "--auth-negative-cache-ttl-seconds",
        "--auth-cache-refresh-threshold-percent", "--max-msg-size-mb", "--amqp-relay-workers",
        "--relay-timeout-ms", "--relay-max-timeout-ms", "--update-binary", "--update-check-interval",
        "--update-drain-timeout-seconds", "--update-max-backups", "--update-maintenance-window",
        "--update-server", "--update-no-cert-check", "--http-proxy", "--tracelevel", "--tracefile",
        "--trace-to-screen", "--tracefile-maxsize", "--print-issuer-nkey"}) {
    EXPECT_NE(text.find(std::string("  ") + opt + " "), std::string::npos) << opt;
  }
  EXPECT_EQ(text.find("--kv-replicas"), std::string::npos);
  EXPECT_EQ(text.find("--kv-scandata-allow-direct"), std::string::npos);
}

}  // namespace
