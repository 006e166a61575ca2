// A nats-server that sends every login to the broker's auth callout, and the broker
// (the real binary) answering it. Users live in the broker's credentials file; the
// broker's own two NATS users are the server's auth_users.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "nats_server_fixture.hpp"
#include "slapd_fixture.hpp"
#include "test_support.hpp"

namespace qmtest {

using user_list = std::vector<std::pair<std::string, std::string>>;

struct CalloutOptions {
  // Users the broker admits from its credentials file.
  user_list users;
  // JSON permission profiles; empty: none.
  std::string permissions_json;
  // Extra broker options (LDAP settings, cache TTLs ...).
  std::vector<std::string> broker_args;
  // The broker supervises the nats-server itself instead of probing an external one.
  bool managed = false;
  bool jetstream = true;
  // The broker's --tracelevel; full tracing helps a failing test, a benchmark wants quiet.
  int tracelevel = 6;
  // false: the broker runs without its callout service (--auth-callout-enabled false), so
  // nothing answers logins or "qm.auth.verify" unless the test does.
  bool callout_service = true;
  // Not empty: run the broker and its managed nats-server (implies `managed`) from this
  // directory, as an installed version runs from ".../latest/bin".
  std::string bin_dir;
  // Extra environment of the broker ("NAME=value").
  std::vector<std::string> env;
  // The server seals callout requests to the broker's xkey (the packaged configuration's
  // optional xkey line, uncommented).
  bool sealed = false;
};

class CalloutEnv {
 public:
  static constexpr const char* kAuthUser = "qm-auth";
  static constexpr const char* kAuthPassword = "auth-secret";
  static constexpr const char* kGatewayUser = "qm-gateway";
  static constexpr const char* kGatewayPassword = "gateway-secret";

  // Starts nats-server and the broker and waits until the callout service subscribes;
  // throws std::runtime_error with the broker's output when it does not.
  explicit CalloutEnv(CalloutOptions options);
  ~CalloutEnv();
  CalloutEnv(const CalloutEnv&) = delete;
  CalloutEnv& operator=(const CalloutEnv&) = delete;

  std::string url() const { return url_; }
  Child& broker() { return *broker_; }
  const std::string& credentials_path() const { return credentials_; }
  const std::string& issuer() const { return issuer_; }
  // The nats-server log (the managed child's log file, or the external server's).
  std::string server_log() const;
  // The nats-server's process id (a managed child's from its pid file); -1 when unknown.
  pid_t server_pid() const;
  const TempDir& dir() const { return dir_; }

  // Credentials file text for these users, plus the broker's own two.
  static std::string credentials_text(const user_list& users);
  // nats-server's accounts and authorization blocks for `issuer` and its `xkey`: the secure account
  // layout of packaging/nats-server.conf, rendered with the fixture's passwords.
  static std::string authorization_block(const std::string& issuer, const std::string& xkey, bool sealed);
  // packaging/qm-av-permissions.json: the shipped client and worker roles.
  static std::string shipped_permissions();

 private:
  TempDir dir_;
  std::string credentials_;
  std::string issuer_;
  std::string xkey_;
  std::string url_;
  std::string server_log_;
  std::unique_ptr<NatsServer> server_;
  std::unique_ptr<Child> broker_;
};

// The issuer NKey and xkey of the signing seed at seed_path (made when missing).
std::pair<std::string, std::string> issuer_keys(const std::string& seed_path);

// A client login as user/password: NATS_OK and a connection, or the failure.
struct NatsLogin {
  natsStatus status = NATS_ERR;
  natsConnection* conn = nullptr;
  std::string error;  // the library's last error text on failure
  NatsLogin() = default;
  NatsLogin(NatsLogin&& other) noexcept
      : status(other.status), conn(std::exchange(other.conn, nullptr)), error(std::move(other.error)) {}
  NatsLogin(const NatsLogin&) = delete;
  ~NatsLogin();
};
// The asynchronous errors a server sent a connection (permission violations), one a line.
class AsyncErrors {
 public:
  static void on_error(natsConnection* nc, natsSubscription*, natsStatus, void* closure);
  std::string text() const;

 private:
  mutable std::mutex mutex_;
  std::string text_;
};
// `errors`, when given, collects the connection's asynchronous errors and must outlive it.
// inbox_prefix, when given, replaces "_INBOX" (the shipped roles receive replies only
// below "_INBOX.<user>").
NatsLogin nats_login(const std::string& url, const std::string& user, const std::string& password,
                     int timeout_ms = 5000, AsyncErrors* errors = nullptr, const std::string& inbox_prefix = "");

// A login in the raw client protocol: connect_json is sent as the CONNECT line's JSON
// as it stands, so it may carry what no client library sends (a \u0000 in a password).
// The server's answer to the PING after it: "PONG" when admitted, else its -ERR line; ""
// when nothing came within timeout_ms.
std::string raw_login(const std::string& url, const std::string& connect_json, int timeout_ms = 5000);

// One request on qm.auth.verify through conn; the raw JSON answer, "" on time-out.
inline std::string verify_request(natsConnection* conn, const std::string& body, int timeout_ms = 5000) {
  return request(conn, "qm.auth.verify", body, timeout_ms);
}

}  // namespace qmtest
