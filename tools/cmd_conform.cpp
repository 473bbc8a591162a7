// ksctl conform: whether a service, or a client, keeps the rules of docs/protocol.md.
#include "commands.h"
#include "conform.h"
#include "ksctl.h"
#include "service_socket.h"

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace ksctl {

namespace {

struct conform_options {
    std::vector<std::string> words;
    std::string command = "test";
    std::string request;
    bool client = false;
    unsigned timeout_s = 30;
    bool slow = false;
};

int check(const conform_options& options) {
    conform::patience = std::chrono::seconds(options.timeout_s);
    if (options.client) {
        return conform::check_client(options.words);
    }
    if (options.words.size() > 1) {
        return fail(kUsage,
                    "one SERVICE at a time, or --client before a client's command line (see ksctl conform --help)");
    }
    const std::string& service = options.words.front();
    if (!check_service_name(service) || !check_command(service, options.command)) {
        return kBadArgument;
    }
    const std::string path = service_path(service);
    if (probe(path) == presence::down) {
        const int error = errno;
        return fail(kNoService, "no such service: %s (%s): %s", full_service_name(service).c_str(), path.c_str(),
                    why_absent(service, error).c_str());
    }
    return conform::check_service(path, options.command, options.request, options.slow);
}

int conform_to_protocol(const conform_options& options) {
    try {
        return check(options);
    } catch (const conform::stopped& reason) {
        return reason.status;
    }
}

declaration declare() {
    auto options = std::make_shared<conform_options>();
    return {
        {{"WORDS", &options->words, "The service's name; with --client the client's command line"},
         {"--client", &options->client, "Check a client instead, see below"},
         {"--command", &options->command, "A command that the service answers and that does no harm", "COMMAND"},
         {"--request", &options->request, "The request's text for it", "TEXT"},
         {"--timeout", &options->timeout_s, "Seconds that the other side may take for a step", "S", limits{1, 3600}},
         {"--slow", &options->slow, "Also the check that takes half a minute"}},
        [options] { return conform_to_protocol(*options); }};
}

} // namespace

const command cmd_conform = {
    "conform", "Check a service or a client against the protocol",
    "Prints one line for each rule, in the words of ks-protocol(7), and below a rule that is not kept what was\n"
    "seen instead. Ends with 0 when all are kept, else with 1.\n"
    "\n"
    "A client is run some twenty times, as WORDS SERVICE COMMAND REQUEST. It has to print the reply's bytes and end\n"
    "with 0, and without a reply to print nothing and end with another status. Options of its own go behind \"--\".",
    "ksctl conform main\n  ksctl conform --client -- python3 -m kservice", declare};

} // namespace ksctl
