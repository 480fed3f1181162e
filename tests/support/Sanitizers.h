// Whether the tests run under AddressSanitizer. Every step is three to ten times slower there, so
// the tests that work at scale take a smaller size of the same shape.
#pragma once

#include <cstdint>

namespace TestSupport {

#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool underSanitizers = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool underSanitizers = true;
#else
inline constexpr bool underSanitizers = false;
#endif
#else
inline constexpr bool underSanitizers = false;
#endif

// `plain`, or `sanitized` under the sanitizers.
constexpr uint32_t sizeFor(uint32_t plain, uint32_t sanitized) {
   return underSanitizers ? sanitized : plain;
}

} // namespace TestSupport
