#include "host_answers.h"

#include "fuzz.h"

#include <algorithm>
#include <fstream>
#include <sys/mount.h>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

// See hostsim/README.md.
const std::string kHostFiles = "/var/lib/hostsim/";
const std::string kAnswer = kHostFiles + "knobs/answer/";

[[noreturn]] void skip(const char* why) {
    (void)std::fprintf(stderr, "skip: %s\n", why);
    ::_exit(77);
}

void write_file(const std::string& path, std::string_view text) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    require(static_cast<bool>(file << text << std::flush), "the host's files can be written");
}

} // namespace

host_answers::host_answers() {
    if (std::getenv("HOSTSIM") == nullptr) {
        skip("the tools are the simulated host's: hostsim/enter");
    }
    fs::create_directories(kAnswer);
    write_file(kHostFiles + "no_records", "");
    std::ifstream tools(HOST_TOOLS);
    for (std::string path; std::getline(tools, path);) {
        follow(path);
    }
}

void host_answers::cover(const std::string& program) {
    const std::string path = fs::canonical(program);
    if (::mount("/sbin/cfgread", path.c_str(), nullptr, MS_BIND, nullptr) != 0) { // the same program as every tool
        skip("nobody may mount here");
    }
    follow(path);
}

void host_answers::follow(std::string tool) {
    std::replace(tool.begin(), tool.end(), '/', '_');
    fs::create_directory_symlink("answer", kHostFiles + "knobs/" + tool);
}

void host_answers::set(std::string_view output, unsigned status) const {
    clear();
    write_file(kAnswer + "stdout", output);
    write_file(kAnswer + (status < 256 ? "exit" : "signal"), std::to_string(status % 256));
}

void host_answers::clear() const {
    for (const char* knob : {"stdout", "exit", "signal"}) {
        (void)fs::remove(kAnswer + knob);
    }
}
