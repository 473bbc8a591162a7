// Base64 against the C library's own, which has it for the name service.
#include "base64.h"

#include "fuzz.h"

#include <resolv.h>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string bytes(text_of(data, size));
    const std::string encoded = base64_text(bytes);
    std::vector<char> theirs(size / 3 * 4 + 5);
    const int length = b64_ntop(data, size, theirs.data(), theirs.size());
    require(length >= 0 && encoded == std::string_view(theirs.data(), static_cast<std::size_t>(length)),
            "both encode alike");
    std::string decoded;
    base64_decode(encoded, decoded);
    require(decoded == bytes, "what was encoded comes back");

    // Theirs refuses what ours reads up to: it gets only what ours took, made whole.
    base64_decode(bytes, decoded);
    std::string digits = bytes.substr(0, bytes.find_first_not_of(base64_chars));
    digits.resize(digits.size() - (digits.size() % 4 == 1 ? 1 : 0)); // a single one is no byte
    if (!digits.empty() && digits.size() % 4 != 0) {
        // Bits that are in no byte: theirs wants them to be 0.
        const std::size_t digit = base64_chars.find(digits.back());
        digits.back() = base64_chars[digit & (digits.size() % 4 == 2 ? 0x30U : 0x3CU)];
    }
    digits.resize((digits.size() + 3) / 4 * 4, '=');
    std::vector<unsigned char> bytes_of_theirs(digits.size() + 1);
    const int count = b64_pton(digits.c_str(), bytes_of_theirs.data(), bytes_of_theirs.size());
    require(count >= 0 && decoded == text_of(bytes_of_theirs.data(), static_cast<std::size_t>(count)),
            "both decode alike");
    return 0;
}
