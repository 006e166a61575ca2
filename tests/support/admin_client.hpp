// The broker's admin listener as a test reads it: GET requests, and the few samples of
// the metrics text a test compares before and after what it did.
#pragma once

#include <string>
#include <vector>

#include "http_fixture.hpp"

namespace qmtest {

// Options that open a broker's admin listener on `port` (127.0.0.1).
std::vector<std::string> admin_args(int port);

// GET http://127.0.0.1:<port><path> on a fresh connection.
HttpResponse admin_get(int port, const std::string& path);

// The value of one sample in an exposition text, named as it is written there
// ("qm_av_broker_natsd_restarts_total", or with its labels in the order the broker writes
// them: `qm_av_broker_http_requests_total{code="401"}`); -1 when the text has none.
double metric_value(const std::string& exposition, const std::string& sample);

// How far `sample` moved between two exposition texts; NaN when either lacks it, so that
// a misspelt sample never reads as "did not move".
double metric_delta(const std::string& before, const std::string& after, const std::string& sample);

// The broker's /metrics text now; "" when the listener does not answer 200.
std::string scrape(int port);

}  // namespace qmtest
