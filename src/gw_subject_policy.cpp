#include "gw_subject_policy.hpp"

#include <cstring>
#include <string_view>

#include "auth_profile.hpp"
#include "gw_subject_rewrite.hpp"
#include "qm_cpp.hpp"

namespace {

// Printable ASCII without the blank: anything else either ends a protocol line, splits
// its fields, or is not worth the doubt.
bool s_plain_byte(char c) { return c > ' ' && c < 0x7f; }

bool s_is_wildcard_token(std::string_view token) { return token == "*" || token == ">"; }

// Calls fn(token) for each '.'-separated token; false as soon as fn does.
template <class Fn>
bool s_each_token(std::string_view subject, Fn fn) {
  size_t from = 0;
  while (true) {
    const size_t dot = subject.find('.', from);
    if (!fn(subject.substr(from, dot == std::string_view::npos ? std::string_view::npos : dot - from))) return false;
    if (dot == std::string_view::npos) return true;
    from = dot + 1;
  }
}

std::string_view s_trim_blanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

// Calls fn(entry) for each non-empty, trimmed entry of a comma-separated list; false as
// soon as fn does.
template <class Fn>
bool s_each_service(const char* csv, Fn fn) {
  if (csv == nullptr) return true;
  const std::string_view list(csv);
  size_t from = 0;
  while (true) {
    const size_t comma = list.find(',', from);
    const std::string_view entry =
        s_trim_blanks(list.substr(from, comma == std::string_view::npos ? std::string_view::npos : comma - from));
    if (!entry.empty() && !fn(entry)) return false;
    if (comma == std::string_view::npos) return true;
    from = comma + 1;
  }
}

}  // namespace

bool gw_subject_is_publishable(const char* subject) {
  if (subject == nullptr) return false;
  const std::string_view text(subject);
  if (text.empty() || text.size() > GW_SUBJECT_MAX_BYTES) return false;
  return s_each_token(text, [](std::string_view token) {
    if (token.empty() || s_is_wildcard_token(token)) return false;
    for (const char c : token)
      if (!s_plain_byte(c)) return false;
    return true;
  });
}

const char* gw_target_verdict_text(gw_target_verdict_t verdict) {
  switch (verdict) {
    case GW_TARGET_OK: return "allowed";
    case GW_TARGET_MALFORMED: return "malformed target";
    case GW_TARGET_RESERVED: return "reserved target";
    case GW_TARGET_NOT_OFFERED: return "service not offered";
    case GW_TARGET_FORBIDDEN: return "target not permitted";
  }
  return "refused";
}

gw_target_verdict_t gw_subject_policy_check_target(const char* subject, const char* services,
                                                   const auth_profile* profile, const char* user) {
  if (!gw_subject_is_publishable(subject) || strpbrk(subject, "*>") != nullptr) return GW_TARGET_MALFORMED;
  const std::string_view text(subject);
  const bool system_token = !s_each_token(text, [](std::string_view token) { return token.front() != '$'; });
  if (system_token || text == "_INBOX" || text.starts_with("_INBOX.")) return GW_TARGET_RESERVED;
  if (services != nullptr && services[0] != '\0' && qm_nats_wq_service_in_csv(services, subject) == 0)
    return GW_TARGET_NOT_OFFERED;
  if (!auth_profile_permits_publish(profile, user != nullptr ? user : "", subject)) return GW_TARGET_FORBIDDEN;
  return GW_TARGET_OK;
}

gw_target gw_subject_policy_admit(const char* ingress, const char* services, const auth_profile* profile,
                                  const char* user) {
  gw_target target;
  const qm::malloc_ptr<char> subject(gw_subject_rewrite_ingress_to_nats(ingress));
  if (!subject) return target;
  target.subject = subject.get();
  target.verdict = gw_subject_policy_check_target(subject.get(), services, profile, user);
  return target;
}

std::vector<std::string> gw_service_list_parse(const char* csv) {
  std::vector<std::string> services;
  s_each_service(csv, [&](std::string_view entry) {
    services.emplace_back(entry);
    return true;
  });
  return services;
}

// Asked on every relayed request: no allocation.
int qm_nats_wq_service_in_csv(const char* csv, const char* service) {
  if (csv == nullptr || service == nullptr || csv[0] == '\0') return 0;
  const std::string_view wanted(service);
  return s_each_service(csv, [&](std::string_view entry) { return entry != wanted; }) ? 0 : 1;
}
