#include "tests/support/package_signer.h"

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <cstddef>
#include <functional>
#include <stdexcept>

namespace orbamira::test {
namespace {

constexpr long kDay = 24L * 60 * 60;

void Check(bool done, const char* what) {
  if (!done) {
    throw std::runtime_error(std::string("OpenSSL: ") + what);
  }
}

std::string BytesOf(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return {text, static_cast<std::size_t>(size)};
}

std::string MakeMessage(const std::string& text, const std::function<void(CMS_ContentInfo*)>& add_signers) {
  constexpr unsigned kForm = CMS_BINARY | CMS_DETACHED;
  const Owned<CMS_ContentInfo, CMS_ContentInfo_free> message(
      CMS_sign(nullptr, nullptr, nullptr, nullptr, kForm | CMS_PARTIAL));
  Check(message != nullptr, "CMS_sign");
  add_signers(message.get());
  const Owned<BIO, BIO_free> source(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
  Check(CMS_final(message.get(), source.get(), nullptr, kForm) == 1, "CMS_final");
  const Owned<BIO, BIO_free> bytes(BIO_new(BIO_s_mem()));
  Check(i2d_CMS_bio(bytes.get(), message.get()) == 1, "i2d_CMS_bio");
  return BytesOf(bytes.get());
}

}  // namespace

PackageSigner::PackageSigner(const std::string& name, int days) : key_(EVP_EC_gen("P-256")), certificate_(X509_new()) {
  Check(key_ && certificate_, "no key");
  X509* const made = certificate_.get();
  X509_NAME* const subject = X509_get_subject_name(made);
  const auto* const bytes = reinterpret_cast<const unsigned char*>(name.c_str());
  Check(X509_set_version(made, X509_VERSION_3) == 1 && ASN1_INTEGER_set(X509_get_serialNumber(made), 1) == 1 &&
            X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8, bytes, -1, -1, 0) == 1 &&
            X509_set_issuer_name(made, subject) == 1 && X509_gmtime_adj(X509_getm_notBefore(made), -kDay) != nullptr &&
            X509_gmtime_adj(X509_getm_notAfter(made), days * kDay) != nullptr &&
            X509_set_pubkey(made, key_.get()) == 1 && X509_sign(made, key_.get(), EVP_sha256()) != 0,
        "no certificate");
}

std::string PackageSigner::Certificate() const {
  const Owned<BIO, BIO_free> bio(BIO_new(BIO_s_mem()));
  Check(PEM_write_bio_X509(bio.get(), certificate_.get()) == 1, "PEM_write_bio_X509");
  return BytesOf(bio.get());
}

void PackageSigner::AddTo(CMS_ContentInfo* message, std::optional<std::time_t> signed_at) const {
  const unsigned attributes = signed_at ? 0 : CMS_NOATTR;
  CMS_SignerInfo* const signer =
      CMS_add1_signer(message, certificate_.get(), key_.get(), EVP_sha256(), CMS_BINARY | CMS_PARTIAL | attributes);
  Check(signer != nullptr, "no signer");
  if (signed_at) {
    const Owned<ASN1_TIME, ASN1_TIME_free> time(ASN1_TIME_set(nullptr, *signed_at));
    Check(CMS_signed_add1_attr_by_NID(signer, NID_pkcs9_signingTime, ASN1_STRING_type(time.get()), time.get(), -1) == 1,
          "no signing time");
  }
}

std::string PackageSigner::Sign(const std::string& text, std::optional<std::time_t> signed_at) const {
  return MakeMessage(text, [&](CMS_ContentInfo* message) { AddTo(message, signed_at); });
}

std::string SignBoth(const std::string& text, const PackageSigner& one, std::time_t one_at, const PackageSigner& other,
                     std::time_t other_at) {
  return MakeMessage(text, [&](CMS_ContentInfo* message) {
    one.AddTo(message, one_at);
    other.AddTo(message, other_at);
  });
}

}  // namespace orbamira::test
