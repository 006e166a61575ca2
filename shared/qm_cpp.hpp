// Small C++ helpers used across modules: nullable configuration strings, RAII
// ownership of C library handles, and buffers that wipe themselves.
#pragma once

#include <openssl/crypto.h>

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace qm {

// A configuration string: std::nullopt means "not set".
using opt_string = std::optional<std::string>;

// The C view of an optional string: nullptr when unset.
inline const char* cstr(const opt_string& s) { return s ? s->c_str() : nullptr; }

// Set and not empty.
inline bool has_text(const opt_string& s) { return s && !s->empty(); }

inline opt_string from_cstr(const char* text) { return text ? opt_string(text) : std::nullopt; }

// `text`, or `fallback` in its place when it is NULL (for log lines: "(null)", "(none)").
inline const char* or_text(const char* text, const char* fallback) { return text != nullptr ? text : fallback; }

// Milliseconds of the monotonic clock: for deadlines and ages, never for wall time.
int64_t monotonic_ms();

// Sleeps ms milliseconds, resuming after signal interruptions.
void sleep_ms(int64_t ms);

// A one-way stop request that long waits watch: one thread asks, the waiting ones give
// up at once instead of sleeping out their pause. Never reset.
class stop_flag {
 public:
  stop_flag() = default;
  stop_flag(const stop_flag&) = delete;
  stop_flag& operator=(const stop_flag&) = delete;

  void request();
  bool requested() const;
  // Sleeps ms milliseconds, or less when a stop is requested meanwhile: false then.
  bool sleep_for(int64_t ms) const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable wake_;
  bool requested_ = false;
};

// unique_ptr for a C handle with its destroy function: qm::c_ptr<natsOptions, natsOptions_Destroy>.
template <auto DestroyFn>
struct c_deleter {
  template <class T>
  void operator()(T* p) const noexcept {
    if (p != nullptr) DestroyFn(p);
  }
};
template <class T, auto DestroyFn>
using c_ptr = std::unique_ptr<T, c_deleter<DestroyFn>>;

// Owns memory the C library allocated with malloc.
struct free_deleter {
  void operator()(void* p) const noexcept;
};
template <class T>
using malloc_ptr = std::unique_ptr<T, free_deleter>;

// Bytes that are wiped before their memory is released (passwords, seeds, hash inputs).
class secret_bytes {
 public:
  secret_bytes() = default;
  explicit secret_bytes(size_t n) : bytes_(n) {}
  secret_bytes(const void* data, size_t n)
      : bytes_(static_cast<const unsigned char*>(data), static_cast<const unsigned char*>(data) + n) {}
  secret_bytes(const secret_bytes&) = delete;
  secret_bytes& operator=(const secret_bytes&) = delete;
  secret_bytes(secret_bytes&& other) noexcept = default;
  secret_bytes& operator=(secret_bytes&& other) noexcept {
    if (this != &other) {
      wipe();
      bytes_ = std::move(other.bytes_);
    }
    return *this;
  }
  ~secret_bytes() { wipe(); }

  unsigned char* data() { return bytes_.data(); }
  const unsigned char* data() const { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  void wipe() {
    if (!bytes_.empty()) OPENSSL_cleanse(bytes_.data(), bytes_.size());
    bytes_.clear();
  }

 private:
  std::vector<unsigned char> bytes_;
};

// A string that is wiped when it goes away.
class secret_string {
 public:
  secret_string() = default;
  explicit secret_string(const char* text) : text_(text ? text : "") {}
  explicit secret_string(std::string text) : text_(std::move(text)) {}
  secret_string(const secret_string&) = delete;
  secret_string& operator=(const secret_string&) = delete;
  secret_string(secret_string&& other) noexcept : text_(std::move(other.text_)) { other.wipe(); }
  secret_string& operator=(secret_string&& other) noexcept {
    if (this != &other) {
      wipe();
      text_ = std::move(other.text_);
      other.wipe();
    }
    return *this;
  }
  ~secret_string() { wipe(); }

  const std::string& str() const { return text_; }
  const char* c_str() const { return text_.c_str(); }
  size_t size() const { return text_.size(); }
  bool empty() const { return text_.empty(); }
  void wipe() {
    // Wipe the whole buffer, spare capacity included.
    text_.resize(text_.capacity());
    OPENSSL_cleanse(text_.data(), text_.size());
    text_.clear();
  }

 private:
  std::string text_;
};

}  // namespace qm
