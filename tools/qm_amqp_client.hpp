// A blocking AMQP 1.0 client for qm-amqp-scan, the tests and the benchmarks, on Qpid
// Proton's C++ client: one connection whose container runs on a thread of its own, driven
// from the caller's thread. Every call waits with a deadline.
#pragma once

#include <proton/message.hpp>
#include <proton/message_id.hpp>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace qm_amqp {

struct AmqpLogin {
  std::string user;
  std::string password;
  // The SASL mechanisms the client will use.
  std::string mechanisms = "PLAIN";
  // false: the client skips SASL altogether.
  bool sasl = true;
  // Not empty: amqps, verifying the server against this CA.
  std::string ca_file;
};

enum class Outcome { pending, accepted, rejected, released, settled, failed };

class AmqpClient {
 public:
  // Connects to url ("amqp[s]://host:port") and waits until the connection is open or has
  // failed; the port form connects to 127.0.0.1, with amqps when the login names a CA.
  AmqpClient(const std::string& url, AmqpLogin login, std::chrono::milliseconds timeout = std::chrono::seconds(30));
  AmqpClient(int port, AmqpLogin login, std::chrono::milliseconds timeout = std::chrono::seconds(30));
  ~AmqpClient();
  AmqpClient(const AmqpClient&) = delete;
  AmqpClient& operator=(const AmqpClient&) = delete;

  bool is_open() const;
  // Why the connection failed or ended: "<condition>: <description>".
  std::string error() const;
  // The SASL outcome the server sent (proton::sasl::outcome; -1 before any).
  int sasl_outcome() const;
  // Waits until the connection has ended (closed by either side).
  bool wait_closed(std::chrono::milliseconds timeout);

  // A receiver on `address`, or on a node the server makes when address is empty; returns
  // the address the server gave (empty on failure).
  std::string open_receiver(const std::string& address = "");
  // A sender to `target` (may be empty: each message then names its own `to`); its index.
  int open_sender(const std::string& target);
  // Sends as soon as the sender has credit; the returned ticket names the delivery.
  int send(int sender, const proton::message& msg);
  // The server's outcome for a ticket, once settled (Outcome::pending on time-out).
  Outcome outcome(int ticket, std::chrono::milliseconds timeout);
  // The sender's credit, read after a round trip to the server, so that every flow the
  // server sent before has arrived.
  int credit(int sender);
  // The next message of any receiver.
  std::optional<proton::message> receive(std::chrono::milliseconds timeout);
  // Closes the connection and waits for the client's thread.
  void close();

 private:
  class Handler;
  std::unique_ptr<Handler> handler_;
  std::thread thread_;
};

// A request: body [json] or [json, payload] (payload as AMQP binary), to `to`, replies to
// reply_to, with message id `id`.
proton::message scan_request(const std::string& to, const std::string& json, const std::string* payload,
                             const std::string& reply_to, const proton::message_id& id);

// The strings of a gateway reply's array body: the reply JSON, then any data; empty when
// the body is not such an array.
std::vector<std::string> reply_parts(const proton::message& reply);
// The reply JSON of a gateway reply; "" when absent.
std::string reply_json(const proton::message& reply);

}  // namespace qm_amqp
