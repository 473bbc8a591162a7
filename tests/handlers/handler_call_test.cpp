#include "ask.h"
#include "handler_call.h"
#include "handler_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

std::string taken_first;
std::string taken_second;
std::int32_t taken_number = 0;
int actions = 0;

int two_strings_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    if (call.take({{"first", &taken_first}, {"second", &taken_second}, {"number", &taken_number}})) {
        ++actions;
        call.finish(0);
    }
    return call.send();
}

int failing_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    call.finish(256);
    return call.send();
}

class HandlerCallTest : public HandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        taken_first.clear();
        taken_second.clear();
        taken_number = 0;
        actions = 0;
    }
};

TEST_F(HandlerCallTest, TakesEveryKeyAndAnswersResultZero) {
    EXPECT_EQ(ask(two_strings_handler, R"({"first":"a","second":"b","number":-7,"more":1})"), "{\"result\":0}\n");
    EXPECT_EQ(taken_first, "a");
    EXPECT_EQ(taken_second, "b");
    EXPECT_EQ(taken_number, -7);
    EXPECT_EQ(actions, 1);
}

TEST_F(HandlerCallTest, AnEmptyRequestIsAnInputErrorAndTraced) {
    EXPECT_EQ(ask(two_strings_handler), kInputError);
    EXPECT_EQ(actions, 0);
    EXPECT_EQ(logged(), strings{"[two_strings_handler][N] ks_io input fail."});
}

TEST_F(HandlerCallTest, TextThatIsNotJsonIsAnInputError) {
    for (const char* text : {"{", "first=a", "\xff\xfe", "[1,2", "nul"}) {
        EXPECT_EQ(ask(two_strings_handler, text), kInputError) << text;
    }
}

TEST_F(HandlerCallTest, NestingTooDeepForTheReaderIsAnInputError) {
    EXPECT_EQ(ask(two_strings_handler, std::string(100000, '[')), kInputError);
}

TEST_F(HandlerCallTest, JsonThatIsNoObjectIsAParserFailure) {
    for (const char* text : {"[]", "1", "\"first\"", "null", "true", "[{\"first\":\"a\"}]"}) {
        EXPECT_EQ(ask(two_strings_handler, text), kPaserFail) << text;
    }
}

TEST_F(HandlerCallTest, OneMissingKeyRefusesTheRequestAfterTheOthersWereTaken) {
    EXPECT_EQ(ask(two_strings_handler, R"({"second":"b","number":3})"), kPaserFail);
    EXPECT_EQ(taken_second, "b");
    EXPECT_EQ(taken_number, 3);
    EXPECT_EQ(actions, 0);
}

TEST_F(HandlerCallTest, AKeyOfAnotherTypeOrNullRefusesTheRequest) {
    for (const char* text :
         {R"({"first":1,"second":"b","number":3})", R"({"first":"a","second":null,"number":3})",
          R"({"first":"a","second":"b","number":"3"})", R"({"first":"a","second":"b","number":true})",
          R"({"first":"a","second":"b","number":1.5})", R"({"first":"a","second":"b","number":5000000000})"}) {
        EXPECT_EQ(ask(two_strings_handler, text), kPaserFail) << text;
    }
}

TEST_F(HandlerCallTest, AFailedActionNamesTheHandler) {
    EXPECT_EQ(ask(failing_handler), "{\"error_msg\":\"failing_handler fail\",\"result\":-1}\n");
}

} // namespace
