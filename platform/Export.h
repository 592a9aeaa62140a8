#pragma once

// Marks what libdiskstream and libdiskstream-agent offer to programs; everything else stays hidden.
// DISKSTREAM_SHARED_BUILD is defined while the shared libraries are built, DISKSTREAM_STATIC by
// users of the static ones.
#if !defined(_WIN32)
#define DISKSTREAM_EXPORT [[gnu::visibility("default")]]
#elif defined(DISKSTREAM_STATIC)
#define DISKSTREAM_EXPORT
#elif defined(DISKSTREAM_SHARED_BUILD)
#define DISKSTREAM_EXPORT [[gnu::dllexport]]
#else
#define DISKSTREAM_EXPORT [[gnu::dllimport]]
#endif
