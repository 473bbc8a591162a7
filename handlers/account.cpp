// Login sessions, and what the host knows about its users: local users, local groups, members of a group, SMS settings.
//
// One command runs a tool of the host. The others call one function of a host library each; the records and signatures
// below are those libraries'.
#include "handler_call.h"
#include "handlers.h"
#include "host_library.h"
#include "host_paths.h"
#include "runner.h"
#include "scoped.h"
#include "text.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <string>
#include <vector>

namespace {

// "" at the end: a text that this daemon has no use for. @return 0 = success.
using auth_add_session_function = int(const char* session_id, const char* user, int type, const char* empty);
// @param ret_user  The library writes the user's name there, without asking how much room there is.
using auth_get_session_function = int(const char* session_id, int type, char* ret_user);
// @param ret_list   One block from the heap, the caller's to free; may be set even on failure.
// @return Negative = failure.
using list_function = int(char** ret_list, int, int, void*, std::int32_t* ret_count);
// @param ret_list  Receives the address of an array of pointers, one a member; but see group_members.
// @return The number of members; negative = failure.
using member_list_function = int(const char* group, char*** ret_list);

// How long a name can get is the library's affair. This is far more than any account of the host may have.
constexpr std::size_t kUserNameRoom = 4096;

// The SMS settings, as the library lays them out. A text that fills its field has no NUL.
struct sms_settings {
    std::int32_t mode;
    std::int32_t max_provider;
    std::int32_t now_provider;
    std::int32_t using_provider;
    char country[16];
    char country_code[16];
    char phone1[32];
    char phone2[4096]; // the field's size is the library's; generous, as it writes without asking
};
static_assert(offsetof(sms_settings, mode) == 0 && offsetof(sms_settings, max_provider) == 4 &&
              offsetof(sms_settings, now_provider) == 8 && offsetof(sms_settings, using_provider) == 12 &&
              offsetof(sms_settings, country) == 16 && offsetof(sms_settings, country_code) == 32 &&
              offsetof(sms_settings, phone1) == 48 && offsetof(sms_settings, phone2) == 80);

using get_sms_config_function = int(sms_settings* ret_settings);

// Calls the library for the members of a group and reads what it left, while the library is still loaded: what the
// entries stand in may be its own.
//
// The library answers with the address of a list. One that fills the list that it is given instead, as its headers may
// be read as well, would write over the caller's stack if it got no more than a pointer; so it gets room for a list, of
// which an address takes the first entry only. The further ones are marked, which tells the two apart, except that the
// one entry of a group with one member is always taken for an address.
class group_members {
public:
    explicit group_members(const char* group) {
        const host_library library(kAccountLibrary);
        auto* list = library.function<member_list_function>("Get_NAS_User_List_Of_Group_Ex");
        if (list == nullptr) {
            return;
        }
        char* mark = nullptr;
        std::vector<char**> room(kMostMembers, &mark);
        room[0] = nullptr;
        count_ = list(group, room.data());
        const bool is_address = count_ <= 0 || room[1] == &mark;
        const std::unique_ptr<char*, decltype(&release)> owner(is_address ? room[0] : nullptr, &release);
        if (count_ <= 0) {
            return;
        }
        const auto count = static_cast<std::size_t>(count_);
        set_.resize(count);
        if (!is_address) {
            for (std::size_t i = 0; i < std::min(count, kMostMembers); ++i) {
                set_[i] = room[i] != nullptr && room[i] != &mark;
            }
        } else if (room[0] != nullptr) {
            std::transform(room[0], room[0] + count, set_.begin(), [](const char* entry) { return entry != nullptr; });
        } else {
            count_ = -1; // members, and no list of them
        }
    }

    [[nodiscard]] int count() const noexcept { return count_; } // Negative = failure.
    // Whether the entry of member `index` is set.
    [[nodiscard]] bool is_set(int index) const { return set_[static_cast<std::size_t>(index)]; }

private:
    static constexpr std::size_t kMostMembers = 65536;

    // The list is the caller's to free, unless it is a variable of the library's.
    static void release(char** list) {
        Dl_info object = {};
        if (::dladdr(list, &object) == 0) {
            std::free(list);
        }
    }

    int count_ = -1;
    std::vector<bool> set_;
};

// The text of a fixed-size field: up to its NUL, or all of it.
std::string field_text(const char* field, std::size_t size_bytes) {
    return {field, ::strnlen(field, size_bytes)};
}

template <std::size_t Size>
std::string field_text(const char (&field)[Size]) {
    return field_text(field, Size);
}

// One argument of the login tool: cut to 31 characters, key included.
std::string login_argument(const char* key, const std::string& value) {
    constexpr std::size_t kMostCharacters = 31;
    return (key + value).substr(0, kMostCharacters);
}

// Logs in. @return The session's id, empty when the host refuses.
std::string log_in(const std::string& user, const std::string& password) {
    const std::string user_argument = login_argument("user=", user);
    const std::string password_argument = login_argument("pw=", password);
    const unique_pipe tool(lyn_vexprod_corvo_popen_v2(nullptr, nullptr, nullptr, "r", kLoginTool, "-l",
                                                      user_argument.c_str(), password_argument.c_str(), nullptr));
    if (!tool) {
        return {};
    }
    // A login prints two lines, the second of three fields, of which the middle one is the session's id.
    const auto lines = str_split_to_vector(read_output(tool.get()), "\n", true);
    if (lines.size() != 2) {
        return {};
    }
    const auto fields = str_split_to_vector(lines[1], " ", true);
    return fields.size() == 3 ? fields[1] : std::string();
}

// Calls a function that lists all names of one kind and puts them into the reply.
// @param name_bytes  Size of an entry, in which a name ends at its NUL.
int reply_name_list(const char* handler, ks_io* io, const char* function, std::size_t name_bytes, const char* key) {
    handler_call call(handler, io);
    char* block = nullptr;
    std::int32_t count = 0;
    int status = -1; // no library, or no such function
    {
        const host_library library(kAccountLibrary);
        if (auto* list = library.function<list_function>(function)) {
            status = list(&block, 0, 0, nullptr, &count);
        }
    }
    unique_heap<char> owner(block);
    const bool listed = status >= 0 && (block != nullptr || count <= 0);
    if (call.finish(listed ? 0 : -1)) {
        call.reply()["local_count"] = count;
        Json::Value& names = call.reply()[key]; // KEPT: null, not an empty array, without names
        for (std::int32_t i = 0; i < count; ++i) {
            names.append(field_text(block + static_cast<std::size_t>(i) * name_bytes, name_bytes));
        }
    }
    owner.reset(); // a caller that has its reply finds nothing left of the request
    return call.send();
}

} // namespace

// "get_sess_id": logs a user in. KEPT: the password is an argument of the tool.
int hos_get_sess_id_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string user, password;
    if (call.take({{"user", &user}, {"pwd", &password}})) {
        const std::string session_id = log_in(user, password);
        if (session_id.empty()) {
            call.reject("get_sess_id fail", -2); // tells a failed login from a bad request
        } else {
            call.reply()["error_code"] = 0; // in place of the usual "result"
            call.reply()["sid"] = session_id;
        }
    }
    return call.send();
}

int hos_vex_auth_add_session_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t type{};
    std::string user, session_id;
    if (call.take({{"type", &type}, {"user", &user}, {"sid", &session_id}})) {
        int status = -1;
        {
            const host_library library(kSessionLibrary);
            if (auto* add = library.function<auth_add_session_function>("auth_add_session")) {
                status = add(session_id.c_str(), user.c_str(), type, "");
            }
        }
        call.finish(status);
    }
    return call.send();
}

int hos_vex_auth_get_session_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::int32_t type{};
    std::int32_t length = 0; // KEPT: has to be in the request, and is not used
    std::string session_id;
    if (call.take({{"type", &type}, {"length", &length}, {"sid", &session_id}})) {
        char user[kUserNameRoom] = {};
        int status = -1;
        {
            const host_library library(kSessionLibrary);
            if (auto* get = library.function<auth_get_session_function>("auth_get_session")) {
                status = get(session_id.c_str(), type, user);
            }
        }
        if (call.finish(status)) {
            call.reply()["user"] = field_text(user);
        }
    }
    return call.send();
}

int hos_get_sms_config_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    sms_settings settings = {};
    bool filled = false;
    {
        const host_library library(kConfigLibrary);
        if (auto* get = library.function<get_sms_config_function>("Get_SMS_config")) {
            (void)get(&settings); // the library's result says nothing
            filled = true;
        }
    }
    if (call.finish(filled ? 0 : -1)) {
        call.reply()["mode"] = settings.mode;
        call.reply()["max_provider"] = settings.max_provider;
        call.reply()["now_provider"] = settings.now_provider;
        call.reply()["using_provider"] = settings.using_provider;
        call.reply()["country"] = field_text(settings.country);
        call.reply()["country_code"] = field_text(settings.country_code);
        call.reply()["phone1"] = field_text(settings.phone1);
        call.reply()["phone2"] = field_text(settings.phone2);
    }
    return call.send();
}

int hos_get_all_users_handler(ks_io* io, int /*fd*/) {
    constexpr std::size_t kUserNameBytes = 33;
    return reply_name_list(__func__, io, "Get_Local_User_List_V2", kUserNameBytes, "user_list");
}

int hos_get_all_groups_handler(ks_io* io, int /*fd*/) {
    constexpr std::size_t kGroupNameBytes = 257;
    return reply_name_list(__func__, io, "Get_Local_Group_List_V2", kGroupNameBytes, "group_list");
}

int hos_get_group_members_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string group;
    if (call.take({{"group_name", &group}})) {
        const group_members members(group.c_str());
        if (call.finish(members.count() < 0 ? -1 : 0)) {
            call.reply()["user_count"] = members.count();
            Json::Value& list = call.reply()["user_list"]; // KEPT: null without members
            for (int i = 0; i < members.count(); ++i) {
                list.append(members.is_set(i)); // KEPT: whether there is a member, not who it is
            }
        }
    }
    return call.send();
}
