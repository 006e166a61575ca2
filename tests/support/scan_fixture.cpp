#include "scan_fixture.hpp"

#include "qm_nats_conn.hpp"

#include <json-c/json.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "broker_kv_bootstrap.hpp"
#include "gw_nats_relay_internal.hpp"
#include "log.hpp"

namespace qmtest {

using namespace std::chrono_literals;

std::string scan_worker_binary() { return QM_SCAN_WORKER_BINARY; }

namespace {

// Every connection without credentials goes into the fleet account QM_FLEET as the gateway user.
std::string s_fleet_account_config() {
  return "accounts {\n  QM_FLEET {\n    jetstream: enabled\n    users: [ { user: \"qm-gateway\", password: "
         "\"gateway-secret\" } ]\n  }\n}\nno_auth_user: \"qm-gateway\"\n";
}

}  // namespace

ScanWorker::ScanWorker(const std::string& url, const std::string& service, bool work_queue, int tracelevel,
                       const std::string& user, const std::string& password) {
  // Below info level the worker would not say that it is ready.
  std::vector<std::string> argv = {scan_worker_binary(), "--nats-url", url, "--service", service, "--tracelevel",
                                   std::to_string(std::max(tracelevel, static_cast<int>(QMLOG_INFO)))};
  if (work_queue) argv.emplace_back("--work-queue");
  if (!user.empty()) argv.insert(argv.end(), {"--user", user, "--password", password});
  child_ = std::make_unique<Child>(argv);
  const bool up = wait_until([&] { return !child_->running() || log().find("qm-scan-worker: ready") != std::string::npos; }, 30s);
  if (!up || !child_->running()) throw std::runtime_error("scan worker did not come up:\n" + log());
}

ScanEnv::ScanEnv(ScanEnvOptions options)
    : work_services_(options.work_services), server_(NatsServerOptions{true, s_fleet_account_config(), 0}) {
  broker_workqueue_opts wq;
  wq.work_services = work_services_.c_str();
  wq.ackwait_ns = static_cast<int64_t>(options.ackwait_ms) * 1000000;
  wq.maxdeliver = 3;
  if (broker_kv_bootstrap(url().c_str(), nullptr, nullptr, nullptr, 1, true, true, &wq) != 0) {
    throw std::runtime_error("KV bootstrap failed against " + url());
  }
  natsConnection* raw_nc = nullptr;
  // The direct baseline of the benchmarks: requests written at once, as the relay does.
  qm::nats_options_ptr opts = qm_nats_request_options();
  if (!opts || natsOptions_SetURL(opts.get(), url().c_str()) != NATS_OK ||
      natsConnection_Connect(&raw_nc, opts.get()) != NATS_OK) {
    throw std::runtime_error("connect " + url());
  }
  nc_.reset(raw_nc);
  jsCtx* raw_js = nullptr;
  kvStore* raw_kv = nullptr;
  if (natsConnection_JetStream(&raw_js, nc_.get(), nullptr) != NATS_OK) throw std::runtime_error("jetstream");
  js_.reset(raw_js);
  if (js_KeyValue(&raw_kv, js_.get(), GW_SCAN_DATA_BUCKET) != NATS_OK) throw std::runtime_error("scan-data bucket");
  kv_.reset(raw_kv);
}

ScanWorker& ScanEnv::start_worker(const std::string& service, bool work_queue, int tracelevel) {
  workers_.push_back(std::make_unique<ScanWorker>(url(), service, work_queue, tracelevel));
  return *workers_.back();
}

gw_config_t ScanEnv::relay_config() const {
  gw_config_t cfg;
  cfg.nats_url = url();
  if (!work_services_.empty()) cfg.js_services = work_services_;
  return cfg;
}

relay_ptr ScanEnv::make_relay(const std::function<void(gw_config_t&)>& tweak) const {
  gw_config_t cfg = relay_config();
  if (tweak) tweak(cfg);
  relay_ptr relay(gw_nats_relay_create(&cfg));
  if (!relay) throw std::runtime_error("relay did not connect to " + url());
  return relay;
}

// Listed through the stream in one bounded request, then each key read back to leave out
// deleted ones: a KV watcher over entries that expire while it reads can wait for ever.
std::vector<std::string> ScanEnv::bucket_keys() { return scan_data_keys(nc_.get()); }

std::vector<std::string> scan_data_keys(natsConnection* nc) {
  jsOptions opts;
  jsOptions_Init(&opts);
  opts.Wait = 10000;
  opts.Stream.Info.SubjectsFilter = ">";
  jsCtx* raw_js = nullptr;
  if (natsConnection_JetStream(&raw_js, nc, &opts) != NATS_OK) return {"<no listing>"};
  qm::js_ctx_ptr js(raw_js);
  kvStore* raw_kv = nullptr;
  if (js_KeyValue(&raw_kv, js.get(), GW_SCAN_DATA_BUCKET) != NATS_OK) return {"<no listing>"};
  qm::kv_store_ptr kv(raw_kv);
  jsStreamInfo* raw = nullptr;
  const std::string stream = std::string("KV_") + GW_SCAN_DATA_BUCKET;
  if (js_GetStreamInfo(&raw, js.get(), stream.c_str(), &opts, nullptr) != NATS_OK) return {"<no listing>"};
  qm::js_stream_info_ptr info(raw);
  const size_t prefix = std::string("$KV.").size() + strlen(GW_SCAN_DATA_BUCKET) + 1;
  std::vector<std::string> keys;
  for (int i = 0; info->State.Subjects != nullptr && i < info->State.Subjects->Count; ++i) {
    const std::string key = std::string(info->State.Subjects->List[i].Subject).substr(prefix);
    kvEntry* raw_entry = nullptr;
    const natsStatus found = kvStore_Get(&raw_entry, kv.get(), key.c_str());
    qm::kv_entry_ptr entry(raw_entry);
    if (found == NATS_OK) keys.push_back(key);
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

std::string ScanEnv::js_api(const std::string& subject, const std::string& body) {
  return request(nc_.get(), subject, body);
}

namespace {

json_object* s_config_of(json_object* doc) {
  json_object* config = nullptr;
  return doc != nullptr && json_object_object_get_ex(doc, "config", &config) ? config : nullptr;
}

}  // namespace

// Through the JetStream API as JSON: the client library's configuration would drop the
// fields it does not know (such as the per-message TTL switch), and the update would fail.
bool ScanEnv::update_stream_field(const std::string& stream, const std::string& field, const std::string& json_value) {
  qm::json_ptr info(json_tokener_parse(js_api("$JS.API.STREAM.INFO." + stream).c_str()));
  json_object* config = s_config_of(info.get());
  if (config == nullptr) return false;
  json_object_object_add(config, field.c_str(), json_tokener_parse(json_value.c_str()));
  qm::json_ptr reply(json_tokener_parse(js_api("$JS.API.STREAM.UPDATE." + stream, json_object_to_json_string(config)).c_str()));
  return s_config_of(reply.get()) != nullptr;
}

Responder::Responder(natsConnection* nc, const char* subject, std::function<std::string()> answer)
    : answer_(std::move(answer)) {
  natsSubscription* raw = nullptr;
  const natsStatus subscribed = natsConnection_Subscribe(&raw, nc, subject, s_on_request, this);
  sub_.reset(raw);
  if (subscribed != NATS_OK || natsConnection_Flush(nc) != NATS_OK)
    throw std::runtime_error(std::string("cannot answer ") + subject);
}

// A handler still running would touch a destroyed responder: drain before going.
Responder::~Responder() {
  if (natsSubscription_Drain(sub_.get()) == NATS_OK) natsSubscription_WaitForDrainCompletion(sub_.get(), 5000);
}

void Responder::s_on_request(natsConnection* nc, natsSubscription*, natsMsg* msg, void* self) {
  qm::nats_msg_ptr owned(msg);
  const std::string answer = static_cast<Responder*>(self)->answer_();
  natsConnection_Publish(nc, natsMsg_GetReply(msg), answer.data(), static_cast<int>(answer.size()));
}

RelayReply relay_request(gw_nats_relay_t* relay, const std::string& subject, const std::string& request_json,
                         const std::string& payload, unsigned long timeout_ms) {
  RelayReply result;
  char* json = nullptr;
  char* data = nullptr;
  size_t data_len = 0;
  result.rc = gw_nats_relay_request(relay, subject.c_str(), request_json.c_str(),
                                    payload.empty() ? nullptr : payload.data(), payload.size(), timeout_ms, &json,
                                    &data, &data_len);
  qm::malloc_ptr<char> owned_json(json);
  qm::malloc_ptr<char> owned_data(data);
  result.has_json = json != nullptr;
  if (json != nullptr) result.json = json;
  result.has_data = data != nullptr;
  if (data != nullptr) result.data.assign(data, data_len);
  return result;
}

std::string test_payload(size_t size) {
  std::string bytes(size, '\0');
  uint32_t state = 0x9e3779b9u;
  for (size_t i = 0; i < size; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    bytes[i] = static_cast<char>(state >> 24);
  }
  return bytes;
}

std::string sha256_hex(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int len = 0;
  EVP_Digest(data.data(), data.size(), digest, &len, EVP_sha256(), nullptr);
  static const char* const kHex = "0123456789abcdef";
  std::string hex;
  for (unsigned int i = 0; i < len; ++i) {
    hex += kHex[digest[i] >> 4];
    hex += kHex[digest[i] & 15];
  }
  return hex;
}

std::string json_member(const std::string& json, const char* name) {
  qm::json_ptr doc(json_tokener_parse(json.c_str()));
  if (!doc || !json_object_is_type(doc.get(), json_type_object)) return "<bad json>";
  json_object* value = nullptr;
  if (!json_object_object_get_ex(doc.get(), name, &value)) return "<absent>";
  if (json_object_is_type(value, json_type_string))  // all of it, NUL bytes included
    return std::string(json_object_get_string(value), static_cast<size_t>(json_object_get_string_len(value)));
  return json_object_get_string(value);
}

}  // namespace qmtest
