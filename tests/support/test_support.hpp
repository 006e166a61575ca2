// Fixtures shared by the tests: temporary directories, loopback ports, child processes
// with captured output, and waiting on a condition with a deadline.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace qmtest {

// A fresh directory under $TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::string file(const std::string& name) const { return (path_ / name).string(); }

 private:
  std::filesystem::path path_;
};

// A TCP port on 127.0.0.1 that was free a moment ago. Racy: under ctest -j another
// process can take it before the server it is meant for binds it. Let the server choose
// (port 0, nats-server's -1) and read the port back, or hold a ReservedPort instead.
int free_port();

// A TCP connection to 127.0.0.1:port (close-on-exec), or -1 when connect fails. With
// `wait` false the attempt is started and the descriptor returned without its outcome.
int connect_loopback(int port, bool wait = true);

// A port on 127.0.0.1 held for the object's lifetime by a bound socket that does not
// listen: connections to it are refused, and neither free_port() nor an outgoing
// connection anywhere on the machine can be given it. A server that binds with
// SO_REUSEADDR (nats-server does) still can, so it suits a server whose port must be
// known before it starts, and restarts, such as a broker's managed nats-server.
class ReservedPort {
 public:
  ReservedPort();
  ~ReservedPort();
  ReservedPort(const ReservedPort&) = delete;
  ReservedPort& operator=(const ReservedPort&) = delete;

  int port() const { return port_; }
  // Makes the socket listen, for a peer the test plays itself; throws when it cannot.
  void listen(int backlog) const;
  // "<scheme>://127.0.0.1:<port>"
  std::string url(const std::string& scheme = "nats") const;

 private:
  int fd_ = -1;
  int port_ = 0;
};

// A bound UNIX datagram socket standing in for a service manager's notify socket.
// name: a file path, or "@name" for the abstract namespace. Throws when it cannot bind.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& name);
  ~NotifySocket();
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;

  // The next datagram, or "<nothing>" when none comes within 30 s.
  std::string receive() const;

 private:
  int fd_ = -1;
};

// True while pid names a process that has not ended (a zombie has ended).
bool process_running(pid_t pid);

// Whole-file helpers; read_file returns "" for a missing file.
std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
// The names in a directory, "." and ".." left out.
std::set<std::string> dir_entries(const std::string& dir);

// Polls `condition` every few milliseconds until it holds or `timeout` passes.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds timeout);

// A child process whose standard output and error go to files in its own temporary
// directory. It leads a process group of its own; the destructor kills (SIGKILL) the
// whole group, so that what the child started (a broker's nats-server) goes with it,
// and reaps the child.
class Child {
 public:
  // argv[0] is the program path. extra_env entries ("NAME=value") are added to the
  // environment; unset_env names are removed from it.
  Child(std::vector<std::string> argv, std::vector<std::string> extra_env = {},
        std::vector<std::string> unset_env = {});
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  bool running();
  void signal(int sig) const;
  // The exit status (0..255), 128+N for death by signal N, or nullopt on time-out.
  std::optional<int> wait(std::chrono::milliseconds timeout);
  std::string out() const;
  std::string err() const;
  // Waits until standard error contains `text`.
  bool wait_for_err(const std::string& text, std::chrono::milliseconds timeout) const;

 private:
  TempDir dir_;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

// The signal state the broker runs with, in the calling thread while the object lives
// (threads started meanwhile inherit it): SIGINT, SIGTERM, SIGHUP and SIGUSR1 blocked,
// SIGPIPE ignored. For tests that children start clean all the same.
class BrokerSignalState {
 public:
  BrokerSignalState();
  ~BrokerSignalState();
  BrokerSignalState(const BrokerSignalState&) = delete;
  BrokerSignalState& operator=(const BrokerSignalState&) = delete;

 private:
  sigset_t previous_;
};

// The broker binary built with the tests.
std::string broker_binary();

}  // namespace qmtest
