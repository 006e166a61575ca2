// nats-server's auth callout: reading the request token it sends for every client login,
// deciding, and the signed answer.
#pragma once

#include <nats/nats.h>

#include <optional>
#include <string>
#include <string_view>

#include "auth_decision.hpp"
#include "broker_metrics.hpp"
#include "qm_cpp.hpp"

struct auth_jwt_ctx;

// Who signs the answers, and where a granted login is placed.
struct auth_signer {
  const auth_jwt_ctx* jwt = nullptr;
  // The account of admitted logins (the user JWT's audience); "$G" without accounts.
  std::string account = "$G";
};

// What a callout request (the JWT nats-server sends) says about the connecting client.
struct auth_request_t {
  std::string user;
  qm::secret_string password;
  std::string server_id;
  std::string user_nkey;
  // The server's xkey when it sealed the request (auth_callout { xkey }): the answer is
  // sealed to it. Empty: a plain request and a plain answer.
  std::string server_xkey;
  bool has_user = false;
  bool has_password = false;
  int64_t received_ns = broker_metrics_now();  // when the request came in: its verdict's latency
};

// Reads the claims of the request token (not verified: the subject's access control is
// trusted). False when there is no "nats" object or no user or password; server id and
// user NKey found so far stay in req for the refusal. Every copy of the claims made on
// the way is wiped.
bool extract_auth_request(std::string_view token, auth_request_t& req);

enum auth_callout_read_t {
  AUTH_CALLOUT_EMPTY = 0,      // no payload: dropped without an answer
  AUTH_CALLOUT_MALFORMED = 1,  // answered with auth_callout_refuse_malformed
  AUTH_CALLOUT_REQUEST = 2,    // req holds the client's user and password
};

// Reads the request in msg's payload into req, then wipes the payload (it carries the
// client's password). A request sealed to the signer's xkey (header "Nats-Server-Xkey")
// is opened first; one that does not open is malformed (logged).
auth_callout_read_t auth_callout_read(natsMsg* msg, const auth_signer& signer, auth_request_t& req);

// The signed answer to a request that can be decided without waiting (auth_decide_now);
// nothing when only the directory can tell: auth_callout_answer then, on a thread that
// may wait. An empty token means signing failed: no answer is sent, and nats-server
// refuses the client when its wait runs out.
// A grant carries the subject lists of auth_profile_grant; a user name that the user's
// templated profile refuses is refused (logged).
std::optional<std::string> auth_callout_answer_now(auth_decider_t* decider, const auth_signer& signer,
                                                   const auth_request_t& req);
std::string auth_callout_answer(auth_decider_t* decider, const auth_signer& signer, const auth_request_t& req);

// The signed refusal of a request without "nats" claims, user or password.
std::string auth_callout_refuse_malformed(const auth_signer& signer, const auth_request_t& req);
