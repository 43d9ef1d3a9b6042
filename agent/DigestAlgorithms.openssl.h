// The digests of OpenSSL.
//
// Their own functions are called, not the provider interface above them: that one allocates some
// thousand blocks at its first use and crashes when one of them is refused, and no request must
// hang on either.

#pragma once

// OpenSSL 3 would rather see its provider interface used; see above.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <openssl/md5.h>
#include <openssl/sha.h>

#include <array>
#include <cstddef>
#include <string>

namespace AgentUtils {

/// One digest through the functions of its own algorithm.
template <class Context, int (*start)(Context*), int (*add)(Context*, const void*, std::size_t),
          int (*finish)(unsigned char*, Context*), std::size_t length>
class Algorithm {
 public:
  Algorithm() { start(&context_); }
  void update(const void* bytes, std::size_t count) { add(&context_, bytes, count); }
  std::string value() {
    std::array<unsigned char, length> result;
    finish(result.data(), &context_);
    return {result.begin(), result.end()};
  }

 private:
  Context context_;
};

using Md5 = Algorithm<MD5_CTX, MD5_Init, MD5_Update, MD5_Final, MD5_DIGEST_LENGTH>;
using Sha1 = Algorithm<SHA_CTX, SHA1_Init, SHA1_Update, SHA1_Final, SHA_DIGEST_LENGTH>;
using Sha224 =
    Algorithm<SHA256_CTX, SHA224_Init, SHA224_Update, SHA224_Final, SHA224_DIGEST_LENGTH>;
using Sha256 =
    Algorithm<SHA256_CTX, SHA256_Init, SHA256_Update, SHA256_Final, SHA256_DIGEST_LENGTH>;
using Sha384 =
    Algorithm<SHA512_CTX, SHA384_Init, SHA384_Update, SHA384_Final, SHA384_DIGEST_LENGTH>;
using Sha512 =
    Algorithm<SHA512_CTX, SHA512_Init, SHA512_Update, SHA512_Final, SHA512_DIGEST_LENGTH>;

}  // namespace AgentUtils
