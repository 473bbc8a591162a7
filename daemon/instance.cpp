#include "instance.h"

#include "scoped.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

constexpr size_t kCommandNameSize = 15; // the kernel's limit, see proc(5) under comm

// Whether process `pid` (text) runs under `name` and is no zombie.
bool runs_as(const char* pid, const char* name) {
    const std::string path = std::string("/proc/") + pid + "/stat";
    const unique_file file(std::fopen(path.c_str(), "re"));
    char line[256];
    if (!file || std::fgets(line, sizeof(line), file.get()) == nullptr) {
        return false; // it has ended meanwhile
    }
    return is_live_under(line, name);
}

} // namespace

bool is_live_under(const std::string& line, std::string_view name) {
    // The name may itself hold parentheses and blanks.
    const size_t open = line.find('(');
    const size_t close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close < open ||
        line.substr(open + 1, close - open - 1).substr(0, kCommandNameSize) != name.substr(0, kCommandNameSize)) {
        return false;
    }
    const size_t state = line.find_first_not_of(' ', close + 1);
    return state != std::string::npos && line.substr(state, line.find(' ', state) - state) != "Z";
}

bool ks_reentried(const char* path) {
    if (path == nullptr || *path == '\0') {
        return false;
    }
    const char* slash = std::strrchr(path, '/');
    const char* name = slash != nullptr ? slash + 1 : path;
    const std::string own = std::to_string(getpid());
    const unique_dir processes(opendir("/proc"));
    if (!processes) {
        return false;
    }
    while (const dirent* entry = readdir(processes.get())) {
        if (std::isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 && own != entry->d_name &&
            runs_as(entry->d_name, name)) {
            return true;
        }
    }
    return false;
}
