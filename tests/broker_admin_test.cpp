// The admin listener of the real broker binary: its endpoints, what Prometheus's own
// tools make of the metrics, and addresses it cannot open. The counters themselves are
// checked in the scenarios that move them (logins, HTTP statuses, relays, restarts).
#include "test_prelude.hpp"

#include "admin_client.hpp"
#include "broker_metrics.hpp"
#include "callout_fixture.hpp"
#include "http_fixture.hpp"

namespace qmtest {
namespace {

constexpr const char* kPrometheus = "/usr/bin/prometheus";
constexpr const char* kPromtool = "/usr/bin/promtool";

// A Prometheus server of the test's own: its storage in a temporary directory, its web
// port free, scraping the admin listener every 200 ms; killed with the object.
class PrometheusServer {
 public:
  explicit PrometheusServer(int target_port) : port_(free_port()) {
    write_file(dir_.file("prometheus.yml"), "global:\n  scrape_interval: 200ms\n  scrape_timeout: 200ms\n"
                                            "scrape_configs:\n  - job_name: broker\n    static_configs:\n"
                                            "      - targets: ['127.0.0.1:" + std::to_string(target_port) + "']\n");
    server_ = std::make_unique<Child>(std::vector<std::string>{
        kPrometheus, "--config.file=" + dir_.file("prometheus.yml"), "--storage.tsdb.path=" + dir_.file("data"),
        "--web.listen-address=127.0.0.1:" + std::to_string(port_), "--log.level=warn"});
  }

  // The value of an instant query's first series; -1 while it has none.
  double query(const std::string& promql) const {
    qm::curl_ptr easy(curl_easy_init());
    qm::c_ptr<char, curl_free> escaped(curl_easy_escape(easy.get(), promql.c_str(), static_cast<int>(promql.size())));
    const HttpResponse response = admin_get(port_, "/api/v1/query?query=" + std::string(escaped.get()));
    const size_t value = response.body.find("\"value\":[");
    const size_t text = value == std::string::npos ? value : response.body.find(",\"", value);
    return text == std::string::npos ? -1 : std::stod(response.body.substr(text + 2));
  }
  std::string log() const { return server_->err(); }

 private:
  TempDir dir_;
  int port_;
  std::unique_ptr<Child> server_;
};

TEST(AdminListener, EndpointsAnswerAndPrometheusScrapesTheMetrics) {
  ASSERT_TRUE(std::filesystem::exists(kPrometheus)) << "install Debian's prometheus package (scripts/setup.sh)";
  const int admin_port = free_port();
  // Prometheus runs its first scrape some 5 s after it starts: it starts first.
  const PrometheusServer prometheus(admin_port);
  CalloutOptions options;
  options.users = {{"alice", "wonder"}};
  options.broker_args = admin_args(admin_port);
  options.broker_args.insert(options.broker_args.end(), {"--http-enabled", "true", "--http-listen-port", "0"});
  CalloutEnv env(options);
  ASSERT_TRUE(wait_until([&] { return admin_get(admin_port, "/readyz").status == 200; }, 10s));

  const struct {
    const char* method;
    const char* path;
    long status;
    const char* body;  // what the body holds
    const char* content_type;
  } rows[] = {
      {"GET", "/healthz", 200, "ok\n", "text/plain"},
      {"GET", "/readyz", 200,
       R"({"status":"ready","checks":{"nats-server":{"ready":true,"state":"connected"},)"
       R"("relay":{"ready":true,"state":"connected"},"auth-callout":{"ready":true,"state":"subscribed"},)"
       R"("http":{"ready":true,"state":"listening"},"update":{"ready":true,"state":"idle"}}})",
       "application/json"},
      {"GET", "/metrics", 200, "# HELP qm_av_broker_build_info ", "text/plain; version=0.0.4; charset=utf-8"},
      {"GET", "/metrics/", 404, "not found\n", "text/plain"},
      {"POST", "/metrics", 405, "method not allowed\n", ""},
      {"DELETE", "/nowhere", 404, "not found\n", "text/plain"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::string(row.method) + " " + row.path);
    HttpRequest request;
    request.url = "http://127.0.0.1:" + std::to_string(admin_port) + row.path;
    request.method = row.method;
    request.target.clear();
    if (request.method == "POST") request.raw_body = "{}";
    const HttpResponse response = http_send(request);
    EXPECT_EQ(response.status, row.status);
    EXPECT_TRUE(response.body.starts_with(row.body)) << response.body;
    EXPECT_EQ(response.content_type, row.content_type);
  }

  const std::string exposition = env.dir().file("metrics.txt");
  write_file(exposition, scrape(admin_port));
  Child promtool({"/bin/sh", "-c", std::string(kPromtool) + " check metrics < " + exposition});
  EXPECT_EQ(promtool.wait(30s), 0) << promtool.out() << promtool.err();

  EXPECT_EQ(nats_login(env.url(), "alice", "wonder").status, NATS_OK);
  EXPECT_NE(nats_login(env.url(), "alice", "guess").status, NATS_OK);
  const auto scraped = [&](const char* verdict) {
    return prometheus.query(std::string(R"(qm_av_broker_auth_requests_total{source="callout",verdict=")") + verdict +
                            "\"}");
  };
  EXPECT_TRUE(wait_until([&] { return scraped("grant") == 1 && scraped("deny") == 1; }, 30s))
      << "grant " << scraped("grant") << ", deny " << scraped("deny") << "\n" << prometheus.log();
  EXPECT_EQ(prometheus.query("qm_av_broker_build_info"), 1);
  EXPECT_EQ(prometheus.query("qm_av_broker_ready"), 1);
}

// A latency lands in the first bucket whose bound it does not exceed, counted in every
// bucket above; the sum is in seconds. A start stamp from the future counts as no time.
TEST(MetricsHistogram, LatenciesLandInTheirBucketsInSeconds) {
  const struct {
    int64_t ago_ns;
    const char* first_bucket;  // the smallest "le" that counts it
    const char* below;         // the bucket just below, which does not ("" for none)
  } rows[] = {
      {100'000, "0.0005", ""},
      {3'000'000, "0.005", "0.0025"},
      {1'200'000'000, "2.5", "1"},
      {45'000'000'000, "+Inf", "30"},
      {-2'000'000, "0.0005", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first_bucket);
    const std::string before = broker_metrics_render();
    broker_metrics_count_relay(BROKER_METRICS_ROUTE_CORE, BROKER_METRICS_RELAY_OK, broker_metrics_now() - row.ago_ns);
    const std::string after = broker_metrics_render();
    const auto bucket = [](const std::string& le) {
      return R"(qm_av_broker_relay_request_duration_seconds_bucket{route="core",le=")" + le + "\"}";
    };
    EXPECT_EQ(metric_delta(before, after, bucket(row.first_bucket)), 1);
    EXPECT_EQ(metric_delta(before, after, bucket("+Inf")), 1);
    if (*row.below != '\0') {
      EXPECT_EQ(metric_delta(before, after, bucket(row.below)), 0);
    }
    const std::string sum = R"(qm_av_broker_relay_request_duration_seconds_sum{route="core"})";
    const double added_s = metric_delta(before, after, sum);
    EXPECT_GE(added_s, std::max(0.0, static_cast<double>(row.ago_ns) / 1e9));
    EXPECT_LT(added_s, static_cast<double>(row.ago_ns) / 1e9 + 0.5);
  }
}

// An operator who asked for the listener relies on it: a broker that cannot open it
// does not start.
TEST(AdminListener, AnAddressThatCannotBeOpenedEndsTheStart) {
  TempDir dir;
  write_file(dir.file("auth.conf"), "");
  const ReservedPort taken;
  taken.listen(1);
  const struct {
    const char* what;
    std::vector<std::string> args;
  } cases[] = {
      {"port out of range", {"--admin-listen-port", "70000"}},
      {"no such host", {"--admin-listen-host", "no-such-host.invalid", "--admin-listen-port", "9"}},
      {"port in use", {"--admin-listen-port", std::to_string(taken.port())}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<std::string> argv{broker_binary(),   "--nats-url",        "nats://127.0.0.1:9", "--nats-server-managed",
                                  "false",           "--auth-signing-key", dir.file("seed"),    "--auth-file",
                                  dir.file("auth.conf")};
    argv.insert(argv.end(), c.args.begin(), c.args.end());
    Child broker(argv);
    EXPECT_EQ(broker.wait(30s), 1);
    EXPECT_LOGGED(broker.err(), "admin: cannot start the admin listener on ");
    EXPECT_NOT_LOGGED(broker.err(), "nats-server: external") << "the start went on";
  }
}

}  // namespace
}  // namespace qmtest
