#include "service_socket.h"

#include "ksctl.h"
#include "kservice.h"
#include "near_name.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace ksctl {

namespace {

namespace fs = std::filesystem;

constexpr size_t kLongestPath = 63; // the library formats paths into 64 bytes

} // namespace

bool check_service_name(const std::string& name) {
    if (name.empty() || name == "@") {
        (void)fail(kBadArgument, "bad argument: the service has no name");
        return false;
    }
    if (name.size() > MAXIMUM_NAME_SIZE) {
        (void)fail(kBadArgument, "bad argument: a service name has at most %d characters, this one has %zu",
                   MAXIMUM_NAME_SIZE, name.size());
        return false;
    }
    return true;
}

std::string full_service_name(const std::string& given) {
    const auto* found = std::find_if(kKnownServices.begin(), kKnownServices.end(),
                                     [&](const known_service& each) { return !given.empty() && given == each.alias; });
    return found != kKnownServices.end() ? found->name : given;
}

std::string service_path(const std::string& given) {
    const std::string name = full_service_name(given);
    if (name.front() == '@') {
        return name.substr(1, kLongestPath);
    }
    SHA1Context sha1;
    SHA1Reset(&sha1);
    SHA1Input(&sha1, reinterpret_cast<const unsigned char*>(name.data()), static_cast<unsigned>(name.size()));
    (void)SHA1Result(&sha1); // fails on input after the end only
    std::array<char, kLongestPath + 1> path{};
    (void)snprintf(path.data(), path.size(), "/var/run/ks/%X.sock", sha1.digest[0]);
    return path.data();
}

sockaddr_un socket_address(const std::string& path) {
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path)); // needs no NUL, see unix(7)
    return address;
}

presence probe(const std::string& path) {
    const unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_un address = socket_address(path);
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return presence::up;
    }
    return errno == EAGAIN ? presence::full : presence::down;
}

std::string who_keeps_out(const std::string& path) {
    std::error_code error;
    const fs::path resolved = fs::weakly_canonical(path, error);
    fs::path folder;
    for (const fs::path& part : error ? fs::path(path).parent_path() : resolved.parent_path()) {
        folder /= part;
        struct stat found = {};
        if (access(folder.c_str(), X_OK) != 0 && errno == EACCES && stat(folder.c_str(), &found) == 0) {
            std::array<char, 64> mode{};
            (void)snprintf(mode.data(), mode.size(), " keeps others out (owner %u, mode %04o)", found.st_uid,
                           found.st_mode & 07777U);
            return folder.string() + mode.data();
        }
    }
    return "";
}

std::string why_absent(const std::string& name, int error) {
    const std::string reason = std::string(strerror(error)) + "; ";
    if (error == ECONNREFUSED) {
        return reason + "it was started and is gone: nobody listens on the socket any more";
    }
    if (error == EACCES) {
        const std::string keeper = who_keeps_out(service_path(name));
        return reason + (keeper.empty() ? "the socket's mode does not allow it" : keeper);
    }
    if (error != ENOENT) {
        return strerror(error);
    }
    std::vector<std::string> names;
    for (const known_service& each : kKnownServices) {
        if (full_service_name(name) == each.name) {
            return reason + "it has not been started";
        }
        for (const char* known : {each.alias, each.name}) {
            if (*known != '\0') {
                names.emplace_back(known);
            }
        }
    }
    const std::string question = name.front() == '@' ? "" : did_you_mean(near_names(name, names));
    return reason + (question.empty() ? "nothing is published there" : question);
}

} // namespace ksctl
