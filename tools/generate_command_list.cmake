# Makes the list behind command_list.h from the headings and summaries of docs/commands.md:
#   cmake -DDOCUMENT=docs/commands.md -DOUTPUT=command_list.cpp -P generate_command_list.cmake
#
# "## Main service: `NAME`" opens a service's section; "### `command`", an empty line and a line of text are a command.

file(READ "${DOCUMENT}" text)
# What has a meaning in a list of this language stays out of its way; summaries have none of it.
string(REGEX REPLACE "[][;\\\\]" " " text "${text}")
string(REGEX MATCHALL "\n## [A-Za-z]+ service: `[^`\n]+`|\n### `[^`\n]+`\n\n[^\n]+" headings "${text}")

set(rows "")
set(count 0)
foreach(heading IN LISTS headings)
    if(heading MATCHES "## ([A-Za-z]+) service: `([^`]+)`")
        string(TOLOWER "${CMAKE_MATCH_1}" section)
        set(service "${CMAKE_MATCH_2}")
    elseif(heading MATCHES "### `([^`]+)`\n\n(.+)")
        set(name "${CMAKE_MATCH_1}")
        string(REPLACE "\"" "\\\"" summary "${CMAKE_MATCH_2}")
        string(APPEND rows "    {\"${section}\", \"${service}\", \"${name}\",\n     \"${summary}\"},\n")
        math(EXPR count "${count} + 1")
    endif()
endforeach()
if(count EQUAL 0)
    message(FATAL_ERROR "${DOCUMENT} has no commands")
endif()

file(WRITE "${OUTPUT}" "// Made from docs/commands.md; edit that.
#include \"command_list.h\"

namespace ksctl {

namespace {

constexpr command_summary kCommands[] = {
${rows}};

} // namespace

std::span<const command_summary> command_list() {
    return kCommands;
}

} // namespace ksctl
")
