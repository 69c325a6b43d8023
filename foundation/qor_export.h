// Symbol visibility for libqor, and the language level its headers need.
// Every public header includes this one. The library is built with hidden
// visibility; everything an application may call or read is marked QOR_API.
#ifndef QOR_EXPORT_H
#define QOR_EXPORT_H

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "libqor's headers need C++17 or later (compile with -std=c++17, -std=c++20, ...)"
#endif

#define QOR_API __attribute__((visibility("default")))
#define QOR_HIDDEN __attribute__((visibility("hidden")))

#endif
