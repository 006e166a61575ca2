#include "gw_amqp_acceptor.hpp"

#include <proton/codec.h>
#include <proton/condition.h>
#include <proton/connection.h>
#include <proton/delivery.h>
#include <proton/event.h>
#include <proton/link.h>
#include <proton/listener.h>
#include <proton/netaddr.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/sasl.h>
#include <proton/session.h>
#include <proton/ssl.h>
#include <proton/terminus.h>
#include <proton/transport.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "broker_metrics.hpp"
#include "gw_amqp_cyrus.hpp"
#include "gw_inflight_budget.hpp"
#include "gw_relay_pool.hpp"
#include "gw_sasl_setup.hpp"
#include "gw_subject_policy.hpp"
#include "log.hpp"
#include "qm_handles.hpp"
#include "qmhlp_network.hpp"

namespace {

constexpr pn_millis_t kIdleTimeoutMs = 60000;
constexpr uint32_t kMaxFrameBytes = 131072;
constexpr int kInitialCredit = 10;
constexpr int kDefaultMaxConnections = 1024;
constexpr int kDefaultHandshakeTimeoutMs = 10000;
constexpr int kDefaultMaxInflight = 32;
constexpr size_t kDiscardChunk = 16384;
constexpr size_t kMinEncodeBuffer = 4096;
constexpr int kDefaultRelayWorkers = 4;
constexpr const char kReplyTag[] = "reply";

using steady_clock = std::chrono::steady_clock;

// An encoded reply waiting for its client's sender link, or for credit on it. It keeps
// its request's in-flight slot, so that a client that takes no replies sends no more.
struct pending_reply_t {
  std::string reply_to;
  std::vector<char> bytes;
  pn_link_t* request_link = nullptr;  // where the slot's credit goes back once it is sent
  qm::inflight_bytes held;            // its bytes, counted against the doors' budget
};

// Lets a budget release, on whatever thread it happens, wake the event loop when some
// connection waits for bytes to be freed; outlives the acceptor if a release races its end.
struct budget_waker {
  std::mutex mu;
  pn_proactor_t* proactor = nullptr;  // NULL once the acceptor is going
  std::atomic<bool> waiting{false};

  void on_release() {
    if (!waiting.exchange(false)) return;
    std::lock_guard<std::mutex> lock(mu);
    if (proactor != nullptr) pn_proactor_interrupt(proactor);
  }
};

using relay_pool_ptr = qm::c_ptr<gw_relay_pool_t, gw_relay_pool_destroy>;
using sasl_steps_ptr = qm::c_ptr<gw_amqp_cyrus_steps_t, gw_amqp_cyrus_steps_destroy>;

// Password checks running at once, off the event loop; each may wait seconds for the
// auth service.
constexpr int kSaslStepThreads = 4;

}  // namespace

struct gw_amqp_acceptor {
  const gw_config_t* cfg = nullptr;
  gw_nats_relay_t* relay = nullptr;
  const auth_profile_store_t* profiles = nullptr;
  relay_pool_ptr relay_pool;
  qm::opt_string sasl_config_dir;
  qm::pn_proactor_ptr proactor;
  std::atomic<int> running{1};
  std::atomic<int> not_accepting{0};
  std::atomic<bool> listening{false};  // between the listener's open and close events
  // Named in synthetic error replies and announced by Cyrus; resolved once, since the
  // host-name helpers are not thread-safe.
  std::string host_fqdn;
  bool own_cyrus_binding = false;
  sasl_steps_ptr sasl_steps;  // with the gateway's own Cyrus binding only
  // Listeners and connections still open; the final drain waits for them.
  int live_endpoints = 0;
  // Requests submitted to the relay whose reply has not yet been handed on; read by an
  // update's drain from another thread.
  std::atomic<size_t> inflight{0};

  // Limits, resolved from the configuration at create.
  int max_connections = kDefaultMaxConnections;
  int handshake_timeout_ms = kDefaultHandshakeTimeoutMs;
  int max_inflight = kDefaultMaxInflight;
  gw_inflight_budget* budget = nullptr;  // not owned; NULL: no budget
  std::shared_ptr<budget_waker> waker;

  // Connections with a context, by serial; event-loop thread only, like everything below.
  std::unordered_map<uint64_t, pn_connection_t*> live;
  uint64_t next_serial = 0;
  // Handshake deadlines in accept order (so in time order) and whether the proactor's one
  // timer is set for the first of them.
  std::deque<std::pair<steady_clock::time_point, uint64_t>> handshake_deadlines;
  bool timer_armed = false;
  // Connections owed credit that the budget holds back, woken when bytes are freed.
  std::vector<uint64_t> awaiting_budget;
  int64_t last_refusal_log_s = -1;  // the per-second limits of two lines a flood would repeat
  int64_t last_deadline_log_s = -1;
};

namespace {

// One per accepted connection, attached as the connection's context.
struct conn_context_t {
  gw_amqp_acceptor* acc = nullptr;
  qm::opt_string username;
  bool authenticated = false;
  // The client's permission profile (NULL: the built-in permissions); false when its
  // login named a profile this broker does not know, and then nothing is relayed.
  const auth_profile_t* profile = nullptr;
  bool profile_known = true;
  std::vector<char> recv_buf;  // reserved: complete deliveries are read in one piece
  std::list<pending_reply_t> pending_replies;  // the newest first
  gw_relay_conn_handle_t* relay_handle = nullptr;
  size_t inflight = 0;  // this connection's share of gw_amqp_acceptor::inflight
  uint64_t serial = 0;
  steady_clock::time_point handshake_deadline;
  // Credit due to receiver links that the budget holds back for now.
  std::unordered_map<pn_link_t*, int> owed;
  bool awaiting_budget = false;
  std::string last_address;  // and the policy's verdict on it
  std::optional<gw_target> last_admitted;
};

conn_context_t* s_context(pn_connection_t* c) {
  return c != nullptr ? static_cast<conn_context_t*>(pn_connection_get_context(c)) : nullptr;
}

const char* s_user_or(const conn_context_t* ctx, const char* fallback) {
  return ctx != nullptr && ctx->username ? ctx->username->c_str() : fallback;
}

bool s_tls_configured(const gw_config_t& cfg) { return qm::has_text(cfg.amqp_tls_cert) && qm::has_text(cfg.amqp_tls_key); }

void s_close_transport(pn_transport_t* t) {
  pn_transport_close_tail(t);
  pn_transport_close_head(t);
}

std::string s_bytes_text(pn_bytes_t b) { return b.start != nullptr ? std::string(b.start, b.size) : std::string(); }

// At most one line a second for what a flood of clients would repeat per connection.
bool s_log_now(int64_t& last_s) {
  const int64_t now_s = std::chrono::duration_cast<std::chrono::seconds>(steady_clock::now().time_since_epoch()).count();
  if (now_s == last_s) return false;
  last_s = now_s;
  return true;
}

// ---- credit -------------------------------------------------------------------------
// A connection's receiver links hold at most max_inflight credits less the requests it
// has in flight, and a request's credit comes back to its link only when its reply has
// gone out (or none is owed). Credit the budget holds back is owed until bytes are freed.

constexpr pn_state_t kOpenBothEnds = PN_LOCAL_ACTIVE | PN_REMOTE_ACTIVE;

pn_connection_t* s_link_connection(pn_link_t* link) { return pn_session_connection(pn_link_session(link)); }

bool s_is_open_receiver(pn_connection_t* conn, pn_link_t* link) {
  for (pn_link_t* l = pn_link_head(conn, PN_LOCAL_ACTIVE); l != nullptr; l = pn_link_next(l, PN_LOCAL_ACTIVE)) {
    if (l == link) return pn_link_is_receiver(l) && (pn_link_state(l) & kOpenBothEnds) == kOpenBothEnds;
  }
  return false;
}

int s_free_slots(const conn_context_t& ctx, pn_connection_t* conn) {
  int64_t taken = static_cast<int64_t>(ctx.inflight);
  for (pn_link_t* l = pn_link_head(conn, PN_LOCAL_ACTIVE); l != nullptr; l = pn_link_next(l, PN_LOCAL_ACTIVE)) {
    if (pn_link_is_receiver(l)) taken += std::max(0, pn_link_credit(l));
  }
  for (const auto& [link, n] : ctx.owed) taken += n;
  return static_cast<int>(std::max<int64_t>(0, ctx.acc->max_inflight - taken));
}

void s_await_budget(gw_amqp_acceptor& acc, conn_context_t& ctx) {
  if (!ctx.awaiting_budget) {
    ctx.awaiting_budget = true;
    acc.awaiting_budget.push_back(ctx.serial);
  }
  acc.waker->waiting.store(true);
}

// Grants what is owed, unless the budget is spent: then the connection waits for a release.
void s_top_up(conn_context_t& ctx, pn_connection_t* conn) {
  if (ctx.owed.empty()) return;
  gw_amqp_acceptor& acc = *ctx.acc;
  if (gw_inflight_budget_spent(acc.budget)) {
    s_await_budget(acc, ctx);
    // A release between the check and the registration found nobody waiting: look again.
    if (gw_inflight_budget_spent(acc.budget)) return;
  }
  for (const auto& [link, n] : ctx.owed) {
    if (s_is_open_receiver(conn, link)) pn_link_flow(link, n);
  }
  ctx.owed.clear();
}

void s_give_credit(conn_context_t& ctx, pn_connection_t* conn, pn_link_t* link, int wanted) {
  const int n = std::min(wanted, s_free_slots(ctx, conn));
  if (n <= 0) return;
  ctx.owed[link] += n;
  s_top_up(ctx, conn);
}

// A link to give a freed slot to when the request's own link has closed: the first open
// receiver without credit, so that a link opened while the cap was taken is not starved.
pn_link_t* s_starved_receiver(pn_connection_t* conn) {
  for (pn_link_t* l = pn_link_head(conn, PN_LOCAL_ACTIVE); l != nullptr; l = pn_link_next(l, PN_LOCAL_ACTIVE)) {
    if (pn_link_is_receiver(l) && (pn_link_state(l) & kOpenBothEnds) == kOpenBothEnds && pn_link_credit(l) == 0)
      return l;
  }
  return nullptr;
}

// A request's slot is free again: its reply went out, or none is owed.
void s_finish_request(conn_context_t& ctx, pn_connection_t* conn, pn_link_t* request_link) {
  if (ctx.inflight > 0) {
    --ctx.inflight;
    --ctx.acc->inflight;
  }
  pn_link_t* target = request_link != nullptr && s_is_open_receiver(conn, request_link) ? request_link
                                                                                         : s_starved_receiver(conn);
  if (target != nullptr) s_give_credit(ctx, conn, target, 1);
}

// ---- replies ----------------------------------------------------------------------

// The address replies for this sender link go to: its local source, else its remote one.
const char* sender_link_reply_address(pn_link_t* link) {
  const char* local = pn_terminus_get_address(pn_link_source(link));
  if (local != nullptr && *local != '\0') return local;
  const char* remote = pn_terminus_get_address(pn_link_remote_source(link));
  return remote != nullptr && *remote != '\0' ? remote : nullptr;
}

pn_link_t* find_sender_for_address(pn_connection_t* conn, const std::string& reply_to) {
  for (pn_link_t* link = pn_link_head(conn, 0); link != nullptr; link = pn_link_next(link, 0)) {
    if (!pn_link_is_sender(link) || (pn_link_state(link) & kOpenBothEnds) != kOpenBothEnds) continue;
    const char* address = sender_link_reply_address(link);
    if (address != nullptr && reply_to == address) return link;
  }
  return nullptr;
}

// One pre-settled delivery: the client owes no disposition for a reply.
void s_send_presettled(pn_link_t* link, const std::vector<char>& bytes) {
  pn_delivery_t* d = pn_delivery(link, pn_dtag(kReplyTag, sizeof kReplyTag - 1));
  pn_link_send(link, bytes.data(), bytes.size());
  pn_link_advance(link);
  pn_delivery_settle(d);
}

void flush_pending_replies(conn_context_t& ctx, pn_link_t* link) {
  const char* address = sender_link_reply_address(link);
  if (address == nullptr) return;
  pn_connection_t* conn = s_link_connection(link);
  for (auto it = ctx.pending_replies.begin(); it != ctx.pending_replies.end();) {
    if (pn_link_credit(link) < 1) break;
    if (it->reply_to != address) {
      ++it;
      continue;
    }
    s_send_presettled(link, it->bytes);
    log_trace("amqp_acceptor: flushed queued reply on link to '%s' (%zu bytes)", log_safe(address).c_str(),
              it->bytes.size());
    pn_link_t* request_link = it->request_link;
    it = ctx.pending_replies.erase(it);
    s_finish_request(ctx, conn, request_link);
  }
}

// Encodes msg into a buffer that starts at max(hint, 4096) bytes and doubles on each
// failure, never beyond cap (0: no cap). Empty on failure (logged).
std::vector<char> encode_reply_grow(pn_message_t* msg, size_t hint, size_t cap) {
  size_t size = std::max(hint, kMinEncodeBuffer);
  if (cap != 0) size = std::min(size, cap);
  std::vector<char> buffer;
  for (;;) {
    try {
      buffer.resize(size);
    } catch (const std::bad_alloc&) {
      log_error("amqp_acceptor: OOM allocating %zu-byte reply encode buffer", size);
      return {};
    }
    size_t len = buffer.size();
    const int rc = pn_message_encode(msg, buffer.data(), &len);
    if (rc == 0) {
      buffer.resize(len);
      return buffer;
    }
    if (cap != 0 && size >= cap) {
      log_error("amqp_acceptor: reply encode failed at max buffer size %zu (rc=%d)", size, rc);
      return {};
    }
    const size_t grown = cap != 0 ? std::min(size * 2, cap) : size * 2;
    if (grown <= size) {
      log_error("amqp_acceptor: reply encode failed and buffer can't grow further (cap=%zu)", cap);
      return {};
    }
    size = grown;
  }
}

// The reply: a fresh message id, `to` the request's reply_to, the request's message id as
// correlation id, and an array of strings: the reply JSON, then the reply data if any.
qm::pn_message_ptr s_build_reply(const std::string& reply_to, std::string_view json, const char* data,
                                 size_t data_len, const pn_atom_t& cid) {
  qm::pn_message_ptr msg(pn_message());
  if (!msg) return msg;
  char id[128];
  gw_unique_id("gw-reply", id, sizeof id);
  pn_atom_t id_atom{};
  id_atom.type = PN_STRING;
  id_atom.u.as_bytes = pn_bytes(strlen(id), id);
  pn_message_set_id(msg.get(), id_atom);
  pn_message_set_address(msg.get(), reply_to.c_str());
  if (cid.type != PN_NULL) pn_message_set_correlation_id(msg.get(), cid);
  pn_data_t* body = pn_message_body(msg.get());
  pn_data_put_array(body, false, PN_STRING);
  pn_data_enter(body);
  pn_data_put_string(body, pn_bytes(json.size(), json.data()));
  if (data != nullptr) pn_data_put_string(body, pn_bytes(data_len, data));
  pn_data_exit(body);
  return msg;
}

// True when queued. Its bytes are already in memory: they count against the budget even
// past its limit, so that no new credit is granted until they are gone.
bool s_queue_reply(conn_context_t& ctx, const std::string& reply_to, std::vector<char> bytes,
                   pn_link_t* request_link) {
  gw_inflight_budget* budget = ctx.acc->budget;
  const size_t size = bytes.size();
  try {
    ctx.pending_replies.push_front(pending_reply_t{reply_to, std::move(bytes), request_link, {}});
  } catch (const std::bad_alloc&) {
    log_error("amqp_acceptor: OOM queueing reply for '%s'", log_safe(reply_to).c_str());
    return false;
  }
  if (budget != nullptr) {
    gw_inflight_budget_charge(budget, size);
    ctx.pending_replies.front().held = qm::inflight_bytes(budget, size);
  }
  log_trace("amqp_acceptor: queued reply for '%s' (%zu bytes) \u2014 waiting for receiver link credit",
            log_safe(reply_to).c_str(), ctx.pending_replies.front().bytes.size());
  return true;
}

// Sends the reply at once, or queues it holding its request's slot: true when queued.
bool dispatch_reply(conn_context_t& ctx, pn_connection_t* conn, const qm::opt_string& reply_to, const char* json,
                    const char* data, size_t data_len, const pn_atom_t& cid, pn_link_t* request_link) {
  if (!qm::has_text(reply_to) || json == nullptr) return false;
  const std::string_view json_text(json);
  const size_t n = json_text.size() + (data != nullptr ? data_len : 0);
  const size_t hint = n + n / 2 + 4096;
  qm::pn_message_ptr msg = s_build_reply(*reply_to, json_text, data, data_len, cid);
  if (!msg) {
    log_error("amqp_acceptor: pn_message() OOM building reply for '%s'", log_safe(*reply_to).c_str());
    return false;
  }
  std::vector<char> bytes = encode_reply_grow(msg.get(), hint, ctx.acc->cfg->max_msg_size_bytes);
  if (bytes.empty()) {
    log_warn("amqp_acceptor: failed to encode reply for '%s'", log_safe(*reply_to).c_str());
    return false;
  }
  pn_link_t* link = find_sender_for_address(conn, *reply_to);
  if (link != nullptr && pn_link_credit(link) > 0) {
    s_send_presettled(link, bytes);
    log_trace("amqp_acceptor: reply sent on existing link to '%s' (%zu bytes)", log_safe(*reply_to).c_str(),
              bytes.size());
    return false;
  }
  return s_queue_reply(ctx, *reply_to, std::move(bytes), request_link);
}

const char* s_subject_or(const gw_relay_job_t& job, const char* fallback) {
  return job.address.empty() ? fallback : job.address.c_str();
}

// True when the reply waits in the queue, holding the job's slot.
bool s_reply_to_job(conn_context_t& ctx, pn_connection_t* conn, gw_relay_job_t& job) {
  const char* user = s_user_or(&ctx, "(anon)");
  if (job.rc == 0 && job.reply_json) {
    log_trace("amqp_acceptor: relay returned subject=%s reply_json_len=%zu reply_data_len=%zu",
              log_safe(s_subject_or(job, "(null)")).c_str(), strlen(job.reply_json.get()), job.reply_data_len);
    return dispatch_reply(ctx, conn, job.reply_to, job.reply_json.get(), job.reply_data.get(), job.reply_data_len,
                          job.cid_atom, job.link);
  }
  if (!qm::has_text(job.reply_to)) {
    log_warn("amqp_acceptor: relay job failed user=%s subject=%s (rc=%d, no reply_to)", log_safe(user).c_str(),
             log_safe(s_subject_or(job, "(null)")).c_str(), job.rc);
    return false;
  }
  const std::string& host = ctx.acc->host_fqdn;
  std::string error_json;
  try {
    error_json = "{\"ReturnCode\":-1000,\"Error\":\"gateway " + (host.empty() ? std::string("(unknown host)") : host) +
                 ": relay to " + s_subject_or(job, "(unknown)") + " failed (rc=" + std::to_string(job.rc) + ")\"}";
  } catch (const std::bad_alloc&) {
    log_error("amqp_acceptor: OOM building error reply for '%s' \u2014 client will time out ",
              log_safe(*job.reply_to).c_str());
    return false;
  }
  log_warn("amqp_acceptor: relay job failed user=%s subject=%s (rc=%d) \u2014 sending synthetic SCAN_ERROR reply to %s",
           log_safe(user).c_str(), log_safe(s_subject_or(job, "(unknown)")).c_str(), job.rc,
           log_safe(*job.reply_to).c_str());
  return dispatch_reply(ctx, conn, job.reply_to, error_json.c_str(), nullptr, 0, job.cid_atom, job.link);
}

void handle_completed_jobs(conn_context_t& ctx, pn_connection_t* conn) {
  gw_relay_job_t* job = gw_relay_conn_handle_drain(ctx.relay_handle);
  while (job != nullptr) {
    gw_relay_job_t* next = job->next;
    job->next = nullptr;
    const bool queued = s_reply_to_job(ctx, conn, *job);
    pn_link_t* request_link = job->link;
    gw_relay_job_free(job);  // its request bytes go back to the budget before credit is weighed
    if (!queued) s_finish_request(ctx, conn, request_link);
    job = next;
  }
}

// ---- deliveries ---------------------------------------------------------------------

void s_settle(pn_delivery_t* d, uint64_t outcome) {
  broker_metrics_count_amqp_message(outcome == PN_ACCEPTED);
  pn_delivery_update(d, outcome);
  pn_delivery_settle(d);
}

// Rejects with an error condition the client can read.
void s_reject(pn_delivery_t* d, const char* condition, const char* description) {
  pn_condition_t* cond = pn_disposition_condition(pn_delivery_local(d));
  pn_condition_set_name(cond, condition);
  pn_condition_set_description(cond, description);
  s_settle(d, PN_REJECTED);
}

const char* s_refusal_condition(gw_target_verdict_t verdict) {
  switch (verdict) {
    case GW_TARGET_NOT_OFFERED: return "amqp:not-found";
    case GW_TARGET_FORBIDDEN: return "amqp:unauthorized-access";
    default: return "amqp:invalid-field";
  }
}

// The subject policy's verdict, kept for the connection's last address: a client's
// profile and the allow-list stay as they are while it is connected, and most clients
// send every request to one service.
const gw_target& s_admit(conn_context_t& ctx, const std::string& address, const char* user) {
  if (!ctx.last_admitted || ctx.last_address != address) {
    ctx.last_admitted = gw_subject_policy_admit(address.c_str(), qm::cstr(ctx.acc->cfg->services), ctx.profile, user);
    ctx.last_address = address;
  }
  return *ctx.last_admitted;
}

// Step 11 of a delivery: the job takes over the decoded message, which the payload and a
// string or binary message id point into.
gw_relay_job_t* s_build_job(conn_context_t& ctx, qm::pn_message_ptr& msg, std::string subject, std::string json,
                            pn_bytes_t payload, const char* reply_to, qm::inflight_bytes held) {
  std::unique_ptr<gw_relay_job_t, decltype(&gw_relay_job_free)> job(gw_relay_job_new(), gw_relay_job_free);
  if (!job) {
    log_error("amqp_acceptor: OOM building relay job \u2014 rejecting");
    return nullptr;
  }
  try {
    job->address = std::move(subject);
    job->json_str = std::move(json);
    if (ctx.username) job->user = *ctx.username;
  } catch (const std::bad_alloc&) {
    log_error("amqp_acceptor: OOM building relay job \u2014 rejecting");
    return nullptr;
  }
  try {
    if (reply_to != nullptr) job->reply_to = reply_to;
  } catch (const std::bad_alloc&) {
    log_error("amqp_acceptor: OOM duplicating reply_to \u2014 rejecting");
    return nullptr;
  }
  job->cid_atom = pn_message_get_id(msg.get());
  job->bin_data = payload.size != 0 ? const_cast<char*>(payload.start) : nullptr;
  job->bin_len = payload.size;
  job->incoming_msg_owned = msg.release();
  job->held = std::move(held);
  gw_relay_conn_handle_addref(ctx.relay_handle);
  job->handle = ctx.relay_handle;
  return job.release();
}

// A complete message is in memory already: it is counted even past the budget, which
// then holds back every connection's next credit until bytes are freed.
qm::inflight_bytes s_charge_request(gw_amqp_acceptor& acc, uint64_t bytes) {
  if (acc.budget == nullptr) return {};
  if (!gw_inflight_budget_charge(acc.budget, bytes))
    gw_inflight_budget_note_refusal(acc.budget, BROKER_METRICS_DOOR_AMQP, bytes);
  return qm::inflight_bytes(acc.budget, bytes);
}

// Reads a complete delivery; an empty vector after a failure (logged, delivery settled).
std::vector<char> s_read_whole(pn_delivery_t* d, pn_link_t* link, ssize_t pending) {
  std::vector<char> buffer;
  try {
    buffer.resize(static_cast<size_t>(pending));
  } catch (const std::bad_alloc&) {
    log_error("amqp_acceptor: malloc(%zd) failed for incoming delivery", pending);
    s_settle(d, PN_REJECTED);
    return {};
  }
  const ssize_t received = pn_link_recv(link, buffer.data(), buffer.size());
  if (received != pending) {
    log_warn("amqp_acceptor: short recv %zd of %zd \u2014 rejecting", received, pending);
    s_settle(d, PN_REJECTED);
    return {};
  }
  pn_link_advance(link);
  return buffer;
}

// Marks a delivery whose bytes are read away as they arrive.
char g_discarding_marker;

bool s_discarding(pn_delivery_t* d) { return pn_delivery_get_context(d) == &g_discarding_marker; }

void s_discard_available(pn_link_t* link) {
  char scratch[kDiscardChunk];
  while (pn_link_recv(link, scratch, sizeof scratch) > 0) {
  }
}

// A delivery whose bytes exceed the cap while it is still arriving is read away frame by
// frame, never buffered; once its last frame is in it is rejected and its credit comes
// back, so that the link carries on. It is settled only then: this Proton counts frames
// that arrive for an already settled delivery against the session window for good, and
// a client streaming the rest of a large message would close the window for ever.
void s_discard_oversize(pn_delivery_t* d, pn_link_t* link, ssize_t pending, size_t max) {
  if (!s_discarding(d)) {
    log_warn("amqp_acceptor: rejecting oversize partial delivery (pending=%zd, max=%zu) \u2014 aborting buffering "
             "early",
             pending, max);
    pn_delivery_set_context(d, &g_discarding_marker);
  }
  s_discard_available(link);
  if (pn_delivery_partial(d)) return;
  pn_link_advance(link);
  s_settle(d, PN_REJECTED);
  pn_link_flow(link, 1);
}

void handle_delivery(conn_context_t& ctx, pn_delivery_t* d) {
  pn_link_t* link = pn_delivery_link(d);
  const bool readable = pn_delivery_readable(d);
  const bool partial = pn_delivery_partial(d);
  const ssize_t pending = static_cast<ssize_t>(pn_delivery_pending(d));
  log_trace("handle_delivery: entry readable=%d partial=%d pending=%zd", readable, partial, pending);
  if (!readable) {
    log_trace("handle_delivery: not readable yet \u2014 waiting for more data");
    return;
  }
  const size_t max = ctx.acc->cfg->max_msg_size_bytes;
  if (s_discarding(d)) {
    s_discard_oversize(d, link, pending, max);
    return;
  }
  if (partial) {
    if (max != 0 && static_cast<size_t>(pending) > max) {
      s_discard_oversize(d, link, pending, max);
    } else {
      log_trace("handle_delivery: delivery is partial \u2014 waiting for more frames");
    }
    return;
  }
  if (!ctx.authenticated) {
    log_warn("amqp_acceptor: rejecting delivery on unauthenticated connection");
    s_settle(d, PN_REJECTED);
    return;
  }
  if (pending <= 0 || (max != 0 && static_cast<size_t>(pending) > max)) {
    log_warn("amqp_acceptor: rejecting delivery with pending=%zd (max=%zu)", pending, max);
    s_settle(d, PN_REJECTED);
    return;
  }
  const std::vector<char> bytes = s_read_whole(d, link, pending);
  if (bytes.empty()) return;
  qm::inflight_bytes held = s_charge_request(*ctx.acc, static_cast<uint64_t>(pending));

  qm::pn_message_ptr msg(pn_message());
  if (!msg) {
    log_error("amqp_acceptor: pn_message() OOM");
    s_settle(d, PN_REJECTED);
    return;
  }
  if (pn_message_decode(msg.get(), bytes.data(), bytes.size()) != 0) {
    log_error("amqp_acceptor: message decode failed: %s", pn_error_text(pn_message_error(msg.get())));
    s_settle(d, PN_REJECTED);
    return;
  }
  const char* to = pn_message_get_address(msg.get());
  if (to == nullptr || *to == '\0') to = pn_terminus_get_address(pn_link_remote_target(link));
  if (to == nullptr || *to == '\0') {
    log_warn("amqp_acceptor: delivery has no target address \u2014 rejecting");
    s_settle(d, PN_REJECTED);
    return;
  }
  const std::string address(to);
  log_trace("handle_delivery: decoded address='%s' received=%zd bytes", log_safe(address).c_str(), pending);

  std::string json;
  pn_bytes_t payload{};
  if (!gw_amqp_body_parts(msg.get(), json, payload)) {
    log_warn("amqp_acceptor: could not extract JSON body from delivery on '%s' \u2014 rejecting",
             log_safe(address).c_str());
    s_settle(d, PN_REJECTED);
    return;
  }
  const char* reply_to = pn_message_get_reply_to(msg.get());
  log_trace("handle_delivery: request id type=%d (PN_UUID=%d PN_STRING=%d PN_ULONG=%d PN_NULL=%d)",
            static_cast<int>(pn_message_get_id(msg.get()).type), PN_UUID, PN_STRING, PN_ULONG, PN_NULL);

  const char* user = s_user_or(&ctx, "");
  const gw_target admitted = ctx.profile_known ? s_admit(ctx, address, user) : gw_target{address, GW_TARGET_FORBIDDEN};
  if (admitted.verdict != GW_TARGET_OK) {
    const char* why = gw_target_verdict_text(admitted.verdict);
    log_warn("amqp_acceptor: rejecting delivery to '%s' of user=%s: %s", log_safe(address).c_str(),
             log_safe(user).c_str(), why);
    s_reject(d, s_refusal_condition(admitted.verdict), why);
    return;
  }
  const std::string& subject = admitted.subject;
  if (address != subject) {
    log_trace("amqp_acceptor: subject rewrite '%s' -> '%s'", log_safe(address).c_str(), log_safe(subject).c_str());
  }
  const size_t json_len = json.size();
  const size_t bin_len = payload.size;
  gw_relay_job_t* job = s_build_job(ctx, msg, subject.c_str(), std::move(json), payload, reply_to, std::move(held));
  if (job == nullptr) {
    s_settle(d, PN_REJECTED);
    return;
  }
  job->link = link;
  log_trace("amqp_acceptor: submitting relay user=%s subject=%s json_len=%zu bin_len=%zu reply_to=%s",
            log_safe(s_user_or(&ctx, "(anon)")).c_str(), log_safe(subject).c_str(), json_len, bin_len,
            log_safe(qm::or_text(job->reply_to ? job->reply_to->c_str() : nullptr, "(none)")).c_str());
  if (gw_relay_pool_submit(ctx.acc->relay_pool.get(), job) != 0) {
    log_error("amqp_acceptor: relay pool rejected job \u2014 pool shutting down or OOM");
    s_settle(d, PN_REJECTED);
    return;
  }
  ++ctx.inflight;
  ++ctx.acc->inflight;
  s_settle(d, PN_ACCEPTED);  // its credit comes back with its reply
}

// ---- connections, transports and links ---------------------------------------------

// The proactor has one timer: it is set for the earliest handshake deadline still ahead.
void s_arm_handshake_timer(gw_amqp_acceptor& acc) {
  if (acc.timer_armed || acc.handshake_deadlines.empty()) return;
  const auto wait = std::chrono::ceil<std::chrono::milliseconds>(acc.handshake_deadlines.front().first -
                                                                 steady_clock::now());
  pn_proactor_set_timeout(acc.proactor.get(), static_cast<pn_millis_t>(std::max<int64_t>(0, wait.count())));
  acc.timer_armed = true;
}

// Each connection past its deadline is woken, and checks itself in its own batch.
void s_on_timeout(gw_amqp_acceptor& acc) {
  acc.timer_armed = false;
  const auto now = steady_clock::now();
  while (!acc.handshake_deadlines.empty() && acc.handshake_deadlines.front().first <= now) {
    const auto found = acc.live.find(acc.handshake_deadlines.front().second);
    if (found != acc.live.end()) pn_connection_wake(found->second);
    acc.handshake_deadlines.pop_front();
  }
  s_arm_handshake_timer(acc);
}

// Idle sockets and logins stopped halfway would otherwise hold descriptors for ever.
void s_enforce_handshake_deadline(conn_context_t& ctx, pn_connection_t* conn) {
  if (ctx.authenticated || steady_clock::now() < ctx.handshake_deadline) return;
  pn_transport_t* t = pn_connection_transport(conn);
  if (t == nullptr || pn_transport_closed(t)) return;
  gw_amqp_acceptor& acc = *ctx.acc;
  if (s_log_now(acc.last_deadline_log_s))
    log_warn("amqp_acceptor: closing connection not logged in within %d ms (--amqp-handshake-timeout-ms)",
             acc.handshake_timeout_ms);
  pn_condition_set_name(pn_transport_condition(t), "amqp:resource-limit-exceeded");
  pn_condition_set_description(pn_transport_condition(t), "no login within the handshake deadline");
  s_close_transport(t);
}

// A budget release woke the loop: every connection owed credit looks again.
void s_wake_awaiting_budget(gw_amqp_acceptor& acc) {
  for (uint64_t serial : acc.awaiting_budget) {
    const auto found = acc.live.find(serial);
    if (found == acc.live.end()) continue;
    s_context(found->second)->awaiting_budget = false;
    pn_connection_wake(found->second);
  }
  acc.awaiting_budget.clear();
}

void s_accept(gw_amqp_acceptor& acc, pn_listener_t* listener) {
  pn_connection_t* conn = pn_connection();
  pn_transport_t* transport = pn_transport();
  if (conn == nullptr || transport == nullptr) {
    // The proactor cannot take a half-made pair: give it none and let the peer retry.
    if (conn != nullptr) pn_connection_free(conn);
    if (transport != nullptr) pn_transport_free(transport);
    log_error("amqp_acceptor: out of memory accepting connection");
    return;
  }
  pn_transport_set_server(transport);
  pn_listener_accept2(listener, conn, transport);
  ++acc.live_endpoints;
  broker_metrics_amqp_connection(+1);
  if (acc.not_accepting.load()) {
    log_info("amqp_acceptor: refusing new connection \u2014 broker is draining for auto-update");
    s_close_transport(transport);
    return;
  }
  if (static_cast<int>(acc.live.size()) >= acc.max_connections) {
    if (s_log_now(acc.last_refusal_log_s))
      log_warn("amqp_acceptor: refusing new connection \u2014 %d connections open (--amqp-max-connections)",
               acc.max_connections);
    s_close_transport(transport);
    return;
  }
  std::unique_ptr<conn_context_t> ctx;
  try {
    ctx = std::make_unique<conn_context_t>();
    ctx->relay_handle = gw_relay_conn_handle_new(conn);
    if (ctx->relay_handle == nullptr) throw std::bad_alloc();
    ctx->acc = &acc;
    ctx->serial = ++acc.next_serial;
    ctx->handshake_deadline = steady_clock::now() + std::chrono::milliseconds(acc.handshake_timeout_ms);
    acc.live.emplace(ctx->serial, conn);
    acc.handshake_deadlines.emplace_back(ctx->handshake_deadline, ctx->serial);
  } catch (const std::bad_alloc&) {
    if (ctx) {
      acc.live.erase(ctx->serial);
      gw_relay_conn_handle_release(ctx->relay_handle);
    }
    log_error("amqp_acceptor: out of memory accepting connection");
    s_close_transport(transport);
    return;
  }
  s_arm_handshake_timer(acc);
  pn_connection_set_context(conn, ctx.release());
  log_trace("amqp_acceptor: new inbound connection accepted");
}

bool s_set_up_tls(const gw_config_t& cfg, pn_transport_t* t) {
  qm::pn_ssl_domain_ptr domain(pn_ssl_domain(PN_SSL_MODE_SERVER));
  if (!domain || pn_ssl_domain_set_credentials(domain.get(), cfg.amqp_tls_cert->c_str(), cfg.amqp_tls_key->c_str(),
                                               nullptr) != 0) {
    log_error("amqp_acceptor: cannot load TLS certificate %s and key %s \u2014 closing connection",
              cfg.amqp_tls_cert->c_str(), cfg.amqp_tls_key->c_str());
    return false;
  }
  if (qm::has_text(cfg.amqp_tls_ca) && pn_ssl_domain_set_trusted_ca_db(domain.get(), cfg.amqp_tls_ca->c_str()) != 0) {
    log_error("amqp_acceptor: cannot load TLS CA %s \u2014 closing connection", cfg.amqp_tls_ca->c_str());
    return false;
  }
  return pn_ssl_init(pn_ssl(t), domain.get(), nullptr) == 0;
}

// PN_CONNECTION_BOUND: limits, TLS and SASL, before the transport reads or writes.
void s_set_up_transport(gw_amqp_acceptor& acc, pn_transport_t* t) {
  const gw_config_t& cfg = *acc.cfg;
  pn_transport_set_idle_timeout(t, kIdleTimeoutMs);
  pn_transport_set_max_frame(t, kMaxFrameBytes);
  const bool tls = s_tls_configured(cfg);
  if (tls && !s_set_up_tls(cfg, t)) {
    s_close_transport(t);
    return;
  }
  // Without TLS PLAIN is allowed in clear, because the listener has no TLS at all; with
  // TLS a plain-text client never gets as far as a password check.
  pn_transport_require_auth(t, true);
  pn_sasl_t* sasl = pn_sasl(t);
  pn_sasl_config_name(sasl, GW_SASL_SERVICE_NAME);
  if (acc.sasl_config_dir) pn_sasl_config_path(sasl, acc.sasl_config_dir->c_str());
  pn_sasl_allowed_mechs(sasl, "PLAIN");
  pn_sasl_set_allow_insecure_mechs(sasl, !tls);
  if (acc.own_cyrus_binding && gw_amqp_cyrus_attach(t, acc.host_fqdn.empty() ? nullptr : acc.host_fqdn.c_str(),
                                                     acc.sasl_steps.get()) != 0) {
    log_error("amqp_acceptor: out of memory accepting connection");
    s_close_transport(t);
  }
}

// The profile a login was granted with: the one the auth service named (own Cyrus
// binding), else the one the permissions file gives the user by name.
void s_set_profile(conn_context_t& ctx, pn_transport_t* t, const char* user) {
  const gw_amqp_acceptor& acc = *ctx.acc;
  const char* named = acc.own_cyrus_binding ? gw_amqp_cyrus_granted_profile(t) : nullptr;
  if (named == nullptr) {
    ctx.profile = auth_profile_resolve(acc.profiles, user, nullptr, 0);
    return;
  }
  ctx.profile = *named != '\0' ? auth_profile_find(acc.profiles, named) : nullptr;
  ctx.profile_known = *named == '\0' || ctx.profile != nullptr;
  if (!ctx.profile_known)
    log_error("amqp_acceptor: user '%s' was granted profile '%s', which this broker does not know \u2014 nothing "
              "will be relayed for it",
              log_safe(user).c_str(), log_safe(named).c_str());
}

void s_mark_authenticated(conn_context_t& ctx, pn_transport_t* t, const char* user, pn_sasl_t* sasl,
                          const char* via) {
  ctx.username = user;
  ctx.authenticated = true;
  s_set_profile(ctx, t, user);
  log_info("amqp_acceptor: authenticated user '%s' via %s (%s)", log_safe(user).c_str(),
           log_safe(qm::or_text(pn_sasl_get_mech(sasl), "unknown")).c_str(), via);
}

void s_on_transport_authenticated(pn_event_t* e) {
  pn_transport_t* t = pn_event_transport(e);
  conn_context_t* ctx = s_context(pn_event_connection(e));
  pn_sasl_t* sasl = pn_sasl(t);
  const pn_sasl_outcome_t outcome = pn_sasl_outcome(sasl);
  const char* user = pn_sasl_get_user(sasl);
  if (outcome == PN_SASL_OK && user != nullptr && ctx != nullptr) {
    s_mark_authenticated(*ctx, t, user, sasl, "PN_TRANSPORT_AUTHENTICATED");
    return;
  }
  log_warn("amqp_acceptor: SASL handshake produced outcome=%d user=%s \u2014 rejecting connection",
           static_cast<int>(outcome), log_safe(qm::or_text(user, "(none)")).c_str());
  s_close_transport(t);
}

void s_on_remote_open(pn_event_t* e) {
  conn_context_t* ctx = s_context(pn_event_connection(e));
  if (ctx == nullptr || ctx->authenticated) return;
  pn_transport_t* t = pn_event_transport(e);
  pn_sasl_t* sasl = pn_sasl(t);
  const bool transport_auth = pn_transport_is_authenticated(t);
  const pn_sasl_outcome_t outcome = pn_sasl_outcome(sasl);
  const char* user = pn_sasl_get_user(sasl);
  if (transport_auth && outcome == PN_SASL_OK && user != nullptr) {
    s_mark_authenticated(*ctx, t, user, sasl, "PN_CONNECTION_REMOTE_OPEN");
    return;
  }
  log_warn(
      "amqp_acceptor: remote open on unauthenticated transport (transport_auth=%d sasl_outcome=%d user=%s "
      "mech=%s) \u2014 closing",
      transport_auth, static_cast<int>(outcome), log_safe(qm::or_text(user, "(none)")).c_str(),
      log_safe(qm::or_text(pn_sasl_get_mech(sasl), "(none)")).c_str());
  s_close_transport(t);
}

void s_on_transport_closed(gw_amqp_acceptor& acc, pn_event_t* e) {
  pn_transport_t* t = pn_event_transport(e);
  pn_connection_t* conn = pn_event_connection(e);
  conn_context_t* ctx = s_context(conn);
  if (ctx != nullptr && ctx->authenticated) {
    log_info("amqp_acceptor: connection closed (user=%s)", log_safe(s_user_or(ctx, "anonymous")).c_str());
  } else {
    pn_sasl_t* sasl = pn_sasl(t);
    pn_condition_t* cond = pn_transport_condition(t);
    const bool has_cond = pn_condition_is_set(cond);
    log_warn(
        "amqp_acceptor: connection closed unauthenticated (sasl_outcome=%d sasl_mech=%s sasl_user=%s "
        "transport_cond=%s: %s)",
        static_cast<int>(pn_sasl_outcome(sasl)), log_safe(qm::or_text(pn_sasl_get_mech(sasl), "(none)")).c_str(),
        log_safe(qm::or_text(pn_sasl_get_user(sasl), "(none)")).c_str(),
        has_cond ? qm::or_text(pn_condition_get_name(cond), "(none)") : "(no condition)",
        log_safe(has_cond ? qm::or_text(pn_condition_get_description(cond), "(none)") : "(none)").c_str());
  }
  --acc.live_endpoints;
  broker_metrics_amqp_connection(-1);
  if (ctx == nullptr) return;
  if (acc.own_cyrus_binding) gw_amqp_cyrus_detach(t);
  acc.live.erase(ctx->serial);
  gw_relay_pool_drop(acc.relay_pool.get(), ctx->relay_handle);
  gw_relay_conn_handle_close(ctx->relay_handle);
  gw_relay_conn_handle_release(ctx->relay_handle);
  acc.inflight -= ctx->inflight;  // no reply is owed to a closed connection
  pn_connection_set_context(conn, nullptr);
  std::unique_ptr<conn_context_t> owned(ctx);
}

void s_on_link_remote_open(conn_context_t* ctx, pn_link_t* link) {
  if (pn_link_is_receiver(link)) {
    pn_terminus_copy(pn_link_source(link), pn_link_remote_source(link));
    pn_terminus_copy(pn_link_target(link), pn_link_remote_target(link));
    pn_link_open(link);
    if (ctx != nullptr) s_give_credit(*ctx, s_link_connection(link), link, kInitialCredit);
    return;
  }
  pn_terminus_copy(pn_link_target(link), pn_link_remote_target(link));
  pn_terminus_copy(pn_link_source(link), pn_link_remote_source(link));
  if (pn_terminus_is_dynamic(pn_link_remote_source(link))) {
    char address[128];
    gw_unique_id("qm-reply-dyn", address, sizeof address);
    pn_terminus_set_address(pn_link_source(link), address);
    log_trace("amqp_acceptor: fulfilled dynamic reply node with address '%s'", log_safe(address).c_str());
  }
  pn_link_open(link);
  if (ctx != nullptr) flush_pending_replies(*ctx, link);
}

// The bytes a session may hold unread. The peer's window is counted in whole frames, so
// with exactly the cap a message above it stalls for ever just below the cap; one frame
// more lets it cross the cap, where it is rejected. Without a cap: the largest window.
size_t s_session_capacity(size_t max_msg_size) {
  constexpr size_t kLargestWindow = 2147483647;
  return max_msg_size != 0 ? max_msg_size + kMaxFrameBytes : kLargestWindow * kMaxFrameBytes;
}

int s_listener_port(pn_listener_t* listener) {
  char host[256];
  char port[32];
  if (pn_netaddr_host_port(pn_listener_addr(listener), host, sizeof host, port, sizeof port) != 0) return 0;
  return atoi(port);
}

void s_on_listener_open(gw_amqp_acceptor& acc, pn_listener_t* listener) {
  const gw_config_t& cfg = *acc.cfg;
  const int bound = s_listener_port(listener);
  const int port = bound > 0 ? bound : cfg.amqp_listen_port;
  acc.listening.store(true);
  log_info("amqp_acceptor: listening on %s:%d (tls=%s, backlog=%d requested, capped by net.core.somaxconn)",
           qm::or_text(qm::cstr(cfg.amqp_listen_host), ""), port, s_tls_configured(cfg) ? "yes" : "no",
           cfg.listen_backlog);
}

void s_on_listener_close(gw_amqp_acceptor& acc, pn_event_t* e) {
  --acc.live_endpoints;
  acc.listening.store(false);
  pn_condition_t* cond = pn_listener_condition(pn_event_listener(e));
  if (pn_condition_is_set(cond)) {
    log_error("amqp_acceptor: listener on %s:%d closed: %s: %s", qm::or_text(qm::cstr(acc.cfg->amqp_listen_host), ""),
              acc.cfg->amqp_listen_port, qm::or_text(pn_condition_get_name(cond), "(no condition name)"),
              qm::or_text(pn_condition_get_description(cond), "(no description)"));
  }
}

void handle_event(gw_amqp_acceptor& acc, pn_event_t* e) {
  const pn_event_type_t type = pn_event_type(e);
  log_trace("amqp_acceptor: event=%s", pn_event_type_name(type));
  switch (type) {
    case PN_LISTENER_OPEN:
      s_on_listener_open(acc, pn_event_listener(e));
      break;
    case PN_LISTENER_ACCEPT:
      s_accept(acc, pn_event_listener(e));
      break;
    case PN_LISTENER_CLOSE:
      s_on_listener_close(acc, e);
      break;
    case PN_CONNECTION_INIT:
      pn_connection_open(pn_event_connection(e));
      log_trace("amqp_acceptor: PN_CONNECTION_INIT");
      break;
    case PN_CONNECTION_BOUND:
      if (s_context(pn_event_connection(e)) != nullptr) s_set_up_transport(acc, pn_event_transport(e));
      break;
    case PN_TRANSPORT_AUTHENTICATED:
      s_on_transport_authenticated(e);
      break;
    case PN_CONNECTION_REMOTE_OPEN:
      s_on_remote_open(e);
      break;
    case PN_CONNECTION_REMOTE_CLOSE:
      pn_connection_close(pn_event_connection(e));
      break;
    case PN_SESSION_INIT: {
      pn_session_t* session = pn_event_session(e);
      pn_session_set_incoming_capacity(session, s_session_capacity(acc.cfg->max_msg_size_bytes));
      pn_session_open(session);
      break;
    }
    case PN_SESSION_REMOTE_CLOSE:
      pn_session_close(pn_event_session(e));
      break;
    case PN_LINK_REMOTE_OPEN:
      s_on_link_remote_open(s_context(pn_event_connection(e)), pn_event_link(e));
      break;
    case PN_LINK_REMOTE_CLOSE:
      pn_link_close(pn_event_link(e));
      break;
    case PN_LINK_FLOW: {
      pn_link_t* link = pn_event_link(e);
      conn_context_t* ctx = s_context(pn_event_connection(e));
      if (ctx != nullptr && pn_link_is_sender(link)) flush_pending_replies(*ctx, link);
      break;
    }
    case PN_DELIVERY: {
      pn_delivery_t* d = pn_event_delivery(e);
      conn_context_t* ctx = s_context(pn_event_connection(e));
      if (ctx != nullptr && pn_link_is_receiver(pn_delivery_link(d))) handle_delivery(*ctx, d);
      break;
    }
    case PN_CONNECTION_WAKE: {
      pn_connection_t* conn = pn_event_connection(e);
      conn_context_t* ctx = s_context(conn);
      if (ctx == nullptr) break;
      s_enforce_handshake_deadline(*ctx, conn);
      if (acc.own_cyrus_binding) gw_amqp_cyrus_resume(pn_connection_transport(conn));
      handle_completed_jobs(*ctx, conn);
      s_top_up(*ctx, conn);
      break;
    }
    case PN_TRANSPORT_ERROR: {
      pn_condition_t* cond = pn_transport_condition(pn_event_transport(e));
      log_error("amqp_acceptor: PN_TRANSPORT_ERROR \u2014 %s: %s",
                qm::or_text(pn_condition_get_name(cond), "(no condition name)"),
                qm::or_text(pn_condition_get_description(cond), "(no description)"));
      break;
    }
    case PN_TRANSPORT_CLOSED:
      s_on_transport_closed(acc, e);
      break;
    case PN_PROACTOR_TIMEOUT:
      s_on_timeout(acc);
      break;
    case PN_PROACTOR_INTERRUPT:
      if (acc.running.load()) s_wake_awaiting_budget(acc);
      break;
    default:
      break;
  }
}

// Hands one batch to handle_event; true when it held PN_PROACTOR_INACTIVE.
bool s_process_batch(gw_amqp_acceptor& acc) {
  pn_event_batch_t* batch = pn_proactor_wait(acc.proactor.get());
  bool inactive = false;
  while (pn_event_t* e = pn_event_batch_next(batch)) {
    if (pn_event_type(e) == PN_PROACTOR_INACTIVE) inactive = true;
    handle_event(acc, e);
  }
  pn_proactor_done(acc.proactor.get(), batch);
  return inactive;
}

uint64_t g_unique_counter = 0;

}  // namespace

// The request JSON and the optional payload of a body: a string or binary value (JSON
// only), or a list or array whose first element is a string or binary (the JSON) and
// whose optional second one is a string or binary (the payload).
bool gw_amqp_body_parts(pn_message_t* msg, std::string& json, pn_bytes_t& payload) {
  const auto text_of = [](pn_data_t* data, pn_bytes_t& out) {
    const pn_type_t type = pn_data_type(data);
    if (type == PN_STRING) out = pn_data_get_string(data);
    else if (type == PN_BINARY) out = pn_data_get_binary(data);
    else return false;
    return true;
  };
  pn_data_t* body = pn_message_body(msg);
  pn_data_rewind(body);
  if (!pn_data_next(body)) return false;
  pn_bytes_t json_bytes{};
  payload = pn_bytes(0, nullptr);
  const pn_type_t type = pn_data_type(body);
  if (type == PN_LIST || type == PN_ARRAY) {
    pn_data_enter(body);
    if (!pn_data_next(body) || !text_of(body, json_bytes)) return false;
    if (pn_data_next(body) && !text_of(body, payload)) payload = pn_bytes(0, nullptr);
    pn_data_exit(body);
  } else if (!text_of(body, json_bytes)) {
    return false;
  }
  json = s_bytes_text(json_bytes);
  return true;
}

void gw_unique_id(const char* prefix, char* buffer, size_t size) {
  snprintf(buffer, size, "%s.%ld.%llu", prefix, static_cast<long>(getpid()),
           static_cast<unsigned long long>(g_unique_counter++));
}

gw_amqp_acceptor_t* gw_amqp_acceptor_create(const gw_config_t* cfg, gw_nats_relay_t* relay,
                                            const char* sasl_config_dir, const auth_profile_store_t* profiles) {
  if (cfg == nullptr) return nullptr;
  std::unique_ptr<gw_amqp_acceptor> acc(new (std::nothrow) gw_amqp_acceptor);
  if (!acc) return nullptr;
  const int workers = cfg->amqp_relay_workers >= 1 ? cfg->amqp_relay_workers : kDefaultRelayWorkers;
  try {
    acc->cfg = cfg;
    acc->relay = relay;
    acc->profiles = profiles;
    acc->sasl_config_dir = qm::from_cstr(sasl_config_dir);
    acc->host_fqdn = qm::or_text(qmhlp_GetMyFQDN(), "");
    acc->own_cyrus_binding = gw_amqp_cyrus_needed();
    acc->max_connections = cfg->amqp_max_connections >= 1 ? cfg->amqp_max_connections : kDefaultMaxConnections;
    acc->handshake_timeout_ms =
        cfg->amqp_handshake_timeout_ms >= 1 ? cfg->amqp_handshake_timeout_ms : kDefaultHandshakeTimeoutMs;
    acc->max_inflight = cfg->amqp_max_inflight >= 1 ? cfg->amqp_max_inflight : kDefaultMaxInflight;
    acc->budget = cfg->inflight_budget;
    acc->proactor.reset(pn_proactor());
    if (!acc->proactor) return nullptr;
    acc->waker = std::make_shared<budget_waker>();
    acc->waker->proactor = acc->proactor.get();
    acc->relay_pool.reset(gw_relay_pool_create(relay, workers));
    if (!acc->relay_pool) {
      log_error("amqp_acceptor: failed to start relay worker pool (workers=%d)", workers);
      return nullptr;
    }
    if (acc->own_cyrus_binding) {
      acc->sasl_steps.reset(gw_amqp_cyrus_steps_create(kSaslStepThreads));
      if (!acc->sasl_steps) {
        log_error("amqp_acceptor: failed to start SASL step threads (threads=%d)", kSaslStepThreads);
        return nullptr;
      }
    }
  } catch (const std::exception&) {
    return nullptr;
  }
  if (acc->budget != nullptr) {
    gw_inflight_budget_set_release_hook(acc->budget, [waker = acc->waker] { waker->on_release(); });
  }
  return acc.release();
}

int gw_amqp_acceptor_run(gw_amqp_acceptor_t* acc) {
  if (acc == nullptr) return -1;
  if (!acc->running.load()) return 0;
  const gw_config_t& cfg = *acc->cfg;
  char address[512];
  snprintf(address, sizeof address, "%s:%d", qm::or_text(qm::cstr(cfg.amqp_listen_host), ""), cfg.amqp_listen_port);
  pn_proactor_listen(acc->proactor.get(), pn_listener(), address, cfg.listen_backlog);
  ++acc->live_endpoints;
  while (acc->running.load()) (void)s_process_batch(*acc);
  // Every connection and the listener close through their normal events, so that no
  // connection's context outlives the loop. Only PN_PROACTOR_INACTIVE says that the
  // proactor has also freed them; it comes once, when the last one goes.
  // A pending handshake timer would hold PN_PROACTOR_INACTIVE back until it fires.
  acc->handshake_deadlines.clear();
  acc->timer_armed = false;
  pn_proactor_cancel_timeout(acc->proactor.get());
  if (acc->live_endpoints > 0) {
    pn_proactor_disconnect(acc->proactor.get(), nullptr);
    while (!s_process_batch(*acc)) {
    }
  }
  return 0;
}

void gw_amqp_acceptor_stop(gw_amqp_acceptor_t* acc) {
  if (acc == nullptr) return;
  acc->running.store(0);
  pn_proactor_interrupt(acc->proactor.get());
}

void gw_amqp_acceptor_stop_accepting(gw_amqp_acceptor_t* acc) {
  if (acc != nullptr) acc->not_accepting.store(1);
}

bool gw_amqp_acceptor_listening(const gw_amqp_acceptor_t* acc) {
  return acc != nullptr && acc->listening.load() && acc->not_accepting.load() == 0;
}

void gw_amqp_acceptor_destroy(gw_amqp_acceptor_t* acc) {
  if (acc == nullptr) return;
  std::unique_ptr<gw_amqp_acceptor> owned(acc);
  if (acc->budget != nullptr) gw_inflight_budget_set_release_hook(acc->budget, {});
  if (acc->waker) {
    std::lock_guard<std::mutex> lock(acc->waker->mu);
    acc->waker->proactor = nullptr;
  }
  acc->sasl_steps.reset();
  acc->relay_pool.reset();
  acc->proactor.reset();
}

size_t gw_amqp_acceptor_inflight(const gw_amqp_acceptor_t* acc) { return acc != nullptr ? acc->inflight.load() : 0; }
