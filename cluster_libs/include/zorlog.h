// The cluster's log library.
//
// A log is a text file, one record per line:
//   2026-11-22 20:04:05.123456 [pid:tid] LEVEL file:line function: message
// written with one write(2) on an O_APPEND descriptor, so that records of
// several processes and threads never interleave. Past its size the file is
// rotated (NAME.log -> NAME.log.1 -> ... -> NAME.log.3) under a file lock
// shared by every process that writes the log.
//
// Errors and event records can also go to syslog (log_syslog), where the
// operator's tools (journalctl -t IDENT, /var/log/syslog) show them.
//
// The library never fails its caller in a way that matters: a null handle, an
// unwritable directory or a full disk drop the record quietly.
#pragma once

// Record levels. Single bits; the agent uses 1, 2, 4, 8 and ZOR_LOG_EVENT.
#define ZOR_LOG_ERROR 1
#define ZOR_LOG_WARNING 2
#define ZOR_LOG_INFO 4
#define ZOR_LOG_DETAIL 8
#define ZOR_LOG_EVENT 0x8000

// Result codes.
#define ZOR_LOG_SUCCESS 0
#define ZOR_LOG_ERR_PARAM 1  // null or empty name, null handle pointer, bad name
#define ZOR_LOG_ERR_OPEN 2   // the log file could not be opened
#define ZOR_LOG_ERR_MEMORY 3

// The message catalogue's numbered events: the one list of their ids, which
// the agent's traces name (texts in docs/logging.md).
enum ZorEvent {
    ZOR_EV_FSCK_START = 10,        // command, device
    ZOR_EV_FSCK_CLEAN = 11,        // command, device
    ZOR_EV_CMD_FAILED = 12,        // command, device, exit code
    ZOR_EV_OPTION_REFUSED = 13,    // command, device, option
    ZOR_EV_FSCK_START_OPT = 14,    // command, device, option
    ZOR_EV_MOUNT_TIMEOUT = 15,     // command, device
    ZOR_EV_XFS_NOT_REPAIRED = 16,  // device
    ZOR_EV_BAD_COMBINATION = 17,   // disk type, file system type
};

// Opens the log `name`. `path` null: the file is $ZOR_HOME/log/NAME.log;
// otherwise `path` is the directory that holds NAME.log.
// `level` filters records: a record of level L is kept when L <= level
// (1 errors only, 2 adds warnings, 4 adds the course of actions, 8 and
// above everything); event records are always kept. A level of 0 or less
// keeps errors only.
// `size` is the size in bytes past which the file rotates; 0 or less means
// the default of 10 MiB, and sizes below 4096 are raised to 4096.
// On success *handle is set; on failure it is set to null.
int log_init(const char* name, void** handle, int level, int size, const char* path);

// Writes one record. With a non-null `fmt` the message is printf(fmt, ...).
// With a null `fmt` and an `eid` of the message catalogue (10 to 17) the
// message is the catalogue text for `eid` filled with the inserts that
// follow (see docs/logging.md). A null handle is accepted and ignored.
// Safe to call from several threads at once.
int log_write(void* handle, int level, int eid, const char* file, int line, const char* func, const char* fmt,
              ...);

// From now on, the log's error records (ZOR_LOG_ERROR) and event records
// also go to syslog, facility daemon, under `ident` (the program's name, so
// that `journalctl -t IDENT` finds them), each message preceded by `prefix`
// and ": " (naming the resource; null or empty: nothing). The syslog copy has
// the message alone, without time, process, file, line or function; the log
// file keeps every record as before. Errors are LOG_ERR; an event has the
// priority of its catalogue entry (failures LOG_ERR, a refused option
// LOG_WARNING, the others LOG_NOTICE). One identity per process: a later
// call, on any handle, replaces it. A null handle is ignored.
int log_syslog(void* handle, const char* ident, const char* prefix);

// Closes the log and frees the handle. A null handle is ignored.
int log_term(void* handle);
