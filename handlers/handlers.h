// Every command's handler, by source file.
//
// A handler answers one request: it reads the request's text from `io`, acts on the host and replies through `io`,
// which stays its caller's (the dispatch frees it afterwards). `fd` is the descriptor that the client passed, already
// made the process's standard output, or -1; no handler reads it. The return value is not used.
#ifndef VEXPROD_HANDLERS_HANDLERS_H
#define VEXPROD_HANDLERS_HANDLERS_H

#include "kservice.h"

// host_query.cpp: what needs no parameters worth naming.
int hos_test_handler(ks_io* io, int fd);
int hos_test_sendmail_srv_handler(ks_io* io, int fd);
int hos_exec_cli_handler(ks_io* io, int fd);
int hos_get_cfg_tvLounge_handler(ks_io* io, int fd);
int hos_system_call_vexpro_disable_handler(ks_io* io, int fd);
int hos_system_call_share_folder_renew_handler(ks_io* io, int fd);
int hos_get_vpd_productnamed_handler(ks_io* io, int fd);
int hos_get_vpd_eepkey_handler(ks_io* io, int fd);
int hos_get_vpd_channel_handler(ks_io* io, int fd);
int hos_is_generic_model_handler(ks_io* io, int fd);
int hos_get_platform_display_name_handler(ks_io* io, int fd);
int hos_system_is_VXB_model_handler(ks_io* io, int fd);

#endif
