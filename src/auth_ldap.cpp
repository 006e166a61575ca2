#include "auth_ldap.hpp"

#include <ldap.h>
#include <strings.h>
#include <sys/time.h>

#include <array>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "broker_metrics.hpp"
#include "log.hpp"
#include "qm_handles.hpp"

namespace {

constexpr const char* kDefaultUserFilter = "(&(objectClass=posixAccount)(uid=%s))";

using ldap_handle = qm::ldap_ptr;
using ldap_message = qm::ldap_message_ptr;
using ldap_string = qm::ldap_string_ptr;
using ldap_values = qm::ldap_values_ptr;

}  // namespace

struct auth_ldap_endpoint {
  std::string url;
  std::string base_dn;
  qm::opt_string bind_dn;  // unset: anonymous service bind
  qm::secret_string bind_password;
  std::string user_filter;
};
using auth_ldap_endpoint_t = auth_ldap_endpoint;

struct pool_slot {
  ldap_handle handle;
  bool in_use = false;
  int64_t last_used_ms = 0;
  int endpoint_idx = -1;
};
using pool_slot_t = pool_slot;

struct auth_ldap_pool {
  std::mutex lock;
  std::vector<pool_slot_t> slots;
  size_t size = 0;
  int idle_timeout_ms = 0;  // 0: connections never go stale
};

struct auth_ldap_ctx {
  std::array<auth_ldap_endpoint_t, 2> endpoints;
  int n_endpoints = 1;
  std::unique_ptr<auth_ldap_pool> pool;
  int pool_size = 0;
  int idle_timeout_seconds = 0;
  qm::opt_string group_attribute;
  qm::opt_string cacert_path;

  auth_ldap_timing timing;
};

namespace {

int64_t s_now_ms(const auth_ldap_ctx_t& ctx) { return ctx.timing.now_ms ? ctx.timing.now_ms() : qm::monotonic_ms(); }

timeval s_timeval(int ms) { return timeval{ms / 1000, (ms % 1000) * 1000}; }

bool s_is_ldaps(const std::string& url) { return strncasecmp(url.c_str(), "ldaps://", 8) == 0; }

// A NULL or empty argument takes the primary's value.
std::string s_inherit(const char* own, const std::string& primary) {
  return own != nullptr && *own != '\0' ? std::string(own) : primary;
}

qm::opt_string s_non_empty(const char* text) {
  return text != nullptr && *text != '\0' ? qm::opt_string(text) : std::nullopt;
}

// RFC 4515 assertion-value escaping, so that a user name can only ever be compared
// for equality and never widens the configured filter.
std::string s_escape_filter_value(const char* value) {
  static const char hex[] = "0123456789abcdef";
  std::string out;
  for (const char* p = value; *p != '\0'; ++p) {
    const auto c = static_cast<unsigned char>(*p);
    if (c == '*' || c == '(' || c == ')' || c == '\\') {
      out += '\\';
      out += hex[c >> 4];
      out += hex[c & 0xf];
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

// Substitutes the escaped user name for "%s" in the template; "%%" stands for "%".
std::string s_build_filter(const std::string& templ, const char* user) {
  const std::string value = s_escape_filter_value(user);
  std::string filter;
  for (size_t i = 0; i < templ.size(); ++i) {
    if (templ[i] == '%' && i + 1 < templ.size() && templ[i + 1] == 's') {
      filter += value;
      ++i;
    } else if (templ[i] == '%' && i + 1 < templ.size() && templ[i + 1] == '%') {
      filter += '%';
      ++i;
    } else {
      filter += templ[i];
    }
  }
  return filter;
}

void s_log_diagnostic(LDAP* ld, const char* label) {
  char* raw = nullptr;
  if (ldap_get_option(ld, LDAP_OPT_DIAGNOSTIC_MESSAGE, &raw) != LDAP_OPT_SUCCESS) return;
  const ldap_string message(raw);
  if (message && message.get()[0] != '\0')
    log_error("auth_ldap: %s diagnostic: %s", label, log_safe(message.get()).c_str());
}

void s_apply_tls_options(const auth_ldap_ctx_t& ctx, LDAP* ld, const std::string& url) {
  if (!ctx.cacert_path || !s_is_ldaps(url)) return;
  int rc = ldap_set_option(ld, LDAP_OPT_X_TLS_CACERTFILE, ctx.cacert_path->c_str());
  if (rc != LDAP_OPT_SUCCESS)
    log_warn("auth_ldap: LDAP_OPT_X_TLS_CACERTFILE(%s) failed: %s", ctx.cacert_path->c_str(),
             ldap_err2string(rc));
  const int demand = LDAP_OPT_X_TLS_DEMAND;
  rc = ldap_set_option(ld, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
  if (rc != LDAP_OPT_SUCCESS)
    log_warn("auth_ldap: LDAP_OPT_X_TLS_REQUIRE_CERT(DEMAND) failed: %s", ldap_err2string(rc));
  // The options above only reach the handle's own TLS context once a new one is made.
  const int client_ctx = 0;
  rc = ldap_set_option(ld, LDAP_OPT_X_TLS_NEWCTX, &client_ctx);
  if (rc != LDAP_OPT_SUCCESS)
    log_warn("auth_ldap: LDAP_OPT_X_TLS_NEWCTX failed: %s \u2014 TLS options above may not have taken effect",
             ldap_err2string(rc));
}

// A handle with protocol 3, the time-outs and the TLS options; nothing is sent yet.
ldap_handle s_initialize(const auth_ldap_ctx_t& ctx, const std::string& url) {
  LDAP* raw = nullptr;
  const int rc = ldap_initialize(&raw, url.c_str());
  ldap_handle ld(raw);
  if (rc != LDAP_SUCCESS || !ld) {
    log_error("auth_ldap: ldap_initialize(%s) failed: %s", url.c_str(), ldap_err2string(rc));
    return nullptr;
  }
  const int version = LDAP_VERSION3;
  ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
  const timeval network = s_timeval(ctx.timing.network_ms);
  ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &network);
  // Synchronous binds and searches wait at most this long for the server's answer.
  const timeval operation = s_timeval(ctx.timing.operation_ms);
  ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &operation);
  s_apply_tls_options(ctx, ld.get(), url);
  return ld;
}

int s_simple_bind(LDAP* ld, const char* dn, const char* password) {
  berval cred{};
  cred.bv_val = const_cast<char*>(password);
  cred.bv_len = std::strlen(password);
  return ldap_sasl_bind_s(ld, dn, LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
}

ldap_handle s_open_service_connection(const auth_ldap_ctx_t& ctx, int endpoint_idx) {
  const auth_ldap_endpoint_t& ep = ctx.endpoints[static_cast<size_t>(endpoint_idx)];
  ldap_handle ld = s_initialize(ctx, ep.url);
  if (!ld) return nullptr;
  const int rc = s_simple_bind(ld.get(), qm::cstr(ep.bind_dn), ep.bind_password.c_str());
  if (rc != LDAP_SUCCESS) {
    log_error("auth_ldap: service bind as %s on %s failed: %s", ep.bind_dn ? ep.bind_dn->c_str() : "(null)",
              ep.url.c_str(), ldap_err2string(rc));
    s_log_diagnostic(ld.get(), "service bind");
    return nullptr;
  }
  log_trace("auth_ldap: opened+bound new connection (url=%s)", ep.url.c_str());
  return ld;
}

// Always starts at the primary, so that a primary that comes back is used again.
ldap_handle s_open_by_failover(const auth_ldap_ctx_t& ctx, int* endpoint_idx) {
  for (int i = 0; i < ctx.n_endpoints; ++i) {
    if (ctx.endpoints[static_cast<size_t>(i)].url.empty()) break;
    ldap_handle ld = s_open_service_connection(ctx, i);
    if (!ld) continue;
    broker_metrics_count_ldap_connect(i);
    if (i != 0)
      log_warn("auth_ldap: primary endpoint unreachable; using fallback (url=%s)",
               ctx.endpoints[static_cast<size_t>(i)].url.c_str());
    *endpoint_idx = i;
    return ld;
  }
  log_error("auth_ldap: all %d endpoint(s) failed; no service-bind connection available", ctx.n_endpoints);
  broker_metrics_count_ldap_connect(-1);
  *endpoint_idx = -1;
  return nullptr;
}

// A service-bound connection that one thread uses for one search.
struct service_lease {
  LDAP* handle = nullptr;
  ldap_handle one_shot;  // owns the handle when it is not pooled
  bool pooled = false;
  int endpoint_idx = -1;
};

bool s_is_fresh(const auth_ldap_pool& pool, const pool_slot_t& slot, int64_t now) {
  return pool.idle_timeout_ms == 0 || now - slot.last_used_ms < pool.idle_timeout_ms;
}

service_lease s_acquire_one_shot(const auth_ldap_ctx_t& ctx) {
  service_lease lease;
  lease.one_shot = s_open_by_failover(ctx, &lease.endpoint_idx);
  lease.handle = lease.one_shot.get();
  return lease;
}

service_lease s_acquire(const auth_ldap_ctx_t& ctx) {
  if (!ctx.pool) return s_acquire_one_shot(ctx);
  auth_ldap_pool& pool = *ctx.pool;

  pool_slot_t* chosen = nullptr;
  ldap_handle stale;
  {
    const std::lock_guard guard(pool.lock);
    const int64_t now = s_now_ms(ctx);
    pool_slot_t* first_stale = nullptr;
    pool_slot_t* first_empty = nullptr;
    for (pool_slot_t& slot : pool.slots) {
      if (slot.in_use) continue;
      if (!slot.handle) {
        if (first_empty == nullptr) first_empty = &slot;
      } else if (s_is_fresh(pool, slot, now)) {
        slot.in_use = true;
        service_lease lease;
        lease.handle = slot.handle.get();
        lease.pooled = true;
        lease.endpoint_idx = slot.endpoint_idx;
        return lease;
      } else if (first_stale == nullptr) {
        first_stale = &slot;
      }
    }
    chosen = first_stale != nullptr ? first_stale : first_empty;
    if (chosen != nullptr) {
      stale = std::move(chosen->handle);  // unbound below, outside the lock
      chosen->endpoint_idx = -1;
      chosen->in_use = true;
    }
  }
  stale.reset();

  if (chosen == nullptr) {
    log_trace("auth_ldap: pool exhausted (size=%zu); using one-shot connection", pool.size);
    return s_acquire_one_shot(ctx);
  }

  int endpoint_idx = -1;
  ldap_handle ld = s_open_by_failover(ctx, &endpoint_idx);
  const std::lock_guard guard(pool.lock);
  if (!ld) {
    chosen->in_use = false;
    chosen->endpoint_idx = -1;
    return {};
  }
  service_lease lease;
  lease.handle = ld.get();
  lease.pooled = true;
  lease.endpoint_idx = endpoint_idx;
  chosen->handle = std::move(ld);
  chosen->endpoint_idx = endpoint_idx;
  return lease;
}

// Hands a connection back: a one-shot or discarded one is unbound, a pooled one becomes
// idle. A handle the pool does not know is closed rather than kept.
void ldap_pool_release(const auth_ldap_ctx_t& ctx, service_lease& lease, bool discard) {
  if (lease.handle == nullptr) return;
  if (!lease.pooled || !ctx.pool) {
    lease.one_shot.reset();
    lease.handle = nullptr;
    return;
  }
  ldap_handle closing;
  {
    auth_ldap_pool& pool = *ctx.pool;
    const std::lock_guard guard(pool.lock);
    pool_slot_t* owner = nullptr;
    for (pool_slot_t& slot : pool.slots)
      if (slot.handle.get() == lease.handle) owner = &slot;
    if (owner == nullptr) {
      log_warn("auth_ldap: release of unknown handle (closing)");
      closing.reset(lease.handle);
    } else if (discard) {
      closing = std::move(owner->handle);
      owner->in_use = false;
      owner->endpoint_idx = -1;
    } else {
      owner->last_used_ms = s_now_ms(ctx);
      owner->in_use = false;
    }
  }
  lease.handle = nullptr;
}

struct search_result {
  bool connected = true;  // false: no service connection at all, so nothing was searched
  int rc = LDAP_SUCCESS;
  std::string dn;  // empty: no entry
  std::vector<std::string> groups;
};

search_result ldap_find_user_dn_and_groups(const auth_ldap_ctx_t& ctx, LDAP* ld, const auth_ldap_endpoint_t& ep,
                                           const char* user, bool want_groups) {
  search_result result;
  const std::string filter = s_build_filter(ep.user_filter, user);
  const bool fetch_groups = want_groups && ctx.group_attribute;
  std::array<char*, 3> attrs{const_cast<char*>("dn"),
                             fetch_groups ? const_cast<char*>(ctx.group_attribute->c_str()) : nullptr, nullptr};
  timeval limit = s_timeval(ctx.timing.operation_ms);
  LDAPMessage* raw = nullptr;
  result.rc = ldap_search_ext_s(ld, ep.base_dn.c_str(), LDAP_SCOPE_SUBTREE, filter.c_str(), attrs.data(), 0,
                                nullptr, nullptr, &limit, 1, &raw);
  const ldap_message response(raw);
  if (result.rc != LDAP_SUCCESS) return result;

  LDAPMessage* entry = ldap_first_entry(ld, response.get());
  if (entry == nullptr) return result;
  const ldap_string dn(ldap_get_dn(ld, entry));
  if (!dn) return result;
  result.dn = dn.get();
  if (fetch_groups) {
    const ldap_values values(ldap_get_values_len(ld, entry, ctx.group_attribute->c_str()));
    if (values)
      for (berval** v = values.get(); *v != nullptr; ++v) result.groups.emplace_back((*v)->bv_val, (*v)->bv_len);
  }
  return result;
}

// Releases its connection when it goes out of scope, discarding it unless keep() was
// called, so that a throwing search neither leaks the handle nor blocks the slot.
class scoped_lease {
 public:
  explicit scoped_lease(const auth_ldap_ctx_t& ctx) : ctx_(ctx), lease_(s_acquire(ctx)) {}
  ~scoped_lease() {
    try {
      ldap_pool_release(ctx_, lease_, discard_);
    } catch (...) {
      // Only the log line can throw; the slot bookkeeping is done by then.
    }
  }
  scoped_lease(const scoped_lease&) = delete;
  scoped_lease& operator=(const scoped_lease&) = delete;

  LDAP* handle() const { return lease_.handle; }
  int endpoint_idx() const { return lease_.endpoint_idx; }
  void keep() { discard_ = false; }

 private:
  const auth_ldap_ctx_t& ctx_;
  service_lease lease_;
  bool discard_ = true;
};

search_result s_search_once(const auth_ldap_ctx_t& ctx, const char* user, bool want_groups, int* endpoint_idx) {
  scoped_lease lease(ctx);
  *endpoint_idx = lease.endpoint_idx();
  if (lease.handle() == nullptr) {
    search_result failed;
    failed.connected = false;
    failed.rc = LDAP_SERVER_DOWN;
    return failed;
  }
  search_result found = ldap_find_user_dn_and_groups(
      ctx, lease.handle(), ctx.endpoints[static_cast<size_t>(lease.endpoint_idx())], user, want_groups);
  if (found.rc == LDAP_SUCCESS) lease.keep();
  return found;
}

bool s_user_bind(const auth_ldap_ctx_t& ctx, const std::string& url, const std::string& dn, const char* password) {
  const ldap_handle ld = s_initialize(ctx, url);
  if (!ld) return false;
  const int rc = s_simple_bind(ld.get(), dn.c_str(), password);
  if (rc == LDAP_SUCCESS) return true;
  log_warn("auth_ldap: user bind as %s failed: %s", log_safe(dn).c_str(), ldap_err2string(rc));
  s_log_diagnostic(ld.get(), "user bind");
  return false;
}

int s_copy_groups(const std::vector<std::string>& groups, ldap_user_info_t* out) {
  if (groups.empty()) return 0;
  auto** list = static_cast<char**>(std::calloc(groups.size(), sizeof(char*)));
  if (list == nullptr) return -1;
  for (size_t i = 0; i < groups.size(); ++i) {
    list[i] = strndup(groups[i].data(), groups[i].size());
    if (list[i] == nullptr) {
      for (size_t j = 0; j < i; ++j) std::free(list[j]);
      std::free(list);
      return -1;
    }
  }
  out->groups = list;
  out->n_groups = static_cast<int>(groups.size());
  return 0;
}

bool ldap_validate_inner(const auth_ldap_ctx_t& ctx, const char* user, const char* password,
                         ldap_user_info_t* out_info) {
  // An empty simple bind is an unauthenticated bind, which servers accept: never a login.
  if (user == nullptr || password == nullptr || *password == '\0') return false;
  const bool want_groups = out_info != nullptr;

  int endpoint_idx = -1;
  search_result found = s_search_once(ctx, user, want_groups, &endpoint_idx);
  // Without any connection the walk has just failed on every endpoint: walking again
  // would only double the wait.
  if (found.connected && found.rc != LDAP_SUCCESS && ctx.n_endpoints == 2) {
    log_warn("auth_ldap: search on endpoint %s failed (rc=%s); retrying via failover walk",
             ctx.endpoints[static_cast<size_t>(endpoint_idx)].url.c_str(), ldap_err2string(found.rc));
    found = s_search_once(ctx, user, want_groups, &endpoint_idx);
  }
  if (found.rc != LDAP_SUCCESS || found.dn.empty()) return false;

  const std::string& url = ctx.endpoints[static_cast<size_t>(endpoint_idx)].url;
  if (!s_user_bind(ctx, url, found.dn, password)) return false;
  if (out_info != nullptr && s_copy_groups(found.groups, out_info) != 0) return false;
  return true;
}

auth_ldap_endpoint_t s_primary_endpoint(const char* url, const char* base_dn, const char* bind_dn,
                                        const char* bind_password, const char* user_filter) {
  auth_ldap_endpoint_t ep;
  ep.url = url;
  ep.base_dn = base_dn;
  ep.bind_dn = qm::from_cstr(bind_dn);
  ep.bind_password = qm::secret_string(bind_password);
  ep.user_filter = user_filter != nullptr ? user_filter : kDefaultUserFilter;
  return ep;
}

auth_ldap_endpoint_t s_fallback_endpoint(const auth_ldap_endpoint_t& primary, const char* url, const char* base_dn,
                                         const char* bind_dn, const char* bind_password, const char* user_filter) {
  auth_ldap_endpoint_t ep;
  ep.url = url;
  ep.base_dn = s_inherit(base_dn, primary.base_dn);
  ep.bind_dn = bind_dn != nullptr && *bind_dn != '\0' ? qm::opt_string(bind_dn) : primary.bind_dn;
  // Straight from C strings, so that no unwiped temporary copy of the password is left.
  const bool own_password = bind_password != nullptr && *bind_password != '\0';
  ep.bind_password = qm::secret_string(own_password ? bind_password : primary.bind_password.c_str());
  ep.user_filter = s_inherit(user_filter, primary.user_filter);
  return ep;
}

void s_create_pool(auth_ldap_ctx_t& ctx, int pool_size, int idle_timeout_seconds) {
  if (pool_size < 1) {
    log_info("auth_ldap: pooling disabled (fresh connection per request)");
    return;
  }
  try {
    auto pool = std::make_unique<auth_ldap_pool>();
    pool->slots.resize(static_cast<size_t>(pool_size));
    pool->size = static_cast<size_t>(pool_size);
    pool->idle_timeout_ms = idle_timeout_seconds < 1                     ? 0
                            : idle_timeout_seconds > INT_MAX / 1000 ? INT_MAX
                                                                    : idle_timeout_seconds * 1000;
    ctx.pool = std::move(pool);
  } catch (const std::exception&) {
    log_warn("auth_ldap: pool allocation failed; falling back to fresh-connection-per-request");
    return;
  }
  log_info("auth_ldap: connection pool enabled (size=%d, idle_timeout=%ds)", pool_size, idle_timeout_seconds);
}

}  // namespace

void ldap_user_info_free(ldap_user_info_t* info) {
  if (info == nullptr) return;
  for (int i = 0; i < info->n_groups; ++i) std::free(info->groups[i]);
  std::free(static_cast<void*>(info->groups));
  info->groups = nullptr;
  info->n_groups = 0;
}

auth_ldap_ctx_t* auth_ldap_init(const char* url, const char* base_dn, const char* bind_dn,
                                const char* bind_password, const char* user_filter,
                                const char* fallback_url, const char* fallback_base_dn,
                                const char* fallback_bind_dn, const char* fallback_bind_password,
                                const char* fallback_user_filter, int pool_size,
                                int idle_timeout_seconds, const char* group_attribute,
                                const char* cacert_path, const auth_ldap_timing* timing) {
  if (url == nullptr || base_dn == nullptr) return nullptr;
  try {
    auto ctx = std::make_unique<auth_ldap_ctx_t>();
    ctx->endpoints[0] = s_primary_endpoint(url, base_dn, bind_dn, bind_password, user_filter);
    if (fallback_url != nullptr && *fallback_url != '\0') {
      ctx->endpoints[1] = s_fallback_endpoint(ctx->endpoints[0], fallback_url, fallback_base_dn, fallback_bind_dn,
                                              fallback_bind_password, fallback_user_filter);
      ctx->n_endpoints = 2;
      log_info("auth_ldap: primary=%s fallback=%s", url, fallback_url);
    } else {
      log_info("auth_ldap: primary=%s (no fallback configured)", url);
    }
    ctx->group_attribute = s_non_empty(group_attribute);
    ctx->cacert_path = s_non_empty(cacert_path);
    if (timing != nullptr) ctx->timing = *timing;
    ctx->pool_size = pool_size;
    ctx->idle_timeout_seconds = idle_timeout_seconds;
    s_create_pool(*ctx, pool_size, idle_timeout_seconds);
    return ctx.release();
  } catch (...) {
    return nullptr;
  }
}

bool auth_ldap_validate(auth_ldap_ctx_t* ctx, const char* user, const char* password) {
  return auth_ldap_validate_ext(ctx, user, password, nullptr);
}

bool auth_ldap_validate_ext(auth_ldap_ctx_t* ctx, const char* user, const char* password,
                            ldap_user_info_t* out_info) {
  if (out_info != nullptr) *out_info = ldap_user_info_t{};
  if (ctx == nullptr) return false;
  try {
    return ldap_validate_inner(*ctx, user, password, out_info);
  } catch (...) {
    return false;
  }
}

void auth_ldap_destroy(auth_ldap_ctx_t* ctx) { std::unique_ptr<auth_ldap_ctx_t> owned(ctx); }
