#include "tools/orba-archive/signature.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cerrno>
#include <new>
#include <stdexcept>
#include <string_view>

#include "platform/posix/files.h"
#include "platform/posix/openssl.h"
#include "platform/posix/trust.h"
#include "tools/orba-archive/sha256.h"

namespace orbamira::tools {
namespace {

using Digests = std::map<std::string, std::string>;

constexpr int kMinSecurityLevel = 2;  // 112 bits: RSA from 2048 bits on, no SHA-1

template <typename Pointer>
Pointer NotNull(Pointer pointer) {
  if (!pointer) {
    throw std::bad_alloc();
  }
  return pointer;
}

/// Throws the library's last error.
[[noreturn]] void ThrowLibraryError(const std::string& what) {
  const char* data = nullptr;
  int flags = 0;
  const unsigned long code = ERR_peek_last_error_all(nullptr, nullptr, nullptr, &data, &flags);
  const char* reason = ERR_reason_error_string(code);
  std::string text = what + ": " + (reason != nullptr ? reason : "unknown error");
  if ((static_cast<unsigned>(flags) & ERR_TXT_STRING) != 0 && data != nullptr && *data != '\0') {
    text.append(": ").append(data);
  }
  throw std::runtime_error(text);
}

Digests ParseManifest(std::string_view text) {
  constexpr std::string_view kSeparator = "  ";
  constexpr size_t kNameStart = 2 * Sha256::kSize + kSeparator.size();
  Digests digests;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.size() <= kNameStart || line.size() == text.size() ||
        line.substr(2 * Sha256::kSize, kSeparator.size()) != kSeparator ||
        !digests.emplace(line.substr(kNameStart), line.substr(0, 2 * Sha256::kSize)).second) {
      throw std::runtime_error("MANIFEST: damaged");
    }
    text.remove_prefix(line.size() + 1);
  }
  return digests;
}

void CheckMembers(const Digests& members, const Digests& listed) {
  for (const auto& [name, digest] : members) {
    const auto entry = listed.find(name);
    if (entry == listed.end()) {
      throw std::runtime_error(name + ": not in MANIFEST");
    }
    if (entry->second != digest) {
      throw std::runtime_error(name + ": does not match MANIFEST");
    }
  }
  for (const auto& [name, digest] : listed) {
    if (!members.contains(name)) {
      throw std::runtime_error(name + ": in MANIFEST, but not in the package");
    }
  }
}

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

void CheckManifest(const std::string& text, const std::string& signature_text, X509_STORE* keyring) {
  ERR_clear_error();
  const Owned<BIO, BIO_free> signature = TextSource(signature_text);
  const auto message = Owned<CMS_ContentInfo, CMS_ContentInfo_free>(d2i_CMS_bio(signature.get(), nullptr));
  if (!message) {
    ThrowLibraryError("MANIFEST.sig");
  }
  CheckSigners(message.get());
  const Owned<BIO, BIO_free> manifest = TextSource(text);
  if (CMS_verify(message.get(), nullptr, keyring, manifest.get(), nullptr, CMS_BINARY) != 1) {
    ThrowLibraryError("MANIFEST.sig");
  }
  CheckKeyUsage(message.get());
}

}  // namespace

void CheckSignature(const PackageContents& package, const std::string& keyring) {
  if (!package.manifest || !package.signature) {
    throw std::runtime_error("not signed");
  }
  CheckManifest(*package.manifest, *package.signature, LoadKeyring(keyring).get());
  CheckMembers(package.digests, ParseManifest(*package.manifest));
}

}  // namespace orbamira::tools
