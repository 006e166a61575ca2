#include "auth_profile.hpp"

#include <fcntl.h>
#include <json-c/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "log.hpp"
#include "qm_handles.hpp"
#include "qmerror.hpp"

namespace {

// A subject list with a NULL-terminated view for C callers.
class s_subject_list {
 public:
  s_subject_list() { view_.push_back(nullptr); }
  s_subject_list(const s_subject_list&) = delete;
  s_subject_list& operator=(const s_subject_list&) = delete;
  void add(const char* subject) {
    subjects_.emplace_back(std::make_unique<std::string>(subject));
    view_.back() = subjects_.back()->c_str();
    view_.push_back(nullptr);
  }
  const char* const* view() const { return view_.data(); }
  size_t size() const { return subjects_.size(); }

 private:
  std::vector<std::unique_ptr<std::string>> subjects_;  // stable c_str() across growth
  std::vector<const char*> view_;
};

const char* const s_empty_list[] = {nullptr};

}  // namespace

struct auth_profile {
  std::string name;
  bool allow_responses = false;
  s_subject_list pub_allow;
  s_subject_list pub_deny;
  s_subject_list sub_allow;
  s_subject_list sub_deny;
};

namespace {

struct s_map_entry {
  std::string key;  // user name or group DN
  const auth_profile* profile = nullptr;
};

}  // namespace

struct auth_profile_store {
  std::vector<std::unique_ptr<auth_profile>> profiles;  // pointers stay valid for the store's life
  const auth_profile* default_profile = nullptr;
  std::vector<s_map_entry> user_map;
  std::vector<s_map_entry> group_map;
};

namespace {

using s_json_ptr = qm::json_ptr;

bool s_read_file(const char* path, std::string& out) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    log_warn("auth_profile: cannot open %s: %s", path, QMstrerror(errno));
    return false;
  }
  char buf[65536];
  for (;;) {
    const ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) {
      const int err = errno;
      close(fd);
      log_warn("auth_profile: cannot open %s: %s", path, QMstrerror(err));
      return false;
    }
    if (n == 0) break;
    out.append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

const auth_profile* s_find_profile(const auth_profile_store& store, const char* name) {
  for (const auto& p : store.profiles) {
    if (p->name == name) return p.get();
  }
  return nullptr;
}

// One of publish.allow etc.: absent, null or a non-object side all give an empty list.
bool s_parse_list(json_object* body, const char* side, const char* kind, s_subject_list& out) {
  json_object* side_obj = nullptr;
  if (!json_object_object_get_ex(body, side, &side_obj) || !json_object_is_type(side_obj, json_type_object)) {
    return true;
  }
  json_object* list = nullptr;
  if (!json_object_object_get_ex(side_obj, kind, &list) || list == nullptr) return true;
  if (!json_object_is_type(list, json_type_array)) {
    log_error("auth_profile: %s.%s is not an array", side, kind);
    return false;
  }
  const size_t n = json_object_array_length(list);
  for (size_t i = 0; i < n; ++i) {
    json_object* item = json_object_array_get_idx(list, i);
    if (!json_object_is_type(item, json_type_string)) {
      log_error("auth_profile: %s.%s[%d] is not a string", side, kind, static_cast<int>(i));
      return false;
    }
    out.add(json_object_get_string(item));
  }
  return true;
}

// ---- subjects ----

// A subject's tokens one by one, without allocating: the doors match every request's
// subject against a profile's lists. "" is one empty token, "a." two.
class s_token_cursor {
 public:
  explicit s_token_cursor(std::string_view subject) : rest_(subject) {}
  // The next token into `token`; false when none is left.
  bool next(std::string_view& token) {
    if (done_) return false;
    const size_t dot = rest_.find('.');
    if (dot == std::string_view::npos) {
      token = rest_;
      done_ = true;
      return true;
    }
    token = rest_.substr(0, dot);
    rest_.remove_prefix(dot + 1);
    return true;
  }

 private:
  std::string_view rest_;
  bool done_ = false;
};

// Whether the two patterns have a subject in common (a literal subject is a pattern too).
bool s_overlap(std::string_view a, std::string_view b) {
  s_token_cursor ca(a);
  s_token_cursor cb(b);
  std::string_view ta;
  std::string_view tb;
  for (;;) {
    const bool has_a = ca.next(ta);
    const bool has_b = cb.next(tb);
    if (!has_a || !has_b) return has_a == has_b;  // as many tokens on both sides
    if (ta == ">" || tb == ">") return true;
    if (ta != "*" && tb != "*" && ta != tb) return false;
  }
}

// The staged-data bucket: writes and deletes go to its subjects, reads through the
// stream's direct and message get API.
constexpr const char* kBucketSubjects = "$KV.qm-av-scan-data.>";
const char* const kBucketAccess[] = {kBucketSubjects, "$JS.API.DIRECT.GET.KV_qm-av-scan-data",
                                     "$JS.API.DIRECT.GET.KV_qm-av-scan-data.>",
                                     "$JS.API.STREAM.MSG.GET.KV_qm-av-scan-data"};
constexpr std::string_view kBucketPrefix = "$KV.qm-av-scan-data.";
// Staged keys are bound to a login: a client's under c.<user>., a worker's replies
// under w.<user>.
const char* const kBoundKeyPrefixes[] = {"$KV.qm-av-scan-data.c.{user}.", "$KV.qm-av-scan-data.w.{user}."};

bool s_names_bucket(std::string_view entry) {
  return entry.starts_with(kBucketPrefix) || entry.starts_with("$JS.API.DIRECT.GET.KV_qm-av-scan-data") ||
         entry == "$JS.API.STREAM.MSG.GET.KV_qm-av-scan-data";
}

bool s_reaches_bucket(std::string_view entry) {
  for (const char* access : kBucketAccess)
    if (s_overlap(entry, access)) return true;
  return false;
}

bool s_names_bucket_anywhere(const s_subject_list& allow) {
  for (size_t i = 0; i < allow.size(); ++i)
    if (s_names_bucket(allow.view()[i])) return true;
  return false;
}

// A profile that names the bucket gets exactly what those entries say: writes only to
// keys bound to the user, and no wider entry beside them that reaches the bucket anyway.
bool s_check_bucket_entries(const auth_profile& profile) {
  if (!s_names_bucket_anywhere(profile.pub_allow)) return true;
  for (size_t i = 0; i < profile.pub_allow.size(); ++i) {
    const std::string_view entry = profile.pub_allow.view()[i];
    if (entry.starts_with(kBucketPrefix)) {
      bool bound = false;
      for (const char* prefix : kBoundKeyPrefixes) bound = bound || entry.starts_with(prefix);
      if (!bound) {
        log_error("auth_profile: profile \"%s\" publish.allow \"%s\" writes staged keys not bound to {user} "
                  "(use $KV.qm-av-scan-data.c.{user}. or .w.{user}.)",
                  profile.name.c_str(), profile.pub_allow.view()[i]);
        return false;
      }
    } else if (!s_names_bucket(entry) && s_reaches_bucket(entry)) {
      log_error("auth_profile: profile \"%s\" publish.allow \"%s\" reaches the staged-data bucket beside entries "
                "that name it", profile.name.c_str(), profile.pub_allow.view()[i]);
      return false;
    }
  }
  return true;
}

bool s_parse_profiles(json_object* profiles, auth_profile_store& store) {
  if (!json_object_is_type(profiles, json_type_object)) {
    log_error("auth_profile: \"profiles\" is not an object");
    return false;
  }
  if (json_object_object_length(profiles) == 0) {
    log_error("auth_profile: \"profiles\" is empty \u2014 at least one profile must be defined");
    return false;
  }
  json_object_object_foreach(profiles, name, body) {
    if (!json_object_is_type(body, json_type_object)) {
      log_error("auth_profile: profile \"%s\" body is not an object", name);
      return false;
    }
    auto profile = std::make_unique<auth_profile>();
    profile->name = name;
    if (!s_parse_list(body, "publish", "allow", profile->pub_allow) ||
        !s_parse_list(body, "publish", "deny", profile->pub_deny) ||
        !s_parse_list(body, "subscribe", "allow", profile->sub_allow) ||
        !s_parse_list(body, "subscribe", "deny", profile->sub_deny)) {
      return false;
    }
    json_object* responses = nullptr;
    if (json_object_object_get_ex(body, "allow_responses", &responses)) {
      if (!json_object_is_type(responses, json_type_boolean)) {
        log_error("auth_profile: profile \"%s\" allow_responses is not a boolean", name);
        return false;
      }
      profile->allow_responses = json_object_get_boolean(responses);
    }
    if (!s_check_bucket_entries(*profile)) return false;
    store.profiles.push_back(std::move(profile));
  }
  return true;
}

bool s_parse_default(json_object* root, auth_profile_store& store) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(root, "default_profile", &value)) return true;
  if (!json_object_is_type(value, json_type_string)) {
    log_error("auth_profile: \"default_profile\" must be a string");
    return false;
  }
  const char* name = json_object_get_string(value);
  store.default_profile = s_find_profile(store, name);
  if (store.default_profile == nullptr) {
    log_error("auth_profile: \"default_profile\"=\"%s\" not in profiles{}", name);
    return false;
  }
  return true;
}

const char* s_member_string(json_object* obj, const char* key) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(obj, key, &value) || !json_object_is_type(value, json_type_string)) return nullptr;
  return json_object_get_string(value);
}

// file_user_map (key "user") or ldap_group_map (key "group_dn").
bool s_parse_map(json_object* root, const char* map_name, const char* key_name, const auth_profile_store& store,
                 std::vector<s_map_entry>& out) {
  json_object* map = nullptr;
  if (!json_object_object_get_ex(root, map_name, &map)) return true;
  if (!json_object_is_type(map, json_type_array)) {
    log_error("auth_profile: \"%s\" is not an array", map_name);
    return false;
  }
  const size_t n = json_object_array_length(map);
  for (size_t i = 0; i < n; ++i) {
    const int index = static_cast<int>(i);
    json_object* item = json_object_array_get_idx(map, i);
    if (!json_object_is_type(item, json_type_object)) {
      log_error("auth_profile: %s[%d] is not an object", map_name, index);
      return false;
    }
    const char* key = s_member_string(item, key_name);
    const char* profile_name = s_member_string(item, "profile");
    if (key == nullptr || profile_name == nullptr) {
      log_error("auth_profile: %s[%d] missing %s/profile string", map_name, index, key_name);
      return false;
    }
    const auth_profile* profile = s_find_profile(store, profile_name);
    if (profile == nullptr) {
      log_error("auth_profile: %s[%d] references unknown profile \"%s\"", map_name, index, profile_name);
      return false;
    }
    out.push_back(s_map_entry{key, profile});
  }
  return true;
}

bool s_parse_document(const char* path, const std::string& text, auth_profile_store& store) {
  qm::json_tokener_ptr tokener(json_tokener_new());
  if (!tokener) return false;
  s_json_ptr root(json_tokener_parse_ex(tokener.get(), text.c_str(), static_cast<int>(text.size())));
  const json_tokener_error err = json_tokener_get_error(tokener.get());
  if (err != json_tokener_success || !root) {
    log_error("auth_profile: %s parse failed: %s", path, json_tokener_error_desc(err));
    return false;
  }
  if (!json_object_is_type(root.get(), json_type_object)) {
    log_error("auth_profile: %s top-level is not an object", path);
    return false;
  }
  json_object* profiles = nullptr;
  if (!json_object_object_get_ex(root.get(), "profiles", &profiles)) {
    log_error("auth_profile: %s missing required \"profiles\" object", path);
    return false;
  }
  return s_parse_profiles(profiles, store) && s_parse_default(root.get(), store) &&
         s_parse_map(root.get(), "file_user_map", "user", store, store.user_map) &&
         s_parse_map(root.get(), "ldap_group_map", "group_dn", store, store.group_map);
}

}  // namespace

auth_profile_store_t* auth_profile_load(const char* json_path) {
  if (json_path == nullptr || *json_path == '\0') {
    log_warn("auth_profile: no permissions file configured \u2014 using compiled-in defaults for every callout user");
    return nullptr;
  }
  try {
    std::string text;
    if (!s_read_file(json_path, text)) return nullptr;
    if (text.size() > static_cast<size_t>(INT32_MAX)) {
      log_error("auth_profile: %s parse failed: %s", json_path, json_tokener_error_desc(json_tokener_error_size));
      return nullptr;
    }
    auto store = std::make_unique<auth_profile_store>();
    if (!s_parse_document(json_path, text, *store)) return nullptr;
    log_info("auth_profile: loaded %s \u2014 %d profile(s), default=%s, %d file user map(s), %d LDAP group map(s)",
             json_path, static_cast<int>(store->profiles.size()),
             store->default_profile ? store->default_profile->name.c_str() : "(none)",
             static_cast<int>(store->user_map.size()), static_cast<int>(store->group_map.size()));
    return store.release();
  } catch (...) {
    return nullptr;
  }
}

const auth_profile_t* auth_profile_resolve(const auth_profile_store_t* store, const char* user,
                                           const char* const* group_dns, size_t n_groups) {
  if (store == nullptr) return nullptr;
  if (user != nullptr && *user != '\0') {
    for (const s_map_entry& entry : store->user_map) {
      if (entry.key == user) return entry.profile;
    }
  }
  if (group_dns != nullptr && n_groups >= 1) {
    for (const s_map_entry& entry : store->group_map) {
      for (size_t i = 0; i < n_groups; ++i) {
        if (group_dns[i] != nullptr && entry.key == group_dns[i]) return entry.profile;
      }
    }
  }
  return store->default_profile;
}

const char* const* auth_profile_pub_allow(const auth_profile_t* p) { return p ? p->pub_allow.view() : s_empty_list; }
const char* const* auth_profile_pub_deny(const auth_profile_t* p) { return p ? p->pub_deny.view() : s_empty_list; }
const char* const* auth_profile_sub_allow(const auth_profile_t* p) { return p ? p->sub_allow.view() : s_empty_list; }
const char* const* auth_profile_sub_deny(const auth_profile_t* p) { return p ? p->sub_deny.view() : s_empty_list; }
const char* auth_profile_name(const auth_profile_t* p) { return p ? p->name.c_str() : nullptr; }

const auth_profile_t* auth_profile_find(const auth_profile_store_t* store, const char* name) {
  if (store == nullptr || name == nullptr) return nullptr;
  return s_find_profile(*store, name);
}

namespace {

constexpr std::string_view kUserTemplate = "{user}";

// Denied in every grant, on both sides: the system account, the auth service and the
// gateway's inboxes.
const char* const kDenyAlways[] = {"$SYS.>", "qm.auth.>", "_QMGW_INBOX.>"};
// Never published by a login: the JetStream API that creates, changes, lists or removes
// streams and consumers. (What only the system account may ask, such as META and SERVER,
// needs no deny here.)
const char* const kPubDenyAlways[] = {
    "$JS.API.STREAM.CREATE.>", "$JS.API.STREAM.UPDATE.>", "$JS.API.STREAM.DELETE.>", "$JS.API.STREAM.PURGE.>",
    "$JS.API.STREAM.MSG.DELETE.>", "$JS.API.STREAM.SNAPSHOT.>", "$JS.API.STREAM.RESTORE.>",
    "$JS.API.STREAM.PEER.>", "$JS.API.STREAM.LEADER.>", "$JS.API.STREAM.NAMES", "$JS.API.STREAM.LIST",
    "$JS.API.CONSUMER.CREATE.>", "$JS.API.CONSUMER.DURABLE.>", "$JS.API.CONSUMER.DELETE.>",
    "$JS.API.CONSUMER.NAMES.>", "$JS.API.CONSUMER.LIST.>", "$JS.API.CONSUMER.PAUSE.>", "$JS.API.CONSUMER.UNPIN.>"};
// Nobody listens to other logins' API requests or watches the staged data.
const char* const kSubDenyAlways[] = {"$JS.API.>", "$JS.EVENT.>", kBucketSubjects};

const char* const kBuiltinAllow[] = {">"};
// Denied beside kDenyAlways to the built-in grant: every login's grant costs nats-server
// work per entry, and the built-in grant reaches everything.
const char* const kBuiltinPubDeny[] = {"$JS.API.>", kBucketSubjects};

bool s_safe_for_template(std::string_view user) {
  if (user.empty()) return false;
  for (const unsigned char c : user)
    if (c == '.' || c == '*' || c == '>' || c <= 0x20 || c == 0x7f) return false;
  return true;
}

bool s_list_templated(const s_subject_list& list) {
  for (size_t i = 0; i < list.size(); ++i)
    if (std::string_view(list.view()[i]).find(kUserTemplate) != std::string_view::npos) return true;
  return false;
}

std::string s_fill(std::string_view entry, std::string_view user) {
  std::string out;
  for (size_t at = 0;;) {
    const size_t found = entry.find(kUserTemplate, at);
    out.append(entry.substr(at, found == std::string_view::npos ? std::string_view::npos : found - at));
    if (found == std::string_view::npos) return out;
    out.append(user);
    at = found + kUserTemplate.size();
  }
}

void s_fill_list(const char* const* entries, std::string_view user, std::vector<std::string>& out) {
  for (; *entries != nullptr; ++entries) out.push_back(s_fill(*entries, user));
}

// Whether the pattern matches the literal subject.
bool s_matches(std::string_view pattern, std::string_view subject) {
  s_token_cursor cp(pattern);
  s_token_cursor cs(subject);
  std::string_view tp;
  std::string_view ts;
  for (;;) {
    if (!cp.next(tp)) return !cs.next(ts);  // the subject has no token more than the pattern
    if (tp == ">") return cs.next(ts);      // at least one token left for it
    if (!cs.next(ts) || (tp != "*" && tp != ts)) return false;
  }
}

// Adds each of `denies` that some allow entry reaches: a deny no allow entry overlaps
// changes nothing, and every entry costs nats-server work at each login.
template <size_t N>
void s_add_reached(const std::vector<std::string>& allow, const char* const (&denies)[N],
                   std::vector<std::string>& out) {
  for (const char* deny : denies) {
    for (const std::string& entry : allow) {
      // A subscribe entry may be "subject queue".
      if (s_overlap(std::string_view(entry).substr(0, entry.find(' ')), deny)) {
        out.emplace_back(deny);
        break;
      }
    }
  }
}

bool s_any_matches(const std::vector<std::string>& patterns, std::string_view subject) {
  for (const std::string& pattern : patterns)
    if (s_matches(pattern, subject)) return true;
  return false;
}

}  // namespace

bool auth_profile_is_templated(const auth_profile_t* p) {
  return p != nullptr && (s_list_templated(p->pub_allow) || s_list_templated(p->pub_deny) ||
                          s_list_templated(p->sub_allow) || s_list_templated(p->sub_deny));
}

bool auth_profile_grant(const auth_profile_t* profile, const char* user, auth_grant& out) {
  out = auth_grant{};
  const std::string_view name = user ? user : "";
  if (auth_profile_is_templated(profile) && !s_safe_for_template(name)) return false;
  // The built-in grant publishes anywhere but to the gateway's inboxes: it may answer
  // requests like a worker.
  out.allow_responses = profile == nullptr || profile->allow_responses;
  if (profile == nullptr) {
    out.pub_allow.assign(std::begin(kBuiltinAllow), std::end(kBuiltinAllow));
    out.sub_allow.assign(std::begin(kBuiltinAllow), std::end(kBuiltinAllow));
  } else {
    s_fill_list(profile->pub_allow.view(), name, out.pub_allow);
    s_fill_list(profile->pub_deny.view(), name, out.pub_deny);
    s_fill_list(profile->sub_allow.view(), name, out.sub_allow);
    s_fill_list(profile->sub_deny.view(), name, out.sub_deny);
  }
  s_add_reached(out.sub_allow, kDenyAlways, out.sub_deny);
  s_add_reached(out.sub_allow, kSubDenyAlways, out.sub_deny);
  s_add_reached(out.pub_allow, kDenyAlways, out.pub_deny);
  if (profile == nullptr) {
    // No role: no JetStream API at all (and so no staged data), in few entries.
    out.pub_deny.insert(out.pub_deny.end(), std::begin(kBuiltinPubDeny), std::end(kBuiltinPubDeny));
    return true;
  }
  s_add_reached(out.pub_allow, kPubDenyAlways, out.pub_deny);
  if (!s_names_bucket_anywhere(profile->pub_allow)) s_add_reached(out.pub_allow, kBucketAccess, out.pub_deny);
  return true;
}

bool auth_profile_permits_publish(const auth_profile_t* profile, const char* user, const char* subject) {
  if (subject == nullptr) return false;
  try {
    auth_grant grant;
    if (!auth_profile_grant(profile, user, grant)) return false;
    return s_any_matches(grant.pub_allow, subject) && !s_any_matches(grant.pub_deny, subject);
  } catch (...) {
    return false;
  }
}

void auth_profile_destroy(auth_profile_store_t* store) { std::unique_ptr<auth_profile_store> owned(store); }
