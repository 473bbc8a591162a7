// The reader of docs/commands.md, which is built into ksctl.
#include "command_document.h"

#include "fuzz.h"

#include <stdexcept>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(text_of(data, size));
    try {
        for (const documented_command& command : read_command_document(text)) {
            require(text.find("### `" + command.name + '`') != std::string::npos, "a command has its heading");
            (void)command.keys();
            (void)command.says("default");
            require(fits("…", command.name) && fits(command.reply, command.reply), "a text fits itself");
            (void)fits(command.request, command.reply);
            for (const documented_line& line : command.lines) {
                const std::size_t colon = line.colon();
                require(colon == std::string::npos || colon < line.text.size(), "the colon stands in the text");
            }
        }
    } catch (const std::runtime_error&) { // not in the document's form
        return 0;
    }
    return 0;
}
