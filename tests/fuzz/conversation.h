// What a stranger says over a socket, as a script has it.
#pragma once

#include "fuzz.h"
#include "unique_fd.h"

#include <string_view>
#include <vector>

/// The two ends of a stream socket pair, close-on-exec.
struct socket_pair {
    socket_pair();
    unique_fd ours;
    unique_fd theirs;
};

/// Sends one message as the script's next bytes have it:
/// - what: bits 0 and 1 the text (0 one byte, 1 a whole directive, 2 and 3 bytes as they are), bits 2 to 4 how many
///   descriptors go with it;
/// - of a directive its type, its flags, and a counted text; of bytes as they are a counted text;
/// - the kind of each descriptor, see make_descriptor().
void say(int socket, script& from);

/// Sends one message without blocking; a full socket loses it.
void send_message(int socket, std::string_view text, const std::vector<unique_fd>& fds = {});

/// A descriptor of the kind: memory files in every state that matters, and what is none.
unique_fd make_descriptor(unsigned kind);
