// KSException messages: each formatted piece ends at its first zero byte and
// keeps at most 2047 characters; appending and prepending join the pieces
// without a limit; a null format empties (set) or changes nothing (append).
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/exception.h"

constexpr std::size_t kPieceLimit = 2047;

// Input: operations separated by 0xFF bytes; the first byte of each chooses
// what is done with the rest.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    kestrel::KSException e(nullptr, nullptr);
    std::string message;
    for (std::size_t start = 0, end; start < input.size(); start = end + 1) {
        end = std::min(input.find('\xff', start), input.size());
        if (end == start) {
            continue;
        }
        const auto text = kestrel_fuzz::exactCopy(input.substr(start + 1, end - start - 1));
        const std::string piece(text.get(), std::min(std::strlen(text.get()), kPieceLimit));
        switch (static_cast<unsigned char>(input[start]) % 7) {
            case 0:
                e.setMessage("%s", text.get());
                message = piece;
                break;
            case 1:
                e.appendMessage("%s", text.get());
                message += piece;
                break;
            case 2:
                e.prependMessage("%s", text.get());
                message.insert(0, piece);
                break;
            case 3:
                e.setMessage("%s%c%s", text.get(), 0, text.get());
                message = piece;
                break;
            case 4:
                e.appendMessage(nullptr);
                break;
            case 5:
                e.setMessage(nullptr);
                message.clear();
                break;
            default:
                e.setID(text.get());
                FUZZ_CHECK(std::strcmp(e.getID(), text.get()) == 0);
        }
        FUZZ_CHECK(e.getMessage() == message);
    }
    return 0;
}
