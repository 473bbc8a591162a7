#include "silent_file.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/fuse.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support {

namespace {

template <class T>
void reply(int device, uint64_t question, const T& body) {
    fuse_out_header header = {sizeof(header) + sizeof(body), 0, question};
    iovec parts[2] = {{&header, sizeof(header)}, {const_cast<T*>(&body), sizeof(body)}};
    (void)!writev(device, parts, 2);
}

} // namespace

silent_file::silent_file() {
    const temp_dir dir;
    const std::string path = dir.file("silent");
    const descriptor mount_point(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    (void)mknod("/dev/fuse", S_IFCHR | 0600, makedev(10, 229)); // the simulated host has none
    descriptor device(open("/dev/fuse", O_RDWR | O_CLOEXEC));
    // The file system's root is the file: nothing has to be looked up.
    const std::string options = "fd=" + std::to_string(device.get()) +
                                ",rootmode=100000,user_id=" + std::to_string(getuid()) +
                                ",group_id=" + std::to_string(getgid());
    if (device.get() < 0 || mount("silent", path.c_str(), "fuse", MS_NOSUID | MS_NODEV, options.c_str()) != 0) {
        return;
    }
    const pid_t parent = getpid();
    server_ = fork();
    if (server_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() == parent) {
            answer_until_open(device.get());
        }
        _exit(0);
    }
    device.reset(); // the server's alone: its end is the file system's
    fd_.reset(open(path.c_str(), O_RDWR | O_CLOEXEC));
    (void)umount2(path.c_str(), MNT_DETACH); // what is open stays
}

silent_file::~silent_file() {
    if (server_ > 0) {
        (void)kill(server_, SIGKILL);
        (void)waitpid(server_, nullptr, 0);
    }
}

void silent_file::answer_until_open(int device) const {
    for (bool open = false;;) {
        alignas(fuse_in_header) char question[FUSE_MIN_READ_BUFFER];
        if (read(device, question, sizeof(question)) <= 0) {
            return;
        }
        fuse_in_header header = {};
        memcpy(&header, question, sizeof(header));
        if (header.opcode == FUSE_INIT) {
            fuse_init_out init = {};
            init.major = FUSE_KERNEL_VERSION;
            init.minor = FUSE_KERNEL_MINOR_VERSION;
            init.max_write = 4096;
            reply(device, header.unique, init);
        } else if (header.opcode == FUSE_OPEN && !open) {
            reply(device, header.unique, fuse_open_out{});
            open = true;
        } else if (header.opcode != FUSE_FORGET && header.opcode != FUSE_INTERRUPT) {
            ++asked_->by_opcode[header.opcode];
            ++asked_->all;
        }
    }
}

} // namespace support
