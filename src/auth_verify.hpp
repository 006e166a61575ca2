// The verify endpoint on "qm.auth.verify": the broker's front doors ask whether a user
// and password are good, in JSON, and get a JSON answer.
#pragma once

#include <nats/nats.h>

#include <optional>
#include <string>

#include "auth_decision.hpp"
#include "broker_metrics.hpp"
#include "qm_cpp.hpp"

// A request's members; each one absent when missing or not of its JSON type.
struct verify_request {
  std::optional<std::string> user;
  std::optional<qm::secret_string> password;
  std::optional<std::string> method;  // the caller's own login mechanism, only logged
  bool revalidate = false;            // skip the cache: the live backends decide
  int64_t received_ns = broker_metrics_now();  // when the request came in: its verdict's latency
};

// Parses msg's payload (empty or not a JSON object: every member absent), then wipes the
// payload (it carries a password).
verify_request auth_verify_read(natsMsg* msg);

// The JSON answer to a request that can be answered without waiting (a malformed one
// too); nothing when only the directory can tell: auth_verify_answer then, on a thread
// that may wait. backend_type is the configured --auth-backend, for the log only.
std::optional<std::string> auth_verify_answer_now(auth_decider_t* decider, int backend_type,
                                                  const verify_request& req);
std::string auth_verify_answer(auth_decider_t* decider, int backend_type, const verify_request& req);
