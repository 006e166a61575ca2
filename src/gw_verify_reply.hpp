// The auth service's answer on "qm.auth.verify" as both front doors read it: one parser,
// so that the HTTP door and the AMQP door's password check cannot disagree about it.
#pragma once

#include <optional>

#include "qm_cpp.hpp"

struct gw_verify_reply {
  bool ok = false;  // only a JSON true grants
  qm::opt_string reason;
  qm::opt_string backend;
  qm::opt_string profile;  // the granted profile's name; absent: the built-in permissions
};

// The fields of a reply (each only when it is a JSON string, "ok" only when a JSON
// boolean); nullopt when the text is not strictly JSON, which no deliberate answer is.
std::optional<gw_verify_reply> gw_verify_reply_parse(const char* json);
