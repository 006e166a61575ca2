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

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

#include "qm_amqp_client.hpp"

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
  using namespace std::chrono;
  const auto deadline = steady_clock::now() + milliseconds(opts.timeout_ms);
  const auto left = [&] { return std::max(milliseconds(1), duration_cast<milliseconds>(deadline - steady_clock::now())); };
  qm_amqp::AmqpClient client(opts.url, {opts.user, opts.password, "PLAIN", true, opts.ca_file}, left());
  const std::string reply_to = client.is_open() ? client.open_receiver() : "";
  const int sender = reply_to.empty() ? -1 : client.open_sender(opts.service);
  if (sender < 0) {
    fprintf(stderr, "qm-amqp-scan: %s\n", client.error().empty() ? "cannot open the links" : client.error().c_str());
    return 1;
  }
  const std::string id = "qm-amqp-scan-" + std::to_string(getpid());
  const int ticket = client.send(sender, qm_amqp::scan_request("", opts.request, opts.file ? &payload : nullptr,
                                                                reply_to, proton::message_id(id)));
  if (client.outcome(ticket, left()) == qm_amqp::Outcome::rejected) {
    fprintf(stderr, "qm-amqp-scan: the gateway rejected the request\n");
    return 1;
  }
  const auto reply = client.receive(left());
  if (!reply) {
    fprintf(stderr, "qm-amqp-scan: no reply within %d ms\n", opts.timeout_ms);
    return 1;
  }
  const std::vector<std::string> parts = qm_amqp::reply_parts(*reply);
  if (parts.empty()) {
    fprintf(stderr, "qm-amqp-scan: reply without a JSON body\n");
    return 1;
  }
  printf("%s\n", parts[0].c_str());
  if (parts.size() > 1) fprintf(stderr, "qm-amqp-scan: the reply carries %zu bytes of data\n", parts[1].size());
  return 0;
}
