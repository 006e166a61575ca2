// The update server's answer: response header lines up to the first empty line, then the
// package, unpacked within small bounds into a scratch directory. Whatever the package
// holds, nothing lands beside the extraction directory.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "fuzz_file.hpp"
#include "qm_update_common.hpp"

namespace fs = std::filesystem;

namespace {

// Removes a tree whatever modes the package gave its directories; what cannot go stays.
void s_remove_tree(const fs::path& path) {
  std::error_code ec;
  if (fs::is_directory(fs::symlink_status(path, ec))) {
    chmod(path.c_str(), 0700);
    for (const auto& entry : fs::directory_iterator(path, ec)) s_remove_tree(entry.path());
  }
  fs::remove(path, ec);
}

// The run directories' parent, removed when the process ends.
struct s_scratch_dir {
  fs::path path;
  s_scratch_dir() {
    std::string pattern = (fs::temp_directory_path() / "qm-update-fuzz-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) abort();
    path = pattern;
  }
  ~s_scratch_dir() { s_remove_tree(path); }
};

const fs::path& s_scratch() {
  static const s_scratch_dir scratch;
  return scratch.path;
}

void s_read_headers(std::string_view headers) {
  qm_upd_pkg_info_t info;
  while (!headers.empty()) {
    const size_t end = headers.find('\n');
    const std::string_view line = headers.substr(0, end == std::string_view::npos ? headers.size() : end + 1);
    qm_update_read_header_line(line.data(), line.size(), &info);
    headers.remove_prefix(line.size());
  }
  if (info.signature.size() > 256) abort();  // no signature text is longer
}

void s_extract(const uint8_t* data, size_t size) {
  static FuzzFile package;
  static unsigned long run = 0;
  const fs::path dir = s_scratch() / std::to_string(run++);
  fs::create_directory(dir);
  const qm_update_install_limits_t limits{1 << 20, 64, 1000};
  qm_update_extract_package(package.set(data, size).c_str(), dir.c_str(), &limits);
  // Only run directories live in the scratch directory: an escape lands beside them.
  for (const auto& entry : fs::directory_iterator(s_scratch())) {
    const std::string name = entry.path().filename().string();
    if (name.find_first_not_of("0123456789") != std::string::npos) abort();
  }
  s_remove_tree(dir);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t blank = input.find("\r\n\r\n");
  const size_t body = blank == std::string_view::npos ? 0 : blank + 4;
  s_read_headers(input.substr(0, body));
  if (body < size) s_extract(data + body, size - body);
  return 0;
}
