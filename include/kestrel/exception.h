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
    KSException(const char* const id, const char* const format, ...) KESTREL_PRINTF_FORMAT(3, 4);
    // Copies both texts.
    KSException(const KSException& other);
    KSException& operator=(const KSException& other);
    virtual ~KSException();

    // Identifier := id; a null id empties it.
    void setID(const char* const id);

    // Message := the formatted text; a null format empties it.
    void setMessage(const char* const format, ...) KESTREL_PRINTF_FORMAT(2, 3);
    // setMessage() with the arguments in a va_list, which it does not end.
    void vsetMessage(const char* const format, va_list args) KESTREL_PRINTF_FORMAT(2, 0);

    // Message := old message + new piece (no separator). A null format
    // leaves the message unchanged.
    void appendMessage(const char* const format, ...) KESTREL_PRINTF_FORMAT(2, 3);
    // Message := new piece + old message (no separator). A null format
    // leaves the message unchanged.
    void prependMessage(const char* const format, ...) KESTREL_PRINTF_FORMAT(2, 3);

    // The identifier; never null, empty when unset.
    const char* getID() const;
    // The message; never null, empty when unset.
    const char* getMessage() const;

  private:
    std::string _id;
    std::string _message;
};

}  // namespace kestrel
