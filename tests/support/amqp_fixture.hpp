// The broker with its AMQP front door open on 127.0.0.1, on a nats-server whose logins go
// to the broker's auth callout (CalloutEnv), and a demo scan worker on "scan". Optionally
// amqps with a CA made for the test, or without the callout service so that the test
// answers "qm.auth.verify" itself (or nothing does).
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "amqp_client.hpp"
#include "callout_fixture.hpp"
#include "gw_amqp_acceptor.hpp"
#include "scan_fixture.hpp"

namespace qmtest {

// As CalloutOptions, but: `users` come besides the test user and the worker; an empty
// `permissions_json` stands for the shipped roles; without the callout service the worker
// logs in as the gateway user.
struct AmqpEnvOptions : CalloutOptions {
  bool tls = false;
  bool worker = true;  // false: the test runs its own worker
};

class AmqpEnv {
 public:
  static constexpr const char* kUser = "scanner";
  static constexpr const char* kPassword = "scanner-secret";
  static constexpr const char* kWorkerUser = "scan-worker";  // the shipped worker role's user
  static constexpr const char* kWorkerPassword = "worker-secret";
  static constexpr const char* kService = "scan";

  // Starts everything and waits until the AMQP port accepts connections; throws with the
  // broker's output when it does not.
  explicit AmqpEnv(AmqpEnvOptions options = {});
  ~AmqpEnv();
  AmqpEnv(const AmqpEnv&) = delete;
  AmqpEnv& operator=(const AmqpEnv&) = delete;

  int port() const { return port_; }
  std::string nats_url() const { return callout_->url(); }
  // What an in-process relay needs to reach this server as the gateway user.
  gw_config_t relay_config() const;
  CalloutEnv& callout() { return *callout_; }
  Child& broker() { return callout_->broker(); }
  std::string broker_log() { return broker().err(); }
  bool wait_for_log(const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    return broker().wait_for_err(text, timeout);
  }
  // The login of the test's AMQP user (with the test CA under TLS).
  AmqpLogin login(const std::string& user = kUser, const std::string& password = kPassword) const;

  // SIGTERM to the broker; its exit status (nullopt when it did not end in time).
  std::optional<int> stop_broker();

 private:
  // The broker on a fresh port; false when its listener did not open there.
  bool start_listener(CalloutOptions callout, const AmqpEnvOptions& options);

  TempDir certs_;
  int port_ = 0;
  bool tls_ = false;
  std::unique_ptr<CalloutEnv> callout_;
  std::unique_ptr<ScanWorker> worker_;
};

// Answers "qm.auth.verify" on a connection (queue group "qm-auth-verify") as the callout
// service would: grants exactly `users`, with backend "test"; or as scripted. Keeps the
// requests it saw.
class VerifyEndpoint {
 public:
  VerifyEndpoint(natsConnection* nc, user_list users);
  ~VerifyEndpoint();
  VerifyEndpoint(const VerifyEndpoint&) = delete;
  VerifyEndpoint& operator=(const VerifyEndpoint&) = delete;

  // From now on the users in `replies` get their text and the others no answer at all;
  // empty: back to answering from the users.
  void script(std::map<std::string, std::string> replies);
  // Every answer from now on comes this late (requests are answered in parallel).
  void set_delay(std::chrono::milliseconds delay);
  // Holds every answer back from now on, until release() sends them all.
  void hold();
  void release();
  // The bodies of the requests so far.
  std::vector<std::string> requests() const;

 private:
  static void s_on_request(natsConnection* nc, natsSubscription* sub, natsMsg* msg, void* closure);
  // The answer to a request ("" for none), under mu_.
  std::string answer(const std::string& request) const;

  natsConnection* nc_;
  user_list users_;
  mutable std::mutex mu_;
  std::map<std::string, std::string> script_;
  std::chrono::milliseconds delay_{0};
  std::vector<std::string> requests_;
  std::vector<std::thread> late_answers_;
  bool holding_ = false;
  std::vector<std::pair<std::string, std::string>> held_;  // inbox, answer
  qm::nats_subscription_ptr sub_;
};

// The AMQP door in this process, for what the broker binary cannot be given (a budget the
// test holds): a nats-server with a demo worker on "scan", the gateway's relay, SASL set
// up against a verify endpoint that knows AmqpEnv's test user, and the acceptor's loop on
// a thread. `tweak` adjusts the gateway configuration; everything stops with the object.
class AmqpDoor {
 public:
  explicit AmqpDoor(const std::function<void(gw_config_t&)>& tweak = {});
  ~AmqpDoor();
  AmqpDoor(const AmqpDoor&) = delete;
  AmqpDoor& operator=(const AmqpDoor&) = delete;

  int port() const { return cfg_.amqp_listen_port; }
  AmqpLogin login() const {
    AmqpLogin login;
    login.user = AmqpEnv::kUser;
    login.password = AmqpEnv::kPassword;
    return login;
  }

 private:
  ScanEnv scan_;
  relay_ptr relay_;
  std::unique_ptr<VerifyEndpoint> verify_;
  TempDir runtime_;
  gw_config_t cfg_;
  gw_amqp_acceptor_t* acc_ = nullptr;
  std::thread loop_;
};

// A client of env logged in as its test user, with a reply receiver on a dynamic node and
// a sender to "scan". Asserts (gtest) that each step worked.
struct ScanClient {
  explicit ScanClient(AmqpEnv& env);
  ScanClient(int port, const AmqpLogin& login);
  AmqpClient client;
  std::string reply_address;
  int sender = -1;
};

}  // namespace qmtest
