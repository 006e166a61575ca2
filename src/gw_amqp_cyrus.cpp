#include "gw_amqp_cyrus.hpp"

#include <proton/sasl.h>
#include <proton/sasl_plugin.h>
#include <sasl/sasl.h>

#include <memory>
#include <new>
#include <string>

#include "gw_sasl_setup.hpp"

namespace {

// Cyrus's service name for AMQP, as in its log lines and realm handling.
constexpr const char kCyrusService[] = "amqp";
constexpr unsigned kMaxSecurityLayerBuffer = 32768;
constexpr const char kUnauthorized[] = "amqp:unauthorized-access";

// One Cyrus server connection per transport; Proton's free callback disposes of it.
struct cyrus_session {
  sasl_conn_t* conn = nullptr;
  std::string server_fqdn;
  ~cyrus_session() { sasl_dispose(&conn); }
};

cyrus_session* s_session(pn_transport_t* t) { return static_cast<cyrus_session*>(pnx_sasl_get_context(t)); }

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

// The outcome of one Cyrus step. A refusal after a password check that could not
// decide is reported as a temporary failure, so that the client tries again later.
void s_apply_step(pn_transport_t* t, int rc, const char* out, unsigned out_len, int checkpass_verdict) {
  sasl_conn_t* conn = s_session(t)->conn;
  if (rc == SASL_OK) {
    const void* user = nullptr;
    sasl_getprop(conn, SASL_USERNAME, &user);
    pnx_sasl_set_succeeded(t, static_cast<const char*>(user), nullptr);  // lives until sasl_dispose
    pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
    return;
  }
  if (rc == SASL_CONTINUE) {
    pnx_sasl_set_bytes_out(t, pn_bytes(out_len, out_len != 0 ? out : nullptr));
    pnx_sasl_set_desired_state(t, SASL_POSTED_CHALLENGE);
    return;
  }
  pnx_sasl_error(t, s_error_text(conn, rc), kUnauthorized);
  pnx_sasl_set_failed(t);
  if (checkpass_verdict == SASL_TRYAGAIN) pn_sasl_done(pn_sasl(t), PN_SASL_TEMP);
  pnx_sasl_set_desired_state(t, SASL_POSTED_OUTCOME);
}

void s_process_init(pn_transport_t* t, const char* mechanism, const pn_bytes_t* recv) {
  sasl_conn_t* conn = s_session(t)->conn;
  const char* out = nullptr;
  unsigned out_len = 0;
  (void)gw_sasl_take_checkpass_verdict();
  const int rc = sasl_server_start(conn, mechanism, recv->start, static_cast<unsigned>(recv->size), &out, &out_len);
  s_apply_step(t, rc, out, out_len, gw_sasl_take_checkpass_verdict());
}

void s_process_response(pn_transport_t* t, const pn_bytes_t* recv) {
  sasl_conn_t* conn = s_session(t)->conn;
  const char* out = nullptr;
  unsigned out_len = 0;
  (void)gw_sasl_take_checkpass_verdict();
  const int rc = sasl_server_step(conn, recv->start, static_cast<unsigned>(recv->size), &out, &out_len);
  s_apply_step(t, rc, out, out_len, gw_sasl_take_checkpass_verdict());
}

void s_free(pn_transport_t* t) {
  std::unique_ptr<cyrus_session> session(s_session(t));
  pnx_sasl_set_context(t, nullptr);
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

int gw_amqp_cyrus_attach(pn_transport_t* t, const char* server_fqdn) {
  if (t == nullptr) return -1;
  std::unique_ptr<cyrus_session> session(new (std::nothrow) cyrus_session);
  if (!session) return -1;
  try {
    if (server_fqdn != nullptr) session->server_fqdn = server_fqdn;
  } catch (const std::bad_alloc&) {
    return -1;
  }
  (void)pn_sasl(t);  // the plugin setter expects Proton's SASL state to exist already
  pnx_sasl_set_implementation(t, &kCyrusBinding, session.release());
  return 0;
}
