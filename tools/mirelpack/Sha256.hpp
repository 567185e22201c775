#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace mirelpack {

/// A running SHA-256.
///
/// Thread safety: one thread at a time, the caller's duty.
/// Errors: `PackError` if the crypto library refuses.
class Sha256 {
public:
    Sha256();

    void update(void const* bytes, std::size_t size);
    /// 64 lower-case hexadecimal digits; nothing can be added afterwards.
    std::string finish();

private:
    struct ContextFree {
        void operator()(evp_md_ctx_st* context) const noexcept;
    };
    std::unique_ptr<evp_md_ctx_st, ContextFree> context_;
};

} // namespace mirelpack
