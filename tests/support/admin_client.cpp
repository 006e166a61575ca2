#include "admin_client.hpp"

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <utility>

namespace qmtest {

std::vector<std::string> admin_args(int port) { return {"--admin-listen-port", std::to_string(port)}; }

HttpResponse admin_get(int port, const std::string& path) {
  HttpRequest request;
  request.url = "http://127.0.0.1:" + std::to_string(port) + path;
  request.method = "GET";
  request.target.clear();
  return http_send(request);
}

double metric_value(const std::string& exposition, const std::string& sample) {
  std::istringstream lines(exposition);
  for (std::string line; std::getline(lines, line);) {
    if (line.size() <= sample.size() || line.compare(0, sample.size(), sample) != 0 || line[sample.size()] != ' ')
      continue;
    return std::strtod(line.c_str() + sample.size() + 1, nullptr);
  }
  return -1;
}

double metric_delta(const std::string& before, const std::string& after, const std::string& sample) {
  const double from = metric_value(before, sample), to = metric_value(after, sample);
  return from < 0 || to < 0 ? std::nan("") : to - from;
}

std::string scrape(int port) {
  HttpResponse response = admin_get(port, "/metrics");
  return response.status == 200 ? std::move(response.body) : std::string();
}

}  // namespace qmtest
