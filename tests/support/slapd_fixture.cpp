#include "slapd_fixture.hpp"

#include <ldap.h>
#include <signal.h>
#include <sys/time.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "test_certificates.hpp"

namespace qmtest {

namespace {

constexpr const char* kSlapd = "/usr/sbin/slapd";
constexpr auto kStartTimeout = std::chrono::seconds(15);
constexpr auto kStopTimeout = std::chrono::seconds(5);

struct tcp_socket_row {
  int local_port = 0;
  int state = 0;
  long rx_queue = 0;
};

// Rows of /proc/net/tcp and /proc/net/tcp6 (this network namespace).
std::vector<tcp_socket_row> s_tcp_rows() {
  std::vector<tcp_socket_row> rows;
  for (const char* table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream in(table);
    std::string line;
    std::getline(in, line);  // header
    while (std::getline(in, line)) {
      std::istringstream fields(line);
      std::string slot, local, remote, state, queues;
      if (!(fields >> slot >> local >> remote >> state >> queues)) continue;
      tcp_socket_row row;
      row.local_port = std::stoi(local.substr(local.rfind(':') + 1), nullptr, 16);
      row.state = std::stoi(state, nullptr, 16);
      row.rx_queue = std::stol(queues.substr(queues.find(':') + 1), nullptr, 16);
      rows.push_back(row);
    }
  }
  return rows;
}

constexpr int kTcpEstablished = 1;
constexpr int kStartAttempts = 5;

// memberOf as a plain user attribute that the directory keeps on each user's entry.
constexpr const char* kMemberOfSchema =
    "attributetype ( 1.3.6.1.4.1.4203.666.11.99.1 NAME 'memberOf'\n"
    "  EQUALITY distinguishedNameMatch SYNTAX 1.3.6.1.4.1.1466.115.121.1.12 )\n"
    "objectclass ( 1.3.6.1.4.1.4203.666.11.99.2 NAME 'qmGroupMember' AUXILIARY MAY memberOf )\n";

std::string s_posix_user(const std::string& rdn, const std::string& uid, const std::string& password, int number,
                         const std::vector<std::string>& groups = {}) {
  const std::string n = std::to_string(number);
  std::string entry = "dn: " + rdn + ",dc=qm,dc=test\nobjectClass: account\nobjectClass: posixAccount\n";
  if (!groups.empty()) entry += "objectClass: qmGroupMember\n";
  entry += "uid: " + uid + "\ncn: user" + n + "\nuidNumber: " + n + "\ngidNumber: 1000\nhomeDirectory: /home/user" + n +
           "\nuserPassword: " + password + "\n";
  for (const auto& group : groups) entry += "memberOf: " + group + "\n";
  return entry + "\n";
}

}  // namespace

Slapd::Slapd(SlapdOptions options) : options_(std::move(options)) {
  std::filesystem::create_directory(dir_.path() / "db");
  if (options_.tls) make_test_certificates(dir_, "qmtest slapd CA");
  write_config();
  load_ldif();
  start_on_a_free_port();
}

// A port from free_port() is closed again before slapd binds it, so a parallel test may
// take it first: slapd then exits at once, and the start is tried on other ports.
void Slapd::start_on_a_free_port() {
  for (int attempt = 1;; ++attempt) {
    port_ = free_port();
    url_ = "ldap://127.0.0.1:" + std::to_string(port_) + "/";
    if (options_.tls) ldaps_url_ = "ldaps://127.0.0.1:" + std::to_string(free_port()) + "/";
    try {
      start();
      return;
    } catch (const std::runtime_error&) {
      if (exited_at_start_ && attempt < kStartAttempts) continue;
      throw;
    }
  }
}

Slapd::~Slapd() {
  try {
    stop();
  } catch (...) {
    // The Child destructor still kills and reaps it.
  }
}

pid_t Slapd::pid() const { return child_ ? child_->pid() : -1; }

std::string Slapd::ca_file() const { return options_.tls ? dir_.file("ca.pem") : std::string(); }

void Slapd::write_config() const {
  std::ostringstream conf;
  for (const char* schema : {"core", "cosine", "nis", "inetorgperson"})
    conf << "include /etc/ldap/schema/" << schema << ".schema\n";
  if (!options_.extra_schema.empty()) {
    write_file(dir_.file("extra.schema"), options_.extra_schema);
    conf << "include " << dir_.file("extra.schema") << "\n";
  }
  if (options_.tls)
    conf << "TLSCertificateFile " << dir_.file("server.pem") << "\n"
         << "TLSCertificateKeyFile " << dir_.file("server.key") << "\n";
  // Like many directory servers, take a name with an empty password as an anonymous bind
  // that succeeds: a client that sends one must refuse it itself.
  conf << "allow bind_anon_dn\n"
       << "pidfile " << dir_.file("slapd.pid") << "\n"
       << "argsfile " << dir_.file("slapd.args") << "\n"
       << "modulepath /usr/lib/ldap\n"
       << "moduleload back_mdb\n"
       << "database mdb\n"
       << "suffix \"" << options_.suffix << "\"\n"
       << "rootdn \"" << options_.root_dn << "\"\n"
       << "rootpw " << options_.root_password << "\n"
       << "directory " << (dir_.path() / "db").string() << "\n"
       << "maxsize 16777216\n"
       << options_.access_rules;
  write_file(dir_.file("slapd.conf"), conf.str());
}

void Slapd::load_ldif() const {
  write_file(dir_.file("data.ldif"), options_.ldif);
  Child slapadd({"/usr/sbin/slapadd", "-q", "-f", dir_.file("slapd.conf"), "-l", dir_.file("data.ldif")});
  const auto status = slapadd.wait(std::chrono::seconds(30));
  if (status != 0) throw std::runtime_error("slapadd failed: " + slapadd.err() + slapadd.out());
}

// An anonymous bind that gets an answer: the listener is up and the daemon loop runs.
bool Slapd::answers() const {
  LDAP* ld = nullptr;
  if (ldap_initialize(&ld, url_.c_str()) != LDAP_SUCCESS) return false;
  const int version = LDAP_VERSION3;
  ldap_set_option(ld, LDAP_OPT_PROTOCOL_VERSION, &version);
  const timeval limit{1, 0};
  ldap_set_option(ld, LDAP_OPT_NETWORK_TIMEOUT, &limit);
  ldap_set_option(ld, LDAP_OPT_TIMEOUT, &limit);
  berval empty{};
  const int rc = ldap_sasl_bind_s(ld, "", LDAP_SASL_SIMPLE, &empty, nullptr, nullptr, nullptr);
  ldap_unbind_ext_s(ld, nullptr, nullptr);
  return rc == LDAP_SUCCESS;
}

void Slapd::start() {
  if (child_ && child_->running()) return;
  // "-d 0" keeps slapd in the foreground as our child, logging (almost nothing) to stderr.
  const std::string listeners = ldaps_url_.empty() ? url_ : url_ + " " + ldaps_url_;
  child_ = std::make_unique<Child>(std::vector<std::string>{kSlapd, "-d", "0", "-f", dir_.file("slapd.conf"), "-h",
                                                            listeners});
  paused_ = false;
  const bool up = wait_until([this] { return !child_->running() || answers(); }, kStartTimeout);
  exited_at_start_ = !child_->running();
  if (!up || !child_->running()) {
    const std::string output = child_->err();
    child_.reset();
    throw std::runtime_error("slapd did not start on " + url_ + ": " + output);
  }
}

void Slapd::stop() {
  if (!child_) return;
  if (paused_) resume();
  child_->signal(SIGTERM);
  if (!child_->wait(kStopTimeout)) child_->signal(SIGKILL);
  child_.reset();  // kills and reaps whatever is left
  // The listener is gone with the process; closing it is all a failover test needs.
}

// kill() returns before the stop takes effect; a thread of slapd may still answer a
// request in between, so wait until every thread shows the stopped state.
bool Slapd::all_threads_stopped() const {
  std::error_code ec;
  const std::filesystem::path tasks = "/proc/" + std::to_string(pid()) + "/task";
  for (const auto& task : std::filesystem::directory_iterator(tasks, ec)) {
    const std::string stat = read_file((task.path() / "stat").string());
    const size_t after_name = stat.rfind(')');
    if (after_name == std::string::npos || after_name + 2 >= stat.size()) return false;
    if (stat[after_name + 2] != 'T') return false;
  }
  return !ec;
}

void Slapd::pause() {
  if (!child_) return;
  child_->signal(SIGSTOP);
  paused_ = true;
  if (!wait_until([this] { return all_threads_stopped(); }, kStopTimeout))
    throw std::runtime_error("slapd did not stop on SIGSTOP");
}

void Slapd::resume() {
  if (!child_) return;
  child_->signal(SIGCONT);
  paused_ = false;
}

int Slapd::count_connections(bool with_unread_requests_only) const {
  int count = 0;
  for (const auto& row : s_tcp_rows())
    if (row.local_port == port_ && row.state == kTcpEstablished && (!with_unread_requests_only || row.rx_queue > 0))
      ++count;
  return count;
}

std::unique_ptr<Slapd> start_directory(bool tls) {
  SlapdOptions options;
  options.ldif =
      "dn: dc=qm,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: qm\ndc: qm\n\n"
      "dn: ou=people,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: people\n\n"
      "dn: ou=staff,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: staff\n\n"
      "dn: ou=services,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: services\n\n"
      "dn: cn=reader,ou=services,dc=qm,dc=test\nobjectClass: organizationalRole\n"
      "objectClass: simpleSecurityObject\ncn: reader\nuserPassword: reader-secret\n\n" +
      s_posix_user("uid=alice,ou=people", "alice", "alice-pw", 1001, {kScannersGroup, kAdminsGroup}) +
      s_posix_user("uid=bob,ou=people", "bob", "bob-pw", 1002) +
      s_posix_user("uid=carol,ou=people", "carol", "carol-pw", 1003, {kScannersGroup}) +
      s_posix_user("uid=lara,ou=people", "lara", "lara-pw", 1004, {kScannersGroup}) +
      s_posix_user("uid=leo,ou=people", "leo", "leo-pw", 1005) +
      s_posix_user("cn=odd one,ou=people", "we)(ird*", "odd-pw", 1006) +
      s_posix_user("cn=back slash,ou=people", "back\\slash", "slash-pw", 1007) +
      s_posix_user("uid=twin,ou=people", "twin", "twin-pw", 1008) +
      s_posix_user("uid=twin,ou=staff", "twin", "twin-pw", 1009);
  options.extra_schema = kMemberOfSchema;
  options.tls = tls;
  return std::make_unique<Slapd>(options);
}

}  // namespace qmtest
