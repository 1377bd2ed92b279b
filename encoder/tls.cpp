// SPDX-License-Identifier: Apache-2.0
// CONTENTS
//   Faults        become text
//   Files         hold certificates and keys, as PEM or PKCS#12
//   Connections   shake hands, read and write
#include "tls.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/provider.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "ini_file.h"
#include "values.h"

namespace mdencoder {
namespace {

template <auto function>
struct Free {
  template <typename T>
  void operator()(T* pointer) const {
    function(pointer);
  }
};
using BioOwner = std::unique_ptr<BIO, Free<BIO_free_all>>;
using CertificateOwner = std::unique_ptr<X509, Free<X509_free>>;
using KeyOwner = std::unique_ptr<EVP_PKEY, Free<EVP_PKEY_free>>;
using Pkcs12Owner = std::unique_ptr<PKCS12, Free<PKCS12_free>>;

void FreeStack(STACK_OF(X509) * certificates) {
  sk_X509_pop_free(certificates, X509_free);
}
using StackOwner = std::unique_ptr<STACK_OF(X509), Free<FreeStack>>;

// --- Faults ------------------------------------------------------------------------------------------

// Returns the reason of the oldest fault, which is the cause of the others, and forgets them all.
std::string Reason(const std::string& otherwise) {
  const unsigned long error = ERR_get_error();
  ERR_clear_error();
  if (error == 0) return otherwise;
  if (ERR_SYSTEM_ERROR(error)) return std::strerror(ERR_GET_REASON(error));
  const char* const reason = ERR_reason_error_string(error);
  return reason != nullptr ? reason : otherwise;
}

[[noreturn]] void Fail(const std::string& key, const std::string& path, const std::string& why) {
  throw ConfigError(key + " = " + path + ": " + why);
}

// --- Files -------------------------------------------------------------------------------------------

// What a PKCS#12 file holds.
struct Bundle {
  KeyOwner key;
  CertificateOwner certificate;
  StackOwner others;
};

BioOwner Open(const std::string& key, const std::string& path) {
  BioOwner file(BIO_new_file(path.c_str(), "rb"));
  if (!file) Fail(key, path, Reason("cannot be opened"));
  return file;
}

bool IsPem(const std::string& key, const std::string& path) {
  const BioOwner file = Open(key, path);
  char line[256];
  // Text for people may stand before the first block.
  for (int lines = 0; lines < 1000; ++lines) {
    const int size = BIO_gets(file.get(), line, sizeof(line));
    if (size <= 0) break;
    if (std::string_view(line, static_cast<size_t>(size)).starts_with("-----BEGIN ")) return true;
  }
  ERR_clear_error();
  return false;
}

// Many of these files are encrypted in ways that OpenSSL keeps in a module of its own.
void LoadOldCiphers() {
  static OSSL_PROVIDER* const kLegacy = OSSL_PROVIDER_try_load(nullptr, "legacy", 1);
  static OSSL_PROVIDER* const kDefault = OSSL_PROVIDER_try_load(nullptr, "default", 1);
  static_cast<void>(kLegacy);
  static_cast<void>(kDefault);
  ERR_clear_error();
}

Bundle ReadPkcs12(const std::string& key, const std::string& path, const std::string& password) {
  LoadOldCiphers();
  const BioOwner file = Open(key, path);
  const Pkcs12Owner pkcs12(d2i_PKCS12_bio(file.get(), nullptr));
  ERR_clear_error();
  if (!pkcs12) Fail(key, path, "is neither PEM nor PKCS#12");
  EVP_PKEY* privateKey = nullptr;
  X509* certificate = nullptr;
  STACK_OF(X509)* others = nullptr;
  if (PKCS12_parse(pkcs12.get(), password.c_str(), &privateKey, &certificate, &others) != 1) {
    Fail(key, path, Reason("cannot be decrypted") + " (tls_password)");
  }
  return {KeyOwner(privateKey), CertificateOwner(certificate), StackOwner(others)};
}

int GivePassword(char* buffer, int size, int, void* password) {
  const auto& text = *static_cast<const std::string*>(password);
  const int length = static_cast<int>(std::min<size_t>(text.size(), static_cast<size_t>(std::max(size, 0))));
  std::memcpy(buffer, text.data(), static_cast<size_t>(length));
  return length;
}

void LoadAuthorities(SSL_CTX* context, const TlsSettings& settings) {
  if (settings.ca.empty()) {
    if (SSL_CTX_set_default_verify_paths(context) != 1) throw ConfigError("the system's authorities cannot be read");
    return;
  }
  if (IsPem("tls_ca", settings.ca)) {
    if (SSL_CTX_load_verify_locations(context, settings.ca.c_str(), nullptr) != 1) {
      Fail("tls_ca", settings.ca, Reason("holds no certificate"));
    }
    return;
  }
  const Bundle bundle = ReadPkcs12("tls_ca", settings.ca, settings.password);
  X509_STORE* const store = SSL_CTX_get_cert_store(context);
  int added = 0;
  for (int i = 0; i < sk_X509_num(bundle.others.get()); ++i) {
    added += X509_STORE_add_cert(store, sk_X509_value(bundle.others.get(), i));
  }
  if (bundle.certificate) added += X509_STORE_add_cert(store, bundle.certificate.get());
  if (added == 0) Fail("tls_ca", settings.ca, "holds no certificate");
}

void LoadCertificate(SSL_CTX* context, const TlsSettings& settings) {
  if (settings.certificate.empty()) return;
  if (!IsPem("tls_certificate", settings.certificate)) {
    const Bundle bundle = ReadPkcs12("tls_certificate", settings.certificate, settings.password);
    if (!bundle.certificate || !bundle.key) {
      Fail("tls_certificate", settings.certificate, "lacks a certificate or its key");
    }
    if (SSL_CTX_use_cert_and_key(context, bundle.certificate.get(), bundle.key.get(), bundle.others.get(), 1) != 1) {
      Fail("tls_certificate", settings.certificate, Reason("cannot be used"));
    }
    return;
  }
  if (SSL_CTX_use_certificate_chain_file(context, settings.certificate.c_str()) != 1) {
    Fail("tls_certificate", settings.certificate, Reason("holds no certificate"));
  }
  const std::string& key = settings.key.empty() ? settings.certificate : settings.key;
  if (SSL_CTX_use_PrivateKey_file(context, key.c_str(), SSL_FILETYPE_PEM) != 1) {
    Fail("tls_key", key, Reason("holds no key"));
  }
}

}  // namespace

struct TlsClient::Context {
  std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>> ssl;
  std::string password;
};

TlsClient::TlsClient(const TlsSettings& settings) : m_context(std::make_unique<Context>()) {
  ERR_clear_error();
  m_context->password = settings.password;
  m_context->ssl.reset(SSL_CTX_new(TLS_client_method()));
  SSL_CTX* const context = m_context->ssl.get();
  if (context == nullptr) throw ConfigError("TLS is not available: " + Reason("no memory"));
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  // What waits to be written may have moved and grown until it is tried again.
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // Without a password the library would ask for one on the terminal.
  SSL_CTX_set_default_passwd_cb(context, GivePassword);
  SSL_CTX_set_default_passwd_cb_userdata(context, &m_context->password);
  LoadAuthorities(context, settings);
  LoadCertificate(context, settings);
  ERR_clear_error();
}

TlsClient::~TlsClient() = default;

struct TlsServer::Context {
  std::unique_ptr<SSL_CTX, Free<SSL_CTX_free>> ssl;
};

TlsServer::TlsServer(const std::string& certificate, const std::string& key) : m_context(std::make_unique<Context>()) {
  ERR_clear_error();
  m_context->ssl.reset(SSL_CTX_new(TLS_server_method()));
  SSL_CTX* const context = m_context->ssl.get();
  if (context == nullptr) throw ConfigError("TLS is not available: " + Reason("no memory"));
  SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
  SSL_CTX_set_options(context, SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  // A key with a password cannot be used: the library would ask for it on the terminal.
  SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return -1; });
  if (SSL_CTX_use_certificate_chain_file(context, certificate.c_str()) != 1) {
    Fail("http_cert", certificate, Reason("holds no certificate"));
  }
  const std::string& keyFile = key.empty() ? certificate : key;
  if (SSL_CTX_use_PrivateKey_file(context, keyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
    Fail("http_key", keyFile, Reason("holds no key"));
  }
  if (SSL_CTX_check_private_key(context) != 1) Fail("http_key", keyFile, "is not the key of " + certificate);
  ERR_clear_error();
}

TlsServer::~TlsServer() = default;

// --- Connections -------------------------------------------------------------------------------------

struct TlsConnection::State {
  std::unique_ptr<SSL, Free<SSL_free>> ssl;
};

TlsConnection::TlsConnection(const TlsClient& client, int socket, const std::string& name)
    : m_state(std::make_unique<State>()) {
  ERR_clear_error();
  m_state->ssl.reset(SSL_new(client.m_context->ssl.get()));
  SSL* const ssl = m_state->ssl.get();
  const bool isAddress = ParseAddress(name).has_value();
  const bool isReady =
      ssl != nullptr && SSL_set_fd(ssl, socket) == 1 &&
      (isAddress ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), name.c_str()) == 1
                 : SSL_set1_host(ssl, name.c_str()) == 1 && SSL_set_tlsext_host_name(ssl, name.c_str()) == 1);
  if (!isReady) throw std::runtime_error("TLS cannot be set up: " + Reason("no memory"));
}

TlsConnection::TlsConnection(const TlsServer& server, int socket)
    : m_state(std::make_unique<State>()), m_isServer(true) {
  ERR_clear_error();
  m_state->ssl.reset(SSL_new(server.m_context->ssl.get()));
  if (!m_state->ssl || SSL_set_fd(m_state->ssl.get(), socket) != 1) {
    throw std::runtime_error("TLS cannot be set up: " + Reason("no memory"));
  }
}

TlsConnection::~TlsConnection() {
  ERR_clear_error();
}

// Turns the result of a call that did not succeed into an outcome.
TlsConnection::Outcome TlsConnection::Judge(int result) {
  const int error = errno;
  switch (SSL_get_error(m_state->ssl.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return Outcome::WaitToRead;
    case SSL_ERROR_WANT_WRITE:
      return Outcome::WaitToWrite;
    case SSL_ERROR_ZERO_RETURN:
      return Outcome::Ended;
    case SSL_ERROR_SYSCALL:
      m_fault = error != 0 ? std::strerror(error) : "the connection ended";
      ERR_clear_error();
      return Outcome::Failed;
    default:
      break;
  }
  const long verdict = SSL_get_verify_result(m_state->ssl.get());
  if (verdict != X509_V_OK) {
    m_fault = std::string("the server's certificate is refused: ") + X509_verify_cert_error_string(verdict);
    ERR_clear_error();
  } else {
    m_fault = "TLS: " + Reason("failed");
  }
  return Outcome::Failed;
}

TlsConnection::Outcome TlsConnection::Handshake() {
  ERR_clear_error();
  errno = 0;
  SSL* const ssl = m_state->ssl.get();
  const int result = m_isServer ? SSL_accept(ssl) : SSL_connect(ssl);
  return result == 1 ? Outcome::Done : Judge(result);
}

TlsConnection::Outcome TlsConnection::Read(std::span<uint8_t> buffer, size_t& got) {
  ERR_clear_error();
  errno = 0;
  got = 0;
  const int result =
      SSL_read(m_state->ssl.get(), buffer.data(), static_cast<int>(std::min<size_t>(buffer.size(), INT_MAX)));
  if (result <= 0) return Judge(result);
  got = static_cast<size_t>(result);
  return Outcome::Done;
}

TlsConnection::Outcome TlsConnection::Write(std::span<const uint8_t> bytes, size_t& put) {
  ERR_clear_error();
  errno = 0;
  put = 0;
  const int result =
      SSL_write(m_state->ssl.get(), bytes.data(), static_cast<int>(std::min<size_t>(bytes.size(), INT_MAX)));
  if (result <= 0) return Judge(result);
  put = static_cast<size_t>(result);
  return Outcome::Done;
}

void TlsConnection::Finish() {
  ERR_clear_error();
  SSL_shutdown(m_state->ssl.get());
  ERR_clear_error();
}

}  // namespace mdencoder
