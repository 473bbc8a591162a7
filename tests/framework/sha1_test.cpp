// The digest that names a service's socket.
#include "kservice.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace {

using words = std::vector<uint32_t>;

void feed(SHA1Context* context, const std::string& text) {
    SHA1Input(context, reinterpret_cast<const unsigned char*>(text.data()), (unsigned)text.size());
}

words digest_of(const std::string& text) {
    SHA1Context context;
    memset(&context, 0xA5, sizeof(context)); // SHA1Reset() must not rely on what was there
    SHA1Reset(&context);
    feed(&context, text);
    EXPECT_EQ(SHA1Result(&context), 1);
    return {context.digest, context.digest + 5};
}

TEST(Sha1Test, DigestsOfThePublishedExamples) {
    EXPECT_EQ(digest_of("abc"), (words{0xA9993E36, 0x4706816A, 0xBA3E2571, 0x7850C26C, 0x9CD0D89D}));
    EXPECT_EQ(digest_of("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              (words{0x84983E44, 0x1C3BD26E, 0xBAAE4AA1, 0xF95129E5, 0xE54670F1}));
    EXPECT_EQ(digest_of(std::string(1000000, 'a')),
              (words{0x34AA973C, 0xD4C4DAA4, 0xF61EEB2B, 0xDBAD2731, 0x6534016F}));
    EXPECT_EQ(digest_of(""), (words{0xDA39A3EE, 0x5E6B4B0D, 0x3255BFEF, 0x95601890, 0xAFD80709}));
}

// Around the block's end: one byte too few, exactly as many and one too many for the length to fit in.
TEST(Sha1Test, PaddingTakesAnExtraBlockWhenTheLengthDoesNotFit) {
    EXPECT_EQ(digest_of(std::string(55, 'a'))[0], 0xC1C8BBDCU);
    EXPECT_EQ(digest_of(std::string(56, 'a'))[0], 0xC2DB330FU);
    EXPECT_EQ(digest_of(std::string(63, 'a'))[0], 0x03F09F5BU);
    EXPECT_EQ(digest_of(std::string(64, 'a'))[0], 0x0098BA82U);
    EXPECT_EQ(digest_of(std::string(65, 'a'))[0], 0x11655326U);
    EXPECT_EQ(digest_of(std::string(119, 'a'))[0], 0xEE971065U);
    EXPECT_EQ(digest_of(std::string(120, 'a'))[0], 0xF34C1488U);
}

TEST(Sha1Test, PiecesGiveTheDigestOfTheWhole) {
    const std::string text(300, 'q');
    for (size_t cut = 0; cut <= text.size(); cut += 7) {
        SHA1Context context;
        SHA1Reset(&context);
        feed(&context, text.substr(0, cut));
        feed(&context, text.substr(cut));
        ASSERT_EQ(SHA1Result(&context), 1);
        EXPECT_EQ(context.digest[0], digest_of(text)[0]) << cut;
    }
}

TEST(Sha1Test, ResetGivesTheInitialValues) {
    SHA1Context context;
    memset(&context, 0xFF, sizeof(context));
    SHA1Reset(&context);
    EXPECT_EQ((words{context.digest, context.digest + 5}),
              (words{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0}));
    EXPECT_EQ(context.length_low, 0U);
    EXPECT_EQ(context.length_high, 0U);
    EXPECT_EQ(context.block_index, 0);
    EXPECT_EQ(context.computed, 0);
    EXPECT_EQ(context.corrupted, 0);
}

TEST(Sha1Test, LengthIsCountedInBits) {
    SHA1Context context;
    SHA1Reset(&context);
    feed(&context, "abc");
    EXPECT_EQ(context.length_low, 24U);
    EXPECT_EQ(context.block_index, 3);
}

// A length whose eight bytes all differ, as only an endless input has it.
TEST(Sha1Test, EveryByteOfTheLengthIsPartOfTheMessage) {
    SHA1Context context;
    SHA1Reset(&context);
    context.length_high = 0x81828384U;
    context.length_low = 0x85868770U;
    feed(&context, "abc");
    ASSERT_EQ(context.length_low, 0x85868788U);
    ASSERT_EQ(SHA1Result(&context), 1);
    EXPECT_EQ((words{context.digest, context.digest + 5}),
              (words{0xC5F46F05, 0x812090D3, 0x5D600FEB, 0x412229C3, 0x5559DEC5}));
}

TEST(Sha1Test, InputAfterTheResultCorrupts) {
    SHA1Context context;
    SHA1Reset(&context);
    feed(&context, "abc");
    ASSERT_EQ(SHA1Result(&context), 1);
    EXPECT_EQ(context.computed, 1);
    feed(&context, "d");
    EXPECT_EQ(context.corrupted, 1);
    EXPECT_EQ(SHA1Result(&context), 0);
}

TEST(Sha1Test, EmptyInputAfterTheResultDoesNothing) {
    SHA1Context context;
    SHA1Reset(&context);
    ASSERT_EQ(SHA1Result(&context), 1);
    SHA1Input(&context, nullptr, 0);
    EXPECT_EQ(context.corrupted, 0);
    EXPECT_EQ(SHA1Result(&context), 1);
}

TEST(Sha1Test, ResultTwiceGivesTheSameDigest) {
    SHA1Context context;
    SHA1Reset(&context);
    feed(&context, "abc");
    ASSERT_EQ(SHA1Result(&context), 1);
    ASSERT_EQ(SHA1Result(&context), 1);
    EXPECT_EQ(context.digest[0], 0xA9993E36U);
}

TEST(Sha1Test, BitCountCarriesIntoTheHighWord) {
    SHA1Context context;
    SHA1Reset(&context);
    context.length_low = 0xFFFFFFF8U;
    feed(&context, "a");
    EXPECT_EQ(context.length_low, 0U);
    EXPECT_EQ(context.length_high, 1U);
    EXPECT_EQ(context.corrupted, 0);
}

TEST(Sha1Test, TooLongAnInputCorruptsAndStops) {
    SHA1Context context;
    SHA1Reset(&context);
    context.length_low = 0xFFFFFFF8U;
    context.length_high = 0xFFFFFFFFU;
    feed(&context, "abc");
    EXPECT_EQ(context.corrupted, 1);
    EXPECT_EQ(context.block_index, 1) << "nothing after the overflow is consumed";
    EXPECT_EQ(SHA1Result(&context), 0);
    feed(&context, "x");
    EXPECT_EQ(context.block_index, 1);
}

TEST(Sha1Test, FieldsStandInTheFixedOrder) {
    EXPECT_EQ(offsetof(SHA1Context, digest), 0U);
    EXPECT_EQ(offsetof(SHA1Context, length_low), 20U);
    EXPECT_EQ(offsetof(SHA1Context, length_high), 24U);
    EXPECT_EQ(offsetof(SHA1Context, block), 28U);
    EXPECT_EQ(offsetof(SHA1Context, block_index), 92U);
    EXPECT_EQ(offsetof(SHA1Context, computed), 96U);
    EXPECT_EQ(offsetof(SHA1Context, corrupted), 100U);
    EXPECT_EQ(sizeof(SHA1Context), 104U);
}

} // namespace
