// Every command's handler. commands.inc tells which file each is in.
//
// A handler answers one request: it reads the request's text from `io`, acts on the host and replies through `io`,
// which stays its caller's (the dispatch frees it afterwards). `fd` is the descriptor that the client passed, already
// made the process's standard output, or -1; no handler reads it. The return value is not used.
#ifndef VEXPROD_HANDLERS_HANDLERS_H
#define VEXPROD_HANDLERS_HANDLERS_H

#include "kservice.h"

#define VEXPROD_MAIN_COMMAND(command, function) int function(ks_io* io, int fd);
#define VEXPROD_MAIL_COMMAND(command, function) int function(ks_io* io, int fd);
#include "commands.inc"
#undef VEXPROD_MAIN_COMMAND
#undef VEXPROD_MAIL_COMMAND

#endif
