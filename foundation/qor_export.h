// Symbol visibility for libqor, the language level its headers need, and
// whether the code including them is built with AddressSanitizer. Every
// public header includes this one. The library is built with hidden
// visibility; everything an application may call or read is marked QOR_API.
#ifndef QOR_EXPORT_H
#define QOR_EXPORT_H

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "libqor's headers need C++17 or later (compile with -std=c++17, -std=c++20, ...)"
#endif

#define QOR_API __attribute__((visibility("default")))
#define QOR_HIDDEN __attribute__((visibility("hidden")))

// QOR_ASAN is 1 in code built with AddressSanitizer (gcc or clang), where the
// allocators tell it which of their blocks are free; it is undefined
// elsewhere.
#if defined(__SANITIZE_ADDRESS__)
#define QOR_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define QOR_ASAN 1
#endif
#endif

#endif
