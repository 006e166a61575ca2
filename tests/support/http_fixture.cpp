#include "http_fixture.hpp"

#include "amqp_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace qmtest {

using namespace std::chrono_literals;

namespace {

size_t s_append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

std::string s_header(CURL* easy, const char* name) {
  curl_header* header = nullptr;
  if (curl_easy_header(easy, name, 0, CURLH_HEADER, -1, &header) != CURLHE_OK) return "";
  return header->value;
}

qm::curl_mime_ptr s_form(CURL* easy, const HttpRequest& request) {
  qm::curl_mime_ptr form(curl_mime_init(easy));
  for (const auto& [name, value] : request.fields) {
    curl_mimepart* part = curl_mime_addpart(form.get());
    curl_mime_name(part, name.c_str());
    curl_mime_data(part, value.data(), value.size());
    if (name == "payload") curl_mime_filename(part, "sample.bin");
  }
  return form;
}

}  // namespace

HttpClient::HttpClient() : easy_(curl_easy_init()) {
  if (!easy_) throw std::runtime_error("curl_easy_init failed");
}

HttpResponse HttpClient::send(const HttpRequest& request) {
  CURL* easy = easy_.get();
  curl_easy_reset(easy);  // keeps the connection
  HttpResponse response;
  curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, 120000L);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, s_append);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &response.body);
  if (!request.ca_file.empty()) curl_easy_setopt(easy, CURLOPT_CAINFO, request.ca_file.c_str());
  if (request.basic) {
    curl_easy_setopt(easy, CURLOPT_USERNAME, request.basic->first.c_str());
    curl_easy_setopt(easy, CURLOPT_PASSWORD, request.basic->second.c_str());
  }
  qm::curl_slist_ptr headers(curl_slist_append(nullptr, "Expect:"));
  if (!request.target.empty())
    headers.reset(curl_slist_append(headers.release(), ("X-Target-Service: " + request.target).c_str()));
  qm::curl_mime_ptr form;
  if (request.raw_body) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.raw_body->data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.raw_body->size()));
    // "Content-Type:" alone: no such header at all.
    const std::string type = request.content_type.empty() ? "Content-Type:" : "Content-Type: " + request.content_type;
    headers.reset(curl_slist_append(headers.release(), type.c_str()));
  } else if (!request.fields.empty()) {
    form = s_form(easy, request);
    curl_easy_setopt(easy, CURLOPT_MIMEPOST, form.get());
  }
  if (request.method != "POST") curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers.get());
  response.curl = curl_easy_perform(easy);
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &response.status);
  response.content_type = s_header(easy, "Content-Type");
  response.www_authenticate = s_header(easy, "WWW-Authenticate");
  response.retry_after = s_header(easy, "Retry-After");
  return response;
}

HttpResponse http_send(const HttpRequest& request) { return HttpClient().send(request); }

RawClient::RawClient(int port) : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<uint16_t>(port));
  if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
    throw std::runtime_error("cannot connect to port " + std::to_string(port));
  // A server that stops reading without closing fails the send instead of hanging the test.
  const timeval send_timeout{60, 0};
  setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, sizeof send_timeout);
}

RawClient::~RawClient() { close(fd_); }

bool RawClient::send(const std::string& bytes) {
  for (size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<size_t>(n);
  }
  return true;
}

std::string RawClient::read(std::chrono::milliseconds timeout) {
  std::string received;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  char buf[65536];
  for (pollfd p{fd_, POLLIN, 0}; !closed_; p.revents = 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (poll(&p, 1, static_cast<int>(std::max<int64_t>(left.count(), 0))) <= 0) break;
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    closed_ = n <= 0;
    if (n > 0) received.append(buf, static_cast<size_t>(n));
  }
  return received;
}

std::string RawPost::body() const {
  const size_t at = text.find("\r\n\r\n");
  return at == std::string::npos ? "" : text.substr(at + 4);
}

std::string multipart_headers(const std::string& basic, const std::string& boundary, const std::string& extra) {
  std::string headers = "POST /vsi HTTP/1.1\r\nHost: x\r\nConnection: close\r\nX-Target-Service: scan\r\n"
                        "Content-Type: multipart/form-data; boundary=" + boundary + "\r\n";
  if (!basic.empty()) headers += "Authorization: Basic " + basic + "\r\n";
  return headers + extra + "\r\n";
}

RawPost raw_multipart_post(int port, const std::string& basic, const std::string& payload) {
  const std::string head = "--QmB\r\nContent-Disposition: form-data; name=\"request\"\r\n\r\n{\"scan\":1}\r\n"
                           "--QmB\r\nContent-Disposition: form-data; name=\"payload\"; filename=\"f\"\r\n\r\n";
  const std::string tail = "\r\n--QmB--\r\n";
  const size_t length = head.size() + payload.size() + tail.size();
  RawClient client(port);
  const std::string headers = multipart_headers(basic, "QmB", "Content-Length: " + std::to_string(length) + "\r\n");
  if (client.send(headers + head) && client.send(payload)) client.send(tail);
  RawPost answer;
  answer.text = client.read(60s);
  answer.closed = client.closed();
  return answer;
}

void HttpDoor::drain_and_destroy(gw_auth_cache_t* cache) {
  if (gw_auth_cache_wait_inflight_drain(cache, 6000) == 0) gw_auth_cache_destroy(cache);
}

HttpDoor::HttpDoor(const gw_config_t& relay_config, const user_list& local_users,
                   const std::function<void(gw_config_t&)>& tweak, const gw_auth_cache_timing* timing)
    : cfg_(relay_config) {
  cfg_.http_enabled = true;
  cfg_.http_listen_host = "127.0.0.1";
  cfg_.http_listen_port = 0;  // the kernel's choice: no other server can take it first
  if (tweak) tweak(cfg_);
  write_file(dir_.file("credentials.conf"), CalloutEnv::credentials_text(local_users));
  creds_.reset(gw_credential_store_load(dir_.file("credentials.conf").c_str()));
  relay_.reset(gw_nats_relay_create(&cfg_));
  cache_.reset(gw_auth_cache_create(1024, 120, 10, 50, timing));
  fe_.reset(gw_http_frontend_create(&cfg_, creds_.get(), relay_.get(), cache_.get(), nullptr));
  if (!fe_ || gw_http_frontend_start(fe_.get()) != 0) throw std::runtime_error("the HTTP door did not start");
}

std::string HttpDoor::url(const std::string& path) const {
  const bool tls = qm::has_text(cfg_.http_tls_cert);
  return (tls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port()) + path;
}

HttpRequest HttpDoor::request(const std::string& user, const std::string& password) const {
  HttpRequest request;
  request.url = url();
  request.basic = {user, password};
  request.fields = {{"request", R"({"scan":1})"}};
  return request;
}

int broker_http_port(AmqpEnv& env) {
  const std::string listening = "HTTP frontend started on 0.0.0.0:";
  if (!env.wait_for_log(listening)) throw std::runtime_error("no HTTP door:\n" + env.broker_log());
  const std::string log = env.broker_log();
  return atoi(log.c_str() + log.find(listening) + listening.size());
}

int thread_count() {
  int n = 0;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

long proc_status_kib(pid_t pid, const std::string& field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.rfind(field + ":", 0) == 0) return atol(line.c_str() + field.size() + 1);
  return -1;
}

}  // namespace qmtest
