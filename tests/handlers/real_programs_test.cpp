// The road to the end: what the handlers write and start, taken up by a real web server and a real mailer.
#include "ask.h"
#include "base64.h"
#include "handler_fixture.h"
#include "handlers.h"
#include "host_tool.h"
#include "loopback.h"
#include "runner.h"
#include "wait.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <mutex>
#include <string>

namespace fs = std::filesystem;

namespace {

using testing::EndsWith;
using testing::HasSubstr;

std::string port_text(std::uint16_t port) {
    return std::to_string(port);
}

class RealProgramsTest : public HandlerTest {
protected:
    // Asks until the answer begins with `start`: a graceful reload takes the servers a moment.
    static bool answers(std::uint16_t port, const std::string& start, const char* source = "127.0.0.1") {
        return wait_until([&] { return http_get(port, source).rfind(start, 0) == 0; });
    }
    static void stop(const char* server, const char* config, const char* pid_file) {
        (void)lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, server, "-k", "stop", "-f", config, nullptr);
        EXPECT_TRUE(wait_until([&] { return !file_exists(pid_file); }));
    }
};

class ReverseProxyServerTest : public RealProgramsTest {
protected:
    void TearDown() override {
        stop("/usr/sbin/reverseproxy_vexsurveillance",
             "/etc/reverseproxy_vexsurveillance/reverseproxy-vexsurveillance.conf",
             "/var/lock/apache_reverse_proxy_vexsurveillance.pid");
    }
    static std::string add(const std::string& guid, std::uint16_t port, std::uint16_t back_end) {
        return ask(hos_reverse_proxy_handler, R"({"action":"add","rule_list":[{"GUID":")" + guid + R"(","port":)" +
                                                  port_text(port) + R"(,"des_port":)" + port_text(back_end) +
                                                  R"(,"host_name":"127.0.0.1"}]})")
            .value_or("no reply");
    }
};

TEST_F(ReverseProxyServerTest, PagesOfPublishedRulesAreServedUntilTheyAreWithdrawn) {
    loopback_server cameras([](int fd) {
        std::string host;
        for (std::string line; !(line = receive_line(fd)).empty();) {
            host = line.rfind("Host: ", 0) == 0 ? line : host;
        }
        send_text(fd, "HTTP/1.0 200 OK\r\nContent-Type: text/plain\r\n\r\ncameras for " + host);
    });
    const std::string started = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"cmV2ZXJzZXByb3h5X3ZleHN1cnZlaWxsYW5jZSBzd"
                                "GFydGVkCg==\"}\n"; // "reverseproxy_vexsurveillance started"
    const std::string reloaded = "{\"cli_ret\":0,\"result\":0,\"result_out\":\"\"}\n";

    EXPECT_EQ(add("first", 8080, cameras.port()), started);
    ASSERT_TRUE(answers(8080, "HTTP/1.1 200"));
    const std::string page = http_get(8080);
    EXPECT_THAT(page, HasSubstr("X-Frame-Options: ALLOW-FROM *\r\n"));
    EXPECT_THAT(page, EndsWith("cameras for Host: vexhost"));

    ASSERT_TRUE(wait_until([] { return file_exists("/var/lock/apache_reverse_proxy_vexsurveillance.pid"); }));
    EXPECT_EQ(add("second", 8081, cameras.port()), reloaded);
    EXPECT_TRUE(answers(8081, "HTTP/1.1 200"));
    EXPECT_TRUE(answers(8080, "HTTP/1.1 200"));

    EXPECT_EQ(ask(hos_reverse_proxy_handler, R"({"action":"delete","rule_list":[{"GUID":"first"}]})"), reloaded);
    EXPECT_TRUE(wait_until([] { return http_get(8080).empty(); }));
    EXPECT_TRUE(answers(8081, "HTTP/1.1 200"));
}

class BanListServerTest : public RealProgramsTest {
protected:
    static constexpr std::uint16_t kPort = 58080;
    static constexpr const char* kServer = "/usr/local/apache/bin/apache_proxy";
    static constexpr const char* kConfig = "/etc/apache-sys-proxy.conf";

    void SetUp() override {
        RealProgramsTest::SetUp();
        ASSERT_EQ(lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kServer, "-k", "start", "-f", kConfig, nullptr), 0);
        ASSERT_TRUE(answers(kPort, "HTTP/1.1 200"));
        // The server writes its id a moment after it answers; without it a reload would start a second one.
        ASSERT_TRUE(wait_until([] { return file_exists("/var/lock/apache_proxy.pid"); }));
    }
    void TearDown() override { stop(kServer, kConfig, "/var/lock/apache_proxy.pid"); }
};

TEST_F(BanListServerTest, ListedClientsAreRefusedUntilTheListIsCleared) {
    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":"127.0.0.1,127.0.0.3"})"), "{\"result\":0}\n");
    EXPECT_TRUE(answers(kPort, "HTTP/1.1 403"));
    EXPECT_TRUE(answers(kPort, "HTTP/1.1 403", "127.0.0.3"));
    EXPECT_TRUE(answers(kPort, "HTTP/1.1 200", "127.0.0.2"));

    EXPECT_EQ(ask(hos_update_ip_ban_list_handler, R"({"ip_list":""})"), "{\"result\":0}\n");
    EXPECT_TRUE(answers(kPort, "HTTP/1.1 200"));
    EXPECT_TRUE(answers(kPort, "HTTP/1.1 200", "127.0.0.3"));
}

// Takes one mail at a time, as a mail server does, and keeps what it was told.
class smtp_sink {
public:
    [[nodiscard]] std::uint16_t port() const { return server_.port(); }

    // The mails so far: headers, empty line and body, each line ended by a line feed.
    [[nodiscard]] strings mails() const {
        const std::lock_guard lock(mutex_);
        return mails_;
    }
    [[nodiscard]] strings recipients() const {
        const std::lock_guard lock(mutex_);
        return recipients_;
    }
    // Whom the client signed in as; "none" before.
    [[nodiscard]] std::string user() const {
        const std::lock_guard lock(mutex_);
        return user_;
    }

private:
    void serve(int fd) {
        send_text(fd, "220 sink\r\n");
        for (std::string line; !(line = receive_line(fd)).empty();) {
            if (line.rfind("EHLO", 0) == 0) {
                send_text(fd, "250-sink\r\n250 AUTH LOGIN\r\n");
            } else if (line == "AUTH LOGIN") {
                sign_in(fd);
            } else if (line == "DATA") {
                take_mail(fd);
            } else if (line == "QUIT") {
                send_text(fd, "221 bye\r\n");
                return;
            } else {
                note_recipient(line);
                send_text(fd, "250 ok\r\n");
            }
        }
    }
    void sign_in(int fd) {
        send_text(fd, "334 VXNlcm5hbWU6\r\n");
        const std::string encoded_user = receive_line(fd);
        send_text(fd, "334 UGFzc3dvcmQ6\r\n");
        (void)receive_line(fd); // any password
        {
            const std::lock_guard lock(mutex_);
            base64_decode(encoded_user, user_);
        }
        send_text(fd, "235 welcome\r\n");
    }
    void note_recipient(const std::string& line) {
        if (line.rfind("RCPT TO:", 0) == 0) {
            const std::lock_guard lock(mutex_);
            recipients_.push_back(line.substr(8));
        }
    }
    void take_mail(int fd) {
        send_text(fd, "354 go on\r\n");
        std::string mail;
        for (std::string line; (line = receive_line(fd)) != ".";) {
            mail += line + '\n';
        }
        {
            const std::lock_guard lock(mutex_);
            mails_.push_back(mail);
        }
        send_text(fd, "250 taken\r\n"); // once it is kept: the client may be gone right after
    }

    mutable std::mutex mutex_;
    strings mails_;
    strings recipients_;
    std::string user_ = "none";
    loopback_server server_{[this](int fd) { serve(fd); }}; // last: its thread uses all the others
};

class MailDeliveryTest : public RealProgramsTest {
protected:
    void SetUp() override {
        RealProgramsTest::SetUp();
        fs::create_directories("/tmp/vexsurveillance_sendmail");
        fs::create_directories("/tmp/.vexsurveillance_log");
    }
    [[nodiscard]] std::string settings() const {
        return "mailhub=127.0.0.1:" + port_text(sink.port()) + "\nhostname=vexhost.example\nFromLineOverride=YES\n";
    }
    smtp_sink sink;
};

TEST_F(MailDeliveryTest, AMailArrivesAsItWasWritten) {
    write_file("/tmp/vexsurveillance_sendmail/m.conf", settings());
    write_file("/tmp/vexsurveillance_sendmail/m.txt", "From: cam@vexhost.example\n"
                                                      "To: guard@vexhost.example\n"
                                                      "Subject: Motion at camera 3\n"
                                                      "\n"
                                                      "Somebody moved.\n"
                                                      "$HOME stays as it is.\n");
    EXPECT_EQ(ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":"m.conf","content_file":"m.txt"})"),
              "{\"result\":0}\n");
    ASSERT_EQ(sink.mails().size(), 1U);
    EXPECT_THAT(sink.mails()[0], HasSubstr("From: cam@vexhost.example\n"));
    EXPECT_THAT(sink.mails()[0], HasSubstr("To: guard@vexhost.example\n"));
    EXPECT_THAT(sink.mails()[0], HasSubstr("Subject: Motion at camera 3\n"));
    EXPECT_THAT(sink.mails()[0], EndsWith("\n\nSomebody moved.\n$HOME stays as it is.\n"));
    EXPECT_EQ(sink.recipients(), strings{"<guard@vexhost.example>"});
    EXPECT_EQ(sink.user(), "none");
}

// What callers that sign in rely on: one file that is the mailer's settings and, read as its input, the mail.
TEST_F(MailDeliveryTest, SignedInTheConfigurationIsTheMailAndThePasswordTheLastUser) {
    write_file("/tmp/vexsurveillance_sendmail/m.conf", "To: guard@vexhost.example\n"
                                                       "Subject: Motion at camera 3\n"
                                                       "\n" +
                                                           settings());
    write_file("/tmp/vexsurveillance_sendmail/m.txt", "not sent");
    EXPECT_EQ(
        ask(hos_sendmail_handler, R"({"user":"cam","pwd":"s3cret","config_file":"m.conf","content_file":"m.txt"})"),
        "{\"result\":0}\n");
    ASSERT_EQ(sink.mails().size(), 1U);
    EXPECT_THAT(sink.mails()[0], HasSubstr("Subject: Motion at camera 3\n"));
    EXPECT_THAT(sink.mails()[0], EndsWith("\n\n" + settings()));
    EXPECT_EQ(sink.user(), "s3cret");
}

TEST_F(MailDeliveryTest, AMailServerThatIsNotThereShowsInTheResultAndTheLog) {
    write_file("/tmp/vexsurveillance_sendmail/m.conf", "mailhub=127.0.0.1:1\nhostname=vexhost.example\n");
    write_file("/tmp/vexsurveillance_sendmail/m.txt", "To: guard@vexhost.example\n\nlost\n");
    EXPECT_EQ(ask(hos_sendmail_handler, R"({"user":"","pwd":"","config_file":"m.conf","content_file":"m.txt"})"),
              "{\"result\":256}\n");
    EXPECT_THAT(read_file("/tmp/.vexsurveillance_log/sendmail.log"), HasSubstr("127.0.0.1"));
}

} // namespace
