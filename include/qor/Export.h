// The one macro that puts a name into the library's exported interface.
#ifndef QOR_EXPORT_H
#define QOR_EXPORT_H

#define QOR_API __attribute__((visibility("default")))

#endif
