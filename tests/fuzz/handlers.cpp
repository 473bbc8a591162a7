// Requests through both services, as the daemon serves them, and the host's tools' answers to the handlers.
//
// An input is text, its parts divided by lines "--": "main" or "mail" and the command; the request; what every tool
// prints, and the status that it ends with (see host_answers.h). Without the last two the tools do their own jobs. A
// command that there is not stands for one that there is, so that few inputs are wasted.
#include "command_table.h"
#include "dispatch.h"
#include "fuzz.h"
#include "host_answers.h"
#include "json_helpers.h"
#include "kservice.h"
#include "log.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <numeric>
#include <span>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kDivider = "\n--\n";

std::array<std::string_view, 4> parts_of(std::string_view input) {
    std::array<std::string_view, 4> parts;
    for (std::string_view& part : parts) {
        part = input.substr(0, input.find(kDivider));
        input.remove_prefix(std::min(input.size(), part.size() + kDivider.size()));
    }
    return parts;
}

const char* command_of(std::span<const command_entry> table, std::string_view name) {
    for (const command_entry& entry : table) {
        if (entry.command == name) {
            return entry.command;
        }
    }
    return table[std::accumulate(name.begin(), name.end(), 0U) % table.size()].command;
}

// Of the signals those that every process dies by: one that is only stopped would be waited for without end.
unsigned status_of(std::string_view text) {
    return static_cast<unsigned>(std::strtoul(std::string(text).c_str(), nullptr, 10) % (256 + 16));
}

struct host {
    host() {
        answers.cover("/bin/sh"); // what the input brings about shall not be a command line of this machine
        log_set_dir("/tmp/fuzz-log");
        ks_start(ks_create(kMain, KS_STANDALONE | KS_PTHREAD_MODE, 1, service_handler));
        ks_start(ks_create(kMail, KS_STANDALONE | KS_PTHREAD_MODE, 1, sendmail_service_handler));
        for (const char* name : {kMain, kMail}) {
            require(ks_ez_call(name, "test", nullptr, 0, nullptr, nullptr, 120, -1) == KS_OK, "the worker is at work");
        }
        fs::current_path("/tmp");
    }

    static constexpr const char* kMain = "@/tmp/fuzz-main.sock";
    static constexpr const char* kMail = "@/tmp/fuzz-mail.sock";
    host_answers answers;
};

// What handlers leave behind on purpose when a tool fails: its output, for inspection. Files only: the project may be a
// folder of such a name.
void remove_kept_files() {
    for (const auto& entry : fs::directory_iterator("/tmp")) {
        if (entry.is_regular_file() && entry.path().filename().string().starts_with("vexprod-")) {
            fs::remove(entry.path());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const host simulated; // for as long as the process lives
    static std::size_t before = open_descriptors();
    const auto [address, request, output, status] = parts_of(text_of(data, size));
    if (output.empty() && status.empty()) {
        simulated.answers.clear();
    } else {
        simulated.answers.set(output, status_of(status));
    }
    const bool mail = address.starts_with("mail ");
    const char* command =
        command_of(mail ? mail_commands() : main_commands(), address.substr(std::min<std::size_t>(address.size(), 5)));
    void* reply = nullptr;
    std::size_t reply_size = 0;
    const unsigned code = ks_ez_call(mail ? host::kMail : host::kMain, command, request.data(), request.size(), &reply,
                                     &reply_size, 120, -1);
    require(code == KS_OK || code == KS_DISCONNECTED, "a reply, or the connection's end");
    Json::Value object;
    require(code != KS_OK || (json_parse({static_cast<const char*>(reply), reply_size}, &object) && object.isObject()),
            "a reply is a JSON object");
    std::free(reply);
    require(::waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD, "no child is left behind");
    remove_kept_files();
    before = require_open_descriptors(before);
    return 0;
}
