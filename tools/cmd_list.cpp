// ksctl list: which services have a socket, and whether somebody answers.
#include "ksctl.h"
#include "service_socket.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace ksctl {

namespace {

namespace fs = std::filesystem;

// A socket's name does not tell the service's, so those that this system has are looked for.
const char* name_at(const std::string& path) {
    const auto* found = std::find_if(kKnownServices.begin(), kKnownServices.end(),
                                     [&path](const known_service& each) { return service_path(each.name) == path; });
    return found != kKnownServices.end() ? found->name : "-";
}

const char* state_of(const std::string& path) {
    switch (probe(path)) {
    case presence::up:
        return "up";
    case presence::full:
        return "full";
    case presence::down:
        break;
    }
    return "down";
}

int list() {
    std::vector<std::string> sockets;
    std::error_code error;
    for (fs::directory_iterator entry(kSocketDirectory, error), end; !error && entry != end; entry.increment(error)) {
        std::error_code gone; // it may go while we look
        if (fs::is_socket(entry->symlink_status(gone))) {
            sockets.push_back(entry->path().string());
        }
    }
    if (error && error != std::errc::no_such_file_or_directory) {
        return fail(kFailure, "cannot read %s: %s", kSocketDirectory, error.message().c_str());
    }
    if (sockets.empty()) {
        (void)fail(kSuccess, "no service has a socket in %s", kSocketDirectory);
    }
    std::sort(sockets.begin(), sockets.end());
    std::string table;
    for (const std::string& path : sockets) {
        std::array<char, 512> line{};
        (void)snprintf(line.data(), line.size(), "%-26s  %-4s  %s\n", path.c_str(), state_of(path), name_at(path));
        table += line.data();
    }
    return print(table) ? kSuccess : kFailure;
}

declaration declare() {
    return {{}, list};
}

} // namespace

const command cmd_list = {
    "list", "List the services' sockets",
    "Prints each socket under /var/run/ks with its state, and the service's name if it is a known one.\n"
    "States: up = accepts connections, full = too many connections wait to be accepted,\n"
    "down = nobody listens.",
    "ksctl list", declare};

} // namespace ksctl
