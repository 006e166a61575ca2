#include "broker_kv_bootstrap.hpp"

#include <json-c/json.h>
#include <nats/nats.h>
#include <nats/version.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <memory>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "gw_subject_policy.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"
#include "qm_nats_conn.hpp"

namespace {

constexpr const char* kScanDataBucket = "qm-av-scan-data";
constexpr int kConnectTimeoutMs = 5000;
constexpr int64_t kApiTimeoutMs = 5000;
constexpr size_t kNameBufferSize = 256;
constexpr size_t kSanitizedBufferSize = 200;
constexpr int64_t kNanosPerMs = 1000000;
constexpr int64_t kNanosPerSec = 1000000000;



const char* s_storage_word(bool memory) { return memory ? "memory" : "file"; }
int s_replicas_shown(int replicas) { return replicas > 1 ? replicas : 1; }

// The client library's last error text for this thread, or "" when there is none.
std::string s_last_error_text() {
  const char* text = nats_GetLastError(nullptr);
  return text != nullptr ? text : "";
}

qm::nats_options_ptr s_build_options(const char* url, const char* user, const char* password, const char* cert_path) {
  natsOptions* raw = nullptr;
  const natsStatus created = natsOptions_Create(&raw);
  if (created != NATS_OK) {
    log_error("KV bootstrap: natsOptions_Create failed: %s", natsStatus_GetText(created));
    return nullptr;
  }
  qm::nats_options_ptr opts(raw);
  natsOptions_SetURL(opts.get(), url);
  if (user != nullptr) natsOptions_SetUserInfo(opts.get(), user, password != nullptr ? password : "");
  natsOptions_SetTimeout(opts.get(), kConnectTimeoutMs);
  natsOptions_SetAllowReconnect(opts.get(), false);
  natsOptions_SetMaxReconnect(opts.get(), 0);
  natsOptions_SetRetryOnFailedConnect(opts.get(), false, nullptr, nullptr);
  static const qm_nats_tls_texts tls_texts{
      .no_ca_warning = "KV bootstrap: tls:// URL but no CA cert supplied — server cert will be checked against "
                       "the system trust store",
      .failure_level = QMLOG_ERROR,
      .secure_failed = "KV bootstrap: SetSecure failed: %s",
      .ca_failed = "KV bootstrap: LoadCATrustedCertificates(%s) failed: %s"};
  if (!qm_nats_configure_tls(opts.get(), url, cert_path, tls_texts)) return nullptr;
  return opts;
}

// ---- Raw stream configuration ------------------------------------------------------
// Stream settings newer than the client library (allow_msg_ttl) are read and written as
// JSON through the JetStream API. Once a stream carries such a setting, every later
// update has to go this way too: the library would send the configuration without the
// fields it does not know, and the server refuses to drop them.

// Sends one JetStream API request; the reply's JSON, or nullopt with `error` set.
std::optional<qm::json_ptr> s_js_api_request(natsConnection* nc, const std::string& subject, const std::string& body,
                                           std::string& error) {
  natsMsg* raw = nullptr;
  const natsStatus s =
      natsConnection_Request(&raw, nc, subject.c_str(), body.data(), static_cast<int>(body.size()), kApiTimeoutMs);
  qm::nats_msg_ptr reply(raw);
  if (s != NATS_OK) {
    error = natsStatus_GetText(s);
    return std::nullopt;
  }
  const std::string text(natsMsg_GetData(reply.get()), static_cast<size_t>(natsMsg_GetDataLength(reply.get())));
  qm::json_ptr doc(json_tokener_parse(text.c_str()));
  if (!doc || !json_object_is_type(doc.get(), json_type_object)) {
    error = "unreadable JetStream API reply";
    return std::nullopt;
  }
  json_object* err = nullptr;
  if (json_object_object_get_ex(doc.get(), "error", &err)) {
    json_object* description = nullptr;
    json_object* err_code = nullptr;
    json_object_object_get_ex(err, "description", &description);
    json_object_object_get_ex(err, "err_code", &err_code);
    error = description != nullptr ? json_object_get_string(description) : "JetStream API error";
    if (err_code != nullptr) error += " (err_code " + std::to_string(json_object_get_int64(err_code)) + ")";
    return std::nullopt;
  }
  return doc;
}

// The stream's configuration object, owned by the returned reply document.
json_object* s_config_of(const qm::json_ptr& reply) {
  json_object* config = nullptr;
  if (!json_object_object_get_ex(reply.get(), "config", &config) || !json_object_is_type(config, json_type_object)) {
    return nullptr;
  }
  return config;
}

std::optional<qm::json_ptr> s_read_stream(natsConnection* nc, const std::string& stream, std::string& error) {
  auto reply = s_js_api_request(nc, "$JS.API.STREAM.INFO." + stream, "", error);
  if (!reply) return std::nullopt;
  if (s_config_of(*reply) == nullptr) {
    error = "stream information without a configuration";
    return std::nullopt;
  }
  return reply;
}

// Sends the whole configuration back; the echoed configuration, or nullopt.
std::optional<qm::json_ptr> s_update_stream(natsConnection* nc, const std::string& stream, json_object* config,
                                          std::string& error) {
  const std::string body = json_object_to_json_string_ext(config, JSON_C_TO_STRING_PLAIN);
  auto reply = s_js_api_request(nc, "$JS.API.STREAM.UPDATE." + stream, body, error);
  if (!reply) return std::nullopt;
  if (s_config_of(*reply) == nullptr) {
    error = "update reply without a configuration";
    return std::nullopt;
  }
  return reply;
}

bool s_bool_field(json_object* config, const char* name) {
  json_object* value = nullptr;
  return json_object_object_get_ex(config, name, &value) && json_object_get_boolean(value);
}

int64_t s_int_field(json_object* config, const char* name) {
  json_object* value = nullptr;
  return json_object_object_get_ex(config, name, &value) ? json_object_get_int64(value) : 0;
}

std::string s_kv_stream_name(const char* bucket) {
  char name[kNameBufferSize];
  snprintf(name, sizeof name, "KV_%s", bucket);
  return name;
}

void s_enable_msg_ttl_on_kv_stream(natsConnection* nc, const char* bucket) {
  const std::string stream = s_kv_stream_name(bucket);
  std::string error;
  auto info = s_read_stream(nc, stream, error);
  if (!info) {
    log_warn("KV bootstrap: could not read stream '%s' to enable AllowMsgTTL: %s", stream.c_str(), error.c_str());
    return;
  }
  json_object* config = s_config_of(*info);
  if (s_bool_field(config, "allow_msg_ttl")) return;
  json_object_object_add(config, "allow_msg_ttl", json_object_new_boolean(1));
  auto echoed = s_update_stream(nc, stream, config, error);
  // A server without per-message TTL accepts the update but drops the field: only the
  // echoed configuration tells.
  if (echoed && !s_bool_field(s_config_of(*echoed), "allow_msg_ttl")) {
    echoed.reset();
    error = "the server dropped allow_msg_ttl (per-message TTL needs nats-server 2.11 or newer)";
  }
  if (!echoed) {
    log_warn("KV bootstrap: failed to enable AllowMsgTTL on stream '%s': %s — scan payloads will use the bucket TTL",
             stream.c_str(), error.c_str());
    return;
  }
  log_info("KV bootstrap: enabled AllowMsgTTL on stream '%s' (per-key scan-payload TTL)", stream.c_str());
}

void s_set_allow_direct_on_kv_stream(natsConnection* nc, const char* bucket, bool allow_direct) {
  const std::string stream = s_kv_stream_name(bucket);
  const char* flag = allow_direct ? "true" : "false";
  std::string error;
  auto info = s_read_stream(nc, stream, error);
  if (!info) {
    log_warn("KV bootstrap: could not read stream '%s' to set AllowDirect: %s", stream.c_str(), error.c_str());
    return;
  }
  json_object* config = s_config_of(*info);
  if (s_bool_field(config, "allow_direct") == allow_direct) return;
  json_object_object_add(config, "allow_direct", json_object_new_boolean(allow_direct ? 1 : 0));
  if (!s_update_stream(nc, stream, config, error)) {
    log_warn("KV bootstrap: failed to set AllowDirect=%s on stream '%s': %s", flag, stream.c_str(), error.c_str());
    return;
  }
  log_info("KV bootstrap: set AllowDirect=%s on stream '%s' (%s)", flag, stream.c_str(),
           allow_direct ? "fast replica reads" : "leader-only reads for cross-node read-after-write consistency");
}

void s_set_bucket_maxage_on_kv_stream(natsConnection* nc, const char* bucket, int64_t max_age_ns) {
  const std::string stream = s_kv_stream_name(bucket);
  std::string error;
  auto info = s_read_stream(nc, stream, error);
  if (!info) {
    log_warn("KV bootstrap: could not read stream '%s' to set MaxAge: %s", stream.c_str(), error.c_str());
    return;
  }
  json_object* config = s_config_of(*info);
  if (s_int_field(config, "max_age") == max_age_ns) return;
  json_object_object_add(config, "max_age", json_object_new_int64(max_age_ns));
  // The server refuses a duplicates window longer than the age limit.
  if (s_int_field(config, "duplicate_window") > max_age_ns) {
    json_object_object_add(config, "duplicate_window", json_object_new_int64(max_age_ns));
  }
  if (!s_update_stream(nc, stream, config, error)) {
    log_warn("KV bootstrap: failed to set MaxAge on stream '%s': %s — dead entries may linger if the per-key TTL is "
             "not honoured",
             stream.c_str(), error.c_str());
    return;
  }
  log_info("KV bootstrap: set MaxAge=%lldms on stream '%s' (lease-bucket dead-entry backstop)",
           static_cast<long long>(max_age_ns / kNanosPerMs), stream.c_str());
}

// ---- Buckets -----------------------------------------------------------------------

enum class s_adjustment { none, allow_direct, max_age };

struct s_bucket_def {
  const char* name;
  bool history_one;     // false: the client's default history
  bool memory_storage;  // false: follows js_transient_memory
  int64_t ttl_ns;       // 0: no TTL
  s_adjustment adjustment;
  int64_t max_age_ns;
};

const s_bucket_def kBuckets[] = {
    {kScanDataBucket, false, false, 120 * kNanosPerSec, s_adjustment::allow_direct, 0},
    {"qm-av-worker-registry", true, true, 60 * kNanosPerSec, s_adjustment::max_age, 60 * kNanosPerSec},
    {"qm-av-config", true, true, 0, s_adjustment::none, 0},
    {"qm-av-event-subscriptions", true, true, 120 * kNanosPerSec, s_adjustment::max_age, 120 * kNanosPerSec},
    {"qm-av-wq-dedup", true, true, 300 * kNanosPerSec, s_adjustment::none, 0},
};

struct s_bootstrap_params {
  int replicas = 1;
  bool allow_direct = true;
  bool memory = true;
  const broker_workqueue_opts* wq = nullptr;
  const qm::stop_flag* stop = nullptr;  // start-up's: ends the retries
  broker_kv_bootstrap_timing timing;
};

// A bucket someone else created is taken over as it is; what differs from this broker's
// settings is told, as for the work queues. max_age is left out where an adjustment
// sets it anyway.
void s_warn_bucket_differences(natsConnection* nc, const s_bucket_def& bucket, const s_bootstrap_params& params) {
  const std::string stream = s_kv_stream_name(bucket.name);
  std::string error;
  auto info = s_read_stream(nc, stream, error);
  if (!info) return;
  json_object* config = s_config_of(*info);
  json_object* storage = nullptr;
  const bool have_memory = json_object_object_get_ex(config, "storage", &storage) &&
                           strcmp(json_object_get_string(storage), "memory") == 0;
  const bool want_memory = bucket.memory_storage || params.memory;
  struct difference {
    const char* setting;
    std::string have;
    std::string want;
  };
  std::vector<difference> differences;
  if (have_memory != want_memory)
    differences.push_back({"storage", s_storage_word(have_memory), s_storage_word(want_memory)});
  const int64_t have_replicas = std::max<int64_t>(s_int_field(config, "num_replicas"), 1);
  if (have_replicas != s_replicas_shown(params.replicas))
    differences.push_back({"replicas", std::to_string(have_replicas), std::to_string(s_replicas_shown(params.replicas))});
  if (bucket.adjustment != s_adjustment::max_age && s_int_field(config, "max_age") != bucket.ttl_ns)
    differences.push_back({"TTL", std::to_string(s_int_field(config, "max_age") / kNanosPerMs) + "ms",
                           std::to_string(bucket.ttl_ns / kNanosPerMs) + "ms"});
  if (bucket.history_one && s_int_field(config, "max_msgs_per_subject") != 1)
    differences.push_back({"history", std::to_string(s_int_field(config, "max_msgs_per_subject")), "1"});
  for (const difference& d : differences) {
    log_warn("KV bootstrap: bucket '%s' runs with %s=%s but this broker is configured for %s — the existing bucket "
             "keeps its own value. Delete it ('nats kv del %s') while nothing is staged and let the next broker start "
             "recreate it.",
             bucket.name, d.setting, d.have.c_str(), d.want.c_str(), bucket.name);
  }
}

int s_ensure_kv_bucket(natsConnection* nc, jsCtx* js, const s_bucket_def& bucket, const s_bootstrap_params& params) {
  kvStore* raw = nullptr;
  if (js_KeyValue(&raw, js, bucket.name) == NATS_OK) {
    log_info("KV bootstrap: bucket '%s' already existed — bound to it", bucket.name);
    s_warn_bucket_differences(nc, bucket, params);
  } else {
    kvConfig cfg;
    kvConfig_Init(&cfg);
    cfg.Bucket = bucket.name;
    if (bucket.history_one) cfg.History = 1;
    cfg.StorageType = bucket.memory_storage || params.memory ? js_MemoryStorage : js_FileStorage;
    cfg.TTL = bucket.ttl_ns;  // nanoseconds, like every JetStream duration
    if (params.replicas > 1) cfg.Replicas = params.replicas;
    const natsStatus s = js_CreateKeyValue(&raw, js, &cfg);
    if (s != NATS_OK) {
      const std::string detail = s_last_error_text();
      log_warn("KV bootstrap: js_CreateKeyValue('%s') failed: %s", bucket.name,
               detail.empty() ? natsStatus_GetText(s) : detail.c_str());
      return -1;
    }
    log_info("KV bootstrap: created bucket '%s' (replicas=%d)", bucket.name, s_replicas_shown(params.replicas));
  }
  qm::kv_store_ptr kv(raw);
  s_enable_msg_ttl_on_kv_stream(nc, bucket.name);
  return 0;
}

void s_adjust_bucket(natsConnection* nc, const s_bucket_def& bucket, const s_bootstrap_params& params) {
  switch (bucket.adjustment) {
    case s_adjustment::allow_direct:
      s_set_allow_direct_on_kv_stream(nc, bucket.name, params.allow_direct);
      break;
    case s_adjustment::max_age:
      s_set_bucket_maxage_on_kv_stream(nc, bucket.name, bucket.max_age_ns);
      break;
    case s_adjustment::none:
      break;
  }
}

// ---- Work queues ---------------------------------------------------------------------

long long s_ms(int64_t ns) { return static_cast<long long>(ns / kNanosPerMs); }

int s_ensure_wq_stream(jsCtx* js, const std::string& stream, const std::string& subject, const s_bootstrap_params& params) {
  jsStreamInfo* raw_info = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  if (js_GetStreamInfo(&raw_info, js, stream.c_str(), nullptr, &jerr) == NATS_OK) {
    qm::js_stream_info_ptr info(raw_info);
    log_info("WQ bootstrap: stream '%s' already existed — bound to it", stream.c_str());
    const bool existing_memory = info->Config->Storage == js_MemoryStorage;
    if (existing_memory != params.memory) {
      log_warn("WQ bootstrap: '%s' is %s-backed but this broker is configured for %s. Storage cannot be changed in "
               "place — delete the stream ('nats stream rm %s') and let the next broker start recreate it. Do it "
               "while the queue is drained: deleting it discards any job still enqueued.",
               stream.c_str(), s_storage_word(existing_memory), s_storage_word(params.memory), stream.c_str());
    }
    return 0;
  }
  jsStreamConfig cfg;
  jsStreamConfig_Init(&cfg);
  cfg.Name = stream.c_str();
  const char* subjects[] = {subject.c_str()};
  cfg.Subjects = subjects;
  cfg.SubjectsLen = 1;
  cfg.Retention = js_WorkQueuePolicy;
  cfg.Storage = params.memory ? js_MemoryStorage : js_FileStorage;
  if (params.replicas > 1) cfg.Replicas = params.replicas;
  if (params.wq->stream_maxage_ns > 0) cfg.MaxAge = params.wq->stream_maxage_ns;
  jsStreamInfo* created = nullptr;
  const natsStatus s = js_AddStream(&created, js, &cfg, nullptr, &jerr);
  qm::js_stream_info_ptr created_info(created);
  if (s != NATS_OK) {
    const std::string detail = s_last_error_text();
    log_warn("WQ bootstrap: js_AddStream('%s') failed: %s%s%s", stream.c_str(), natsStatus_GetText(s),
             detail.empty() ? "" : " — ", detail.c_str());
    return -1;
  }
  log_info("WQ bootstrap: created stream '%s' (subject '%s', WorkQueue, %s, replicas=%d)", stream.c_str(),
           subject.c_str(), s_storage_word(params.memory), s_replicas_shown(params.replicas));
  return 0;
}

void s_warn_consumer_differences(const std::string& stream, const std::string& durable, const jsConsumerConfig& have,
                                 const broker_workqueue_opts& want) {
  if (want.ackwait_ns > 0 && want.ackwait_ns != have.AckWait) {
    log_warn("WQ bootstrap: '%s' runs with AckWait=%lldms but this broker is configured for %lldms — the existing "
             "consumer keeps its own value. Apply it with 'nats consumer edit %s %s --ack-wait=%llds', or delete the "
             "consumer and let the next broker start recreate it.",
             durable.c_str(), s_ms(have.AckWait), s_ms(want.ackwait_ns), stream.c_str(), durable.c_str(),
             static_cast<long long>(want.ackwait_ns / kNanosPerSec));
  }
  if (want.maxwaiting > 0 && want.maxwaiting != have.MaxWaiting) {
    log_warn("WQ bootstrap: '%s' runs with MaxWaiting=%lld but this broker is configured for %lld. This field cannot "
             "be updated in place — delete the consumer ('nats consumer rm %s %s') and let the next broker start "
             "recreate it, or the fleet's puller threads will keep being rejected once they exceed %lld.",
             durable.c_str(), static_cast<long long>(have.MaxWaiting), static_cast<long long>(want.maxwaiting),
             stream.c_str(), durable.c_str(), static_cast<long long>(have.MaxWaiting));
  }
}

int s_ensure_wq_consumer(jsCtx* js, const std::string& stream, const std::string& subject, const std::string& durable,
                         const broker_workqueue_opts& wq) {
  jsConsumerInfo* raw_info = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  if (js_GetConsumerInfo(&raw_info, js, stream.c_str(), durable.c_str(), nullptr, &jerr) == NATS_OK) {
    qm::js_consumer_info_ptr info(raw_info);
    const jsConsumerConfig& have = *info->Config;
    log_info("WQ bootstrap: durable consumer '%s' on '%s' already existed (AckWait=%lldms, MaxDeliver=%lld, "
             "MaxAckPending=%lld, MaxWaiting=%lld)",
             durable.c_str(), stream.c_str(), s_ms(have.AckWait), static_cast<long long>(have.MaxDeliver),
             static_cast<long long>(have.MaxAckPending), static_cast<long long>(have.MaxWaiting));
    s_warn_consumer_differences(stream, durable, have, wq);
    return 0;
  }
  jsConsumerConfig cfg;
  jsConsumerConfig_Init(&cfg);
  cfg.Durable = durable.c_str();
  cfg.FilterSubject = subject.c_str();
  cfg.AckPolicy = js_AckExplicit;
  if (wq.ackwait_ns > 0) cfg.AckWait = wq.ackwait_ns;
  if (wq.maxdeliver > 0) cfg.MaxDeliver = wq.maxdeliver;
  if (wq.maxackpending > 0) cfg.MaxAckPending = wq.maxackpending;
  if (wq.maxwaiting > 0) cfg.MaxWaiting = wq.maxwaiting;
  jsConsumerInfo* created = nullptr;
  const natsStatus s = js_AddConsumer(&created, js, stream.c_str(), &cfg, nullptr, &jerr);
  qm::js_consumer_info_ptr created_info(created);
  if (s != NATS_OK) {
    const std::string detail = s_last_error_text();
    log_warn("WQ bootstrap: js_AddConsumer('%s' on '%s') failed: %s%s%s", durable.c_str(), stream.c_str(),
             natsStatus_GetText(s), detail.empty() ? "" : " — ", detail.c_str());
    return -1;
  }
  const jsConsumerConfig& made = *created_info->Config;
  log_info("WQ bootstrap: created durable pull consumer '%s' on '%s' (AckWait=%lldms, MaxDeliver=%lld, MaxWaiting=%s)",
           durable.c_str(), stream.c_str(), s_ms(made.AckWait), static_cast<long long>(made.MaxDeliver),
           wq.maxwaiting > 0 ? "set" : "server default (512)");
  return 0;
}

int s_ensure_work_queue(jsCtx* js, const std::string& service, const s_bootstrap_params& params) {
  char subject[kNameBufferSize];
  char stream[kNameBufferSize];
  char durable[kNameBufferSize];
  qm_nats_wq_subject(service.c_str(), subject, sizeof subject);
  qm_nats_wq_stream(service.c_str(), stream, sizeof stream);
  qm_nats_wq_durable(service.c_str(), durable, sizeof durable);
  if (s_ensure_wq_stream(js, stream, subject, params) != 0) return -1;
  return s_ensure_wq_consumer(js, stream, subject, durable, *params.wq);
}

int s_ensure_work_queues(jsCtx* js, const s_bootstrap_params& params) {
  if (params.wq == nullptr) return 0;
  for (const std::string& service : gw_service_list_parse(params.wq->work_services))
    if (s_ensure_work_queue(js, service, params) != 0) return -1;
  return 0;
}

// ---- One attempt and the retry loop ----------------------------------------------------

bool s_stopping(const s_bootstrap_params& params) { return params.stop != nullptr && params.stop->requested(); }

// The pause between attempts; false when a stop came meanwhile.
bool s_pause(const s_bootstrap_params& params, int ms) {
  if (params.stop == nullptr) {
    qm::sleep_ms(ms);
    return true;
  }
  return params.stop->sleep_for(ms);
}

int s_bootstrap_once(natsOptions* opts, const s_bootstrap_params& params) {
  natsConnection* raw_nc = nullptr;
  const natsStatus connected = natsConnection_Connect(&raw_nc, opts);
  qm::nats_connection_ptr nc(raw_nc);
  if (connected != NATS_OK) {
    log_warn("KV bootstrap: connect failed: %s", natsStatus_GetText(connected));
    return -1;
  }
  jsCtx* raw_js = nullptr;
  const natsStatus context = natsConnection_JetStream(&raw_js, nc.get(), nullptr);
  qm::js_ctx_ptr js(raw_js);
  if (context != NATS_OK) {
    log_warn("KV bootstrap: JetStream context failed: %s", natsStatus_GetText(context));
    natsConnection_Close(nc.get());
    return -1;
  }
  int result = 0;
  for (const s_bucket_def& bucket : kBuckets) {
    if (s_stopping(params) || s_ensure_kv_bucket(nc.get(), js.get(), bucket, params) != 0) {
      result = -1;
      break;
    }
    s_adjust_bucket(nc.get(), bucket, params);
  }
  if (result == 0) result = s_ensure_work_queues(js.get(), params);
  js.reset();
  natsConnection_Close(nc.get());
  return result;
}

int s_bootstrap(const char* nats_url, const char* user, const char* password, const char* cert_path,
                const s_bootstrap_params& params) {
  qm::nats_options_ptr opts = s_build_options(nats_url, user, password, cert_path);
  if (!opts) return -1;
  const broker_kv_bootstrap_timing& timing = params.timing;
  const int budget_sec = timing.budget_ms / 1000;
  const int64_t start_ms = qm::monotonic_ms();
  std::optional<int64_t> last_note_ms;
  int delay_ms = timing.initial_delay_ms;
  int attempt = 0;
  for (;;) {
    ++attempt;
    if (s_bootstrap_once(opts.get(), params) == 0) break;
    if (s_stopping(params)) return -1;
    const int64_t now_ms = qm::monotonic_ms();
    if (now_ms - start_ms >= timing.budget_ms) {
      log_fatal("KV bootstrap: '%s' still not ready after %d attempts over %ds — giving up", kScanDataBucket, attempt,
                budget_sec);
      return -1;
    }
    if (!last_note_ms || now_ms - *last_note_ms >= timing.note_interval_ms) {
      log_info("KV bootstrap: JetStream not ready yet (attempt %d) — waiting for the cluster meta-group to elect a "
               "leader; retrying for up to %ds",
               attempt, budget_sec);
      last_note_ms = now_ms;
    }
    if (!s_pause(params, delay_ms)) return -1;
    delay_ms = std::min(delay_ms * 2, timing.max_delay_ms);
  }
  if (attempt >= 2) log_info("KV bootstrap: succeeded on attempt %d", attempt);
  return 0;
}

}  // namespace

int broker_kv_bootstrap(const char* nats_url, const char* user, const char* password, const char* cert_path,
                        int kv_replicas, bool kv_scandata_allow_direct, bool js_transient_memory,
                        const broker_workqueue_opts* opts, const qm::stop_flag* stop,
                        const broker_kv_bootstrap_timing* timing) {
  if (nats_url == nullptr) {
    log_error("KV bootstrap: nats_url is NULL");
    return -1;
  }
  try {
    s_bootstrap_params params;
    params.replicas = kv_replicas;
    params.allow_direct = kv_scandata_allow_direct;
    params.memory = js_transient_memory;
    params.wq = opts;
    params.stop = stop;
    if (timing != nullptr) params.timing = *timing;
    return s_bootstrap(nats_url, user, password, cert_path, params);
  } catch (const std::exception& e) {
    log_error("KV bootstrap: %s", e.what());
    return -1;
  }
}

// ---- Reprovisioning ---------------------------------------------------------------------

struct broker_kv_reprovisioner {
  std::string url;
  qm::opt_string user;
  qm::opt_string password;
  qm::opt_string cert_path;
  qm::opt_string work_services;
  broker_kv_reprovision_params params;  // its strings point into the copies above
  qm::stop_flag stop;
  std::mutex mu;
  std::condition_variable wake;
  bool pending = false;
  bool ending = false;
  std::atomic<int> runs{0};
  std::thread thread;
};

namespace {

// One provisioning after a restart or a reconnect, with the start-up's checks and logs.
void s_reprovision(broker_kv_reprovisioner& r) {
  const broker_kv_reprovision_params& p = r.params;
  log_info("KV bootstrap: provisioning buckets and work queues again (the server may have lost them)");
  const int rc = broker_kv_bootstrap(p.nats_url, p.user, p.password, p.cert_path, p.kv_replicas,
                                     p.kv_scandata_allow_direct, p.js_transient_memory, &p.wq, &r.stop, &p.timing);
  r.runs.fetch_add(1);
  if (rc != 0) {
    if (!r.stop.requested()) log_error("KV bootstrap: provisioning again failed; the next restart or reconnect retries");
    return;
  }
  if (p.after_reprovision != nullptr) p.after_reprovision(p.after_reprovision_arg);
}

void s_reprovision_loop(broker_kv_reprovisioner& r) {
  std::unique_lock<std::mutex> lock(r.mu);
  for (;;) {
    r.wake.wait(lock, [&r] { return r.pending || r.ending; });
    if (r.ending) return;
    r.pending = false;
    lock.unlock();
    s_reprovision(r);
    lock.lock();
  }
}

}  // namespace

broker_kv_reprovisioner_t* broker_kv_reprovisioner_create(const broker_kv_reprovision_params* params) {
  if (params == nullptr || params->nats_url == nullptr) return nullptr;
  try {
    auto r = std::make_unique<broker_kv_reprovisioner>();
    r->params = *params;
    r->url = params->nats_url;
    r->user = qm::from_cstr(params->user);
    r->password = qm::from_cstr(params->password);
    r->cert_path = qm::from_cstr(params->cert_path);
    r->work_services = qm::from_cstr(params->wq.work_services);
    r->params.nats_url = r->url.c_str();
    r->params.user = qm::cstr(r->user);
    r->params.password = qm::cstr(r->password);
    r->params.cert_path = qm::cstr(r->cert_path);
    r->params.wq.work_services = qm::cstr(r->work_services);
    broker_kv_reprovisioner* raw = r.get();
    r->thread = std::thread([raw] { s_reprovision_loop(*raw); });
    return r.release();
  } catch (const std::exception& e) {
    log_error("KV bootstrap: cannot start reprovisioning: %s", e.what());
    return nullptr;
  }
}

void broker_kv_reprovisioner_request(broker_kv_reprovisioner_t* r) {
  if (r == nullptr) return;
  {
    std::lock_guard<std::mutex> guard(r->mu);
    r->pending = true;
  }
  r->wake.notify_one();
}

int broker_kv_reprovisioner_runs(const broker_kv_reprovisioner_t* r) { return r != nullptr ? r->runs.load() : 0; }

void broker_kv_reprovisioner_destroy(broker_kv_reprovisioner_t* r) {
  if (r == nullptr) return;
  std::unique_ptr<broker_kv_reprovisioner> owned(r);
  r->stop.request();
  {
    std::lock_guard<std::mutex> guard(r->mu);
    r->ending = true;
  }
  r->wake.notify_one();
  if (r->thread.joinable()) r->thread.join();
}

void qm_nats_wq_subject(const char* service, char* buf, size_t n) {
  if (buf == nullptr || n == 0) return;
  snprintf(buf, n, "jobs.%s", service != nullptr ? service : "");
}

void qm_nats_wq_sanitize(const char* in, char* out, size_t n) {
  if (out == nullptr || n == 0) return;
  size_t i = 0;
  for (; in != nullptr && in[i] != '\0' && i + 1 < n; ++i) out[i] = in[i] == '.' ? '_' : in[i];
  out[i] = '\0';
}

void qm_nats_wq_stream(const char* service, char* buf, size_t n) {
  if (buf == nullptr || n == 0) return;
  char sanitized[kSanitizedBufferSize];
  qm_nats_wq_sanitize(service, sanitized, sizeof sanitized);
  snprintf(buf, n, "JOBS_%s", sanitized);
}

void qm_nats_wq_durable(const char* service, char* buf, size_t n) {
  if (buf == nullptr || n == 0) return;
  char sanitized[kSanitizedBufferSize];
  qm_nats_wq_sanitize(service, sanitized, sizeof sanitized);
  snprintf(buf, n, "WORK_%s", sanitized);
}

int broker_kv_msg_ttl_supported(natsConnection* nc, const char* bucket) {
  if (nc == nullptr || bucket == nullptr) return -1;
  const std::string stream = s_kv_stream_name(bucket);
  std::string error;
  const auto info = s_read_stream(nc, stream, error);
  if (!info) {
    log_warn("KV bootstrap: could not read stream '%s' to learn whether it keeps per-message TTLs: %s", stream.c_str(),
             error.c_str());
    return -1;
  }
  // A server that predates per-message TTL drops the field it does not know.
  return s_bool_field(s_config_of(*info), "allow_msg_ttl") ? 1 : 0;
}
