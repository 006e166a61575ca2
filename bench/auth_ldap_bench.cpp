// Validations per second against a local slapd: pooled service connections against a
// fresh service connection per check, four client threads each.
#include <benchmark/benchmark.h>

#include <memory>
#include <stdexcept>
#include <string>

#include "auth_ldap.hpp"
#include "slapd_fixture.hpp"

namespace {

std::string s_user(int n) {
  const std::string id = std::to_string(n);
  return "dn: uid=user" + id + ",ou=people,dc=qm,dc=test\nobjectClass: account\nobjectClass: posixAccount\n"
         "uid: user" + id + "\ncn: user" + id + "\nuidNumber: " + std::to_string(2000 + n) +
         "\ngidNumber: 1000\nhomeDirectory: /home/user" + id + "\nuserPassword: pw-" + id + "\n\n";
}

qmtest::Slapd& s_directory() {
  static const std::unique_ptr<qmtest::Slapd> directory = [] {
    qmtest::SlapdOptions options;
    options.ldif =
        "dn: dc=qm,dc=test\nobjectClass: dcObject\nobjectClass: organization\no: qm\ndc: qm\n\n"
        "dn: ou=people,dc=qm,dc=test\nobjectClass: organizationalUnit\nou: people\n\n"
        "dn: cn=reader,dc=qm,dc=test\nobjectClass: organizationalRole\nobjectClass: simpleSecurityObject\n"
        "cn: reader\nuserPassword: reader-secret\n\n";
    for (int n = 0; n < 16; ++n) options.ldif += s_user(n);
    return std::make_unique<qmtest::Slapd>(options);
  }();
  return *directory;
}

auth_ldap_ctx_t* g_ctx = nullptr;

void BM_LdapValidate(benchmark::State& state) {
  const int pool_size = static_cast<int>(state.range(0));
  if (state.thread_index() == 0) {
    g_ctx = auth_ldap_init(s_directory().url().c_str(), "dc=qm,dc=test", "cn=reader,dc=qm,dc=test",
                           "reader-secret", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, pool_size, 300,
                           nullptr, nullptr);
    if (g_ctx == nullptr) state.SkipWithError("auth_ldap_init failed");
  }
  const int n = state.thread_index() % 16;
  const std::string user = "user" + std::to_string(n);
  const std::string password = "pw-" + std::to_string(n);
  for (auto _ : state) {
    if (!auth_ldap_validate(g_ctx, user.c_str(), password.c_str())) {
      state.SkipWithError("validation refused");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
  if (state.thread_index() == 0) {
    auth_ldap_destroy(g_ctx);
    g_ctx = nullptr;
  }
}

// Argument: pool size (0 = pooling off).
BENCHMARK(BM_LdapValidate)->ArgName("pool")->Arg(4)->Arg(0)->Threads(4)->UseRealTime();

}  // namespace
