#include "test_certificates.hpp"

#include <chrono>
#include <stdexcept>
#include <vector>

namespace qmtest {

TestCertificates make_test_certificates(const TempDir& dir, const std::string& ca_name) {
  const std::string openssl = "/usr/bin/openssl";
  const std::string ec = "ec_paramgen_curve:P-256";
  TestCertificates certs{dir.file("ca.pem"), dir.file("server.pem"), dir.file("server.key")};
  write_file(dir.file("server.ext"), "subjectAltName=IP:127.0.0.1\n");
  const std::vector<std::vector<std::string>> steps = {
      {openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", dir.file("ca.key"), "-out",
       certs.ca_file, "-days", "2", "-subj", "/CN=" + ca_name},
      {openssl, "req", "-newkey", "ec", "-pkeyopt", ec, "-nodes", "-keyout", certs.key_file, "-out",
       dir.file("server.csr"), "-subj", "/CN=127.0.0.1"},
      {openssl, "x509", "-req", "-in", dir.file("server.csr"), "-CA", certs.ca_file, "-CAkey", dir.file("ca.key"),
       "-CAcreateserial", "-out", certs.cert_file, "-days", "2", "-extfile", dir.file("server.ext")},
  };
  for (const auto& step : steps) {
    Child run(step);
    if (run.wait(std::chrono::seconds(30)) != 0) throw std::runtime_error("openssl failed: " + run.err());
  }
  return certs;
}

}  // namespace qmtest
