// The issued tokens as a real nats-server judges them: a minimal callout responder signs
// a grant for one password and a refusal for any other.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <nats/nats.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "auth_jwt.hpp"
#include "nats_server_fixture.hpp"
#include "qm_handles.hpp"
#include "test_support.hpp"

namespace {

using namespace std::chrono_literals;

std::string claim(json_object* root, std::initializer_list<const char*> path) {
  json_object* node = root;
  for (const char* key : path) {
    if (node == nullptr || !json_object_object_get_ex(node, key, &node)) return "";
  }
  return node ? json_object_get_string(node) : "";
}

void on_auth_request(natsConnection* nc, natsSubscription*, natsMsg* msg, void* closure) {
  const auto* ctx = static_cast<const auth_jwt_ctx_t*>(closure);
  const std::string request(natsMsg_GetData(msg), static_cast<size_t>(natsMsg_GetDataLength(msg)));
  qm::json_ptr claims(decode_jwt_payload(request.c_str()));
  const std::string server_id = claim(claims.get(), {"nats", "server_id", "id"});
  const std::string user_nkey = claim(claims.get(), {"nats", "user_nkey"});
  const std::string password = claim(claims.get(), {"nats", "connect_opts", "pass"});
  const char* const allow_all[] = {">", nullptr};
  char* token = nullptr;
  if (password == "right") {
    auth_jwt_sign_grant(ctx, server_id.c_str(), user_nkey.c_str(), nullptr, allow_all, nullptr, allow_all, nullptr,
                        &token);
  } else {
    auth_jwt_sign_deny(ctx, server_id.c_str(), user_nkey.c_str(), "wrong password", &token);
  }
  if (token != nullptr && natsMsg_GetReply(msg) != nullptr) {
    natsConnection_PublishString(nc, natsMsg_GetReply(msg), token);
  }
  free(token);
  natsMsg_Destroy(msg);
}

natsStatus connect(const std::string& url, const char* user, const char* password, natsConnection** nc) {
  natsOptions* opts = nullptr;
  natsOptions_Create(&opts);
  natsOptions_SetURL(opts, url.c_str());
  natsOptions_SetUserInfo(opts, user, password);
  natsOptions_SetTimeout(opts, 5000);
  const natsStatus s = natsConnection_Connect(nc, opts);
  natsOptions_Destroy(opts);
  return s;
}

TEST(JwtWithNatsServer, GrantAdmitsAndRefusalRejects) {
  qm::c_ptr<auth_jwt_ctx_t, auth_jwt_destroy> ctx(auth_jwt_init(nullptr));
  ASSERT_NE(ctx, nullptr);
  qmtest::TempDir dir;
  const int port = qmtest::free_port();
  const std::string url = "nats://127.0.0.1:" + std::to_string(port);
  qmtest::write_file(dir.file("nats.conf"), "listen: 127.0.0.1:" + std::to_string(port) +
                                                "\nauthorization {\n  users: [ { user: auth, password: authpw } ]\n"
                                                "  auth_callout {\n    issuer: \"" +
                                                auth_jwt_public_key(ctx.get()) + "\"\n    auth_users: [ auth ]\n  }\n}\n");
  qmtest::Child server({qmtest::nats_server_binary(), "-c", dir.file("nats.conf")});
  ASSERT_TRUE(server.wait_for_err("Server is ready", 30s)) << server.err();

  natsConnection* responder = nullptr;
  ASSERT_EQ(connect(url, "auth", "authpw", &responder), NATS_OK);
  natsSubscription* sub = nullptr;
  ASSERT_EQ(natsConnection_Subscribe(&sub, responder, "$SYS.REQ.USER.AUTH", on_auth_request, ctx.get()), NATS_OK);
  ASSERT_EQ(natsConnection_Flush(responder), NATS_OK);

  natsConnection* client = nullptr;
  EXPECT_EQ(connect(url, "alice", "right", &client), NATS_OK) << server.err();
  if (client != nullptr) {
    EXPECT_EQ(natsConnection_PublishString(client, "scan.test", "hello"), NATS_OK);
    EXPECT_EQ(natsConnection_Flush(client), NATS_OK);
    natsConnection_Destroy(client);
  }
  natsConnection* refused = nullptr;
  EXPECT_NE(connect(url, "alice", "wrong", &refused), NATS_OK);
  natsConnection_Destroy(refused);
  EXPECT_TRUE(server.wait_for_err("wrong password", 10s)) << server.err();

  natsSubscription_Destroy(sub);
  natsConnection_Destroy(responder);
  nats_CloseAndWait(5000);
}

}  // namespace
