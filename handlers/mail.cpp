// The mail service's command: gives a mail that the caller has prepared in the spool folder to the host's mail program.
#include "fresh_file.h"
#include "handler_call.h"
#include "handlers.h"
#include "host_paths.h"
#include "log.h"
#include "runner.h"

#include <array>
#include <cstdio>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace {

struct mail {
    std::string user;
    std::string password;
    std::array<char, 256> config_path;
    std::array<char, 256> content_path;
};

// The path of `name` in the spool folder, cut to the buffer.
std::array<char, 256> spool_path(const std::string& name) {
    std::array<char, 256> path{};
    (void)std::snprintf(path.data(), path.size(), "%s/%s", kMailSpool, name.c_str());
    return path;
}

// Runs the mail program with its output and errors in `log_file`.
// @return Its wait status; -1 when a spool file is missing.
int run_mail_program(const mail& m, const char* log_file) {
    if (m.user.empty() || m.password.empty()) {
        return lyn_vexprod_corvo_exec_v2(m.content_path.data(), log_file, log_file, nullptr, kMailProgram, "-C",
                                         m.config_path.data(), "-t", nullptr);
    }
    // KEPT: the password goes under the user's option, and the program reads the configuration, not the mail: callers
    // that sign in write one file that is both.
    std::array<char, 64> user_option{};
    std::array<char, 64> password_option{};
    (void)std::snprintf(user_option.data(), user_option.size(), "-au%s", m.user.c_str());
    (void)std::snprintf(password_option.data(), password_option.size(), "-au%s", m.password.c_str());
    return lyn_vexprod_corvo_exec_v2(m.config_path.data(), log_file, log_file, nullptr, kMailProgram,
                                     user_option.data(), password_option.data(), "-C", m.config_path.data(), "-t",
                                     nullptr);
}

// The same with a fresh log, of which nothing is left when a spool file is missing.
int run_with_fresh_log(const mail& m) {
    const unique_fd log = create_anew(kMailLog, 0774);
    // Not by its name, where somebody may have put a link by the time the runner opens it.
    const std::string log_file = "/proc/self/fd/" + std::to_string(log.get());
    const int status = run_mail_program(m, log_file.c_str());
    if (status == -1) {
        (void)::unlink(kMailLog);
    }
    return status;
}

// Moves what the request names as a file out of the spool. A folder stays, and with it the mails that wait in it; so
// does what cannot be moved, which is its caller's to see.
void move_out_of_spool(const char* path, const char* to) {
    struct stat status = {};
    if (::lstat(path, &status) == 0 && !S_ISDIR(status.st_mode)) {
        (void)std::rename(path, to);
    }
}

// Leaves a record of the run. It holds the password in clear, so it alone of the records is for root's eyes only.
void write_record(const mail& m, int status) {
    const unique_fd record = create_anew(kMailRecord, 0600);
    if (record.ok()) {
        // The two command lines stay empty; readers of the record know it by its seven lines.
        (void)::dprintf(record.get(),
                        "str_usr=[%s]\nstr_pwd=[%s]\nstr_conf_path=[%s]\nstr_content_path=[%s]\n"
                        "str_cmd_sendmail=[%s]\nstr_cmd_rm=[%s]\nret_val=[%d]\n",
                        m.user.c_str(), m.password.c_str(), m.config_path.data(), m.content_path.data(), "", "",
                        status);
    }
}

} // namespace

// "sendmail": "result" is the mail program's wait status as it is; there is no failure text.
int hos_sendmail_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    mail m = {};
    std::string config_file;
    std::string content_file;
    if (call.take({{"user", &m.user},
                   {"pwd", &m.password},
                   {"config_file", &config_file},
                   {"content_file", &content_file}})) {
        m.config_path = spool_path(config_file);
        m.content_path = spool_path(content_file);
        dbg_printf2("[%s][%d] exec sendmail start.", __func__, __LINE__);
        const int status = run_with_fresh_log(m);
        move_out_of_spool(m.config_path.data(), kMailLastConfig);
        move_out_of_spool(m.content_path.data(), kMailLastContent);
        call.reply()["result"] = status;
        write_record(m, status);
        dbg_printf2("[%s][%d] str_conf_path=[%s].", __func__, __LINE__, m.config_path.data());
        dbg_printf2("[%s][%d] str_content_path=[%s].", __func__, __LINE__, m.content_path.data());
        dbg_printf2("[%s][%d] str_cmd_sendmail=[%s].", __func__, __LINE__, "");
        dbg_printf2("[%s][%d] ret_val=[%d].\n", __func__, __LINE__, status);
    }
    return call.send();
}
