// A real OpenLDAP slapd as a child process: its own configuration and mdb database in a
// temporary directory, loaded from an LDIF before the first start, listening on
// ldap://127.0.0.1:<free port>/ (another port is tried when that one was taken before
// slapd could bind it). Always stopped by the destructor.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "test_support.hpp"

namespace qmtest {

// memberOf as a plain user attribute that the directory keeps on each user's entry.
inline constexpr const char* kMemberOfSchema =
    "attributetype ( 1.3.6.1.4.1.4203.666.11.99.1 NAME 'memberOf'\n"
    "  EQUALITY distinguishedNameMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )\n"
    "objectclass ( 1.3.6.1.4.1.4203.666.11.99.2 NAME 'qmGroupMember' AUXILIARY MAY memberOf )\n";

// The LDIF entry of a posix account at dn, member of `groups` through memberOf (needs
// kMemberOfSchema when there are groups).
std::string posix_user_ldif(const std::string& dn, const std::string& uid, const std::string& password, int number,
                            const std::vector<std::string>& groups = {});

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
  int port() const { return port_; }
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

  // Server-side TCP connections on the port that are established.
  int established_connections() const;
  // Bytes received on those connections that slapd has not read yet.
  long unread_request_bytes() const;
  // Those connections with a request that slapd has not read yet (clients waiting on a
  // paused server).
  int connections_with_unread_requests() const;
  // Everything slapd has written to standard error since the last start.
  std::string output() const;

 private:
  void write_config() const;
  void load_ldif() const;
  void start_on_a_free_port();
  bool answers() const;
  bool all_threads_stopped() const;

  SlapdOptions options_;
  TempDir dir_;
  int port_ = 0;
  std::string url_;
  std::string ldaps_url_;
  std::unique_ptr<Child> child_;
  bool paused_ = false;
  bool exited_at_start_ = false;
};

}  // namespace qmtest
