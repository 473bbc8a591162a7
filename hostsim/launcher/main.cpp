// hostlauncher PROJECT BUILD COMMAND [ARG...] - the program behind hostsim/enter.
// hostlauncher PROJECT BUILD --layer DIRECTORY - only makes the host's own files there, for hostsim/in_place.
//
// Two processes stand between the caller and the command. The outer one makes the namespaces, passes signals on and
// returns the command's status. The inner one is process 1 of the host: it builds the root, starts the command,
// collects every orphan, and its end takes everything that still runs inside with it. If the outer one dies, however it
// dies, the kernel kills the inner one.

#include "launcher.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace {

constexpr int kCannotEnter = 125;
constexpr std::array kForwarded = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2};

// How signals stood when we were started; the command gets them back like that.
struct signal_state {
    sigset_t mask;
    struct sigaction on_child;
};

// Blocks the signals that wait_and_forward() takes, and makes children collectable.
signal_state take_signals() {
    signal_state before{};
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGCHLD);
    for (const int signal : kForwarded) {
        sigaddset(&taken, signal);
    }
    sigprocmask(SIG_BLOCK, &taken, &before.mask);
    struct sigaction plain {};
    plain.sa_handler = SIG_DFL;
    sigaction(SIGCHLD, &plain, &before.on_child);
    return before;
}

// Waits for `child`, collecting any other child on the way and passing signals on to it.
// @return the child's exit status, 128+n when signal n ended it.
int wait_and_forward(pid_t child) {
    sigset_t taken;
    sigemptyset(&taken);
    sigaddset(&taken, SIGCHLD);
    for (const int signal : kForwarded) {
        sigaddset(&taken, signal);
    }
    for (;;) {
        int status = 0;
        for (pid_t ended = 0; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
            if (ended == child) {
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
        }
        siginfo_t arrived{};
        const int signal = sigwaitinfo(&taken, &arrived);
        // What the kernel sends, such as the terminal's interrupt, has reached the command already: it shares our
        // process group. Only what a process sent to us alone is passed on.
        if (signal > 0 && signal != SIGCHLD && arrived.si_code <= 0) {
            kill(child, signal);
        }
    }
}

void write_file(const char* path, const std::string& text) {
    const unique_fd file(open(path, O_WRONLY | O_CLOEXEC));
    check(file.ok() && write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()),
          std::string("write ") + path);
}

// Inside a fresh user namespace: be root here, the caller outside.
void map_root(uid_t uid, gid_t gid) {
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

// A fresh network namespace has nothing but a loopback interface, and that one is down.
void raise_loopback() {
    const unique_fd any_socket(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    struct ifreq loopback {};
    loopback.ifr_name[0] = 'l';
    loopback.ifr_name[1] = 'o';
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    check(any_socket.ok() && ioctl(any_socket.get(), SIOCSIFFLAGS, &loopback) == 0, "raise the loopback interface");
}

[[noreturn]] void run_command(char** command, const signal_state& before) {
    sigaction(SIGCHLD, &before.on_child, nullptr);
    sigprocmask(SIG_SETMASK, &before.mask, nullptr);
    execvp(command[0], command);
    const int status = errno == ENOENT ? 127 : 126;
    std::perror(command[0]);
    _exit(status);
}

// Process 1 of the host. Its return value is the command's status.
int inner(const host_view& view, char** command, const signal_state& before, int outer_alive_fd) {
    // Dies with the outer process. The pipe tells whether that one was gone before the request was made.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    struct pollfd outer_alive = {.fd = outer_alive_fd, .events = 0, .revents = 0};
    if (poll(&outer_alive, 1, 0) != 0) {
        return kCannotEnter;
    }
    const mode_t mask = umask(022);
    become_host(view);
    raise_loopback();
    umask(mask);
    if (chdir(view.cwd.c_str()) != 0) {
        (void)fprintf(stderr, "hostsim/enter: %s does not exist inside, starting in /\n", view.cwd.c_str());
    }
    check(setenv("HOSTSIM", "1", 1) == 0, "set HOSTSIM");
    const pid_t child = fork();
    check(child >= 0, "fork");
    if (child == 0) {
        run_command(command, before);
    }
    return wait_and_forward(child);
}

// A fork into new namespaces. Root needs no user namespace; anyone else, and a root without the right to mount, does.
pid_t fork_into_namespaces(bool* ret_user_namespace) {
    constexpr long kNamespaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWIPC | CLONE_NEWNET | SIGCHLD;
    *ret_user_namespace = false;
    long child = syscall(SYS_clone, kNamespaces, nullptr, nullptr, nullptr, nullptr);
    if (child < 0 && errno == EPERM) {
        *ret_user_namespace = true;
        child = syscall(SYS_clone, kNamespaces | CLONE_NEWUSER, nullptr, nullptr, nullptr, nullptr);
    }
    check(child >= 0, "make namespaces");
    return static_cast<pid_t>(child);
}

int enter(char** arguments) {
    namespace fs = std::filesystem;
    host_view view{.project = fs::canonical(arguments[0]).string(),
                   .build = fs::weakly_canonical(fs::absolute(arguments[1])).string(),
                   .cwd = fs::current_path().string(),
                   .user_namespace = false};
    if (std::strcmp(arguments[2], "--layer") == 0 && arguments[3] != nullptr) {
        umask(022);
        fill_layer(view, arguments[3]);
        return 0;
    }
    const uid_t uid = geteuid();
    const gid_t gid = getegid();
    std::array<int, 2> alive{};
    check(pipe2(alive.data(), O_CLOEXEC) == 0, "make a pipe");
    unique_fd read_end(alive[0]);
    unique_fd write_end(alive[1]);
    const signal_state before = take_signals();
    const pid_t child = fork_into_namespaces(&view.user_namespace);
    if (child == 0) {
        write_end.reset();
        if (view.user_namespace) {
            map_root(uid, gid);
        }
        return inner(view, arguments + 2, before, read_end.get());
    }
    return wait_and_forward(child);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        (void)fputs("usage: hostlauncher PROJECT BUILD COMMAND [ARG...]\n", stderr);
        return kCannotEnter;
    }
    try {
        return enter(argv + 1);
    } catch (const std::exception& failure) {
        (void)fprintf(stderr,
                      "hostsim/enter: cannot make the simulated host: %s\n"
                      "hostsim/enter: hostsim/probe tells what is missing, and the remedy\n",
                      failure.what());
        return kCannotEnter;
    }
}
