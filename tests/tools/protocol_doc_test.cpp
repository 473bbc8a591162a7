// docs/protocol.md keeps its word: the client printed there works against a real service, and so do its other claims.
#include "kservice.h"
#include "run_program.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// "echo" answers with the command and the request, "fd" writes to the extra descriptor, "silent" gives no reply.
int serve(const char* command, ks_io* io, int fd) {
    const std::string what = command;
    size_t size = 0;
    const char* text = static_cast<const char*>(ks_io_read(io, &size));
    const std::string request(text != nullptr ? text : "", size);
    if (what != "silent") {
        const std::string reply = what.size() == 256 ? "256" : what + ":" + request + (fd >= 0 ? ":fd" : "");
        ks_io_realloc(io, 0);
        EXPECT_EQ(ks_io_write(io, reply.data(), reply.size()), static_cast<ssize_t>(reply.size()));
        if (fd >= 0) {
            EXPECT_EQ(write(fd, "printed", 7), 7);
        }
        ks_reply(io);
    }
    if (fd >= 0) {
        close(fd);
    }
    ks_io_free(io);
    return 0;
}

class ProtocolDocumentTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "protocol-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        folder_ = pattern;
        name_ = "@" + folder_ + "/s";
        document_ = content_of(PROTOCOL_DOCUMENT);
        const size_t begin = document_.find("```python\n");
        ASSERT_NE(begin, std::string::npos);
        const size_t code = begin + std::string("```python\n").size();
        const size_t end = document_.find("\n```", code);
        ASSERT_NE(end, std::string::npos);
        client_ = folder_ + "/client.py";
        std::ofstream(client_) << document_.substr(code, end + 1 - code);
    }
    void TearDown() override {
        if (service_ != nullptr) {
            ks_free(service_);
        }
        std::filesystem::remove_all(folder_);
    }
    void start_service(const std::string& name) {
        service_ = ks_create(name.c_str(), KS_STANDALONE | KS_PTHREAD_MODE, 1, serve);
        ks_start(service_);
    }
    finished client(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {PYTHON, client_});
        return run_program(arguments);
    }

    std::string folder_;
    std::string name_;
    std::string document_;
    std::string client_;
    ks_handle* service_ = nullptr;
};

TEST_F(ProtocolDocumentTest, PrintedClientGetsItsReply) {
    start_service(name_);
    const finished call = client({name_, "echo", R"({"a":1})"});
    EXPECT_EQ(call.status, 0) << call.err;
    EXPECT_EQ(call.out, R"(echo:{"a":1})");
    EXPECT_EQ(client({name_, "echo"}).out, "echo:");
    EXPECT_EQ(client({name_, std::string(256, 'c')}).out, "256");
}

TEST_F(ProtocolDocumentTest, PrintedClientFindsServicesByName) {
    start_service("VexHubServer-vexprod");
    EXPECT_EQ(client({"VexHubServer-vexprod", "echo", "x"}).out, "echo:x");
}

TEST_F(ProtocolDocumentTest, PrintedClientPassesAnExtraDescriptor) {
    start_service(name_);
    EXPECT_EQ(client({name_, "echo", "x", folder_ + "/output"}).out, "echo:x:fd");
    EXPECT_EQ(content_of(folder_ + "/output"), "printed");
}

TEST_F(ProtocolDocumentTest, PrintedClientTellsWhyThereIsNoReply) {
    EXPECT_THAT(client({name_, "echo"}).err, HasSubstr("No such file or directory"));
    start_service(name_);
    const finished silent = client({name_, "silent"});
    EXPECT_EQ(silent.status, 1);
    EXPECT_THAT(silent.out, IsEmpty());
    EXPECT_EQ(silent.err, name_ + ": connection ended without a reply\n");
    ks_pause(service_);
    EXPECT_EQ(client({name_, "echo"}).err, name_ + ": service is paused\n");
}

TEST_F(ProtocolDocumentTest, PrintedSocketPathsAreTheLibrarys) {
    for (const char* name : {"VexHubServer-vexprod", "VexHubServer_send_mail-vexprod", "VexHubServer_notify-vexprod"}) {
        ks_handle* service = ks_create(name, KS_PTHREAD_MODE, 1, serve);
        EXPECT_THAT(document_, HasSubstr(std::string("| `") + name + "` | `" + service->sockfile + "` |"));
        ks_free(service);
    }
}

} // namespace
