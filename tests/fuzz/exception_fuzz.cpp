// KSException messages: each formatted piece ends at its first zero byte and
// keeps at most 2047 characters; appending and prepending join the pieces
// without a limit; a null format empties (set) or changes nothing (append,
// prepend).
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/exception.h"

// Input: operations separated by 0xFF bytes; the first byte of each, modulo
// 5, chooses what is done with the rest: set, append, prepend, set to null,
// set the identifier.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    kestrel::KSException e(nullptr, nullptr);
    std::string message, rest(data, data + size), op;
    while (!rest.empty()) {
        std::tie(op, rest) = kestrel_fuzz::splitAt(rest, '\xff');
        const auto text = kestrel_fuzz::exactCopy(op.empty() ? op : op.substr(1));
        const char* t = text.get();
        const std::string piece(t, std::min<std::size_t>(std::strlen(t), 2047));
        const int kind = static_cast<unsigned char>(op[0]) % 5;  // an empty op's is 0
        if (kind == 0) {
            e.setMessage("%s%c%s", t, 0, t);
            message = piece;
        } else if (kind == 1) {
            e.appendMessage("%s", t);
            message += piece;
        } else if (kind == 2) {
            e.prependMessage("%s", t);
            message.insert(0, piece);
        } else if (kind == 3) {
            e.setMessage(nullptr);
            message.clear();
        } else {
            e.setID(t);
            e.appendMessage(nullptr);
            e.prependMessage(nullptr);
            FUZZ_CHECK(std::strcmp(e.getID(), t) == 0);
        }
        FUZZ_CHECK(e.getMessage() == message);
    }
    return 0;
}
