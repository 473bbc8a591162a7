// The layer that is laid over the machine's root: plain files copied from the repository and the build, and the tool
// program hard-linked to every path it answers for. It lives on the host's private tmpfs because overlayfs refuses a
// lower directory that lies inside another one, as the repository lies inside "/".

#include "launcher.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>

namespace fs = std::filesystem;

namespace {

// Where the machine really keeps `path`: its parent with links resolved as far as it exists.
fs::path machine_path(const fs::path& path) {
    return fs::weakly_canonical(path.parent_path()) / path.filename();
}

// Makes the parents of `path` inside the layer, owned by root and open to all readers.
void make_parents(const fs::path& path) {
    fs::create_directories(path.parent_path());
}

void install_file(const fs::path& from, const fs::path& to) {
    make_parents(to);
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
    const bool executable =
        access(from.c_str(), X_OK) == 0 && (fs::status(from).permissions() & fs::perms::owner_exec) != fs::perms::none;
    check(chmod(to.c_str(), executable ? 0755 : 0644) == 0, "chmod " + to.string());
}

} // namespace

void copy_tree(const std::string& from, const std::string& to) {
    std::error_code missing;
    if (!fs::is_directory(from, missing)) {
        return;
    }
    for (const auto& entry : fs::recursive_directory_iterator(from)) {
        const fs::path target = to + machine_path("/" / entry.path().lexically_relative(from)).string();
        if (entry.is_symlink()) {
            make_parents(target);
            fs::copy_symlink(entry.path(), target);
        } else if (entry.is_directory()) {
            fs::create_directories(to + fs::weakly_canonical("/" / entry.path().lexically_relative(from)).string());
        } else if (entry.path().filename() != ".gitkeep") { // git cannot hold an empty directory without one
            install_file(entry.path(), target);
        }
    }
}

void install_tools(const std::string& program, const std::string& list_file, const std::string& to) {
    std::ifstream list(list_file);
    if (!list || access(program.c_str(), X_OK) != 0) {
        return; // not built yet: the host simply has no tools
    }
    const fs::path master = to + "/.hosttool";
    install_file(program, master);
    for (std::string path; std::getline(list, path);) {
        const fs::path link = to + machine_path(path).string();
        make_parents(link);
        std::error_code absent;
        fs::remove(link, absent);
        check(::link(master.c_str(), link.c_str()) == 0, "link " + link.string());
    }
    check(unlink(master.c_str()) == 0, "unlink " + master.string());
}
