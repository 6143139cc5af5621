// The one builder of the agent's command lines.
//
// A command line is a fixed format ("exec \"%s\" -t %s ...") filled with
// configuration values. A "%s" that the format puts inside double quotes
// takes any text: its '"', '$', '`' and '\' are escaped with a backslash, so
// the shell reads the value as text. A "%s" outside quotes is a value the
// shell would split and expand (a file system type, options, a server name):
// it may hold only the characters such a value needs, and anything else is
// refused before anything runs. "%d" takes a number. An ordinary value gives
// the same line as a plain printf of the format.
//
// The lines stay within what a shell-less runner can parse too: "exec",
// plain words, double-quoted words with the four backslash escapes, and a
// trailing redirection of the output.
#pragma once

#include "../bounded.h"

#include <cstddef>
#include <initializer_list>

// What an unquoted value may hold.
#define ZA_WORD 0   // one word: letters, digits, "-_.,=:/+@%"; not starting with "-"
#define ZA_WORDS 1  // the same characters and blanks: a list of options

typedef struct {
    const char* key;   // configuration key of the value, named when it is refused
    const char* text;  // value of a "%s"
    int number;        // value of a "%d"
    int kind;          // ZA_WORD or ZA_WORDS, for a "%s" outside quotes
} ZCMD_ARG;

inline ZCMD_ARG zarg(const char* key, const char* text, int kind = ZA_WORD)
{
    return ZCMD_ARG{key, text, 0, kind};
}

inline ZCMD_ARG zint(const char* key, int number)
{
    return ZCMD_ARG{key, nullptr, number, ZA_WORD};
}

// True when `value` may stand unquoted in a command line as `kind`.
bool cmd_word_ok(const char* value, int kind);

// Results of cmdline_build.
#define ZCMD_OK 0
#define ZCMD_LONG 1    // the line does not fit `size` bytes (out is empty)
#define ZCMD_UNSAFE 2  // an unquoted value was refused; *pbad is its index

// Fills `fmt` with `args` (one per "%s" or "%d", in order) into out.
int cmdline_build(char* out, size_t size, const char* fmt, std::initializer_list<ZCMD_ARG> args, int* pbad);

// cmdline_build for a command routine: 0, or 64 with the refusal traced and
// the status text written ("Parameter was invalid. (%s)" with the key of a
// refused value, "Internal error. (status=%d)" for a line that does not fit).
// `cmdname` names the command in the trace.
int cmdline_make(char* out, size_t size, const char* cmdname, const char* fmt,
                 std::initializer_list<ZCMD_ARG> args);

#define CMDLINE(arr, cmdname, fmt, ...) \
    cmdline_make((arr), zor_arraysize(arr), (cmdname), (fmt), {__VA_ARGS__})

// CMDLINE for a command routine that traces its line before running it: the
// line is traced as "(%s)" from the caller, and a refused value makes the
// caller return the refusal's code.
#define CMDLINE_OR_RETURN(arr, cmdname, fmt, ...)                       \
    do {                                                                \
        int cut_ = CMDLINE(arr, cmdname, fmt, __VA_ARGS__);             \
        if (cut_ != 0) {                                                \
            return cut_;                                                \
        }                                                               \
        trace(TR_INFO, ZOR_SRC, "(%s)", static_cast<const char*>(arr)); \
    } while (0)

// The refusal of a value that may not stand unquoted in a command line:
// traced as "%s=%s is invalid." and "Parameter was invalid. (%s)". Returns 64.
int cmd_param_refused(const char* key, const char* value);
