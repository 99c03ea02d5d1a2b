// Which sanitizer this was built with: g++ defines macros for it, clang has features. Few units may
// ask: those that replace or reuse memory, and tests of what no sanitizer lets happen.

#ifndef ZEPH_BASE_SANITIZERS_H
#define ZEPH_BASE_SANITIZERS_H

// 1 or 0, for code that must not even be compiled.
#if defined(__SANITIZE_ADDRESS__)
#define ZEPH_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZEPH_ADDRESS_SANITIZER 1
#endif
#endif
#ifndef ZEPH_ADDRESS_SANITIZER
#define ZEPH_ADDRESS_SANITIZER 0
#endif

#if defined(__SANITIZE_THREAD__)
#define ZEPH_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define ZEPH_THREAD_SANITIZER 1
#endif
#endif
#ifndef ZEPH_THREAD_SANITIZER
#define ZEPH_THREAD_SANITIZER 0
#endif

// The same for all other code.
inline constexpr bool kAddressSanitizer = ZEPH_ADDRESS_SANITIZER;
inline constexpr bool kThreadSanitizer = ZEPH_THREAD_SANITIZER;

#endif
