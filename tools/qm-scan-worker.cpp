// qm-scan-worker: a demo scan worker, the counterpart the gateway's tests and the local
// run talk to. It answers core requests on a service subject (queue group
// "qm-scan-workers") and, with --work-queue, jobs from the service's JetStream work
// queue; it reads the payload a request names by "_kv_key" from "qm-av-scan-data" and
// replies with its size, SHA-256 and whether it holds the EICAR test string.
//
// Test knobs in the request: "delay_ms" (wait before replying) and "echo": true (the
// payload comes back, staged under the reply's own "_kv_key").
#include <getopt.h>
#include <json-c/json.h>
#include <nats/nats.h>
#include <openssl/evp.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "auth_profile.hpp"
#include "broker_kv_bootstrap.hpp"
#include "gw_nats_relay_internal.hpp"
#include "log.hpp"
#include "qm_handles.hpp"
#include "qm_nats_conn.hpp"

namespace {

constexpr const char* kQueueGroup = "qm-scan-workers";
constexpr int kHandlerThreads = 8;
constexpr int kQueuePullers = 4;
constexpr int64_t kFetchWaitMs = 500;
// While a request is scanned, the worker tells it is alive this often: a progress message
// on the reply subject of a core request from the gateway (which resends a request whose
// worker falls silent), an in-progress acknowledgement for a work-queue job (so that a short AckWait
// redelivers only the jobs of a lost worker).
constexpr int64_t kProgressIntervalMs = 1000;
constexpr int64_t kMinProgressIntervalMs = 100;
constexpr int64_t kFirstProgressMs = 250;
// Echoed payloads are read by the relay at once; the TTL only clears what a relay that
// went away leaves behind.
constexpr uint64_t kEchoLifetimeMs = 60000;
// Split so that this source file itself does not carry the test signature.
constexpr std::string_view kEicar = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$"
                                    "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";

struct worker_options {
  std::string nats_url;
  std::string service;
  qm::opt_string user;
  qm::opt_string password;
  bool work_queue = false;
  int tracelevel = QMLOG_INFO;
};

void s_usage(const char* argv0) {
  fprintf(stderr,
          "Usage: %s --nats-url URL --service NAME [--user U --password P] [--work-queue] [--tracelevel N]\n"
          "  Answers scan requests on NAME (queue group \"qm-scan-workers\") and, with --work-queue, jobs from\n"
          "  the JetStream work queue of NAME. Stops on SIGINT or SIGTERM.\n",
          argv0);
}

// 0 with the options filled, 1 for a usage error, 2 after --help.
int s_parse(int argc, char** argv, worker_options& opts) {
  static const option kOptions[] = {
      {"nats-url", required_argument, nullptr, 'u'}, {"service", required_argument, nullptr, 's'},
      {"user", required_argument, nullptr, 'n'},     {"password", required_argument, nullptr, 'p'},
      {"work-queue", no_argument, nullptr, 'w'},     {"tracelevel", required_argument, nullptr, 't'},
      {"help", no_argument, nullptr, 'h'},           {nullptr, 0, nullptr, 0},
  };
  int c = 0;
  while ((c = getopt_long(argc, argv, "h", kOptions, nullptr)) != -1) {
    switch (c) {
      case 'u': opts.nats_url = optarg; break;
      case 's': opts.service = optarg; break;
      case 'n': opts.user = optarg; break;
      case 'p': opts.password = optarg; break;
      case 'w': opts.work_queue = true; break;
      case 't': opts.tracelevel = std::clamp(atoi(optarg), 0, 6); break;
      case 'h': s_usage(argv[0]); return 2;
      default: s_usage(argv[0]); return 1;
    }
  }
  if (optind < argc || opts.nats_url.empty() || opts.service.empty() || opts.user.has_value() != opts.password.has_value()) {
    s_usage(argv[0]);
    return 1;
  }
  return 0;
}

std::string s_sha256_hex(const char* data, size_t len) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  if (EVP_Digest(data, len, digest, &digest_len, EVP_sha256(), nullptr) != 1) return {};
  std::string hex;
  char byte[3];
  for (unsigned int i = 0; i < digest_len; ++i) {
    snprintf(byte, sizeof byte, "%02x", digest[i]);
    hex += byte;
  }
  return hex;
}

std::string s_error_reply(const std::string& error) {
  qm::json_ptr doc(json_object_new_object());
  json_object_object_add(doc.get(), "ReturnCode", json_object_new_int(-1));
  json_object_object_add(doc.get(), "Error", json_object_new_string(error.c_str()));
  return json_object_to_json_string_ext(doc.get(), JSON_C_TO_STRING_PLAIN);
}

const char* s_string_field(json_object* doc, const char* name) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(doc, name, &value) || !json_object_is_type(value, json_type_string)) return nullptr;
  return json_object_get_string(value);
}

class scan_worker {
 public:
  explicit scan_worker(const worker_options& opts) : opts_(opts) {}
  ~scan_worker() { stop(); }
  scan_worker(const scan_worker&) = delete;
  scan_worker& operator=(const scan_worker&) = delete;

  // Connects, binds the bucket and starts listening; false (logged) on failure.
  bool start();
  // Stops listening, cuts delays short and joins every thread. Idempotent.
  void stop();

 private:
  static void s_on_request(natsConnection*, natsSubscription*, natsMsg* msg, void* closure);
  static void s_on_request_handler_done(void* closure);
  bool connect();
  // One pull subscription per puller: the client library fetches on a subscription
  // for one caller at a time.
  bool subscribe_work_queue();
  void handler_loop();
  void puller_loop(natsSubscription* sub);
  // Waits ms milliseconds; false when the worker stops first.
  bool pause_ms(int64_t ms);
  void handle(natsMsg* msg, bool from_queue);
  // The reply text for one request document; empty when the worker stops mid-request.
  std::string answer(json_object* request);

  worker_options opts_;
  qm::nats_connection_ptr nc_;
  qm::js_ctx_ptr js_;
  qm::kv_store_ptr kv_;
  qm::nats_subscription_ptr core_sub_;
  std::vector<qm::nats_subscription_ptr> queue_subs_;
  std::vector<std::thread> threads_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::deque<qm::nats_msg_ptr> requests_;
  bool stopping_ = false;
  bool core_handler_done_ = false;  // the library will not call s_on_request again
  int64_t job_progress_ms_ = kProgressIntervalMs;
};

bool scan_worker::connect() {
  // Replies go out as they are written, or the flusher's sleep would set the fleet's latency.
  qm::nats_options_ptr nopts = qm_nats_request_options();
  if (!nopts) return false;
  natsOptions_SetURL(nopts.get(), opts_.nats_url.c_str());
  natsOptions_SetName(nopts.get(), "qm-scan-worker");
  if (opts_.user) {
    natsOptions_SetUserInfo(nopts.get(), opts_.user->c_str(), opts_.password->c_str());
    // The worker role subscribes to its own inboxes only.
    natsOptions_SetCustomInboxPrefix(nopts.get(), ("_INBOX." + *opts_.user).c_str());
  }
  natsStatus s = NATS_OK;
  const qm_nats_tls_result_t tls = qm_nats_apply_tls(nopts.get(), opts_.nats_url, nullptr, &s);
  if (tls == QM_NATS_TLS_SECURE_FAILED) {
    log_error("qm-scan-worker: TLS set-up failed: %s", natsStatus_GetText(s));
    return false;
  }
  natsConnection* raw_nc = nullptr;
  s = natsConnection_Connect(&raw_nc, nopts.get());
  nc_.reset(raw_nc);
  if (s != NATS_OK) {
    log_error("qm-scan-worker: connect to %s failed: %s", opts_.nats_url.c_str(), natsStatus_GetText(s));
    return false;
  }
  jsCtx* raw_js = nullptr;
  kvStore* raw_kv = nullptr;
  s = natsConnection_JetStream(&raw_js, nc_.get(), nullptr);
  js_.reset(raw_js);
  if (s == NATS_OK) s = js_KeyValue(&raw_kv, js_.get(), GW_SCAN_DATA_BUCKET);
  kv_.reset(raw_kv);
  if (s != NATS_OK) {
    log_error("qm-scan-worker: bucket '%s' not usable: %s", GW_SCAN_DATA_BUCKET, natsStatus_GetText(s));
    return false;
  }
  return true;
}

bool scan_worker::subscribe_work_queue() {
  char subject[256];
  char stream[256];
  char durable[256];
  qm_nats_wq_subject(opts_.service.c_str(), subject, sizeof subject);
  qm_nats_wq_stream(opts_.service.c_str(), stream, sizeof stream);
  qm_nats_wq_durable(opts_.service.c_str(), durable, sizeof durable);
  jsSubOptions so;
  jsSubOptions_Init(&so);
  so.Stream = stream;
  so.Consumer = durable;  // bind to the durable the broker provisioned, never make one
  for (int i = 0; i < kQueuePullers; ++i) {
    natsSubscription* raw = nullptr;
    jsErrCode jerr = static_cast<jsErrCode>(0);
    const natsStatus s = js_PullSubscribe(&raw, js_.get(), subject, durable, nullptr, &so, &jerr);
    queue_subs_.emplace_back(raw);
    if (s != NATS_OK) {
      log_error("qm-scan-worker: cannot pull from '%s' on '%s': %s", durable, stream, natsStatus_GetText(s));
      return false;
    }
  }
  // A job's in-progress acks come three times per AckWait, so that a live job is never redelivered.
  jsConsumerInfo* raw_info = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  const natsStatus got = js_GetConsumerInfo(&raw_info, js_.get(), stream, durable, nullptr, &jerr);
  if (got != NATS_OK) log_debug("qm-scan-worker: no consumer information: %s", natsStatus_GetText(got));
  if (got == NATS_OK) {
    const qm::js_consumer_info_ptr info(raw_info);
    const int64_t third_ms = info->Config->AckWait / 3000000;
    job_progress_ms_ = std::clamp<int64_t>(third_ms, kMinProgressIntervalMs, kProgressIntervalMs);
  }
  log_debug("qm-scan-worker: in-progress acks every %lldms", static_cast<long long>(job_progress_ms_));
  return true;
}

bool scan_worker::start() {
  if (!connect()) return false;
  natsSubscription* raw = nullptr;
  const natsStatus s =
      natsConnection_QueueSubscribe(&raw, nc_.get(), opts_.service.c_str(), kQueueGroup, s_on_request, this);
  core_sub_.reset(raw);
  if (s != NATS_OK || natsSubscription_SetOnCompleteCB(raw, s_on_request_handler_done, this) != NATS_OK) {
    log_error("qm-scan-worker: subscribe to %s failed: %s", opts_.service.c_str(), natsStatus_GetText(s));
    return false;
  }
  if (opts_.work_queue && !subscribe_work_queue()) return false;
  for (int i = 0; i < kHandlerThreads; ++i) threads_.emplace_back(&scan_worker::handler_loop, this);
  for (auto& sub : queue_subs_) threads_.emplace_back(&scan_worker::puller_loop, this, sub.get());
  // Once the server has the subscriptions, a request sent after "ready" reaches us.
  if (natsConnection_Flush(nc_.get()) != NATS_OK) {
    log_error("qm-scan-worker: flush to %s failed", opts_.nats_url.c_str());
    return false;
  }
  return true;
}

void scan_worker::stop() {
  {
    std::lock_guard<std::mutex> guard(mu_);
    if (stopping_ && threads_.empty()) return;
    stopping_ = true;
  }
  cv_.notify_all();
  if (core_sub_ && natsSubscription_Unsubscribe(core_sub_.get()) == NATS_OK) {
    // The request handler may still be running on the library's thread; it touches this
    // object, which must outlive it.
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait_for(lock, std::chrono::seconds(5), [&] { return core_handler_done_; });
  }
  for (std::thread& t : threads_) t.join();
  threads_.clear();
  requests_.clear();
}

void scan_worker::s_on_request(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) {
  auto* self = static_cast<scan_worker*>(closure);
  qm::nats_msg_ptr owned(msg);
  {
    std::lock_guard<std::mutex> guard(self->mu_);
    if (self->stopping_) return;
    self->requests_.push_back(std::move(owned));
  }
  self->cv_.notify_one();
}

void scan_worker::s_on_request_handler_done(void* closure) {
  auto* self = static_cast<scan_worker*>(closure);
  {
    std::lock_guard<std::mutex> guard(self->mu_);
    self->core_handler_done_ = true;
  }
  self->cv_.notify_all();
}

void scan_worker::handler_loop() {
  for (;;) {
    qm::nats_msg_ptr msg;
    {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait(lock, [&] { return stopping_ || !requests_.empty(); });
      if (stopping_) return;
      msg = std::move(requests_.front());
      requests_.pop_front();
    }
    handle(msg.get(), false);
  }
}

void scan_worker::puller_loop(natsSubscription* sub) {
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(mu_);
      if (stopping_) return;
    }
    natsMsgList list{};
    jsErrCode jerr = static_cast<jsErrCode>(0);
    if (natsSubscription_Fetch(&list, sub, 1, kFetchWaitMs, &jerr) != NATS_OK) continue;
    for (int i = 0; i < list.Count; ++i) handle(list.Msgs[i], true);
    natsMsgList_Destroy(&list);
  }
}

bool scan_worker::pause_ms(int64_t ms) {
  std::unique_lock<std::mutex> lock(mu_);
  return !cv_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return stopping_; });
}

std::string scan_worker::answer(json_object* request) {
  json_object* delay = nullptr;
  if (json_object_object_get_ex(request, "delay_ms", &delay) && !pause_ms(json_object_get_int64(delay))) return {};
  qm::malloc_ptr<char> payload;
  size_t size = 0;
  if (const char* key = s_string_field(request, "_kv_key")) {
    char* raw = nullptr;
    if (kvstore_get_chunked(nc_.get(), kv_.get(), key, 0, &raw, &size) != 0) return s_error_reply("payload '" + std::string(key) + "' not readable");
    payload.reset(raw);
  }
  const std::string_view bytes(payload.get(), size);
  qm::json_ptr reply(json_object_new_object());
  json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(0));
  json_object_object_add(reply.get(), "size", json_object_new_int64(static_cast<int64_t>(size)));
  json_object_object_add(reply.get(), "sha256", json_object_new_string(s_sha256_hex(bytes.data(), size).c_str()));
  json_object_object_add(reply.get(), "infected", json_object_new_boolean(bytes.find(kEicar) != std::string_view::npos));
  json_object* echo = nullptr;
  if (size > 0 && json_object_object_get_ex(request, "echo", &echo) && json_object_get_boolean(echo)) {
    // Reply data goes under the worker's own prefix, the only keys its role may write.
    const std::string key = gw_staged_key('w', qm::cstr(opts_.user));
    if (key.empty() || kvstore_put_chunked(nc_.get(), kv_.get(), key.c_str(), payload.get(), size,
                                           gw_kv_ttl_ms_for(kEchoLifetimeMs)) != 0) {
      if (!key.empty()) kvstore_delete_chunks(nc_.get(), kv_.get(), key.c_str(), gw_kv_num_chunks(size));
      return s_error_reply("echo payload could not be staged");
    }
    json_object_object_add(reply.get(), "_kv_key", json_object_new_string(key.c_str()));
  }
  return json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN);
}

// Sends progress for one request until it goes out of scope.
class progress_ticker {
 public:
  progress_ticker(natsConnection* nc, natsMsg* msg, bool from_queue, const char* reply_to, int64_t interval_ms)
      : nc_(nc), msg_(msg), from_queue_(from_queue), reply_to_(reply_to != nullptr ? reply_to : ""),
        interval_ms_(interval_ms) {
    // Only the gateway reads progress messages; any other requester takes the first
    // message as the reply.
    const bool gateway_waits = reply_to_.starts_with(std::string(AUTH_GATEWAY_INBOX_PREFIX) + ".");
    if (from_queue_ || gateway_waits) thread_ = std::thread([this] { run(); });
  }
  ~progress_ticker() {
    {
      std::lock_guard<std::mutex> guard(mu_);
      done_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
  }
  progress_ticker(const progress_ticker&) = delete;
  progress_ticker& operator=(const progress_ticker&) = delete;

 private:
  // The first comes after kFirstProgressMs: a quick answer needs none, a longer scan
  // then tells the gateway that a live worker holds the request.
  void run() {
    std::unique_lock<std::mutex> lock(mu_);
    int64_t pause_ms = std::min(kFirstProgressMs, interval_ms_);
    while (!cv_.wait_for(lock, std::chrono::milliseconds(pause_ms), [&] { return done_; })) {
      pause_ms = interval_ms_;
      if (from_queue_) {
        const natsStatus s = natsMsg_InProgress(msg_, nullptr);
        if (s != NATS_OK) log_debug("qm-scan-worker: in-progress ack failed: %s", natsStatus_GetText(s));
        continue;
      }
      natsMsg* raw = nullptr;
      if (natsMsg_Create(&raw, reply_to_.c_str(), nullptr, nullptr, 0) != NATS_OK) continue;
      qm::nats_msg_ptr progress(raw);
      natsMsgHeader_Set(progress.get(), "QM-Progress", "scanning");
      if (natsConnection_PublishMsg(nc_, progress.get()) != NATS_OK || claimed_) continue;
      // The first one goes out at once, not when the library's flusher next runs.
      claimed_ = natsConnection_FlushTimeout(nc_, kProgressIntervalMs) == NATS_OK;
      if (claimed_) log_debug("qm-scan-worker: told the gateway it holds %s", log_safe(reply_to_).c_str());
    }
  }

  natsConnection* nc_;
  natsMsg* msg_;
  const bool from_queue_;
  const std::string reply_to_;
  const int64_t interval_ms_;
  bool claimed_ = false;  // the first progress message reached the server
  std::mutex mu_;
  std::condition_variable cv_;
  bool done_ = false;
  std::thread thread_;
};

void scan_worker::handle(natsMsg* msg, bool from_queue) {
  const std::string body(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
  log_debug("qm-scan-worker: %s received: %s", from_queue ? "job" : "request", log_safe(body).c_str());
  qm::json_ptr request(json_tokener_parse(body.c_str()));
  if (request && !json_object_is_type(request.get(), json_type_object)) request.reset();
  const char* reply_to = from_queue ? (request ? s_string_field(request.get(), "_reply_subj") : nullptr)
                                    : natsMsg_GetReply(msg);
  if (from_queue) {
    jsMsgMetaData* raw_meta = nullptr;
    if (natsMsg_GetMetaData(&raw_meta, msg) == NATS_OK) {
      const char* reqid = request ? s_string_field(request.get(), "_reqid") : nullptr;
      log_debug("qm-scan-worker: job %s delivery %llu", reqid != nullptr ? log_safe(reqid).c_str() : "?",
                static_cast<unsigned long long>(raw_meta->NumDelivered));
      jsMsgMetaData_Destroy(raw_meta);
    }
  }
  std::string reply;
  {
    const progress_ticker ticker(nc_.get(), msg, from_queue, reply_to,
                                 from_queue ? job_progress_ms_ : kProgressIntervalMs);
    reply = request ? answer(request.get()) : s_error_reply("request is not a JSON object");
  }
  if (reply.empty()) return;  // stopping mid-request: a queued job goes to another worker
  if (reply_to != nullptr && reply_to[0] != '\0') {
    natsConnection_Publish(nc_.get(), reply_to, reply.data(), static_cast<int>(reply.size()));
  }
  if (from_queue) natsMsg_Ack(msg, nullptr);
  log_debug("qm-scan-worker: %s answered: %s", from_queue ? "job" : "request", log_safe(reply).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  qm__progname = "qm-scan-worker";
  worker_options opts;
  const int parsed = s_parse(argc, argv, opts);
  if (parsed != 0) return parsed == 2 ? 0 : 1;
  log_set_level(opts.tracelevel);
  log_set_screentrace(1);

  // Every thread, the client library's included, inherits the blocked mask; only
  // sigwait below takes the stop signals (also when a shell started us with them ignored).
  signal(SIGINT, SIG_DFL);
  signal(SIGTERM, SIG_DFL);
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  sigaddset(&stop_signals, SIGINT);
  sigaddset(&stop_signals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  signal(SIGPIPE, SIG_IGN);

  int rc = 0;
  {
    scan_worker worker(opts);
    if (worker.start()) {
      log_info("qm-scan-worker: ready (service %s%s)", opts.service.c_str(), opts.work_queue ? ", work queue" : "");
      int sig = 0;
      sigwait(&stop_signals, &sig);
      log_info("qm-scan-worker: stopping on signal %d", sig);
    } else {
      rc = 1;
    }
  }
  nats_Close();
  return rc;
}
