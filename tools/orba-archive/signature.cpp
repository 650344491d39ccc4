#include "tools/orba-archive/signature.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>

#include "platform/posix/files.h"
#include "platform/posix/openssl.h"
#include "platform/posix/trust.h"
#include "tools/orba-archive/sha256.h"
#include "tools/orba-archive/verify_time.h"

namespace orbamira::tools {
namespace {

constexpr int kMinSecurityLevel = 2;  // 112 bits: RSA from 2048 bits on, no SHA-1

template <typename Pointer>
Pointer NotNull(Pointer pointer) {
  if (!pointer) {
    throw std::bad_alloc();
  }
  return pointer;
}

/// The library's last error, in words.
std::string LibraryError(const std::string& what) {
  const char* data = nullptr;
  int flags = 0;
  const unsigned long code = ERR_peek_last_error_all(nullptr, nullptr, nullptr, &data, &flags);
  const char* reason = ERR_reason_error_string(code);
  std::string text = what + ": " + (reason != nullptr ? reason : "unknown error");
  if ((static_cast<unsigned>(flags) & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
    text.append(": ").append(data);
  }
  return text;
}

[[noreturn]] void ThrowLibraryError(const std::string& what) { throw std::runtime_error(LibraryError(what)); }

Owned<X509_STORE, X509_STORE_free> LoadKeyring(const std::string& path) {
  const auto file = Owned<BIO, BIO_free>(BIO_new_file(path.c_str(), "r"));
  if (!file) {
    ThrowErrno(path);
  }
  FILE* stream = nullptr;
  BIO_get_fp(file.get(), &stream);
  if (const std::string reason = WhyDistrusted(fileno(stream), "it"); !reason.empty()) {
    throw std::runtime_error(path + ": " + reason);
  }
  const PemObjects infos(PEM_X509_INFO_read_bio(file.get(), nullptr, nullptr, nullptr));
  if (!infos) {
    ThrowLibraryError(path);
  }
  auto store = NotNull(Owned<X509_STORE, X509_STORE_free>(X509_STORE_new()));
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    const X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (!IsCertificateAlone(*info)) {
      throw std::runtime_error(path + ": contains something other than certificates");
    }
    if (X509_STORE_add_cert(store.get(), info->x509) != 1) {
      ThrowLibraryError(path);
    }
  }
  if (sk_X509_INFO_num(infos.get()) == 0) {
    throw std::runtime_error(path + ": contains no certificate");
  }
  X509_VERIFY_PARAM* rules = X509_STORE_get0_param(store.get());
  X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_auth_level(rules, kMinSecurityLevel);
  // The keyring is only for packs, so a certificate need not name its purpose.
  X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);
  return store;
}

Owned<BIO, BIO_free> TextSource(const std::string& text) {
  return NotNull(Owned<BIO, BIO_free>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
}

/// The library accepts a message without signers, and any digest that it knows.
void CheckSigners(CMS_ContentInfo* message) {
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(message);
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) < 1) {
    throw std::runtime_error("MANIFEST.sig: has no signer");
  }
  for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), nullptr, nullptr, &algorithm, nullptr);
    const EVP_MD* digest = EVP_get_digestbyobj(algorithm->algorithm);
    if (digest == nullptr || EVP_MD_get_size(digest) < static_cast<int>(Sha256::kSize)) {
      throw std::runtime_error("MANIFEST.sig: signed with a weak digest");
    }
  }
}

/// Frees a stack that does not own its certificates.
void FreeStackAlone(STACK_OF(X509) * certificates) { sk_X509_free(certificates); }

/// A certificate that restricts the use of its key must allow signatures.
void CheckKeyUsage(CMS_ContentInfo* message) {
  const Owned<STACK_OF(X509), FreeStackAlone> signers(CMS_get0_signers(message));
  for (int i = 0; i < sk_X509_num(signers.get()); ++i) {
    if ((X509_get_key_usage(sk_X509_value(signers.get(), i)) & KU_DIGITAL_SIGNATURE) == 0) {
      throw std::runtime_error("MANIFEST.sig: the key usage of the signer's certificate has no digitalSignature");
    }
  }
}

/// When this signer says that it signed, in seconds since 1970; 0 when it does not say.
std::time_t SigningTime(const CMS_SignerInfo* signer) {
  const int place = CMS_signed_get_attr_by_NID(signer, NID_pkcs9_signingTime, -1);
  const ASN1_TYPE* value = X509_ATTRIBUTE_get0_type(CMS_signed_get_attr(signer, place), 0);
  std::tm parts = {};
  if (value == nullptr || (value->type != V_ASN1_UTCTIME && value->type != V_ASN1_GENERALIZEDTIME) ||
      ASN1_TIME_to_tm(value->value.asn1_string, &parts) != 1) {
    return 0;
  }
  return std::max<std::time_t>(timegm(&parts), 0);
}

/// What all signers agree on.
std::time_t SigningTime(CMS_ContentInfo* message) {
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(message);
  std::time_t earliest = SigningTime(sk_CMS_SignerInfo_value(signers, 0));
  for (int i = 1; i < sk_CMS_SignerInfo_num(signers); ++i) {
    earliest = std::min(earliest, SigningTime(sk_CMS_SignerInfo_value(signers, i)));
  }
  return earliest;
}

bool IsSigned(CMS_ContentInfo* message, const std::string& text, X509_STORE* keyring, std::time_t now) {
  SetVerifyTime(X509_STORE_get0_param(keyring), now);
  const Owned<BIO, BIO_free> content = TextSource(text);
  return CMS_verify(message, nullptr, keyring, content.get(), nullptr, CMS_BINARY) == 1;
}

/// Throws why the library does not verify the message, and that the clock may be the reason if it is known to be wrong.
[[noreturn]] void ThrowNotVerified(const TrustedTime& time) {
  std::string reason = LibraryError("MANIFEST.sig");
  if (time.IsClockBehind() && reason.ends_with(X509_verify_cert_error_string(X509_V_ERR_CERT_NOT_YET_VALID))) {
    reason += "; the clock says " + DayText(time.clock) + ", so it was judged as of " + DayText(time.floor);
  }
  throw std::runtime_error(reason);
}

}  // namespace

std::time_t CheckSignature(const std::string& text, const std::string& signature, const std::string& keyring,
                           const TrustedTime& time) {
  const Owned<X509_STORE, X509_STORE_free> trusted = LoadKeyring(keyring);
  ERR_clear_error();
  const Owned<BIO, BIO_free> source = TextSource(signature);
  const auto message = Owned<CMS_ContentInfo, CMS_ContentInfo_free>(d2i_CMS_bio(source.get(), nullptr));
  if (!message) {
    ThrowLibraryError("MANIFEST.sig");
  }
  CheckSigners(message.get());
  if (!IsSigned(message.get(), text, trusted.get(), time.now())) {
    ThrowNotVerified(time);
  }
  CheckKeyUsage(message.get());
  // A signer whose clock is ahead must not make its own certificates, and those of others, look expired for ever.
  const std::time_t signed_at = SigningTime(message.get());
  const bool counts = signed_at <= time.now() || IsSigned(message.get(), text, trusted.get(), signed_at);
  return counts ? signed_at : 0;
}

}  // namespace orbamira::tools
