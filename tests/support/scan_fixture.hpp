// The gateway's far side for tests and benchmarks: a nats-server with the buckets and
// work queues the broker provisions, demo scan workers (the real tools/qm-scan-worker,
// each a child process) and relays connected to it. Everything stops with the object.
#pragma once

#include <nats/nats.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "gw_config.hpp"
#include "gw_nats_relay.hpp"
#include "nats_server_fixture.hpp"
#include "qm_handles.hpp"
#include "test_support.hpp"

namespace qmtest {

// The demo worker binary built with the tests.
std::string scan_worker_binary();

struct ScanEnvOptions {
  // Provisioned as JetStream work queues, as --js-work-services would.
  std::string work_services;
  // The work queues' AckWait; 0: the server's default.
  int ackwait_ms = 0;
};

// One demo worker; waits until it logs that it is ready (throws when it does not).
// With a user it logs in as that user (a server whose logins go to the auth callout).
// It logs at tracelevel 4 (info) at least.
class ScanWorker {
 public:
  ScanWorker(const std::string& url, const std::string& service, bool work_queue, int tracelevel,
             const std::string& user = "", const std::string& password = "");
  Child& child() { return *child_; }
  // What the worker has logged so far.
  std::string log() const { return child_->err(); }
  bool wait_for_log(const std::string& text, std::chrono::milliseconds timeout) const {
    return child_->wait_for_err(text, timeout);
  }

 private:
  std::unique_ptr<Child> child_;
};

using relay_ptr = qm::c_ptr<gw_nats_relay_t, gw_nats_relay_destroy>;

class ScanEnv {
 public:
  explicit ScanEnv(ScanEnvOptions options = {});
  ScanEnv(const ScanEnv&) = delete;
  ScanEnv& operator=(const ScanEnv&) = delete;

  std::string url() const { return server_.url(); }
  // A plain client of the server and its handle on "qm-av-scan-data".
  natsConnection* nc() { return nc_.get(); }
  jsCtx* js() { return js_.get(); }
  kvStore* kv() { return kv_.get(); }

  // Starts a worker for `service`; with work_queue it also pulls from the service's queue.
  // tracelevel 5 logs every request it receives and answers.
  ScanWorker& start_worker(const std::string& service, bool work_queue = false, int tracelevel = 5);

  // The gateway configuration a relay of this environment gets; tweak adjusts it.
  gw_config_t relay_config() const;
  relay_ptr make_relay(const std::function<void(gw_config_t&)>& tweak = {}) const;

  // Keys in "qm-av-scan-data" (deleted ones excluded), sorted; {"<no listing>"} when the
  // server did not answer in time.
  std::vector<std::string> bucket_keys();

  // The JetStream API's answer as text ("" on time-out).
  std::string js_api(const std::string& subject, const std::string& body = "");
  // Changes one field of a stream's configuration through the JetStream API; false when refused.
  bool update_stream_field(const std::string& stream, const std::string& field, const std::string& json_value);

 private:
  std::string work_services_;
  // The fleet's side of the packaged account layout: every connection of the test is the
  // gateway user in the fleet account, where the buckets and work queues live.
  NatsServer server_;
  qm::nats_connection_ptr nc_;
  qm::js_ctx_ptr js_;
  qm::kv_store_ptr kv_;
  // First to go: the workers, then the client, then the server.
  std::vector<std::unique_ptr<ScanWorker>> workers_;
};

// Keys in "qm-av-scan-data" (deleted ones excluded) seen through `nc`, sorted;
// {"<no listing>"} when the server did not answer in time.
std::vector<std::string> scan_data_keys(natsConnection* nc);

// Answers every request on `subject` with what `answer` returns (an empty message for ""),
// for replies the demo worker never gives. Stops answering with the object.
class Responder {
 public:
  Responder(natsConnection* nc, const char* subject, std::function<std::string()> answer);
  ~Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;

 private:
  static void s_on_request(natsConnection* nc, natsSubscription* sub, natsMsg* msg, void* self);
  std::function<std::string()> answer_;
  qm::nats_subscription_ptr sub_;
};

// One gw_nats_relay_request and what it gave back.
struct RelayReply {
  int rc = -1;
  bool has_json = false;  // *reply_json was set
  std::string json;
  bool has_data = false;  // *reply_data was set
  std::string data;
};
// An empty payload is passed as no payload (NULL, 0).
RelayReply relay_request(gw_nats_relay_t* relay, const std::string& subject, const std::string& request_json,
                         const std::string& payload = "", unsigned long timeout_ms = 10000);

// size bytes of a fixed pseudo-random pattern in which every byte value occurs.
std::string test_payload(size_t size);
// Lower-case hex SHA-256 of data.
std::string sha256_hex(const std::string& data);
// A member of a JSON object text as a string ("<absent>" when missing, "<bad json>").
std::string json_member(const std::string& json, const char* name);

}  // namespace qmtest
