// One of the simulated host's libraries, as a test sees it: the host_tool.h of libraries.
//
//     library_stand_in accounts("/usr/lib/libhcore_NAS.so.0.0");
//     accounts.set("users", "anna\nben\n");
//     ... run the code under test ...
//     EXPECT_EQ(accounts.calls(), "Get_Local_User_List_V2 [0] [0] [null]\n");
//
// What can be set stands at the head of each library's source in hostsim/lib, and of hostsim/lib/stand_in.h.
#ifndef VEXPROD_TESTS_LIBRARY_STAND_IN_H
#define VEXPROD_TESTS_LIBRARY_STAND_IN_H

#include "displaced_files.h"
#include "test_files.h"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <utility>

class library_stand_in {
public:
    /// Forgets what earlier tests set and its earlier calls. Throws outside the simulated host.
    explicit library_stand_in(std::string path) : path_(std::move(path)) {
        if (::getenv("HOSTSIM") == nullptr) {
            throw std::runtime_error(path_ + " outside the simulated host");
        }
        std::string name = path_;
        std::replace(name.begin(), name.end(), '/', '_');
        knobs_ = "/var/lib/hostsim/knobs/" + name;
        calls_ = "/var/lib/hostsim/calls/" + name;
        std::filesystem::remove_all(knobs_);
        std::filesystem::remove_all(calls_);
    }

    void set(const std::string& knob, std::string_view value) const { write_file(knobs_ + "/" + knob, value); }
    /// The calls so far, one a line.
    [[nodiscard]] std::string calls() const { return read_file(calls_ + "/log"); }
    /// Takes the library away, until this object's end.
    void remove() { displaced_.take_away(path_); }
    /// Puts another library in its place, one that has none of its functions, until this object's end.
    void replace_by(const std::string& other) { displaced_.replace_by_copy_of(path_, other); }
    /// Whether this process has the library open.
    [[nodiscard]] bool is_open() const { return read_file("/proc/self/maps").find(path_) != std::string::npos; }

private:
    std::string path_;
    std::string knobs_;
    std::string calls_;
    displaced_files displaced_;
};

#endif
