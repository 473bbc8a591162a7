// The addresses that the host's web front end turns away.
#include "handler_call.h"
#include "handlers.h"
#include "host_paths.h"
#include "runner.h"
#include "text.h"
#include "unique_fd.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {

std::string ban_list_text(const std::string& ip_list) {
    std::string text = "<LocationMatch \"/.*\">\norder allow,deny\n";
    for (const std::string& address : str_split_to_vector(ip_list, ",", true)) {
        text += "deny from " + address + '\n';
    }
    return text + "allow from all\n</LocationMatch>\n";
}

// @return True when at least something was written: the list is one write, and the server reads it from then on.
bool write_ban_list(const std::string& text) {
    static std::mutex one_at_a_time; // two lists written at once would mix in the file
    const std::lock_guard lock(one_at_a_time);
    const unique_fd file =
        above_standard_streams(unique_fd(::open(kBanList, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)));
    if (!file.ok()) {
        return false;
    }
    return TEMP_FAILURE_RETRY(::write(file.get(), text.data(), text.size())) > 0;
}

} // namespace

// "update_ip_ban_list": replaces the whole list; an empty one clears it. Addresses are written as the caller has them.
int hos_update_ip_ban_list_handler(ks_io* io, int /*fd*/) {
    handler_call call(__func__, io);
    std::string ip_list;
    if (call.take({{"ip_list", &ip_list}}) && call.finish(write_ban_list(ban_list_text(ip_list)) ? 0 : -1)) {
        // A reload that fails is not the caller's: the list takes effect with the next one that works.
        (void)lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kWebServer, "-k", "graceful", "-f", kWebServerConfig,
                                     nullptr);
        (void)lyn_vexprod_corvo_exec(nullptr, nullptr, nullptr, kTunnelScript, "reload", nullptr);
    }
    return call.send();
}
