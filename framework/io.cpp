// The message object. The record is private to each process; the memory file is shared, and so is its offset, because
// both sides hold the same open file description. That is why a reply begins with ks_io_realloc(io, 0).
//
// In a service the file comes from an untrusted peer, who keeps a descriptor of it. is_memory_file() admits only usable
// memory files, but the peer can still grow the file beyond what can be mapped, or fill its file system. That is not
// our own program's misuse, so nothing aborts: the object drops the file, ends the connection and continues with a
// private file that nobody reads.
#include "internal.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#define KS_MAP_TEXT "io->shared_data != MAP_FAILED"

namespace {

using ks::is_io;

void unmap(ks_io* io) {
    if (io->shared_data != nullptr) {
        munmap(io->shared_data, io->shared_size);
    }
    io->shared_data = nullptr;
    io->shared_size = 0;
}

// Maps the file's first `size` bytes, size > 0. Leaves `io` unmapped when that fails.
bool map(ks_io* io, size_t size) {
    void* data = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, io->memfd, 0);
    if (data == MAP_FAILED) {
        return false;
    }
    io->shared_data = data;
    io->shared_size = size;
    io->mapped_fd = io->memfd;
    return true;
}

// Whether a peer has, or had, the memory file: a request has been made with it.
bool is_shared(const ks_io* io) {
    return io->sockfd >= 0 || io->cred.pid != 0 || io->command[0] != '\0';
}

// Drops a file that the peer has made unusable.
void let_go(ks_io* io) {
    unmap(io);
    ks::close_and_clear(&io->memfd);
    (void)shutdown(io->sockfd, SHUT_RDWR);
}

bool resize_and_map(ks_io* io, size_t size, bool* ret_resized) {
    *ret_resized = ftruncate(io->memfd, (off_t)size) == 0;
    if (!*ret_resized) {
        return false;
    }
    (void)lseek(io->memfd, 0, SEEK_END);
    return size == 0 || map(io, size);
}

} // namespace

namespace ks {

void io_shm(ks_io* io) {
    if (io->memfd < 0) {
        io->memfd = above_stdio(memfd_create("kservice", MFD_CLOEXEC));
        // set_fd_cloexec() would find nothing to change on a new file.
        KS_REQUIRE_IN("ks_io_shm", io->memfd >= 0, "io->memfd != -1 && set_fd_cloexec(io->memfd)",
                      "create share memory file fail");
    }
}

bool io_try_sync(ks_io* io) {
    if (io->memfd == -1) {
        return true;
    }
    const off_t size = lseek(io->memfd, 0, SEEK_END);
    // A shared mapping shows what its file holds now. Each request is synced twice, and a mapping costs as much as all
    // else that a sync does, several times over.
    if (io->shared_data != nullptr && io->mapped_fd == io->memfd && (off_t)io->shared_size == size) {
        return true;
    }
    unmap(io);
    return size <= 0 || map(io, (size_t)size); // not positive: empty, or no file that could be mapped
}

void io_reset(ks_io* io) {
    unmap(io);
    (void)shutdown(io->sockfd, SHUT_RDWR); // a child may hold a copy; the peer must still see end of file
    close_and_clear(&io->memfd);
    close_and_clear(&io->sockfd);
    io->passfd = -1;
}

bool is_memory_file(int fd) {
    // Asked first, and nothing else unless it is a memory file: this does not involve the file's own file system, which
    // may never respond (FUSE, a dead network share), and takes no lock of the file's, as F_ADD_SEALS does.
    int seals = fcntl(fd, F_GET_SEALS);
    if (seals < 0) {
        return false;
    }
    if ((fcntl(fd, F_GETFL) & O_ACCMODE) != O_RDWR) {
        return false;
    }
    // First seal the seals, then check them: a seal added after the check would make our own steps fail. Nearly always
    // they are sealed from the beginning: memfd_create(2) without MFD_ALLOW_SEALING.
    if ((seals & F_SEAL_SEAL) == 0) {
        (void)fcntl(fd, F_ADD_SEALS, F_SEAL_SEAL);
        seals = fcntl(fd, F_GET_SEALS);
    }
    return (seals & (F_SEAL_WRITE | F_SEAL_FUTURE_WRITE | F_SEAL_SHRINK | F_SEAL_GROW)) == 0;
}

} // namespace ks

ks_io* ks_io_create(void) {
    ks_io* io = static_cast<ks_io*>(calloc(1, sizeof(ks_io)));
    KS_REQUIRE(io != nullptr, "io", "alloc ks_io memory fail");
    io->magic = KS_IO_MAGIC;
    io->memfd = -1;
    io->sockfd = -1;
    io->passfd = -1;
    return io;
}

void ks_io_free(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot free incorrect ks_io %p", (void*)io);
    ks::close_and_clear(&io->sockfd);
    if (io->memfd >= 0) {
        unmap(io);
        ks::close_and_clear(&io->memfd);
    }
    free(io);
}

size_t ks_io_size(ks_io* io) {
    struct stat st = {};
    return fstat(io->memfd, &st) == 0 ? (size_t)st.st_size : 0; // also 0 for -1
}

void ks_io_realloc(ks_io* io, size_t size) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot alloc incorrect ks_io %p", (void*)io);
    ks::io_shm(io);
    unmap(io);
    bool resized = false;
    bool done = resize_and_map(io, size, &resized);
    if (!done && is_shared(io)) {
        let_go(io);
        ks::io_shm(io);
        done = resize_and_map(io, size, &resized);
    }
    KS_REQUIRE(resized, "ftruncate(io->memfd, size) == 0", "ftruncate memory file fail");
    KS_REQUIRE(done, KS_MAP_TEXT, "create memory map fail");
}

void ks_io_sync(ks_io* io) {
    if (!ks::io_try_sync(io)) {
        KS_REQUIRE(is_shared(io), KS_MAP_TEXT, "create memory map fail");
        let_go(io);
    }
}

void* ks_io_read(ks_io* io, size_t* size) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot read incorrect ks_io %p", (void*)io);
    ks_io_sync(io);
    if (size != nullptr) {
        *size = io->shared_size;
    }
    return io->shared_data;
}

// KEPT: ks_io_write() and ks_io_splice() report misuse with the wording of ks_io_read().
ssize_t ks_io_write(ks_io* io, const void* buf, size_t len) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot read incorrect ks_io %p", (void*)io);
    ks::io_shm(io);
    return write(io->memfd, buf, len);
}

ssize_t ks_io_splice(ks_io* io, int fdin, size_t len) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot read incorrect ks_io %p", (void*)io);
    ks::io_shm(io);
    return splice(fdin, nullptr, io->memfd, nullptr, len, SPLICE_F_MOVE | SPLICE_F_NONBLOCK);
}

int ks_io_printf(ks_io* io, const char* fmt, ...) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot printf incorrect ks_io %p", (void*)io);
    ks::io_shm(io);
    // Most replies are short. vdprintf() makes a stream for each call: memory, and two system calls more.
    char text[BUFSIZ];
    va_list arguments;
    va_start(arguments, fmt);
    int length = vsnprintf(text, sizeof(text), fmt, arguments);
    va_end(arguments);
    if (length >= 0 && (size_t)length < sizeof(text)) {
        return write(io->memfd, text, (size_t)length) == length ? length : -1;
    }
    va_start(arguments, fmt);
    length = vdprintf(io->memfd, fmt, arguments);
    va_end(arguments);
    return length;
}

void ks_io_set(ks_io* io, void* p) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot attach incorrect ks_io %p", (void*)io);
    io->userdata = p;
}

void* ks_io_get(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot detach incorrect ks_io %p", (void*)io);
    return io->userdata;
}

pid_t ks_io_pid(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot fetch incorrect ks_io %p pid", (void*)io);
    return io->cred.pid;
}

uid_t ks_io_uid(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot fetch incorrect ks_io %p uid", (void*)io);
    return io->cred.uid;
}

gid_t ks_io_gid(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot fetch incorrect ks_io %p gid", (void*)io);
    return io->cred.gid;
}

uint32_t ks_io_alive(ks_io* io) {
    KS_REQUIRE(is_io(io), KS_IO_TEXT, "cannot check incorrect ks_io %p alive", (void*)io);
    if (io->cred.pid == 0) {
        return 1;
    }
    if (io->sockfd < 0) {
        return 0;
    }
    // A caller sends nothing after its request: readable means it hung up, or violated the protocol.
    pollfd caller = {io->sockfd, POLLIN, {}};
    return TEMP_FAILURE_RETRY(poll(&caller, 1, 0)) == 0 ? 1 : 0;
}

// KEPT: from here to ks_io_freopen() nothing checks the magic.
int ks_io_fileno(ks_io* io) {
    ks::io_shm(io);
    return io->memfd;
}

int ks_io_dup(ks_io* io) {
    ks::io_shm(io);
    return dup(io->memfd);
}

int ks_io_dup2(ks_io* io, int newfd) {
    ks::io_shm(io);
    return dup2(io->memfd, newfd);
}

int ks_io_dup3(ks_io* io, int newfd, int flags) {
    ks::io_shm(io);
    return dup3(io->memfd, newfd, flags);
}

FILE* ks_io_fopen(ks_io* io, const char* mode) {
    ks::io_shm(io);
    char path[PATH_MAX];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", io->memfd);
    return fopen(path, mode);
}

FILE* ks_io_freopen(ks_io* io, const char* mode, FILE* stream) {
    ks::io_shm(io);
    char path[PATH_MAX];
    (void)snprintf(path, sizeof(path), "/proc/self/fd/%d", io->memfd);
    return freopen(path, mode, stream);
}

int ks_json_write_io(const void* data, size_t len, ks_io* io) {
    return (int)((unsigned)ks_io_write(io, data, len) - (unsigned)len);
}
