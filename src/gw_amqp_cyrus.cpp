#include "gw_amqp_cyrus.hpp"

#include <proton/proactor.h>
#include <proton/sasl.h>
#include <proton/sasl_plugin.h>
#include <sasl/sasl.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "gw_sasl_setup.hpp"

namespace {

// Cyrus's service name for AMQP, as in its log lines and realm handling.
constexpr const char kCyrusService[] = "amqp";
constexpr unsigned kMaxSecurityLayerBuffer = 32768;
constexpr const char kUnauthorized[] = "amqp:unauthorized-access";

// What one Cyrus step returned. `out` points into the Cyrus connection and stays valid
// until its next step.
struct step_result {
  int rc = SASL_FAIL;
  const char* out = nullptr;
  unsigned out_len = 0;
  int checkpass_verdict = 0;  // gw_sasl_take_checkpass_verdict() right after the step
  std::string checkpass_profile;  // gw_sasl_take_checkpass_profile() likewise
};

// One Cyrus server connection per transport. The transport holds it through Proton's
// context and a running step through its job; whichever lets go last disposes of it.
struct cyrus_session {
  sasl_conn_t* conn = nullptr;
  std::string server_fqdn;
  gw_amqp_cyrus_steps_t* steps = nullptr;
  // The profile the auth service named with a successful login; event loop only.
  std::optional<std::string> granted_profile;
  std::mutex mu;  // guards the fields below, shared with the step's thread
  pn_connection_t* wake = nullptr;  // cleared when the transport closes
  bool step_running = false;
  std::optional<step_result> finished;

  ~cyrus_session() { sasl_dispose(&conn); }
};
using session_ptr = std::shared_ptr<cyrus_session>;

// A step to run: the first one names the mechanism, later ones only carry the response.
struct step_job {
  session_ptr session;
  std::optional<std::string> mechanism;
  std::vector<char> input;
  bool has_input = false;
};

session_ptr* s_holder(pn_transport_t* t) { return static_cast<session_ptr*>(pnx_sasl_get_context(t)); }

cyrus_session* s_session(pn_transport_t* t) {
  session_ptr* holder = s_holder(t);
  return holder != nullptr ? holder->get() : nullptr;
}

const char* s_error_text(sasl_conn_t* conn, int rc) {
  return conn != nullptr ? sasl_errdetail(conn) : sasl_errstring(rc, nullptr, nullptr);
}

// Proton keeps calling init_server until the state moves, so a failure posts its
// outcome itself.
void s_post_failure(pn_transport_t* t, const char* why) {
  pnx_sasl_error(t, why, kUnauthorized);
  pnx_sasl_set_failed(t);
  pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
}

step_result s_run_step(const step_job& job) {
  step_result result;
  sasl_conn_t* conn = job.session->conn;
  const char* input = job.has_input ? job.input.data() : nullptr;
  const auto input_len = static_cast<unsigned>(job.input.size());
  (void)gw_sasl_take_checkpass_verdict();
  (void)gw_sasl_take_checkpass_profile();
  result.rc = job.mechanism ? sasl_server_start(conn, job.mechanism->c_str(), input, input_len, &result.out,
                                                &result.out_len)
                            : sasl_server_step(conn, input, input_len, &result.out, &result.out_len);
  result.checkpass_verdict = gw_sasl_take_checkpass_verdict();
  result.checkpass_profile = gw_sasl_take_checkpass_profile();
  return result;
}

// The outcome of one Cyrus step. A refusal after a password check that could not
// decide is reported as a temporary failure, so that the client tries again later.
void s_apply_step(pn_transport_t* t, const step_result& step) {
  cyrus_session* session = s_session(t);
  sasl_conn_t* conn = session->conn;
  if (step.rc == SASL_OK) {
    session->granted_profile = step.checkpass_profile;
    const void* user = nullptr;
    sasl_getprop(conn, SASL_USERNAME, &user);
    pnx_sasl_set_succeeded(t, static_cast<const char*>(user), nullptr);  // lives until sasl_dispose
    pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
    return;
  }
  if (step.rc == SASL_CONTINUE) {
    pnx_sasl_set_bytes_out(t, pn_bytes(step.out_len, step.out_len != 0 ? step.out : nullptr));
    pnx_sasl_set_desired_state(t, SASL_POSTED_CHALLENGE);
    return;
  }
  pnx_sasl_error(t, s_error_text(conn, step.rc), kUnauthorized);
  pnx_sasl_set_failed(t);
  if (step.checkpass_verdict == SASL_TRYAGAIN) pn_sasl_done(pn_sasl(t), PN_SASL_TEMP);
  pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
}

// On the step's thread: the result goes to the session, and its connection's event loop
// is woken to apply it. The wake happens under the session's lock, which the closing
// transport also takes to clear `wake`: a connection that has gone is never woken.
void s_finish_step(cyrus_session& session, const step_result& result) {
  std::lock_guard<std::mutex> lock(session.mu);
  session.finished = result;
  if (session.wake != nullptr) pn_connection_wake(session.wake);
}

}  // namespace

// Threads that run Cyrus's steps, fed from a FIFO.
struct gw_amqp_cyrus_steps {
  std::mutex mu;
  std::condition_variable cv;
  std::deque<step_job> queue;
  bool stopping = false;
  std::vector<std::thread> threads;

  // Accepts the job unless stopping; false then, or when memory runs out.
  bool submit(step_job&& job) {
    try {
      std::lock_guard<std::mutex> lock(mu);
      if (stopping) return false;
      queue.push_back(std::move(job));
    } catch (const std::bad_alloc&) {
      return false;
    }
    cv.notify_one();
    return true;
  }

  void run() {
    for (;;) {
      std::unique_lock<std::mutex> lock(mu);
      cv.wait(lock, [this] { return stopping || !queue.empty(); });
      if (stopping) return;
      step_job job = std::move(queue.front());
      queue.pop_front();
      lock.unlock();
      s_finish_step(*job.session, s_run_step(job));
    }
  }

  void stop() {
    std::deque<step_job> dropped;
    {
      std::lock_guard<std::mutex> lock(mu);
      stopping = true;
      dropped.swap(queue);
    }
    cv.notify_all();
    for (std::thread& t : threads) t.join();
    threads.clear();
  }
};

namespace {

// A step of `t`'s SASL exchange goes to the step threads.
void s_start_step(pn_transport_t* t, step_job&& job) {
  cyrus_session& session = *job.session;
  {
    std::lock_guard<std::mutex> lock(session.mu);
    // A client that answers before it was asked would run two steps at once on one
    // Cyrus connection.
    if (session.step_running) {
      s_post_failure(t, "SASL step while the previous one is still running");
      return;
    }
    session.step_running = true;
  }
  gw_amqp_cyrus_steps_t* steps = session.steps;
  if (!steps->submit(std::move(job))) {
    std::lock_guard<std::mutex> lock(session.mu);
    session.step_running = false;
    s_post_failure(t, "SASL step could not be queued");
  }
}

step_job s_job(pn_transport_t* t, const pn_bytes_t* recv) {
  step_job job;
  job.session = *s_holder(t);
  job.has_input = recv->start != nullptr;
  if (recv->size != 0) job.input.assign(recv->start, recv->start + recv->size);
  return job;
}

int s_new_server_conn(pn_transport_t* t, cyrus_session& session) {
  const char* fqdn = session.server_fqdn.empty() ? nullptr : session.server_fqdn.c_str();
  int rc = sasl_server_new(kCyrusService, fqdn, nullptr, nullptr, nullptr, nullptr, 0, &session.conn);
  if (rc != SASL_OK) return rc;
  sasl_security_properties_t props{};
  props.security_flags = (pnx_sasl_get_allow_insecure_mechanisms(t) ? 0 : SASL_SEC_NOPLAINTEXT) |
                         (pnx_sasl_get_authentication_required(t) ? SASL_SEC_NOANONYMOUS : 0);
  props.max_ssf = 2048;
  props.maxbufsize = kMaxSecurityLayerBuffer;
  rc = sasl_setprop(session.conn, SASL_SEC_PROPS, &props);
  if (rc != SASL_OK) return rc;
  // TLS underneath counts as protection: Cyrus then offers PLAIN to encrypted clients.
  const sasl_ssf_t external_ssf = static_cast<sasl_ssf_t>(pnx_sasl_get_external_ssf(t));
  return sasl_setprop(session.conn, SASL_SSF_EXTERNAL, &external_ssf);
}

bool s_init_server(pn_transport_t* t) {
  cyrus_session* session = s_session(t);
  const int rc = s_new_server_conn(t, *session);
  if (rc != SASL_OK) {
    s_post_failure(t, s_error_text(session->conn, rc));
    return false;
  }
  pnx_sasl_set_desired_state(t, SASL_POSTED_MECHANISMS);
  return true;
}

const char* s_list_mechanisms(pn_transport_t* t) {
  cyrus_session* session = s_session(t);
  if (session == nullptr || session->conn == nullptr) return nullptr;
  const char* list = nullptr;
  int count = 0;
  if (sasl_listmech(session->conn, nullptr, "", " ", "", &list, nullptr, &count) != SASL_OK) return nullptr;
  return list;
}

void s_process_init(pn_transport_t* t, const char* mechanism, const pn_bytes_t* recv) {
  step_job job = s_job(t, recv);
  job.mechanism = mechanism;
  s_start_step(t, std::move(job));
}

void s_process_response(pn_transport_t* t, const pn_bytes_t* recv) { s_start_step(t, s_job(t, recv)); }

void s_free(pn_transport_t* t) {
  std::unique_ptr<session_ptr> holder(s_holder(t));
  pnx_sasl_set_context(t, nullptr);
  if (holder && *holder) {
    std::lock_guard<std::mutex> lock((*holder)->mu);
    (*holder)->wake = nullptr;
  }
}

// The gateway is never the client, and PLAIN has no security layer.
bool s_no_client(pn_transport_t*) { return false; }
bool s_no_mechanisms(pn_transport_t*, const char*) { return false; }
void s_ignore_bytes(pn_transport_t*, const pn_bytes_t*) {}
void s_nothing(pn_transport_t*) {}
bool s_cannot_encrypt(pn_transport_t*) { return false; }
ssize_t s_no_encrypt_size(pn_transport_t*) { return 0; }
ssize_t s_no_layer(pn_transport_t*, pn_bytes_t, pn_bytes_t*) { return 0; }

const pnx_sasl_implementation kCyrusBinding = {
    s_free,           s_list_mechanisms,  s_init_server,  s_no_client,       s_nothing,
    s_process_init,   s_process_response, s_no_mechanisms, s_ignore_bytes,   s_ignore_bytes,
    s_cannot_encrypt, s_no_encrypt_size,  s_no_layer,     s_no_layer,
};

}  // namespace

bool gw_amqp_cyrus_needed() { return !pn_sasl_extended(); }

gw_amqp_cyrus_steps_t* gw_amqp_cyrus_steps_create(int threads) {
  std::unique_ptr<gw_amqp_cyrus_steps> steps(new (std::nothrow) gw_amqp_cyrus_steps);
  if (!steps || threads < 1) return nullptr;
  try {
    for (int i = 0; i < threads; ++i) steps->threads.emplace_back(&gw_amqp_cyrus_steps::run, steps.get());
  } catch (const std::exception&) {
    steps->stop();
    return nullptr;
  }
  return steps.release();
}

void gw_amqp_cyrus_steps_destroy(gw_amqp_cyrus_steps_t* steps) {
  if (steps == nullptr) return;
  std::unique_ptr<gw_amqp_cyrus_steps> owned(steps);
  steps->stop();
}

int gw_amqp_cyrus_attach(pn_transport_t* t, const char* server_fqdn, gw_amqp_cyrus_steps_t* steps) {
  if (t == nullptr || steps == nullptr) return -1;
  std::unique_ptr<session_ptr> holder;
  try {
    holder = std::make_unique<session_ptr>(std::make_shared<cyrus_session>());
    if (server_fqdn != nullptr) (*holder)->server_fqdn = server_fqdn;
  } catch (const std::bad_alloc&) {
    return -1;
  }
  (*holder)->steps = steps;
  (*holder)->wake = pn_transport_connection(t);
  (void)pn_sasl(t);  // the plugin setter expects Proton's SASL state to exist already
  pnx_sasl_set_implementation(t, &kCyrusBinding, holder.release());
  return 0;
}

void gw_amqp_cyrus_resume(pn_transport_t* t) {
  cyrus_session* session = s_session(t);
  if (session == nullptr) return;
  std::optional<step_result> finished;
  {
    std::lock_guard<std::mutex> lock(session->mu);
    finished.swap(session->finished);
    if (finished) session->step_running = false;
  }
  if (finished) s_apply_step(t, *finished);
}

void gw_amqp_cyrus_detach(pn_transport_t* t) {
  cyrus_session* session = s_session(t);
  if (session == nullptr) return;
  std::lock_guard<std::mutex> lock(session->mu);
  session->wake = nullptr;
}

const char* gw_amqp_cyrus_granted_profile(pn_transport_t* t) {
  const cyrus_session* session = s_session(t);
  return session != nullptr && session->granted_profile ? session->granted_profile->c_str() : nullptr;
}
