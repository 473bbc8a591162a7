#include "exec_cli.h"
#include "test_files.h"

namespace {

std::string probe(const std::string& rest) {
    return R"({"command":[")" CHILD_PROBE R"(")" + rest + "]}";
}

// The names of our temporary files that exist now.
std::size_t temporary_files() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        count += name.rfind("vexprod-", 0) == 0 && name.rfind("vexprod-test", 0) != 0 ? 1 : 0;
    }
    return count;
}

TEST(ExecCliTest, ReturnsWhatTheProgramPrinted) {
    std::string output = "old";
    EXPECT_EQ(exec_cli(R"({"command":["/bin/echo","hi"]})", output), 0);
    EXPECT_EQ(output, "hi\n");
}

TEST(ExecCliTest, TextThatIsNotJsonIsRefused) {
    for (const char* input : {"", "not json", R"({"command":["/bin/echo")"}) {
        std::string output = "old";
        EXPECT_EQ(exec_cli(input, output), -1) << input;
        EXPECT_EQ(output, "Read command fail.") << input;
    }
}

TEST(ExecCliTest, JsonThatHoldsNoCommandIsRefusedAlike) {
    for (const char* input : {"5", "[1]", "{}", R"({"command":"/bin/echo"})", R"({"command":[]})",
                              R"({"command":["/bin/echo",["hi"]]})", R"({"command":["/bin/echo",{"a":1}]})"}) {
        std::string output = "old";
        EXPECT_EQ(exec_cli(input, output), -1) << input;
        EXPECT_EQ(output, "Read command fail.") << input;
    }
}

TEST(ExecCliTest, ArgumentZeroIsTheBaseNameAndOtherTypesTakeTheirTextForm) {
    std::string output;
    EXPECT_EQ(exec_cli(probe(R"(,"report",5,true,null,1.5,"")"), output), 0);
    EXPECT_NE(output.find("argv=child_probe\nargv=report\nargv=5\nargv=true\nargv=\nargv=1.5\nargv=\n"),
              std::string::npos)
        << output;
    EXPECT_EQ(output.find("env="), std::string::npos) << "the environment is empty";
}

TEST(ExecCliTest, ArgumentsAreCutTo255Characters) {
    std::string output;
    EXPECT_EQ(exec_cli(probe(",\"print\",\"" + std::string(300, 'a') + "\""), output), 0);
    EXPECT_EQ(output, std::string(255, 'a'));
    EXPECT_EQ(exec_cli(probe(",\"print\",\"" + std::string(255, 'b') + "\""), output), 0);
    EXPECT_EQ(output, std::string(255, 'b'));
}

TEST(ExecCliTest, ThePathIsNotCut) {
    const test_folder folder;
    const std::string deep = folder / (std::string(200, 'd') + "/" + std::string(200, 'd'));
    std::filesystem::create_directories(deep);
    std::filesystem::create_symlink("/bin/echo", deep + "/echo");
    std::string output;
    EXPECT_EQ(exec_cli(R"({"command":[")" + deep + R"(/echo","hi"]})", output), 0);
    EXPECT_EQ(output, "hi\n");
}

TEST(ExecCliTest, OutputBeyond5120BytesIsLost) {
    std::string output;
    EXPECT_EQ(exec_cli(probe(R"(,"fill","5120")"), output), 0);
    EXPECT_EQ(output.size(), 5120U);
    EXPECT_EQ(exec_cli(probe(R"(,"fill","5121")"), output), 0);
    EXPECT_EQ(output.size(), 5120U);
}

TEST(ExecCliTest, OutputEndsAtItsFirstNul) {
    std::string output;
    EXPECT_EQ(exec_cli(R"({"command":["/usr/bin/printf","a\\0b"]})", output), 0);
    EXPECT_EQ(output, "a");
}

TEST(ExecCliTest, AFailingProgramStillGivesZero) {
    std::string output = "old";
    EXPECT_EQ(exec_cli(R"({"command":["/no/such/program"]})", output), 0);
    EXPECT_EQ(output, "");
    EXPECT_EQ(exec_cli(R"({"command":["/bin/sh","-c","echo kept; echo lost >&2; exit 3"]})", output), 0);
    EXPECT_EQ(output, "kept\n");
}

TEST(ExecCliTest, OneTextMayBeInputAndOutput) {
    std::string text = R"({"command":["/bin/echo","hi"]})";
    EXPECT_EQ(exec_cli(text, text), 0);
    EXPECT_EQ(text, "hi\n");
    EXPECT_EQ(exec_cli(text, text), -1);
    EXPECT_EQ(text, "Read command fail.");
}

TEST(ExecCliTest, LeavesNoTemporaryFile) {
    const std::size_t before = temporary_files();
    std::string output;
    EXPECT_EQ(exec_cli(R"({"command":["/bin/echo","hi"]})", output), 0);
    EXPECT_EQ(exec_cli(R"({"command":["/no/such/program"]})", output), 0);
    EXPECT_EQ(temporary_files(), before);
}

} // namespace
