#include "broker_config.hpp"

#include <getopt.h>
#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "log.hpp"

namespace {

enum option_id : int {
  OPT_HELP = 'h',
  OPT_NATS_URL = 256,
  OPT_NATS_CERT_PATH,
  OPT_KV_REPLICAS,
  OPT_KV_SCANDATA_ALLOW_DIRECT,
  OPT_JS_WORK_SERVICES,
  OPT_JS_ACKWAIT_MS,
  OPT_JS_MAXDELIVER,
  OPT_JS_MAXACKPENDING,
  OPT_JS_MAXWAITING,
  OPT_JS_STREAM_MAXAGE_MS,
  OPT_JS_TRANSIENT_STORAGE,
  OPT_NATS_SERVER_BINARY,
  OPT_NATS_SERVER_CONFIG,
  OPT_NATS_SERVER_MANAGED,
  OPT_NATS_SERVER_READY_TIMEOUT,
  OPT_NATS_SERVER_PID_FILE,
  OPT_PID_FILE,
  OPT_ADMIN_LISTEN_HOST,
  OPT_ADMIN_LISTEN_PORT,
  OPT_AUTH_CALLOUT_ENABLED,
  OPT_AUTH_NATS_USER,
  OPT_AUTH_NATS_PASSWORD,
  OPT_AUTH_SIGNING_KEY,
  OPT_AUTH_BACKEND,
  OPT_AUTH_FILE,
  OPT_LDAP_URL,
  OPT_LDAP_BASE_DN,
  OPT_LDAP_BIND_DN,
  OPT_LDAP_BIND_PASSWORD,
  OPT_LDAP_USER_FILTER,
  OPT_LDAP_FALLBACK_URL,
  OPT_LDAP_FALLBACK_BASE_DN,
  OPT_LDAP_FALLBACK_BIND_DN,
  OPT_LDAP_FALLBACK_BIND_PASSWORD,
  OPT_LDAP_FALLBACK_USER_FILTER,
  OPT_LDAP_POOL_SIZE,
  OPT_LDAP_IDLE_TIMEOUT,
  OPT_LDAP_GROUP_ATTRIBUTE,
  OPT_LDAP_CACERT,
  OPT_PERMISSIONS_FILE,
  OPT_FLEET_ACCOUNT,
  OPT_GW_NATS_USER,
  OPT_GW_NATS_PASSWORD,
  OPT_LISTEN_BACKLOG,
  OPT_AMQP_ENABLED,
  OPT_AMQP_LISTEN_HOST,
  OPT_AMQP_LISTEN_PORT,
  OPT_AMQP_TLS_CERT,
  OPT_AMQP_TLS_KEY,
  OPT_AMQP_TLS_CA,
  OPT_HTTP_ENABLED,
  OPT_HTTP_LISTEN_HOST,
  OPT_HTTP_LISTEN_PORT,
  OPT_HTTP_TLS_CERT,
  OPT_HTTP_TLS_KEY,
  OPT_HTTP_SERVLET_PATH,
  OPT_AUTH_CACHE_TTL,
  OPT_AUTH_CACHE_MAX_ENTRIES,
  OPT_AUTH_NEGATIVE_CACHE_TTL,
  OPT_AUTH_CACHE_REFRESH_THRESHOLD,
  OPT_MAX_MSG_SIZE_MB,
  OPT_MAX_INFLIGHT_MB,
  OPT_HTTP_MAX_CONNECTIONS,
  OPT_HTTP_MAX_CONNECTIONS_PER_IP,
  OPT_GW_SERVICES,
  OPT_AMQP_RELAY_WORKERS,
  OPT_AMQP_MAX_CONNECTIONS,
  OPT_AMQP_HANDSHAKE_TIMEOUT_MS,
  OPT_AMQP_MAX_INFLIGHT,
  OPT_RELAY_TIMEOUT_MS,
  OPT_RELAY_MAX_TIMEOUT_MS,
  OPT_UPDATE_BINARY,
  OPT_UPDATE_CHECK_INTERVAL,
  OPT_UPDATE_DRAIN_TIMEOUT,
  OPT_UPDATE_MAX_BACKUPS,
  OPT_UPDATE_MAINTENANCE_WINDOW,
  OPT_UPDATE_SERVER,
  OPT_UPDATE_NO_CERT_CHECK,
  OPT_UPDATE_CA_FILE,
  OPT_UPDATE_PUBLIC_KEY,
  OPT_HTTP_PROXY,
  OPT_TRACELEVEL,
  OPT_TRACEFILE,
  OPT_TRACE_TO_SCREEN,
  OPT_TRACEFILE_MAXSIZE,
  OPT_PRINT_ISSUER_NKEY,
  OPT_PRINT_ISSUER_XKEY,
  OPT_AUTH_NATS_PASSWORD_FILE,
  OPT_GW_NATS_PASSWORD_FILE,
  OPT_LDAP_BIND_PASSWORD_FILE,
  OPT_LDAP_FALLBACK_BIND_PASSWORD_FILE,
  OPT_AUTH_LOCK_FAILURES,
  OPT_AUTH_LOCK_WINDOW,
  OPT_AUTH_LOCK_MIN_SECONDS,
  OPT_AUTH_LOCK_MAX_SECONDS,
};

const option kLongOptions[] = {
    {"nats-url", required_argument, nullptr, OPT_NATS_URL},
    {"nats-cert-path", required_argument, nullptr, OPT_NATS_CERT_PATH},
    {"kv-replicas", required_argument, nullptr, OPT_KV_REPLICAS},
    {"kv-scandata-allow-direct", required_argument, nullptr, OPT_KV_SCANDATA_ALLOW_DIRECT},
    {"js-work-services", required_argument, nullptr, OPT_JS_WORK_SERVICES},
    {"js-ackwait-ms", required_argument, nullptr, OPT_JS_ACKWAIT_MS},
    {"js-maxdeliver", required_argument, nullptr, OPT_JS_MAXDELIVER},
    {"js-maxackpending", required_argument, nullptr, OPT_JS_MAXACKPENDING},
    {"js-maxwaiting", required_argument, nullptr, OPT_JS_MAXWAITING},
    {"js-stream-maxage-ms", required_argument, nullptr, OPT_JS_STREAM_MAXAGE_MS},
    {"js-transient-storage", required_argument, nullptr, OPT_JS_TRANSIENT_STORAGE},
    {"nats-server-binary", required_argument, nullptr, OPT_NATS_SERVER_BINARY},
    {"nats-server-config", required_argument, nullptr, OPT_NATS_SERVER_CONFIG},
    {"nats-server-managed", required_argument, nullptr, OPT_NATS_SERVER_MANAGED},
    {"nats-server-ready-timeout-seconds", required_argument, nullptr, OPT_NATS_SERVER_READY_TIMEOUT},
    {"nats-server-pid-file", required_argument, nullptr, OPT_NATS_SERVER_PID_FILE},
    {"pid-file", required_argument, nullptr, OPT_PID_FILE},
    {"admin-listen-host", required_argument, nullptr, OPT_ADMIN_LISTEN_HOST},
    {"admin-listen-port", required_argument, nullptr, OPT_ADMIN_LISTEN_PORT},
    {"auth-callout-enabled", required_argument, nullptr, OPT_AUTH_CALLOUT_ENABLED},
    {"auth-nats-user", required_argument, nullptr, OPT_AUTH_NATS_USER},
    {"auth-nats-password", required_argument, nullptr, OPT_AUTH_NATS_PASSWORD},
    {"auth-signing-key", required_argument, nullptr, OPT_AUTH_SIGNING_KEY},
    {"auth-backend", required_argument, nullptr, OPT_AUTH_BACKEND},
    {"auth-file", required_argument, nullptr, OPT_AUTH_FILE},
    {"ldap-url", required_argument, nullptr, OPT_LDAP_URL},
    {"ldap-base-dn", required_argument, nullptr, OPT_LDAP_BASE_DN},
    {"ldap-bind-dn", required_argument, nullptr, OPT_LDAP_BIND_DN},
    {"ldap-bind-password", required_argument, nullptr, OPT_LDAP_BIND_PASSWORD},
    {"ldap-user-filter", required_argument, nullptr, OPT_LDAP_USER_FILTER},
    {"ldap-fallback-url", required_argument, nullptr, OPT_LDAP_FALLBACK_URL},
    {"ldap-fallback-base-dn", required_argument, nullptr, OPT_LDAP_FALLBACK_BASE_DN},
    {"ldap-fallback-bind-dn", required_argument, nullptr, OPT_LDAP_FALLBACK_BIND_DN},
    {"ldap-fallback-bind-password", required_argument, nullptr, OPT_LDAP_FALLBACK_BIND_PASSWORD},
    {"ldap-fallback-user-filter", required_argument, nullptr, OPT_LDAP_FALLBACK_USER_FILTER},
    {"ldap-pool-size", required_argument, nullptr, OPT_LDAP_POOL_SIZE},
    {"ldap-idle-timeout-seconds", required_argument, nullptr, OPT_LDAP_IDLE_TIMEOUT},
    {"ldap-group-attribute", required_argument, nullptr, OPT_LDAP_GROUP_ATTRIBUTE},
    {"ldap-cacert", required_argument, nullptr, OPT_LDAP_CACERT},
    {"permissions-file", required_argument, nullptr, OPT_PERMISSIONS_FILE},
    {"fleet-account", required_argument, nullptr, OPT_FLEET_ACCOUNT},
    {"gw-nats-user", required_argument, nullptr, OPT_GW_NATS_USER},
    {"gw-nats-password", required_argument, nullptr, OPT_GW_NATS_PASSWORD},
    {"listen-backlog", required_argument, nullptr, OPT_LISTEN_BACKLOG},
    {"amqp-enabled", required_argument, nullptr, OPT_AMQP_ENABLED},
    {"amqp-listen-host", required_argument, nullptr, OPT_AMQP_LISTEN_HOST},
    {"amqp-listen-port", required_argument, nullptr, OPT_AMQP_LISTEN_PORT},
    {"amqp-tls-cert", required_argument, nullptr, OPT_AMQP_TLS_CERT},
    {"amqp-tls-key", required_argument, nullptr, OPT_AMQP_TLS_KEY},
    {"amqp-tls-ca", required_argument, nullptr, OPT_AMQP_TLS_CA},
    {"http-enabled", required_argument, nullptr, OPT_HTTP_ENABLED},
    {"http-listen-host", required_argument, nullptr, OPT_HTTP_LISTEN_HOST},
    {"http-listen-port", required_argument, nullptr, OPT_HTTP_LISTEN_PORT},
    {"http-tls-cert", required_argument, nullptr, OPT_HTTP_TLS_CERT},
    {"http-tls-key", required_argument, nullptr, OPT_HTTP_TLS_KEY},
    {"http-servlet-path", required_argument, nullptr, OPT_HTTP_SERVLET_PATH},
    {"auth-cache-ttl-seconds", required_argument, nullptr, OPT_AUTH_CACHE_TTL},
    {"auth-cache-max-entries", required_argument, nullptr, OPT_AUTH_CACHE_MAX_ENTRIES},
    {"auth-negative-cache-ttl-seconds", required_argument, nullptr, OPT_AUTH_NEGATIVE_CACHE_TTL},
    {"auth-cache-refresh-threshold-percent", required_argument, nullptr, OPT_AUTH_CACHE_REFRESH_THRESHOLD},
    {"max-msg-size-mb", required_argument, nullptr, OPT_MAX_MSG_SIZE_MB},
    {"max-inflight-mb", required_argument, nullptr, OPT_MAX_INFLIGHT_MB},
    {"http-max-connections", required_argument, nullptr, OPT_HTTP_MAX_CONNECTIONS},
    {"http-max-connections-per-ip", required_argument, nullptr, OPT_HTTP_MAX_CONNECTIONS_PER_IP},
    {"gw-services", required_argument, nullptr, OPT_GW_SERVICES},
    {"amqp-relay-workers", required_argument, nullptr, OPT_AMQP_RELAY_WORKERS},
    {"amqp-max-connections", required_argument, nullptr, OPT_AMQP_MAX_CONNECTIONS},
    {"amqp-handshake-timeout-ms", required_argument, nullptr, OPT_AMQP_HANDSHAKE_TIMEOUT_MS},
    {"amqp-max-inflight", required_argument, nullptr, OPT_AMQP_MAX_INFLIGHT},
    {"relay-timeout-ms", required_argument, nullptr, OPT_RELAY_TIMEOUT_MS},
    {"relay-max-timeout-ms", required_argument, nullptr, OPT_RELAY_MAX_TIMEOUT_MS},
    {"update-binary", required_argument, nullptr, OPT_UPDATE_BINARY},
    {"update-check-interval", required_argument, nullptr, OPT_UPDATE_CHECK_INTERVAL},
    {"update-drain-timeout-seconds", required_argument, nullptr, OPT_UPDATE_DRAIN_TIMEOUT},
    {"update-max-backups", required_argument, nullptr, OPT_UPDATE_MAX_BACKUPS},
    {"update-maintenance-window", required_argument, nullptr, OPT_UPDATE_MAINTENANCE_WINDOW},
    {"update-server", required_argument, nullptr, OPT_UPDATE_SERVER},
    {"update-no-cert-check", required_argument, nullptr, OPT_UPDATE_NO_CERT_CHECK},
    {"update-ca-file", required_argument, nullptr, OPT_UPDATE_CA_FILE},
    {"update-public-key", required_argument, nullptr, OPT_UPDATE_PUBLIC_KEY},
    {"http-proxy", required_argument, nullptr, OPT_HTTP_PROXY},
    {"tracelevel", required_argument, nullptr, OPT_TRACELEVEL},
    {"tracefile", required_argument, nullptr, OPT_TRACEFILE},
    {"trace-to-screen", required_argument, nullptr, OPT_TRACE_TO_SCREEN},
    {"tracefile-maxsize", required_argument, nullptr, OPT_TRACEFILE_MAXSIZE},
    {"print-issuer-nkey", no_argument, nullptr, OPT_PRINT_ISSUER_NKEY},
    {"print-issuer-xkey", no_argument, nullptr, OPT_PRINT_ISSUER_XKEY},
    {"auth-nats-password-file", required_argument, nullptr, OPT_AUTH_NATS_PASSWORD_FILE},
    {"gw-nats-password-file", required_argument, nullptr, OPT_GW_NATS_PASSWORD_FILE},
    {"ldap-bind-password-file", required_argument, nullptr, OPT_LDAP_BIND_PASSWORD_FILE},
    {"ldap-fallback-bind-password-file", required_argument, nullptr, OPT_LDAP_FALLBACK_BIND_PASSWORD_FILE},
    {"auth-lock-failures", required_argument, nullptr, OPT_AUTH_LOCK_FAILURES},
    {"auth-lock-window", required_argument, nullptr, OPT_AUTH_LOCK_WINDOW},
    {"auth-lock-min-seconds", required_argument, nullptr, OPT_AUTH_LOCK_MIN_SECONDS},
    {"auth-lock-max-seconds", required_argument, nullptr, OPT_AUTH_LOCK_MAX_SECONDS},
    {"help", no_argument, nullptr, OPT_HELP},
    {nullptr, 0, nullptr, 0},
};

void set_str(qm::opt_string& field, const char* text) { field = qm::from_cstr(text); }

bool parse_bool(const char* text) {
  if (text == nullptr) return false;
  return strcasecmp(text, "true") == 0 || strcasecmp(text, "yes") == 0 || strcmp(text, "1") == 0;
}

int clamp_int(int v, int lo, int hi) { return v < lo ? lo : (v < hi ? v : hi); }

// Plain decimal conversion without error detection: "abc" reads as 0.
int s_to_int(const char* text) { return static_cast<int>(strtol(text, nullptr, 10)); }
long s_to_long(const char* text) { return strtol(text, nullptr, 10); }

// Minutes, or seconds with the suffix "s" (a staging installation that wants to see an
// update at once).
void s_set_check_interval(qm_update_config_t& update, const char* text) {
  char* end = nullptr;
  const long value = std::max(0L, strtol(text, &end, 10));
  if (end != nullptr && strcmp(end, "s") == 0) {
    update.update_check_interval_seconds = value;
  } else {
    update.update_check_interval = value;
    update.update_check_interval_seconds = 0;
  }
}

size_t s_megabytes_to_bytes(long mb) {
  if (mb < 0) return 0;
  // Saturate instead of wrapping into a small (or zero, i.e. disabled) cap.
  if (static_cast<unsigned long>(mb) > (SIZE_MAX >> 20)) return SIZE_MAX;
  return static_cast<size_t>(mb) << 20;
}

void s_parse_transient_storage(broker_config_t& cfg, const char* text) {
  const bool is_file = strcasecmp(text, "file") == 0;
  cfg.js_transient_memory = !is_file;
  if (!is_file && strcasecmp(text, "memory") != 0)
    fprintf(stderr, "--js-transient-storage: unknown value '%s' \u2014 using memory\n", text);
}

void s_parse_listen_backlog(gw_config_t& gw, const char* text) {
  const int backlog = s_to_int(text);
  if (backlog > 0) {
    gw.listen_backlog = backlog;
  } else {
    // The logger is not configured yet at this point, so this stays unprinted.
    log_warn("--listen-backlog %s is not a positive integer; keeping default %d", text, gw.listen_backlog);
  }
}

// A password on the command line is readable by every local user (ps, /proc): it still
// works, and main warns once the logger is set up.
void s_set_password(broker_config_t& cfg, qm::opt_string& field, const char* option, const char* arg) {
  set_str(field, arg);
  cfg.passwords_on_command_line.emplace_back(option);
}

// The options that read a password from a file, and the field each one fills.
qm::opt_string* s_password_file_field(broker_config_t& cfg, int id) {
  switch (id) {
    case OPT_AUTH_NATS_PASSWORD_FILE: return &cfg.auth->nats_password;
    case OPT_GW_NATS_PASSWORD_FILE: return &cfg.gw->nats_password;
    case OPT_LDAP_BIND_PASSWORD_FILE: return &cfg.auth->ldap_bind_password;
    case OPT_LDAP_FALLBACK_BIND_PASSWORD_FILE: return &cfg.auth->ldap_fallback_bind_password;
    default: return nullptr;
  }
}

// The first line of the file, without its line end; a missing, unreadable or empty file
// is an error on standard error.
bool s_read_password_file(const char* argv0, const char* option, const char* path, qm::opt_string& field) {
  FILE* raw = fopen(path, "re");
  if (raw == nullptr) {
    fprintf(stderr, "%s: --%s %s: cannot read it: %s\n", argv0, option, path, strerror(errno));
    return false;
  }
  const std::unique_ptr<FILE, int (*)(FILE*)> file(raw, fclose);
  std::string line;
  for (int c = fgetc(file.get()); c != EOF && c != '\n'; c = fgetc(file.get())) line.push_back(static_cast<char>(c));
  if (!line.empty() && line.back() == '\r') line.pop_back();
  if (line.empty()) {
    fprintf(stderr, "%s: --%s %s: the file's first line is empty\n", argv0, option, path);
    return false;
  }
  field = std::move(line);
  return true;
}

// Stores one option's value. false for an option id the table does not know.
bool s_apply_option(broker_config_t& cfg, int id, const char* arg) {
  auth_config_t& auth = *cfg.auth;
  gw_config_t& gw = *cfg.gw;
  switch (id) {
    case OPT_NATS_URL: set_str(cfg.nats_url, arg); break;
    case OPT_NATS_CERT_PATH: set_str(cfg.nats_cert_path, arg); break;
    case OPT_KV_REPLICAS: cfg.kv_replicas = s_to_int(arg); break;
    case OPT_KV_SCANDATA_ALLOW_DIRECT: cfg.kv_scandata_allow_direct = parse_bool(arg); break;
    case OPT_JS_WORK_SERVICES: set_str(cfg.js_work_services, arg); break;
    case OPT_JS_ACKWAIT_MS: cfg.js_ackwait_ms = s_to_int(arg); break;
    case OPT_JS_MAXDELIVER: cfg.js_maxdeliver = s_to_int(arg); break;
    case OPT_JS_MAXACKPENDING: cfg.js_maxackpending = s_to_int(arg); break;
    case OPT_JS_MAXWAITING: cfg.js_maxwaiting = s_to_int(arg); break;
    case OPT_JS_STREAM_MAXAGE_MS: cfg.js_stream_maxage_ms = s_to_int(arg); break;
    case OPT_JS_TRANSIENT_STORAGE: s_parse_transient_storage(cfg, arg); break;
    case OPT_NATS_SERVER_BINARY: set_str(cfg.nats_server_binary, arg); break;
    case OPT_NATS_SERVER_CONFIG: set_str(cfg.nats_server_config, arg); break;
    case OPT_NATS_SERVER_MANAGED: cfg.nats_server_managed = parse_bool(arg); break;
    case OPT_NATS_SERVER_READY_TIMEOUT: cfg.nats_server_ready_timeout_sec = s_to_int(arg); break;
    case OPT_NATS_SERVER_PID_FILE: set_str(cfg.nats_server_pid_file, arg); break;
    case OPT_PID_FILE: set_str(cfg.pid_file, arg); break;
    case OPT_ADMIN_LISTEN_HOST: set_str(cfg.admin_listen_host, arg); break;
    case OPT_ADMIN_LISTEN_PORT: cfg.admin_listen_port = s_to_int(arg); break;
    case OPT_AUTH_CALLOUT_ENABLED: cfg.auth_callout_enabled = parse_bool(arg); break;
    case OPT_AUTH_NATS_USER: set_str(auth.nats_user, arg); break;
    case OPT_AUTH_NATS_PASSWORD: s_set_password(cfg, auth.nats_password, "--auth-nats-password", arg); break;
    case OPT_AUTH_SIGNING_KEY: set_str(auth.signing_key_path, arg); break;
    case OPT_AUTH_BACKEND: auth.backend_type = auth_config_parse_backend(arg); break;
    case OPT_AUTH_FILE: set_str(gw.credential_file, arg); break;
    case OPT_LDAP_URL: set_str(auth.ldap_url, arg); break;
    case OPT_LDAP_BASE_DN: set_str(auth.ldap_base_dn, arg); break;
    case OPT_LDAP_BIND_DN: set_str(auth.ldap_bind_dn, arg); break;
    case OPT_LDAP_BIND_PASSWORD: s_set_password(cfg, auth.ldap_bind_password, "--ldap-bind-password", arg); break;
    case OPT_LDAP_USER_FILTER: set_str(auth.ldap_user_filter, arg); break;
    case OPT_LDAP_FALLBACK_URL: set_str(auth.ldap_fallback_url, arg); break;
    case OPT_LDAP_FALLBACK_BASE_DN: set_str(auth.ldap_fallback_base_dn, arg); break;
    case OPT_LDAP_FALLBACK_BIND_DN: set_str(auth.ldap_fallback_bind_dn, arg); break;
    case OPT_LDAP_FALLBACK_BIND_PASSWORD:
      s_set_password(cfg, auth.ldap_fallback_bind_password, "--ldap-fallback-bind-password", arg);
      break;
    case OPT_LDAP_FALLBACK_USER_FILTER: set_str(auth.ldap_fallback_user_filter, arg); break;
    case OPT_LDAP_POOL_SIZE: auth.ldap_pool_size = clamp_int(s_to_int(arg), 0, 64); break;
    case OPT_LDAP_IDLE_TIMEOUT: auth.ldap_idle_timeout_seconds = clamp_int(s_to_int(arg), 0, 86400); break;
    case OPT_LDAP_GROUP_ATTRIBUTE: set_str(auth.ldap_group_attribute, arg); break;
    case OPT_LDAP_CACERT: set_str(auth.ldap_cacert_path, arg); break;
    case OPT_PERMISSIONS_FILE: set_str(auth.permissions_file_path, arg); break;
    case OPT_FLEET_ACCOUNT: set_str(auth.fleet_account, arg); break;
    case OPT_GW_NATS_USER: set_str(gw.nats_user, arg); break;
    case OPT_GW_NATS_PASSWORD: s_set_password(cfg, gw.nats_password, "--gw-nats-password", arg); break;
    case OPT_AUTH_LOCK_FAILURES: auth.lock_failures = std::max(0, s_to_int(arg)); break;
    case OPT_AUTH_LOCK_WINDOW: auth.lock_window_seconds = std::max(1, s_to_int(arg)); break;
    case OPT_AUTH_LOCK_MIN_SECONDS: auth.lock_min_seconds = std::max(1, s_to_int(arg)); break;
    case OPT_AUTH_LOCK_MAX_SECONDS: auth.lock_max_seconds = std::max(1, s_to_int(arg)); break;
    case OPT_LISTEN_BACKLOG: s_parse_listen_backlog(gw, arg); break;
    case OPT_AMQP_ENABLED: gw.amqp_enabled = parse_bool(arg); break;
    case OPT_AMQP_LISTEN_HOST: set_str(gw.amqp_listen_host, arg); break;
    case OPT_AMQP_LISTEN_PORT: gw.amqp_listen_port = s_to_int(arg); break;
    case OPT_AMQP_TLS_CERT: set_str(gw.amqp_tls_cert, arg); break;
    case OPT_AMQP_TLS_KEY: set_str(gw.amqp_tls_key, arg); break;
    case OPT_AMQP_TLS_CA: set_str(gw.amqp_tls_ca, arg); break;
    case OPT_HTTP_ENABLED: gw.http_enabled = parse_bool(arg); break;
    case OPT_HTTP_LISTEN_HOST: set_str(gw.http_listen_host, arg); break;
    case OPT_HTTP_LISTEN_PORT: gw.http_listen_port = s_to_int(arg); break;
    case OPT_HTTP_TLS_CERT: set_str(gw.http_tls_cert, arg); break;
    case OPT_HTTP_TLS_KEY: set_str(gw.http_tls_key, arg); break;
    case OPT_HTTP_SERVLET_PATH: set_str(gw.http_servlet_path, arg); break;
    case OPT_AUTH_CACHE_TTL: gw.auth_cache_ttl_seconds = s_to_int(arg); break;
    case OPT_AUTH_CACHE_MAX_ENTRIES: gw.auth_cache_max_entries = s_to_int(arg); break;
    case OPT_AUTH_NEGATIVE_CACHE_TTL: gw.auth_negative_cache_ttl_seconds = s_to_int(arg); break;
    case OPT_AUTH_CACHE_REFRESH_THRESHOLD: gw.auth_cache_refresh_threshold_pct = clamp_int(s_to_int(arg), 0, 100); break;
    case OPT_MAX_MSG_SIZE_MB: gw.max_msg_size_bytes = s_megabytes_to_bytes(s_to_long(arg)); break;
    case OPT_MAX_INFLIGHT_MB: gw.max_inflight_bytes = s_megabytes_to_bytes(std::max(1L, s_to_long(arg))); break;
    case OPT_HTTP_MAX_CONNECTIONS: gw.http_max_connections = std::max(1, s_to_int(arg)); break;
    case OPT_HTTP_MAX_CONNECTIONS_PER_IP: gw.http_max_connections_per_ip = std::max(1, s_to_int(arg)); break;
    case OPT_GW_SERVICES: set_str(gw.services, arg); break;
    case OPT_AMQP_RELAY_WORKERS: gw.amqp_relay_workers = std::max(1, s_to_int(arg)); break;
    case OPT_AMQP_MAX_CONNECTIONS: gw.amqp_max_connections = std::max(1, s_to_int(arg)); break;
    case OPT_AMQP_HANDSHAKE_TIMEOUT_MS: gw.amqp_handshake_timeout_ms = std::max(1, s_to_int(arg)); break;
    case OPT_AMQP_MAX_INFLIGHT: gw.amqp_max_inflight = std::max(1, s_to_int(arg)); break;
    case OPT_RELAY_TIMEOUT_MS: gw.relay_timeout_ms = s_to_int(arg); break;
    case OPT_RELAY_MAX_TIMEOUT_MS: gw.relay_max_timeout_ms = s_to_int(arg); break;
    case OPT_UPDATE_BINARY: cfg.update_config.update_binary = parse_bool(arg); break;
    case OPT_UPDATE_CHECK_INTERVAL: s_set_check_interval(cfg.update_config, arg); break;
    case OPT_UPDATE_DRAIN_TIMEOUT: cfg.update_drain_timeout_seconds = std::max(0, s_to_int(arg)); break;
    case OPT_UPDATE_MAX_BACKUPS: cfg.update_config.update_max_backups = std::max(0, s_to_int(arg)); break;
    case OPT_UPDATE_MAINTENANCE_WINDOW: set_str(cfg.update_maintenance_window, arg); break;
    case OPT_UPDATE_SERVER: set_str(cfg.update_config.update_server, arg); break;
    case OPT_UPDATE_NO_CERT_CHECK: cfg.update_config.no_certificate_check = parse_bool(arg); break;
    case OPT_UPDATE_CA_FILE: set_str(cfg.update_config.update_ca_file, arg); break;
    case OPT_UPDATE_PUBLIC_KEY: set_str(cfg.update_config.update_public_key, arg); break;
    case OPT_HTTP_PROXY: set_str(cfg.network_config.http_proxy, arg); break;
    case OPT_TRACELEVEL: cfg.log_level = clamp_int(s_to_int(arg), 0, 6); break;
    case OPT_TRACEFILE: set_str(cfg.log_file, arg); break;
    // An integer, not a boolean word: "true" reads as 0 and switches screen output off.
    case OPT_TRACE_TO_SCREEN: cfg.log_screen_trace = s_to_int(arg) != 0; break;
    case OPT_TRACEFILE_MAXSIZE: cfg.log_maxsize_mb = static_cast<size_t>(s_to_long(arg)); break;
    default: return false;
  }
  return true;
}

const char* s_option_name(int id) {
  for (const option& o : kLongOptions)
    if (o.val == id && o.name != nullptr) return o.name;
  return "?";
}

// The first required option that is missing, in the order they are checked; NULL when complete.
const char* s_missing_required_option(const broker_config_t& cfg) {
  if (!cfg.nats_url) return "--nats-url";
  if (cfg.nats_server_managed) {
    if (!cfg.nats_server_binary) return "--nats-server-binary";
    if (!cfg.nats_server_config) return "--nats-server-config";
  }
  if (cfg.auth_callout_enabled && !cfg.auth->signing_key_path) return "--auth-signing-key";
  if (!cfg.gw->credential_file) return "--auth-file";
  return nullptr;
}

constexpr const char* kUsageBody = R"(
  --auth-signing-key <path> --auth-file <path> [options]

Message broker of the virus-scanning service. Supervises a nats-server child,
runs the NATS auth-callout adjudicator, and bridges AMQP and optionally HTTPS
REST clients to the NATS backend. All settings come from the command line.

Required:
  --nats-url <url>                     NATS URL the broker's own connections use
  --nats-server-binary <path>          nats-server executable (when managed)
  --nats-server-config <path>          nats-server configuration file (when managed)
  --auth-signing-key <path>            NKey seed file that signs issued JWTs; created
                                       when missing (when the auth callout is enabled)
  --auth-file <path>                   credentials file (nats-server authorization
                                       include format); always required

nats-server child (default: managed):
  --nats-server-managed <bool>         false = probe an externally run server (default true)
  --nats-server-ready-timeout-seconds <N>
                                       wait for the server to accept connections (default 30)
  --nats-server-pid-file <path>        pid file of the supervised child
  --nats-cert-path <pem>               CA certificate that verifies nats-server's TLS certificate

Broker self-pid file (default: not written):
  --pid-file <path>                    write the broker's pid here; removed at exit

Auth callout subsystem (default: enabled):
  --auth-callout-enabled <bool>        answer $SYS.REQ.USER.AUTH and qm.auth.verify (default true)
  --auth-nats-user <name>              NATS user of the auth-callout connection
  --auth-nats-password <password>      its password (visible to every local user: prefer the file)
  --auth-nats-password-file <path>     read that password from the file's first line
  --auth-backend <file|ldap|file+ldap> where passwords are checked (default file)
  --permissions-file <path>            JSON permission profiles (default: built-in profiles)
  --fleet-account <name>               nats-server account of admitted logins (default QM_FLEET)
  --ldap-url <url>                     LDAP server (ldap:// or ldaps://)
  --ldap-base-dn <dn>                  search base
  --ldap-bind-dn <dn>                  service account
  --ldap-bind-password <password>      service account password (prefer the file)
  --ldap-bind-password-file <path>     read it from the file's first line
  --ldap-user-filter <filter>          user search filter
  --ldap-fallback-url <url>            second server, tried when the primary refuses a connection
  --ldap-fallback-base-dn <dn>         (default: the primary's)
  --ldap-fallback-bind-dn <dn>         (default: the primary's)
  --ldap-fallback-bind-password <password>
                                       (default: the primary's)
  --ldap-fallback-bind-password-file <path>
                                       read it from the file's first line
  --ldap-fallback-user-filter <filter> (default: the primary's)
  --ldap-group-attribute <name>        attribute holding the user's groups (empty: no groups)
  --ldap-cacert <pem>                  CA certificate for ldaps://
  --ldap-pool-size <N>                 pooled service connections, 0..64 (default 4)
  --ldap-idle-timeout-seconds <N>      idle time before a pooled connection is renewed,
                                       0..86400 (default 300)
  --auth-lock-failures <N>             failed password checks of one user that lock it,
                                       every door alike; 0 = no lock (default 10)
  --auth-lock-window <seconds>         within this time (default 600)
  --auth-lock-min-seconds <N>          first lock; each further one doubles it (default 1)
  --auth-lock-max-seconds <N>          longest lock (default 300)

Gateway subsystem (NATS-side credentials):
  --gw-nats-user <name>                NATS user of the gateway connection
  --gw-nats-password <password>        its password (visible to every local user: prefer the file)
  --gw-nats-password-file <path>       read that password from the file's first line

Listeners (both front doors):
  --listen-backlog <N>                 listen backlog, positive (default 65535)

AMQP acceptor (default: enabled, 0.0.0.0:5672, plaintext):
  --amqp-enabled <bool>                accept AMQP 1.0 clients (default true)
  --amqp-listen-host <address>         (default 0.0.0.0)
  --amqp-listen-port <port>            (default 5672)
  --amqp-tls-cert <pem>                server certificate; omitted = plaintext
  --amqp-tls-key <pem>                 its private key
  --amqp-tls-ca <pem>                  CA for client-certificate verification (optional)
  --amqp-relay-workers <N>             relay worker threads, at least 1 (default 4)
  --amqp-max-connections <N>           connections open at once; more are closed at accept (default 1024)
  --amqp-handshake-timeout-ms <N>      a connection not logged in by then is closed (default 10000)
  --amqp-max-inflight <N>              requests one connection may have unanswered; its credit
                                       follows (default 32)

HTTPS REST frontend (default: disabled):
  --http-enabled <bool>                accept REST scan requests (default false)
  --http-listen-host <address>         (default 0.0.0.0)
  --http-listen-port <port>            (default 8443)
  --http-tls-cert <pem>                server certificate
  --http-tls-key <pem>                 its private key
  --http-servlet-path <path>           request path (default /vsi)
  --http-max-connections <N>           connections held at once (default 1024)
  --http-max-connections-per-ip <N>    connections held at once from one address (default 64)

Auth result cache (HTTP frontend only):
  --auth-cache-ttl-seconds <N>         lifetime of a cached grant (default 120)
  --auth-negative-cache-ttl-seconds <N>
                                       lifetime of a cached denial (default 10)
  --auth-cache-max-entries <N>         cache capacity (default 1024)
  --auth-cache-refresh-threshold-percent <N>
                                       age, in percent of the grant TTL, after which a
                                       grant is re-verified in the background, 0..100 (default 50)

Limits:
  --max-msg-size-mb <N>                largest accepted scan message, and largest reply
                                       payload read back, 0 = no cap (default 256)
  --max-inflight-mb <N>                payload bytes both front doors hold in memory at
                                       once; an HTTP request beyond it gets 503 (default 1024)
  --gw-services <csv>                  the services the front doors relay to (default: any
                                       well-formed service subject)
  --relay-timeout-ms <N>               minimum wait for a worker reply, and the wait for
                                       requests without SCANTIMEOUT (auth and control
                                       calls) (default 30000)
  --relay-max-timeout-ms <N>           longest wait for a worker reply; must be at least the
                                       largest SCANTIMEOUT in use and at most --js-ackwait-ms
                                       when the work queue is enabled (default 300000)

JetStream scan-dispatch work queues (off unless --js-work-services is set):
  --js-work-services <csv>             services dispatched through JetStream work queues
  --js-ackwait-ms <N>                  redelivery deadline (default 35000)
  --js-maxdeliver <N>                  deliveries per job (default 3)
  --js-maxackpending <N>               0 = server default (default 0)
  --js-maxwaiting <N>                  0 = server default of 512; cannot be changed later
                                       without deleting the consumer (default 0)
  --js-stream-maxage-ms <N>            0 = unlimited (default 0)
  --js-transient-storage <memory|file> storage of the transient buckets (default memory)

Auto-update (default: enabled):
  --update-binary <bool>               install new broker versions (default true)
  --update-check-interval <minutes>    between update checks (default 60); "<N>s" counts seconds
  --update-max-backups <N>             old versions kept (default 3)
  --update-drain-timeout-seconds <N>   wait for the front doors to drain (default 30)
  --update-maintenance-window <HH:MM-HH:MM>
                                       when to activate (default: as soon as possible)
  --update-server <url>                overrides the built-in update server
  --update-no-cert-check <bool>        skip the server certificate check (default false)
  --update-ca-file <PEM>               trust anchors for the update server (default: the system's)
  --update-public-key <PEM>            Ed25519 key every package must be signed with
                                       (default: none; packages are checked by MD5 alone)
  --http-proxy <url>                   proxy for the download

Admin listener (plain HTTP: /healthz, /readyz, /metrics):
  --admin-listen-host <address>        (default 127.0.0.1)
  --admin-listen-port <port>           0 = off (default 0)

Logging:
  --tracelevel <0..6>                  0 off, 1 fatal, 2 error, 3 warn, 4 info, 5 debug,
                                       6 trace (default 4)
  --tracefile <path>                   log file (default: none)
  --tracefile-maxsize <MB>             rotate the log file at this size, 0 = never (default 0)
  --trace-to-screen <0|1>              log to standard error (default 1)

Diagnostics:
  --print-issuer-nkey                  print the issuer's account NKey for nats-server's
                                       auth_callout block and exit (needs --auth-signing-key)
  --print-issuer-xkey                  print the curve25519 xkey derived from the same seed, for
                                       auth_callout { xkey: ... }, and exit
  -h, --help                           Show this help message
)";

}  // namespace

void print_usage(const char* argv0) {
  fprintf(stderr, "Usage: %s --nats-url <url> --nats-server-binary <path> --nats-server-config <path>",
          argv0 ? argv0 : "qm-av-broker");
  fputs(kUsageBody, stderr);
}

broker_config_t* broker_config_new() {
  try {
    auto cfg = std::make_unique<broker_config_t>();
    cfg->auth.reset(auth_config_new());
    cfg->gw.reset(gw_config_new());
    if (!cfg->auth || !cfg->gw) return nullptr;
    return cfg.release();
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void broker_config_free(broker_config_t* cfg) { std::unique_ptr<broker_config_t> owned(cfg); }

void broker_config_finalize(broker_config_t* cfg) {
  if (cfg == nullptr) return;
  if (auth_config_t* auth = cfg->auth.get()) {
    auth->nats_url = cfg->nats_url;
    auth->nats_cert_path = cfg->nats_cert_path;
    auth->log_level = cfg->log_level;
    auth->log_screen_trace = cfg->log_screen_trace;
    auth->log_maxsize_mb = cfg->log_maxsize_mb;
    auth->log_file = cfg->log_file;
  }
  if (gw_config_t* gw = cfg->gw.get()) {
    gw->nats_url = cfg->nats_url;
    gw->nats_cert_path = cfg->nats_cert_path;
    gw->js_services = cfg->js_work_services;
    gw->js_ackwait_ms = cfg->js_ackwait_ms;
    gw->log_level = cfg->log_level;
    gw->log_screen_trace = cfg->log_screen_trace;
    gw->log_maxsize_mb = cfg->log_maxsize_mb;
    gw->log_file = cfg->log_file;
  }
}

broker_parse_result_t broker_config_parse(broker_config_t* cfg, int argc, char** argv) {
  const char* argv0 = argc > 0 && argv[0] ? argv[0] : "qm-av-broker";
  if (cfg == nullptr || !cfg->auth || !cfg->gw) return BROKER_PARSE_EXIT_FAILURE;

  const char* print_issuer = nullptr;  // the --print-issuer-... option given, if any
  broker_parse_result_t print_result = BROKER_PARSE_PRINT_ISSUER_NKEY;
  optind = 0;  // full re-initialisation of getopt, so that the parser can run more than once
  for (;;) {
    const int id = getopt_long(argc, argv, "h", kLongOptions, nullptr);
    if (id == -1) break;
    if (id == OPT_HELP) {
      print_usage(argv0);
      return BROKER_PARSE_EXIT_OK;
    }
    if (id == OPT_PRINT_ISSUER_NKEY || id == OPT_PRINT_ISSUER_XKEY) {
      const bool xkey = id == OPT_PRINT_ISSUER_XKEY;
      print_issuer = xkey ? "--print-issuer-xkey" : "--print-issuer-nkey";
      print_result = xkey ? BROKER_PARSE_PRINT_ISSUER_XKEY : BROKER_PARSE_PRINT_ISSUER_NKEY;
      continue;
    }
    if (qm::opt_string* field = s_password_file_field(*cfg, id)) {
      if (!s_read_password_file(argv0, s_option_name(id), optarg, *field)) return BROKER_PARSE_EXIT_FAILURE;
      continue;
    }
    if (!s_apply_option(*cfg, id, optarg)) {  // '?': unknown option or missing argument
      print_usage(argv0);
      return BROKER_PARSE_EXIT_FAILURE;
    }
  }
  if (optind < argc) {
    fprintf(stderr, "%s: unexpected argument '%s'\n", argv0, argv[optind]);
    print_usage(argv0);
    return BROKER_PARSE_EXIT_FAILURE;
  }

  if (print_issuer != nullptr) {
    if (!cfg->auth->signing_key_path) {
      fprintf(stderr, "%s: %s requires --auth-signing-key\n", argv0, print_issuer);
      return BROKER_PARSE_EXIT_FAILURE;
    }
    return print_result;
  }

  if (const char* missing = s_missing_required_option(*cfg)) {
    fprintf(stderr, "%s: %s is required\n", argv0, missing);
    print_usage(argv0);
    return BROKER_PARSE_EXIT_FAILURE;
  }
  if (!cfg->auth_callout_enabled && !cfg->gw->amqp_enabled && !cfg->gw->http_enabled) {
    fprintf(stderr,
            "%s: all three subsystems (auth-callout, AMQP, HTTP) are disabled \u2014 nothing to do; "
            "refusing to start.\n",
            argv0);
    return BROKER_PARSE_EXIT_FAILURE;
  }
  return BROKER_PARSE_RUN;
}
