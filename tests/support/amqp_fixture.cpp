#include "amqp_fixture.hpp"

#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

#include "gw_sasl_setup.hpp"
#include "log_capture.hpp"
#include "qm_handles.hpp"
#include "qmhlp_network.hpp"
#include "test_certificates.hpp"

namespace qmtest {

using namespace std::chrono_literals;

namespace {

bool s_port_open(int port) {
  char error[QMHLP_ERROR_BUFFER_SIZE];
  return qmhlp_CheckConnect("127.0.0.1", std::to_string(port).c_str(), error) == 0;
}

}  // namespace

AmqpEnv::AmqpEnv(AmqpEnvOptions options) : tls_(options.tls) {
  CalloutOptions callout = options;
  callout.users.insert(callout.users.begin(), {{kUser, kPassword}, {kWorkerUser, kWorkerPassword}});
  if (callout.permissions_json.empty()) callout.permissions_json = CalloutEnv::shipped_permissions();
  if (tls_) make_test_certificates(certs_, "qmtest amqp CA");
  // The broker cannot be told to pick its own port: another process may take the free
  // one first, and then the broker starts again on the next.
  for (int attempt = 1; !start_listener(callout, options); ++attempt) {
    if (attempt == 3) throw std::runtime_error("AMQP listener did not open:\n" + broker_log());
  }
  if (!options.worker) return;
  const bool via_callout = options.callout_service;
  // Quiet below debug level: at 5 it logs every request.
  worker_ = std::make_unique<ScanWorker>(nats_url(), kService, false, options.tracelevel >= 5 ? 5 : 4,
                                         via_callout ? kWorkerUser : CalloutEnv::kGatewayUser,
                                         via_callout ? kWorkerPassword : CalloutEnv::kGatewayPassword);
}

bool AmqpEnv::start_listener(CalloutOptions callout, const AmqpEnvOptions& options) {
  port_ = free_port();
  const std::string address = "127.0.0.1:" + std::to_string(port_);
  callout.broker_args = {"--amqp-enabled", "true", "--amqp-listen-host", "127.0.0.1", "--amqp-listen-port",
                         std::to_string(port_)};
  if (tls_) {
    callout.broker_args.insert(callout.broker_args.end(), {"--amqp-tls-cert", certs_.file("server.pem"),
                                                           "--amqp-tls-key", certs_.file("server.key")});
  }
  callout.broker_args.insert(callout.broker_args.end(), options.broker_args.begin(), options.broker_args.end());
  callout_.reset();
  callout_ = std::make_unique<CalloutEnv>(callout);
  // Below info level the broker does not say that it listens: an open port has to do.
  const auto ours = [&] {
    if (options.tracelevel < 4) return s_port_open(port_);
    return LogCapture::count_in(broker_log(), "amqp_acceptor: listening on " + address) > 0;
  };
  const auto failed = [&] {
    return !broker().running() || LogCapture::count_in(broker_log(), "listener on " + address + " closed") > 0;
  };
  return wait_until([&] { return failed() || ours(); }, 60s) && !failed();
}

// The broker stops first, so that what its sanitizers find at exit fails the test.
AmqpEnv::~AmqpEnv() {
  if (broker().running()) stop_broker();
  const std::string log = broker_log();
  const size_t report = log.find("Sanitizer");
  EXPECT_EQ(report, std::string::npos) << log.substr(report == std::string::npos ? 0 : report);
}

gw_config_t AmqpEnv::relay_config() const {
  gw_config_t cfg;
  cfg.nats_url = nats_url();
  cfg.nats_user = CalloutEnv::kGatewayUser;
  cfg.nats_password = CalloutEnv::kGatewayPassword;
  return cfg;
}

AmqpLogin AmqpEnv::login(const std::string& user, const std::string& password) const {
  AmqpLogin login;
  login.user = user;
  login.password = password;
  if (tls_) login.ca_file = certs_.file("ca.pem");
  return login;
}

std::optional<int> AmqpEnv::stop_broker() {
  broker().signal(SIGTERM);
  return broker().wait(60s);
}

VerifyEndpoint::VerifyEndpoint(natsConnection* nc, user_list users) : nc_(nc), users_(std::move(users)) {
  natsSubscription* sub = nullptr;
  if (natsConnection_QueueSubscribe(&sub, nc, "qm.auth.verify", "qm-auth-verify", s_on_request, this) != NATS_OK ||
      natsConnection_Flush(nc) != NATS_OK) {
    throw std::runtime_error("cannot answer qm.auth.verify");
  }
  sub_.reset(sub);
}

// A handler still running would touch a destroyed endpoint: drain before going.
VerifyEndpoint::~VerifyEndpoint() {
  if (natsSubscription_Drain(sub_.get()) == NATS_OK) natsSubscription_WaitForDrainCompletion(sub_.get(), 5000);
  for (std::thread& t : late_answers_) t.join();
}

void VerifyEndpoint::script(std::map<std::string, std::string> replies) {
  std::lock_guard<std::mutex> lock(mu_);
  script_ = std::move(replies);
}

void VerifyEndpoint::set_delay(std::chrono::milliseconds delay) {
  std::lock_guard<std::mutex> lock(mu_);
  delay_ = delay;
}

void VerifyEndpoint::hold() {
  std::lock_guard<std::mutex> lock(mu_);
  holding_ = true;
}

void VerifyEndpoint::release() {
  std::lock_guard<std::mutex> lock(mu_);
  holding_ = false;
  for (const auto& [inbox, answer] : held_) natsConnection_PublishString(nc_, inbox.c_str(), answer.c_str());
  held_.clear();
}

std::vector<std::string> VerifyEndpoint::requests() const {
  std::lock_guard<std::mutex> lock(mu_);
  return requests_;
}

std::string VerifyEndpoint::answer(const std::string& request) const {
  const std::string user = json_member(request, "user");
  if (!script_.empty()) {
    const auto scripted = script_.find(user);
    return scripted == script_.end() ? "" : scripted->second;
  }
  const std::string password = json_member(request, "password");
  bool ok = false;
  for (const auto& [known_user, known_password] : users_) ok = ok || (user == known_user && password == known_password);
  return std::string("{\"ok\":") + (ok ? "true" : "false") + ",\"backend\":\"test\"}";
}

void VerifyEndpoint::s_on_request(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) {
  qm::nats_msg_ptr owned(msg);
  auto* self = static_cast<VerifyEndpoint*>(closure);
  const std::string request(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
  std::lock_guard<std::mutex> lock(self->mu_);
  self->requests_.push_back(request);
  const std::string reply = self->answer(request);
  if (reply.empty()) return;
  if (self->holding_) {
    self->held_.emplace_back(natsMsg_GetReply(msg), reply);
    return;
  }
  if (self->delay_.count() == 0) {
    natsConnection_PublishString(nc, natsMsg_GetReply(msg), reply.c_str());
    return;
  }
  // A thread per late answer, so that one slow answer does not hold up the next request.
  self->late_answers_.emplace_back([nc, inbox = std::string(natsMsg_GetReply(msg)), reply, delay = self->delay_] {
    std::this_thread::sleep_for(delay);
    natsConnection_PublishString(nc, inbox.c_str(), reply.c_str());
  });
}

AmqpDoor::AmqpDoor(const std::function<void(gw_config_t&)>& tweak) : relay_(scan_.make_relay()) {
  scan_.start_worker(AmqpEnv::kService, false, 4);
  verify_ = std::make_unique<VerifyEndpoint>(scan_.nc(), user_list{{AmqpEnv::kUser, AmqpEnv::kPassword}});
  const char* config_dir = gw_sasl_setup(GW_SASL_SERVICE_NAME, runtime_.file("rt").c_str(), relay_.get());
  if (config_dir == nullptr) throw std::runtime_error("SASL set-up failed");
  cfg_.amqp_listen_host = "127.0.0.1";
  cfg_.amqp_listen_port = free_port();
  if (tweak) tweak(cfg_);
  acc_ = gw_amqp_acceptor_create(&cfg_, relay_.get(), config_dir, nullptr);
  if (acc_ == nullptr) throw std::runtime_error("AMQP acceptor not created");
  loop_ = std::thread([this] { gw_amqp_acceptor_run(acc_); });
  if (!wait_until([&] { return gw_amqp_acceptor_listening(acc_); }, 20s)) {
    gw_amqp_acceptor_stop(acc_);
    loop_.join();
    gw_amqp_acceptor_destroy(acc_);
    throw std::runtime_error("AMQP acceptor not listening");
  }
}

AmqpDoor::~AmqpDoor() {
  gw_amqp_acceptor_stop(acc_);
  loop_.join();
  gw_amqp_acceptor_destroy(acc_);
  gw_sasl_teardown();
}

ScanClient::ScanClient(AmqpEnv& env) : ScanClient(env.port(), env.login()) {}

ScanClient::ScanClient(int port, const AmqpLogin& login) : client(port, login) {
  EXPECT_TRUE(client.is_open()) << client.error();
  reply_address = client.open_receiver();
  EXPECT_FALSE(reply_address.empty());
  sender = client.open_sender(AmqpEnv::kService);
  EXPECT_GE(sender, 0);
}

}  // namespace qmtest
