// Sessions and accounts, asked over a real service, with the simulated host's login tool and libraries behind them.
#include "ask.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "library_stand_in.h"
#include "shortage.h"

#include <gmock/gmock.h>

namespace {

class LoginTest : public HandlerTest {
protected:
    host_tool zcli{"/sbin/zcli"};
};

TEST_F(LoginTest, ALoginAnswersWithTheSessionsId) {
    zcli.answers("User Session Admin\nadmin  s0ab12cd   yes\n");
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"admin","pwd":"secret"})"),
              "{\"error_code\":0,\"sid\":\"s0ab12cd\"}\n");
    const auto calls = zcli.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"zcli", "-l", "user=admin", "pw=secret"}));
    EXPECT_THAT(calls[0].env, testing::Contains("HOSTSIM=1")) << "the daemon's own environment";
}

TEST_F(LoginTest, TheHostsOwnAnswersAreUnderstood) {
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"admin","pwd":"secret"})"),
              "{\"error_code\":0,\"sid\":\"s0ab12cd\"}\n");
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"admin","pwd":"wrong"})"),
              "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n");
}

TEST_F(LoginTest, EmptyLinesAndRepeatedBlanksDoNotCount) {
    zcli.answers("\n\nheading\n\n  a  b  c  \n\n");
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"p"})"), "{\"error_code\":0,\"sid\":\"b\"}\n");
}

TEST_F(LoginTest, AnAnswerOfAnotherShapeIsAFailedLogin) {
    for (const char* text : {"", "\n", "one line\n", "a b c\n", "heading\na b\n", "heading\na b c d\n",
                             "heading\na b c\nthird\n", "heading\n   \n"}) {
        zcli.answers(text);
        EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"p"})"),
                  "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n")
            << text;
    }
}

TEST_F(LoginTest, TheToolsExitStatusDoesNotMatter) {
    zcli.answers("heading\na b c\n").exits(1);
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"p"})"), "{\"error_code\":0,\"sid\":\"b\"}\n");
}

TEST_F(LoginTest, AnAnswerLongerThanOneReadIsReadWhole) {
    const std::string session(5000, 's');
    zcli.answers("heading\nuser " + session + " yes\n");
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"p"})"),
              "{\"error_code\":0,\"sid\":\"" + session + "\"}\n");
}

TEST_F(LoginTest, WithoutTheToolALoginFails) {
    programs.take_away("/sbin/zcli");
    EXPECT_EQ(ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"p"})"),
              "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n");
}

TEST_F(LoginTest, EachArgumentIsCutTo31Characters) {
    (void)ask(hos_get_sess_id_handler,
              "{\"user\":\"" + std::string(26, 'u') + "\",\"pwd\":\"" + std::string(28, 'p') + "\"}");
    (void)ask(hos_get_sess_id_handler,
              "{\"user\":\"" + std::string(27, 'u') + "\",\"pwd\":\"" + std::string(29, 'p') + "\"}");
    const auto calls = zcli.calls();
    ASSERT_EQ(calls.size(), 2U);
    const strings cut = {"zcli", "-l", "user=" + std::string(26, 'u'), "pw=" + std::string(28, 'p')};
    EXPECT_EQ(calls[0].argv, cut);
    EXPECT_EQ(calls[1].argv, cut);
}

TEST_F(LoginTest, AnArgumentEndsAtItsNulAndKeepsBytesThatAreNoText) {
    (void)ask(hos_get_sess_id_handler, "{\"user\":\"a\\u0000b\",\"pwd\":\"\xff\xfe $x'\\\"\"}");
    const auto calls = zcli.calls();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].argv, (strings{"zcli", "-l", "user=a", "pw=\xff\xfe $x'\""}));
}

TEST_F(LoginTest, ABadRequestIsToldFromAFailedLogin) {
    EXPECT_EQ(ask(hos_get_sess_id_handler), kInputError);
    for (const char* text : {"{}", R"({"user":"u"})", R"({"pwd":"p"})", R"({"user":1,"pwd":"p"})",
                             R"({"user":"u","pwd":null})", "[]", "7"}) {
        EXPECT_EQ(ask(hos_get_sess_id_handler, text), kPaserFail) << text;
    }
    EXPECT_TRUE(zcli.calls().empty());
}

int starved_login_handler(ks_io* io, int fd) {
    const descriptor_shortage shortage;
    return hos_get_sess_id_handler(io, fd);
}

TEST_F(LoginTest, WithoutAPipeToTheToolALoginFails) {
    EXPECT_EQ(ask(starved_login_handler, R"({"user":"admin","pwd":"secret"})"),
              "{\"error_code\":-2,\"error_msg\":\"get_sess_id fail\"}\n");
    EXPECT_TRUE(zcli.calls().empty());
}

TEST_F(LoginTest, AnUnreadableRequestIsTraced) {
    for (const char* text : {"", "{", R"({"user":"u","pwd":"p")"}) {
        forget_log();
        EXPECT_EQ(ask(hos_get_sess_id_handler, text), kInputError) << text;
        EXPECT_EQ(logged(), strings{"[hos_get_sess_id_handler][N] ks_io input fail."}) << text;
    }
    EXPECT_TRUE(zcli.calls().empty());
}

TEST_F(LoginTest, NoPasswordReachesTheLog) {
    (void)ask(hos_get_sess_id_handler, R"({"user":"u","pwd":"top-secret"})");
    (void)ask(hos_get_sess_id_handler, R"({"pwd":"top-secret"})");
    (void)ask(hos_get_sess_id_handler, R"({"pwd":"top-secret")");
    EXPECT_THAT(log(), testing::Not(testing::HasSubstr("top-secret")));
}

class SessionTest : public HandlerTest {
protected:
    library_stand_in sessions{"/usr/lib/libhcore_nasauth.so.1.0.0"};
};

TEST_F(SessionTest, AnAddedSessionIsFoundAgain) {
    EXPECT_EQ(ask(hos_vex_auth_add_session_handler, R"({"type":3,"user":"anna","sid":"s1"})"), "{\"result\":0}\n");
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":3,"length":64,"sid":"s1"})"),
              "{\"result\":0,\"user\":\"anna\"}\n");
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":4,"length":64,"sid":"s1"})"),
              "{\"error_msg\":\"hos_vex_auth_get_session_handler fail\",\"result\":-1}\n");
    EXPECT_EQ(sessions.calls(), "auth_add_session sid=[s1] user=[anna] type=[3] text=[]\n"
                                "auth_get_session sid=[s1] type=[3]\n"
                                "auth_get_session sid=[s1] type=[4]\n");
    EXPECT_FALSE(sessions.is_open()) << "opened for one call only";
}

TEST_F(SessionTest, AnyOtherResultOfTheLibraryIsAFailure) {
    for (const char* result : {"1", "-1", "-22"}) {
        sessions.set("return", result);
        EXPECT_EQ(ask(hos_vex_auth_add_session_handler, R"({"type":-1,"user":"anna","sid":"s2"})"),
                  "{\"error_msg\":\"hos_vex_auth_add_session_handler fail\",\"result\":-1}\n");
        EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":-1,"length":1,"sid":"s2"})"),
                  "{\"error_msg\":\"hos_vex_auth_get_session_handler fail\",\"result\":-1}\n");
    }
    EXPECT_FALSE(sessions.is_open());
}

TEST_F(SessionTest, TheLengthIsRequiredAndNotUsed) {
    sessions.set("user", "anna-with-a-long-name");
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":3,"sid":"s1"})"), kPaserFail);
    EXPECT_EQ(sessions.calls(), "");
    for (const char* text : {R"({"type":3,"length":0,"sid":"s1"})", R"({"type":3,"length":-5,"sid":"s1"})",
                             R"({"type":3,"length":2147483647,"sid":"s1"})"}) {
        EXPECT_EQ(ask(hos_vex_auth_get_session_handler, text), "{\"result\":0,\"user\":\"anna-with-a-long-name\"}\n");
    }
}

TEST_F(SessionTest, ALongUserNameFits) {
    const std::string name(4095, 'n');
    sessions.set("user", name);
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":1,"length":1,"sid":"s"})"),
              "{\"result\":0,\"user\":\"" + name + "\"}\n");
}

TEST_F(SessionTest, KeysOfAnotherTypeAreRefused) {
    for (const char* text : {R"({"type":"3","user":"u","sid":"s"})", R"({"type":true,"user":"u","sid":"s"})",
                             R"({"type":1.5,"user":"u","sid":"s"})", R"({"type":2147483648,"user":"u","sid":"s"})",
                             R"({"type":null,"user":"u","sid":"s"})", R"({"type":1,"user":2,"sid":"s"})",
                             R"({"type":1,"user":"u"})", "{}", "null"}) {
        EXPECT_EQ(ask(hos_vex_auth_add_session_handler, text), kPaserFail) << text;
    }
    for (const std::string wrong : {"\"64\"", "true", "1.5", "2147483648", "-2147483649", "null", "[64]"}) {
        EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":1,"sid":"s","length":)" + wrong + "}"), kPaserFail)
            << wrong;
        EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"length":1,"sid":"s","type":)" + wrong + "}"), kPaserFail)
            << wrong;
    }
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":1,"length":1,"sid":5})"), kPaserFail);
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":1,"length":1})"), kPaserFail);
    EXPECT_EQ(sessions.calls(), "");
    EXPECT_EQ(log(), "");
}

TEST_F(SessionTest, AnUnreadableRequestIsTraced) {
    EXPECT_EQ(ask(hos_vex_auth_add_session_handler, "{"), kInputError);
    EXPECT_EQ(ask(hos_vex_auth_get_session_handler), kInputError);
    EXPECT_EQ(logged(), (strings{"[hos_vex_auth_add_session_handler][N] ks_io input fail.",
                                 "[hos_vex_auth_get_session_handler][N] ks_io input fail."}));
    EXPECT_EQ(sessions.calls(), "");
}

TEST_F(SessionTest, TextsEndAtTheirNul) {
    EXPECT_EQ(ask(hos_vex_auth_add_session_handler, "{\"type\":1,\"user\":\"a\\u0000b\",\"sid\":\"s\\u0000t\"}"),
              "{\"result\":0}\n");
    EXPECT_EQ(sessions.calls(), "auth_add_session sid=[s] user=[a] type=[1] text=[]\n");
}

TEST_F(SessionTest, WithoutTheFunctionOrTheLibraryTheCallFails) {
    const auto both_fail = [] {
        EXPECT_EQ(ask(hos_vex_auth_add_session_handler, R"({"type":1,"user":"u","sid":"s"})"),
                  "{\"error_msg\":\"hos_vex_auth_add_session_handler fail\",\"result\":-1}\n");
        EXPECT_EQ(ask(hos_vex_auth_get_session_handler, R"({"type":1,"length":1,"sid":"s"})"),
                  "{\"error_msg\":\"hos_vex_auth_get_session_handler fail\",\"result\":-1}\n");
    };
    sessions.replace_by("/usr/lib/libhcore_config.so.0.0");
    both_fail();
    EXPECT_FALSE(sessions.is_open());
    sessions.remove();
    both_fail();
}

class SmsConfigTest : public HandlerTest {
protected:
    // A record as the library lays it out: four little-endian integers, then the texts.
    static std::string record(const std::string& texts) {
        return std::string("\x01\0\0\0\x02\0\0\0\xff\xff\xff\xff\x00\x01\0\0", 16) + texts;
    }
    static std::string padded(std::string text, std::size_t size_bytes) {
        text.resize(size_bytes, '\0');
        return text;
    }
    library_stand_in config{"/usr/lib/libhcore_config.so.0.0"};
};

TEST_F(SmsConfigTest, EveryFieldIsAnswered) {
    config.set("record", record(padded("Iceland", 16) + padded("354", 16) + padded("5550100", 32) + padded("99", 32)));
    EXPECT_EQ(ask(hos_get_sms_config_handler),
              "{\"country\":\"Iceland\",\"country_code\":\"354\",\"max_provider\":2,\"mode\":1,\"now_provider\":-1,"
              "\"phone1\":\"5550100\",\"phone2\":\"99\",\"result\":0,\"using_provider\":256}\n");
    EXPECT_EQ(config.calls(), "Get_SMS_config\n");
    EXPECT_FALSE(config.is_open());
}

TEST_F(SmsConfigTest, ATextThatFillsItsFieldEndsThere) {
    const std::string country(16, 'c'), code(16, 'd'), first(32, '1'), second(4095, '2');
    config.set("record", record(country + code + first + padded(second, 4096)));
    EXPECT_EQ(ask(hos_get_sms_config_handler),
              "{\"country\":\"" + country + "\",\"country_code\":\"" + code +
                  "\",\"max_provider\":2,\"mode\":1,\"now_provider\":-1,\"phone1\":\"" + first + "\",\"phone2\":\"" +
                  second + "\",\"result\":0,\"using_provider\":256}\n");
}

TEST_F(SmsConfigTest, NeitherTheRequestNorTheLibrarysResultIsLookedAt) {
    config.set("return", "-1");
    EXPECT_EQ(ask(hos_get_sms_config_handler, "not json"),
              "{\"country\":\"Iceland\",\"country_code\":\"354\",\"max_provider\":4,\"mode\":1,\"now_provider\":2,"
              "\"phone1\":\"5550100\",\"phone2\":\"5550101\",\"result\":0,\"using_provider\":1}\n");
}

TEST_F(SmsConfigTest, WithoutTheFunctionOrTheLibraryTheCallFails) {
    config.replace_by("/usr/lib/libhcore_NAS.so.0.0");
    EXPECT_EQ(ask(hos_get_sms_config_handler), "{\"error_msg\":\"hos_get_sms_config_handler fail\",\"result\":-1}\n");
    EXPECT_FALSE(config.is_open());
    config.remove();
    EXPECT_EQ(ask(hos_get_sms_config_handler), "{\"error_msg\":\"hos_get_sms_config_handler fail\",\"result\":-1}\n");
}

TEST_F(SmsConfigTest, ALibraryThatLacksWhatItsOtherFunctionsNeedIsNotUsed) {
    config.replace_by(UNBOUND_LIBRARY);
    EXPECT_EQ(ask(hos_get_sms_config_handler), failure("hos_get_sms_config_handler"));
}

// One library for the three lists.
class AccountListTest : public HandlerTest {
protected:
    void all_fail() {
        EXPECT_EQ(ask(hos_get_all_users_handler), "{\"error_msg\":\"hos_get_all_users_handler fail\",\"result\":-1}\n");
        EXPECT_EQ(ask(hos_get_all_groups_handler),
                  "{\"error_msg\":\"hos_get_all_groups_handler fail\",\"result\":-1}\n");
        EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"everyone"})"),
                  "{\"error_msg\":\"hos_get_group_members_handler fail\",\"result\":-1}\n");
        EXPECT_FALSE(accounts.is_open());
    }
    library_stand_in accounts{"/usr/lib/libhcore_NAS.so.0.0"};
};

TEST_F(AccountListTest, UsersAreListedInOrder) {
    accounts.set("users", "zoe\nadmin\n\xc3\x85sa\n");
    EXPECT_EQ(ask(hos_get_all_users_handler),
              "{\"local_count\":3,\"result\":0,\"user_list\":[\"zoe\",\"admin\",\"\\u00c5sa\"]}\n");
    EXPECT_EQ(accounts.calls(), "Get_Local_User_List_V2 [0] [0] [null]\n");
    EXPECT_FALSE(accounts.is_open());
}

TEST_F(AccountListTest, GroupsAreListedInOrder) {
    accounts.set("groups", "staff\nadministrators\n");
    EXPECT_EQ(ask(hos_get_all_groups_handler),
              "{\"group_list\":[\"staff\",\"administrators\"],\"local_count\":2,\"result\":0}\n");
    EXPECT_EQ(accounts.calls(), "Get_Local_Group_List_V2 [0] [0] [null]\n");
    EXPECT_FALSE(accounts.is_open());
}

TEST_F(AccountListTest, ANameThatFillsItsEntryEndsThere) {
    const std::string user(33, 'u'), group(257, 'g');
    accounts.set("users", user + "\nb\n");
    EXPECT_EQ(ask(hos_get_all_users_handler),
              "{\"local_count\":2,\"result\":0,\"user_list\":[\"" + user + "\",\"b\"]}\n");
    accounts.set("groups", group + "\nb\n");
    EXPECT_EQ(ask(hos_get_all_groups_handler),
              "{\"group_list\":[\"" + group + "\",\"b\"],\"local_count\":2,\"result\":0}\n");
}

TEST_F(AccountListTest, ANameThatIsNoTextDoesNotStopTheList) {
    accounts.set("users", "\xff\xfe\nb\n");
    const auto reply = ask(hos_get_all_users_handler);
    ASSERT_TRUE(reply);
    EXPECT_THAT(*reply, testing::EndsWith(",\"b\"]}\n"));
}

TEST_F(AccountListTest, KeptNoNamesAreNullAndNotAnEmptyList) {
    accounts.set("users", "");
    accounts.set("groups", "");
    accounts.set("members", "");
    EXPECT_EQ(ask(hos_get_all_users_handler), "{\"local_count\":0,\"result\":0,\"user_list\":null}\n");
    EXPECT_EQ(ask(hos_get_all_groups_handler), "{\"group_list\":null,\"local_count\":0,\"result\":0}\n");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"empty"})"),
              "{\"result\":0,\"user_count\":0,\"user_list\":null}\n");
}

TEST_F(AccountListTest, NoNamesNeedNoBlock) {
    accounts.set("users", "");
    accounts.set("members", "");
    accounts.set("no_block", "");
    EXPECT_EQ(ask(hos_get_all_users_handler), "{\"local_count\":0,\"result\":0,\"user_list\":null}\n");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"empty"})"),
              "{\"result\":0,\"user_count\":0,\"user_list\":null}\n");
}

TEST_F(AccountListTest, ANegativeCountIsHandedOnWithoutNames) {
    accounts.set("users", "a\n");
    accounts.set("groups", "b\n");
    accounts.set("count", "-3");
    const auto both_are_empty = [] {
        EXPECT_EQ(ask(hos_get_all_users_handler), "{\"local_count\":-3,\"result\":0,\"user_list\":null}\n");
        EXPECT_EQ(ask(hos_get_all_groups_handler), "{\"group_list\":null,\"local_count\":-3,\"result\":0}\n");
    };
    both_are_empty();
    accounts.set("no_block", "");
    both_are_empty();
}

TEST_F(AccountListTest, ANonNegativeResultIsASuccessOfTheLists) {
    accounts.set("users", "a\n");
    accounts.set("return", "7");
    EXPECT_EQ(ask(hos_get_all_users_handler), "{\"local_count\":1,\"result\":0,\"user_list\":[\"a\"]}\n");
}

TEST_F(AccountListTest, AMemberListMayBeTheLibrarysOwn) {
    accounts.set("members", "a\n(null)\nc\n");
    accounts.set("member_list", "static");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff"})"),
              "{\"result\":0,\"user_count\":3,\"user_list\":[true,false,true]}\n");
}

TEST_F(AccountListTest, AMemberListMayBeFilledInPlace) {
    std::string names;
    std::string expected = "{\"result\":0,\"user_count\":40,\"user_list\":[";
    for (int i = 0; i < 40; ++i) {
        names += i == 7 ? "(null)\n" : "a\n";
        expected += i == 0 ? "true" : i == 7 ? ",false" : ",true";
    }
    accounts.set("members", names);
    accounts.set("member_list", "filled");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff"})"), expected + "]}\n");
}

TEST_F(AccountListTest, MembersWithoutAnEntryAreToldNotToBeThere) {
    accounts.set("members", "a\nb\nc\n");
    accounts.set("member_list", "filled");
    accounts.set("return", "70000"); // more than there is room for
    std::string expected = "{\"result\":0,\"user_count\":70000,\"user_list\":[true,true,true";
    for (int i = 3; i < 70000; ++i) {
        expected += ",false";
    }
    const auto reply = ask(hos_get_group_members_handler, R"({"group_name":"staff"})");
    EXPECT_TRUE(reply == expected + "]}\n"); // compared without being printed
}

TEST_F(AccountListTest, AMemberListThatTheLibraryLeavesAloneIsNone) {
    accounts.set("member_list", "untouched");
    accounts.set("members", "a\n");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff"})"),
              failure("hos_get_group_members_handler"));
    accounts.set("members", "");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff"})"),
              "{\"result\":0,\"user_count\":0,\"user_list\":null}\n");
}

TEST_F(AccountListTest, KeptMembersAreToldToExistAndNotNamed) {
    accounts.set("members", "a\nb\nc\n");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff"})"),
              "{\"result\":0,\"user_count\":3,\"user_list\":[true,true,true]}\n");
    accounts.set("members", "a\n(null)\nc\n");
    EXPECT_EQ(ask(hos_get_group_members_handler, R"({"group_name":"staff\u0000x"})"),
              "{\"result\":0,\"user_count\":3,\"user_list\":[true,false,true]}\n");
    EXPECT_EQ(accounts.calls(), "Get_NAS_User_List_Of_Group_Ex [staff]\nGet_NAS_User_List_Of_Group_Ex [staff]\n");
    EXPECT_FALSE(accounts.is_open());
}

TEST_F(AccountListTest, TheListsTakeNoRequest) {
    accounts.set("users", "a\n");
    accounts.set("groups", "b\n");
    for (const char* text : {"", "{", "not json", "[]"}) {
        EXPECT_EQ(ask(hos_get_all_users_handler, text), "{\"local_count\":1,\"result\":0,\"user_list\":[\"a\"]}\n");
        EXPECT_EQ(ask(hos_get_all_groups_handler, text), "{\"group_list\":[\"b\"],\"local_count\":1,\"result\":0}\n");
    }
    EXPECT_EQ(log(), "");
}

TEST_F(AccountListTest, ANegativeResultIsAFailureAlsoWithABlock) {
    accounts.set("return", "-1");
    all_fail();
}

TEST_F(AccountListTest, NamesWithoutABlockAreAFailure) {
    accounts.set("no_block", "");
    all_fail();
}

TEST_F(AccountListTest, WithoutTheFunctionsTheCallsFail) {
    accounts.replace_by("/usr/lib/libhcore_config.so.0.0");
    all_fail();
}

TEST_F(AccountListTest, WithoutTheLibraryTheCallsFail) {
    accounts.remove();
    all_fail();
}

TEST_F(AccountListTest, AGroupIsRequired) {
    EXPECT_EQ(ask(hos_get_group_members_handler), kInputError);
    EXPECT_EQ(logged(), strings{"[hos_get_group_members_handler][N] ks_io input fail."});
    for (const char* text : {"{}", R"({"group_name":5})", R"({"group_name":null})", "[]"}) {
        EXPECT_EQ(ask(hos_get_group_members_handler, text), kPaserFail) << text;
    }
    EXPECT_EQ(accounts.calls(), "");
}

} // namespace
