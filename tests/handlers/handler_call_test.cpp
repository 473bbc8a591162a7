#include "ask.h"
#include "handler_call.h"
#include "log.h"
#include "test_files.h"

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

class HandlerCallTest : public testing::Test {
protected:
    void SetUp() override {
        taken_first.clear();
        taken_second.clear();
        taken_number = 0;
        actions = 0;
        ASSERT_NE(getenv("HOSTSIM"), nullptr);
        log_set_dir("/tmp/handler-log");
        (void)unlink(kLog);
    }
    static constexpr const char* kLog = "/tmp/handler-log/.lyn_ks_vexprod.log";
};

TEST_F(HandlerCallTest, TakesEveryKeyAndAnswersResultZero) {
    EXPECT_EQ(ask(two_strings_handler, R"({"first":"a","second":"b","number":-7,"more":1})"), "{\"result\":0}\n");
    EXPECT_EQ(taken_first, "a");
    EXPECT_EQ(taken_second, "b");
    EXPECT_EQ(taken_number, -7);
    EXPECT_EQ(actions, 1);
}

TEST_F(HandlerCallTest, AnEmptyRequestIsAnInputErrorAndTraced) {
    EXPECT_EQ(ask(two_strings_handler), "{\"error_code\":-1,\"error_msg\":\"input error\"}\n");
    EXPECT_EQ(actions, 0);
    EXPECT_THAT(read_file(kLog), testing::ContainsRegex(R"(\[two_strings_handler\]\[[0-9]+\] ks_io input fail\.)"));
}

TEST_F(HandlerCallTest, TextThatIsNotJsonIsAnInputError) {
    for (const char* text : {"{", "first=a", "\xff\xfe", "[1,2", "nul"}) {
        EXPECT_EQ(ask(two_strings_handler, text), "{\"error_code\":-1,\"error_msg\":\"input error\"}\n") << text;
    }
}

TEST_F(HandlerCallTest, NestingTooDeepForTheReaderIsAnInputError) {
    EXPECT_EQ(ask(two_strings_handler, std::string(100000, '[')),
              "{\"error_code\":-1,\"error_msg\":\"input error\"}\n");
}

TEST_F(HandlerCallTest, JsonThatIsNoObjectIsAParserFailure) {
    for (const char* text : {"[]", "1", "\"first\"", "null", "true", "[{\"first\":\"a\"}]"}) {
        EXPECT_EQ(ask(two_strings_handler, text), "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n") << text;
    }
}

TEST_F(HandlerCallTest, OneMissingKeyRefusesTheRequestAfterTheOthersWereTaken) {
    EXPECT_EQ(ask(two_strings_handler, R"({"second":"b","number":3})"),
              "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n");
    EXPECT_EQ(taken_second, "b");
    EXPECT_EQ(taken_number, 3);
    EXPECT_EQ(actions, 0);
}

TEST_F(HandlerCallTest, AKeyOfAnotherTypeOrNullRefusesTheRequest) {
    for (const char* text :
         {R"({"first":1,"second":"b","number":3})", R"({"first":"a","second":null,"number":3})",
          R"({"first":"a","second":"b","number":"3"})", R"({"first":"a","second":"b","number":true})",
          R"({"first":"a","second":"b","number":1.5})", R"({"first":"a","second":"b","number":5000000000})"}) {
        EXPECT_EQ(ask(two_strings_handler, text), "{\"error_code\":-1,\"error_msg\":\"paser fail\"}\n") << text;
    }
}

TEST_F(HandlerCallTest, AFailedActionNamesTheHandler) {
    EXPECT_EQ(ask(failing_handler), "{\"error_msg\":\"failing_handler fail\",\"result\":-1}\n");
}

} // namespace
