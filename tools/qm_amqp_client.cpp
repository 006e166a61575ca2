#include "qm_amqp_client.hpp"

#include <proton/connection.hpp>
#include <proton/connection_options.hpp>
#include <proton/container.hpp>
#include <proton/delivery.hpp>
#include <proton/error_condition.hpp>
#include <proton/codec/vector.hpp>
#include <proton/messaging_handler.hpp>
#include <proton/receiver.hpp>
#include <proton/receiver_options.hpp>
#include <proton/sasl.hpp>
#include <proton/sender.hpp>
#include <proton/sender_options.hpp>
#include <proton/source.hpp>
#include <proton/source_options.hpp>
#include <proton/ssl.hpp>
#include <proton/tracker.hpp>
#include <proton/transport.hpp>
#include <proton/work_queue.hpp>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <vector>

namespace qm_amqp {

// Lives on the container's thread; the public calls reach it through the container's
// work queue and wait on its condition variable.
class AmqpClient::Handler : public proton::messaging_handler {
 public:
  Handler(std::string url, AmqpLogin login) : login_(std::move(login)), url_(std::move(url)), container_(*this) {}

  proton::container& container() { return container_; }

  // Runs fn on the container's thread; false unless the connection is open. The
  // connection's own work queue, since it wakes the container at once (this Proton's
  // container-wide queue waits for the next timer). Held under mu_, which the close
  // event takes before the connection can go away.
  bool post(std::function<void()> fn) {
    std::lock_guard<std::mutex> lock(mu_);
    if (closed_ || work_ == nullptr) return false;
    return work_->add(std::move(fn));
  }

  template <class Pred>
  bool wait(std::chrono::milliseconds timeout, Pred pred) {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, timeout, pred);
  }

  // A copy of shared state, read under mu_.
  template <class T>
  T read(const T& field) {
    std::lock_guard<std::mutex> lock(mu_);
    return field;
  }

  void on_container_start(proton::container& c) override {
    proton::connection_options opts;
    opts.sasl_enabled(login_.sasl).sasl_allow_insecure_mechs(true).sasl_allowed_mechs(login_.mechanisms);
    if (!login_.user.empty()) opts.user(login_.user).password(login_.password);
    if (!login_.ca_file.empty())
      opts.ssl_client_options(proton::ssl_client_options(login_.ca_file, proton::ssl::VERIFY_PEER_NAME));
    c.connect(url_, opts);
  }

  void on_connection_open(proton::connection& c) override {
    connection_ = c;
    update([&] {
      open_ = true;
      work_ = &c.work_queue();
    });
  }

  void on_transport_error(proton::transport& t) override {
    const int outcome = login_.sasl ? static_cast<int>(t.sasl().outcome()) : -1;
    const std::string what = t.error().what();
    update([&] {
      error_ = what;
      sasl_outcome_ = outcome;
    });
  }

  void on_connection_error(proton::connection& c) override {
    const std::string what = c.error().what();
    update([&] { error_ = what; });
  }

  void on_transport_close(proton::transport&) override {
    update([&] {
      closed_ = true;
      open_ = false;
    });
  }

  void on_receiver_open(proton::receiver& r) override {
    const std::string address = r.source().address();
    const std::string name = r.name();
    update([&] { receiver_addresses_[name] = address; });
  }

  void on_sender_open(proton::sender& s) override {
    const std::string name = s.name();
    if (name.rfind("barrier-", 0) == 0) {
      const int index = std::stoi(name.substr(8));
      const int credit = senders_[static_cast<size_t>(index)].credit();
      s.close();
      update([&] { credits_[name] = credit; });
      return;
    }
    update([&] { opened_senders_.push_back(name); });
  }

  void on_sendable(proton::sender& s) override { flush(s); }

  void on_tracker_accept(proton::tracker& t) override { settle(t, Outcome::accepted); }
  void on_tracker_reject(proton::tracker& t) override { settle(t, Outcome::rejected); }
  void on_tracker_release(proton::tracker& t) override { settle(t, Outcome::released); }
  void on_tracker_settle(proton::tracker& t) override { settle(t, Outcome::settled); }

  void on_message(proton::delivery&, proton::message& m) override {
    update([&] { messages_.push_back(m); });
  }

  void on_error(const proton::error_condition& e) override {
    const std::string what = e.what();
    update([&] { error_ = what; });
  }

  // ---- calls made on the container's thread through post() --------------------------

  void do_open_receiver(const std::string& name, const std::string& address) {
    proton::source_options source;
    if (address.empty()) source.dynamic(true);
    else source.address(address);
    proton::receiver_options opts;
    opts.name(name).source(source).credit_window(100);
    connection_.open_receiver(address, opts);
  }

  void do_open_sender(size_t index, const std::string& name, const std::string& target) {
    proton::sender s = connection_.open_sender(target, proton::sender_options().name(name));
    if (senders_.size() <= index) senders_.resize(index + 1);
    senders_[index] = s;
  }

  void do_send(size_t index, int ticket, const proton::message& msg) {
    pending_sends_[index].push_back({ticket, msg});
    flush(senders_[index]);
  }

  void do_barrier(size_t index) {
    connection_.open_sender("barrier", proton::sender_options().name("barrier-" + std::to_string(index)));
  }

  void do_close() {
    if (connection_) connection_.close();
  }

  // ---- state shared with the caller's thread, under mu_ -----------------------------

  bool open_ = false;
  bool closed_ = false;
  std::string error_;
  int sasl_outcome_ = -1;
  std::map<std::string, std::string> receiver_addresses_;
  std::vector<std::string> opened_senders_;
  std::map<std::string, int> credits_;
  std::map<int, Outcome> outcomes_;
  std::deque<proton::message> messages_;

 private:
  template <class Fn>
  void update(Fn fn) {
    {
      std::lock_guard<std::mutex> lock(mu_);
      fn();
    }
    cv_.notify_all();
  }

  void flush(proton::sender& s) {
    size_t index = 0;
    while (index < senders_.size() && senders_[index] != s) ++index;
    auto it = pending_sends_.find(index);
    if (it == pending_sends_.end()) return;
    while (s.credit() > 0 && !it->second.empty()) {
      const auto& [ticket, msg] = it->second.front();
      const std::string tag = std::to_string(ticket);
      s.send(msg, proton::binary(tag.begin(), tag.end()));
      update([&, t = ticket] { outcomes_.emplace(t, Outcome::pending); });
      it->second.pop_front();
    }
  }

  void settle(proton::tracker& t, Outcome outcome) {
    const proton::binary tag = t.tag();
    const int ticket = std::stoi(std::string(tag.begin(), tag.end()));
    update([&] {
      Outcome& current = outcomes_[ticket];
      if (current == Outcome::pending || outcome != Outcome::settled) current = outcome;
    });
  }

  AmqpLogin login_;
  std::string url_;
  proton::container container_;
  proton::work_queue* work_ = nullptr;
  proton::connection connection_;
  std::vector<proton::sender> senders_;
  std::map<size_t, std::deque<std::pair<int, proton::message>>> pending_sends_;
  std::mutex mu_;
  std::condition_variable cv_;
};

AmqpClient::AmqpClient(int port, AmqpLogin login, std::chrono::milliseconds timeout)
    : AmqpClient(std::string(login.ca_file.empty() ? "amqp" : "amqps") + "://127.0.0.1:" + std::to_string(port),
                 login, timeout) {}

AmqpClient::AmqpClient(const std::string& url, AmqpLogin login, std::chrono::milliseconds timeout)
    : handler_(std::make_unique<Handler>(url, std::move(login))) {
  thread_ = std::thread([this] { handler_->container().run(); });
  handler_->wait(timeout, [this] { return handler_->open_ || handler_->closed_; });
}

AmqpClient::~AmqpClient() { close(); }

bool AmqpClient::is_open() const { return handler_->read(handler_->open_); }

std::string AmqpClient::error() const { return handler_->read(handler_->error_); }

int AmqpClient::sasl_outcome() const { return handler_->read(handler_->sasl_outcome_); }

bool AmqpClient::wait_closed(std::chrono::milliseconds timeout) {
  return handler_->wait(timeout, [this] { return handler_->closed_; });
}

std::string AmqpClient::open_receiver(const std::string& address) {
  static std::atomic<int> counter{0};
  const std::string name = "r-" + std::to_string(++counter);
  if (!handler_->post([this, name, address] { handler_->do_open_receiver(name, address); })) return "";
  std::string opened;
  handler_->wait(std::chrono::seconds(30), [&] {
    auto it = handler_->receiver_addresses_.find(name);
    if (it != handler_->receiver_addresses_.end()) opened = it->second;
    return it != handler_->receiver_addresses_.end() || handler_->closed_;
  });
  return opened;
}

int AmqpClient::open_sender(const std::string& target) {
  static std::atomic<int> counter{0};
  const int index = counter++;
  const std::string name = "s-" + std::to_string(index);
  if (!handler_->post([this, index, name, target] { handler_->do_open_sender(static_cast<size_t>(index), name, target); }))
    return -1;
  const bool opened = handler_->wait(std::chrono::seconds(30), [&] {
    const auto& open = handler_->opened_senders_;
    return std::find(open.begin(), open.end(), name) != open.end() || handler_->closed_;
  });
  return opened && !handler_->closed_ ? index : -1;
}

int AmqpClient::send(int sender, const proton::message& msg) {
  static std::atomic<int> counter{0};
  const int ticket = ++counter;
  if (!handler_->post([this, sender, ticket, msg] { handler_->do_send(static_cast<size_t>(sender), ticket, msg); }))
    return -1;
  return ticket;
}

Outcome AmqpClient::outcome(int ticket, std::chrono::milliseconds timeout) {
  Outcome result = Outcome::pending;
  handler_->wait(timeout, [&] {
    auto it = handler_->outcomes_.find(ticket);
    if (it != handler_->outcomes_.end()) result = it->second;
    if (result == Outcome::pending && handler_->closed_) result = Outcome::failed;
    return result != Outcome::pending;
  });
  return result;
}

int AmqpClient::credit(int sender) {
  const std::string name = "barrier-" + std::to_string(sender);
  if (!handler_->post([this, sender] { handler_->do_barrier(static_cast<size_t>(sender)); })) return -1;
  int credit = -1;
  handler_->wait(std::chrono::seconds(30), [&] {
    auto it = handler_->credits_.find(name);
    if (it == handler_->credits_.end()) return handler_->closed_;
    credit = it->second;
    handler_->credits_.erase(it);
    return true;
  });
  return credit;
}

std::optional<proton::message> AmqpClient::receive(std::chrono::milliseconds timeout) {
  std::optional<proton::message> message;
  handler_->wait(timeout, [&] {
    if (handler_->messages_.empty()) return false;
    message = std::move(handler_->messages_.front());
    handler_->messages_.pop_front();
    return true;
  });
  return message;
}

void AmqpClient::close() {
  if (!thread_.joinable()) return;
  if (handler_->post([this] { handler_->do_close(); })) wait_closed(std::chrono::seconds(10));
  handler_->container().stop();
  thread_.join();
}

proton::message scan_request(const std::string& to, const std::string& json, const std::string* payload,
                             const std::string& reply_to, const proton::message_id& id) {
  proton::message msg;
  msg.to(to);
  msg.reply_to(reply_to);
  msg.id(id);
  std::vector<proton::value> body{proton::value(json)};
  if (payload != nullptr) body.emplace_back(proton::binary(payload->begin(), payload->end()));
  msg.body(body);
  return msg;
}

std::vector<std::string> reply_parts(const proton::message& reply) {
  std::vector<std::string> parts;
  try {
    proton::get(reply.body(), parts);
  } catch (const proton::error&) {
    parts.clear();
  }
  return parts;
}

std::string reply_json(const proton::message& reply) {
  const std::vector<std::string> parts = reply_parts(reply);
  return parts.empty() ? "" : parts.front();
}

}  // namespace qm_amqp
