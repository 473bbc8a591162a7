// The document's commands as calls of the running daemon: what an example needs on the simulated host, its request, and
// whether an answer is one of those that the entry tells of.
#ifndef VEXPROD_TESTS_SYSTEM_DOCUMENTED_CALLS_H
#define VEXPROD_TESTS_SYSTEM_DOCUMENTED_CALLS_H

#include "command_document.h"

#include <json/value.h>

#include <optional>
#include <string>
#include <vector>

/// What the daemon made of one request. No text = it ended without a reply.
using answer = std::optional<std::string>;

answer send(const documented_command& command, const std::string& request);

/// The example's reply with the newline that every reply on one line has.
std::string example_reply(const documented_command& command);

/// Whether a line of the entry tells of that answer.
bool is_documented(const documented_command& command, const answer& got);

std::string shown(const answer& got);

Json::Value parsed(const std::string& text);
/// On one line.
std::string written(const Json::Value& value);

/// Takes the commands out whose examples this process may not prepare. @return Their names, and why; or "".
std::string leave_out_unpreparable(std::vector<documented_command>& commands);

/// Makes the host what the entry's "Given" lines ask for.
void provide_all(const documented_command& command);

/// The example's request without `key`, and with a value of another type in its place.
std::vector<std::string> requests_without(const documented_command& command, const documented_key& key);

#endif
