#pragma once

#include <openssl/x509_vfy.h>

#include <cstdint>

namespace orbamira::tools {

/// Sets the time that certificates are judged at, in seconds since 1970; the nearest that the system's OpenSSL can
/// hold.
void SetVerifyTime(X509_VERIFY_PARAM* rules, std::int64_t seconds);

}  // namespace orbamira::tools
