#include "nats_server_fixture.hpp"

#include <nats/nats.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "qm_handles.hpp"

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

std::string cluster_config(const std::string& server_name, int route_port, const std::vector<int>& peer_route_ports) {
  std::string text = "server_name: \"" + server_name + "\"\ncluster {\n  name: \"qm-test\"\n  listen: \"127.0.0.1:" +
                     std::to_string(route_port) + "\"\n  routes: [\n";
  for (int port : peer_route_ports) text += "    \"nats-route://127.0.0.1:" + std::to_string(port) + "\"\n";
  return text + "  ]\n}\n";
}

bool nats_accepts_connections(const std::string& url, int timeout_ms) {
  natsOptions* raw_opts = nullptr;
  if (natsOptions_Create(&raw_opts) != NATS_OK) return false;
  const qm::nats_options_ptr opts(raw_opts);
  natsOptions_SetURL(raw_opts, url.c_str());
  natsOptions_SetTimeout(raw_opts, timeout_ms);
  natsOptions_SetAllowReconnect(raw_opts, false);
  natsConnection* nc = nullptr;
  const natsStatus s = natsConnection_Connect(&nc, raw_opts);
  const qm::nats_connection_ptr connection(nc);
  return s == NATS_OK;
}

NatsServer::NatsServer(NatsServerOptions options) {
  config_path_ = dir_.file("nats-server.conf");
  log_path_ = dir_.file("nats-server.log");
  // Port -1: the server binds a free port of its own choosing and writes it to a file in
  // ports_file_dir once it listens.
  write_nats_server_config(config_path_, options.port > 0 ? options.port : -1,
                           options.jetstream ? dir_.file("jetstream") : "",
                           "ports_file_dir: \"" + dir_.path().string() + "\"\n" + options.extra_config, log_path_);
  child_ = std::make_unique<Child>(std::vector<std::string>{nats_server_binary(), "-c", config_path_});
  const std::string ports_file =
      dir_.file(std::filesystem::path(nats_server_binary()).filename().string() + "_" +
                std::to_string(child_->pid()) + ".ports");
  const std::string prefix = "[\"nats://127.0.0.1:";
  std::string ports;
  // Read until the file is whole: it ends with the closing brace.
  wait_until([&] { return !child_->running() || (ports = read_file(ports_file)).ends_with("}"); },
             std::chrono::seconds(20));
  const size_t at = ports.find(prefix);
  if (at == std::string::npos || !child_->running()) {
    const std::string why = log();
    stop();
    throw std::runtime_error("nats-server did not come up: " + why);
  }
  port_ = std::stoi(ports.substr(at + prefix.size()));
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

std::string request(natsConnection* conn, const std::string& subject, const std::string& body, int timeout_ms) {
  natsMsg* reply = nullptr;
  if (natsConnection_Request(&reply, conn, subject.c_str(), body.data(), static_cast<int>(body.size()), timeout_ms) !=
      NATS_OK)
    return "";
  const qm::nats_msg_ptr owned(reply);
  return std::string(natsMsg_GetData(reply), static_cast<size_t>(natsMsg_GetDataLength(reply)));
}

}  // namespace qmtest
