// The sanitizer that this test was built with. g++ defines macros for it, clang has features.

#pragma once

#if defined(__SANITIZE_ADDRESS__)
#define ZEPH_TEST_ADDRESS_SANITIZER true
#endif
#if defined(__SANITIZE_THREAD__)
#define ZEPH_TEST_THREAD_SANITIZER true
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEPH_TEST_ADDRESS_SANITIZER true
#endif
#if __has_feature(thread_sanitizer)
#define ZEPH_TEST_THREAD_SANITIZER true
#endif
#endif

#ifdef ZEPH_TEST_ADDRESS_SANITIZER
inline constexpr bool AddressSanitizer = true;
#else
inline constexpr bool AddressSanitizer = false;
#endif
#ifdef ZEPH_TEST_THREAD_SANITIZER
inline constexpr bool ThreadSanitizer = true;
#else
inline constexpr bool ThreadSanitizer = false;
#endif

#undef ZEPH_TEST_ADDRESS_SANITIZER
#undef ZEPH_TEST_THREAD_SANITIZER
