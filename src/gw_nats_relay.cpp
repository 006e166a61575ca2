#include "gw_nats_relay.hpp"

#include <json-c/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "auth_profile.hpp"
#include "broker_kv_bootstrap.hpp"
#include "broker_metrics.hpp"
#include "gw_nats_relay_internal.hpp"
#include "log.hpp"
#include "qm_cpp.hpp"
#include "qm_handles.hpp"
#include "qm_nats_conn.hpp"
#include "qm_nats_nr_backoff.hpp"

// Replies to the relay's core requests, all on one subscription below the gateway's inbox
// prefix, as the client library's own request multiplexer does: a request costs no
// subscription of its own, and every message on its reply subject (progress, then the
// reply) reaches it.
class gw_reply_mux {
 public:
  struct waiter {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<qm::nats_msg_ptr> msgs;
    bool ended = false;  // the connection is closed: no reply will come
  };

  gw_reply_mux() = default;
  ~gw_reply_mux() { close(); }
  gw_reply_mux(const gw_reply_mux&) = delete;
  gw_reply_mux& operator=(const gw_reply_mux&) = delete;

  // Subscribes "<prefix>.*" for replies; prefix is "<gateway inbox prefix>.<unique>".
  natsStatus open(natsConnection* nc, const std::string& prefix) {
    prefix_ = prefix;
    natsSubscription* raw = nullptr;
    natsStatus s = natsConnection_Subscribe(&raw, nc, (prefix_ + ".*").c_str(), s_on_msg, this);
    sub_.reset(raw);
    if (s == NATS_OK) s = natsSubscription_SetOnCompleteCB(raw, s_on_complete, this);
    if (s == NATS_OK) s = natsSubscription_SetPendingLimits(raw, -1, -1);
    return s;
  }

  // Unsubscribes and waits until no delivery is under way any more.
  void close() {
    if (!sub_) return;
    if (natsSubscription_Unsubscribe(sub_.get()) == NATS_OK) {
      std::unique_lock<std::mutex> lock(mu_);
      cv_.wait_for(lock, std::chrono::seconds(5), [&] { return completed_; });
    }
    sub_.reset();
  }

  // A new reply subject and the waiter its messages go to, until release.
  std::pair<std::string, std::shared_ptr<waiter>> add() {
    const uint64_t token = next_.fetch_add(1) + 1;
    auto w = std::make_shared<waiter>();
    std::lock_guard<std::mutex> guard(mu_);
    w->ended = ended_;
    waiters_[token] = w;
    return {prefix_ + "." + std::to_string(token), w};
  }
  void release(const std::string& subject) {
    const uint64_t token = s_token(subject.c_str());
    std::lock_guard<std::mutex> guard(mu_);
    waiters_.erase(token);
  }

  // Ends every wait under way and each one begun later: closing the connection does not
  // wake them, and a worker that has not yet said it is busy would be waited for in full.
  void end_all() {
    std::lock_guard<std::mutex> guard(mu_);
    ended_ = true;
    for (const auto& [token, w] : waiters_) {
      {
        std::lock_guard<std::mutex> ended(w->mu);
        w->ended = true;
      }
      w->cv.notify_all();
    }
  }

  // The next message for w, waiting up to timeout_ms.
  static natsStatus next(waiter& w, int64_t timeout_ms, qm::nats_msg_ptr& out) {
    std::unique_lock<std::mutex> lock(w.mu);
    if (!w.cv.wait_for(lock, std::chrono::milliseconds(std::max<int64_t>(timeout_ms, 0)),
                       [&] { return !w.msgs.empty() || w.ended; }))
      return NATS_TIMEOUT;
    if (w.msgs.empty()) return NATS_CONNECTION_CLOSED;
    out = std::move(w.msgs.front());
    w.msgs.pop_front();
    return NATS_OK;
  }

 private:
  static uint64_t s_token(const char* subject) {
    const char* dot = subject != nullptr ? strrchr(subject, '.') : nullptr;
    return dot != nullptr ? strtoull(dot + 1, nullptr, 10) : 0;
  }
  static void s_on_msg(natsConnection*, natsSubscription*, natsMsg* msg, void* closure) noexcept {
    qm::nats_msg_ptr owned(msg);
    auto* self = static_cast<gw_reply_mux*>(closure);
    std::shared_ptr<waiter> w;
    {
      std::lock_guard<std::mutex> guard(self->mu_);
      const auto found = self->waiters_.find(s_token(natsMsg_GetSubject(msg)));
      if (found == self->waiters_.end()) return;  // its request has ended
      w = found->second;
    }
    {
      std::lock_guard<std::mutex> guard(w->mu);
      w->msgs.push_back(std::move(owned));
    }
    w->cv.notify_one();
  }
  static void s_on_complete(void* closure) noexcept {
    auto* self = static_cast<gw_reply_mux*>(closure);
    {
      std::lock_guard<std::mutex> guard(self->mu_);
      self->completed_ = true;
    }
    self->cv_.notify_all();
  }

  std::string prefix_;
  std::mutex mu_;
  std::condition_variable cv_;
  bool completed_ = false;
  bool ended_ = false;
  std::unordered_map<uint64_t, std::shared_ptr<waiter>> waiters_;
  std::atomic<uint64_t> next_{0};
  qm::nats_subscription_ptr sub_;
};

struct gw_nats_relay {
  // Declared in the reverse of the order they are destroyed in: reply subscription,
  // bucket, context, connection.
  qm::nats_connection_ptr conn;
  qm::js_ctx_ptr js;
  qm::kv_store_ptr kv;
  qm::opt_string js_services;
  uint64_t relay_timeout_ms = 0;
  uint64_t relay_max_timeout_ms = 0;
  uint64_t js_ackwait_ms = 0;
  size_t max_payload_bytes = 0;  // the largest reply payload read back; 0: no cap
  std::atomic<void (*)(void*)> on_reconnected{nullptr};
  std::atomic<void*> on_reconnected_arg{nullptr};
  gw_reply_mux replies;
};

namespace {

constexpr uint64_t kDefaultFloorMs = 30000;
constexpr uint64_t kDefaultCeilingMs = 300000;
// Added to every scan budget: the worker's own overhead and the reply's way back.
constexpr uint64_t kWaitMarginMs = 250;
constexpr int64_t kMinTtlMs = 1000;
constexpr int kStagingAttempts = 3;
constexpr int64_t kStagingRetryPauseMs = 25;
// How long a streamed upload's first chunk is sent again while its stream has no leader.
constexpr int64_t kStagingElectionWaitMs = 8000;
constexpr size_t kWqSubjectSize = 256;
constexpr size_t kMaxSubjectLength = 255;
// Chunks in flight per put: enough to keep the connection busy, few enough that the
// copies the client library keeps until each acknowledgement stay small (16 MiB).
constexpr int64_t kChunksInFlight = 32;
// How long a put waits for room in the pipeline and for its acknowledgements.
constexpr int64_t kChunkAckWaitMs = 30000;
// No writer makes more chunks than this (32 GiB); a manifest naming more is broken, and
// its number is not trusted for reading or deleting.
constexpr int64_t kMaxChunks = 65536;
// s_request's result when the worker's reply did not come in time (callers see -1).
constexpr int kRelayTimedOut = -2;

// Once-per-process state. Races are harmless: at worst a warning twice or one more
// TTL write that fails.
std::atomic<bool> s_gw_msg_ttl_unsupported{false};
std::atomic<bool> s_gw_warned_budget_clamped{false};
std::atomic<bool> s_gw_warned_budget_vs_ackwait{false};

const char* s_or(const char* text, const char* fallback) { return text != nullptr ? text : fallback; }

// The client library's last error text for this thread, or "" when there is none.
std::string s_last_error_text() { return s_or(nats_GetLastError(nullptr), ""); }

// " — <last error>" when the library has one, else "".
std::string s_last_error_suffix() {
  const std::string text = s_last_error_text();
  return text.empty() ? std::string() : " \u2014 " + log_safe(text);
}

uint64_t s_saturating_add(uint64_t a, uint64_t b) { return a > UINT64_MAX - b ? UINT64_MAX : a + b; }

// A whole text that is one JSON object, or null (not JSON, trailing bytes, not an object).
qm::json_ptr s_parse_object(const char* text, size_t len) {
  qm::json_tokener_ptr tok(json_tokener_new());
  if (!tok || len > INT_MAX) return nullptr;
  qm::json_ptr doc(json_tokener_parse_ex(tok.get(), text, static_cast<int>(len)));
  if (!doc || json_tokener_get_error(tok.get()) != json_tokener_success) return nullptr;
  for (size_t at = json_tokener_get_parse_end(tok.get()); at < len; ++at) {
    const char c = text[at];
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') return nullptr;
  }
  return json_object_is_type(doc.get(), json_type_object) ? std::move(doc) : nullptr;
}
qm::json_ptr s_parse_object(const char* text) { return text ? s_parse_object(text, strlen(text)) : nullptr; }

std::string s_serialise(json_object* doc) { return s_or(json_object_to_json_string_ext(doc, JSON_C_TO_STRING_PLAIN), ""); }

const char* s_string_field(json_object* doc, const char* name) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(doc, name, &value) || !json_object_is_type(value, json_type_string)) return nullptr;
  return json_object_get_string(value);
}

// A positive integer field (numbers and numeric strings); 0 when absent or not above 0.
uint64_t s_positive_field(json_object* doc, const char* name) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(doc, name, &value)) return 0;
  const int64_t number = json_object_get_int64(value);
  return number > 0 ? static_cast<uint64_t>(number) : 0;
}

qm::malloc_ptr<char> s_copy_bytes(const char* data, size_t len) {
  qm::malloc_ptr<char> copy(static_cast<char*>(malloc(len + 1)));
  if (copy) {
    if (len > 0) memcpy(copy.get(), data, len);
    copy.get()[len] = '\0';
  }
  return copy;
}

// ---- Chunked store ---------------------------------------------------------------------

std::string s_kv_subject(kvStore* kv, const std::string& key) { return std::string("$KV.") + kvStore_Bucket(kv) + "." + key; }

std::string s_chunk_key(const std::string& key, size_t index) { return key + "-" + std::to_string(index); }

std::string s_manifest_text(size_t num_chunks, size_t data_len) {
  char text[64];
  snprintf(text, sizeof text, "{\"chunks\":%d,\"size\":%zu}", static_cast<int>(num_chunks), data_len);
  return text;
}

// Whether a publish failed only because its stream cannot take writes right now: no
// leader to answer (a lost node's stream during the election), or a cluster that says it
// is temporarily unavailable. Worth sending again; anything else is an answer.
bool s_stream_unavailable(natsStatus s, jsErrCode jerr) {
  return s == NATS_NO_RESPONDERS || s == NATS_TIMEOUT || jerr == JSClusterNotAvailErr;
}

// Messages published asynchronously on a JetStream context of their own and acknowledged
// together. One put's (or delete's) pipeline and acknowledgement errors belong to it alone,
// so that a small payload never waits behind another request's large one.
class s_pipeline {
 public:
  explicit s_pipeline(natsConnection* nc, int64_t max_pending = kChunksInFlight) {
    jsOptions opts;
    jsOptions_Init(&opts);
    opts.PublishAsync.MaxPending = max_pending;
    opts.PublishAsync.StallWait = kChunkAckWaitMs;
    opts.PublishAsync.ErrHandler = s_on_error;
    opts.PublishAsync.ErrHandlerClosure = this;
    jsCtx* raw = nullptr;
    if (natsConnection_JetStream(&raw, nc, &opts) == NATS_OK) js_.reset(raw);
  }
  ~s_pipeline() { finish(); }
  s_pipeline(const s_pipeline&) = delete;
  s_pipeline& operator=(const s_pipeline&) = delete;

  jsCtx* js() const { return js_.get(); }

  // Starts one publish; `header` (with `value`) is set when given.
  natsStatus publish(const std::string& subject, const char* data, size_t len, const char* header,
                     const std::string& value) {
    if (!js_) return NATS_NO_MEMORY;
    if (subject.size() > kMaxSubjectLength) return NATS_INVALID_SUBJECT;
    natsMsg* raw = s_new_msg(subject, data, len, header, value).release();
    const natsStatus s = raw != nullptr ? js_PublishMsgAsync(js_.get(), &raw, nullptr) : NATS_NO_MEMORY;
    natsMsg_Destroy(raw);  // still ours only when the library did not take it
    return s;
  }

  // Waits for every acknowledgement: "" when all were positive, else what went wrong. A
  // time-out takes the unacknowledged messages back, so that nothing outlives the pipeline.
  std::string finish() {
    if (!js_) return "no JetStream context";
    jsPubOptions opts;
    jsPubOptions_Init(&opts);
    opts.MaxWait = kChunkAckWaitMs;
    const natsStatus s = js_PublishAsyncComplete(js_.get(), &opts);
    if (s != NATS_OK) {
      natsMsgList pending{};
      if (js_PublishAsyncGetPendingList(&pending, js_.get()) == NATS_OK) natsMsgList_Destroy(&pending);
      return natsStatus_GetText(s);
    }
    std::lock_guard<std::mutex> guard(mu_);
    return first_error_;
  }

  static qm::nats_msg_ptr s_new_msg(const std::string& subject, const char* data, size_t len, const char* header,
                                    const std::string& value) {
    natsMsg* raw = nullptr;
    if (len > INT_MAX || natsMsg_Create(&raw, subject.c_str(), nullptr, data, static_cast<int>(len)) != NATS_OK) {
      return nullptr;
    }
    qm::nats_msg_ptr msg(raw);
    if (header != nullptr && natsMsgHeader_Set(msg.get(), header, value.c_str()) != NATS_OK) return nullptr;
    return msg;
  }

 private:
  // Called on the client library's delivery thread for each refused message.
  static void s_on_error(jsCtx*, jsPubAckErr* pae, void* closure) {
    auto* self = static_cast<s_pipeline*>(closure);
    std::lock_guard<std::mutex> guard(self->mu_);
    if (!self->first_error_.empty()) return;
    self->first_error_ = s_or(pae->ErrText, natsStatus_GetText(pae->Err));
    if (pae->ErrCode != 0) self->first_error_ += " (err_code " + std::to_string(static_cast<int>(pae->ErrCode)) + ")";
  }

  std::mutex mu_;
  std::string first_error_;
  qm::js_ctx_ptr js_;  // last: goes first, while the rest is still there
};

constexpr const char* kTtlHeader = "Nats-TTL";

natsStatus s_put_manifest(jsCtx* js, kvStore* kv, const std::string& key, const std::string& text,
                          const std::string& ttl) {
  if (ttl.empty()) {
    uint64_t revision = 0;
    return kvStore_PutString(&revision, kv, key.c_str(), text.c_str());
  }
  qm::nats_msg_ptr msg = s_pipeline::s_new_msg(s_kv_subject(kv, key), text.data(), text.size(), kTtlHeader, ttl);
  if (!msg) return NATS_NO_MEMORY;
  jsPubAck* raw_ack = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  const natsStatus s = js_PublishMsg(&raw_ack, js, msg.get(), nullptr, &jerr);
  qm::js_pub_ack_ptr ack(raw_ack);
  return s;
}

// One write pass: every chunk pipelined, the acknowledgements awaited together, then the
// manifest. With ttl_ms > 0 each entry carries that per-message TTL.
int gw_kv_put_chunks(natsConnection* nc, kvStore* kv, const char* key, const char* data, size_t data_len,
                     size_t num_chunks, int64_t ttl_ms) {
  const std::string ttl = ttl_ms > 0 ? std::to_string(ttl_ms) + "ms" : std::string();
  const char* ttl_header = ttl.empty() ? nullptr : kTtlHeader;
  s_pipeline pipeline(nc);
  for (size_t i = 0; i < num_chunks; ++i) {
    const std::string subject = s_kv_subject(kv, s_chunk_key(key, i));
    const size_t offset = i * GW_KV_CHUNK_SIZE;
    const natsStatus s =
        pipeline.publish(subject, data + offset, std::min(GW_KV_CHUNK_SIZE, data_len - offset), ttl_header, ttl);
    if (s != NATS_OK) {
      log_error("nats_relay: chunk publish (%s) failed: %s%s", subject.c_str(), natsStatus_GetText(s),
                s_last_error_suffix().c_str());
      return -1;
    }
  }
  const std::string refused = pipeline.finish();
  if (!refused.empty()) {
    log_error("nats_relay: js_PublishAsyncComplete failed for key=%s: %s", key, log_safe(refused).c_str());
    return -1;
  }
  const natsStatus s = s_put_manifest(pipeline.js(), kv, key, s_manifest_text(num_chunks, data_len), ttl);
  if (s != NATS_OK) {
    log_error("nats_relay: metadata publish (%s) failed: %s%s", key, natsStatus_GetText(s),
              s_last_error_suffix().c_str());
    return -1;
  }
  return 0;
}

// One stored value, as a replica answered it or as the stream leader did.
class s_value {
 public:
  s_value() = default;
  explicit s_value(qm::kv_entry_ptr entry) : entry_(std::move(entry)) {}
  explicit s_value(qm::nats_msg_ptr msg) : msg_(std::move(msg)) {}
  explicit operator bool() const { return entry_ || msg_; }
  const char* data() const {
    return entry_ ? static_cast<const char*>(kvEntry_Value(entry_.get())) : natsMsg_GetData(msg_.get());
  }
  size_t size() const {
    const int len = entry_ ? kvEntry_ValueLen(entry_.get()) : natsMsg_GetDataLength(msg_.get());
    return static_cast<size_t>(std::max(len, 0));
  }

 private:
  qm::kv_entry_ptr entry_;
  qm::nats_msg_ptr msg_;
};

// The last message of the key's subject as the stream leader has it: a read that sees
// every write the leader acknowledged, whichever node it came through. Null when the
// key is absent or deleted.
qm::nats_msg_ptr s_leader_get(natsConnection* nc, kvStore* kv, const std::string& key) {
  jsCtx* raw_js = nullptr;
  if (nc == nullptr || natsConnection_JetStream(&raw_js, nc, nullptr) != NATS_OK) return nullptr;
  const qm::js_ctx_ptr js(raw_js);
  const std::string stream = std::string("KV_") + kvStore_Bucket(kv);
  natsMsg* raw = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  if (js_GetLastMsg(&raw, js.get(), stream.c_str(), s_kv_subject(kv, key).c_str(), nullptr, &jerr) != NATS_OK)
    return nullptr;
  qm::nats_msg_ptr msg(raw);
  const char* operation = nullptr;
  if (natsMsgHeader_Get(msg.get(), "KV-Operation", &operation) == NATS_OK && operation != nullptr) return nullptr;
  return msg;
}

// A staged entry, read consistently across replicas: the bucket's own read first (a
// direct read may be answered by a replica that has not yet stored what another node
// just wrote), then, when that finds nothing, the leader. Entries are written once under
// fresh keys, so a value a replica has is never stale; only a miss needs the leader.
s_value s_get_entry(natsConnection* nc, kvStore* kv, const std::string& key) {
  kvEntry* raw = nullptr;
  if (kvStore_Get(&raw, kv, key.c_str()) == NATS_OK) return s_value(qm::kv_entry_ptr(raw));
  qm::nats_msg_ptr from_leader = s_leader_get(nc, kv, key);
  if (!from_leader) return {};
  broker_metrics_count_leader_read();
  return s_value(std::move(from_leader));
}

std::optional<gw_kv_manifest> s_read_manifest(natsConnection* nc, kvStore* kv, const char* key) {
  const s_value entry = s_get_entry(nc, kv, key);
  if (!entry) return std::nullopt;
  return gw_kv_manifest_parse(entry.data(), entry.size());
}

// Whether a manifest may be read back: within max_len (0: no cap), in exactly the chunks
// a writer makes for its size, and with a last chunk that exists and holds the rest. A
// manifest is only a claim, checked against what is stored before anything is allocated
// for it; a refusal is logged.
bool s_manifest_fits(natsConnection* nc, kvStore* kv, const char* key, const gw_kv_manifest& manifest, size_t max_len) {
  const char* why = gw_kv_manifest_refusal(manifest, max_len);
  if (why == nullptr) {
    const size_t last = static_cast<size_t>(manifest.chunks) - 1;
    const s_value entry = s_get_entry(nc, kv, s_chunk_key(key, last));
    const size_t expected = static_cast<size_t>(manifest.size) - last * GW_KV_CHUNK_SIZE;
    if (!entry || entry.size() != expected)
      why = "its last chunk is missing or of another size";
  }
  if (why == nullptr) return true;
  log_warn("nats_relay: payload '%s' refused: manifest of %lld bytes in %lld chunks is %s", log_safe(key).c_str(),
           static_cast<long long>(manifest.size), static_cast<long long>(manifest.chunks), why);
  return false;
}

// The chunks of one payload in order, read ahead by a few threads over the shared
// connection so that the round trips overlap; at most kReadAhead chunks wait in memory.
// A payload of one chunk is read on the caller's thread.
class s_chunk_reader {
 public:
  s_chunk_reader(natsConnection* nc, kvStore* kv, const std::string& key, size_t num_chunks)
      : nc_(nc), kv_(kv), key_(key), chunks_(num_chunks), entries_(num_chunks), fetched_(num_chunks, false) {
    if (num_chunks < 2) return;
    try {
      for (size_t i = 0; i < std::min(kReaders, num_chunks); ++i) threads_.emplace_back(&s_chunk_reader::fetch_loop, this);
    } catch (...) {
      stop();
      throw;
    }
  }
  ~s_chunk_reader() { stop(); }
  s_chunk_reader(const s_chunk_reader&) = delete;
  s_chunk_reader& operator=(const s_chunk_reader&) = delete;

  // The next chunk, or null when it cannot be read.
  s_value next() {
    if (threads_.empty()) return s_get(next_to_take_++);
    std::unique_lock<std::mutex> lock(mu_);
    cv_.wait(lock, [&] { return fetched_[next_to_take_]; });
    s_value entry = std::move(entries_[next_to_take_++]);
    lock.unlock();
    cv_.notify_all();
    return entry;
  }

 private:
  static constexpr size_t kReaders = 4;
  static constexpr size_t kReadAhead = 8;

  s_value s_get(size_t index) const { return s_get_entry(nc_, kv_, s_chunk_key(key_, index)); }

  void fetch_loop() {
    for (;;) {
      size_t index = 0;
      {
        std::unique_lock<std::mutex> lock(mu_);
        cv_.wait(lock, [&] { return stop_ || next_to_fetch_ >= chunks_ || next_to_fetch_ < next_to_take_ + kReadAhead; });
        if (stop_ || next_to_fetch_ >= chunks_) return;
        index = next_to_fetch_++;
      }
      s_value entry = s_get(index);
      {
        std::lock_guard<std::mutex> guard(mu_);
        entries_[index] = std::move(entry);
        fetched_[index] = true;
      }
      cv_.notify_all();
    }
  }

  void stop() {
    {
      std::lock_guard<std::mutex> guard(mu_);
      stop_ = true;
    }
    cv_.notify_all();
    for (std::thread& t : threads_) t.join();
    threads_.clear();
  }

  natsConnection* nc_;
  kvStore* kv_;
  const std::string key_;
  const size_t chunks_;
  std::mutex mu_;
  std::condition_variable cv_;
  std::vector<s_value> entries_;
  std::vector<bool> fetched_;
  size_t next_to_fetch_ = 0;
  size_t next_to_take_ = 0;
  bool stop_ = false;
  std::vector<std::thread> threads_;
};

// ---- Streamed uploads -----------------------------------------------------------------

}  // namespace

// A payload staged while it arrives: the open chunk fills in memory, full chunks go out
// asynchronously with at most `window` awaiting their acknowledgement, and the manifest
// only at finish(). Whatever was published is deleted by remove(), at the latest when the
// object goes.
struct gw_relay_upload {
  gw_relay_upload(gw_nats_relay& r, std::string k, size_t window)
      : relay(r), key(std::move(k)), pipeline(r.conn.get(), static_cast<int64_t>(std::max<size_t>(window, 1))) {
    const int64_t ttl_ms = gw_kv_ttl_ms_for(std::max(relay.relay_max_timeout_ms, relay.relay_timeout_ms));
    if (!s_gw_msg_ttl_unsupported.load()) ttl = std::to_string(ttl_ms) + "ms";
  }
  ~gw_relay_upload() { remove(); }
  gw_relay_upload(const gw_relay_upload&) = delete;
  gw_relay_upload& operator=(const gw_relay_upload&) = delete;

  int write(const char* data, size_t len) {
    if (failed) return -1;
    while (len > 0) {
      if (open_chunk.capacity() < GW_KV_CHUNK_SIZE) open_chunk.reserve(GW_KV_CHUNK_SIZE);
      const size_t take = std::min(len, GW_KV_CHUNK_SIZE - open_chunk.size());
      open_chunk.append(data, take);
      data += take;
      len -= take;
      size += take;
      if (open_chunk.size() == GW_KV_CHUNK_SIZE && !publish_open_chunk()) return -1;
    }
    return 0;
  }

  // The last chunk, every acknowledgement, then the manifest.
  bool finish() {
    if (failed || (!open_chunk.empty() && !publish_open_chunk())) return false;
    const std::string refused = pipeline.finish();
    if (!refused.empty()) {
      log_error("nats_relay: js_PublishAsyncComplete failed for key=%s: %s", key.c_str(), log_safe(refused).c_str());
      return false;
    }
    const natsStatus s = s_put_manifest(pipeline.js(), relay.kv.get(), key, s_manifest_text(chunks, size), ttl);
    if (s != NATS_OK) {
      log_error("nats_relay: metadata publish (%s) failed: %s%s", key.c_str(), natsStatus_GetText(s),
                s_last_error_suffix().c_str());
      return false;
    }
    log_trace("nats_relay: kv put key=%s chunks=%d total_size=%zu (streamed)", key.c_str(), static_cast<int>(chunks),
              size);
    broker_metrics_count_staged_bytes(size);
    return true;
  }

  void remove() {
    if (chunks == 0 && !failed) return;
    pipeline.finish();  // deletes go after every chunk
    kvstore_delete_chunks(relay.conn.get(), relay.kv.get(), key.c_str(), chunks + (failed ? 1 : 0));
    chunks = 0;
    failed = false;
  }

  gw_nats_relay& relay;
  const std::string key;
  std::string ttl;  // the per-message TTL header's value; empty: the bucket's TTL
  s_pipeline pipeline;
  std::string open_chunk;
  size_t chunks = 0;  // published so far
  size_t size = 0;    // bytes written so far
  bool failed = false;

 private:
  // The first chunk goes out synchronously: a stream that refuses per-message TTLs says
  // so there (a JetStream error, not a lost connection), and the chunk is sent again
  // without one while it is still at hand.
  bool publish_open_chunk() {
    const std::string subject = s_kv_subject(relay.kv.get(), s_chunk_key(key, chunks));
    natsStatus s = chunks == 0 ? publish_first(subject)
                               : pipeline.publish(subject, open_chunk.data(), open_chunk.size(),
                                                  ttl.empty() ? nullptr : kTtlHeader, ttl);
    if (s != NATS_OK) {
      log_error("nats_relay: chunk publish (%s) failed: %s%s", subject.c_str(), natsStatus_GetText(s),
                s_last_error_suffix().c_str());
      failed = true;
      return false;
    }
    ++chunks;
    open_chunk.clear();
    return true;
  }

  // A stream whose leader went with a lost node answers nobody until the survivors have
  // elected a new one (seconds): the first chunk is sent again until
  // kStagingElectionWaitMs has passed, so that a node's loss does not fail every upload
  // begun meanwhile.
  natsStatus publish_first(const std::string& subject) {
    const int64_t deadline_ms = qm::monotonic_ms() + kStagingElectionWaitMs;
    for (int64_t pause_ms = 50;; pause_ms = std::min<int64_t>(pause_ms * 2, 1000)) {
      jsErrCode jerr = static_cast<jsErrCode>(0);
      const natsStatus s = publish_first_once(subject, &jerr);
      if (s == NATS_OK || !s_stream_unavailable(s, jerr) || qm::monotonic_ms() + pause_ms > deadline_ms) return s;
      log_debug("nats_relay: stream of key=%s unavailable (%s); first chunk sent again in %lld ms", key.c_str(),
                natsStatus_GetText(s), static_cast<long long>(pause_ms));
      qm::sleep_ms(pause_ms);
    }
  }

  natsStatus publish_first_once(const std::string& subject, jsErrCode* out_jerr) {
    jsErrCode& jerr = *out_jerr;
    natsStatus s = publish_sync(subject, &jerr);
    if (s != NATS_OK && jerr != 0 && !s_stream_unavailable(s, jerr) && !ttl.empty()) {
      log_warn("nats_relay: per-message TTL write for key=%s failed; falling back to bucket TTL. Ensure the KV stream "
               "has AllowMsgTTL.",
               key.c_str());
      s_gw_msg_ttl_unsupported.store(true);
      ttl.clear();
      s = publish_sync(subject, &jerr);
    }
    return s;
  }

  natsStatus publish_sync(const std::string& subject, jsErrCode* jerr) {
    qm::nats_msg_ptr msg = s_pipeline::s_new_msg(subject, open_chunk.data(), open_chunk.size(),
                                                 ttl.empty() ? nullptr : kTtlHeader, ttl);
    if (!msg || !pipeline.js()) return NATS_NO_MEMORY;
    jsPubAck* raw_ack = nullptr;
    const natsStatus s = js_PublishMsg(&raw_ack, pipeline.js(), msg.get(), nullptr, jerr);
    qm::js_pub_ack_ptr ack(raw_ack);
    return s;
  }
};

namespace {

// ---- The exchange ------------------------------------------------------------------------

// A payload staged for one request, deleted when the request ends, whichever way.
class s_staged_payload {
 public:
  s_staged_payload(natsConnection* nc, kvStore* kv) : nc_(nc), kv_(kv) {}
  ~s_staged_payload() { remove(); }
  s_staged_payload(const s_staged_payload&) = delete;
  s_staged_payload& operator=(const s_staged_payload&) = delete;

  void hold(const std::string& key, size_t num_chunks) {
    key_ = key;
    num_chunks_ = num_chunks;
  }
  void remove() {
    if (key_.empty()) return;
    kvstore_delete_chunks(nc_, kv_, key_.c_str(), num_chunks_);
    key_.clear();
  }

 private:
  natsConnection* nc_;
  kvStore* kv_;
  std::string key_;
  size_t num_chunks_ = 0;
};

// Stages the payload under `key`, three tries in all.
bool s_stage(gw_nats_relay& relay, const char* subject, const char* key, const char* data, size_t data_len,
             int64_t ttl_ms) {
  for (int attempt = 1; attempt <= kStagingAttempts; ++attempt) {
    if (attempt > 1) {
      log_debug("nats_relay: KV staging retry %d/%d for %s (key %s)", attempt - 1, kStagingAttempts - 1,
                log_safe(subject).c_str(), key);
      qm::sleep_ms(kStagingRetryPauseMs);
    }
    if (kvstore_put_chunked(relay.conn.get(), relay.kv.get(), key, data, data_len, ttl_ms) == 0) return true;
  }
  log_warn("nats_relay: KV staging of %zu bytes for %s failed after %d attempts \u2014 failing the request", data_len,
           log_safe(subject).c_str(), kStagingAttempts);
  return false;
}

// The request text with "_kv_key" added, or nullopt when request_json is not a JSON object.
std::optional<std::string> s_with_kv_key(const char* request_json, const char* key) {
  qm::json_ptr doc = s_parse_object(request_json);
  if (!doc) return std::nullopt;
  json_object_object_add(doc.get(), "_kv_key", json_object_new_string(key));
  return s_serialise(doc.get());
}

// ---- Waiting for a reply past a lost worker ----------------------------------------------
// A worker that scans for a while says so: messages with the progress header on the reply
// subject, about every second. One that has said so and then falls silent for
// kWorkerSilenceMs is taken as lost (killed, or cut off with its node), and the request
// goes out once more within what is left of the wait, instead of the caller waiting it all.
constexpr const char* kProgressHeader = "QM-Progress";
constexpr int64_t kWorkerSilenceMs = 3000;
constexpr int kLostWorkerResends = 1;

// The reply for w before deadline_ms (monotonic), progress messages skipped.
// worker_lost: the time-out came from a worker that fell silent, not from the deadline.
natsStatus s_await_reply(gw_reply_mux::waiter& w, int64_t deadline_ms, qm::nats_msg_ptr& reply, bool& worker_lost) {
  worker_lost = false;
  bool heard_progress = false;
  for (;;) {
    const int64_t left = deadline_ms - qm::monotonic_ms();
    if (left <= 0) return NATS_TIMEOUT;
    qm::nats_msg_ptr msg;
    const natsStatus s = gw_reply_mux::next(w, heard_progress ? std::min(left, kWorkerSilenceMs) : left, msg);
    if (s == NATS_TIMEOUT) {
      worker_lost = heard_progress && qm::monotonic_ms() < deadline_ms;
      if (worker_lost) return s;
      continue;
    }
    if (s != NATS_OK) return s;
    if (natsMsg_IsNoResponders(msg.get())) return NATS_NO_RESPONDERS;
    const char* progress = nullptr;
    if (natsMsgHeader_Get(msg.get(), kProgressHeader, &progress) == NATS_OK) {
      heard_progress = true;
      continue;
    }
    reply = std::move(msg);
    return NATS_OK;
  }
}

// A reply subject below the gateway's own prefix, which no client grant may read.
std::string s_gateway_inbox() {
  natsInbox* raw = nullptr;
  if (natsInbox_Create(&raw) != NATS_OK) return {};
  const qm::c_ptr<natsInbox, natsInbox_Destroy> inbox(raw);
  const std::string text(inbox.get());
  const size_t dot = text.find('.');
  return std::string(AUTH_GATEWAY_INBOX_PREFIX) + (dot == std::string::npos ? "." + text : text.substr(dot));
}

// One core request; its reply subject is registered before the request goes out.
natsStatus s_core_attempt(gw_nats_relay& relay, const char* subject, const std::string& json, int64_t timeout_ms,
                          qm::nats_msg_ptr& reply, bool& worker_lost) {
  worker_lost = false;
  auto [reply_subject, waiter] = relay.replies.add();
  natsStatus s = natsConnection_PublishRequest(relay.conn.get(), subject, reply_subject.c_str(), json.data(),
                                               static_cast<int>(json.size()));
  if (s == NATS_OK) s = s_await_reply(*waiter, qm::monotonic_ms() + timeout_ms, reply, worker_lost);
  relay.replies.release(reply_subject);
  return s;
}

void s_log_lost_worker(const char* subject, unsigned long left_ms) {
  log_warn("nats_relay: the worker serving %s fell silent for %lldms \u2014 sending the request once more (%lums of "
           "the wait left)",
           log_safe(subject).c_str(), static_cast<long long>(kWorkerSilenceMs), left_ms);
}

unsigned long s_wait_left(int64_t started_ms, unsigned long wait_ms) {
  const int64_t used = qm::monotonic_ms() - started_ms;
  return used >= static_cast<int64_t>(wait_ms) ? 0 : wait_ms - static_cast<unsigned long>(used);
}

natsStatus gw_core_request(gw_nats_relay& relay, const char* subject, const std::string& json, unsigned long wait_ms,
                           qm::nats_msg_ptr& reply) {
  if (json.size() > INT_MAX) return NATS_INVALID_ARG;
  const int64_t started_ms = qm::monotonic_ms();
  int resends = 0;
  qm_nats_nr_state_t retry;
  qm_nats_nr_init(&retry);
  for (;;) {
    const unsigned long left = s_wait_left(started_ms, wait_ms);
    bool worker_lost = false;
    const natsStatus s =
        s_core_attempt(relay, subject, json, std::min<int64_t>(qm_nats_nr_attempt_timeout_ms(&retry, wait_ms), left),
                       reply, worker_lost);
    if (worker_lost && resends < kLostWorkerResends && s_wait_left(started_ms, wait_ms) > 0) {
      ++resends;
      s_log_lost_worker(subject, s_wait_left(started_ms, wait_ms));
      reply.reset();
      continue;
    }
    if (s == NATS_OK || !gw_status_is_transient(s) || !qm_nats_nr_should_retry(&retry, wait_ms, subject)) return s;
    reply.reset();
  }
}

// One attempt of the work-queue route: the reply inbox is subscribed before the job is
// published, so that no reply can come too early.
natsStatus gw_js_publish_and_wait(gw_nats_relay& relay, const char* subject, const std::string& envelope,
                                  const char* reqid, const char* reply_inbox, int64_t timeout_ms,
                                  qm::nats_msg_ptr& reply, bool& published) {
  published = false;
  if (envelope.size() > INT_MAX) return NATS_INVALID_ARG;
  natsSubscription* raw_sub = nullptr;
  natsStatus s = natsConnection_SubscribeSync(&raw_sub, relay.conn.get(), reply_inbox);
  qm::nats_subscription_ptr sub(raw_sub);
  if (s != NATS_OK) {
    const std::string detail = s_last_error_suffix();
    log_warn("nats_relay: JS reply-inbox subscribe failed for %s: %s%s", log_safe(subject).c_str(),
             natsStatus_GetText(s), detail.c_str());
    return s;
  }
  char wq_subject[kWqSubjectSize];
  qm_nats_wq_subject(subject, wq_subject, sizeof wq_subject);
  jsPubOptions opts;
  jsPubOptions_Init(&opts);
  opts.MsgId = reqid;  // the stream drops a second copy of the same job
  jsPubAck* raw_ack = nullptr;
  jsErrCode jerr = static_cast<jsErrCode>(0);
  s = js_Publish(&raw_ack, relay.js.get(), wq_subject, envelope.data(), static_cast<int>(envelope.size()), &opts,
                 &jerr);
  qm::js_pub_ack_ptr ack(raw_ack);
  if (s != NATS_OK) {
    const std::string detail = s_last_error_suffix();
    log_warn("nats_relay: JS publish to '%s' failed: %s%s (jerr=%d)", log_safe(wq_subject).c_str(),
             natsStatus_GetText(s), detail.c_str(), static_cast<int>(jerr));
  } else {
    published = true;
    natsMsg* raw = nullptr;
    s = natsSubscription_NextMsg(&raw, sub.get(), timeout_ms);
    reply.reset(raw);
  }
  natsSubscription_Unsubscribe(sub.get());
  return s;
}

// The work-queue route with retries for a job that could not be published; a published
// job is never published again, whatever its wait then gives.
natsStatus s_js_exchange(gw_nats_relay& relay, const char* subject, const std::string& envelope, const char* reqid,
                         const char* inbox, unsigned long wait_ms, qm::nats_msg_ptr& reply, bool& published) {
  qm_nats_nr_state_t retry;
  qm_nats_nr_init(&retry);
  for (;;) {
    const natsStatus s = gw_js_publish_and_wait(relay, subject, envelope, reqid, inbox,
                                                qm_nats_nr_attempt_timeout_ms(&retry, wait_ms), reply, published);
    if (published || s == NATS_OK || !gw_status_is_transient(s) ||
        !qm_nats_nr_should_retry(&retry, wait_ms, subject)) {
      return s;
    }
    reply.reset();
  }
}

struct s_js_envelope {
  qm::malloc_ptr<char> reqid;
  qm::c_ptr<natsInbox, natsInbox_Destroy> inbox;
  std::string text;
};

// The job for the work queue: the send text with "_reqid" and "_reply_subj". nullopt
// when a part cannot be made; `text` stays empty when the serialisation gives nothing.
std::optional<s_js_envelope> s_build_envelope(const std::string& send_text) {
  s_js_envelope envelope;
  envelope.reqid.reset(generate_unique_key());
  natsInbox* raw_inbox = nullptr;
  if (natsInbox_Create(&raw_inbox) == NATS_OK) envelope.inbox.reset(raw_inbox);
  qm::json_ptr doc = s_parse_object(send_text.c_str(), send_text.size());
  if (!envelope.reqid || !envelope.inbox || !doc) return std::nullopt;
  json_object_object_add(doc.get(), "_reqid", json_object_new_string(envelope.reqid.get()));
  json_object_object_add(doc.get(), "_reply_subj", json_object_new_string(envelope.inbox.get()));
  envelope.text = s_serialise(doc.get());
  return envelope;
}

void s_warn_wait_beyond_ackwait(const gw_nats_relay& relay, const char* subject, unsigned long wait) {
  if (relay.js_ackwait_ms == 0 || wait <= relay.js_ackwait_ms) return;
  if (s_gw_warned_budget_vs_ackwait.exchange(true)) return;
  log_warn("nats_relay: scan budget for %s allows %lums but the JetStream work queue's AckWait is %lums \u2014 jobs "
           "running longer than AckWait get redelivered to another worker mid-scan. Raise --js-ackwait-ms above the "
           "largest expected scan.",
           log_safe(subject).c_str(), wait, static_cast<unsigned long>(relay.js_ackwait_ms));
}

// Sends send_text by the route the subject's service uses; -1 (logged) when no JetStream
// envelope can be made.
int s_exchange(gw_nats_relay& relay, const char* subject, const std::string& send_text, unsigned long wait,
               qm::nats_msg_ptr& reply, natsStatus& status) {
  if (gw_service_uses_js(&relay, subject)) {
    std::optional<s_js_envelope> envelope = s_build_envelope(send_text);
    if (!envelope) {
      log_error("nats_relay: failed to build JS envelope for %s", log_safe(subject).c_str());
      return -1;
    }
    if (envelope->text.empty()) {
      log_warn("nats_relay: could not build the JS envelope for %s \u2014 using core request/reply",
               log_safe(subject).c_str());
    } else {
      log_debug("nats_relay: %s -> JS work queue (jobs.%s), reqid=%s", log_safe(subject).c_str(),
                log_safe(subject).c_str(), envelope->reqid.get());
      s_warn_wait_beyond_ackwait(relay, subject, wait);
      bool published = false;
      status = s_js_exchange(relay, subject, envelope->text, envelope->reqid.get(), envelope->inbox.get(), wait,
                             reply, published);
      if (status == NATS_OK || published) return 0;
      log_warn("nats_relay: JS work queue unusable for %s (%s) and the job never entered it \u2014 falling back to "
               "core request/reply",
               log_safe(subject).c_str(), natsStatus_GetText(status));
    }
  }
  status = gw_core_request(relay, subject, send_text, wait, reply);
  return 0;
}

// False only when the JSON text cannot name `key`: it holds neither the key's text nor an
// escape that could spell it. Most requests and replies then skip a parse.
bool s_may_hold_key(const char* json, const char* key) {
  return strstr(json, key) != nullptr || strstr(json, "\\u") != nullptr;
}

// The payload a reply names by "_kv_key", read and then deleted; nothing when there is
// none or it cannot be read. False when the reply's manifest was refused: the reply as a
// whole is then not trusted.
bool s_take_reply_payload(gw_nats_relay& relay, const char* reply_json, char** reply_data, size_t* reply_data_len) {
  if (!s_may_hold_key(reply_json, "\"_kv_key\"")) return true;
  std::string named;
  const int named_rc = gw_reply_payload_key(reply_json, named);
  if (named_rc == 0) return true;
  if (named_rc < 0) {
    log_warn("nats_relay: reply names an invalid payload key '%s' \u2014 refusing the reply", log_safe(named).c_str());
    return false;
  }
  const char* key = named.c_str();
  const int rc = kvstore_get_chunked(relay.conn.get(), relay.kv.get(), key, relay.max_payload_bytes, reply_data, reply_data_len);
  if (rc == -1) log_debug("nats_relay: reply payload '%s' unreadable \u2014 returning the reply without it", key);
  if (rc == 0) broker_metrics_count_fetched_bytes(*reply_data_len);
  // A refused manifest's chunk count is not trusted for deleting either: only the
  // manifest goes, the bucket's TTL removes whatever chunks there are.
  if (rc == -2)
    kvstore_delete_chunks(relay.conn.get(), relay.kv.get(), key, 0);
  else
    kvstore_delete_chunked(relay.conn.get(), relay.kv.get(), key);
  return rc != -2;
}

// Sends send_text and takes the reply apart. `answered` runs once the worker has replied
// (its staged payload may go then). -1 on failure (logged), kRelayTimedOut on a time-out.
int s_send_and_take_reply(gw_nats_relay& relay, const char* subject, const std::string& send_text,
                          unsigned long wait, uint64_t scan_budget_ms, const std::string& key,
                          const std::function<void()>& answered, char** reply_json, char** reply_data,
                          size_t* reply_data_len) {
  qm::nats_msg_ptr reply;
  natsStatus status = NATS_OK;
  if (s_exchange(relay, subject, send_text, wait, reply, status) != 0) return -1;
  const char* key_text = key.empty() ? "(none)" : key.c_str();
  if (status != NATS_OK) {
    const std::string detail = s_last_error_suffix();
    log_warn("nats_relay: request to %s failed: %s%s (waited %lums, SCANTIMEOUT=%lums, kv_key=%s)",
             log_safe(subject).c_str(), natsStatus_GetText(status), detail.c_str(), wait,
             static_cast<unsigned long>(scan_budget_ms), key_text);
    return status == NATS_TIMEOUT ? kRelayTimedOut : -1;
  }
  log_trace("nats_relay: request OK subject=%s kv_key=%s", log_safe(subject).c_str(), key_text);
  answered();
  const int body_len = natsMsg_GetDataLength(reply.get());
  if (body_len > 0) {
    qm::malloc_ptr<char> body = s_copy_bytes(natsMsg_GetData(reply.get()), static_cast<size_t>(body_len));
    if (!body) return -1;
    *reply_json = body.release();
  }
  if (*reply_json != nullptr && reply_data != nullptr && reply_data_len != nullptr &&
      !s_take_reply_payload(relay, *reply_json, reply_data, reply_data_len)) {
    free(*reply_json);
    *reply_json = nullptr;
    return -1;
  }
  return 0;
}

int s_request(gw_nats_relay& relay, const char* caller, const char* subject, const char* request_json,
              const char* data, size_t data_len, unsigned long timeout_ms, char** reply_json, char** reply_data,
              size_t* reply_data_len) {
  const bool has_payload = data != nullptr && data_len > 0;
  uint64_t scan_budget_ms = 0;
  const unsigned long wait = gw_effective_relay_timeout_ms(&relay, subject, request_json, has_payload ? data_len : 0,
                                                           timeout_ms, &scan_budget_ms);
  s_staged_payload staged(relay.conn.get(), relay.kv.get());
  std::string key;
  std::string send_text;
  if (has_payload) {
    key = gw_staged_key('c', caller);
    if (key.empty()) return -1;
    staged.hold(key.c_str(), gw_kv_num_chunks(data_len));
    const int64_t ttl_ms = gw_kv_ttl_ms_for(std::max<uint64_t>(wait, scan_budget_ms));
    if (!s_stage(relay, subject, key.c_str(), data, data_len, ttl_ms)) return -1;
    broker_metrics_count_staged_bytes(data_len);
    std::optional<std::string> with_key = s_with_kv_key(request_json, key.c_str());
    if (!with_key) return -1;
    send_text = std::move(*with_key);
  } else {
    send_text = request_json;
  }
  return s_send_and_take_reply(relay, subject, send_text, wait, scan_budget_ms, key, [&] { staged.remove(); },
                               reply_json, reply_data, reply_data_len);
}

qm::nats_options_ptr s_build_options(const gw_config_t& cfg) {
  qm::nats_options_ptr opts = qm_nats_request_options();
  if (!opts) return nullptr;
  if (natsOptions_SetURL(opts.get(), qm::cstr(cfg.nats_url)) != NATS_OK) return nullptr;
  // Replies to the gateway arrive below a prefix that every client grant denies.
  if (natsOptions_SetCustomInboxPrefix(opts.get(), AUTH_GATEWAY_INBOX_PREFIX) != NATS_OK) return nullptr;
  if (cfg.nats_user && cfg.nats_password &&
      natsOptions_SetUserInfo(opts.get(), cfg.nats_user->c_str(), cfg.nats_password->c_str()) != NATS_OK) {
    return nullptr;
  }
  natsStatus status = NATS_OK;
  const qm_nats_tls_result_t tls =
      qm_nats_apply_tls(opts.get(), cfg.nats_url.value_or(""), qm::cstr(cfg.nats_cert_path), &status);
  if (tls == QM_NATS_TLS_SECURE_FAILED || tls == QM_NATS_TLS_CA_FAILED) return nullptr;
  return opts;
}

void s_set_wait_bounds(gw_nats_relay& relay, const gw_config_t& cfg) {
  relay.relay_timeout_ms = cfg.relay_timeout_ms < 1 ? kDefaultFloorMs : static_cast<uint64_t>(cfg.relay_timeout_ms);
  relay.relay_max_timeout_ms =
      cfg.relay_max_timeout_ms < 1 ? kDefaultCeilingMs : static_cast<uint64_t>(cfg.relay_max_timeout_ms);
  if (relay.relay_max_timeout_ms < relay.relay_timeout_ms) {
    log_warn("nats_relay: --relay-max-timeout-ms (%lums) is below --relay-timeout-ms (%lums); raising the ceiling to "
             "the floor",
             static_cast<unsigned long>(relay.relay_max_timeout_ms), static_cast<unsigned long>(relay.relay_timeout_ms));
    relay.relay_max_timeout_ms = relay.relay_timeout_ms;
  }
  relay.js_ackwait_ms = cfg.js_ackwait_ms < 0 ? 0 : static_cast<uint64_t>(cfg.js_ackwait_ms);
  log_info("nats_relay: reply wait derived from each request's SCANTIMEOUT, bounded to [%lums, %lums]; requests "
           "without a scan budget keep the caller's timeout",
           static_cast<unsigned long>(relay.relay_timeout_ms), static_cast<unsigned long>(relay.relay_max_timeout_ms));
}

void s_on_reconnected(natsConnection*, void* closure) {
  const auto* relay = static_cast<const gw_nats_relay*>(closure);
  void* arg = relay->on_reconnected_arg.load();
  if (void (*fn)(void*) = relay->on_reconnected.load()) fn(arg);
}

std::unique_ptr<gw_nats_relay> s_create(const gw_config_t& cfg) {
  auto relay = std::make_unique<gw_nats_relay>();
  if (qm::has_text(cfg.js_services)) relay->js_services = cfg.js_services;
  relay->max_payload_bytes = cfg.max_msg_size_bytes;
  s_set_wait_bounds(*relay, cfg);
  qm::nats_options_ptr opts = s_build_options(cfg);
  if (!opts || natsOptions_SetReconnectedCB(opts.get(), s_on_reconnected, relay.get()) != NATS_OK) return nullptr;
  const char* url = s_or(qm::cstr(cfg.nats_url), "(default)");
  natsConnection* raw_conn = nullptr;
  natsStatus s = natsConnection_Connect(&raw_conn, opts.get());
  relay->conn.reset(raw_conn);
  if (s != NATS_OK) {
    log_error("nats_relay: connect to %s failed: %s", url, natsStatus_GetText(s));
    return nullptr;
  }
  jsCtx* raw_js = nullptr;
  s = natsConnection_JetStream(&raw_js, relay->conn.get(), nullptr);
  relay->js.reset(raw_js);
  if (s != NATS_OK) {
    log_error("nats_relay: JetStream init failed: %s", natsStatus_GetText(s));
    return nullptr;
  }
  kvStore* raw_kv = nullptr;
  s = js_KeyValue(&raw_kv, relay->js.get(), GW_SCAN_DATA_BUCKET);
  relay->kv.reset(raw_kv);
  if (s != NATS_OK) {
    log_error("nats_relay: KV bucket '%s' bind failed (%s) \u2014 is qm-av-control running and reachable on this NATS?",
              GW_SCAN_DATA_BUCKET, natsStatus_GetText(s));
    return nullptr;
  }
  const std::string reply_prefix = s_gateway_inbox();
  s = reply_prefix.empty() ? NATS_NO_MEMORY : relay->replies.open(relay->conn.get(), reply_prefix);
  if (s != NATS_OK) {
    log_error("nats_relay: reply subscription failed: %s", natsStatus_GetText(s));
    return nullptr;
  }
  log_debug("nats_relay: bound KV bucket '%s'", GW_SCAN_DATA_BUCKET);
  log_info("nats_relay: connected to %s (JetStream+KV ready)", url);
  gw_nats_relay_detect_msg_ttl(relay.get());
  return relay;
}

}  // namespace

// ---- Wait arithmetic and keys ----------------------------------------------------------

void scan_params_from_json(const char* request_json, uint64_t* scan_timeout_ms, uint64_t* bandwidth) {
  uint64_t timeout = 0;
  uint64_t rate = 0;
  const bool may_hold = request_json != nullptr &&
                        (s_may_hold_key(request_json, "SCANTIMEOUT") || s_may_hold_key(request_json, "SCANBANDWIDTH"));
  if (qm::json_ptr doc = may_hold ? s_parse_object(request_json) : nullptr) {
    timeout = s_positive_field(doc.get(), "SCANTIMEOUT");
    rate = s_positive_field(doc.get(), "SCANBANDWIDTH");
  }
  if (scan_timeout_ms != nullptr) *scan_timeout_ms = timeout;
  if (bandwidth != nullptr) *bandwidth = rate;
}

uint64_t gw_transfer_allowance_ms(size_t payload_len, uint64_t bandwidth) {
  if (payload_len == 0 || bandwidth == 0) return 0;
  uint64_t divisor = 0;
  if (__builtin_mul_overflow(bandwidth / 8, uint64_t{1000}, &divisor)) return 0;  // no payload takes that long
  if (divisor == 0) divisor = (bandwidth * 1000) / 8;
  if (divisor == 0) return 0;
  return (payload_len / divisor) * 2;
}

unsigned long gw_relay_wait_ms(const gw_wait_bounds& bounds, const char* subject, const char* request_json,
                               size_t data_len, unsigned long caller_timeout_ms, uint64_t* scan_budget_ms) {
  uint64_t scan_timeout = 0;
  uint64_t bandwidth = 0;
  scan_params_from_json(request_json, &scan_timeout, &bandwidth);
  if (scan_budget_ms != nullptr) *scan_budget_ms = scan_timeout;
  if (scan_timeout == 0) return caller_timeout_ms;
  uint64_t wait =
      s_saturating_add(s_saturating_add(scan_timeout, gw_transfer_allowance_ms(data_len, bandwidth)), kWaitMarginMs);
  wait = std::max<uint64_t>(wait, bounds.floor_ms);
  if (wait > bounds.ceiling_ms) {
    if (!s_gw_warned_budget_clamped.exchange(true)) {
      log_warn("nats_relay: request to %s asks for %lums (SCANTIMEOUT=%lums + transfer) but the relay ceiling is "
               "%lums \u2014 clamping, so scans longer than that will fail with a gateway timeout even though the "
               "worker is still scanning. Raise --relay-max-timeout-ms to at least the largest SCANTIMEOUT in use.",
               log_safe(subject).c_str(), static_cast<unsigned long>(wait), static_cast<unsigned long>(scan_timeout),
               bounds.ceiling_ms);
    }
    wait = bounds.ceiling_ms;
  }
  log_trace("nats_relay: %s wait=%lums (SCANTIMEOUT=%lums, bandwidth=%lu, payload=%zu, caller=%lums)",
            log_safe(subject).c_str(), static_cast<unsigned long>(wait), static_cast<unsigned long>(scan_timeout),
            static_cast<unsigned long>(bandwidth), data_len, caller_timeout_ms);
  return static_cast<unsigned long>(wait);
}

unsigned long gw_effective_relay_timeout_ms(const gw_nats_relay_t* relay, const char* subject,
                                            const char* request_json, size_t data_len, unsigned long caller_timeout_ms,
                                            uint64_t* scan_budget_ms) {
  const gw_wait_bounds bounds{relay != nullptr ? relay->relay_timeout_ms : kDefaultFloorMs,
                              relay != nullptr ? relay->relay_max_timeout_ms : kDefaultCeilingMs};
  return gw_relay_wait_ms(bounds, subject, request_json, data_len, caller_timeout_ms, scan_budget_ms);
}

char* generate_unique_key() {
  // Two calls that read the same clock value still get different keys: each key's time
  // is at least one nanosecond past the previous one's.
  static std::atomic<uint64_t> last_ns{0};
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t read_ns = static_cast<uint64_t>(now.tv_sec) * 1000000000ULL + static_cast<uint64_t>(now.tv_nsec);
  uint64_t previous = last_ns.load();
  uint64_t ns = 0;
  do {
    ns = std::max(read_ns, previous + 1);
  } while (!last_ns.compare_exchange_weak(previous, ns));
  char key[64];
  snprintf(key, sizeof key, "gw-%d-%lx-%lx", static_cast<int>(getpid()), static_cast<unsigned long>(ns / 1000000000ULL),
           static_cast<unsigned long>(ns % 1000000000ULL));
  return strdup(key);
}

std::string gw_staged_key(char owner, const char* user) {
  qm::malloc_ptr<char> unique(generate_unique_key());
  if (!unique) return {};
  if (user == nullptr || *user == '\0') return unique.get();
  const std::string_view name(user);
  const bool fits = name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_=") ==
                    std::string_view::npos;
  if (!fits) return std::string("x.") + unique.get();
  return std::string(1, owner) + "." + std::string(name) + "." + unique.get();
}

int64_t gw_kv_ttl_ms_for(uint64_t timeout_ms) {
  const uint64_t ttl = s_saturating_add(timeout_ms, timeout_ms / 10);
  if (ttl > static_cast<uint64_t>(INT64_MAX)) return INT64_MAX;
  return std::max<int64_t>(static_cast<int64_t>(ttl), kMinTtlMs);
}

// ---- Chunked store API ---------------------------------------------------------------------

size_t gw_kv_num_chunks(size_t data_len) {
  return data_len == 0 ? 1 : (data_len + GW_KV_CHUNK_SIZE - 1) / GW_KV_CHUNK_SIZE;
}

std::optional<gw_kv_manifest> gw_kv_manifest_parse(const char* text, size_t len) {
  qm::json_ptr doc = text != nullptr ? s_parse_object(text, len) : nullptr;
  json_object* chunks = nullptr;
  if (!doc || !json_object_object_get_ex(doc.get(), "chunks", &chunks)) return std::nullopt;
  json_object* size = nullptr;
  gw_kv_manifest manifest;
  manifest.chunks = json_object_get_int(chunks);
  if (json_object_object_get_ex(doc.get(), "size", &size)) manifest.size = json_object_get_int64(size);
  return manifest;
}

const char* gw_kv_manifest_refusal(const gw_kv_manifest& manifest, size_t max_len) {
  if (manifest.size <= 0 || manifest.chunks < 1 || manifest.chunks > kMaxChunks) return "out of range";
  if (max_len != 0 && static_cast<uint64_t>(manifest.size) > max_len) return "larger than --max-msg-size-mb";
  if (gw_kv_num_chunks(static_cast<size_t>(manifest.size)) != static_cast<size_t>(manifest.chunks))
    return "not the chunk count of its size";
  return nullptr;
}

int gw_reply_payload_key(const char* reply_json, std::string& key) {
  qm::json_ptr doc = s_parse_object(reply_json);
  const char* named = doc ? s_string_field(doc.get(), "_kv_key") : nullptr;
  if (named == nullptr) return 0;
  key = named;
  return gw_subject_is_publishable((std::string("$KV.") + GW_SCAN_DATA_BUCKET + "." + key).c_str()) ? 1 : -1;
}

int kvstore_put_chunked(natsConnection* nc, kvStore* kv, const char* key, const char* data, size_t data_len,
                        int64_t ttl_ms) {
  if (nc == nullptr || kv == nullptr || key == nullptr || (data == nullptr && data_len > 0)) return -1;
  const size_t num_chunks = gw_kv_num_chunks(data_len);
  if (ttl_ms > 0 && !s_gw_msg_ttl_unsupported.load()) {
    if (gw_kv_put_chunks(nc, kv, key, data, data_len, num_chunks, ttl_ms) == 0) {
      log_trace("nats_relay: kv put key=%s chunks=%d total_size=%zu ttl=%lldms (pipelined)", key,
                static_cast<int>(num_chunks), data_len, static_cast<long long>(ttl_ms));
      return 0;
    }
    log_warn("nats_relay: per-message TTL write for key=%s failed; falling back to bucket TTL. Ensure the KV stream "
             "has AllowMsgTTL.",
             key);
    s_gw_msg_ttl_unsupported.store(true);
  }
  if (gw_kv_put_chunks(nc, kv, key, data, data_len, num_chunks, 0) != 0) return -1;
  log_trace("nats_relay: kv put key=%s chunks=%d total_size=%zu (pipelined)", key, static_cast<int>(num_chunks),
            data_len);
  return 0;
}

int kvstore_get_chunked(natsConnection* nc, kvStore* kv, const char* key, size_t max_len, char** out_data,
                        size_t* out_len) {
  if (out_data != nullptr) *out_data = nullptr;
  if (out_len != nullptr) *out_len = 0;
  if (kv == nullptr || key == nullptr || out_data == nullptr || out_len == nullptr) return -1;
  const std::optional<gw_kv_manifest> manifest = s_read_manifest(nc, kv, key);
  if (!manifest) return -1;
  if (!s_manifest_fits(nc, kv, key, *manifest, max_len)) return -2;
  const size_t size = static_cast<size_t>(manifest->size);
  const size_t num_chunks = static_cast<size_t>(manifest->chunks);
  try {
    qm::malloc_ptr<char> buffer(static_cast<char*>(calloc(size, 1)));
    if (!buffer) return -1;
    s_chunk_reader reader(nc, kv, key, num_chunks);
    size_t filled = 0;
    for (size_t i = 0; i < num_chunks; ++i) {
      const s_value chunk = reader.next();
      if (!chunk) return -1;
      const size_t len = chunk.size();
      if (len > size - filled) return -1;
      if (len > 0) memcpy(buffer.get() + filled, chunk.data(), len);
      filled += len;
    }
    *out_data = buffer.release();
    *out_len = size;
    return 0;
  } catch (const std::exception& e) {
    log_error("nats_relay: reading key=%s failed: %s", key, e.what());
    return -1;
  }
}

void kvstore_delete_chunks(natsConnection* nc, kvStore* kv, const char* key, size_t num_chunks) {
  if (nc == nullptr || kv == nullptr || key == nullptr) return;
  // Delete markers, pipelined like the chunks they replace.
  s_pipeline pipeline(nc);
  for (size_t i = 0; i <= num_chunks; ++i) {
    const std::string entry = i < num_chunks ? s_chunk_key(key, i) : std::string(key);
    if (pipeline.publish(s_kv_subject(kv, entry), nullptr, 0, "KV-Operation", "DEL") != NATS_OK) {
      kvStore_Delete(kv, entry.c_str());
    }
  }
  pipeline.finish();
}

void kvstore_delete_chunked(natsConnection* nc, kvStore* kv, const char* key) {
  if (kv == nullptr || key == nullptr) return;
  const std::optional<gw_kv_manifest> manifest = s_read_manifest(nc, kv, key);
  const bool trusted = manifest && manifest->chunks > 0 && manifest->chunks <= kMaxChunks;
  kvstore_delete_chunks(nc, kv, key, trusted ? static_cast<size_t>(manifest->chunks) : 0);
}

void gw_nats_relay_detect_msg_ttl(gw_nats_relay_t* relay) {
  if (relay == nullptr || !relay->conn) return;
  const int supported = broker_kv_msg_ttl_supported(relay->conn.get(), GW_SCAN_DATA_BUCKET);
  if (supported < 0) return;  // unknown: a refused write still turns it off
  const bool was_off = s_gw_msg_ttl_unsupported.exchange(supported == 0);
  if (supported == 0 && !was_off) {
    log_warn("nats_relay: the stream of bucket '%s' keeps no per-message TTL (nats-server 2.11 or newer has it); "
             "staged payloads a crash leaves behind expire by the bucket's TTL",
             GW_SCAN_DATA_BUCKET);
  } else if (supported == 1 && was_off) {
    log_info("nats_relay: per-message TTL available again on bucket '%s'", GW_SCAN_DATA_BUCKET);
  }
}

bool gw_nats_relay_msg_ttl_unsupported() { return s_gw_msg_ttl_unsupported.load(); }

void gw_nats_relay_reset_once_flags() {
  s_gw_msg_ttl_unsupported.store(false);
  s_gw_warned_budget_clamped.store(false);
  s_gw_warned_budget_vs_ackwait.store(false);
}

// ---- Relay API -------------------------------------------------------------------------------

gw_nats_relay_t* gw_nats_relay_create(const gw_config_t* cfg) {
  if (cfg == nullptr) return nullptr;
  try {
    return s_create(*cfg).release();
  } catch (const std::exception& e) {
    log_error("nats_relay: %s", e.what());
    return nullptr;
  }
}

void gw_nats_relay_destroy(gw_nats_relay_t* relay) { std::unique_ptr<gw_nats_relay> owned(relay); }

void gw_nats_relay_abort(gw_nats_relay_t* relay) {
  if (relay == nullptr || !relay->conn) return;
  log_warn("nats_relay: closing the connection with requests still waiting \u2014 they fail now");
  natsConnection_Close(relay->conn.get());
  relay->replies.end_all();
}

unsigned long gw_nats_relay_default_timeout_ms(const gw_nats_relay_t* relay) {
  return relay != nullptr ? static_cast<unsigned long>(relay->relay_timeout_ms) : 0;
}

namespace {

// The outputs cleared, then whether a request may go out at all: its arguments present and
// its subject one the relay may publish to (a refusal is logged).
bool s_request_admissible(const gw_nats_relay_t* relay, const char* subject, const char* request_json,
                          char** reply_json, char** reply_data, size_t* reply_data_len) {
  if (reply_json != nullptr) *reply_json = nullptr;
  if (reply_data != nullptr) *reply_data = nullptr;
  if (reply_data_len != nullptr) *reply_data_len = 0;
  if (relay == nullptr || subject == nullptr || request_json == nullptr || reply_json == nullptr) return false;
  if (!gw_subject_is_publishable(subject)) {
    log_warn("nats_relay: refusing to publish to invalid subject '%s'", log_safe(subject).c_str());
    return false;
  }
  return true;
}

}  // namespace

int gw_nats_relay_request(gw_nats_relay_t* relay, const char* subject, const char* request_json, const char* data,
                          size_t data_len, unsigned long timeout_ms, char** reply_json, char** reply_data,
                          size_t* reply_data_len) {
  return gw_nats_relay_request_ex(relay, nullptr, subject, request_json, data, data_len, timeout_ms, reply_json,
                                  reply_data, reply_data_len);
}

int gw_nats_relay_request_ex(gw_nats_relay_t* relay, const char* caller, const char* subject,
                             const char* request_json, const char* data, size_t data_len, unsigned long timeout_ms,
                             char** reply_json, char** reply_data, size_t* reply_data_len) {
  if (!s_request_admissible(relay, subject, request_json, reply_json, reply_data, reply_data_len)) return -1;
  const int64_t started = broker_metrics_now();
  int rc = -1;
  try {
    rc = s_request(*relay, caller, subject, request_json, data, data_len, timeout_ms, reply_json, reply_data,
                   reply_data_len);
  } catch (const std::exception& e) {
    log_error("nats_relay: request to %s failed: %s", log_safe(subject).c_str(), e.what());
  }
  const bool js = gw_service_uses_js(relay, subject);
  const bool timed_out = rc == kRelayTimedOut;
  broker_metrics_count_relay(js ? BROKER_METRICS_ROUTE_JETSTREAM : BROKER_METRICS_ROUTE_CORE,
                             rc == 0 ? BROKER_METRICS_RELAY_OK
                                     : (timed_out ? BROKER_METRICS_RELAY_TIMEOUT : BROKER_METRICS_RELAY_ERROR),
                             started);
  return rc == 0 ? 0 : -1;
}

bool gw_nats_relay_connected(const gw_nats_relay_t* relay) {
  return relay != nullptr && relay->conn && natsConnection_Status(relay->conn.get()) == NATS_CONN_STATUS_CONNECTED;
}

void gw_nats_relay_on_reconnected(gw_nats_relay_t* relay, void (*fn)(void*), void* arg) {
  if (relay == nullptr) return;
  relay->on_reconnected_arg.store(arg);
  relay->on_reconnected.store(fn);
}

void gw_nats_relay_retry_msg_ttl() { s_gw_msg_ttl_unsupported.store(false); }

bool gw_service_uses_js(const gw_nats_relay_t* relay, const char* service) {
  return relay != nullptr && qm_nats_wq_service_in_csv(qm::cstr(relay->js_services), service) == 1;
}


bool gw_status_is_transient(natsStatus s) {
#ifdef QM_NATS_HAS_LIMIT_REACHED
  if (s == NATS_LIMIT_REACHED) return true;
#endif
  return s == NATS_NO_RESPONDERS || s == NATS_CONNECTION_DISCONNECTED;
}

// ---- Streamed uploads API ---------------------------------------------------------------------

gw_relay_upload* gw_nats_relay_upload_begin(gw_nats_relay_t* relay, const char* caller, size_t window_chunks) {
  if (relay == nullptr) return nullptr;
  try {
    std::string key = gw_staged_key('c', caller);
    if (key.empty()) return nullptr;
    auto upload = std::make_unique<gw_relay_upload>(*relay, std::move(key), window_chunks);
    if (!upload->pipeline.js()) return nullptr;
    return upload.release();
  } catch (const std::exception& e) {
    log_error("nats_relay: upload: %s", e.what());
    return nullptr;
  }
}

int gw_relay_upload_write(gw_relay_upload* upload, const char* data, size_t len) {
  if (upload == nullptr || (data == nullptr && len > 0)) return -1;
  try {
    return upload->write(data, len);
  } catch (const std::exception& e) {
    log_error("nats_relay: upload of key=%s: %s", upload->key.c_str(), e.what());
    upload->failed = true;
    return -1;
  }
}

size_t gw_relay_upload_size(const gw_relay_upload* upload) { return upload != nullptr ? upload->size : 0; }

void gw_relay_upload_destroy(gw_relay_upload* upload) { std::unique_ptr<gw_relay_upload> owned(upload); }

int gw_nats_relay_request_upload(gw_nats_relay_t* relay, const char* subject, const char* request_json,
                                 gw_relay_upload* upload, unsigned long timeout_ms, char** reply_json,
                                 char** reply_data, size_t* reply_data_len) {
  if (upload == nullptr || upload->size == 0)
    return gw_nats_relay_request(relay, subject, request_json, nullptr, 0, timeout_ms, reply_json, reply_data,
                                 reply_data_len);
  if (!s_request_admissible(relay, subject, request_json, reply_json, reply_data, reply_data_len)) return -1;
  const int64_t started = broker_metrics_now();
  int rc = -1;
  try {
    uint64_t scan_budget_ms = 0;
    const unsigned long wait =
        gw_effective_relay_timeout_ms(relay, subject, request_json, upload->size, timeout_ms, &scan_budget_ms);
    std::optional<std::string> send_text = s_with_kv_key(request_json, upload->key.c_str());
    if (send_text && upload->finish()) {
      rc = s_send_and_take_reply(*relay, subject, *send_text, wait, scan_budget_ms, upload->key,
                                 [&] { upload->remove(); }, reply_json, reply_data, reply_data_len);
    }
  } catch (const std::exception& e) {
    log_error("nats_relay: request to %s failed: %s", log_safe(subject).c_str(), e.what());
  }
  upload->remove();  // the worker has it, or the request failed: either way it goes now
  const bool js = gw_service_uses_js(relay, subject);
  broker_metrics_count_relay(js ? BROKER_METRICS_ROUTE_JETSTREAM : BROKER_METRICS_ROUTE_CORE,
                             rc == 0 ? BROKER_METRICS_RELAY_OK
                                     : (rc == kRelayTimedOut ? BROKER_METRICS_RELAY_TIMEOUT : BROKER_METRICS_RELAY_ERROR),
                             started);
  return rc == 0 ? 0 : -1;
}
