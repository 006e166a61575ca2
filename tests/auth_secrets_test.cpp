// A client's password passes through the auth service in a callout token and in a
// verify request: once the request is answered, no copy of it is left in the process,
// not even in freed memory.
#include "test_prelude.hpp"
#include <sodium.h>

#include "auth_callout.hpp"
#include "auth_jwt.hpp"
#include "auth_verify.hpp"
#include "gw_credential_store.hpp"
#include "memory_scan.hpp"
#include "qm_nats_conn.hpp"

namespace {

using creds_ptr = qm::c_ptr<gw_credential_store_t, gw_credential_store_free>;
using decider_ptr = qm::c_ptr<auth_decider_t, auth_decider_destroy>;
using jwt_ptr = qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy>;

// Test data lives on this thread's stack, which the scan leaves out; every heap copy the
// test makes itself is a secret_string that wipes itself.
struct stack_secret {
  char text[33] = {};
  stack_secret() {
    static const char letters[] = "abcdefghijklmnopqrstuvwxyz";
    for (size_t i = 0; i + 1 < sizeof text; ++i) text[i] = letters[randombytes_uniform(26)];
  }
  std::string_view view() const { return {text, sizeof text - 1}; }
};

// The sanitizer's allocator overwrites the first 8 bytes of a block it takes back, so a
// copy at the start of a freed block is recognised by what follows them.
std::string_view beyond_the_first_8(std::string_view text) { return text.substr(8); }

// The parts joined in one buffer allocated once, so that no copy is left behind by growing.
qm::secret_string joined(std::initializer_list<std::string_view> parts) {
  std::string text;
  text.reserve(512);
  for (std::string_view part : parts) text.append(part);
  return qm::secret_string(std::move(text));
}

class PasswordWipe : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(qm_nats_library_open(), 0);
    write_file(dir_.file("users.conf"), "user: \"alice\"\npassword: \"wonder\"\n");
    creds_.reset(gw_credential_store_load(dir_.file("users.conf").c_str()));
    decider_.reset(auth_decider_create(creds_.get(), nullptr, nullptr, nullptr));
    jwt_.reset(auth_jwt_init(nullptr));
    ASSERT_TRUE(creds_ && decider_ && jwt_);
  }

  // A message as the client library delivers it, made from text that is then wiped.
  static natsMsg* message(qm::secret_string text) {
    natsMsg* msg = nullptr;
    EXPECT_EQ(natsMsg_Create(&msg, "subject", "reply", text.c_str(), static_cast<int>(text.size())), NATS_OK);
    return msg;
  }

  TempDir dir_;
  creds_ptr creds_;
  decider_ptr decider_;
  jwt_ptr jwt_;
};

TEST_F(PasswordWipe, NothingOfACalloutTokenIsLeftOnceItIsAnswered) {
  const stack_secret password;
  char payload_segment[256] = {};
  {
    const qm::secret_string claims =
        joined({R"j({"nats":{"user_nkey":"UABC","connect_opts":{"user":"alice","pass":")j", password.view(),
                R"j("}}})j"});
    qm::secret_string segment(base64url_encode(reinterpret_cast<const unsigned char*>(claims.c_str()), claims.size()));
    ASSERT_LT(segment.size(), sizeof payload_segment);
    segment.str().copy(payload_segment, segment.size());
    qm::nats_msg_ptr msg(message(joined({"eyJhbGciOiJlZDI1NTE5LW5rZXkifQ.", segment.str(), ".sig"})));
    auth_request_t req;
    ASSERT_EQ(auth_callout_read(msg.get(), auth_signer{jwt_.get()}, req), AUTH_CALLOUT_REQUEST);
    EXPECT_EQ(req.password.str(), password.view());
    EXPECT_FALSE(auth_callout_answer(decider_.get(), auth_signer{jwt_.get()}, req).empty());
  }
  EXPECT_EQ(occurrences_in_own_memory(beyond_the_first_8(password.view())), 0u);
  EXPECT_EQ(occurrences_in_own_memory(beyond_the_first_8(payload_segment)), 0u);
}

TEST_F(PasswordWipe, NothingOfAVerifyRequestIsLeftOnceItIsAnswered) {
  const stack_secret password;
  {
    qm::nats_msg_ptr msg(message(joined({R"j({"user":"alice","password":")j", password.view(), R"j("})j"})));
    const verify_request req = auth_verify_read(msg.get());
    ASSERT_TRUE(req.password);
    EXPECT_EQ(auth_verify_answer(decider_.get(), 0, req),
              R"j({"ok":false,"reason":"invalid credentials","backend":"none"})j");
  }
  EXPECT_EQ(occurrences_in_own_memory(beyond_the_first_8(password.view())), 0u);
}

}  // namespace
