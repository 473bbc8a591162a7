// The daemon's debug log: one plain-text file, opened, appended to and closed for each line. There is no level, no
// buffer and no lock; every line is one write(2) to a file opened with O_APPEND, so lines of different threads and
// processes do not mix.
//
//     dbg_printf2("[%s][%d] ks_io input fail.", __func__, __LINE__);
//
// writes "[01234] [Sun Nov 15 11:36:48 ] [hos_x_handler][57] ks_io input fail." and a newline. By convention a message
// begins with the function's name and the source line in brackets.
#ifndef VEXPROD_UTIL_LOG_H
#define VEXPROD_UTIL_LOG_H

inline constexpr const char* kLogFolder = ".log"; ///< The daemon's, under the install path.
inline constexpr const char* kLogFileName = ".lyn_ks_vexprod.log";

extern char cLogDirPath[256];  ///< The directory as passed to log_set_dir(), cut to fit; empty before.
extern char cLogFilePath[512]; ///< The log file in it, ".lyn_ks_vexprod.log"; empty before.

/// Sets the log's directory and creates it, but not its parents. If it cannot be created, reports that on standard
/// output and sets the paths anyway. May be called again, leaving existing lines behind; not while others log.
void log_set_dir(const char* dir);

/// Writes one line to the log. Before log_set_dir() it only complains on standard error, and the message is lost. If
/// the file cannot be opened, the line is silently lost. The whole line is cut to 2047 characters.
/// Keeps errno. Any thread.
void dbg_printf2(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

/// The same for any file.
void dbg_printf(const char* file, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

/// Renames `file`, with ".bak" appended, over an older one, when it has reached 524288 bytes.
void log_file_rotation(const char* file);

/// Writes the calling thread's stack to the log, one line per frame, innermost first, and the program's name; the name
/// alone when there is no memory for the frames'. For the fatal-signal handler: it allocates, which is accepted as the
/// process's last action.
void vexprod_debug_backtrace_dump();

#endif
