// RAII ownership of the C libraries' handles, one alias per handle type, so that no
// early return leaks one. Owners of the broker's own opaque records use
// qm::c_ptr<T, T_destroy> directly; add a library's handles here when a module starts
// using them rather than writing a deleter of its own.
#pragma once

#include <archive.h>
#include <archive_entry.h>
#include <curl/curl.h>
#include <dirent.h>
#include <json-c/json.h>
#include <ldap.h>
#include <microhttpd.h>
#include <nats/nats.h>
#include <openssl/evp.h>
#include <proton/message.h>
#include <proton/proactor.h>
#include <proton/ssl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

#include "qm_cpp.hpp"

namespace qm {

namespace detail {
inline void fclose_file(FILE* f) { std::fclose(f); }
inline void close_dir(DIR* d) { closedir(d); }
inline void ldap_unbind(LDAP* ld) { ldap_unbind_ext_s(ld, nullptr, nullptr); }
inline void ldap_free_values(berval** values) { ldap_value_free_len(values); }
// Strings libmicrohttpd hands out that hold secrets (the Basic-auth password).
inline void mhd_free_wiped(char* s) {
  OPENSSL_cleanse(s, std::strlen(s));
  MHD_free(s);
}
}  // namespace detail

// nats.c
using nats_options_ptr = c_ptr<natsOptions, natsOptions_Destroy>;
using nats_connection_ptr = c_ptr<natsConnection, natsConnection_Destroy>;
using nats_subscription_ptr = c_ptr<natsSubscription, natsSubscription_Destroy>;
using nats_msg_ptr = c_ptr<natsMsg, natsMsg_Destroy>;
using js_ctx_ptr = c_ptr<jsCtx, jsCtx_Destroy>;
using kv_store_ptr = c_ptr<kvStore, kvStore_Destroy>;
using kv_entry_ptr = c_ptr<kvEntry, kvEntry_Destroy>;
using js_stream_info_ptr = c_ptr<jsStreamInfo, jsStreamInfo_Destroy>;
using js_consumer_info_ptr = c_ptr<jsConsumerInfo, jsConsumerInfo_Destroy>;
using js_pub_ack_ptr = c_ptr<jsPubAck, jsPubAck_Destroy>;

// json-c
using json_ptr = c_ptr<json_object, json_object_put>;
using json_tokener_ptr = c_ptr<json_tokener, json_tokener_free>;

// libmicrohttpd
using mhd_daemon_ptr = c_ptr<MHD_Daemon, MHD_stop_daemon>;
using mhd_response_ptr = c_ptr<MHD_Response, MHD_destroy_response>;
using mhd_post_processor_ptr = c_ptr<MHD_PostProcessor, MHD_destroy_post_processor>;
using mhd_string_ptr = c_ptr<char, MHD_free>;
using mhd_secret_ptr = c_ptr<char, detail::mhd_free_wiped>;

// OpenSSL
using evp_pkey_ptr = c_ptr<EVP_PKEY, EVP_PKEY_free>;
using evp_md_ctx_ptr = c_ptr<EVP_MD_CTX, EVP_MD_CTX_free>;

// OpenLDAP
using ldap_ptr = c_ptr<LDAP, detail::ldap_unbind>;
using ldap_message_ptr = c_ptr<LDAPMessage, ldap_msgfree>;
using ldap_string_ptr = c_ptr<char, ldap_memfree>;
using ldap_values_ptr = c_ptr<berval*, detail::ldap_free_values>;

// libcurl
using curl_ptr = c_ptr<CURL, curl_easy_cleanup>;
using curl_url_ptr = c_ptr<CURLU, curl_url_cleanup>;
using curl_slist_ptr = c_ptr<curl_slist, curl_slist_free_all>;
using curl_mime_ptr = c_ptr<curl_mime, curl_mime_free>;

// libarchive
using archive_read_ptr = c_ptr<archive, archive_read_free>;
using archive_write_ptr = c_ptr<archive, archive_write_free>;
using archive_entry_ptr = c_ptr<archive_entry, archive_entry_free>;

// Qpid Proton
using pn_message_ptr = c_ptr<pn_message_t, pn_message_free>;
using pn_proactor_ptr = c_ptr<pn_proactor_t, pn_proactor_free>;
using pn_ssl_domain_ptr = c_ptr<pn_ssl_domain_t, pn_ssl_domain_free>;

// stdio, directory streams
using file_ptr = c_ptr<FILE, detail::fclose_file>;
using dir_ptr = c_ptr<DIR, detail::close_dir>;

// A POSIX file descriptor, closed when the owner goes away.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace qm
