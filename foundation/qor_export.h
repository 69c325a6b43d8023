// Symbol visibility for libqor. The library is built with hidden visibility;
// everything an application may call or read is marked QOR_API.
#ifndef QOR_EXPORT_H
#define QOR_EXPORT_H

#define QOR_API __attribute__((visibility("default")))
#define QOR_HIDDEN __attribute__((visibility("hidden")))

#endif
