#include "qm_nats_conn.hpp"

#include <nats/version.h>

#include <mutex>

#include "log.hpp"

bool qm_nats_url_wants_tls(const std::string& url) {
  return url.rfind("tls://", 0) == 0 || url.rfind("wss://", 0) == 0;
}

std::string qm_nats_url_host(const std::string& url) {
  const size_t start = url.find("://");
  if (start == std::string::npos) return {};
  const size_t from = start + 3;
  const size_t end = url.find_first_of(":/", from);
  std::string host = url.substr(from, end == std::string::npos ? std::string::npos : end - from);
  return host.size() <= 255 ? host : std::string();
}

qm_nats_tls_result_t qm_nats_apply_tls(natsOptions* opts, const std::string& url, const char* cert_path,
                                       natsStatus* status) {
  if (status) *status = NATS_OK;
  if (!qm_nats_url_wants_tls(url)) return QM_NATS_TLS_PLAIN;
  natsStatus s = natsOptions_SetSecure(opts, true);
  if (s != NATS_OK) {
    if (status) *status = s;
    return QM_NATS_TLS_SECURE_FAILED;
  }
#if NATS_VERSION_NUMBER >= 0x030900
  natsOptions_TLSHandshakeFirst(opts);
#else
  // A server configured with handshake_first "auto" (or a duration) accepts both kinds.
  static std::once_flag warned;
  std::call_once(warned, [] {
    log_warn("nats: TLS handshake-first needs nats.c 3.9 or newer \u2014 using the standard TLS upgrade");
  });
#endif
  const std::string host = qm_nats_url_host(url);
  if (!host.empty()) natsOptions_SetExpectedHostname(opts, host.c_str());
  if (cert_path == nullptr || cert_path[0] == '\0') return QM_NATS_TLS_NO_CA;
  s = natsOptions_LoadCATrustedCertificates(opts, cert_path);
  if (s != NATS_OK) {
    if (status) *status = s;
    return QM_NATS_TLS_CA_FAILED;
  }
  return QM_NATS_TLS_SECURED;
}

bool qm_nats_configure_tls(natsOptions* opts, const std::string& url, const char* cert_path,
                           const qm_nats_tls_texts& texts) {
  natsStatus status = NATS_OK;
  switch (qm_nats_apply_tls(opts, url, cert_path, &status)) {
    case QM_NATS_TLS_PLAIN:
    case QM_NATS_TLS_SECURED:
      return true;
    case QM_NATS_TLS_NO_CA:
      if (texts.no_ca_warning != nullptr) log_warn("%s", texts.no_ca_warning);
      return true;
    case QM_NATS_TLS_SECURE_FAILED:
      if (texts.secure_failed != nullptr)
        log_log(texts.failure_level, __func__, __FILE_NAME__, __LINE__, texts.secure_failed,
                natsStatus_GetText(status));
      return false;
    case QM_NATS_TLS_CA_FAILED:
      if (texts.ca_failed != nullptr)
        log_log(texts.failure_level, __func__, __FILE_NAME__, __LINE__, texts.ca_failed, cert_path,
                natsStatus_GetText(status));
      return false;
  }
  return false;
}

void qm_nats_msg_wipe(natsMsg* msg) {
  if (msg == nullptr || natsMsg_GetData(msg) == nullptr || natsMsg_GetDataLength(msg) <= 0) return;
  // The payload is the message's own buffer; the library only hands it out read-only.
  OPENSSL_cleanse(const_cast<char*>(natsMsg_GetData(msg)), static_cast<size_t>(natsMsg_GetDataLength(msg)));
}

qm::nats_options_ptr qm_nats_request_options() {
  natsOptions* raw = nullptr;
  if (natsOptions_Create(&raw) != NATS_OK) return nullptr;
  qm::nats_options_ptr opts(raw);
  if (natsOptions_SetSendAsap(opts.get(), true) != NATS_OK) return nullptr;
  return opts;
}

int qm_nats_library_open() { return nats_Open(0) == NATS_OK ? 0 : -1; }
