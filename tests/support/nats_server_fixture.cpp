#include "nats_server_fixture.hpp"

#include <arpa/inet.h>
#include <nats/nats.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <stdexcept>

namespace qmtest {

std::string nats_server_binary() {
  const char* override_path = getenv("QM_NATS_SERVER");
  return override_path != nullptr && override_path[0] != '\0' ? override_path : QM_NATS_SERVER_DEFAULT;
}

void write_nats_server_config(const std::string& path, int port, const std::string& store_dir,
                              const std::string& extra_config, const std::string& log_file) {
  std::string text = "host: 127.0.0.1\nport: " + std::to_string(port) + "\n";
  if (!log_file.empty()) text += "log_file: \"" + log_file + "\"\n";
  if (!store_dir.empty()) text += "jetstream {\n  store_dir: \"" + store_dir + "\"\n}\n";
  text += extra_config;
  text += "\n";
  write_file(path, text);
}

bool nats_accepts_connections(const std::string& url, int timeout_ms) {
  natsOptions* opts = nullptr;
  if (natsOptions_Create(&opts) != NATS_OK) return false;
  natsOptions_SetURL(opts, url.c_str());
  natsOptions_SetTimeout(opts, timeout_ms);
  natsOptions_SetAllowReconnect(opts, false);
  natsConnection* nc = nullptr;
  const natsStatus s = natsConnection_Connect(&nc, opts);
  natsConnection_Destroy(nc);
  natsOptions_Destroy(opts);
  return s == NATS_OK;
}

namespace {

// The server greets every client with INFO before any authentication, so this works
// whatever users the configuration defines.
bool s_greets_with_info(int port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  timeval timeout{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  char greeting[5] = {};
  const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 &&
                  recv(fd, greeting, 4, MSG_WAITALL) == 4 && std::string(greeting) == "INFO";
  close(fd);
  return ok;
}

}  // namespace

NatsServer::NatsServer(NatsServerOptions options) {
  port_ = options.port > 0 ? options.port : free_port();
  config_path_ = dir_.file("nats-server.conf");
  log_path_ = dir_.file("nats-server.log");
  write_nats_server_config(config_path_, port_, options.jetstream ? dir_.file("jetstream") : "",
                           options.extra_config, log_path_);
  child_ = std::make_unique<Child>(std::vector<std::string>{nats_server_binary(), "-c", config_path_});
  const bool up = wait_until([&] { return !child_->running() || s_greets_with_info(port_); },
                             std::chrono::seconds(20));
  if (!up || !child_->running()) {
    const std::string why = log();
    stop();
    throw std::runtime_error("nats-server did not come up on " + url() + ": " + why);
  }
}

NatsServer::~NatsServer() { stop(); }

pid_t NatsServer::pid() const { return child_ ? child_->pid() : -1; }

std::string NatsServer::log() const {
  return read_file(log_path_) + (child_ ? child_->err() : std::string());
}

void NatsServer::stop() {
  if (!child_) return;
  if (child_->running()) {
    child_->signal(SIGTERM);
    if (!child_->wait(std::chrono::seconds(5))) child_->signal(SIGKILL);
  }
  child_.reset();  // reaps; kills what is left
}

}  // namespace qmtest
