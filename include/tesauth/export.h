/// What is public is said once, here: a declaration marked TESAUTH_API is exported from
/// libtesauth, everything else is hidden.
#ifndef TESAUTH_EXPORT_H
#define TESAUTH_EXPORT_H

#if defined(__GNUC__)
#define TESAUTH_API __attribute__((visibility("default")))
#else
#define TESAUTH_API
#endif

#endif
