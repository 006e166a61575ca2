// The AMQP client the tests drive the front door with: qm-amqp-scan's own.
#pragma once

#include "qm_amqp_client.hpp"

namespace qmtest {

using qm_amqp::AmqpClient;
using qm_amqp::AmqpLogin;
using qm_amqp::Outcome;
using qm_amqp::reply_json;
using qm_amqp::reply_parts;
using qm_amqp::scan_request;

}  // namespace qmtest
