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
    // The name may itself hold parentheses and blanks.
    char* open = std::strchr(line, '(');
    char* close = std::strrchr(line, ')');
    if (open == nullptr || close == nullptr || close < open) {
        return false;
    }
    *close = '\0';
    if (std::strncmp(open + 1, name, kCommandNameSize) != 0) {
        return false;
    }
    char* rest = nullptr;
    const char* state = strtok_r(close + 1, " ", &rest);
    return state != nullptr && std::strcmp(state, "Z") != 0;
}

} // namespace

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
