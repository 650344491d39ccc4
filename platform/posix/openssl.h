#pragma once

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <memory>

// Smart pointers for OpenSSL's objects. Not installed.
namespace orbamira {

template <auto Free>
struct Deleter {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};

template <typename T, auto Free>
using Owned = std::unique_ptr<T, Deleter<Free>>;

/// A pem_password_cb for what has no business being encrypted; OpenSSL's own asks at the terminal.
inline int GiveNoPassphrase(char* /*buffer*/, int /*size*/, int /*is_writing*/, void* /*data*/) { return 0; }

inline void FreePemObjects(STACK_OF(X509_INFO) * objects) { sk_X509_INFO_pop_free(objects, X509_INFO_free); }

/// The objects in a PEM file.
using PemObjects = Owned<STACK_OF(X509_INFO), FreePemObjects>;

/// Whether the object is a certificate and nothing else, which is all that a keyring may hold.
inline bool IsCertificateAlone(const X509_INFO& object) {
  return object.x509 != nullptr && object.crl == nullptr && object.x_pkey == nullptr;
}

}  // namespace orbamira
