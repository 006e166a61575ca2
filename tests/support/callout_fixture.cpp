#include "callout_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <tuple>

#include "auth_jwt.hpp"
#include "qm_cpp.hpp"
#include "qm_handles.hpp"

namespace qmtest {

using namespace std::chrono_literals;

std::pair<std::string, std::string> issuer_keys(const std::string& seed_path) {
  const qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy> ctx(auth_jwt_init(seed_path.c_str()));
  if (ctx == nullptr) throw std::runtime_error("cannot make the issuer key");
  return {auth_jwt_public_key(ctx.get()), auth_jwt_xkey(ctx.get())};
}

namespace {

// Below this level the broker logs neither its readiness nor its subscriptions.
constexpr int kInfoLevel = 4;

// The broker subscribes to the callout before the verify endpoint and flushes after both:
// an answer on the verify endpoint means logins reach it too.
bool s_wait_for_verify_endpoint(const std::string& url, Child& broker, std::chrono::milliseconds timeout) {
  bool answered = false;
  wait_until(
      [&] {
        if (!broker.running()) return true;
        NatsLogin gateway = nats_login(url, CalloutEnv::kGatewayUser, CalloutEnv::kGatewayPassword, 1000);
        answered = gateway.conn != nullptr && !verify_request(gateway.conn, "{}", 250).empty();
        return answered;
      },
      timeout);
  return answered;
}

bool s_came_up(Child& broker, const std::string& url, const CalloutOptions& options) {
  if (options.tracelevel < kInfoLevel) {
    // Nothing to probe without the service: the caller waits for what it needs itself.
    return options.callout_service ? s_wait_for_verify_endpoint(url, broker, 60s) : broker.running();
  }
  // The broker says it is ready only once both subscriptions are in place.
  wait_until([&] { return !broker.running() || broker.err().find("qm-av-broker ready") != std::string::npos; }, 60s);
  return broker.err().find("qm-av-broker ready") != std::string::npos;
}

}  // namespace

std::string CalloutEnv::credentials_text(const user_list& users) {
  user_list all = {{kAuthUser, kAuthPassword}, {kGatewayUser, kGatewayPassword}};
  all.insert(all.end(), users.begin(), users.end());
  std::string text = "users = [\n";
  for (const auto& [user, password] : all)
    text += "  {\n    user: \"" + user + "\"\n    password: \"" + password + "\"\n  }\n";
  return text + "]\n";
}

std::string CalloutEnv::authorization_block(const std::string& issuer, const std::string& xkey, bool sealed) {
  std::string text = read_file(std::string(QM_SOURCE_DIR) + "/packaging/nats-server.conf");
  const size_t layout = text.find("# -- secure account layout --");
  if (layout == std::string::npos) throw std::runtime_error("packaging/nats-server.conf has no account layout");
  text.erase(0, layout);
  const std::string optional_xkey = "# xkey: ";
  if (sealed && text.find(optional_xkey) != std::string::npos)
    text.replace(text.find(optional_xkey), optional_xkey.size(), "xkey: ");
  for (const auto& [placeholder, value] : {std::pair<std::string, std::string>{"@ISSUER_NKEY@", issuer},
                                           {"@ISSUER_XKEY@", xkey},
                                           {"@AUTH_PASSWORD@", kAuthPassword},
                                           {"@GATEWAY_PASSWORD@", kGatewayPassword}}) {
    for (size_t at; (at = text.find(placeholder)) != std::string::npos;) text.replace(at, placeholder.size(), value);
  }
  return text;
}

std::string CalloutEnv::shipped_permissions() {
  return read_file(std::string(QM_SOURCE_DIR) + "/packaging/qm-av-permissions.json");
}

CalloutEnv::CalloutEnv(CalloutOptions options) {
  const std::string seed = dir_.file("issuer.seed");
  std::tie(issuer_, xkey_) = issuer_keys(seed);
  credentials_ = dir_.file("credentials.conf");
  write_file(credentials_, credentials_text(options.users));

  const bool managed = options.managed || !options.bin_dir.empty();
  const std::string program = options.bin_dir.empty() ? broker_binary() : options.bin_dir + "/qm-av-broker";
  const std::string server_binary = options.bin_dir.empty() ? nats_server_binary() : options.bin_dir + "/nats-server";
  std::vector<std::string> args = {program,
                                   "--auth-file", credentials_,
                                   "--auth-signing-key", seed,
                                   "--auth-nats-user", kAuthUser,
                                   "--auth-nats-password", kAuthPassword,
                                   "--gw-nats-user", kGatewayUser,
                                   "--gw-nats-password", kGatewayPassword,
                                   "--amqp-enabled", "false",
                                   "--update-binary", "false",
                                   "--tracelevel", std::to_string(options.tracelevel)};
  if (!options.permissions_json.empty()) {
    write_file(dir_.file("permissions.json"), options.permissions_json);
    args.insert(args.end(), {"--permissions-file", dir_.file("permissions.json")});
  }
  if (!managed) {
    NatsServerOptions server_options;
    server_options.jetstream = options.jetstream;
    server_options.extra_config = authorization_block(issuer_, xkey_, options.sealed);
    server_ = std::make_unique<NatsServer>(server_options);
    url_ = server_->url();
    args.insert(args.end(), {"--nats-server-managed", "false"});
  } else {
    server_log_ = dir_.file("nats-server.log");
    args.insert(args.end(), {"--nats-server-binary", server_binary, "--nats-server-config",
                             dir_.file("nats-server.conf"), "--nats-server-pid-file", dir_.file("nats-server.pid")});
  }
  if (!options.callout_service) args.insert(args.end(), {"--auth-callout-enabled", "false"});
  args.insert(args.end(), options.broker_args.begin(), options.broker_args.end());
  // A managed server's port from free_port() is closed again before the server binds it,
  // so a parallel test may take it first: the broker then stops at once, and another
  // port is tried.
  for (int attempt = 1;; ++attempt) {
    if (managed) {
      const int port = free_port();
      url_ = "nats://127.0.0.1:" + std::to_string(port);
      write_nats_server_config(dir_.file("nats-server.conf"), port, options.jetstream ? dir_.file("js") : "",
                               authorization_block(issuer_, xkey_, options.sealed), server_log_);
    }
    std::vector<std::string> attempt_args = args;
    attempt_args.insert(attempt_args.end(), {"--nats-url", url_});
    broker_ = std::make_unique<Child>(attempt_args, options.env);
    if (s_came_up(*broker_, url_, options)) return;
    const bool port_taken =
        managed && !broker_->running() &&
        (read_file(server_log_) + broker_->err()).find("address already in use") != std::string::npos;
    if (!port_taken || attempt == 3) throw std::runtime_error("broker did not come up:\n" + broker_->err());
    std::filesystem::remove(server_log_);
  }
}

CalloutEnv::~CalloutEnv() {
  if (broker_ && broker_->running()) {
    broker_->signal(SIGTERM);
    broker_->wait(30s);
  }
  broker_.reset();
  // A broker that had to be killed leaves its managed server behind: end that one too
  // (if the pid is still the one running this environment's configuration).
  const pid_t managed_server = server_ ? -1 : server_pid();
  if (managed_server > 0 && read_file("/proc/" + std::to_string(managed_server) + "/cmdline")
                                    .find(dir_.file("nats-server.conf")) != std::string::npos)
    kill(managed_server, SIGKILL);
  server_.reset();
}

std::string CalloutEnv::server_log() const { return server_ ? server_->log() : read_file(server_log_); }

pid_t CalloutEnv::server_pid() const {
  if (server_) return server_->pid();
  const int pid = atoi(read_file(dir_.file("nats-server.pid")).c_str());
  return pid > 0 ? pid : -1;
}

NatsLogin::~NatsLogin() {
  if (conn != nullptr) {
    natsConnection_Close(conn);
    natsConnection_Destroy(conn);
  }
}

void AsyncErrors::on_error(natsConnection* nc, natsSubscription*, natsStatus, void* closure) {
  auto* self = static_cast<AsyncErrors*>(closure);
  const char* last = nullptr;
  natsConnection_GetLastError(nc, &last);
  const std::lock_guard lock(self->mutex_);
  self->text_ += std::string(last ? last : "?") + "\n";
}

std::string AsyncErrors::text() const {
  const std::lock_guard lock(mutex_);
  return text_;
}

NatsLogin nats_login(const std::string& url, const std::string& user, const std::string& password, int timeout_ms,
                     AsyncErrors* errors, const std::string& inbox_prefix) {
  NatsLogin login;
  natsOptions* opts = nullptr;
  if (natsOptions_Create(&opts) != NATS_OK) return login;
  natsOptions_SetURL(opts, url.c_str());
  natsOptions_SetUserInfo(opts, user.c_str(), password.c_str());
  natsOptions_SetTimeout(opts, timeout_ms);
  natsOptions_SetMaxReconnect(opts, 0);
  natsOptions_SetAllowReconnect(opts, false);
  natsOptions_SetSendAsap(opts, true);  // a request's round trip, not the library's flusher
  if (errors != nullptr) natsOptions_SetErrorHandler(opts, AsyncErrors::on_error, errors);
  if (!inbox_prefix.empty()) natsOptions_SetCustomInboxPrefix(opts, inbox_prefix.c_str());
  login.status = natsConnection_Connect(&login.conn, opts);
  if (login.status != NATS_OK) {
    login.conn = nullptr;
    natsStatus ignored;
    const char* text = nats_GetLastError(&ignored);
    login.error = text ? text : natsStatus_GetText(login.status);
  }
  natsOptions_Destroy(opts);
  return login;
}

std::string raw_login(const std::string& url, const std::string& connect_json, int timeout_ms) {
  const qm::unique_fd socket_fd(connect_loopback(std::stoi(url.substr(url.rfind(':') + 1))));
  const int fd = socket_fd.get();
  std::string answer;
  if (fd >= 0) {
    timeval timeout{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    const std::string request = "CONNECT " + connect_json + "\r\nPING\r\n";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
      std::string received;
      char buf[4096];
      ssize_t n = 0;
      // INFO comes first; the answer is the first PONG or -ERR line after it.
      while (answer.empty() && (n = recv(fd, buf, sizeof buf, 0)) > 0) {
        received.append(buf, static_cast<size_t>(n));
        for (const char* verdict : {"PONG", "-ERR"}) {
          const size_t at = received.find(verdict);
          const size_t end = at == std::string::npos ? at : received.find("\r\n", at);
          if (end != std::string::npos) answer = received.substr(at, end - at);
        }
      }
    }
  }
  return answer;
}

}  // namespace qmtest
