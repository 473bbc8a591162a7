#include "run_program.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

void close_fd(int* fd) {
    if (*fd >= 0) {
        ::close(*fd);
        *fd = -1;
    }
}

// Appends what is there. False = the other side has closed it.
bool drain(int fd, std::string* text) {
    std::array<char, 65536> chunk{};
    const ssize_t count = read(fd, chunk.data(), chunk.size());
    if (count > 0) {
        text->append(chunk.data(), static_cast<size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

} // namespace

running_program::running_program(const std::vector<std::string>& argv) {
    std::array<std::array<int, 2>, 3> pipes{};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    for (size_t i = 0; i < pipes.size(); ++i) {
        EXPECT_EQ(pipe2(pipes[i].data(), O_CLOEXEC), 0);
        posix_spawn_file_actions_adddup2(&actions, pipes[i][i == 0 ? 0 : 1], static_cast<int>(i));
    }
    std::vector<char*> arguments;
    arguments.reserve(argv.size() + 1);
    for (const std::string& each : argv) {
        arguments.push_back(const_cast<char*>(each.c_str()));
    }
    arguments.push_back(nullptr);
    // A service in this process ignores signals, which programs would inherit.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t all;
    sigfillset(&all);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGDEF);
    EXPECT_EQ(posix_spawn(&pid_, arguments[0], &actions, &attributes, arguments.data(), environ), 0) << argv[0];
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipes[0][0]);
    ::close(pipes[1][1]);
    ::close(pipes[2][1]);
    in_ = pipes[0][1];
    out_ = pipes[1][0];
    err_ = pipes[2][0];
}

running_program::~running_program() {
    if (pid_ > 0) {
        (void)::kill(pid_, SIGKILL);
        (void)waitpid(pid_, nullptr, 0);
    }
    close_fd(&in_);
    close_fd(&out_);
    close_fd(&err_);
}

std::string running_program::read_line() {
    size_t end = 0;
    while ((end = pending_.find('\n')) == std::string::npos) {
        pollfd readable = {out_, POLLIN, 0};
        if (poll(&readable, 1, 10000) != 1 || !drain(out_, &pending_)) {
            ADD_FAILURE() << "no line within ten seconds; so far: " << pending_;
            return "";
        }
    }
    std::string line = pending_.substr(0, end);
    pending_.erase(0, end + 1);
    return line;
}

void running_program::write_stdin(const std::string& text) {
    EXPECT_EQ(write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

void running_program::close_stdin() {
    close_fd(&in_);
}

void running_program::close_stdout() {
    close_fd(&out_);
}

void running_program::kill(int signum) const {
    EXPECT_EQ(::kill(pid_, signum), 0);
}

finished running_program::wait() {
    close_stdin();
    finished result;
    result.out = std::move(pending_);
    while (out_ >= 0 || err_ >= 0) {
        std::array<pollfd, 2> readable = {{{out_, POLLIN, 0}, {err_, POLLIN, 0}}};
        (void)poll(readable.data(), readable.size(), -1);
        if (readable[0].revents != 0 && !drain(out_, &result.out)) {
            close_fd(&out_);
        }
        if (readable[1].revents != 0 && !drain(err_, &result.err)) {
            close_fd(&err_);
        }
    }
    int status = 0;
    EXPECT_EQ(waitpid(pid_, &status, 0), pid_);
    pid_ = -1;
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result;
}

finished run_program(const std::vector<std::string>& argv, const std::string& input) {
    running_program program(argv);
    program.write_stdin(input);
    return program.wait();
}
