#include "qm_update_common.hpp"

#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

#include "log.hpp"
#include "md5.hpp"
#include "qm_handles.hpp"
#include "qmerror.hpp"
#include "qmhlp-path-file-operations.hpp"

extern char** environ;

struct qm_update_lockfile {
  std::string path;
  qm::unique_fd fd;
  // As a cluster lock: held by this process since `taken`.
  bool cluster_held = false;
  time_t cluster_taken = 0;
};

namespace {

constexpr size_t kMaxUrlLength = 4095;
constexpr const char* kTempDownloadName = "temp.dwnld";
constexpr const char* kVersionFileName = ".version.qm";
constexpr const char* kInstallScript = "install.sh";
constexpr const char* kLatestLinkName = "latest";
constexpr const char* kMd5Header = "X-Content-Md5: ";
constexpr const char* kLengthHeader = "Content-Length: ";
constexpr const char* kSignatureHeader = "X-Content-Signature: ";
constexpr const char* kSignatureSuffix = ".sig";
constexpr size_t kEd25519SignatureBytes = 64;
// A base64 signature is 88 characters; anything much longer is not one.
constexpr size_t kMaxSignatureText = 256;
constexpr size_t kMd5HeaderMinLength = 46;  // a line must be longer than this
constexpr size_t kLengthHeaderMinLength = 17;
constexpr long kConnectTimeoutSec = 30;
constexpr long kLowSpeedBytesPerSec = 1;
constexpr long kLowSpeedTimeSec = 60;
constexpr long kMaxRedirects = 10;
constexpr int kArchiveBlockSize = 10240;
constexpr size_t kReadBlock = 64 * 1024;
constexpr size_t kVersionDirNameLength = 10;
// Space left free on the extraction file system whatever a package wants.
constexpr uint64_t kExtractReserveBytes = 64ull * 1024 * 1024;

// How often a running install script is looked at, and how long it gets to end on SIGTERM.
constexpr int64_t kInstallPollMs = 50;


std::string s_join(const std::string& dir, const std::string& name) { return dir + "/" + name; }

// ---- download ----------------------------------------------------------------------

void s_curl_global_init() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

int s_hexdigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// Reads 2 * `len` hex characters into `out`; false (and `out` untouched) on a non-hex one.
bool s_hexstring_to_bytearray(std::string_view hex, unsigned char* out, size_t len) {
  if (hex.size() < 2 * len) return false;
  std::vector<unsigned char> bytes(len);
  for (size_t i = 0; i < len; ++i) {
    const int hi = s_hexdigit(hex[2 * i]);
    const int lo = s_hexdigit(hex[2 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    bytes[i] = static_cast<unsigned char>(hi << 4 | lo);
  }
  std::copy(bytes.begin(), bytes.end(), out);
  return true;
}

// Called for every header line of every response, redirects included. Each response
// starts afresh, so the digest and length are those of the response that carries the
// package; names are matched in exactly this spelling.
size_t s_header_callback(char* buffer, size_t size, size_t nitems, void* userdata) noexcept {
  const size_t len = size * nitems;
  qm_update_read_header_line(buffer, len, static_cast<qm_upd_pkg_info_t*>(userdata));
  return len;
}

struct s_abort_check {
  qm_update_abort_fn should_abort;
  void* udata;
};

bool s_abort_requested(const s_abort_check& check) {
  return check.should_abort != nullptr && check.should_abort(check.udata);
}

int s_progress_callback(void* clientp, curl_off_t, curl_off_t, curl_off_t, curl_off_t) noexcept {
  return s_abort_requested(*static_cast<const s_abort_check*>(clientp)) ? 1 : 0;
}

// The package's name from the URL that delivered it: the path's last "/" and what
// follows, or the path without its leading "/" when it has only that one.
int s_get_pkg_filename(std::string* filename, const char* effective_url) {
  if (filename == nullptr) {
    log_error("filename pointer is NULL!");
    return -1;
  }
  if (effective_url == nullptr || *effective_url == '\0') {
    log_error("Effective URL not set");
    return -1;
  }
  log_trace("Effective URL: %s", effective_url);
  qm::curl_url_ptr url(curl_url());
  if (!url) {
    log_error("Failed to create curl_url");
    return -1;
  }
  if (curl_url_set(url.get(), CURLUPART_URL, effective_url, 0) != CURLUE_OK) {
    log_error("Failed to set curl url");
    return -1;
  }
  char* raw_path = nullptr;
  if (curl_url_get(url.get(), CURLUPART_PATH, &raw_path, 0) != CURLUE_OK || raw_path == nullptr) {
    log_error("Failed to la_extract filename from url");
    return -1;
  }
  const std::string path(raw_path);
  curl_free(raw_path);
  const size_t last_slash = path.rfind('/');
  std::string name = last_slash != std::string::npos && last_slash > 0 ? path.substr(last_slash)
                     : path.starts_with("/")                           ? path.substr(1)
                                                                       : path;
  // The name becomes a file in the download directory: it must name a plain entry there.
  const std::string bare = name.starts_with("/") ? name.substr(1) : name;
  if (bare.empty() || bare == "." || bare == "..") {
    log_error("Failed to la_extract filename from url");
    return -1;
  }
  *filename = std::move(name);
  log_debug("Filename: %s\n", filename->c_str());
  return 0;
}

// The file on disk must have the announced length and MD5 digest.
int s_verify_md5(const std::string& file, const qm_upd_pkg_info_t* pkg_info) {
  struct stat st {};
  const long long on_disk = stat(file.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
  if (on_disk < 0 || static_cast<unsigned long long>(on_disk) != pkg_info->size) {
    log_error("Inconsistent file size. From header: %d / Downloaded: %d", static_cast<int>(pkg_info->size),
              static_cast<int>(on_disk));
    return -1;
  }
  qm::unique_fd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
  if (!fd) {
    log_error("Failed to open file for reading");
    return -1;
  }
  md5_state_t* md5 = md5_init();
  if (md5 == nullptr) return -1;
  qm::c_ptr<md5_state_t, md5_free> md5_owner(md5);
  std::vector<char> block(kReadBlock);
  size_t total = 0;
  for (;;) {
    const ssize_t n = read(fd.get(), block.data(), block.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    total += static_cast<size_t>(n);
    if (total > pkg_info->size) {
      log_error("Error reading complete file. Not EOF.");
      return -1;
    }
    if (md5_append(md5, block.data(), static_cast<size_t>(n)) != 0) return -1;
  }
  if (total != pkg_info->size) {
    log_error("Error reading complete file. Sizes don't match.");
    return -1;
  }
  unsigned char digest[MD5_DIGEST_BYTES];
  if (md5_finish(md5_owner.release(), digest) != 0 || memcmp(digest, pkg_info->md5, MD5_DIGEST_BYTES) != 0) {
    log_error("Digests don't match");
    return -1;
  }
  return 0;
}

// ---- signatures ----------------------------------------------------------------------

// The Ed25519 public key of a PEM file ("openssl pkey -pubout"); null (logged) otherwise.
qm::evp_pkey_ptr s_load_public_key(const char* pem_file) {
  qm::file_ptr file(fopen(pem_file, "rbe"));
  if (!file) {
    log_error("Cannot read the update public key %s, %s", pem_file, QMstrerror(errno));
    return nullptr;
  }
  qm::evp_pkey_ptr key(PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr));
  if (!key || EVP_PKEY_get_id(key.get()) != EVP_PKEY_ED25519) {
    log_error("The update public key %s is not an Ed25519 public key in PEM form", pem_file);
    return nullptr;
  }
  return key;
}

// The 64 signature bytes of base64 text; empty when the text is not that.
std::string s_decode_signature(const std::string& text) {
  if (text.empty() || text.size() > kMaxSignatureText || text.size() % 4 != 0) return {};
  std::string bytes(text.size() / 4 * 3, '\0');
  const int n = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
  if (n < 0) return {};
  // The decoder counts the padding as zero bytes.
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with("=") ? 1 : 0;
  bytes.resize(static_cast<size_t>(n) - padding);
  return bytes.size() == kEd25519SignatureBytes ? bytes : std::string();
}

// The whole file, mapped: Ed25519 signs the message itself, not a digest of it.
class s_mapped_file {
 public:
  explicit s_mapped_file(const std::string& path) {
    qm::unique_fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (!fd || fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return;
    size_ = static_cast<size_t>(st.st_size);
    if (size_ == 0) {
      ok_ = true;
      return;
    }
    void* data = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (data == MAP_FAILED) return;
    data_ = static_cast<const unsigned char*>(data);
    ok_ = true;
  }
  ~s_mapped_file() {
    if (data_ != nullptr) munmap(const_cast<unsigned char*>(data_), size_);
  }
  s_mapped_file(const s_mapped_file&) = delete;
  s_mapped_file& operator=(const s_mapped_file&) = delete;
  bool ok() const { return ok_; }
  const unsigned char* data() const { return data_; }
  size_t size() const { return size_; }

 private:
  const unsigned char* data_ = nullptr;
  size_t size_ = 0;
  bool ok_ = false;
};

// 0 when `signature` (base64) is the update key's signature of the file at `path`.
int s_verify_signature(const char* public_key_file, const std::string& path, const std::string& signature,
                       const std::string& shown_name) {
  if (signature.empty()) {
    log_error("Update package %s is not signed \u2014 refusing it", shown_name.c_str());
    return -1;
  }
  const qm::evp_pkey_ptr key = s_load_public_key(public_key_file);
  if (!key) return -1;
  const std::string raw = s_decode_signature(signature);
  const s_mapped_file file(path);
  qm::evp_md_ctx_ptr ctx(EVP_MD_CTX_new());
  const bool valid = !raw.empty() && file.ok() && ctx &&
                     EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
                     EVP_DigestVerify(ctx.get(), reinterpret_cast<const unsigned char*>(raw.data()), raw.size(),
                                      file.data(), file.size()) == 1;
  if (!valid) {
    log_error("Update package %s does not carry a valid signature of the update key %s \u2014 refusing it",
              shown_name.c_str(), public_key_file);
    return -1;
  }
  log_info("Update package %s: signature verified", shown_name.c_str());
  return 0;
}

// The text of a manual package's signature file, without its line end; "" when absent.
std::string s_read_signature_file(const std::string& path) {
  qm::file_ptr file(fopen(path.c_str(), "rbe"));
  if (!file) return {};
  char text[kMaxSignatureText + 2] = "";
  const size_t n = fread(text, 1, sizeof text - 1, file.get());
  std::string signature(text, n);
  while (!signature.empty() && (signature.back() == '\n' || signature.back() == '\r')) signature.pop_back();
  return signature;
}

// "temp.dwnld" in the download directory, never left behind.
class s_temp_download {
 public:
  explicit s_temp_download(const std::string& dir) : path_(s_join(dir, kTempDownloadName)) {}
  ~s_temp_download() {
    file_.reset();
    unlink(path_.c_str());
  }
  s_temp_download(const s_temp_download&) = delete;
  s_temp_download& operator=(const s_temp_download&) = delete;

  bool open() {
    unlink(path_.c_str());
    file_.reset(fopen(path_.c_str(), "wbe"));
    return file_ != nullptr;
  }
  FILE* stream() const { return file_.get(); }
  bool close() { return file_ && std::fclose(file_.release()) == 0; }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
  qm::file_ptr file_;
};

std::string s_request_url(const char* component, const char* curr_ver, const qm_update_config_t* update_config) {
  const std::string base =
      qm::has_text(update_config->update_server) ? *update_config->update_server : QM_UPDATE_DEFAULT_SERVER;
  return base + "/v1/update?component=" + component + "&version=latest&ssl=1&have=" + curr_ver;
}

// Every option but the certificate switches; false when libcurl refuses one.
bool s_set_options(CURL* curl, const std::string& url, s_temp_download& temp, qm_upd_pkg_info_t* pkg_info,
                   const qm_update_config_t* update_config, const qm_network_config_t* network_config,
                   s_abort_check* abort_check, char* error_buffer) {
  bool ok = curl_easy_setopt(curl, CURLOPT_URL, url.c_str()) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error_buffer) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_MAXREDIRS, kMaxRedirects) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https") == CURLE_OK &&
            // A package asked for over TLS never comes over plain HTTP.
            curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, url.starts_with("https:") ? "https" : "http,https") ==
                CURLE_OK &&
            // HTTP/2 would send header names in lower case, which the header reader does not take.
            curl_easy_setopt(curl, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_WRITEDATA, temp.stream()) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, s_header_callback) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_HEADERDATA, pkg_info) == CURLE_OK &&
            // No signals from other threads' point of view, and no way to hang for ever.
            curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSec) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, kLowSpeedBytesPerSec) == CURLE_OK &&
            curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, kLowSpeedTimeSec) == CURLE_OK;
  if (ok && abort_check->should_abort != nullptr) {
    ok = curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, s_progress_callback) == CURLE_OK &&
         curl_easy_setopt(curl, CURLOPT_XFERINFODATA, abort_check) == CURLE_OK &&
         curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L) == CURLE_OK;
  }
  if (ok && qm::has_text(update_config->update_ca_file)) {
    ok = curl_easy_setopt(curl, CURLOPT_CAINFO, update_config->update_ca_file->c_str()) == CURLE_OK;
  }
  if (ok && network_config != nullptr && qm::has_text(network_config->http_proxy)) {
    log_info("Using http proxy: %s", network_config->http_proxy->c_str());
    ok = curl_easy_setopt(curl, CURLOPT_PROXY, network_config->http_proxy->c_str()) == CURLE_OK;
  }
  if (update_config->no_certificate_check) {
    log_info("Disabling certificate verification");
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  }
  return ok;
}

// A 200 response's body is in the closed temp file: verify it and give it its name.
int s_store_package(CURL* curl, s_temp_download& temp, const std::string& dwnld_dir, qm_upd_pkg_info_t* pkg_info,
                    const qm_update_config_t* update_config) {
  log_trace("Got an update");
  if (s_verify_md5(temp.path(), pkg_info) != 0) {
    log_error("Downloaded file failed md5 verification");
    return -1;
  }
  log_trace("MD5 check OK");
  const char* effective_url = nullptr;
  curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective_url);
  std::string filename;
  if (s_get_pkg_filename(&filename, effective_url) != 0) {
    log_error("Failed to obtain package filename");
    return -1;
  }
  // Checked while still the temp file: a refused package never lies in the work directory.
  if (qm::has_text(update_config->update_public_key) &&
      s_verify_signature(update_config->update_public_key->c_str(), temp.path(), pkg_info->signature,
                         filename.starts_with("/") ? filename.substr(1) : filename) != 0)
    return -1;
  const std::string pkg_file = s_join(dwnld_dir, filename);
  if (rename(temp.path().c_str(), pkg_file.c_str()) != 0) {
    log_error("Failed to rename temp file. %s", QMstrerror(errno));
    return -1;
  }
  log_trace("Temp file renamed to %s", pkg_file.c_str());
  pkg_info->filename = std::move(filename);
  pkg_info->pkg_file = pkg_file;
  return 1;
}

// ---- installation ------------------------------------------------------------------

// What one package may still write while it is unpacked.
struct s_extract_budget {
  uint64_t bytes_left;
  size_t entries_left;
  std::string dir;
  qm_update_install_limits_t limits;
};

s_extract_budget s_make_budget(const std::string& dir, const qm_update_install_limits_t& limits) {
  uint64_t bytes = limits.max_extract_bytes;
  struct statvfs fs {};
  if (statvfs(dir.c_str(), &fs) == 0) {
    const uint64_t free_bytes = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize;
    bytes = std::min(bytes, free_bytes > kExtractReserveBytes ? free_bytes - kExtractReserveBytes : 0);
  }
  return {bytes, limits.max_extract_entries, dir, limits};
}

void s_log_budget_exceeded(const s_extract_budget& budget) {
  log_error("Update package expands beyond what it may write to %s (%llu bytes, %zu entries at most) — refusing it",
            budget.dir.c_str(), static_cast<unsigned long long>(budget.limits.max_extract_bytes),
            budget.limits.max_extract_entries);
}

int s_la_copy_data(archive* reader, archive* writer, s_extract_budget& budget) {
  for (;;) {
    const void* block = nullptr;
    size_t size = 0;
    la_int64_t offset = 0;
    int r = archive_read_data_block(reader, &block, &size, &offset);
    if (r == ARCHIVE_EOF) return ARCHIVE_OK;
    if (r < ARCHIVE_OK) {
      log_error("%s", archive_error_string(reader));
      if (r < ARCHIVE_WARN) return r;
    }
    if (size > budget.bytes_left) {
      s_log_budget_exceeded(budget);
      return ARCHIVE_FATAL;
    }
    budget.bytes_left -= size;
    r = static_cast<int>(archive_write_data_block(writer, block, size, offset));
    if (r < ARCHIVE_OK) {
      log_error("%s", archive_error_string(writer));
      if (r < ARCHIVE_WARN) return r;
    }
  }
}

// Writes one entry below the extraction directory; false stops the extraction. Entries
// that would land outside it ("..", absolute paths, through a symbolic link) are
// refused, and a refused entry fails the whole package.
// A package's own name for an entry must stay below the extraction directory.
bool s_entry_name_allowed(const char* name) {
  if (name == nullptr || *name == '\0') return true;  // libarchive refuses it itself
  if (*name == '/') {
    log_error("Path is absolute");
    return false;
  }
  for (std::string_view rest(name); !rest.empty();) {
    const size_t slash = rest.find('/');
    if (rest.substr(0, slash) == "..") {
      log_error("Path contains '..'");
      return false;
    }
    rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
  }
  return true;
}

// Names the entry (and a hard link's target) by its full path below `dir`, so that the
// extraction never depends on the process's current directory.
bool s_root_entry(archive_entry* entry, const std::string& dir) {
  const char* name = archive_entry_pathname(entry);
  const char* hardlink = archive_entry_hardlink(entry);
  if (!s_entry_name_allowed(name) || !s_entry_name_allowed(hardlink)) return false;
  if (name != nullptr && *name != '\0') archive_entry_copy_pathname(entry, s_join(dir, name).c_str());
  if (hardlink != nullptr && *hardlink != '\0') archive_entry_copy_hardlink(entry, s_join(dir, hardlink).c_str());
  return true;
}

bool s_la_extract_entry(archive* reader, archive* writer, archive_entry* entry, s_extract_budget& budget) {
  if (!s_root_entry(entry, budget.dir)) return false;
  const bool announced_too_big =
      archive_entry_size_is_set(entry) && static_cast<uint64_t>(archive_entry_size(entry)) > budget.bytes_left;
  if (budget.entries_left == 0 || announced_too_big) {
    s_log_budget_exceeded(budget);
    return false;
  }
  --budget.entries_left;
  int r = archive_write_header(writer, entry);
  if (r < ARCHIVE_OK) log_error("%s", archive_error_string(writer));
  if (r < ARCHIVE_WARN) return false;
  if (!archive_entry_size_is_set(entry) || archive_entry_size(entry) > 0) {
    if (s_la_copy_data(reader, writer, budget) < ARCHIVE_WARN) return false;
  }
  r = archive_write_finish_entry(writer);
  if (r < ARCHIVE_OK) log_error("%s", archive_error_string(writer));
  return r >= ARCHIVE_WARN;
}

// Unpacks `filename` into budget.dir, whose path holds no symbolic link.
int s_la_extract(const std::string& filename, s_extract_budget budget) {
  qm::archive_read_ptr reader(archive_read_new());
  qm::archive_write_ptr writer(archive_write_disk_new());
  if (!reader || !writer) return -1;
  archive_read_support_filter_all(reader.get());
  archive_read_support_format_all(reader.get());
  archive_write_disk_set_options(writer.get(), ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_ACL |
                                                   ARCHIVE_EXTRACT_FFLAGS | ARCHIVE_EXTRACT_SECURE_NODOTDOT |
                                                   ARCHIVE_EXTRACT_SECURE_SYMLINKS);
  archive_write_disk_set_standard_lookup(writer.get());
  if (archive_read_open_filename(reader.get(), filename.c_str(), kArchiveBlockSize) != ARCHIVE_OK) {
    log_error("%s", archive_error_string(reader.get()));
    return -1;
  }
  for (;;) {
    archive_entry* entry = nullptr;
    const int r = archive_read_next_header(reader.get(), &entry);
    if (r == ARCHIVE_EOF) break;
    if (r < ARCHIVE_OK) log_warn("%s", archive_error_string(reader.get()));
    if (r < ARCHIVE_WARN) return -1;
    if (!s_la_extract_entry(reader.get(), writer.get(), entry, budget)) return -1;
  }
  if (archive_write_close(writer.get()) != ARCHIVE_OK) {
    log_error("%s", archive_error_string(writer.get()));
    return -1;
  }
  return 0;
}

// The 11-character version at the end of a package name ("x_20250301001.zip",
// "x_20250301001_manual.zip"); std::nullopt when there is none.
qm::opt_string s_get_version_from_filename(const std::string& filename) {
  if (filename.empty()) {
    log_error("filename is NULL");
    return std::nullopt;
  }
  std::string stem = filename.substr(0, filename.rfind('.'));
  constexpr std::string_view manual = "_manual";
  if (stem.size() > manual.size() && stem.ends_with(manual)) stem.resize(stem.size() - manual.size());
  const size_t underscore = stem.rfind('_');
  if (underscore == std::string::npos) {
    log_error("No '_' in filename %s — cannot extract version", filename.c_str());
    return std::nullopt;
  }
  std::string version = stem.substr(underscore + 1);
  if (version.size() != QM_UPDATE_VERSION_LEN) {
    log_error("Version string length (%zu) of %s is invalid. Should be %d", version.size(), filename.c_str(),
              static_cast<int>(QM_UPDATE_VERSION_LEN));
    return std::nullopt;
  }
  return version;
}

// The argument quoted for /bin/sh, so that paths with blanks or quotes stay one word.
std::string s_shell_quote(const std::string& arg) {
  std::string quoted = "'";
  for (char c : arg) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

std::string s_describe_wait_status(int status) {
  if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
  if (WIFSIGNALED(status)) return std::string("killed by signal ") + std::to_string(WTERMSIG(status));
  return "status " + std::to_string(status);
}

// Waits for `pid`, resuming after signal interruptions. 0 or -1.
int s_reap(pid_t pid, int* status) {
  while (waitpid(pid, status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  return 0;
}

// Ends the process group that `pid` leads: SIGTERM to all of it, then SIGKILL for
// whatever is still there after a grace period (the script's own children included).
void s_end_process_group(pid_t pid, int* status, int64_t grace_ms) {
  kill(-pid, SIGTERM);
  const int64_t deadline = qm::monotonic_ms() + grace_ms;
  bool reaped = false;
  while (qm::monotonic_ms() < deadline) {
    if (!reaped) reaped = waitpid(pid, status, WNOHANG) != 0;
    // While a member is left the group's id cannot be handed to a new process.
    if (reaped && kill(-pid, 0) != 0) return;
    qm::sleep_ms(kInstallPollMs);
  }
  kill(-pid, SIGKILL);
  if (!reaped) s_reap(pid, status);
}

// Why an install script ended.
enum class s_script_end { finished, stop_requested, timed_out };

// Waits for the script, ending it when a stop is requested or it overruns its time.
// -1 (errno set) when it cannot be waited for.
int s_wait_script(pid_t pid, int* status, const s_abort_check& abort_check, const qm_update_install_limits_t& limits,
                  s_script_end* end) {
  const int64_t deadline = qm::monotonic_ms() + limits.install_time_limit_ms;
  for (;;) {
    const pid_t reaped = waitpid(pid, status, WNOHANG);
    if (reaped == pid) return 0;
    if (reaped < 0 && errno != EINTR) return -1;
    const bool stop = s_abort_requested(abort_check);
    if (stop || qm::monotonic_ms() >= deadline) {
      s_end_process_group(pid, status, limits.install_kill_grace_ms);
      *end = stop ? s_script_end::stop_requested : s_script_end::timed_out;
      return 0;
    }
    qm::sleep_ms(kInstallPollMs);
  }
}

// Owns a posix_spawn attribute and file-action set.
struct s_spawn_setup {
  posix_spawnattr_t attr{};
  posix_spawn_file_actions_t actions{};
  bool ok = false;
  s_spawn_setup() {
    const bool attr_ok = posix_spawnattr_init(&attr) == 0;
    const bool actions_ok = posix_spawn_file_actions_init(&actions) == 0;
    ok = attr_ok && actions_ok;
  }
  ~s_spawn_setup() {
    posix_spawnattr_destroy(&attr);
    posix_spawn_file_actions_destroy(&actions);
  }
  s_spawn_setup(const s_spawn_setup&) = delete;
  s_spawn_setup& operator=(const s_spawn_setup&) = delete;
};

// Runs `command` through /bin/sh like system(3), but in `dir` and in a process of its
// own: this process's signal dispositions (other threads keep theirs) and current
// directory stay as they are. The child gets a default signal state, a process group of
// its own (so that the whole script can be ended) and no descriptor above 2, whatever a
// library opened without close-on-exec. -1 when it could not be started.
int s_run_shell(const std::string& command, const std::string& dir, int* status, const s_abort_check& abort_check,
                const qm_update_install_limits_t& limits, s_script_end* end) {
  s_spawn_setup spawn;
  if (!spawn.ok) return -1;
  sigset_t none;
  sigset_t defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  for (int sig : {SIGINT, SIGQUIT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD}) sigaddset(&defaults, sig);
  posix_spawnattr_setsigmask(&spawn.attr, &none);
  posix_spawnattr_setsigdefault(&spawn.attr, &defaults);
  posix_spawnattr_setpgroup(&spawn.attr, 0);
  posix_spawnattr_setflags(&spawn.attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  if (posix_spawn_file_actions_addchdir_np(&spawn.actions, dir.c_str()) != 0 ||
      posix_spawn_file_actions_addclosefrom_np(&spawn.actions, 3) != 0)
    return -1;
  std::string sh = "sh";
  std::string dash_c = "-c";
  std::string cmd = command;
  char* argv[] = {sh.data(), dash_c.data(), cmd.data(), nullptr};
  pid_t pid = -1;
  const int rc = posix_spawn(&pid, "/bin/sh", &spawn.actions, &spawn.attr, argv, environ);
  if (rc != 0) {
    errno = rc;
    return -1;
  }
  return s_wait_script(pid, status, abort_check, limits, end);
}

const char* s_describe_script_end(s_script_end end) {
  return end == s_script_end::stop_requested ? "ended because the update thread is stopping"
                                             : "ended because it ran longer than allowed";
}

int s_run_install_script(const std::string& script, const std::string& extract_dir, const std::string& basedir,
                         const std::string& content_dir, const s_abort_check& abort_check,
                         const qm_update_install_limits_t& limits) {
  const std::string command = s_shell_quote(script) + " " + s_shell_quote(extract_dir) + " " + s_shell_quote(basedir) +
                              " " + s_shell_quote(content_dir);
  log_trace("Running install script %s", command.c_str());
  int status = 0;
  s_script_end end = s_script_end::finished;
  if (s_run_shell(command, extract_dir, &status, abort_check, limits, &end) != 0) {
    log_error("Failed to run %s: %s", command.c_str(), QMstrerror(errno));
    return -1;
  }
  if (end != s_script_end::finished) {
    log_error("Failed to run %s: %s", command.c_str(), s_describe_script_end(end));
    return -1;
  }
  log_trace("system() returned rc %d", status);
  if (status != 0) {
    log_error("Failed to run %s: %s", command.c_str(), s_describe_wait_status(status).c_str());
    return -1;
  }
  log_trace("Install script %s finished", script.c_str());
  return 0;
}

// A fresh, private extraction directory: whatever was left under its name goes, and a
// directory that someone else created there in the meantime is not used. Its path
// without symbolic links, which the extraction refuses to write through; nullopt on error.
qm::opt_string s_prepare_extract_dir(const std::string& dir) {
  struct stat st {};
  if (lstat(dir.c_str(), &st) == 0) {
    if (S_ISDIR(st.st_mode)) {
      qmhlp_RemoveDir(dir.c_str());
    } else {
      unlink(dir.c_str());
    }
  }
  if (qmhlp_create_dir(dir.c_str(), true, 0750) != 0) return std::nullopt;
  if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
    log_error("Failed to create directory %s, %s", dir.c_str(), "it is not a directory of this user");
    return std::nullopt;
  }
  std::error_code ec;
  const std::filesystem::path resolved = std::filesystem::canonical(dir, ec);
  if (ec) {
    log_error("Failed to create directory %s, %s", dir.c_str(), ec.message().c_str());
    return std::nullopt;
  }
  return resolved.string();
}

// install.sh must be a file of the package itself, not a link to something elsewhere.
bool s_prepare_install_script(const std::string& script) {
  struct stat st {};
  if (lstat(script.c_str(), &st) != 0) {
    log_error("Failed to change permissions of %s, %s", script.c_str(), QMstrerror(errno));
    return false;
  }
  if (!S_ISREG(st.st_mode)) {
    log_error("Failed to change permissions of %s, %s", script.c_str(), "not a regular file");
    return false;
  }
  if (chmod(script.c_str(), 0750) != 0) {
    log_error("Failed to change permissions of %s, %s", script.c_str(), QMstrerror(errno));
    return false;
  }
  return true;
}

// Absolute: the install script runs in another directory than the caller's.
std::string s_absolute(const std::string& path) {
  std::error_code ec;
  const std::filesystem::path absolute = std::filesystem::absolute(path, ec);
  return ec ? path : absolute.string();
}

// The paths of one installation, all absolute.
struct s_install_paths {
  std::string basedir;
  std::string extract_dir;
  std::string new_ver_dir;
  std::string package;
};

int s_install_package(const s_install_paths& paths, const char* content_subdir, const std::string& pkg_filename,
                      const s_abort_check& abort_check, const qm_update_install_limits_t& limits) {
  log_info("Got update for %s. Installing...", content_subdir);
  const std::string content_dir = s_join(paths.new_ver_dir, content_subdir);
  if (qmhlp_create_dir(content_dir.c_str(), true, 0750) != 0) return -1;
  const qm::opt_string extract_dir = s_prepare_extract_dir(paths.extract_dir);
  if (!extract_dir) return -1;
  log_trace("Extracting update to %s", paths.extract_dir.c_str());
  if (qm_update_extract_package(paths.package.c_str(), extract_dir->c_str(), &limits) != 0) {
    log_error("Failed to extract update package");
    return -1;
  }
  const std::string script = s_join(*extract_dir, kInstallScript);
  if (!s_prepare_install_script(script)) return -1;
  const qm::opt_string version = s_get_version_from_filename(pkg_filename);
  if (!version) {
    log_error("Failed to get version from filename");
    return -1;
  }
  if (create_version_file(paths.new_ver_dir.c_str(), content_subdir, version->c_str()) != 0) {
    log_error("Failed to create version file");
    return -1;
  }
  return s_run_install_script(script, paths.extract_dir, paths.basedir, content_dir, abort_check, limits);
}

// ---- pruning and locks -------------------------------------------------------------

bool s_is_version_dir_name(const char* name) {
  return strlen(name) == kVersionDirNameLength &&
         std::all_of(name, name + kVersionDirNameLength, [](char c) { return c >= '0' && c <= '9'; });
}

// The last path component of a link target ("/a/b/1700000000/" gives "1700000000").
std::string s_last_component(std::string target) {
  while (target.size() > 1 && target.ends_with("/")) target.pop_back();
  const size_t slash = target.rfind('/');
  return slash == std::string::npos ? target : target.substr(slash + 1);
}

// The version directories of the open work directory; false on error.
bool s_collect_version_dirs(DIR* dir, std::vector<std::string>& names) {
  while (const dirent* entry = readdir(dir)) {
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    struct stat st {};
    // Links are looked at, not followed: one left dangling must not stop pruning for good.
    if (fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
      log_error("Failed to stat %s, %s", entry->d_name, QMstrerror(errno));
      return false;
    }
    if (S_ISDIR(st.st_mode) && s_is_version_dir_name(entry->d_name)) names.emplace_back(entry->d_name);
  }
  return true;
}

// Takes the lock without waiting; `error` gets errno for -1.
int s_try_lock(qm_update_lockfile_t* lockfile, int* error) {
  *error = 0;
  if (!lockfile->fd) {
    lockfile->fd.reset(open(lockfile->path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
    if (!lockfile->fd) {
      *error = errno;
      log_error("Failed to create/open lock file %s", lockfile->path.c_str());
      return -1;
    }
  }
  if (flock(lockfile->fd.get(), LOCK_EX | LOCK_NB) == 0) return 1;
  *error = errno;
  if (*error == EWOULDBLOCK) {
    log_debug("File already locked");
    return 0;
  }
  log_error("Failed to acquire lock, error=%d: %s", *error, QMstrerror(*error));
  return -1;
}

}  // namespace

void qm_update_read_header_line(const char* buffer, size_t len, qm_upd_pkg_info_t* pkg_info) {
  if (buffer == nullptr || pkg_info == nullptr) return;
  const std::string_view line(buffer, len);
  if (line.starts_with("HTTP/")) {
    memset(pkg_info->md5, 0, sizeof pkg_info->md5);
    pkg_info->size = 0;
    pkg_info->signature.clear();
  } else if (line.starts_with(kSignatureHeader)) {
    std::string_view value = line.substr(strlen(kSignatureHeader));
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' ')) value.remove_suffix(1);
    if (value.size() <= kMaxSignatureText) pkg_info->signature = std::string(value);
  } else if (len > kMd5HeaderMinLength && line.starts_with(kMd5Header)) {
    memset(pkg_info->md5, 0, sizeof pkg_info->md5);
    s_hexstring_to_bytearray(line.substr(strlen(kMd5Header)), pkg_info->md5, sizeof pkg_info->md5);
  } else if (len >= kLengthHeaderMinLength && line.starts_with(kLengthHeader)) {
    const std::string_view digits = line.substr(strlen(kLengthHeader));
    size_t value = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    pkg_info->size = value;
  }
}

int qm_update_extract_package(const char* package, const char* dir, const qm_update_install_limits_t* limits) {
  if (package == nullptr || dir == nullptr) return -1;
  const qm_update_install_limits_t bounds = limits != nullptr ? *limits : qm_update_install_limits_t{};
  return s_la_extract(package, s_make_budget(dir, bounds));
}

void pkg_info_init(qm_upd_pkg_info_t* pkg_info) {
  if (pkg_info != nullptr) *pkg_info = qm_upd_pkg_info{};
}

void pkg_info_free(qm_upd_pkg_info_t* pkg_info) { pkg_info_init(pkg_info); }

int qm_update_download_package(const char* component, const char* curr_ver, const char* dwnld_dir,
                               qm_upd_pkg_info_t* pkg_info, const qm_update_config_t* update_config,
                               const qm_network_config_t* network_config, qm_update_abort_fn should_abort,
                               void* abort_udata) {
  if (component == nullptr || curr_ver == nullptr || dwnld_dir == nullptr || pkg_info == nullptr ||
      update_config == nullptr) {
    log_error("Invalid parameters");
    return -1;
  }
  s_curl_global_init();
  qm::curl_ptr curl(curl_easy_init());
  if (!curl) {
    log_error("curl init failed");
    return -1;
  }
  log_trace("Current version: %s", curr_ver);
  const std::string url = s_request_url(component, curr_ver, update_config);
  if (url.size() > kMaxUrlLength) {
    log_error("Request URL longer than %zu characters", kMaxUrlLength);
    return -1;
  }
  log_info("Requesting URL: %s", url.c_str());
  s_temp_download temp(dwnld_dir);
  if (!temp.open()) {
    log_error("Failed to open temp file for download");
    return -1;
  }
  s_abort_check abort_check{should_abort, abort_udata};
  char error_buffer[CURL_ERROR_SIZE] = "";
  if (!s_set_options(curl.get(), url, temp, pkg_info, update_config, network_config, &abort_check, error_buffer)) {
    log_error("Error setting curl options");
    return -1;
  }
  const CURLcode rc = curl_easy_perform(curl.get());
  if (rc != CURLE_OK) {
    log_error("Error requesting update: %s", *error_buffer != '\0' ? error_buffer : curl_easy_strerror(rc));
    return -1;
  }
  long status = 0;
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &status);
  if (status == 304) {
    log_trace("No update available");
    return 0;
  }
  if (status != 200) {
    log_error("Error on http request. Response code: %d", static_cast<int>(status));
    return -1;
  }
  if (!temp.close()) {
    log_error("Failed to write the download to %s, %s", temp.path().c_str(), QMstrerror(errno));
    return -1;
  }
  return s_store_package(curl.get(), temp, dwnld_dir, pkg_info, update_config);
}

int get_updated_component_from_local(const char* component, const char* dwnld_dir, qm_upd_pkg_info_t* pkg_info,
                                     const qm_update_config_t* update_config) {
  if (component == nullptr || dwnld_dir == nullptr || pkg_info == nullptr) return -1;
  const time_t now = time(nullptr);
  struct tm local {};
  char date[16] = "";
  if (localtime_r(&now, &local) == nullptr || strftime(date, sizeof date, "%Y%m%d", &local) == 0) return -1;
  const std::string version = std::string(date) + "001";
  const std::string name = std::string(component) + "_" + version + "_manual.zip";
  const std::string path = s_join(dwnld_dir, name);
  log_trace("Looking for manual update file %s", path.c_str());
  if (!qmhlp_IsFile(path.c_str())) return 0;
  pkg_info->version = version;
  pkg_info->filename = name;
  pkg_info->pkg_file = path;
  if (access(path.c_str(), R_OK) != 0) {
    log_error("Manual update file %s is not readable", path.c_str());
    return -1;
  }
  if (update_config != nullptr && qm::has_text(update_config->update_public_key)) {
    const std::string signature_file = path + kSignatureSuffix;
    if (s_verify_signature(update_config->update_public_key->c_str(), path, s_read_signature_file(signature_file),
                           name) != 0) {
      unlink(path.c_str());
      unlink(signature_file.c_str());
      pkg_info_init(pkg_info);
      return -1;
    }
  }
  log_info("Manual update available: %s", path.c_str());
  return 1;
}

int update_ver_dir_content(const char* basedir, const char* tempdir, const char* old_ver_dir, const char* new_ver_dir,
                           const char* content_subdir, bool upd_available, qm_upd_pkg_info_t* pkg_info,
                           const char* service_name, qm_update_abort_fn should_abort, void* abort_udata,
                           const qm_update_install_limits* limits) {
  const bool args_ok =
      new_ver_dir != nullptr && content_subdir != nullptr &&
      (upd_available ? basedir != nullptr && tempdir != nullptr && pkg_info != nullptr : old_ver_dir != nullptr);
  if (!args_ok) {
    log_error("Invalid parameters");
    return -1;
  }
  if (!upd_available) {
    log_info("Copying %s to new version folder...", content_subdir);
    const int rc =
        copy_dir_recursive(s_join(old_ver_dir, content_subdir).c_str(), s_join(new_ver_dir, content_subdir).c_str());
    log_trace("Cleaning up");
    return rc;
  }
  const s_install_paths paths{
      s_absolute(basedir),
      s_absolute(s_join(tempdir, std::string("quillmere_update_") + (service_name ? service_name : "unknown"))),
      s_absolute(new_ver_dir), s_absolute(pkg_info->pkg_file)};
  const qm_update_install_limits_t bounds = limits != nullptr ? *limits : qm_update_install_limits_t{};
  const int rc =
      s_install_package(paths, content_subdir, pkg_info->filename, s_abort_check{should_abort, abort_udata}, bounds);
  log_trace("Cleaning up");
  if (qmhlp_IsFile(paths.extract_dir.c_str())) qmhlp_RemoveDir(paths.extract_dir.c_str());
  if (!pkg_info->pkg_file.empty()) {
    unlink(paths.package.c_str());
    unlink((paths.package + kSignatureSuffix).c_str());
  }
  return rc;
}

std::string get_curr_ver(const char* version_dir, const char* content_subdir) {
  if (version_dir == nullptr || content_subdir == nullptr) {
    log_error("Failed to create zfile object for version file");
    return QM_UPDATE_FALLBACK_VERSION;
  }
  const std::string path = s_join(s_join(version_dir, content_subdir), kVersionFileName);
  qm::file_ptr file(fopen(path.c_str(), "rbe"));
  if (!file) {
    log_debug("Failed to open version file: %s", path.c_str());
    return QM_UPDATE_FALLBACK_VERSION;
  }
  char line[256] = "";
  if (fgets(line, sizeof line, file.get()) == nullptr) {
    log_warn("Failed to read from version file");
    return QM_UPDATE_FALLBACK_VERSION;
  }
  std::string version(line);
  const size_t end = version.find_first_of("\r\n");
  if (end != std::string::npos) version.resize(end);
  log_debug("%s version: %s", content_subdir, version.c_str());
  return version;
}

int create_version_file(const char* version_dir, const char* content_subdir, const char* version_str) {
  if (version_dir == nullptr || content_subdir == nullptr) {
    log_error("Failed to create zfile object for version file");
    return -1;
  }
  if (version_str == nullptr || strlen(version_str) < QM_UPDATE_VERSION_LEN) {
    log_error("Failed to set chunk");
    return -1;
  }
  const std::string path = s_join(s_join(version_dir, content_subdir), kVersionFileName);
  qm::unique_fd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!fd) {
    log_error("Failed to open version file for writing: %s", QMstrerror(errno));
    return -1;
  }
  if (write(fd.get(), version_str, QM_UPDATE_VERSION_LEN) != static_cast<ssize_t>(QM_UPDATE_VERSION_LEN) ||
      close(fd.release()) != 0) {
    log_error("Failed to write to version file");
    return -1;
  }
  return 0;
}

int update_latest_link(const char* path, const char* new_ver_dir) {
  if (path == nullptr || new_ver_dir == nullptr) {
    log_error("Failed to create zfile object for latest link");
    return -1;
  }
  // A new link renamed over the old one: there is never a moment without "latest".
  const std::string latest = s_join(path, kLatestLinkName);
  const std::string staged = s_join(path, ".latest.new");
  unlink(staged.c_str());
  if (symlink(new_ver_dir, staged.c_str()) != 0 || rename(staged.c_str(), latest.c_str()) != 0) {
    log_error("Failed to create symlink. %s", QMstrerror(errno));
    unlink(staged.c_str());
    return -1;
  }
  return 0;
}

int clean_old_versions(const char* path, const char* latest, int max_count) {
  if (path == nullptr || latest == nullptr) {
    log_error("Invalid parameters");
    return -1;
  }
  const std::string work_dir = s_absolute(path);
  const std::string latest_link = s_absolute(latest);
  qm::dir_ptr dir(opendir(work_dir.c_str()));
  if (!dir) {
    log_error("Failed to open dir %s", path);
    return -1;
  }
  char target[4096];
  const ssize_t n = readlink(latest_link.c_str(), target, sizeof target - 1);
  if (n < 0) {
    log_error("Failed to read 'latest' symlink: %s", QMstrerror(errno));
    return -1;
  }
  target[n] = '\0';
  std::vector<std::string> versions;
  if (!s_collect_version_dirs(dir.get(), versions)) return -1;
  const size_t keep = static_cast<size_t>(std::max(max_count, 0));
  if (versions.size() <= keep) {
    log_debug("Nothing to clean up");
    return 0;
  }
  // Ten-digit names sort as numbers: oldest first. The active version stays whatever
  // its age, even when no backups at all are wanted.
  std::sort(versions.begin(), versions.end());
  const std::string active = s_last_component(target);
  for (size_t i = 0; i < versions.size() - keep; ++i) {
    if (versions[i] == active) continue;
    log_info("Deleting dir: %s", versions[i].c_str());
    if (remove_dir(work_dir.c_str(), versions[i].c_str()) != 0) return -1;
  }
  return 0;
}

int remove_dir(const char* parent, const char* path) {
  if (path == nullptr) {
    log_error("Invalid parameters");
    return -1;
  }
  std::string full;
  if (parent != nullptr) {
    log_trace("path: %s, parent: %s", path, parent);
    full = s_join(parent, path);
  } else {
    log_trace("path: %s", path);
    full = std::string("/") + path;
  }
  return qmhlp_RemoveDir(full.c_str());
}

qm_update_lockfile_t* qm_update_lockfile_new(const char* path) {
  if (path == nullptr || *path == '\0') return nullptr;
  auto lockfile = std::make_unique<qm_update_lockfile>();
  lockfile->path = path;
  return lockfile.release();
}

void qm_update_lockfile_destroy(qm_update_lockfile_t* lockfile) { std::unique_ptr<qm_update_lockfile> owned(lockfile); }

const char* qm_update_lockfile_path(const qm_update_lockfile_t* lockfile) {
  return lockfile != nullptr ? lockfile->path.c_str() : nullptr;
}

int lock_check_create(qm_update_lockfile_t* lockfile) {
  if (lockfile == nullptr) {
    log_error("lock_check_create: no lock file");
    return -1;
  }
  int error = 0;
  return s_try_lock(lockfile, &error);
}

int lock_release(qm_update_lockfile_t* lockfile) {
  if (lockfile == nullptr) return -1;
  if (!lockfile->fd) {
    log_trace("Lock file %s was never opened — nothing to release", lockfile->path.c_str());
    return 0;
  }
  if (flock(lockfile->fd.get(), LOCK_UN) != 0) {
    log_error("Failed to release lock, %s", QMstrerror(errno));
    return -1;
  }
  log_trace("File %s unlocked successfully", lockfile->path.c_str());
  return 0;
}

qm_update_lockfile_t* qm_update_cluster_lock_new(const char* basedir, const char* service_name) {
  if (basedir == nullptr || service_name == nullptr) {
    log_error("qm_update_cluster_lock_new: basedir and service_name are both required");
    return nullptr;
  }
  const std::string dir = s_join(basedir, "config");
  const std::string name = std::string(".") + service_name + "_update.lck";
  qm_update_lockfile_t* lockfile = qm_update_lockfile_new(s_join(dir, name).c_str());
  if (lockfile == nullptr)
    log_error("qm_update_cluster_lock_new: failed to create zfile for %s/%s", dir.c_str(), name.c_str());
  return lockfile;
}

bool qm_update_cluster_lock_acquire(qm_update_lockfile_t* lockfile, const char* service_name) {
  if (lockfile == nullptr || lockfile->cluster_held) return true;
  int error = 0;
  switch (s_try_lock(lockfile, &error)) {
    case 1:
      lockfile->cluster_taken = time(nullptr);
      lockfile->cluster_held = true;
      log_debug("Took the cluster update lock (%s)", lockfile->path.c_str());
      return true;
    case 0:
      log_info("Another cluster node is updating %s — skipping this check cycle",
               service_name != nullptr ? service_name : "this service");
      return false;
    default:
      log_warn(
          "Cannot use the cluster update lock %s (%s) — proceeding without cluster-wide serialisation; check "
          "that the shared config directory is mounted and writable",
          lockfile->path.c_str(), QMstrerror(error));
      return true;
  }
}

void qm_update_cluster_lock_release(qm_update_lockfile_t* lockfile, const char* reason) {
  if (lockfile == nullptr || !lockfile->cluster_held) return;
  lock_release(lockfile);
  lockfile->cluster_held = false;
  lockfile->cluster_taken = 0;
  log_debug("Released the cluster update lock (%s)", reason != nullptr ? reason : "no reason given");
}

bool qm_update_cluster_lock_is_held(const qm_update_lockfile_t* lockfile) {
  return lockfile != nullptr && lockfile->cluster_held;
}

long qm_update_cluster_lock_held_seconds(const qm_update_lockfile_t* lockfile) {
  if (!qm_update_cluster_lock_is_held(lockfile)) return 0;
  return static_cast<long>(time(nullptr) - lockfile->cluster_taken);
}
