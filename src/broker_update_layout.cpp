#include "broker_update_layout.hpp"

#include <string_view>

namespace {

constexpr const char* kWorkDirName = "qm-av-broker";
// nats-server lives at <base>/qm-av-broker/latest/bin/nats-server.
constexpr int kComponentsBelowBase = 4;

}  // namespace

qm::opt_string broker_update_basedir(const char* nats_server_binary) {
  if (nats_server_binary == nullptr) return std::nullopt;
  std::string_view path(nats_server_binary);
  for (int i = 0; i < kComponentsBelowBase; ++i) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return std::nullopt;
    path = path.substr(0, slash);
  }
  return path.empty() ? std::string("/") : std::string(path);
}

std::string broker_update_workdir(const std::string& basedir) {
  return basedir.ends_with("/") ? basedir + kWorkDirName : basedir + "/" + kWorkDirName;
}
