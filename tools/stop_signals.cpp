#include "stop_signals.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <poll.h>
#include <sys/signalfd.h>

namespace ksctl {

stop_signals::stop_signals() {
    sigset_t both;
    sigemptyset(&both);
    sigaddset(&both, SIGINT);
    sigaddset(&both, SIGTERM);
    (void)pthread_sigmask(SIG_BLOCK, &both, nullptr);
    fd_.reset(signalfd(-1, &both, SFD_CLOEXEC));
}

bool stop_signals::came_before(int fd) const {
    std::array<pollfd, 2> watched = {{{fd_.get(), POLLIN, 0}, {fd, POLLIN, 0}}};
    while (poll(watched.data(), watched.size(), -1) < 0 && errno == EINTR) {
    }
    return watched[0].revents != 0;
}

} // namespace ksctl
