// Builds the simulated host's file system and moves the process into it.
//
// One tmpfs, mounted over /run in this mount namespace only, holds everything that is made: the layer of the host's own
// files, the overlay's upper and work folders, and the new root's mount point. What must stay visible although
// something else gets mounted above it (the project may live anywhere, /tmp included) is held open first and bound from
// its descriptor.

#include "launcher.h"

#include <array>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace {

const std::string kBase = "/run";
const std::string kRoot = kBase + "/root";
const std::string kLayer = kBase + "/layer";

// A file or directory of the machine that is to appear at the same path inside.
struct held_path {
    std::string path;
    unique_fd fd;
};

held_path hold(const std::string& path) {
    return {path, unique_fd(open(path.c_str(), O_PATH | O_CLOEXEC))};
}

void do_mount(const char* source, const std::string& target, const char* type, unsigned long flags,
              const std::string& options) {
    check(mount(source, target.c_str(), type, flags, options.c_str()) == 0,
          "mount " + std::string(type) + " on " + target);
}

void make_directory(const std::string& path, mode_t mode) {
    fs::create_directories(path);
    check(chmod(path.c_str(), mode) == 0, "chmod " + path);
}

// Makes an empty file, the mount point of a file or a stand-in for a device.
void make_file(const std::string& path, mode_t mode) {
    const unique_fd file(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode));
    check(file.ok(), "create " + path);
}

void set_read_only(const std::string& path) {
    struct mount_attr attributes {};
    attributes.attr_set = MOUNT_ATTR_RDONLY;
    check(mount_setattr(AT_FDCWD, path.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) == 0,
          "make read-only " + path);
}

// Binds what is held, with all that is mounted below it, at the same path of the new root.
void bind_held(const held_path& held) {
    const std::string target = kRoot + held.path;
    struct stat status {};
    check(fstat(held.fd.get(), &status) == 0, "look at " + held.path);
    if (S_ISDIR(status.st_mode)) {
        fs::create_directories(target);
    } else {
        make_file(target, 0600);
    }
    const std::string source = "/proc/self/fd/" + std::to_string(held.fd.get());
    check(mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, "bind " + held.path);
}

// True when `path` is `folder` or lies below it.
bool is_within(const std::string& path, const std::string& folder) {
    return path == folder || path.compare(0, folder.size() + 1, folder + "/") == 0;
}

// A copy-on-write view of the machine's `folder` at the same path of the new root, with the layer over it.
bool overlay(const std::string& folder, const host_view& view, int number) {
    const std::string upper = kBase + "/upper" + std::to_string(number);
    const std::string work = kBase + "/work" + std::to_string(number);
    const std::string layer = kLayer + (folder == "/" ? "" : folder);
    for (const auto& made : {upper, work, layer}) {
        make_directory(made, 0755);
    }
    const std::string options = "lowerdir=" + layer + ":" + folder + ",upperdir=" + upper + ",workdir=" + work +
                                (view.user_namespace ? ",userxattr" : "");
    return mount("hostsim", (kRoot + folder).c_str(), "overlay", 0, options.c_str()) == 0;
}

// The machine's further disk mounts: an overlay shows one file system, so each needs a view of its own.
std::vector<std::string> further_mounts(const host_view& view) {
    static const std::set<std::string> kNoFiles = {"autofs", "nsfs", "cgroup", "cgroup2", "proc", "sysfs", "devpts"};
    std::vector<std::string> found;
    std::ifstream table("/proc/self/mountinfo");
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string skipped, point, type;
        fields >> skipped >> skipped >> skipped >> skipped >> point;
        while (fields >> skipped && skipped != "-") {
        }
        fields >> type;
        bool private_inside = point == "/" || is_within(point, view.project) || kNoFiles.count(type) > 0;
        for (const char* made : {"/proc", "/sys", "/dev", "/run", "/tmp"}) {
            private_inside = private_inside || is_within(point, made);
        }
        if (!private_inside && point.find_first_of("\\,:") == std::string::npos) {
            found.push_back(point);
        }
    }
    return found;
}

void mount_machine_root(const host_view& view, const std::vector<std::string>& further) {
    check(overlay("/", view, 0), "mount an overlay over the machine's root");
    int number = 0;
    for (const auto& point : further) {
        ++number;
        if (fs::is_directory(point) && overlay(point, view, number)) {
            continue;
        }
        // Single files, and file systems that cannot lie under an overlay, are shown as they are.
        if (mount(point.c_str(), (kRoot + point).c_str(), nullptr, MS_BIND, nullptr) == 0) {
            set_read_only(kRoot + point);
        }
    }
}

// Shows a file of the machine in a folder that could not be overlaid: as a copy, or, when it is large, as it is.
void show_file(const fs::path& path) {
    constexpr std::uintmax_t kCopiedBytes = 1 << 20;
    std::error_code unreadable;
    if (fs::is_regular_file(path) && fs::file_size(path) <= kCopiedBytes &&
        fs::copy_file(path, kRoot + path.string(), unreadable)) {
        return;
    }
    bind_held(hold(path));
    set_read_only(kRoot + path.string());
}

// The same as mount_machine_root() for an ordinary user. A user namespace may not look below the mounts it was given,
// so
// "/" with its mounts cannot be overlaid as a whole, nor can another folder that holds mounts: what is in them is shown
// one by one.
void show_folder(const fs::path& folder, const host_view& view, int* number) {
    static const std::set<std::string> kMadeLater = {"/proc", "/sys", "/dev", "/run", "/tmp"};
    for (const auto& entry : fs::directory_iterator(folder)) {
        const std::string path = entry.path().string();
        if (entry.is_symlink()) {
            fs::copy_symlink(path, kRoot + path);
        } else if (!entry.is_directory()) {
            if (folder != "/") {
                show_file(entry.path());
            }
        } else {
            make_directory(kRoot + path, 0755);
            if (kMadeLater.count(path) == 0 && !overlay(path, view, ++*number)) {
                if (access(path.c_str(), R_OK | X_OK) == 0) {
                    show_folder(path, view, number);
                } else {
                    bind_held(hold(path));
                    set_read_only(kRoot + path);
                }
            }
        }
    }
    for (const auto& entry :
         fs::directory_iterator(fs::path(kLayer) / folder.relative_path())) { // what the host lays over it
        const fs::path target = fs::path(kRoot) / entry.path().lexically_relative(kLayer);
        if (!entry.is_directory() || !fs::exists(target)) {
            fs::copy(entry.path(), target, fs::copy_options::recursive | fs::copy_options::overwrite_existing);
        }
    }
}

void mount_machine_folders(const host_view& view) {
    do_mount("hostsim", kRoot, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755"); // pivot_root wants a mount
    int number = 0;
    show_folder("/", view, &number);
}

// A private /dev: the machine's harmless devices, and an ordinary file for the kernel log so that crash reports can be
// read by tests and never reach the machine's log.
void mount_devices(const std::vector<held_path>& devices) {
    const std::string dev = kRoot + "/dev";
    do_mount("hostsim", dev, "tmpfs", MS_NOSUID, "mode=0755");
    for (const auto& device : devices) {
        if (device.fd.ok()) {
            bind_held(device);
        }
    }
    make_directory(dev + "/shm", 01777);
    make_file(dev + "/kmsg", 0644);
    const std::array<std::pair<const char*, const char*>, 4> links = {
        {{"fd", "/proc/self/fd"}, {"stdin", "fd/0"}, {"stdout", "fd/1"}, {"stderr", "fd/2"}}};
    for (const auto& [name, target] : links) {
        fs::create_symlink(target, dev + "/" + name);
    }
}

} // namespace

void fill_layer(const host_view& view, const std::string& layer) {
    for (const char* folder : {"/var/lib/hostsim/calls", "/var/lib/hostsim/knobs"}) {
        make_directory(layer + folder, 01777);
    }
    // Where root is an ordinary user outside, the machine's files belong to nobody whom it knows, and cannot be
    // changed. These are the host's own: the folders that it writes to, and a program that a test takes away.
    make_directory(layer + "/var/log", 0755);
    make_directory(layer + "/var/tmp", 01777);
    if (fs::exists("/usr/bin/getfattr")) {
        make_directory(layer + "/usr/bin", 0755);
        fs::copy_file("/usr/bin/getfattr", layer + "/usr/bin/getfattr");
    }
    make_file(layer + "/.hostsim", 0444); // how a nested hostsim/enter knows where it is
    copy_tree(view.project + "/hostsim/root", layer);
    copy_tree(view.build + "/hostsim-root", layer);
    install_tools(view.build + "/bin/hosttool", view.build + "/hostsim-tools.list", layer);
}

namespace {

// Takes this mount namespace's mounts out of the machine's reach. In a plain chroot "/" is a folder of some mount,
// which can be neither made private nor pivoted from: it is made a mount first, from outside of the chroot, because the
// mount that it lies on may be one that the machine's own namespace shares.
void make_mounts_private() {
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0) {
        return;
    }
    check(errno == EINVAL, "make the mounts private");
    const unique_fd root(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    const unique_fd mounts(open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC));
    check(root.ok() && mounts.ok() && setns(mounts.get(), CLONE_NEWNS) == 0, "leave the chroot (is /proc mounted?)");
    check(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make the mounts private");
    const unique_fd tree(open_tree(root.get(), "", OPEN_TREE_CLONE | OPEN_TREE_CLOEXEC | AT_RECURSIVE | AT_EMPTY_PATH));
    check(tree.ok() &&
              move_mount(tree.get(), "", root.get(), "", MOVE_MOUNT_F_EMPTY_PATH | MOVE_MOUNT_T_EMPTY_PATH) == 0,
          "make / a mount point");
    check(fchdir(tree.get()) == 0 && chroot(".") == 0, "return to the chroot");
}

void switch_root() {
    check(chdir(kRoot.c_str()) == 0, "enter the new root");
    // Both arguments the same directory: the old root ends up on top of the new one, and is dropped from there.
    check(syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
    check(umount2(".", MNT_DETACH) == 0, "detach the machine's root");
    check(chdir("/") == 0, "enter /");
}

} // namespace

void become_host(const host_view& view) {
    make_mounts_private();
    std::vector<held_path> trees;
    trees.push_back(hold(view.project));
    if (!is_within(view.build, view.project)) {
        trees.push_back(hold(view.build));
    }
    std::vector<held_path> devices;
    for (const char* name : {"null", "zero", "full", "random", "urandom", "tty", "ptmx", "pts"}) {
        devices.push_back(hold(std::string("/dev/") + name));
    }
    const held_path sys = hold("/sys");
    const auto further = further_mounts(view);

    do_mount("hostsim", kBase, "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    umask(022);
    make_directory(kRoot, 0755);
    make_directory(kLayer, 0755);
    fill_layer(view, kLayer);
    if (view.user_namespace) {
        mount_machine_folders(view);
    } else {
        mount_machine_root(view, further);
    }
    do_mount("proc", kRoot + "/proc", "proc", MS_NOSUID | MS_NODEV | MS_NOEXEC, "");
    bind_held(sys);
    set_read_only(kRoot + "/sys");
    mount_devices(devices);
    do_mount("hostsim", kRoot + "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777");
    do_mount("hostsim", kRoot + "/run", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755");
    make_directory(kRoot + "/run/lock", 01777);
    for (const auto& tree : trees) {
        if (tree.fd.ok()) {
            bind_held(tree);
        }
    }
    switch_root();
}
