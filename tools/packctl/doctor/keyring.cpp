#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <ctime>

#include "platform/accepted_packages.h"
#include "platform/constants.h"
#include "platform/posix/openssl.h"
#include "platform/posix/trusted_time.h"
#include "platform/version.h"
#include "tools/packctl/doctor/checks.h"
#include "updater/kos_helper.h"

namespace orbamira::packctl {
namespace {

constexpr const char* kKeyring = "keyring";
constexpr const char* kShipAgain = "ship a keyring of certificates alone";

std::string SubjectOf(const X509* certificate) {
  const Owned<BIO, BIO_free> text(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (!text || X509_NAME_print_ex(text.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253) < 0) {
    return "a certificate";
  }
  const long length = BIO_get_mem_data(text.get(), &data);
  return "the certificate of " + std::string(data, static_cast<std::size_t>(length));
}

// How far away the time is, before now if negative. By times of ours, which may have more bits than OpenSSL's.
long long SecondsUntil(const ASN1_TIME* time, std::time_t now) {
  std::tm parts = {};
  return ASN1_TIME_to_tm(time, &parts) == 1 ? static_cast<long long>(timegm(&parts)) - now : 0;
}

void CheckCertificate(const X509* certificate, std::time_t now, Findings& findings) {
  constexpr long long kSoon = 30LL * 24 * 60 * 60;
  constexpr int kMinSecurityBits = 112;
  const std::string subject = std::string(path::kKeyring) + ": " + SubjectOf(certificate);
  const long long left = SecondsUntil(X509_get0_notAfter(certificate), now);
  if (SecondsUntil(X509_get0_notBefore(certificate), now) > 0) {
    findings.push_back({kKeyring, subject + " is not valid yet", "set the clock, or wait until it is"});
  } else if (left < 0) {
    findings.push_back({kKeyring, subject + " has expired", "ship a keyring with its successor"});
  } else if (left < kSoon) {
    findings.push_back({kKeyring, subject + " expires within 30 days", "ship a keyring with its successor too"});
  }
  if (EVP_PKEY_get_security_bits(X509_get0_pubkey(certificate)) < kMinSecurityBits) {
    findings.push_back(
        {kKeyring, subject + " has a key that is too weak to be accepted", "ship a keyring with a stronger one"});
  }
}

void CheckClock(const TrustedTime& time, Findings& findings) {
  if (time.IsClockBehind()) {
    findings.push_back({kKeyring,
                        "the clock says " + orbamira::DayText(time.clock) + ", and it is " +
                            orbamira::DayText(time.floor) + " at least, so signatures are judged as of that day",
                        "set the clock"});
  }
}

void CheckAccepted(const AcceptedPackages& accepted, Findings& findings) {
  const std::string file = path::kAcceptedPackagesFile;
  struct stat about {};
  if (accepted == AcceptedPackages() && lstat(file.c_str(), &about) == 0) {
    findings.push_back({kKeyring, file + " cannot be used, so an older pack may come back after a removal",
                        "remove it; the next update writes it anew"});
  }
  const std::string installed = updater::KOSHelper::Create()->GetVersionFromPath(path::kPackInfoPath);
  if (!installed.empty() && IsNewVersion(installed, accepted.minimum)) {
    findings.push_back({kKeyring,
                        "the installed " + installed + " is older than " + accepted.minimum +
                            ", the minimum that a newer package named",
                        "run \"packctl update\""});
  }
}

// Whether somebody between here and the server could answer in its place.
bool IsOpenToAnyone(const std::string& address) {
  const bool is_here = address.starts_with("http://127.") || address.starts_with("http://localhost") ||
                       address.starts_with("http://[::1]");
  return SchemeOf(address) == "http" && !is_here;
}

}  // namespace

Findings CheckKeyring() {
  Findings findings;
  const std::string file = path::kKeyring;
  struct stat about {};
  if (lstat(file.c_str(), &about) != 0) {
    if (IsOpenToAnyone(updater::KOSHelper::Create()->GetPackUpdateServerUrl())) {
      findings.push_back({kKeyring,
                          "packages come over http and unsigned ones are accepted, so whoever is on the way to the "
                          "update server can replace them",
                          std::string("sign packages and ship ") + file + ", or serve them over https"});
    }
    return findings;
  }
  const AcceptedPackages accepted = ReadAcceptedPackages();
  const TrustedTime time = ReadTrustedTime(accepted.newest_signature);
  CheckClock(time, findings);
  CheckAccepted(accepted, findings);
  const FileText read = ReadText(file);
  if (!read.text) {
    const std::string why = read.problem.empty() ? "it is a link to nowhere" : read.problem;
    findings.push_back({kKeyring, file + " cannot be read, so no package is accepted: " + why, kShipAgain});
    return findings;
  }
  const Owned<BIO, BIO_free> source(BIO_new_mem_buf(read.text->data(), static_cast<int>(read.text->size())));
  const PemObjects infos(source ? PEM_X509_INFO_read_bio(source.get(), nullptr, nullptr, nullptr) : nullptr);
  ERR_clear_error();
  if (!infos) {
    findings.push_back({kKeyring, file + " is damaged, so no package is accepted", kShipAgain});
    return findings;
  }
  if (sk_X509_INFO_num(infos.get()) == 0) {
    findings.push_back({kKeyring, file + " holds no certificate, so no package is accepted", kShipAgain});
  }
  for (int i = 0; i < sk_X509_INFO_num(infos.get()); ++i) {
    const X509_INFO* const info = sk_X509_INFO_value(infos.get(), i);
    if (!IsCertificateAlone(*info)) {
      findings.push_back(
          {kKeyring, file + " holds something other than certificates, so no package is accepted", kShipAgain});
    } else {
      CheckCertificate(info->x509, time.now(), findings);
    }
  }
  return findings;
}

}  // namespace orbamira::packctl
