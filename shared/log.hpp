// Process-wide logger: one line per call, to standard error (coloured) and to an
// optional log file (plain) that is rotated by size.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

enum log_level_t {
  QMLOG_OFF = 0,
  QMLOG_FATAL = 1,
  QMLOG_ERROR = 2,
  QMLOG_WARN = 3,
  QMLOG_INFO = 4,
  QMLOG_DEBUG = 5,
  QMLOG_TRACE = 6,
};

// Lock callback: called with lock=1 to take and lock=0 to release; returns 0 or -1.
using log_LockFn = int (*)(void* udata, int lock);

// Program name printed in every line; main replaces it with argv[0] before anything else.
extern const char* qm__progname;

// Emits one line when `level` is at or below the threshold. The threshold starts at
// QMLOG_OFF, so nothing is written until log_set_level is called.
void log_log(int level, const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

void log_set_level(int level);
int log_get_level();
void log_set_quiet(int enable);
void log_set_screentrace(int enable);
// The name is borrowed, not copied: it must stay alive for as long as the logger is used.
void log_set_filename(const char* name);
const char* log_get_filename();
void log_set_maxsize(size_t mb);
size_t log_get_maxsize();
void log_set_udata(void* udata);
void* log_get_udata();
void log_set_lock(log_LockFn fn);

// Most bytes of one value that log_safe lets into a line (its escapes included).
inline constexpr size_t LOG_SAFE_MAX_BYTES = 256;

// Wrap every value that came from outside (a user name, a subject, an address, a method,
// a reason a peer or a server sent, a request body) in log_safe before it goes into a log
// line: log_info("GRANT user=%s", log_safe(user).c_str()). Control characters and
// backslashes are escaped (\n, \r, \t, \\, \xHH; the C1 controls and the Unicode line and
// paragraph separators as \uHHHH), bytes that are not UTF-8 become \xHH, and at most
// LOG_SAFE_MAX_BYTES of the result are kept, followed by "...(N bytes)" when the value
// was cut. So no value can forge a line, colour the terminal or flood the log. The
// const char* form shows NULL as "(null)".
std::string log_safe(std::string_view value);
std::string log_safe(const char* value);

// The level is checked before the arguments are evaluated: a trace line's log_safe copies
// and formatting cost nothing on a request path while tracing is off.
#define QMLOG_AT(level, ...) \
  ((level) <= log_get_level() ? log_log((level), __func__, __FILE_NAME__, __LINE__, __VA_ARGS__) : (void)0)
#define log_fatal(...) QMLOG_AT(QMLOG_FATAL, __VA_ARGS__)
#define log_error(...) QMLOG_AT(QMLOG_ERROR, __VA_ARGS__)
#define log_warn(...) QMLOG_AT(QMLOG_WARN, __VA_ARGS__)
#define log_info(...) QMLOG_AT(QMLOG_INFO, __VA_ARGS__)
#define log_debug(...) QMLOG_AT(QMLOG_DEBUG, __VA_ARGS__)
#define log_trace(...) QMLOG_AT(QMLOG_TRACE, __VA_ARGS__)
