// The agent's trace log and the second log used for file system check output.
//
// No lock here: the handles and the tag change only in traceopen, traceclose
// and tracetell, on the main thread while no worker exists; every other call
// formats into its own stack buffers and leaves thread safety to log_write.
#include "tracersc.h"

#include "bounded.h"
#include "run_state.h"

#include <zorlog.h>

#include <cstdarg>
#include <cstring>

int traceinit = 0;
void* loghandle = nullptr;
int traceinit_ex = 0;
void* loghandle_ex = nullptr;
char rscname[32];

// Formats the variadic arguments of the enclosing trace call into buf
// (a char array), bounded like every other text.
#define FORMAT_ARGS(buf, fmt)                     \
    do {                                          \
        va_list ap_;                              \
        va_start(ap_, fmt);                       \
        zor_vbprintf(buf, sizeof(buf), fmt, ap_); \
        va_end(ap_);                              \
    } while (0)

// The body of a library-result trace call: the library's name for `ret`, the
// message formatted, the record written.
#define WRITE_LIB_RESULT(errname_of)                                              \
    do {                                                                          \
        char errname_[ERRSTR_SIZE];                                               \
        errname_of(ret, errname_);                                                \
        char text_[TEXT_SIZE];                                                    \
        FORMAT_ARGS(text_, fmt);                                                  \
        write_result(ret, 0, errname_, Detail::lib, filename, line, func, text_); \
    } while (0)

namespace {

// One record's text: at most 1023 characters, a longer text is cut.
constexpr size_t TEXT_SIZE = 1024;
// Name of a library result code.
constexpr size_t ERRSTR_SIZE = 128;
// The tag keeps the first 8 characters of the name given to tracetell.
constexpr size_t TAG_CHARS = 8;

// Formats, tag set / no tag, of the plain and the indented records.
enum class Indent { plain, indented };

void write_text(void* handle, int level, const char* pname, int line, const char* pfunc, Indent indent,
                const char* text)
{
    // A worker given up at its time-out may wake after the log was closed.
    if (zproc_orphaned()) {
        return;
    }
    if (rscname[0] == '\0') {
        if (indent == Indent::plain) {
            log_write(handle, level, 0, pname, line, pfunc, "%s", text);
        } else {
            log_write(handle, level, 0, pname, line, pfunc, "  %s", text);
        }
    } else if (indent == Indent::plain) {
        log_write(handle, level, 0, pname, line, pfunc, "%-8s: %s", rscname, text);
    } else {
        log_write(handle, level, 0, pname, line, pfunc, "%-8s:   %s", rscname, text);
    }
}

__attribute__((format(printf, 6, 0))) void vtrace_on(void* handle, int level, const char* pname, int line,
                                                     const char* pfunc, const char* fmt, va_list ap,
                                                     Indent indent)
{
    if (handle == nullptr || fmt == nullptr) {
        return;
    }
    char text[TEXT_SIZE];
    zor_vbprintf(text, sizeof(text), fmt, ap);
    write_text(handle, level, pname, line, pfunc, indent, text);
}

// What a result-tracing record adds after "failed.".
enum class Detail { func, sys, lib };

// Writes "<text> success." at level 8 for ret 0, or "<text> failed. (...)"
// at level 1. Deliberately no handle test: a null handle is the library's to
// ignore, and these records are wanted as soon as the log is open.
void write_result(int ret, int err, const char* errname, Detail detail, const char* filename, int line,
                  const char* func, const char* text)
{
    if (zproc_orphaned()) {
        return;
    }
    const bool tagged = rscname[0] != '\0';
    const char* tag = rscname;
    const unsigned uret = static_cast<unsigned>(ret);
    if (ret == 0) {
        if (tagged) {
            log_write(loghandle, TR_DETAIL, 0, filename, line, func, "%-8s:   %s success.", tag, text);
        } else {
            log_write(loghandle, TR_DETAIL, 0, filename, line, func, "  %s success.", text);
        }
        return;
    }
    switch (detail) {
        case Detail::func:
            if (tagged) {
                log_write(loghandle, TR_ERROR, 0, filename, line, func, "%-8s:   %s failed. (%#x)", tag, text,
                          uret);
            } else {
                log_write(loghandle, TR_ERROR, 0, filename, line, func, "  %s failed. (%#x)", text, uret);
            }
            break;
        case Detail::sys:
            if (tagged) {
                log_write(loghandle, TR_ERROR, 0, filename, line, func,
                          "%-8s:   %s failed. (ret=%d,errno=%d)", tag, text, ret, err);
            } else {
                log_write(loghandle, TR_ERROR, 0, filename, line, func, "  %s failed. (ret=%d,errno=%d)",
                          text, ret, err);
            }
            break;
        case Detail::lib:
            if (tagged) {
                log_write(loghandle, TR_ERROR, 0, filename, line, func, "%-8s:   %s failed. (%#x %s)", tag,
                          text, uret, errname);
            } else {
                log_write(loghandle, TR_ERROR, 0, filename, line, func, "  %s failed. (%#x %s)", text, uret,
                          errname);
            }
            break;
    }
}

void name_from_table(int ret, char* errstr, const char* const* names, int count)
{
    const char* name = (ret >= 0 && ret < count && names[ret] != nullptr) ? names[ret] : "??";
    zor_bcopy(errstr, ERRSTR_SIZE, name);
}

}  // namespace

void traceopen(const char* name, int level, int size, const char* path)
{
    if (traceinit == 0) {
        // A failed open leaves the handle null; records are then dropped.
        log_init(name, &loghandle, level, size, path);
    }
    traceinit++;
    memset(rscname, 0, sizeof(rscname));
}

void traceclose(void)
{
    // One close ends the log whatever the open count.
    if (traceinit != 0) {
        log_term(loghandle);
        loghandle = nullptr;
        traceinit = 0;
    }
}

void tracetell(const char* name)
{
    zor_bcopy(rscname, TAG_CHARS + 1, name);
}

void tracesyslog(const char* ident, const char* who)
{
    log_syslog(loghandle, ident, who);
}

void traceopen_ex(const char* name, int level, int size, const char* path)
{
    if (traceinit_ex == 0) {
        log_init(name, &loghandle_ex, level, size, path);
    }
    traceinit_ex++;
}

void traceclose_ex(void)
{
    if (traceinit_ex != 0) {
        log_term(loghandle_ex);
        loghandle_ex = nullptr;
        traceinit_ex = 0;
    }
}

void trace(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vtrace_on(loghandle, level, pname, line, pfunc, fmt, ap, Indent::plain);
    va_end(ap);
}

void trace2(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vtrace_on(loghandle, level, pname, line, pfunc, fmt, ap, Indent::indented);
    va_end(ap);
}

void trace_ex(int level, const char* pname, int line, const char* pfunc, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vtrace_on(loghandle_ex, level, pname, line, pfunc, fmt, ap, Indent::plain);
    va_end(ap);
}

// The event records are handed over unchanged: the log library builds their
// text from its catalogue and the inserts.
void tracemess(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
               const char* s1)
{
    if (loghandle != nullptr && !zproc_orphaned()) {
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1);
    }
}

void tracemess2(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2)
{
    if (loghandle != nullptr && !zproc_orphaned()) {
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2);
    }
}

void tracemess3(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2, const char* s3)
{
    if (loghandle != nullptr && !zproc_orphaned()) {
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2, s3);
    }
}

void tracemess4(int level, int eid, const char* pname, int line, const char* pfunc, const char* fmt,
                const char* s1, const char* s2, int s3)
{
    if (loghandle != nullptr && !zproc_orphaned()) {
        log_write(loghandle, level, eid, pname, line, pfunc, fmt, s1, s2, s3);
    }
}

void tracefunc(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
{
    char text[TEXT_SIZE];
    FORMAT_ARGS(text, fmt);
    write_result(ret, 0, nullptr, Detail::func, filename, line, func, text);
}

void tracesys(int ret, int err, const char* filename, int line, const char* func, const char* fmt, ...)
{
    char text[TEXT_SIZE];
    FORMAT_ARGS(text, fmt);
    write_result(ret, err, nullptr, Detail::sys, filename, line, func, text);
}

void tracexml(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
{
    WRITE_LIB_RESULT(makeerrstr_xml);
}

void traceshmrm(int ret, const char* filename, int line, const char* func, const char* fmt, ...)
{
    WRITE_LIB_RESULT(makeerrstr_shmrm);
}

void makeerrstr_xml(int ret, char* errstr)
{
    static const char* const names[] = {
        "ZOR_XMLERR_SUCCESS",          "ZOR_XMLERR_NOT_INIT",      "ZOR_XMLERR_NOT_LOAD",
        "ZOR_XMLERR_NOTENOUGH_SIZE",   "ZOR_XMLERR_NOTEXIST_PATH", "ZOR_XMLERR_NOTEXIST_VALUE",
        "ZOR_XMLERR_INVALID_PATH",     "ZOR_XMLERR_INVALID_XML",   "ZOR_XMLERR_INVALID_HANDLE",
        "ZOR_XMLERR_INVALID_CONTENTS", "ZOR_XMLERR_OTHER",
    };
    name_from_table(ret, errstr, names, static_cast<int>(sizeof(names) / sizeof(names[0])));
}

void makeerrstr_shmrm(int ret, char* errstr)
{
    // 0 and 1 have no name of their own.
    static const char* const names[] = {
        nullptr,
        nullptr,
        "SHMRM_ERR_NOTINIT",
        "SHMRM_ERR_INVALIDPARAM",
        "SHMRM_ERR_NOTFOUND",
        "SHMRM_ERR_NOTENOUGH",
        "SHMRM_ERR_XMLINIT",
        "SHMRM_ERR_FTOK",
        "SHMRM_ERR_SHMGET",
        "SHMRM_ERR_SHMAT",
        "SHMRM_ERR_SHMCTL",
        "SHMRM_ERR_MAXGRP",
        "SHMRM_ERR_MAXRSC",
        "SHMRM_ERR_MAXMON",
        "SHMRM_ERR_LOADINFO",
        "SHMRM_ERR_LOADCONF",
        "SHMRM_ERR_BUSY",
    };
    name_from_table(ret, errstr, names, static_cast<int>(sizeof(names) / sizeof(names[0])));
}
