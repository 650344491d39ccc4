#include "tools/orba-archive/signature.h"

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509_vfy.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <map>
#include <new>
#include <optional>
#include <stdexcept>
#include <string_view>

#include "platform/posix/files.h"
#include "platform/posix/openssl.h"
#include "tools/orba-archive/archive_reader.h"

namespace orbamira::tools {
namespace {

constexpr const char* kManifestName = "MANIFEST";
constexpr const char* kSignatureName = "MANIFEST.sig";
constexpr uint64_t kMaxTextSize = 1UL << 20U;  // of the two above, which are held in memory
constexpr size_t kDigestSize = 32;
constexpr int kMinSecurityLevel = 2;  // 112 bits: RSA from 2048 bits on, no SHA-1

template <typename Pointer>
Pointer NotNull(Pointer pointer) {
  if (!pointer) {
    throw std::bad_alloc();
  }
  return pointer;
}

/// What the library has to say about its last failure.
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

void Check(bool done) {
  if (!done) {
    ThrowLibraryError("cannot compute a digest");
  }
}

class Sha256 {
 public:
  Sha256() : context_(NotNull(Owned<EVP_MD_CTX, EVP_MD_CTX_free>(EVP_MD_CTX_new()))) {
    Check(EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
  }

  void Add(std::span<const uint8_t> bytes) { Check(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1); }

  /// The digest of all that was added, in hexadecimal digits. Nothing can be added behind it.
  std::string Finish() {
    std::array<uint8_t, kDigestSize> digest{};
    Check(EVP_DigestFinal_ex(context_.get(), digest.data(), nullptr) == 1);
    std::string text;
    for (const uint8_t byte : digest) {
      constexpr std::string_view kDigits = "0123456789abcdef";
      text += kDigits[byte >> 4U];
      text += kDigits[byte & 15U];
    }
    return text;
  }

 private:
  Owned<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

using Digests = std::map<std::string, std::string>;

struct Package {
  std::string manifest;
  std::string signature;
  Digests members;  // all but these two
};

/// Hands every piece of the current member to `take`. Bytes between pieces are refused: they cost nothing to send, and
/// the time to digest them would have no bound.
template <typename Take>
void ReadContents(ArchiveReader& archive, const Member& member, Take take) {
  uint64_t size = 0;
  for (Piece piece; archive.Read(piece); size += piece.data.size()) {
    if (piece.offset != size) {
      throw std::runtime_error(member.name + ": a sparse file in a signed package");
    }
    take(piece.data);
  }
  if (size != member.size) {
    throw std::runtime_error(member.name + ": a sparse file in a signed package");
  }
}

std::string ReadText(ArchiveReader& archive, const Member& member) {
  if (member.size > kMaxTextSize) {
    throw std::runtime_error(member.name + ": longer than " + std::to_string(kMaxTextSize) + " bytes");
  }
  std::string text;
  ReadContents(archive, member, [&text](std::span<const uint8_t> data) { text.append(data.begin(), data.end()); });
  return text;
}

std::string ReadDigest(ArchiveReader& archive, const Member& member) {
  Sha256 digest;
  ReadContents(archive, member, [&digest](std::span<const uint8_t> data) { digest.Add(data); });
  return digest.Finish();
}

Package ReadPackage(int file) {
  ArchiveReader archive(OpenByteSource(file, Layer::kPackage));
  Digests texts;
  Package package;
  Member member;
  while (archive.Next(member)) {
    if (member.kind != Member::Kind::kFile) {
      throw std::runtime_error(member.name + ": a package holds only files at its top");
    }
    const bool is_text = member.name == kManifestName || member.name == kSignatureName;
    const std::string value = is_text ? ReadText(archive, member) : ReadDigest(archive, member);
    if (!(is_text ? texts : package.members).emplace(member.name, value).second) {
      throw std::runtime_error(member.name + ": in the package twice");
    }
  }
  if (!texts.contains(kManifestName) || !texts.contains(kSignatureName)) {
    throw std::runtime_error("not signed");
  }
  package.manifest = texts[kManifestName];
  package.signature = texts[kSignatureName];
  return package;
}

Digests ParseManifest(std::string_view text) {
  constexpr std::string_view kSeparator = "  ";
  constexpr size_t kNameStart = 2 * kDigestSize + kSeparator.size();
  Digests digests;
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    if (line.size() <= kNameStart || line.size() == text.size() ||
        line.substr(2 * kDigestSize, kSeparator.size()) != kSeparator ||
        !digests.emplace(line.substr(kNameStart), line.substr(0, 2 * kDigestSize)).second) {
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
      throw std::runtime_error(name + ": not what MANIFEST says");
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
  const PemObjects infos(PEM_X509_INFO_read_bio(file.get(), nullptr, nullptr, nullptr));
  if (!infos) {
    ThrowLibraryError(path);
  }
  auto store = NotNull(Owned<X509_STORE, X509_STORE_free>(X509_STORE_new()));
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    const X509_INFO* info = sk_X509_INFO_value(infos.get(), i);
    if (!IsCertificateAlone(*info)) {
      throw std::runtime_error(path + ": something other than certificates in it");
    }
    if (X509_STORE_add_cert(store.get(), info->x509) != 1) {
      ThrowLibraryError(path);
    }
  }
  if (sk_X509_INFO_num(infos.get()) == 0) {
    throw std::runtime_error(path + ": no certificate in it");
  }
  X509_VERIFY_PARAM* rules = X509_STORE_get0_param(store.get());
  X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_auth_level(rules, kMinSecurityLevel);
  // The keyring is for packs alone, so a certificate need not say what it is for.
  X509_VERIFY_PARAM_set_purpose(rules, X509_PURPOSE_ANY);
  return store;
}

Owned<BIO, BIO_free> TextSource(const std::string& text) {
  return NotNull(Owned<BIO, BIO_free>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size()))));
}

/// The library takes a message without signers for well signed, and any digest that it knows.
void CheckSigners(CMS_ContentInfo* message) {
  STACK_OF(CMS_SignerInfo)* signers = CMS_get0_SignerInfos(message);
  if (signers == nullptr || sk_CMS_SignerInfo_num(signers) < 1) {
    throw std::runtime_error("MANIFEST.sig: signed by nobody");
  }
  for (int i = 0; i < sk_CMS_SignerInfo_num(signers); ++i) {
    X509_ALGOR* algorithm = nullptr;
    CMS_SignerInfo_get0_algs(sk_CMS_SignerInfo_value(signers, i), nullptr, nullptr, &algorithm, nullptr);
    const EVP_MD* digest = EVP_get_digestbyobj(algorithm->algorithm);
    if (digest == nullptr || EVP_MD_get_size(digest) < static_cast<int>(kDigestSize)) {
      throw std::runtime_error("MANIFEST.sig: signed with a weak digest");
    }
  }
}

void CheckSignatureOf(const Package& package, X509_STORE* keyring) {
  ERR_clear_error();
  const Owned<BIO, BIO_free> signature = TextSource(package.signature);
  const auto message = Owned<CMS_ContentInfo, CMS_ContentInfo_free>(d2i_CMS_bio(signature.get(), nullptr));
  if (!message) {
    ThrowLibraryError("MANIFEST.sig");
  }
  CheckSigners(message.get());
  const Owned<BIO, BIO_free> manifest = TextSource(package.manifest);
  if (CMS_verify(message.get(), nullptr, keyring, manifest.get(), nullptr, CMS_BINARY) != 1) {
    ThrowLibraryError("MANIFEST.sig");
  }
}

}  // namespace

void CheckSignature(int package, const std::string& keyring) {
  const Package contents = ReadPackage(package);
  CheckSignatureOf(contents, LoadKeyring(keyring).get());
  CheckMembers(contents.members, ParseManifest(contents.manifest));
}

}  // namespace orbamira::tools
