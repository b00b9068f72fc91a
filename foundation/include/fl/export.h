// FL_API marks what the foundation stand-in library exports. The library is
// built with hidden visibility, so anything without the mark stays private.
#pragma once

#if defined(_WIN32) || defined(__CYGWIN__)
#if defined(FL_BUILDING_LIBRARY)
#define FL_API __declspec(dllexport)
#else
#define FL_API __declspec(dllimport)
#endif
#else
#define FL_API __attribute__((visibility("default")))
#endif
