#include "log.hpp"

#include <pthread.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <string>

#include "log-rotate-min.hpp"

const char* qm__progname = "qm-av-broker";

namespace {

struct logger_state {
  void* udata;
  log_LockFn lock;
  int level;
  int quiet;
  size_t maxsize_mb;
  const char* filename;
  bool trace_to_screen;
};

// Zero-initialised: threshold QMLOG_OFF until main configures the logger.
logger_state L;

const char* const level_names[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
const char* const level_colors[] = {"\x1b[94m", "\x1b[36m", "\x1b[31m", "\x1b[33m",
                                    "\x1b[32m", "\x1b[35m", "\x1b[34m"};

constexpr char kLockTimeoutText[] =
    "quillmere Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n";

int s_lock_take() { return L.lock ? L.lock(L.udata, 1) : 0; }
int s_lock_release() { return L.lock ? L.lock(L.udata, 0) : -1; }

// "YYYY-mm-dd HH:MM:SS.mmm" in UTC; empty when the clock cannot be converted.
std::string s_timestamp() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  // Rounded half away from zero, so 1000 can appear just before a second boundary.
  long millis = (now.tv_nsec + 500000) / 1000000;
  struct tm utc {};
  if (gmtime_r(&now.tv_sec, &utc) == nullptr) return {};
  char datetime[20];
  strftime(datetime, sizeof datetime, "%Y-%m-%d %H:%M:%S", &utc);
  char stamp[42];
  snprintf(stamp, sizeof stamp, "%s.%03ld", datetime, millis);
  return stamp;
}

void s_append_vformat(std::string& out, const char* fmt, va_list args) {
  va_list probe;
  va_copy(probe, args);
  int len = vsnprintf(nullptr, 0, fmt, probe);
  va_end(probe);
  if (len <= 0) return;
  size_t start = out.size();
  out.resize(start + static_cast<size_t>(len) + 1);
  vsnprintf(out.data() + start, static_cast<size_t>(len) + 1, fmt, args);
  out.resize(start + static_cast<size_t>(len));
}

void s_append_format(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void s_append_format(std::string& out, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  s_append_vformat(out, fmt, args);
  va_end(args);
}

// Each line is assembled first and written with one call, so that lines of
// concurrent threads do not interleave within a line.
void s_write_screen(const std::string& stamp, int level, const char* func, const char* file, int line,
                    const std::string& message) {
  std::string out;
  s_append_format(out, "[%s] %s%-5s PID: %6d TID: %6lu %s:%s(): ", stamp.c_str(), level_colors[level],
                  level_names[level], static_cast<int>(getpid()),
                  static_cast<unsigned long>(pthread_self()), qm__progname, func);
  out += message;
  s_append_format(out, " \x1b[90m(%s:%d)\x1b[0m \n", file, line);
  fwrite(out.data(), 1, out.size(), stderr);
  fflush(stderr);
}

void s_write_file(const std::string& stamp, int level, const char* func, const char* file, int line,
                  const std::string& message) {
  if (s_lock_take() == -1) {
    fwrite(kLockTimeoutText, 1, sizeof kLockTimeoutText - 1, stderr);
    return;
  }
  if (L.maxsize_mb != 0) (void)QMLogCheckLogSwitch(L.filename, L.maxsize_mb);
  // Opened per line so that the path stays right across rotation and external renames.
  if (FILE* fp = fopen(L.filename, "ae")) {
    std::string out;
    s_append_format(out, "[%s] %-5s PID: %6d TID: %6lu %s:%s(): ", stamp.c_str(), level_names[level],
                    static_cast<int>(getpid()), static_cast<unsigned long>(pthread_self()), qm__progname,
                    func);
    out += message;
    if (L.level == QMLOG_TRACE) s_append_format(out, " (%s:%d)", file, line);
    out += '\n';
    fwrite(out.data(), 1, out.size(), fp);
    fflush(fp);
    fclose(fp);
  }
  (void)s_lock_release();
}

}  // namespace

void log_log(int level, const char* func, const char* file, int line, const char* fmt, ...) {
  if (level > L.level || level < QMLOG_OFF || level > QMLOG_TRACE) return;
  // Neither a file nor screen trace: the daemon is silent, standard error included.
  if (L.filename == nullptr && !L.trace_to_screen) return;

  std::string message;
  va_list args;
  va_start(args, fmt);
  s_append_vformat(message, fmt, args);
  va_end(args);

  const std::string stamp = s_timestamp();
  if (L.quiet == 0 || L.trace_to_screen) s_write_screen(stamp, level, func, file, line, message);
  if (L.filename != nullptr && L.filename[0] != '\0') s_write_file(stamp, level, func, file, line, message);
}

namespace {

// The length of the well-formed UTF-8 sequence at `at` (0 when there is none) and its
// code point: no overlong forms, no surrogates, nothing above U+10FFFF.
size_t s_utf8_sequence(std::string_view s, size_t at, char32_t& cp) {
  const auto lead = static_cast<unsigned char>(s[at]);
  size_t len = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    len = 2;
    cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    len = 3;
    cp = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    len = 4;
    cp = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (len > s.size() - at) return 0;
  for (size_t i = 1; i < len; ++i) {
    const auto next = static_cast<unsigned char>(s[at + i]);
    if (next < (i == 1 ? low : 0x80) || next > (i == 1 ? high : 0xBF)) return 0;
    cp = (cp << 6) | (next & 0x3F);
  }
  return len;
}

// The logged form of the character at `at`; `consumed` says how many bytes it took.
std::string s_escape_one(std::string_view s, size_t at, size_t& consumed) {
  const auto byte = static_cast<unsigned char>(s[at]);
  consumed = 1;
  char escaped[8];
  switch (byte) {
    case '\n':
      return "\\n";
    case '\r':
      return "\\r";
    case '\t':
      return "\\t";
    case '\\':
      return "\\\\";
    default:
      break;
  }
  if (byte < 0x20 || byte == 0x7F) {
    snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    return escaped;
  }
  if (byte < 0x80) return std::string(1, static_cast<char>(byte));
  char32_t cp = 0;
  const size_t len = s_utf8_sequence(s, at, cp);
  if (len == 0) {
    snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    return escaped;
  }
  consumed = len;
  if ((cp >= 0x80 && cp <= 0x9F) || cp == 0x2028 || cp == 0x2029) {
    snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(cp));
    return escaped;
  }
  return std::string(s.substr(at, len));
}

}  // namespace

std::string log_safe(std::string_view value) {
  std::string out;
  size_t at = 0;
  while (at < value.size()) {
    size_t consumed = 0;
    const std::string piece = s_escape_one(value, at, consumed);
    if (out.size() + piece.size() > LOG_SAFE_MAX_BYTES) break;
    out += piece;
    at += consumed;
  }
  if (at < value.size()) out += "...(" + std::to_string(value.size()) + " bytes)";
  return out;
}

std::string log_safe(const char* value) {
  return value == nullptr ? std::string("(null)") : log_safe(std::string_view(value));
}

void log_set_level(int level) { L.level = level; }
int log_get_level() { return L.level; }
void log_set_quiet(int enable) { L.quiet = enable ? 1 : 0; }
void log_set_screentrace(int enable) { L.trace_to_screen = enable != 0; }
void log_set_filename(const char* name) { L.filename = name; }
const char* log_get_filename() { return L.filename; }
void log_set_maxsize(size_t mb) { L.maxsize_mb = mb; }
size_t log_get_maxsize() { return L.maxsize_mb; }
void log_set_udata(void* udata) { L.udata = udata; }
void* log_get_udata() { return L.udata; }
void log_set_lock(log_LockFn fn) { L.lock = fn; }
