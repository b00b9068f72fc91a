// KSException, the one exception type of the library: a machine-readable
// identifier ("corvane:plugin:symbolNotFound") and a printf-style message
// that callers may extend on the way up. Plugin loading and the debug-output
// file throw it by value.
#pragma once

#include <cstdarg>
#include <string>

#include "kestrel/export.h"

namespace kestrel {

// An identifier and a formatted message. Each formatted piece is cut to
// 2047 characters; the message built by appending and prepending pieces
// has no limit. It deliberately does not derive from std::exception:
// a handler for std::exception does not catch it.
//
// Thread safety: an object is not shared between threads; no operation locks.
// Lifetime: getID()/getMessage() pointers stay valid until that text is next
//   changed or the object is destroyed.
// Errors: never throws, except std::bad_alloc when a string cannot grow.
class KESTREL_API KSException {
  public:
    // Identifier := id (empty when null); message := the formatted text
    // (empty when format is null).
    KSException(const char* const id, const char* const format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 3, 4)))
#endif
        ;
    KSException(const KSException& other);
    KSException& operator=(const KSException& other);
    virtual ~KSException();

    // Identifier := id; a null id empties it.
    void setID(const char* const id);

    // Message := the formatted text; a null format empties it.
    void setMessage(const char* const format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    void vsetMessage(const char* const format, va_list args);

    // Message := old message + new piece (no separator). A null format
    // leaves the message unchanged.
    void appendMessage(const char* const format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;
    // Message := new piece + old message (no separator). A null format
    // leaves the message unchanged.
    void prependMessage(const char* const format, ...)
#if defined(__GNUC__)
        __attribute__((format(printf, 2, 3)))
#endif
        ;

    // Never null; empty when unset.
    const char* getID() const;
    const char* getMessage() const;

  private:
    std::string _id;
    std::string _message;
};

}  // namespace kestrel
