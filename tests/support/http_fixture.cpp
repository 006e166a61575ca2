#include "http_fixture.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
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

using mime_ptr = qm::c_ptr<curl_mime, curl_mime_free>;

mime_ptr s_form(CURL* easy, const HttpRequest& request) {
  mime_ptr form(curl_mime_init(easy));
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
  mime_ptr form;
  if (request.raw_body) {
    curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.raw_body->data());
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.raw_body->size()));
    // "Content-Type:" alone: no such header at all.
    headers.reset(curl_slist_append(headers.release(), (request.content_type.empty() ? "Content-Type:" : "Content-Type: " + request.content_type).c_str()));
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

std::string RawClient::read_until_close(std::chrono::milliseconds timeout) {
  std::string received;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!closed_) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd p{fd_, POLLIN, 0};
    if (left.count() <= 0 || poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    char buf[65536];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n <= 0) closed_ = true;
    if (n > 0) received.append(buf, static_cast<size_t>(n));
  }
  return received;
}

bool RawClient::closed_within(std::chrono::milliseconds timeout) {
  read_until_close(timeout);
  return closed_;
}

namespace {

CalloutOptions s_callout_options(const user_list& verify_users, std::vector<std::string> broker_args, int tracelevel) {
  CalloutOptions options;
  options.users = verify_users;
  options.users.emplace_back(HttpScanEnv::kWorkerUser, HttpScanEnv::kWorkerPassword);
  options.broker_args = std::move(broker_args);
  options.tracelevel = tracelevel;
  return options;
}

}  // namespace

HttpScanEnv::HttpScanEnv(const user_list& verify_users, std::vector<std::string> broker_args, int tracelevel)
    : callout_(s_callout_options(verify_users, std::move(broker_args), tracelevel)),
      worker_(callout_.url(), "scan", false, tracelevel >= 5 ? 5 : tracelevel, kWorkerUser, kWorkerPassword) {}

gw_config_t HttpScanEnv::relay_config() const {
  gw_config_t cfg;
  cfg.nats_url = callout_.url();
  cfg.nats_user = CalloutEnv::kGatewayUser;
  cfg.nats_password = CalloutEnv::kGatewayPassword;
  return cfg;
}

void HttpDoor::drain_and_destroy(gw_auth_cache_t* cache) {
  if (gw_auth_cache_wait_inflight_drain(cache, 6000) == 0) gw_auth_cache_destroy(cache);
}

HttpDoor::HttpDoor(const gw_config_t& relay_config, const DoorOptions& options) : cfg_(relay_config) {
  cfg_.http_enabled = true;
  cfg_.http_listen_host = "127.0.0.1";
  cfg_.http_listen_port = free_port();
  if (options.tweak) options.tweak(cfg_);
  write_file(dir_.file("credentials.conf"), CalloutEnv::credentials_text(options.local_users));
  creds_.reset(gw_credential_store_load(dir_.file("credentials.conf").c_str()));
  relay_.reset(gw_nats_relay_create(&cfg_));
  if (options.cache)
    cache_.reset(gw_auth_cache_create(1024, options.grant_ttl_s, options.deny_ttl_s, options.refresh_pct));
  fe_.reset(gw_http_frontend_create(&cfg_, creds_.get(), relay_.get(), cache_.get()));
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

int thread_count() {
  int n = 0;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++n;
  return n;
}

}  // namespace qmtest
