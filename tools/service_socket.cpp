#include "service_socket.h"

#include "ksctl.h"
#include "kservice.h"
#include "unique_fd.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <sys/socket.h>
#include <sys/un.h>

namespace ksctl {

namespace {

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

std::string service_path(const std::string& name) {
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

presence probe(const std::string& path) {
    const unique_fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path)); // needs no NUL, see unix(7)
    if (connect(connection.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
        return presence::up;
    }
    return errno == EAGAIN ? presence::full : presence::down;
}

} // namespace ksctl
