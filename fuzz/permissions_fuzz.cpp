// The permissions loader on arbitrary bytes; a loaded store must resolve and list cleanly.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "auth_profile.hpp"
#include "fuzz_file.hpp"

namespace {

size_t walk(const char* const* list) {
  size_t total = 0;
  for (; *list != nullptr; ++list) total += strlen(*list);
  return total;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzFile file;
  const std::string& path = file.set(data, size);
  auth_profile_store_t* store = auth_profile_load(path.c_str());
  if (store == nullptr) return 0;
  const char* groups[] = {"cn=admins,dc=example", nullptr, "cn=scan", ""};
  for (const char* user : {"alice", "", "bob", "scanner"}) {
    const auth_profile_t* p = auth_profile_resolve(store, user, groups, 4);
    (void)walk(auth_profile_pub_allow(p));
    (void)walk(auth_profile_pub_deny(p));
    (void)walk(auth_profile_sub_allow(p));
    (void)walk(auth_profile_sub_deny(p));
    if (p != nullptr && auth_profile_name(p) == nullptr) abort();
    // A grant never lets anyone publish to the auth service, whatever the file says.
    auth_grant grant;
    if (auth_profile_grant(p, user, grant) && auth_profile_permits_publish(p, user, "qm.auth.verify")) abort();
    (void)auth_profile_permits_publish(p, user, "scan");
  }
  auth_profile_destroy(store);
  return 0;
}
