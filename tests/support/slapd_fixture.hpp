// A real OpenLDAP slapd as a child process: its own configuration and mdb database in a
// temporary directory, loaded from an LDIF before the first start, listening on
// ldap://127.0.0.1:<free port>/ (another port is tried when that one was taken before
// slapd could bind it). Always stopped by the destructor.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "test_support.hpp"

namespace qmtest {

struct SlapdOptions {
  std::string suffix = "dc=qm,dc=test";
  std::string root_dn = "cn=admin,dc=qm,dc=test";
  std::string root_password = "admin-secret";
  // Loaded with slapadd before the first start; must contain the suffix entry.
  std::string ldif;
  // Extra schema text (attributetype/objectclass lines), included after core, cosine, nis
  // and inetorgperson.
  std::string extra_schema;
  // Default: passwords are usable for binds only, every bound identity reads the rest.
  // Also listen on ldaps:// with a server certificate for 127.0.0.1 issued by a CA made
  // for this server alone (needs the openssl command).
  bool tls = false;
  std::string access_rules =
      "access to attrs=userPassword\n  by anonymous auth\n  by * none\n"
      "access to *\n  by users read\n  by * none\n";
};

class Slapd {
 public:
  // Writes the configuration, loads the LDIF and starts the server; throws std::runtime_error
  // with slapd's own output when any step fails.
  explicit Slapd(SlapdOptions options);
  ~Slapd();
  Slapd(const Slapd&) = delete;
  Slapd& operator=(const Slapd&) = delete;

  // "ldap://127.0.0.1:<port>/"; stays the same across stop() and start().
  const std::string& url() const { return url_; }
  // "ldaps://127.0.0.1:<port>/" and the PEM file of the CA that issued the server's
  // certificate; empty without `tls`.
  const std::string& ldaps_url() const { return ldaps_url_; }
  std::string ca_file() const;
  // The running server's pid, -1 when stopped.
  pid_t pid() const;

  // Starts the stopped server again on the same port with the same data; returns once
  // it answers LDAP requests.
  void start();
  // Terminates the server (SIGKILL if it does not go within a few seconds); the port is
  // then closed.
  void stop();
  // SIGSTOP / SIGCONT: a paused server still completes TCP handshakes but answers nothing.
  // pause() returns once every thread of slapd has stopped.
  void pause();
  void resume();

  // Server-side TCP connections on the port that are established; of those, the ones
  // with a request that slapd has not read yet (clients waiting on a paused server).
  int established_connections() const { return count_connections(false); }
  int connections_with_unread_requests() const { return count_connections(true); }

 private:
  void write_config() const;
  void load_ldif() const;
  void start_on_a_free_port();
  bool answers() const;
  bool all_threads_stopped() const;
  int count_connections(bool with_unread_requests_only) const;

  SlapdOptions options_;
  TempDir dir_;
  int port_ = 0;
  std::string url_;
  std::string ldaps_url_;
  std::unique_ptr<Child> child_;
  bool paused_ = false;
  bool exited_at_start_ = false;
};

// A directory for the auth tests under dc=qm,dc=test: the service account kReaderDn
// (password "reader-secret") and posix accounts, groups given by memberOf: in ou=people
// alice ("alice-pw", in kScannersGroup and kAdminsGroup), bob ("bob-pw"), carol
// ("carol-pw", in kScannersGroup), lara ("lara-pw", in kScannersGroup), leo ("leo-pw"),
// "we)(ird*" ("odd-pw") and "back\slash" ("slash-pw"), names made of filter
// metacharacters; and "twin" ("twin-pw") twice, in ou=people and ou=staff.
inline constexpr const char* kReaderDn = "cn=reader,ou=services,dc=qm,dc=test";
inline constexpr const char* kScannersGroup = "cn=scanners,ou=groups,dc=qm,dc=test";
inline constexpr const char* kAdminsGroup = "cn=admins,ou=groups,dc=qm,dc=test";
std::unique_ptr<Slapd> start_directory(bool tls = false);

}  // namespace qmtest
