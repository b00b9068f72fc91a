#include "kestrel/exception.h"

#include <cstdio>

namespace kestrel {

namespace {

// Each formatted piece goes through a fixed stack buffer; longer output is
// cut to its first kPieceBufferSize - 1 characters.
constexpr std::size_t kPieceBufferSize = 2048;

std::string formatPiece(const char* format, va_list args) {
    if (format == nullptr) {
        return std::string();
    }
    char buffer[kPieceBufferSize];
    const int written = std::vsnprintf(buffer, sizeof buffer, format, args);
    if (written < 0) {
        // The formatter failed: keep what it wrote, if anything.
        buffer[kPieceBufferSize - 1] = '\0';
    }
    // The text ends at its first zero byte, even one produced by the format.
    return std::string(buffer);
}

}  // namespace

KSException::KSException(const char* const id, const char* const format, ...) {
    setID(id);
    va_list args;
    va_start(args, format);
    vsetMessage(format, args);
    va_end(args);
}

KSException::KSException(const KSException& other) = default;
KSException& KSException::operator=(const KSException& other) = default;
KSException::~KSException() = default;

void KSException::setID(const char* const id) {
    if (id == nullptr) {
        _id.clear();
    } else {
        _id = id;
    }
}

void KSException::setMessage(const char* const format, ...) {
    va_list args;
    va_start(args, format);
    vsetMessage(format, args);
    va_end(args);
}

void KSException::vsetMessage(const char* const format, va_list args) {
    _message = formatPiece(format, args);
}

void KSException::appendMessage(const char* const format, ...) {
    va_list args;
    va_start(args, format);
    std::string piece = formatPiece(format, args);
    va_end(args);
    _message += piece;
}

void KSException::prependMessage(const char* const format, ...) {
    va_list args;
    va_start(args, format);
    std::string piece = formatPiece(format, args);
    va_end(args);
    _message.insert(0, piece);
}

const char* KSException::getID() const {
    return _id.c_str();
}

const char* KSException::getMessage() const {
    return _message.c_str();
}

}  // namespace kestrel
