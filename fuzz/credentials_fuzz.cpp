// The credentials line scanner on arbitrary bytes: load, walk, validate and reload.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_file.hpp"
#include "gw_credential_store.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzFile file;
  const std::string& path = file.set(data, size);
  gw_credential_store_t* store = gw_credential_store_load(path.c_str());
  if (store == nullptr) abort();  // the file always opens

  std::vector<std::pair<std::string, std::string>> entries;
  gw_credential_store_iterate(
      store,
      [](const char* user, const char* password, void* out) {
        static_cast<std::vector<std::pair<std::string, std::string>>*>(out)->emplace_back(user, password);
        return true;
      },
      &entries);
  if (entries.size() > GW_CREDENTIAL_STORE_CAPACITY) abort();
  for (const auto& [user, password] : entries) {
    if (!gw_credential_store_validate(store, user.c_str(), password.c_str())) abort();
  }
  if (gw_credential_store_reload(store) != 0) abort();
  size_t after_reload = 0;
  gw_credential_store_iterate(
      store, [](const char*, const char*, void* n) { return ++*static_cast<size_t*>(n) > 0; }, &after_reload);
  if (after_reload != entries.size()) abort();
  gw_credential_store_free(store);
  return 0;
}
