#include "host_tool.h"

#include "test_files.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>
#include <stdexcept>
#include <sys/mount.h>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

std::vector<std::string> nul_separated(const std::string& bytes) {
    std::vector<std::string> words;
    std::istringstream stream(bytes);
    for (std::string word; std::getline(stream, word, '\0');) {
        words.push_back(word);
    }
    return words;
}

tool_call read_call(const fs::path& folder) {
    tool_call call;
    call.argv = nul_separated(read_file(folder / "argv"));
    call.env = nul_separated(read_file(folder / "env"));
    std::map<int, std::string> descriptors;
    std::istringstream lines(read_file(folder / "fds"));
    for (std::string line; std::getline(lines, line);) {
        descriptors[std::stoi(line)] = line.substr(line.find(' ') + 1);
    }
    for (const auto& [fd, target] : descriptors) {
        call.fds.push_back(fd);
        call.targets.push_back(target);
    }
    call.stdin_text = fs::exists(folder / "stdin") ? read_file(folder / "stdin") : "";
    call.cwd = read_file(folder / "cwd");
    call.signals = read_file(folder / "sigs");
    return call;
}

} // namespace

host_tool::host_tool(std::string path) : path_(std::move(path)) {
    if (!fs::exists("/.hostsim")) {
        throw std::logic_error("run this test through hostsim/enter");
    }
    std::string name = path_;
    std::replace(name.begin(), name.end(), '/', '_');
    calls_ = "/var/lib/hostsim/calls/" + name;
    knobs_ = "/var/lib/hostsim/knobs/" + name;
    clear();
}

host_tool& host_tool::set(const std::string& knob, std::string_view value, unsigned call) {
    write_file(knobs_ + "/" + knob + (call == 0 ? "" : "." + std::to_string(call)), value);
    return *this;
}

host_tool& host_tool::answers(std::string_view standard_output, unsigned call) {
    return set("stdout", standard_output, call);
}

host_tool& host_tool::complains(std::string_view standard_error, unsigned call) {
    return set("stderr", standard_error, call);
}

host_tool& host_tool::exits(int status, unsigned call) {
    return set("exit", std::to_string(status), call);
}

host_tool& host_tool::dies_by(int signal, unsigned call) {
    return set("signal", std::to_string(signal), call);
}

host_tool& host_tool::delays(std::chrono::milliseconds delay, unsigned call) {
    return set("delay_ms", std::to_string(delay.count()), call);
}

host_tool& host_tool::reads_stdin() {
    return set("read_stdin", "", 0);
}

std::vector<tool_call> host_tool::calls() const {
    std::vector<fs::path> folders;
    if (fs::exists(calls_)) {
        for (const auto& entry : fs::directory_iterator(calls_)) {
            folders.push_back(entry.path());
        }
    }
    std::sort(folders.begin(), folders.end()); // the names are numbers of equal width
    std::vector<tool_call> calls;
    calls.reserve(folders.size());
    for (const auto& folder : folders) {
        calls.push_back(read_call(folder));
    }
    return calls;
}

void host_tool::clear() {
    fs::remove_all(calls_);
    fs::remove_all(knobs_);
}

covered_program::covered_program(std::string path) : path_(std::move(path)) {
    if (!fs::exists("/.hostsim")) {
        throw std::logic_error("run this test through hostsim/enter");
    }
    if (::mount("/sbin/cfgread", path_.c_str(), nullptr, MS_BIND, nullptr) != 0) { // the same program as every tool
        throw std::system_error(errno, std::generic_category(), "cover " + path_);
    }
}

covered_program::~covered_program() {
    (void)::umount2(path_.c_str(), MNT_DETACH);
}
