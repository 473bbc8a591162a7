#include "base64.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <utility>

namespace {

constexpr std::uint8_t kNoDigit = 0xFF;

constexpr std::array<std::uint8_t, 256> digit_values() {
    std::array<std::uint8_t, 256> values{};
    values.fill(kNoDigit);
    for (std::size_t i = 0; i < base64_chars.size(); ++i) {
        values[static_cast<unsigned char>(base64_chars[i])] = static_cast<std::uint8_t>(i);
    }
    return values;
}

constexpr auto kDigitValues = digit_values();

} // namespace

void base64_encode(const std::string& in, std::string& out) {
    std::string encoded;
    for (std::size_t i = 0; i < in.size(); i += 3) {
        const std::size_t count = std::min<std::size_t>(3, in.size() - i);
        std::uint32_t bits = 0;
        for (std::size_t byte = 0; byte < 3; ++byte) {
            bits = bits << 8U | (byte < count ? static_cast<unsigned char>(in[i + byte]) : 0U);
        }
        for (std::size_t digit = 0; digit < 4; ++digit) { // n bytes fill n + 1 digits
            encoded.push_back(digit <= count ? base64_chars[bits >> (18 - 6 * digit) & 0x3FU] : '=');
        }
    }
    out = std::move(encoded); // at last: `in` and `out` may be one text
}

std::string base64_text(const std::string& text) {
    std::string encoded;
    base64_encode(text, encoded);
    return encoded;
}

void base64_decode(const std::string& in, std::string& out) {
    std::string decoded;
    std::uint32_t bits = 0;
    unsigned bit_count = 0; // of `bits`, those not written yet
    for (const char c : in) {
        const std::uint8_t value = kDigitValues[static_cast<unsigned char>(c)];
        if (value == kNoDigit) { // "=" is none either
            break;
        }
        bits = bits << 6U | value;
        bit_count += 6;
        if (bit_count >= 8) {
            bit_count -= 8;
            decoded.push_back(static_cast<char>(bits >> bit_count & 0xFFU));
        }
    }
    out = std::move(decoded);
}
