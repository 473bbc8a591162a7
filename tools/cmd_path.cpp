// ksctl path: where a service's socket is.
#include "ksctl.h"
#include "service_socket.h"

#include <CLI/CLI.hpp>

#include <memory>
#include <string>

namespace ksctl {

namespace {

std::function<int()> declare(CLI::App& app) {
    auto name = std::make_shared<std::string>();
    app.add_option("SERVICE", *name, "The service's name")->required();
    return [name]() -> int {
        if (!check_service_name(*name)) {
            return kBadArgument;
        }
        return print(service_path(*name) + '\n') ? kSuccess : kFailure;
    };
}

} // namespace

const command cmd_path = {"path", "Print the path of a service's socket", "", "ksctl path main", declare};

} // namespace ksctl
