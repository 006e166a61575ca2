// A real nats-server for tests: the project's binary on a 127.0.0.1 port it chooses
// itself, with its configuration, JetStream store and log in a temporary directory. It
// is always stopped (SIGTERM, then SIGKILL) when the object goes away.
#pragma once

#include <nats/nats.h>
#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace qmtest {

// The nats-server the tests run: $QM_NATS_SERVER, else the project-local binary.
std::string nats_server_binary();

struct NatsServerOptions {
  bool jetstream = true;
  // Appended to the generated configuration as it is (users, authorization blocks ...).
  std::string extra_config;
  // 0: the server picks a free one. Another port should be held by a ReservedPort.
  int port = 0;
};

// Writes a nats-server configuration: listen on 127.0.0.1:port, JetStream with its
// store in store_dir when store_dir is not empty, the log to log_file when given, then
// extra_config. Good for the broker's managed child as well.
void write_nats_server_config(const std::string& path, int port, const std::string& store_dir,
                              const std::string& extra_config = "", const std::string& log_file = "");

// Configuration lines (for extra_config) that name a server and join it to a cluster
// of loopback nodes: its routes listener on route_port, routes to the others' ports.
std::string cluster_config(const std::string& server_name, int route_port, const std::vector<int>& peer_route_ports);

class NatsServer {
 public:
  // Starts the server and waits until it listens; throws when it does not within 20 s.
  explicit NatsServer(NatsServerOptions options = {});
  ~NatsServer();
  NatsServer(const NatsServer&) = delete;
  NatsServer& operator=(const NatsServer&) = delete;

  std::string url() const { return "nats://127.0.0.1:" + std::to_string(port_); }
  int port() const { return port_; }
  pid_t pid() const;
  const std::string& config_path() const { return config_path_; }
  // The server's own log (its standard error and log file).
  std::string log() const;
  // SIGTERM, then SIGKILL after 5 s. Safe to call more than once.
  void stop();

 private:
  TempDir dir_;
  int port_ = 0;
  std::string config_path_;
  std::string log_path_;
  std::unique_ptr<Child> child_;
};

// One request on subject through conn; the raw answer, "" on time-out.
std::string request(natsConnection* conn, const std::string& subject, const std::string& body, int timeout_ms = 5000);

// True when a NATS client can connect to url within timeout_ms.
bool nats_accepts_connections(const std::string& url, int timeout_ms = 250);

}  // namespace qmtest
