// Hot paths of the auth tier: cache lookups, grant signing, credentials validation.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "auth_jwt.hpp"
#include "gw_auth_cache.hpp"
#include "gw_credential_store.hpp"
#include "log.hpp"
#include "test_support.hpp"

namespace {

void BM_CacheLookupHit(benchmark::State& state) {
  gw_auth_cache_t* c = gw_auth_cache_create(1024, 120, 10, 50);
  for (int i = 0; i < 512; ++i) gw_auth_cache_insert_grant(c, ("user" + std::to_string(i)).c_str(), "password");
  int i = 0;
  std::string users[512];
  for (int k = 0; k < 512; ++k) users[k] = "user" + std::to_string(k);
  for (auto _ : state) {
    benchmark::DoNotOptimize(gw_auth_cache_lookup(c, users[i].c_str(), "password"));
    i = (i + 1) & 511;
  }
  if (gw_auth_cache_lookup(c, "user7", "password") != GW_AUTH_CACHE_GRANT) state.SkipWithError("no hit");
  gw_auth_cache_destroy(c);
}
BENCHMARK(BM_CacheLookupHit);

// A miss hashes twice (grant key, then deny key) and walks probe runs to a free slot.
void BM_CacheLookupMiss(benchmark::State& state) {
  gw_auth_cache_t* c = gw_auth_cache_create(1024, 120, 10, 50);
  for (int i = 0; i < 512; ++i) gw_auth_cache_insert_grant(c, ("user" + std::to_string(i)).c_str(), "password");
  for (auto _ : state) benchmark::DoNotOptimize(gw_auth_cache_lookup(c, "user7", "wrong-password"));
  gw_auth_cache_destroy(c);
}
BENCHMARK(BM_CacheLookupMiss);

void BM_SignGrant(benchmark::State& state) {
  auth_jwt_ctx_t* ctx = auth_jwt_init(nullptr);
  const char* const allow[] = {"scan.>", "_INBOX.>", nullptr};
  const char* const deny[] = {"admin.>", nullptr};
  for (auto _ : state) {
    char* token = nullptr;
    if (auth_jwt_sign_grant(ctx, "NSERVERID", "UCONNECTIONNKEY", "$G", allow, deny, allow, deny, &token) != 0) {
      state.SkipWithError("signing failed");
      break;
    }
    free(token);
  }
  auth_jwt_destroy(ctx);
}
BENCHMARK(BM_SignGrant);

// The worst case for a 128-entry file: the match is the last entry.
void BM_CredentialsValidate128(benchmark::State& state) {
  qmtest::TempDir dir;
  std::string content;
  for (int i = 0; i < 128; ++i) {
    content += "user: \"scanner" + std::to_string(i) + "\"\npassword: \"pw-" + std::to_string(i) + "\"\n";
  }
  qmtest::write_file(dir.file("users.conf"), content);
  gw_credential_store_t* store = gw_credential_store_load(dir.file("users.conf").c_str());
  for (auto _ : state) benchmark::DoNotOptimize(gw_credential_store_validate(store, "scanner127", "pw-127"));
  if (!gw_credential_store_validate(store, "scanner127", "pw-127")) state.SkipWithError("no match");
  gw_credential_store_free(store);
}
BENCHMARK(BM_CredentialsValidate128);

// A check must not tell by its duration how much of a guess was right, nor whether it
// was: the three rows (wrong_byte 0: right, 1: first byte wrong, 2: last byte wrong) must
// take the same time.
// 128 entries hold the same long password (duplicates are kept), so a comparison that
// stops at the first wrong byte, or at the first match, would stand out many times over.
void BM_CredentialsValidateGuess(benchmark::State& state) {
  const std::string password(1000, 'k');
  std::string guess = password;
  if (state.range(0) == 1) guess.front() = 'x';
  if (state.range(0) == 2) guess.back() = 'x';
  qmtest::TempDir dir;
  std::string content;
  for (int i = 0; i < GW_CREDENTIAL_STORE_CAPACITY; ++i) content += "user: \"u\"\npassword: \"" + password + "\"\n";
  qmtest::write_file(dir.file("users.conf"), content);
  gw_credential_store_t* store = gw_credential_store_load(dir.file("users.conf").c_str());
  for (auto _ : state) benchmark::DoNotOptimize(gw_credential_store_validate(store, "u", guess.c_str()));
  if (gw_credential_store_validate(store, "u", guess.c_str()) != (state.range(0) == 0))
    state.SkipWithError("wrong verdict");
  gw_credential_store_free(store);
}
BENCHMARK(BM_CredentialsValidateGuess)->ArgName("wrong_byte")->Arg(0)->Arg(1)->Arg(2);

}  // namespace
