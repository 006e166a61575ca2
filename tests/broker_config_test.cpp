// The command line: defaults, every option's field, parsing quirks, clamps, required
// options, finalize and usage.
#include "broker_config.hpp"

#include "test_prelude.hpp"

namespace {

using config_ptr = qm::c_ptr<broker_config_t, broker_config_free>;
using field_fn = std::function<std::string(const broker_config_t&)>;

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

// A field as the usage text writes it.
std::string text(const qm::opt_string& s) { return s ? *s : "<unset>"; }
std::string text(bool b) { return b ? "true" : "false"; }
template <typename N>
std::string text(N n) {
  return std::to_string(n);
}
std::string text(auth_backend_type_t b) {
  return b == AUTH_BACKEND_LDAP ? "ldap" : b == AUTH_BACKEND_FILE_THEN_LDAP ? "file+ldap" : "file";
}
std::string storage_of(const broker_config_t& c) { return c.js_transient_memory ? "memory" : "file"; }
std::string megabytes_text(size_t bytes) {
  return bytes % (1u << 20) == 0 ? std::to_string(bytes >> 20) : std::to_string(bytes) + " bytes";
}

#define FIELD(expr) [](const broker_config_t& c) { return text(c.expr); }

struct option_row {
  const char* option;
  field_fn field;
  const char* fresh;  // in a new record; nullptr: unset
  const char* given;
  const char* stored = nullptr;  // nullptr: as given
};

// Every option with its field, its default and what a value given for it stores.
const std::vector<option_row> kOptions = {
    {"--nats-url", FIELD(nats_url), nullptr, "nats://h:1"},
    {"--nats-cert-path", FIELD(nats_cert_path), nullptr, "/ca.pem"},
    {"--kv-replicas", FIELD(kv_replicas), "1", "3"},
    {"--kv-scandata-allow-direct", FIELD(kv_scandata_allow_direct), "true", "no", "false"},
    {"--js-work-services", FIELD(js_work_services), nullptr, "a,b"},
    {"--js-ackwait-ms", FIELD(js_ackwait_ms), "35000", "1000"},
    {"--js-maxdeliver", FIELD(js_maxdeliver), "3", "7"},
    {"--js-maxackpending", FIELD(js_maxackpending), "0", "9"},
    {"--js-maxwaiting", FIELD(js_maxwaiting), "0", "11"},
    {"--js-stream-maxage-ms", FIELD(js_stream_maxage_ms), "0", "13"},
    {"--js-transient-storage", storage_of, "memory", "FILE", "file"},
    {"--nats-server-binary", FIELD(nats_server_binary), nullptr, "/bin/other"},
    {"--nats-server-config", FIELD(nats_server_config), nullptr, "/etc/other.conf"},
    {"--nats-server-managed", FIELD(nats_server_managed), "true", "false"},
    {"--nats-server-ready-timeout-seconds", FIELD(nats_server_ready_timeout_sec), "30", "5"},
    {"--nats-server-pid-file", FIELD(nats_server_pid_file), nullptr, "/ns.pid"},
    {"--pid-file", FIELD(pid_file), nullptr, "/b.pid"},
    {"--admin-listen-host", FIELD(admin_listen_host), "127.0.0.1", "0.0.0.0"},
    {"--admin-listen-port", FIELD(admin_listen_port), "0", "9484"},
    {"--auth-callout-enabled", FIELD(auth_callout_enabled), "true", "0", "false"},
    {"--auth-nats-user", FIELD(auth->nats_user), nullptr, "au"},
    {"--auth-nats-password", FIELD(auth->nats_password), nullptr, "ap"},
    {"--auth-signing-key", FIELD(auth->signing_key_path), nullptr, "/seed"},
    {"--auth-backend", FIELD(auth->backend_type), "file", "File+LDAP", "file+ldap"},
    {"--auth-file", FIELD(gw->credential_file), nullptr, "/creds"},
    {"--ldap-url", FIELD(auth->ldap_url), nullptr, "ldap://l"},
    {"--ldap-base-dn", FIELD(auth->ldap_base_dn), nullptr, "dc=x"},
    {"--ldap-bind-dn", FIELD(auth->ldap_bind_dn), nullptr, "cn=s"},
    {"--ldap-bind-password", FIELD(auth->ldap_bind_password), nullptr, "lp"},
    {"--ldap-user-filter", FIELD(auth->ldap_user_filter), nullptr, "(uid=%s)"},
    {"--ldap-fallback-url", FIELD(auth->ldap_fallback_url), nullptr, "ldap://f"},
    {"--ldap-fallback-base-dn", FIELD(auth->ldap_fallback_base_dn), nullptr, "dc=f"},
    {"--ldap-fallback-bind-dn", FIELD(auth->ldap_fallback_bind_dn), nullptr, "cn=f"},
    {"--ldap-fallback-bind-password", FIELD(auth->ldap_fallback_bind_password), nullptr, "fp"},
    {"--ldap-fallback-user-filter", FIELD(auth->ldap_fallback_user_filter), nullptr, "(cn=%s)"},
    {"--ldap-pool-size", FIELD(auth->ldap_pool_size), "4", "8"},
    {"--ldap-idle-timeout-seconds", FIELD(auth->ldap_idle_timeout_seconds), "300", "60"},
    {"--ldap-group-attribute", FIELD(auth->ldap_group_attribute), nullptr, "memberOf"},
    {"--ldap-cacert", FIELD(auth->ldap_cacert_path), nullptr, "/l.pem"},
    {"--permissions-file", FIELD(auth->permissions_file_path), nullptr, "/p.json"},
    {"--fleet-account", FIELD(auth->fleet_account), "QM_FLEET", "F"},
    {"--gw-nats-user", FIELD(gw->nats_user), nullptr, "gu"},
    {"--gw-nats-password", FIELD(gw->nats_password), nullptr, "gp"},
    {"--listen-backlog", FIELD(gw->listen_backlog), "65535", "128"},
    {"--amqp-enabled", FIELD(gw->amqp_enabled), "true", "no", "false"},
    {"--amqp-listen-host", FIELD(gw->amqp_listen_host), "0.0.0.0", "127.0.0.1"},
    {"--amqp-listen-port", FIELD(gw->amqp_listen_port), "5672", "5673"},
    {"--amqp-tls-cert", FIELD(gw->amqp_tls_cert), nullptr, "/c"},
    {"--amqp-tls-key", FIELD(gw->amqp_tls_key), nullptr, "/k2"},
    {"--amqp-tls-ca", FIELD(gw->amqp_tls_ca), nullptr, "/ca2"},
    {"--http-enabled", FIELD(gw->http_enabled), "false", "yes", "true"},
    {"--http-listen-host", FIELD(gw->http_listen_host), "0.0.0.0", "::1"},
    {"--http-listen-port", FIELD(gw->http_listen_port), "8443", "9443"},
    {"--http-tls-cert", FIELD(gw->http_tls_cert), nullptr, "/hc"},
    {"--http-tls-key", FIELD(gw->http_tls_key), nullptr, "/hk"},
    {"--http-servlet-path", FIELD(gw->http_servlet_path), "/vsi", "/scan"},
    {"--auth-cache-ttl-seconds", FIELD(gw->auth_cache_ttl_seconds), "120", "60"},
    {"--auth-cache-max-entries", FIELD(gw->auth_cache_max_entries), "1024", "64"},
    {"--auth-negative-cache-ttl-seconds", FIELD(gw->auth_negative_cache_ttl_seconds), "10", "5"},
    {"--auth-cache-refresh-threshold-percent", FIELD(gw->auth_cache_refresh_threshold_pct), "50", "75"},
    {"--max-msg-size-mb", [](const broker_config_t& c) { return megabytes_text(c.gw->max_msg_size_bytes); }, "256",
     "2"},
    {"--max-inflight-mb", [](const broker_config_t& c) { return megabytes_text(c.gw->max_inflight_bytes); }, "1024",
     "64"},
    {"--http-max-connections", FIELD(gw->http_max_connections), "1024", "10"},
    {"--http-max-connections-per-ip", FIELD(gw->http_max_connections_per_ip), "64", "3"},
    {"--gw-services", FIELD(gw->services), nullptr, "scan,scanjs"},
    {"--amqp-relay-workers", FIELD(gw->amqp_relay_workers), "4", "8"},
    {"--amqp-max-connections", FIELD(gw->amqp_max_connections), "1024", "3"},
    {"--amqp-handshake-timeout-ms", FIELD(gw->amqp_handshake_timeout_ms), "10000", "1500"},
    {"--amqp-max-inflight", FIELD(gw->amqp_max_inflight), "32", "4"},
    {"--relay-timeout-ms", FIELD(gw->relay_timeout_ms), "30000", "100"},
    {"--relay-max-timeout-ms", FIELD(gw->relay_max_timeout_ms), "300000", "200"},
    {"--update-binary", FIELD(update_config.update_binary), "true", "no", "false"},
    {"--update-check-interval", FIELD(update_config.update_check_interval), "60", "15"},
    {"--update-drain-timeout-seconds", FIELD(update_drain_timeout_seconds), "30", "7"},
    {"--update-max-backups", FIELD(update_config.update_max_backups), "3", "2"},
    {"--update-maintenance-window", FIELD(update_maintenance_window), nullptr, "01:00-02:00"},
    {"--update-server", FIELD(update_config.update_server), nullptr, "https://u"},
    {"--update-no-cert-check", FIELD(update_config.no_certificate_check), "false", "TRUE", "true"},
    {"--http-proxy", FIELD(network_config.http_proxy), nullptr, "http://proxy:3128"},
    {"--tracelevel", FIELD(log_level), "4", "6"},
    {"--tracefile", FIELD(log_file), nullptr, "/t.log"},
    {"--trace-to-screen", [](const broker_config_t& c) { return c.log_screen_trace ? "1" : "0"; }, "1", "0"},
    {"--tracefile-maxsize", FIELD(log_maxsize_mb), "0", "10"},
    {"--auth-lock-failures", FIELD(auth->lock_failures), "10", "5"},
    {"--auth-lock-window", FIELD(auth->lock_window_seconds), "600", "60"},
    {"--auth-lock-min-seconds", FIELD(auth->lock_min_seconds), "1", "2"},
    {"--auth-lock-max-seconds", FIELD(auth->lock_max_seconds), "300", "30"},
};

TEST(ConfigOptions, EveryOptionHasItsDefaultAndReachesItsField) {
  const config_ptr fresh(broker_config_new());
  ASSERT_TRUE(fresh);
  std::vector<std::string> args;
  for (const auto& row : kOptions) {
    EXPECT_EQ(row.field(*fresh), row.fresh ? row.fresh : "<unset>") << row.option;
    args.insert(args.end(), {row.option, row.given});
  }
  const auto r = parse(args);
  ASSERT_EQ(r.result, BROKER_PARSE_RUN) << r.err;
  for (const auto& row : kOptions) EXPECT_EQ(row.field(*r.cfg), row.stored ? row.stored : row.given) << row.option;
}

// The usage text: every option but the two unlisted KV ones, and each "(default X)" it
// states the same as a new record's value.
TEST(ConfigOptions, UsageListsEveryOptionWithTheRecordsDefaults) {
  ::testing::internal::CaptureStderr();
  print_usage("/x/qm-av-broker");
  const std::string text = ::testing::internal::GetCapturedStderr();
  EXPECT_TRUE(text.starts_with("Usage: /x/qm-av-broker --nats-url <url> ")) << text.substr(0, 200);
  EXPECT_NE(text.find("\n  --print-issuer-nkey "), std::string::npos);

  const config_ptr fresh(broker_config_new());
  size_t defaults = 0;
  for (const auto& row : kOptions) {
    SCOPED_TRACE(row.option);
    // The entry: from the option's last listing (the first is under "Required:") to the next option.
    const size_t begin = text.rfind(std::string("\n  ") + row.option + " ");
    if (std::string(row.option).starts_with("--kv-")) {
      EXPECT_EQ(begin, std::string::npos);
      continue;
    }
    ASSERT_NE(begin, std::string::npos);
    const std::string entry = text.substr(begin, text.find("\n  -", begin + 1) - begin);
    const size_t stated = entry.find("(default ");
    if (stated == std::string::npos) continue;
    const size_t value = stated + std::string("(default ").size();
    EXPECT_EQ(entry.substr(value, entry.find(')', value) - value), row.field(*fresh));
    ++defaults;
  }
  // Every default the text states belongs to an option checked above.
  EXPECT_EQ(defaults, LogCapture::count_in(text, "(default "));
}

// Values that are clamped, floored, read leniently or not bounded at all, each given alone.
TEST(ConfigOptions, QuirksOfSingleValues) {
  const struct {
    std::vector<std::string> args;
    field_fn field;
    const char* stored;
    const char* err = "";
  } cases[] = {
      // Booleans: true, yes and 1 only, whatever the case; no trimming.
      {{"--http-enabled", "True"}, FIELD(gw->http_enabled), "true"},
      {{"--http-enabled", "YES"}, FIELD(gw->http_enabled), "true"},
      {{"--http-enabled", "1"}, FIELD(gw->http_enabled), "true"},
      {{"--kv-scandata-allow-direct", "2"}, FIELD(kv_scandata_allow_direct), "false"},
      {{"--kv-scandata-allow-direct", "on"}, FIELD(kv_scandata_allow_direct), "false"},
      {{"--kv-scandata-allow-direct", " true"}, FIELD(kv_scandata_allow_direct), "false"},
      // --trace-to-screen is an integer, so "true" reads as 0 and switches it off.
      {{"--trace-to-screen", "true"}, FIELD(log_screen_trace), "false"},
      {{"--trace-to-screen", "-3"}, FIELD(log_screen_trace), "true"},
      {{"--tracelevel", "9"}, FIELD(log_level), "6"},
      {{"--tracelevel", "-1"}, FIELD(log_level), "0"},
      {{"--ldap-pool-size", "65"}, FIELD(auth->ldap_pool_size), "64"},
      {{"--ldap-pool-size", "-2"}, FIELD(auth->ldap_pool_size), "0"},
      {{"--ldap-idle-timeout-seconds", "90000"}, FIELD(auth->ldap_idle_timeout_seconds), "86400"},
      {{"--ldap-idle-timeout-seconds", "-5"}, FIELD(auth->ldap_idle_timeout_seconds), "0"},
      {{"--auth-cache-refresh-threshold-percent", "101"}, FIELD(gw->auth_cache_refresh_threshold_pct), "100"},
      {{"--auth-cache-refresh-threshold-percent", "-1"}, FIELD(gw->auth_cache_refresh_threshold_pct), "0"},
      {{"--max-msg-size-mb", "-5"}, FIELD(gw->max_msg_size_bytes), "0"},
      {{"--max-msg-size-mb", "99999999999999999999"}, FIELD(gw->max_msg_size_bytes), "18446744073709551615"},
      {{"--amqp-relay-workers", "0"}, FIELD(gw->amqp_relay_workers), "1"},
      {{"--max-inflight-mb", "0"}, FIELD(gw->max_inflight_bytes), "1048576"},
      {{"--http-max-connections-per-ip", "-3"}, FIELD(gw->http_max_connections_per_ip), "1"},
      {{"--amqp-max-connections", "0"}, FIELD(gw->amqp_max_connections), "1"},
      {{"--amqp-max-inflight", "-3"}, FIELD(gw->amqp_max_inflight), "1"},
      {{"--update-check-interval", "-10"}, FIELD(update_config.update_check_interval), "0"},
      {{"--update-check-interval", "1"}, FIELD(update_config.update_check_interval), "1"},
      {{"--update-check-interval", "30s"}, FIELD(update_config.update_check_interval_seconds), "30"},
      {{"--update-drain-timeout-seconds", "-1"}, FIELD(update_drain_timeout_seconds), "0"},
      {{"--update-max-backups", "-1"}, FIELD(update_config.update_max_backups), "0"},
      // No bounds here: nonsense passes through for the subsystems to judge.
      {{"--kv-replicas", "-7"}, FIELD(kv_replicas), "-7"},
      {{"--relay-timeout-ms", "-1"}, FIELD(gw->relay_timeout_ms), "-1"},
      {{"--amqp-listen-port", "70000"}, FIELD(gw->amqp_listen_port), "70000"},
      {{"--ldap-user-filter", ""}, FIELD(auth->ldap_user_filter), ""},
      // Integers are read leniently.
      {{"--js-maxdeliver", "abc"}, FIELD(js_maxdeliver), "0"},
      {{"--js-maxdeliver", "12xyz"}, FIELD(js_maxdeliver), "12"},
      {{"--js-maxdeliver", " 5"}, FIELD(js_maxdeliver), "5"},
      // A backlog below 1 keeps the default; its warning comes before the logger is set up.
      {{"--listen-backlog", "0"}, FIELD(gw->listen_backlog), "65535"},
      {{"--listen-backlog", "abc"}, FIELD(gw->listen_backlog), "65535"},
      {{"--listen-backlog", "1"}, FIELD(gw->listen_backlog), "1"},
      {{"--js-transient-storage", "file", "--js-transient-storage", "MEMORY"}, storage_of, "memory"},
      {{"--js-transient-storage", "file", "--js-transient-storage", "disk"}, storage_of, "memory",
       "--js-transient-storage: unknown value 'disk' \u2014 using memory\n"},
      {{"--auth-backend", "file,ldap"}, FIELD(auth->backend_type), "file+ldap"},
      {{"--auth-backend", "FileThenLdap"}, FIELD(auth->backend_type), "file+ldap"},
      {{"--auth-backend", "ldap", "--auth-backend", "ldap+file"}, FIELD(auth->backend_type), "file"},
      {{"--auth-backend", "ldap", "--auth-backend", ""}, FIELD(auth->backend_type), "file"},
  };
  log_set_level(QMLOG_OFF);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args[c.args.size() - 2] + " '" + c.args.back() + "'");
    const auto r = parse(c.args);
    ASSERT_EQ(r.result, BROKER_PARSE_RUN);
    EXPECT_EQ(c.field(*r.cfg), c.stored);
    EXPECT_EQ(r.err, c.err);
  }
  EXPECT_EQ(auth_config_parse_backend(nullptr), AUTH_BACKEND_FILE);
}

// What a command line as a whole makes of the run: required options, switched-off
// subsystems, --print-issuer-nkey, --help and errors. Every error names its cause.
TEST(ConfigOptions, OutcomeOfWholeCommandLines) {
  const struct {
    std::vector<std::string> args;
    bool with_required;
    broker_parse_result_t result;
    const char* err;  // contained in standard error; "" for none at all
  } cases[] = {
      {{"--nats-url", "u", "--nats-server-managed", "false", "--auth-signing-key", "k", "--auth-file", "a"}, false,
       BROKER_PARSE_RUN, ""},
      {{"--nats-url", "u", "--nats-server-managed", "no", "--auth-callout-enabled", "0", "--auth-file", "a"}, false,
       BROKER_PARSE_RUN, ""},
      {{"--nats-url", "u", "--nats-server-managed", "no", "--auth-callout-enabled", "0"}, false,
       BROKER_PARSE_EXIT_FAILURE, "/usr/bin/qm-av-broker: --auth-file is required\n"},
      {{"--auth-callout-enabled", "false", "--amqp-enabled", "false"}, true, BROKER_PARSE_EXIT_FAILURE,
       "/usr/bin/qm-av-broker: all three subsystems (auth-callout, AMQP, HTTP) are disabled \u2014 nothing to do; "
       "refusing to start.\n"},
      {{"--auth-callout-enabled", "false", "--amqp-enabled", "false", "--http-enabled", "true"}, true,
       BROKER_PARSE_RUN, ""},
      {{"--print-issuer-nkey", "--auth-signing-key", "/seed"}, false, BROKER_PARSE_PRINT_ISSUER_NKEY, ""},
      {{"--auth-signing-key", "/seed", "--print-issuer-nkey"}, false, BROKER_PARSE_PRINT_ISSUER_NKEY, ""},
      {{"--print-issuer-nkey"}, false, BROKER_PARSE_EXIT_FAILURE,
       "/usr/bin/qm-av-broker: --print-issuer-nkey requires --auth-signing-key\n"},
      {{"--print-issuer-xkey", "--auth-signing-key", "/seed"}, false, BROKER_PARSE_PRINT_ISSUER_XKEY, ""},
      {{"--print-issuer-xkey"}, false, BROKER_PARSE_EXIT_FAILURE,
       "/usr/bin/qm-av-broker: --print-issuer-xkey requires --auth-signing-key\n"},
      {{"--help"}, true, BROKER_PARSE_EXIT_OK, "Usage: /usr/bin/qm-av-broker --nats-url <url>"},
      {{"-h"}, true, BROKER_PARSE_EXIT_OK, "Usage: /usr/bin/qm-av-broker --nats-url <url>"},
      {{"--no-such-option", "x"}, true, BROKER_PARSE_EXIT_FAILURE, "Usage: /usr/bin/qm-av-broker --nats-url <url>"},
      {{"--nats-url"}, true, BROKER_PARSE_EXIT_FAILURE, "Usage: /usr/bin/qm-av-broker --nats-url <url>"},
      {{"stray"}, true, BROKER_PARSE_EXIT_FAILURE,
       "/usr/bin/qm-av-broker: unexpected argument 'stray'\nUsage: /usr/bin/qm-av-broker --nats-url <url>"},
      {{"--", "--nats-url"}, true, BROKER_PARSE_EXIT_FAILURE, "unexpected argument '--nats-url'"},
  };
  // Each required option missing, those before it given.
  for (auto given = kRequired.begin(); given != kRequired.end(); given += 2) {
    const auto r = parse({kRequired.begin(), given}, false);
    EXPECT_EQ(r.result, BROKER_PARSE_EXIT_FAILURE);
    EXPECT_TRUE(r.err.starts_with("/usr/bin/qm-av-broker: " + *given + " is required\nUsage: ")) << r.err;
  }
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    const auto r = parse(c.args, c.with_required);
    EXPECT_EQ(r.result, c.result);
    if (c.err[0] == '\0') {
      EXPECT_EQ(r.err, "");
    } else {
      EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err.substr(0, 200);
    }
  }
}

// Hostile command lines: nothing crashes (the suite runs under the sanitizers) and
// whatever is stored is stored whole.
TEST(ConfigOptions, HostileArgumentsAreStoredWhole) {
  const std::string huge(1 << 20, 'x');
  std::vector<std::string> args{"--nats-url", huge, "--tracelevel", huge, "--amqp-listen-port",
                                "99999999999999999999999"};
  for (int i = 0; i < 5000; ++i) args.insert(args.end(), {"--tracefile", std::to_string(i)});
  const auto r = parse(args);
  ASSERT_EQ(r.result, BROKER_PARSE_RUN);
  EXPECT_EQ(r.cfg->nats_url->size(), huge.size());
  EXPECT_EQ(r.cfg->log_level, 0);
  EXPECT_EQ(*r.cfg->log_file, "4999");
}

TEST(ConfigFinalize, CopiesSharedSettingsIntoBothSubRecords) {
  auto r = parse({"--nats-cert-path", "/ca", "--js-work-services", "svc", "--js-ackwait-ms", "999", "--tracelevel",
                  "6", "--tracefile", "/log", "--trace-to-screen", "0", "--tracefile-maxsize", "3"});
  ASSERT_EQ(r.result, BROKER_PARSE_RUN);
  broker_config_t& c = *r.cfg;
  c.auth->nats_url = "stale";
  broker_config_finalize(&c);
  EXPECT_EQ(*c.gw->js_services, "svc");
  EXPECT_EQ(c.gw->js_ackwait_ms, 999);
  const auto shared = [](const auto& sub) {
    return text(sub.nats_url) + " " + text(sub.nats_cert_path) + " " + text(sub.log_level) + " " +
           text(sub.log_file) + " " + text(sub.log_screen_trace) + " " + text(sub.log_maxsize_mb);
  };
  EXPECT_EQ(shared(*c.auth), "nats://127.0.0.1:4222 /ca 6 /log false 3");
  EXPECT_EQ(shared(*c.gw), "nats://127.0.0.1:4222 /ca 6 /log false 3");

  // Copies, not shared storage; and an unset top-level value unsets the copy.
  *c.log_file = "/other";
  EXPECT_EQ(*c.gw->log_file, "/log");
  c.nats_cert_path.reset();
  broker_config_finalize(&c);
  EXPECT_FALSE(c.auth->nats_cert_path);
  EXPECT_FALSE(c.gw->nats_cert_path);
  broker_config_finalize(nullptr);
}

// The broker's own passwords from files (kept out of ps): the first line without its
// line end; a missing or empty file stops the start with its cause. A password given on
// the command line still works and is remembered for main's warning.
TEST(ConfigOptions, PasswordFilesGiveTheirFirstLine) {
  qmtest::TempDir dir;
  const struct {
    const char* content;  // nullptr: no file
    const char* stored;   // nullptr: the parse fails
    const char* err;
  } rows[] = {
      {"s3cret\n", "s3cret", ""},
      {"s3cret", "s3cret", ""},
      {"pass word # not a comment\r\nsecond line\n", "pass word # not a comment", ""},
      {"\nsecond line\n", nullptr, "the file's first line is empty\n"},
      {"", nullptr, "the file's first line is empty\n"},
      {nullptr, nullptr, "cannot read it: No such file or directory\n"},
  };
  const struct {
    const char* option;
    field_fn field;
  } options[] = {
      {"--auth-nats-password-file", FIELD(auth->nats_password)},
      {"--gw-nats-password-file", FIELD(gw->nats_password)},
      {"--ldap-bind-password-file", FIELD(auth->ldap_bind_password)},
      {"--ldap-fallback-bind-password-file", FIELD(auth->ldap_fallback_bind_password)},
  };
  int n = 0;
  for (const auto& row : rows) {
    const std::string path = dir.file("pw" + std::to_string(++n));
    if (row.content != nullptr) qmtest::write_file(path, row.content);
    for (const auto& o : options) {
      SCOPED_TRACE(std::string(o.option) + " " + (row.content ? row.content : "(missing)"));
      const auto r = parse({o.option, path});
      EXPECT_EQ(r.result, row.stored ? BROKER_PARSE_RUN : BROKER_PARSE_EXIT_FAILURE);
      if (row.stored) {
        EXPECT_EQ(o.field(*r.cfg), row.stored);
      }
      EXPECT_EQ(r.err, row.stored ? "" : "/usr/bin/qm-av-broker: " + std::string(o.option) + " " + path + ": " + row.err);
      EXPECT_TRUE(r.cfg->passwords_on_command_line.empty());
    }
  }
  const auto r = parse({"--gw-nats-password", "visible", "--auth-nats-password", "too"});
  EXPECT_EQ(r.cfg->passwords_on_command_line, (std::vector<std::string>{"--gw-nats-password", "--auth-nats-password"}));
}

}  // namespace
