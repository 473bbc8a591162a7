// Trimming, splitting and Base64.
#include "base64.h"
#include "text.h"

#include <gmock/gmock.h>

#include <string>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::string without(std::string text, const char* chars) {
    trim_char(text, chars);
    return text;
}

std::string trimmed(std::string text, const char* chars) {
    trim_front_and_end(text, chars);
    return text;
}

std::string encoded(const std::string& in) {
    std::string out = "old";
    base64_encode(in, out);
    return out;
}

std::string decoded(const std::string& in) {
    std::string out = "old";
    base64_decode(in, out);
    return out;
}

TEST(TextTest, TrimCharRemovesEverywhere) {
    EXPECT_EQ(without(" a b \n", " \n"), "ab");
    EXPECT_EQ(without("   ", " "), "");
    EXPECT_EQ(without("abc", ""), "abc");
    EXPECT_EQ(without("", " "), "");
}

TEST(TextTest, TrimFrontAndEndKeepsInnerCharacters) {
    EXPECT_EQ(trimmed(" a b \n", " \n"), "a b");
    EXPECT_EQ(trimmed(" \n \n", " \n"), "");
    EXPECT_EQ(trimmed("ab", " \n"), "ab");
    EXPECT_EQ(trimmed("", " \n"), "");
}

TEST(TextTest, SplitKeepsOrSkipsEmptyPieces) {
    EXPECT_THAT(str_split_to_vector("a==b", "=", false), ElementsAre("a", "", "b"));
    EXPECT_THAT(str_split_to_vector("a==b", "=", true), ElementsAre("a", "b"));
    EXPECT_THAT(str_split_to_vector("=a=", "=", false), ElementsAre("", "a", ""));
    EXPECT_THAT(str_split_to_vector("=a=", "=", true), ElementsAre("a"));
    EXPECT_THAT(str_split_to_vector("a,b;c", ",;", false), ElementsAre("a", "b", "c"));
    EXPECT_THAT(str_split_to_vector("abc", "=", true), ElementsAre("abc"));
    EXPECT_THAT(str_split_to_vector("", "=", false), ElementsAre(""));
    EXPECT_THAT(str_split_to_vector("", "=", true), IsEmpty());
    EXPECT_THAT(str_split_to_vector("==", "=", true), IsEmpty());
}

TEST(Base64Test, EncodesThePublishedVectors) {
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(encoded("f"), "Zg==");
    EXPECT_EQ(encoded("fo"), "Zm8=");
    EXPECT_EQ(encoded("foo"), "Zm9v");
    EXPECT_EQ(encoded("foob"), "Zm9vYg==");
    EXPECT_EQ(encoded("fooba"), "Zm9vYmE=");
    EXPECT_EQ(encoded("foobar"), "Zm9vYmFy");
    EXPECT_EQ(encoded("\xFB\xFF\xFE"), "+//+");
    EXPECT_EQ(encoded(std::string(1, '\0')), "AA==");
}

TEST(Base64Test, BreaksNoLines) {
    EXPECT_EQ(encoded(std::string(300, 'x')).find('\n'), std::string::npos);
}

TEST(Base64Test, DecodesUpToTheFirstForeignCharacter) {
    EXPECT_EQ(decoded("Zm9v!Zm9v"), "foo");
    EXPECT_EQ(decoded("Zg==Zm9v"), "f");
    EXPECT_EQ(decoded("Zm9v\nZm9v"), "foo");
    EXPECT_EQ(decoded(""), "");
    EXPECT_EQ(decoded("="), "");
}

TEST(Base64Test, APartialGroupGivesOneByteLessThanItsCharacters) {
    EXPECT_EQ(decoded("Zm9vYg"), "foob");
    EXPECT_EQ(decoded("Zm9vYmE"), "fooba");
    EXPECT_EQ(decoded("Zm9vY"), "foo");
}

TEST(Base64Test, EveryByteComesBack) {
    std::string bytes;
    for (int i = 0; i < 256; ++i) {
        bytes.push_back(static_cast<char>(i));
        EXPECT_EQ(decoded(encoded(bytes)), bytes);
    }
}

TEST(Base64Test, ATextIsReturnedEncoded) {
    EXPECT_EQ(base64_text("foo"), "Zm9v");
    EXPECT_EQ(base64_text(""), "");
}

TEST(Base64Test, OneTextMayBeInputAndOutput) {
    std::string text = "foo";
    base64_encode(text, text);
    EXPECT_EQ(text, "Zm9v");
    base64_decode(text, text);
    EXPECT_EQ(text, "foo");
}

} // namespace
