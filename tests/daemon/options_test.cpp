#include "options.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

options read(std::vector<const char*> words) {
    words.insert(words.begin(), "vexprod");
    words.push_back(nullptr);
    return read_options(static_cast<int>(words.size()) - 1, const_cast<char* const*>(words.data()));
}

TEST(OptionsTest, NoneIsNeeded) {
    const options chosen = read({});
    EXPECT_FALSE(chosen.daemonize);
    EXPECT_FALSE(chosen.terminate);
}

TEST(OptionsTest, BothLettersAreTakenAlsoTogether) {
    EXPECT_TRUE(read({"-d"}).daemonize);
    EXPECT_TRUE(read({"-t"}).terminate);
    const options chosen = read({"-dt"});
    EXPECT_TRUE(chosen.daemonize);
    EXPECT_TRUE(chosen.terminate);
}

TEST(OptionsTest, AnUnknownLetterIsNamedAndTheRestStillRead) {
    testing::internal::CaptureStderr();
    const options chosen = read({"-x", "-t"});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Illegal option:-x\n");
    EXPECT_TRUE(chosen.terminate);
}

// docs/operations.md says so.
TEST(OptionsTest, EachLetterOfALongOptionCounts) {
    testing::internal::CaptureStderr();
    const options chosen = read({"--test", "word"});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Illegal option:--\nIllegal option:-e\nIllegal option:-s\n");
    EXPECT_TRUE(chosen.terminate);
    EXPECT_FALSE(chosen.daemonize);
}

TEST(OptionsTest, AnUnprintableLetterIsNamedByASharp) {
    testing::internal::CaptureStderr();
    (void)read({"-\x01", "-\xe9"});
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Illegal option:-#\nIllegal option:-#\n");
}

} // namespace
