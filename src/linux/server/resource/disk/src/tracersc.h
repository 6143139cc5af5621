// The agent's trace log, written through the cluster's log library.
//
// Every record carries the caller's source file, line and function; pass them
// with ZOR_SRC. Texts are cut at 1023 characters.
#pragma once

// Event ids (ZOR_EV_*) come from the log library's catalogue.
#include <zorlog.h>

#define TR_ERROR 1       // a failed step, an invalid value
#define TR_WARNING 2     // a tolerated failure; captured command output
#define TR_INFO 4        // the course of an action
#define TR_DETAIL 8      // entry/exit, values read, successful library calls
#define TR_EVENT 0x8000  // numbered event message from the log's catalogue

#define ZOR_SRC __FILE_NAME__, __LINE__, __func__
// ZOR_SRC inside a lambda, naming the enclosing function `fn` (a lambda's own
// __func__ is "operator()", which would change the trace record).
#define ZOR_SRC_IN(fn) __FILE_NAME__, __LINE__, fn

// Open counts and handles; exposed for tests.
extern int traceinit;
extern void* loghandle;
extern int traceinit_ex;
extern void* loghandle_ex;
extern char rscname[32];

void traceopen(const char* name, int level, int size, const char* path);
void traceclose(void);
void tracetell(const char* name);
// Also sends the trace log's errors and events to syslog under `ident`, each
// preceded by `who` (the resource); needs the log open.
void tracesyslog(const char* ident, const char* who);
void traceopen_ex(const char* name, int level, int size, const char* path);
void traceclose_ex(void);

void trace(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
void trace2(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
void trace_ex(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Event messages: the text comes from the log library's catalogue for `eid`;
// the agent passes a null fmt and the inserts.
void tracemess(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
               const char* s1);
void tracemess2(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2);
void tracemess3(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2, const char* s3);
void tracemess4(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2, int s3);

// Result of one of the agent's own routines, a system call, a configuration
// library call, an IPC library call: level 1 on failure, 8 on success.
void tracefunc(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
void tracesys(int ret, int err, const char* filename, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 6, 7)));
void tracexml(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));
void traceshmrm(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

// Names of library result codes ("??" when unknown); errstr holds 128 bytes.
void makeerrstr_xml(int ret, char* errstr);
void makeerrstr_shmrm(int ret, char* errstr);

// Entry and exit records every routine writes.
#define TRACE_ENTER() trace(TR_DETAIL, ZOR_SRC, "<<< ENTER >>>")
#define TRACE_EXIT(ret) trace(TR_DETAIL, ZOR_SRC, "<<< EXIT >>> : 0x%08lx", (long)(ret))
