#include "tests/fuzz/flow/package.h"

#include <openssl/cms.h>
#include <openssl/evp.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <numeric>
#include <span>
#include <vector>

#include "tests/fuzz/fuzzing.h"
#include "tests/fuzz/stored_gzip.h"
#include "tools/orba-archive/sha256.h"

namespace orbamira::fuzz::flow {
namespace {

constexpr std::size_t kBlock = 512;

enum Stage { kTar, kGzip, kPackage, kSent, kStageCount };

struct Member {
  char type = '0';
  std::string mode = "0644";
  std::string name;
  std::string target;
  std::string content;
};

std::string TakeField(std::string& line) {
  const std::size_t end = std::min(line.find('\t'), line.size());
  std::string field = line.substr(0, end);
  line.erase(0, std::min(end + 1, line.size()));
  return field;
}

std::vector<Member> MembersOf(const std::string& text) {
  std::vector<Member> members;
  for (std::string line : LinesOf(text)) {
    const std::string type = TakeField(line);
    Member member;
    member.type = type.empty() ? '0' : type[0];
    member.mode = TakeField(line);
    member.name = TakeField(line);
    member.target = TakeField(line);
    member.content = line;
    members.push_back(std::move(member));
  }
  return members;
}

std::string Padded(std::string text) {
  text.resize((text.size() + kBlock - 1) / kBlock * kBlock);
  return text;
}

// A name that is too long for the header comes before it, as a member of GNU's tar.
std::string LongText(char type, const std::string& text);

std::string Header(const Member& member) {
  constexpr std::size_t kNameSize = 100;
  constexpr std::size_t kSum = 148;
  constexpr std::size_t kSumSize = 8;
  std::string header(kBlock, '\0');
  const auto put = [&header](std::size_t at, std::size_t size, const std::string& text) {
    header.replace(at, std::min(size, text.size()), text, 0, size);
  };
  std::array<char, 12> size{};
  static_cast<void>(std::snprintf(size.data(), size.size(), "%011zo", member.content.size()));
  put(0, kNameSize, member.name);
  put(100, 7, member.mode);
  put(108, 7, "0000000");
  put(116, 7, "0000000");
  put(124, 11, size.data());
  put(136, 11, "00000000000");
  put(kSum, kSumSize, std::string(kSumSize, ' '));
  header[156] = member.type;
  put(157, kNameSize, member.target);
  put(257, 8, std::string("ustar\00000", 8));
  const unsigned sum = std::accumulate(header.begin(), header.end(), 0U,
                                       [](unsigned total, char byte) { return total + static_cast<uint8_t>(byte); });
  std::array<char, kSumSize> text{};
  static_cast<void>(std::snprintf(text.data(), text.size(), "%06o", sum));
  put(kSum, kSumSize - 1, std::string(text.data(), kSumSize - 1));
  return (member.name.size() > kNameSize ? LongText('L', member.name) : "") +
         (member.target.size() > kNameSize ? LongText('K', member.target) : "") + header;
}

std::string LongText(char type, const std::string& text) {
  return Header({.type = type, .name = "././@LongLink", .target = "", .content = text}) + Padded(text);
}

std::string Tar(const std::vector<Member>& members) {
  std::string tar;
  for (const Member& member : members) {
    tar += Header(member) + Padded(member.content);
  }
  return tar + std::string(2 * kBlock, '\0');
}

std::string Sha256Of(const std::string& bytes) {
  tools::Sha256 digest;
  digest.Add(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
  return digest.Finish();
}

void Damage(std::string& bytes, const std::string& damage, Stage stage) {
  for (ByteReader reader(damage); !reader.done() && !bytes.empty();) {
    const auto at = static_cast<Stage>(reader.Next() % kStageCount);
    const std::size_t low = reader.Next();
    const std::size_t offset = (low | std::size_t{reader.Next()} << 8) % bytes.size();
    const uint8_t value = reader.Next();
    if (at == stage) {
      bytes[offset] = static_cast<char>(static_cast<uint8_t>(bytes[offset]) ^ value);
    }
  }
}

std::string ManifestOf(const std::vector<Member>& members, const std::string& head) {
  std::string manifest = head;
  for (const Member& member : members) {
    manifest.append(Sha256Of(member.content)).append("  ").append(member.name).append("\n");
  }
  return manifest;
}

}  // namespace

Signer::Signer() : key_(EVP_EC_gen("P-256")), certificate_(X509_new()) {
  constexpr long kDay = 24L * 60 * 60;
  X509* const certificate = certificate_.get();
  X509_set_version(certificate, X509_VERSION_3);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate), -kDay);
  ASN1_TIME_set_string(X509_getm_notAfter(certificate), "99991231235959Z");
  X509_set_pubkey(certificate, key_.get());
  X509_NAME* const name = X509_get_subject_name(certificate);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, reinterpret_cast<const unsigned char*>("maker"), -1, -1, 0);
  X509_set_issuer_name(certificate, name);
  Require(X509_sign(certificate, key_.get(), EVP_sha256()) != 0, "a certificate can be made");
}

std::string Signer::CertificatePem() const {
  const Owned<BIO, BIO_free> text(BIO_new(BIO_s_mem()));
  PEM_write_bio_X509(text.get(), certificate_.get());
  char* data = nullptr;
  const long size = BIO_get_mem_data(text.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

std::string Signer::Sign(const std::string& text) const {
  constexpr unsigned kFlags = CMS_DETACHED | CMS_BINARY | CMS_NOSMIMECAP;
  const Owned<BIO, BIO_free> source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  const Owned<CMS_ContentInfo, CMS_ContentInfo_free> message(
      CMS_sign(certificate_.get(), key_.get(), nullptr, source.get(), kFlags));
  const Owned<BIO, BIO_free> signature(BIO_new(BIO_s_mem()));
  Require(message != nullptr && i2d_CMS_bio(signature.get(), message.get()) == 1, "a manifest can be signed");
  char* data = nullptr;
  const long size = BIO_get_mem_data(signature.get(), &data);
  return {data, static_cast<std::size_t>(size)};
}

Package Pack(const Input& input, Signing signing, const Signer& trusted, const Signer& untrusted) {
  const std::string& damage = input[Part::kDamage];
  std::string payload = Tar(MembersOf(input[Part::kPayload]));
  Damage(payload, damage, kTar);
  payload = StoredGzip(payload);
  Damage(payload, damage, kGzip);

  std::vector<Member> members = {{.name = "INFO", .target = "", .content = input[Part::kInfo]},
                                 {.name = "package.tgz", .target = "", .content = payload}};
  const std::vector<Member> more = MembersOf(input[Part::kMembers]);
  members.insert(members.end(), more.begin(), more.end());
  if (signing != Signing::kNone) {
    const std::string manifest = ManifestOf(members, input[Part::kManifest]);
    const Signer& signer = signing == Signing::kUntrusted ? untrusted : trusted;
    std::string signature = signer.Sign(signing == Signing::kDamaged ? manifest + "\n" : manifest);
    members.push_back({.name = "MANIFEST", .target = "", .content = manifest});
    members.push_back({.name = "MANIFEST.sig", .target = "", .content = std::move(signature)});
  }
  Package package{.bytes = Tar(members)};
  Damage(package.bytes, damage, kPackage);
  package.digest = Sha256Of(package.bytes);
  Damage(package.bytes, damage, kSent);
  package.sent_digest = Sha256Of(package.bytes);
  return package;
}

}  // namespace orbamira::fuzz::flow
