// SHA-1 (FIPS 180-1). Used for one thing only: the file name of a service's socket. Not for security.
#include "kservice.h"

#include <bit>
#include <cstring>

namespace {

constexpr uint32_t kInitialDigest[] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
constexpr int kSteps = 80;
constexpr int32_t kBlockSize = 64;
constexpr int32_t kLengthOffset = 56; // the message length closes the last block

uint32_t big_endian_word(const uint8_t* bytes) {
    return (uint32_t)bytes[0] << 24 | (uint32_t)bytes[1] << 16 | (uint32_t)bytes[2] << 8 | (uint32_t)bytes[3];
}

void store_big_endian(uint32_t word, uint8_t* bytes) {
    bytes[0] = (uint8_t)(word >> 24);
    bytes[1] = (uint8_t)(word >> 16);
    bytes[2] = (uint8_t)(word >> 8);
    bytes[3] = (uint8_t)word;
}

// The 80 steps over the filled block, which is empty afterwards.
void SHA1ProcessMessageBlock(SHA1Context* context) {
    uint32_t schedule[kSteps];
    uint32_t a = context->digest[0];
    uint32_t b = context->digest[1];
    uint32_t c = context->digest[2];
    uint32_t d = context->digest[3];
    uint32_t e = context->digest[4];
    for (int t = 0; t < kSteps; ++t) {
        schedule[t] = t < 16 ? big_endian_word(context->block + 4 * t)
                             : std::rotl(schedule[t - 3] ^ schedule[t - 8] ^ schedule[t - 14] ^ schedule[t - 16], 1);
        uint32_t next = std::rotl(a, 5) + e + schedule[t];
        if (t < 20) {
            next += ((b & c) | (~b & d)) + 0x5A827999;
        } else if (t < 40) {
            next += (b ^ c ^ d) + 0x6ED9EBA1;
        } else if (t < 60) {
            next += ((b & c) | (b & d) | (c & d)) + 0x8F1BBCDC;
        } else {
            next += (b ^ c ^ d) + 0xCA62C1D6;
        }
        e = d;
        d = c;
        c = std::rotl(b, 30);
        b = a;
        a = next;
    }
    context->digest[0] += a;
    context->digest[1] += b;
    context->digest[2] += c;
    context->digest[3] += d;
    context->digest[4] += e;
    context->block_index = 0;
}

void SHA1PadMessage(SHA1Context* context) {
    context->block[context->block_index++] = 0x80;
    if (context->block_index > kLengthOffset) {
        memset(context->block + context->block_index, 0, (size_t)(kBlockSize - context->block_index));
        SHA1ProcessMessageBlock(context);
    }
    memset(context->block + context->block_index, 0, (size_t)(kLengthOffset - context->block_index));
    store_big_endian(context->length_high, context->block + kLengthOffset);
    store_big_endian(context->length_low, context->block + kLengthOffset + 4);
    SHA1ProcessMessageBlock(context);
}

} // namespace

void SHA1Reset(SHA1Context* context) {
    context->length_low = 0;
    context->length_high = 0;
    context->block_index = 0;
    context->computed = 0;
    context->corrupted = 0;
    memcpy(context->digest, kInitialDigest, sizeof(kInitialDigest));
}

void SHA1Input(SHA1Context* context, const unsigned char* data, unsigned length) {
    if (length == 0) {
        return;
    }
    if (context->computed != 0 || context->corrupted != 0) {
        context->corrupted = 1;
        return;
    }
    for (unsigned i = 0; i < length; ++i) {
        context->block[context->block_index++] = data[i];
        context->length_low += 8;
        if (context->length_low == 0 && ++context->length_high == 0) {
            context->corrupted = 1;
            return;
        }
        if (context->block_index == kBlockSize) {
            SHA1ProcessMessageBlock(context);
        }
    }
}

int SHA1Result(SHA1Context* context) {
    if (context->corrupted != 0) {
        return 0;
    }
    if (context->computed == 0) {
        SHA1PadMessage(context);
        context->computed = 1;
    }
    return 1;
}
