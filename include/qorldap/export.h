// Marks the declarations that make up the library's ABI. Everything else is built with
// hidden visibility and never leaves the shared object.
#ifndef QORLDAP_EXPORT_H
#define QORLDAP_EXPORT_H

#if defined(QORLDAP_BUILDING_LIBRARY)
#define QORLDAP_API __attribute__((visibility("default")))
#else
#define QORLDAP_API
#endif
// For members of an exported class that are not part of the ABI.
#define QORLDAP_LOCAL __attribute__((visibility("hidden")))

#endif
