#include "auth_profile.hpp"

#include <fcntl.h>
#include <json-c/json.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
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

void auth_profile_destroy(auth_profile_store_t* store) { std::unique_ptr<auth_profile_store> owned(store); }
