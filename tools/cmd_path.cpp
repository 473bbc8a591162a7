// ksctl path: where a service's socket is.
#include "ksctl.h"
#include "service_socket.h"

#include <memory>
#include <string>

namespace ksctl {

namespace {

declaration declare() {
    auto name = std::make_shared<std::string>();
    return {{{"SERVICE", name.get(), "The service's name"}}, [name]() -> int {
                if (!check_service_name(*name)) {
                    return kBadArgument;
                }
                return print(service_path(*name) + '\n') ? kSuccess : kFailure;
            }};
}

} // namespace

const command cmd_path = {"path", "Print the path of a service's socket", "", "ksctl path main", declare};

} // namespace ksctl
