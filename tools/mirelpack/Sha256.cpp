#include "tools/mirelpack/Sha256.hpp"

#include "tools/mirelpack/PackError.hpp"

#include <array>
#include <openssl/evp.h>

namespace mirelpack {

void Sha256::ContextFree::operator()(evp_md_ctx_st* context) const noexcept {
    EVP_MD_CTX_free(context);
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
    if (!context_ || EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) != 1) {
        throw PackError("SHA-256 is not available");
    }
}

void Sha256::update(void const* bytes, std::size_t size) {
    if (EVP_DigestUpdate(context_.get(), bytes, size) != 1) {
        throw PackError("SHA-256 failed");
    }
}

std::string Sha256::finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned size = 0;
    if (EVP_DigestFinal_ex(context_.get(), digest.data(), &size) != 1) {
        throw PackError("SHA-256 failed");
    }
    static constexpr char K_DIGITS[] = "0123456789abcdef";
    std::string text;
    for (unsigned i = 0; i < size; ++i) {
        text += K_DIGITS[digest[i] >> 4];
        text += K_DIGITS[digest[i] & 15];
    }
    return text;
}

} // namespace mirelpack
