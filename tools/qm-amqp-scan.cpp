// qm-amqp-scan: sends one file to a scan service through the broker's AMQP front door,
// as a legacy scan client does, and prints the worker's reply. It logs in with SASL
// PLAIN, attaches a reply receiver on a node the gateway makes, and sends the request
// JSON and the file as one message whose body is [json, file].
//
//   qm-amqp-scan --url amqp://127.0.0.1:5672 --user demo --service scan --file FILE
//
// The password comes from --password or the environment variable QM_AMQP_PASSWORD.
// Exit codes: 0 a reply arrived (printed on standard output), 1 no reply, 2 usage.
#include <getopt.h>
#include <unistd.h>

#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/error_condition.hpp>
#include <proton/message.hpp>
#include <proton/codec/vector.hpp>
#include <proton/message_id.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sender.hpp>
#include <proton/source.hpp>
#include <proton/source_options.hpp>
#include <proton/ssl.hpp>
#include <proton/tracker.hpp>
#include <proton/transport.hpp>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <iterator>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

struct scan_options {
  std::string url = "amqp://127.0.0.1:5672";
  std::string user;
  std::string password;
  std::string service;
  std::optional<std::string> file;
  std::string request = "{}";
  std::string ca_file;
  int timeout_ms = 60000;
};

void s_usage(const char* argv0) {
  fprintf(stderr,
          "Usage: %s --url amqp[s]://HOST:PORT --user USER [--password PASSWORD] --service NAME\n"
          "          [--file FILE] [--request JSON] [--ca PEM] [--timeout-ms N]\n"
          "  Sends JSON (default {}) and FILE to the scan service NAME through the AMQP front door and prints\n"
          "  the reply. The password may also come from $QM_AMQP_PASSWORD. --ca verifies an amqps server.\n",
          argv0);
}

// 0 with the options filled, 2 for a usage error.
int s_parse(int argc, char** argv, scan_options& opts) {
  static const option kOptions[] = {
      {"url", required_argument, nullptr, 'u'},     {"user", required_argument, nullptr, 'n'},
      {"password", required_argument, nullptr, 'p'}, {"service", required_argument, nullptr, 's'},
      {"file", required_argument, nullptr, 'f'},    {"request", required_argument, nullptr, 'r'},
      {"ca", required_argument, nullptr, 'c'},      {"timeout-ms", required_argument, nullptr, 't'},
      {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
  };
  if (const char* env = getenv("QM_AMQP_PASSWORD")) opts.password = env;
  int c = 0;
  while ((c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
    switch (c) {
      case 'u': opts.url = optarg; break;
      case 'n': opts.user = optarg; break;
      case 'p': opts.password = optarg; break;
      case 's': opts.service = optarg; break;
      case 'f': opts.file = optarg; break;
      case 'r': opts.request = optarg; break;
      case 'c': opts.ca_file = optarg; break;
      case 't': opts.timeout_ms = atoi(optarg); break;
      default: return 2;
    }
  }
  return opts.user.empty() || opts.service.empty() || optind != argc || opts.timeout_ms < 1 ? 2 : 0;
}

class scan_client : public proton::messaging_handler {
 public:
  scan_client(const scan_options& opts, std::string payload) : opts_(opts), payload_(std::move(payload)) {}

  int exit_code() const { return replied_ ? 0 : 1; }

  void on_container_start(proton::container& c) override {
    proton::connection_options conn;
    conn.user(opts_.user).password(opts_.password).sasl_allowed_mechs("PLAIN").sasl_allow_insecure_mechs(true);
    if (!opts_.ca_file.empty()) conn.ssl_client_options(proton::ssl_client_options(opts_.ca_file));
    connection_ = c.connect(opts_.url, conn);
  }

  void on_connection_open(proton::connection& c) override {
    proton::source_options dynamic;
    dynamic.dynamic(true);
    c.open_receiver("", proton::receiver_options().source(dynamic));
  }

  // The gateway has named the reply node: now the request can say where to answer.
  void on_receiver_open(proton::receiver& r) override {
    reply_to_ = r.source().address();
    r.connection().open_sender(opts_.service);
  }

  void on_sendable(proton::sender& s) override {
    if (sent_) return;
    proton::message request;
    request.id(proton::message_id("qm-amqp-scan-" + std::to_string(getpid())));
    request.reply_to(reply_to_);
    std::vector<proton::value> body{proton::value(opts_.request)};
    if (opts_.file) body.emplace_back(proton::binary(payload_.begin(), payload_.end()));
    request.body(body);
    s.send(request);
    sent_ = true;
  }

  void on_tracker_reject(proton::tracker&) override { fail("the gateway rejected the request"); }

  void on_message(proton::delivery&, proton::message& reply) override {
    std::vector<std::string> parts;
    try {
      proton::get(reply.body(), parts);
    } catch (const proton::error&) {
      parts.clear();
    }
    if (parts.empty()) {
      fail("reply without a JSON body");
      return;
    }
    std::cout << parts[0] << "\n";
    if (parts.size() > 1) std::cerr << "qm-amqp-scan: the reply carries " << parts[1].size() << " bytes of data\n";
    replied_ = true;
    connection_.close();
  }

  void on_transport_error(proton::transport& t) override { report(t.error().what()); }
  void on_transport_close(proton::transport&) override {
    {
      std::lock_guard<std::mutex> lock(mu_);
      ended_ = true;
    }
    cv_.notify_all();
  }

  // Waits until the connection has ended; false on time-out. (A timer of the container
  // would keep it running until it fires, even after the connection is gone.)
  bool wait_ended(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, [this] { return ended_; });
  }
  void on_connection_error(proton::connection& c) override { report(c.error().what()); }

 private:
  void report(const std::string& why) {
    if (!replied_ && !failed_) std::cerr << "qm-amqp-scan: " << why << "\n";
    failed_ = true;
  }

  void fail(const std::string& why) {
    if (replied_) return;
    report(why);
    if (connection_.active()) connection_.close();
  }

  const scan_options& opts_;
  std::string payload_;
  proton::connection connection_;
  std::string reply_to_;
  bool sent_ = false;
  bool replied_ = false;
  bool failed_ = false;
  std::mutex mu_;
  std::condition_variable cv_;
  bool ended_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  scan_options opts;
  if (s_parse(argc, argv, opts) != 0) {
    s_usage(argv[0]);
    return 2;
  }
  std::string payload;
  if (opts.file) {
    std::ifstream in(*opts.file, std::ios::binary);
    if (!in) {
      fprintf(stderr, "qm-amqp-scan: cannot read %s\n", opts.file->c_str());
      return 1;
    }
    payload.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  scan_client client(opts, std::move(payload));
  proton::container container(client);
  std::thread runner([&] {
    try {
      container.run();
    } catch (const std::exception& e) {
      fprintf(stderr, "qm-amqp-scan: %s\n", e.what());
    }
  });
  if (!client.wait_ended(std::chrono::milliseconds(opts.timeout_ms))) {
    fprintf(stderr, "qm-amqp-scan: no reply within %d ms\n", opts.timeout_ms);
    container.stop();
  }
  runner.join();
  return client.exit_code();
}
