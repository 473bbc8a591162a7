// Every command's handler. commands.inc says which file each is in.
//
// A handler serves one request: it reads the request's text from `io`, acts on the host and replies through `io`,
// which the dispatch frees afterwards. `fd` is the descriptor that the client passed, already the process's standard
// output, or -1; no handler reads it. The return value is ignored.
#ifndef VEXPROD_HANDLERS_HANDLERS_H
#define VEXPROD_HANDLERS_HANDLERS_H

#include "kservice.h"

#define VEXPROD_MAIN_COMMAND(command, function) int function(ks_io* io, int fd);
#define VEXPROD_MAIL_COMMAND(command, function) int function(ks_io* io, int fd);
#include "commands.inc"
#undef VEXPROD_MAIN_COMMAND
#undef VEXPROD_MAIL_COMMAND

#endif
