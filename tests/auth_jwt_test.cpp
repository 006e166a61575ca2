#include "auth_jwt.hpp"

#include "test_prelude.hpp"

namespace {

using CtxPtr = qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy>;
using JsonPtr = qm::json_ptr;

// An independent decoder of base32 (5 bits a character) and base64url (6 bits), so that
// the tests do not trust the code under test. Trailing bits that make no byte are dropped.
std::string decode_bits(const std::string& text, const std::string& alphabet, int bits_per_char) {
  std::string out;
  unsigned buffer = 0;
  int bits = 0;
  for (char c : text) {
    const size_t v = alphabet.find(c);
    if (v == std::string::npos) throw std::runtime_error("character outside the alphabet");
    buffer = (buffer << bits_per_char) | static_cast<unsigned>(v);
    bits += bits_per_char;
    if (bits >= 8) {
      out.push_back(static_cast<char>((buffer >> (bits - 8)) & 0xff));
      bits -= 8;
    }
  }
  return out;
}

std::string base64url_decode(const std::string& text) {
  return decode_bits(text, "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_", 6);
}

// The raw Ed25519 key inside an account NKey, after checking prefix and length. (Its
// checksum is checked by nats-server, which refuses a callout issuer with a bad one.)
std::vector<unsigned char> public_key_of(const std::string& nkey) {
  EXPECT_EQ(nkey.size(), 56u);
  EXPECT_EQ(nkey[0], 'A');
  const std::string text = decode_bits(nkey, "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567", 5);
  const std::vector<unsigned char> raw(text.begin(), text.end());
  EXPECT_EQ(raw.size(), 35u);
  if (raw.size() != 35) return {};
  EXPECT_EQ(raw[0], 0);
  return std::vector<unsigned char>(raw.begin() + 1, raw.begin() + 33);
}

struct DecodedToken {
  JsonPtr claims;
  std::string claims_text;
};

// {"typ":"JWT","alg":"ed25519-nkey"}, the same on every token.
constexpr const char* kHeaderSegment = "eyJ0eXAiOiJKV1QiLCJhbGciOiJlZDI1NTE5LW5rZXkifQ";

// Splits the token, checks its fixed header and its Ed25519 signature against `issuer`,
// parses the claims.
DecodedToken decode_and_verify(const std::string& token, const std::string& issuer) {
  const size_t dot1 = token.find('.');
  const size_t dot2 = token.find('.', dot1 + 1);
  EXPECT_NE(dot2, std::string::npos);
  EXPECT_EQ(token.find('='), std::string::npos);
  EXPECT_EQ(token.substr(0, dot1), kHeaderSegment);
  DecodedToken out;
  out.claims_text = base64url_decode(token.substr(dot1 + 1, dot2 - dot1 - 1));
  out.claims.reset(json_tokener_parse(out.claims_text.c_str()));
  const std::string signature = base64url_decode(token.substr(dot2 + 1));
  EXPECT_EQ(signature.size(), 64u);

  const std::vector<unsigned char> pub = public_key_of(issuer);
  qm::evp_pkey_ptr pkey(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, pub.data(), pub.size()));
  qm::evp_md_ctx_ptr md(EVP_MD_CTX_new());
  EXPECT_TRUE(pkey && md);
  EXPECT_EQ(EVP_DigestVerifyInit(md.get(), nullptr, nullptr, nullptr, pkey.get()), 1);
  const std::string signed_part = token.substr(0, dot2);
  EXPECT_EQ(EVP_DigestVerify(md.get(), reinterpret_cast<const unsigned char*>(signature.data()), signature.size(),
                             reinterpret_cast<const unsigned char*>(signed_part.data()), signed_part.size()),
            1)
      << "signature does not verify";
  return out;
}

json_object* member(json_object* obj, const char* key) {
  json_object* value = nullptr;
  json_object_object_get_ex(obj, key, &value);
  return value;
}
std::string text(json_object* obj, const char* key) {
  json_object* v = member(obj, key);
  return v ? json_object_get_string(v) : "<missing>";
}

class Jwt : public ::testing::Test {
 protected:
  void SetUp() override {
    ctx_.reset(auth_jwt_init(nullptr));
    ASSERT_NE(ctx_, nullptr);
    issuer_ = auth_jwt_public_key(ctx_.get());
  }
  // The token a signing call makes (it must succeed), freed.
  template <typename Sign>
  static std::string signed_by(Sign sign) {
    char* out = nullptr;
    EXPECT_EQ(sign(&out), 0);
    std::string token = out ? out : "";
    free(out);
    return token;
  }
  std::string grant(const char* const* pa, const char* const* pd, const char* const* sa, const char* const* sd,
                    const char* server = "SRV1", const char* nkey = "UNKEY", const char* account = nullptr) {
    return signed_by(
        [&](char** out) { return auth_jwt_sign_grant(ctx_.get(), server, nkey, account, pa, pd, sa, sd, out); });
  }
  std::string deny(const char* server, const char* nkey, const char* reason) {
    return signed_by([&](char** out) { return auth_jwt_sign_deny(ctx_.get(), server, nkey, reason, out); });
  }
  // What claims must read, byte for byte: no expiry and no token id.
  std::string claims(int64_t iat, const std::string& sub, const std::string& middle, const std::string& nats) const {
    return R"({"iat":)" + std::to_string(iat) + R"(,"iss":")" + issuer_ + R"(","sub":")" + sub + "\"," + middle +
           R"("nats":)" + nats + "}";
  }
  CtxPtr ctx_;
  std::string issuer_;
};

// A grant is an authorization response that carries the user JWT with the permissions,
// addressed to the account given ("$G" without one); a refusal carries the reason (json-c's
// own escaping, slash included) or the default one.
TEST_F(Jwt, GrantsAndRefusalsCarryExactlyTheirClaims) {
  const char* const pub_allow[] = {"scan.>", "_INBOX.>", nullptr};
  const char* const sub_deny[] = {"secret.*", nullptr};
  const char* const empty[] = {nullptr};
  const time_t before = time(nullptr);
  const struct {
    const char* name;
    std::string token;
    std::string sub, aud;
    std::string nats;  // the outer token's; "<user jwt>" stands for the nested token
    std::string inner_name, inner_aud, permissions;
  } rows[] = {
      {"grant", grant(pub_allow, nullptr, nullptr, sub_deny, "SRV1", "UABC", "QM_CLIENTS"), "UABC", "SRV1",
       R"({"type":"authorization_response","version":2,"user_nkey":"UABC","jwt":"<user jwt>"})", "UABC", "QM_CLIENTS",
       R"({"type":"user","version":2,"pub":{"allow":["scan.>","_INBOX.>"]},"sub":{"deny":["secret.*"]}})"},
      {"grant without lists", grant(nullptr, nullptr, nullptr, nullptr), "UNKEY", "SRV1",
       R"({"type":"authorization_response","version":2,"user_nkey":"UNKEY","jwt":"<user jwt>"})", "UNKEY", "$G",
       R"({"type":"user","version":2})"},
      {"grant with empty lists", grant(empty, empty, empty, empty), "UNKEY", "SRV1",
       R"({"type":"authorization_response","version":2,"user_nkey":"UNKEY","jwt":"<user jwt>"})", "UNKEY", "$G",
       R"({"type":"user","version":2,"pub":{"allow":[],"deny":[]},"sub":{"allow":[],"deny":[]}})"},
      {"refusal", deny("SRV9", "UX", "quote \" slash / done"), "UX", "SRV9",
       R"({"type":"authorization_response","version":2,"error":"quote \" slash \/ done"})", "", "", ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const DecodedToken outer = decode_and_verify(row.token, issuer_);
    ASSERT_NE(outer.claims, nullptr);
    const int64_t iat = json_object_get_int64(member(outer.claims.get(), "iat"));
    EXPECT_GE(iat, before);
    std::string nats = row.nats;
    if (row.permissions.empty()) {
      EXPECT_EQ(outer.claims_text, claims(iat, row.sub, R"("aud":")" + row.aud + "\",", nats));
      continue;
    }
    const std::string user_jwt = text(member(outer.claims.get(), "nats"), "jwt");
    nats.replace(nats.find("<user jwt>"), 10, user_jwt);
    EXPECT_EQ(outer.claims_text, claims(iat, row.sub, R"("aud":")" + row.aud + "\",", nats));
    const DecodedToken inner = decode_and_verify(user_jwt, issuer_);
    EXPECT_EQ(inner.claims_text, claims(iat, row.sub, R"("name":")" + row.inner_name + R"(","aud":")" +
                                                         row.inner_aud + "\",",
                                        row.permissions));
  }

  char* out = nullptr;
  EXPECT_EQ(auth_jwt_sign_grant(nullptr, "s", "u", nullptr, nullptr, nullptr, nullptr, nullptr, &out), -1);
  EXPECT_EQ(auth_jwt_sign_grant(ctx_.get(), "s", "u", nullptr, nullptr, nullptr, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(auth_jwt_sign_deny(nullptr, "s", "u", "r", &out), -1);
  EXPECT_EQ(auth_jwt_sign_deny(ctx_.get(), "s", "u", "r", nullptr), -1);
  EXPECT_EQ(out, nullptr);
}

// The signing key is shared by the callout's request workers.
TEST_F(Jwt, ConcurrentSignersEachGetAValidTokenOfTheirOwn) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 25;
  std::vector<std::vector<std::string>> tokens(kThreads);
  std::vector<std::thread> signers;
  for (int t = 0; t < kThreads; ++t) {
    signers.emplace_back([&, t] {
      for (int i = 0; i < kPerThread; ++i) {
        const std::string nkey = "U" + std::to_string(t) + "-" + std::to_string(i);
        tokens[t].push_back(grant(nullptr, nullptr, nullptr, nullptr, "SRV1", nkey.c_str()));
      }
    });
  }
  for (auto& signer : signers) signer.join();
  for (int t = 0; t < kThreads; ++t) {
    ASSERT_EQ(tokens[t].size(), static_cast<size_t>(kPerThread));
    for (int i = 0; i < kPerThread; ++i) {
      const DecodedToken outer = decode_and_verify(tokens[t][i], issuer_);
      ASSERT_NE(outer.claims, nullptr);
      EXPECT_EQ(text(outer.claims.get(), "sub"), "U" + std::to_string(t) + "-" + std::to_string(i));
      decode_and_verify(text(member(outer.claims.get(), "nats"), "jwt"), issuer_);
    }
  }
}

// What one side seals to the other's xkey only the other opens, and only as sealed.
TEST(JwtXkey, SealedMessagesOpenOnlyForTheirRecipientAndUnchanged) {
  const CtxPtr broker(auth_jwt_init(nullptr));
  const CtxPtr server(auth_jwt_init(nullptr));
  ASSERT_TRUE(broker && server);
  const std::string broker_xkey = auth_jwt_xkey(broker.get());
  const std::string server_xkey = auth_jwt_xkey(server.get());
  EXPECT_EQ(broker_xkey.size(), 56u);
  EXPECT_EQ(broker_xkey[0], 'X');
  const std::string sealed = auth_jwt_seal(server.get(), "connect_opts", broker_xkey);
  ASSERT_EQ(sealed.rfind("xkv1", 0), 0u);
  const auto opened = auth_jwt_open(broker.get(), sealed, server_xkey);
  ASSERT_TRUE(opened);
  EXPECT_EQ(opened->str(), "connect_opts");
  EXPECT_EQ(auth_jwt_open(broker.get(), sealed, server_xkey)->str(), "connect_opts");  // the cached box key

  std::string flipped = sealed;
  flipped.back() ^= 1;
  const struct {
    const char* what;
    const auth_jwt_ctx_t* opener;
    std::string message;
    std::string sender;
  } refused[] = {
      {"a changed byte", broker.get(), flipped, server_xkey},
      {"another version tag", broker.get(), "xkv2" + sealed.substr(4), server_xkey},
      {"cut short", broker.get(), sealed.substr(0, 30), server_xkey},
      {"the wrong sender", broker.get(), sealed, broker_xkey},
      {"not the recipient", server.get(), sealed, server_xkey},
      {"an account key as sender", broker.get(), sealed, auth_jwt_public_key(server.get())},
      {"a sender key with a bad checksum", broker.get(), sealed,
       server_xkey.substr(0, 55) + (server_xkey.back() == 'A' ? "B" : "A")},
  };
  for (const auto& row : refused) EXPECT_FALSE(auth_jwt_open(row.opener, row.message, row.sender)) << row.what;
  EXPECT_EQ(auth_jwt_seal(broker.get(), "x", auth_jwt_public_key(server.get())), "");
}

TEST(JwtEncoding, Base64UrlNKeyAndTheLenientPayloadDecoder) {
  const unsigned char bytes[] = {0xfb, 0xff, 0xfe};
  EXPECT_EQ(base64url_encode(bytes, 0), "");
  EXPECT_EQ(base64url_encode(bytes, 1), "-w");
  EXPECT_EQ(base64url_encode(bytes, 2), "-_8");
  EXPECT_EQ(base64url_encode(bytes, 3), "-__-");

  unsigned char zero[32] = {};
  EXPECT_EQ(public_key_of(nkey_encode_public(0, zero)), std::vector<unsigned char>(32, 0));
  // prefix 20 ('U', user keys) shows the prefix goes into the top five bits.
  EXPECT_EQ(nkey_encode_public(20, zero)[0], 'U');

  // The payload's base64url has '-' or '_' in it; padding is restored before decoding.
  const std::string json = R"({"nats":{"connect_opts":{"user":"u?>","pass":"p~~"}}})";
  const std::string token =
      "h." + base64url_encode(reinterpret_cast<const unsigned char*>(json.data()), json.size()) + ".sig";
  JsonPtr claims(decode_jwt_payload(token.c_str()));
  ASSERT_NE(claims, nullptr);
  EXPECT_EQ(text(member(member(claims.get(), "nats"), "connect_opts"), "pass"), "p~~");
  // Standard-alphabet and padded input is read as well.
  JsonPtr padded(decode_jwt_payload("x.eyJhIjoxfQ==.y"));
  ASSERT_NE(padded, nullptr);
  EXPECT_EQ(json_object_get_int(member(padded.get(), "a")), 1);
  for (const char* bad : {static_cast<const char*>(nullptr), "no-dots", "one.dot", "a..c", "a.!!!!.c"})
    EXPECT_EQ(JsonPtr(decode_jwt_payload(bad)), nullptr) << (bad ? bad : "(null)");
}

class SigningKeyFile : public ::testing::Test {
 protected:
  std::string nkey_for(const std::string& path) {
    CtxPtr ctx(auth_jwt_init(path.c_str()));
    EXPECT_NE(ctx, nullptr);
    return ctx ? auth_jwt_public_key(ctx.get()) : "";
  }
  size_t files_in_dir() const {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(dir_.path()), {}));
  }
  TempDir dir_;
  std::string path_ = dir_.file("issuer.seed");
};

// A missing, empty or short file gets a new seed: owner-only, used again on the next
// start, put in place by a rename (so the old file's other names keep its bytes) that
// leaves no temporary file behind.
TEST_F(SigningKeyFile, AMissingOrShortFileGetsANewSeedRenamedIntoPlace) {
  const std::string other_name = dir_.file("other-name");
  for (const int length : {-1, 0, 31}) {
    SCOPED_TRACE(length);
    std::filesystem::remove(path_);
    std::filesystem::remove(other_name);
    if (length >= 0) {
      write_file(path_, std::string(static_cast<size_t>(length), 'k'));
      chmod(path_.c_str(), 0644);
      ASSERT_EQ(link(path_.c_str(), other_name.c_str()), 0);
    }
    const std::string nkey = nkey_for(path_);
    struct stat st {};
    ASSERT_EQ(stat(path_.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(st.st_size, 32);
    EXPECT_EQ(nkey_for(path_), nkey);
    if (length >= 0) {
      EXPECT_EQ(read_file(other_name), std::string(static_cast<size_t>(length), 'k'));
    }
    EXPECT_EQ(files_in_dir(), length >= 0 ? 2u : 1u);
  }
}

// A longer file is used as it is (its first 32 bytes) and never rewritten; tokens are
// signed with exactly that seed.
TEST_F(SigningKeyFile, TokensAreSignedWithTheFirst32BytesOnDisk) {
  const std::string seed(32, '\x42');
  write_file(path_, seed + "!");
  qm::evp_pkey_ptr reference(EVP_PKEY_new_raw_private_key(
      EVP_PKEY_ED25519, nullptr, reinterpret_cast<const unsigned char*>(seed.data()), seed.size()));
  ASSERT_NE(reference, nullptr);
  std::vector<unsigned char> reference_public(32);
  size_t len = reference_public.size();
  ASSERT_EQ(EVP_PKEY_get_raw_public_key(reference.get(), reference_public.data(), &len), 1);

  CtxPtr ctx(auth_jwt_init(path_.c_str()));
  ASSERT_NE(ctx, nullptr);
  const std::string issuer = auth_jwt_public_key(ctx.get());
  EXPECT_EQ(public_key_of(issuer), reference_public);
  EXPECT_EQ(read_file(path_), seed + "!");
  char* out = nullptr;
  ASSERT_EQ(auth_jwt_sign_deny(ctx.get(), "SRV1", "UNKEY", nullptr, &out), 0);
  const std::string token = out;
  free(out);
  decode_and_verify(token, issuer);
}

// An existing key that cannot be read is the issuer identity nats-server trusts: making
// a new one would lock every client out. Only a missing or short file makes one.
TEST_F(SigningKeyFile, AKeyThatExistsButCannotBeReadIsAnError) {
  // (A directory in its place: the broker's start-up test shows it is fatal.)
  const std::string as_fifo = dir_.file("a-fifo");
  ASSERT_EQ(mkfifo(as_fifo.c_str(), 0600), 0);
  EXPECT_EQ(CtxPtr(auth_jwt_init(as_fifo.c_str())), nullptr);
  // Nothing was replaced, and nothing written next to it.
  EXPECT_TRUE(std::filesystem::is_fifo(as_fifo));
  EXPECT_EQ(files_in_dir(), 1u);
  // A path in a missing directory cannot be written: the key lives in memory only.
  const std::string in_missing_dir = dir_.file("nope/seed");
  EXPECT_EQ(nkey_for(in_missing_dir).size(), 56u);
  EXPECT_FALSE(std::filesystem::exists(in_missing_dir));
}

}  // namespace
