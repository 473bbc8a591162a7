// SHA-1 against libmd's, in one piece and in pieces, whose lengths the message's own bytes give.
#include "fuzz.h"
#include "kservice.h"

#include <algorithm>
#include <array>
#include <sha1.h>

namespace {

using digest = std::array<std::uint8_t, 20>;

digest ours(const std::uint8_t* data, std::size_t size, bool in_pieces) {
    SHA1Context context;
    SHA1Reset(&context);
    std::size_t piece = size;
    for (std::size_t done = 0; done < size; done += piece) {
        if (in_pieces) {
            piece = std::min<std::size_t>(size - done, data[done] + 1U);
        }
        SHA1Input(&context, data + done, static_cast<unsigned>(piece));
    }
    require(SHA1Result(&context) == 1, "there is a digest");
    digest result = {};
    for (std::size_t i = 0; i < result.size(); ++i) {
        result[i] = static_cast<std::uint8_t>(context.digest[i / 4] >> (24 - i % 4 * 8));
    }
    return result;
}

digest theirs(const std::uint8_t* data, std::size_t size) {
    SHA1_CTX context;
    SHA1Init(&context);
    SHA1Update(&context, data, size);
    digest result = {};
    SHA1Final(result.data(), &context);
    return result;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const digest expected = theirs(data, size);
    require(ours(data, size, false) == expected, "both digest alike");
    require(ours(data, size, true) == expected, "also in pieces");
    return 0;
}
