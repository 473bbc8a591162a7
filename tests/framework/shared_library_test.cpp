// libkservice.so as others meet it: from C, and with no name in it but the header's.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <sys/wait.h>

namespace {

struct program {
    std::string output;
    int status = -1;
};

program run(const std::string& command) {
    program result;
    FILE* stream = popen(command.c_str(), "r");
    if (stream == nullptr) {
        return result;
    }
    std::array<char, 4096> bytes{};
    size_t got = 0;
    while ((got = fread(bytes.data(), 1, bytes.size(), stream)) > 0) {
        result.output.append(bytes.data(), got);
    }
    result.status = pclose(stream);
    return result;
}

TEST(SharedLibraryTest, CProgramServesAndCallsThroughIt) {
    const program client = run("'" C_CLIENT "' 2>&1");
    EXPECT_EQ(client.status, 0) << client.output;
    EXPECT_EQ(client.output, "served\n");
}

std::set<std::string> names_in_the_header() {
    std::ifstream file(PUBLIC_HEADER);
    std::stringstream text;
    text << file.rdbuf();
    // KS_API, the type, then the name before "(" or "[".
    const std::regex declaration(R"((?:^|\n)(?:extern )?KS_API [^;]*?\b(\w+)(?:\(|\[))");
    const std::string all = text.str();
    std::set<std::string> names;
    for (std::sregex_iterator each(all.begin(), all.end(), declaration), end; each != end; ++each) {
        names.insert((*each)[1]);
    }
    return names;
}

TEST(SharedLibraryTest, ExportsExactlyTheNamesOfTheHeader) {
    const program nm = run("'" NM "' -D --defined-only '" SHARED_LIBRARY "'");
    ASSERT_EQ(nm.status, 0);
    std::set<std::string> exported;
    std::istringstream lines(nm.output);
    for (std::string address, kind, name; lines >> address >> kind >> name;) {
        name = name.substr(0, name.find('@'));
        if (kind != "A") { // the version's own name
            exported.insert(name);
        }
    }
    const auto declared = names_in_the_header();
    EXPECT_GE(declared.size(), 49U);
    EXPECT_EQ(exported, declared);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
TEST(SharedLibraryTest, NeedsNothingOfTheCxxLibrary) {
    const program nm = run("'" NM "' -D --undefined-only '" SHARED_LIBRARY "'");
    ASSERT_EQ(nm.status, 0);
    EXPECT_EQ(nm.output.find("_Z"), std::string::npos) << nm.output;
    EXPECT_EQ(nm.output.find("GLIBCXX"), std::string::npos) << nm.output;
}
#endif

} // namespace
