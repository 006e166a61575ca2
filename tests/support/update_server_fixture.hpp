// A local update server for the self-update tests: a small Python HTTP(S) server on
// 127.0.0.1 that answers from a plan the test writes, and logs what it was asked.
// Always stopped by the destructor.
#pragma once

#include <memory>
#include <string>

#include "test_support.hpp"

namespace qmtest {

class UpdateServer {
 public:
  // tls: serve HTTPS with a certificate from a CA made for this server alone.
  explicit UpdateServer(bool tls = false);
  ~UpdateServer() = default;
  UpdateServer(const UpdateServer&) = delete;
  UpdateServer& operator=(const UpdateServer&) = delete;

  // "http://127.0.0.1:<port>" or "https://...".
  const std::string& base_url() const { return base_url_; }
  // The PEM file of the CA that issued the server's certificate; empty without TLS.
  std::string ca_file() const;
  // The answers, a JSON object keyed by URL path; see update_server.py.
  void plan(const std::string& json) const;
  // A file the plan can name as "body".
  void add_file(const std::string& name, const std::string& content) const;
  // Plans what an update server does with a new package: "/v1/update" redirects to
  // "<redirect_base>/files/<name>" (default: this server), which serves the file `name`
  // (added before) and so names the package, with the text of the file `signature_file`
  // (added before) as its signature when one is named. Another server serves the redirect
  // target only once it has planned the package too.
  void plan_package(const std::string& name, const std::string& signature_file = "",
                    const std::string& redirect_base = "") const;
  // Every request's path and query so far, one a line.
  std::string requests() const;

 private:
  TempDir dir_;
  bool tls_;
  std::unique_ptr<Child> child_;
  std::string base_url_;
};

// The name of a package an operator put down by hand for `component`, dated `offset_days`
// from today (local time): "<component>_<yyyymmdd>001_manual.zip".
std::string manual_package_name(const std::string& component, int offset_days = 0);

}  // namespace qmtest
