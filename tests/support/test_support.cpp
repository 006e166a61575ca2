#include "test_support.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

// Sanitizer settings of every test binary, whether ctest or a person runs it.
extern "C" const char* __lsan_default_options() { return "suppressions=" QM_SOURCE_DIR "/tests/lsan.supp"; }
extern "C" const char* __ubsan_default_options() { return "print_stacktrace=1:halt_on_error=1"; }

namespace qmtest {

TempDir::TempDir() {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") + "/qmtest-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

int free_port() { return ReservedPort().port(); }

ReservedPort::ReservedPort() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  if (fd_ < 0 || setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
    if (fd_ >= 0) close(fd_);
    throw std::runtime_error("cannot reserve a port");
  }
  port_ = ntohs(addr.sin_port);
}

ReservedPort::~ReservedPort() { close(fd_); }

int connect_loopback(int port, bool wait) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | (wait ? 0 : SOCK_NONBLOCK), 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 && wait) {
    close(fd);
    return -1;
  }
  return fd;
}

void ReservedPort::listen(int backlog) const {
  if (::listen(fd_, backlog) != 0) throw std::runtime_error("cannot listen on port " + std::to_string(port_));
}

std::string ReservedPort::url(const std::string& scheme) const {
  return scheme + "://127.0.0.1:" + std::to_string(port_);
}

NotifySocket::NotifySocket(const std::string& name) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  // An abstract name starts with a NUL and is padded with NULs to the full size, as the
  // sender addresses it.
  memcpy(addr.sun_path + (name[0] == '@'), name.data() + (name[0] == '@'),
         std::min(name.size() - (name[0] == '@'), sizeof addr.sun_path - 1));
  const timeval timeout{30, 0};
  if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
      setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout) != 0) {
    if (fd_ >= 0) close(fd_);
    throw std::runtime_error("cannot bind notify socket " + name);
  }
}

NotifySocket::~NotifySocket() { close(fd_); }

std::string NotifySocket::receive() const {
  char buf[256];
  const ssize_t n = recv(fd_, buf, sizeof buf, 0);
  return n < 0 ? std::string("<nothing>") : std::string(buf, static_cast<size_t>(n));
}

bool process_running(pid_t pid) {
  if (pid <= 0) return false;
  const std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
  const size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && name_end + 2 < stat.size() && stat[name_end + 2] != 'Z' &&
         stat[name_end + 2] != 'X';
}

std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << content;
  if (!out) throw std::runtime_error("cannot write " + path);
}

std::set<std::string> dir_entries(const std::string& dir) {
  std::set<std::string> names;
  for (const auto& e : std::filesystem::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (condition()) return true;
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

Child::Child(std::vector<std::string> argv, std::vector<std::string> extra_env,
             std::vector<std::string> unset_env) {
  const std::string out_path = dir_.file("stdout");
  const std::string err_path = dir_.file("stderr");

  std::vector<std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string entry(*e);
    const std::string name = entry.substr(0, entry.find('='));
    bool drop = false;
    for (const auto& u : unset_env) drop = drop || u == name;
    for (const auto& x : extra_env) drop = drop || x.substr(0, x.find('=')) == name;
    if (!drop) env.push_back(entry);
  }
  env.insert(env.end(), extra_env.begin(), extra_env.end());

  std::vector<char*> argv_c;
  for (auto& a : argv) argv_c.push_back(a.data());
  argv_c.push_back(nullptr);
  std::vector<char*> env_c;
  for (auto& e : env) env_c.push_back(e.data());
  env_c.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    setpgid(0, 0);
    const int out_fd = open(out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int err_fd = open(err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int null_fd = open("/dev/null", O_RDONLY);
    dup2(null_fd, 0);
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    // A clean signal state: the test runner may have blocked or ignored some.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGUSR1}) ::signal(sig, SIG_DFL);
    execve(argv_c[0], argv_c.data(), env_c.data());
    _exit(127);
  }
  setpgid(pid_, pid_);  // both sides, so that the group exists whichever runs first
}

Child::~Child() {
  if (pid_ <= 0) return;
  // The group outlives its leader while anything in it runs, so this also reaches a
  // grandchild whose parent has already ended.
  kill(-pid_, SIGKILL);
  if (running()) wait(std::chrono::seconds(10));
}

bool Child::running() {
  if (pid_ <= 0 || status_) return false;
  int status = 0;
  const pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  return r == 0;
}

void Child::signal(int sig) const {
  if (pid_ > 0 && !status_) kill(pid_, sig);
}

std::optional<int> Child::wait(std::chrono::milliseconds timeout) {
  wait_until([this] { return !running(); }, timeout);
  return status_;
}

std::string Child::out() const { return read_file(dir_.file("stdout")); }
std::string Child::err() const { return read_file(dir_.file("stderr")); }

bool Child::wait_for_err(const std::string& text, std::chrono::milliseconds timeout) const {
  return wait_until([&] { return err().find(text) != std::string::npos; }, timeout);
}

BrokerSignalState::BrokerSignalState() {
  sigset_t blocked;
  sigemptyset(&blocked);
  for (int sig : {SIGINT, SIGTERM, SIGHUP, SIGUSR1}) sigaddset(&blocked, sig);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous_);
  signal(SIGPIPE, SIG_IGN);
}

BrokerSignalState::~BrokerSignalState() {
  pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
  signal(SIGPIPE, SIG_DFL);
}

std::string broker_binary() { return QM_BROKER_BINARY; }

}  // namespace qmtest
