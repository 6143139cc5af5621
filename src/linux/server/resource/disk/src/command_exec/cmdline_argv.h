// The agent's command lines without a shell.
//
// Every line the agent builds reads "exec" (left out by the mount table
// probe), the program and its arguments as plain or double-quoted words, then
// "2>&1" or "> /dev/null 2>&1". For such a
// line the shell only splits words and sets up two descriptors before it
// replaces itself with the program, so the runner can do the same itself and
// save the shell's start (a third of a short command's cost). Any line that
// is not exactly of that form, or whose program has no "/" (the shell would
// search PATH), is left to /bin/sh -c.
#pragma once

#include <spawn.h>

// What /bin/sh does with the line's trailing redirections.
enum {
    ZARGV_ERR_TO_OUT = 1,   // "2>&1": stderr joins stdout (the pipe when captured)
    ZARGV_ALL_TO_NULL = 2,  // "> /dev/null 2>&1": both go to /dev/null
};

typedef struct {
    char words[2048];  // the words after quote removal, NUL-separated
    char* argv[257];   // argv[0] the program, NULL-terminated
    int argc;
    int redirect;  // ZARGV_ERR_TO_OUT or ZARGV_ALL_TO_NULL
} ZARGV;

// Splits line as /bin/sh would. Returns 1 and fills *av when the line can run
// without a shell, 0 when it must go to the shell.
int cmdline_argv(const char* line, ZARGV* av);

// Adds the line's redirections to fa; they must come after stdout has been
// set up. Returns 0 or an error number as posix_spawn_file_actions_* do.
int cmdline_redirect(posix_spawn_file_actions_t* fa, const ZARGV* av);
