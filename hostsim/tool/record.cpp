#include "record.h"

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

const std::string kHostFiles = "/var/lib/hostsim/";

struct close_dir {
    void operator()(DIR* dir) const noexcept { closedir(dir); }
};

std::optional<std::string> read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    return std::string(std::istreambuf_iterator<char>(file), {});
}

void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream file(path, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        throw std::runtime_error("cannot write " + path);
    }
}

// Like the kernel's own lists of words: each is followed by a NUL.
std::string nul_separated(char* const* words) {
    std::string joined;
    for (; *words != nullptr; ++words) {
        joined.append(*words).push_back('\0');
    }
    return joined;
}

// All of standard input when it has an end: a file or a pipe.
std::string read_standard_input() {
    struct stat status {};
    if (fstat(STDIN_FILENO, &status) != 0 || !(S_ISREG(status.st_mode) || S_ISFIFO(status.st_mode))) {
        return "";
    }
    std::string all;
    char chunk[4096];
    for (ssize_t got = 0; (got = read(STDIN_FILENO, chunk, sizeof chunk)) > 0;) {
        all.append(chunk, static_cast<std::size_t>(got));
    }
    return all;
}

// The lines of our status that tell which signals were blocked and ignored at the start.
std::string signal_lines() {
    std::istringstream status(read_file("/proc/self/status").value_or(""));
    std::string lines;
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("SigBlk:") || line.starts_with("SigIgn:")) {
            lines += line + '\n';
        }
    }
    return lines;
}

// One line "number target" for each open descriptor.
std::string open_descriptors() {
    std::string lines;
    const std::unique_ptr<DIR, close_dir> listing(opendir("/proc/self/fd"));
    if (!listing) {
        return lines;
    }
    const int own = dirfd(listing.get());
    while (const dirent* entry = readdir(listing.get())) {
        const std::string name = entry->d_name;
        if (name[0] != '.' && name != std::to_string(own)) {
            char target[4096];
            const ssize_t length = readlinkat(own, entry->d_name, target, sizeof target);
            lines += name + ' ' + std::string(target, length > 0 ? static_cast<std::size_t>(length) : 0) + '\n';
        }
    }
    return lines;
}

} // namespace

started_with::started_with() : descriptors_(open_descriptors()) {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) < 0) {
            (void)!open("/dev/null", O_RDWR); // takes the lowest free number, which is this one
        }
    }
}

tool_files::tool_files(const std::string& tool_path) {
    std::string name = tool_path;
    for (char& c : name) {
        c = c == '/' ? '_' : c;
    }
    calls_ = kHostFiles + "calls/" + name;
    knobs_ = kHostFiles + "knobs/" + name;
}

void tool_files::record(const started_with& start, int argc, char** argv) {
    if (fs::exists(kHostFiles + "no_records")) {
        return; // there will be more calls than anybody wants to read
    }
    const std::string draft = kHostFiles + "calls/.draft." + std::to_string(getpid());
    fs::create_directories(calls_);
    fs::create_directory(draft);
    write_file(draft + "/argv", argc > 0 ? nul_separated(argv) : "");
    write_file(draft + "/env", nul_separated(environ));
    write_file(draft + "/fds", start.descriptors());
    write_file(draft + "/sigs", signal_lines());
    write_file(draft + "/cwd", fs::current_path().string());
    if (fs::exists(knobs_ + "/read_stdin")) {
        write_file(draft + "/stdin", read_standard_input());
    }
    // Several calls may be under way at once: the first free number is ours when the rename succeeds.
    do {
        ++number_;
        char place[16];
        (void)snprintf(place, sizeof place, "/%06u", number_);
        if (renameat2(AT_FDCWD, draft.c_str(), AT_FDCWD, (calls_ + place).c_str(), RENAME_NOREPLACE) == 0) {
            return;
        }
    } while (errno == EEXIST);
    throw std::system_error(errno, std::generic_category(), "keep the record in " + calls_);
}

std::optional<std::string> tool_files::knob(const std::string& name) const {
    auto mine = read_file(knobs_ + "/" + name + "." + std::to_string(number_));
    return mine ? mine : read_file(knobs_ + "/" + name);
}
