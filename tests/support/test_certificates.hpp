// A certificate authority made for one test and a server certificate for 127.0.0.1 that
// it issued, written as PEM files into a directory of the test's own (needs the openssl
// command).
#pragma once

#include <string>

#include "test_support.hpp"

namespace qmtest {

struct TestCertificates {
  std::string ca_file;    // the CA's certificate: what clients trust
  std::string cert_file;  // the server's certificate (subjectAltName IP:127.0.0.1)
  std::string key_file;   // the server's private key
};

// Writes ca.pem, ca.key, server.pem and server.key into dir; throws std::runtime_error
// with openssl's output when a step fails.
TestCertificates make_test_certificates(const TempDir& dir, const std::string& ca_name);

}  // namespace qmtest
