#pragma once

namespace kxtest {

#if defined(__SANITIZE_THREAD__)
#define KX_TEST_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KX_TEST_TSAN 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__)
#define KX_TEST_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KX_TEST_ASAN 1
#endif
#endif

// For tests of misuse that a sanitizer would report, and of limits that it does not live with.
#if defined(KX_TEST_TSAN)
inline constexpr bool kThreadSanitizer = true;
#else
inline constexpr bool kThreadSanitizer = false;
#endif
#if defined(KX_TEST_ASAN)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif

}  // namespace kxtest
