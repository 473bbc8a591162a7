#include "json_helpers.h"
#include "log.h"
#include "test_files.h"

#include <gmock/gmock.h>
#include <json/value.h>

#include <cstdint>
#include <limits>

namespace {

class JsonHelpersTest : public testing::Test {
protected:
    void SetUp() override { log_set_dir(folder.path().c_str()); }

    static Json::Value parsed(const std::string& text) {
        Json::Value root;
        EXPECT_TRUE(json_parse(text, &root)) << text;
        return root;
    }

    std::string log() const { return read_file(folder / ".lyn_ks_vexprod.log"); }

    test_folder folder;
};

// Takes one member and says what became of it: "5", "fail", or what the destination held before and still holds.
template <class T>
testing::AssertionResult takes(const Json::Value& root, const char* key, const char* type, T expected) {
    T out{};
    bool fail = false;
    parser_param_from_json_str(root, key, &out, type, &fail);
    if (fail || out != expected) {
        return testing::AssertionFailure() << key << " as " << type << (fail ? ": refused" : ": another value");
    }
    return testing::AssertionSuccess();
}

template <class T>
testing::AssertionResult refuses(const Json::Value& root, const char* key, const char* type, T untouched) {
    T out = untouched;
    bool fail = false;
    parser_param_from_json_str(root, key, &out, type, &fail);
    if (!fail || out != untouched) {
        return testing::AssertionFailure() << key << " as " << type << (fail ? ": destination changed" : ": taken");
    }
    return testing::AssertionSuccess();
}

const std::string kText = "untouched";
constexpr std::int32_t kInt = -77;
constexpr std::int64_t kLong = -78;

TEST_F(JsonHelpersTest, MissingAndNullMembersAreRefusedForEveryType) {
    for (const char* text : {"{}", R"({"k":null})", "null"}) {
        const Json::Value root = parsed(text);
        EXPECT_TRUE(refuses(root, "k", "string", kText));
        EXPECT_TRUE(refuses(root, "k", "int", kInt));
        EXPECT_TRUE(refuses(root, "k", "long", kLong));
        EXPECT_TRUE(refuses(root, "k", "bool", kInt));
    }
    EXPECT_EQ(log(), "") << "a missing member is no type failure";
}

TEST_F(JsonHelpersTest, WholeNumbersAreTakenByTheirRange) {
    const Json::Value root = parsed(R"({"n":5,"big":5000000000,"min":-2147483648,"real":7.0,
        "most":9223372036854775807,"least":-9223372036854775808,"over":9223372036854775808,"huge":1e19,"half":1.5})");
    EXPECT_TRUE(takes<std::int64_t>(root, "n", "long", 5));
    EXPECT_TRUE(takes<std::int32_t>(root, "n", "int", 5));
    EXPECT_TRUE(takes<std::int32_t>(root, "min", "int", std::numeric_limits<std::int32_t>::min()));
    EXPECT_TRUE(takes<std::int32_t>(root, "real", "int", 7));
    EXPECT_TRUE(takes<std::int64_t>(root, "real", "long", 7));
    EXPECT_TRUE(refuses(root, "big", "int", kInt));
    EXPECT_TRUE(takes<std::int64_t>(root, "big", "long", 5000000000));
    EXPECT_TRUE(takes<std::int64_t>(root, "most", "long", std::numeric_limits<std::int64_t>::max()));
    EXPECT_TRUE(takes<std::int64_t>(root, "least", "long", std::numeric_limits<std::int64_t>::min()));
    EXPECT_TRUE(refuses(root, "over", "long", kLong));
    EXPECT_TRUE(refuses(root, "huge", "long", kLong));
    EXPECT_TRUE(refuses(root, "half", "int", kInt));
    EXPECT_TRUE(refuses(root, "half", "long", kLong));
    EXPECT_EQ(log(), "");
}

TEST_F(JsonHelpersTest, StringsAreTakenAsTheyAre) {
    const Json::Value root = parsed(R"({"s":"text","empty":"","number":12})");
    EXPECT_TRUE(takes<std::string>(root, "s", "string", "text"));
    std::string out = "old";
    bool fail = false;
    parser_param_from_json_str(root, "empty", &out, "string", &fail);
    EXPECT_FALSE(fail);
    EXPECT_EQ(out, "");
    EXPECT_TRUE(refuses(root, "number", "string", kText));
    EXPECT_TRUE(refuses(root, "s", "int", kInt));
    EXPECT_TRUE(refuses(root, "s", "long", kLong));
    EXPECT_EQ(log(), "") << "these fail silently";
}

TEST_F(JsonHelpersTest, BooleansAreTakenAsOneAndZero) {
    const Json::Value root = parsed(R"({"t":true,"f":false})");
    EXPECT_TRUE(takes<std::int32_t>(root, "t", "bool", 1));
    std::int32_t out = 9;
    bool fail = false;
    parser_param_from_json_str(root, "f", &out, "bool", &fail);
    EXPECT_FALSE(fail);
    EXPECT_EQ(out, 0);
    EXPECT_TRUE(refuses(root, "t", "int", kInt));
    EXPECT_TRUE(refuses(root, "t", "long", kLong));
    EXPECT_TRUE(refuses(root, "t", "string", kText));
}

TEST_F(JsonHelpersTest, KeptOnlyTheBooleanCheckLogsItsFailure) {
    EXPECT_TRUE(refuses(parsed(R"({"b":"true"})"), "b", "bool", kInt));
    EXPECT_THAT(log(), testing::MatchesRegex("\\[[0-9]+\\] \\[.{20}\\] \\[parser_param_from_json_str\\]\\[[0-9]+\\] "
                                             "b Type fail, this input value type is string\\.\n"));
}

TEST_F(JsonHelpersTest, OtherTypeWordsAreRefused) {
    const Json::Value root = parsed(R"({"d":1.5})");
    EXPECT_TRUE(refuses(root, "d", "double", 2.5));
    EXPECT_TRUE(refuses(root, "d", "", 2.5));
    EXPECT_TRUE(refuses(root, "d", "String", 2.5));
}

TEST_F(JsonHelpersTest, TheFlagIsNeverCleared) {
    std::int32_t out = 0;
    bool fail = true;
    parser_param_from_json_str(parsed(R"({"n":5})"), "n", &out, "int", &fail);
    EXPECT_TRUE(fail);
    EXPECT_EQ(out, 5) << "the member is taken all the same";
}

TEST_F(JsonHelpersTest, ARequestThatIsNoObjectIsRefusedWithoutAnException) {
    for (const char* text : {"5", "\"text\"", "true", "[1,2]", "1.5"}) {
        EXPECT_TRUE(refuses(parsed(text), "k", "string", kText)) << text;
        EXPECT_TRUE(refuses(parsed(text), "k", "bool", kInt)) << text;
        std::string type;
        get_json_type(parsed(text), "k", &type);
        EXPECT_EQ(type, "Others") << text;
    }
}

TEST_F(JsonHelpersTest, NamesTheTypeOfAMember) {
    const Json::Value root = parsed(R"({"s":"a","i":5,"neg":-2147483648,"l":2147483648,"ul":18446744073709551615,
        "b":true,"x":1.5,"whole":3.0,"a":[1],"o":{},"n":null})");
    const auto type_of = [&](const char* key) {
        std::string type = "old";
        get_json_type(root, key, &type);
        return type;
    };
    EXPECT_EQ(type_of("s"), "string");
    EXPECT_EQ(type_of("i"), "int");
    EXPECT_EQ(type_of("neg"), "int");
    EXPECT_EQ(type_of("whole"), "int");
    EXPECT_EQ(type_of("l"), "long");
    EXPECT_EQ(type_of("ul"), "long");
    EXPECT_EQ(type_of("b"), "bool");
    EXPECT_EQ(type_of("x"), "double");
    EXPECT_EQ(type_of("a"), "Others");
    EXPECT_EQ(type_of("o"), "Others");
    EXPECT_EQ(type_of("n"), "Others");
    EXPECT_EQ(type_of("missing"), "Others");
}

TEST_F(JsonHelpersTest, ParsingCollectsCommentsAndKeepsTheRootOnFailure) {
    Json::Value root = 7;
    EXPECT_TRUE(json_parse("// why\n{\"a\":1}", &root));
    EXPECT_TRUE(root.hasComment(Json::commentBefore));
    for (const std::string& text : {std::string(), std::string("{"), std::string("nonsense"), std::string("{\"a\":}"),
                                    std::string(100000, '[')}) { // the library throws at the last
        root = 7;
        EXPECT_FALSE(json_parse(text, &root)) << text.substr(0, 20);
        EXPECT_EQ(root, Json::Value(7));
    }
}

TEST_F(JsonHelpersTest, TheNewerReaderTellsWhatIsWrong) {
    Json::Value root = 7;
    std::string error = "old";
    EXPECT_TRUE(json_parse_stream(R"({"a":1})", &root, &error));
    EXPECT_EQ(root["a"].asInt(), 1);
    EXPECT_EQ(error, "old");
    EXPECT_FALSE(json_parse_stream("{", &root, &error));
    EXPECT_EQ(error.rfind("* Line 1, Column 2\n", 0), 0U) << error;
    EXPECT_FALSE(json_parse_stream(std::string(100000, '['), &root, &error));
    EXPECT_FALSE(error.empty());
    EXPECT_FALSE(json_parse_stream("{", &root, nullptr));
    EXPECT_EQ(root["a"].asInt(), 1) << "untouched";
}

TEST_F(JsonHelpersTest, Writes) {
    const Json::Value root = parsed(R"({"b":[1,true],"a":"\u00e9/"})");
    EXPECT_EQ(json_write_compact(root), "{\"a\":\"\\u00e9/\",\"b\":[1,true]}\n");
    EXPECT_EQ(json_write_compact(Json::Value()), "null\n");
    EXPECT_EQ(json_write_stream(parsed(R"({"a":1})")), "{\n\t\"a\" : 1\n}");
}

} // namespace
