// Word splitting of the agent's command lines, exactly as /bin/sh does it
// for the one grammar the agent writes; everything else is refused, so a
// refused line keeps running through the shell as before.
#include "cmdline_argv.h"

#include <fcntl.h>
#include <cstring>

namespace {

bool blank(char c)
{
    return c == ' ' || c == '\t';
}

// Characters that mean nothing to the shell outside quotes. Left out on
// purpose: globbing (*?[]), "~" (home expansion at a word's start), "#"
// (comment), "{}" and "!" (reserved words), "^" (a pipe in old shells), and
// every byte above 127, whose meaning would depend on the shell's locale.
bool plain(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           strchr("%+,-./:=@_", c) != nullptr;
}

bool ends_with(const char* s, size_t n, const char* tail, size_t* cut)
{
    size_t t = strlen(tail);
    // The redirection is a word of its own: a blank must come before it.
    if (n <= t || memcmp(s + n - t, tail, t) != 0 || !blank(s[n - t - 1])) {
        return false;
    }
    *cut = n - t;
    return true;
}

}  // namespace

int cmdline_argv(const char* line, ZARGV* av)
{
    size_t n = strlen(line);
    size_t end = 0;
    if (ends_with(line, n, "> /dev/null 2>&1", &end)) {
        av->redirect = ZARGV_ALL_TO_NULL;
    } else if (ends_with(line, n, "2>&1", &end)) {
        av->redirect = ZARGV_ERR_TO_OUT;
    } else {
        return 0;
    }
    // "exec" only spares the shell a fork; the mount table probe's grep line
    // goes without it, to the same effect here.
    size_t i = strncmp(line, "exec", 4) == 0 && blank(line[4]) ? 4 : 0;

    // Quote removal only shrinks the text, and each word's NUL takes the
    // place of a blank: the words fit whenever the line does.
    if (end >= sizeof(av->words)) {
        return 0;
    }
    char* out = av->words;
    av->argc = 0;
    for (;;) {
        while (i < end && blank(line[i])) {
            i++;
        }
        if (i >= end) {
            break;
        }
        if (av->argc >= static_cast<int>(sizeof(av->argv) / sizeof(av->argv[0])) - 1) {
            return 0;
        }
        av->argv[av->argc] = out;
        bool first = av->argc == 0;
        // One word: plain characters and double-quoted pieces, up to a blank.
        while (i < end && !blank(line[i])) {
            char c = line[i];
            if (c == '"') {
                i++;
                for (;;) {
                    if (i >= end) {
                        return 0;  // unterminated quote
                    }
                    c = line[i];
                    if (c == '"') {
                        i++;
                        break;
                    }
                    if (c == '$' || c == '`') {
                        return 0;  // an expansion: the shell's business
                    }
                    if (c == '\\') {
                        char next = i + 1 < end ? line[i + 1] : '\0';
                        if (next == '"' || next == '$' || next == '`' || next == '\\') {
                            *out++ = next;
                            i += 2;
                            continue;
                        }
                        if (next == '\n' || next == '\0') {
                            return 0;  // a line continuation, or a quote cut by the suffix
                        }
                        // Before any other character the backslash stays, as in sh.
                    }
                    *out++ = c;
                    i++;
                }
                continue;
            }
            // "=" in the program word could make it an assignment.
            if (!plain(c) || (first && c == '=')) {
                return 0;
            }
            *out++ = c;
            i++;
        }
        *out++ = '\0';
        av->argc++;
    }
    av->argv[av->argc] = nullptr;
    // Without a "/" the shell would search PATH (and could find a builtin or
    // a function first); "-" would be an option of exec itself.
    if (av->argc == 0 || strchr(av->argv[0], '/') == nullptr || av->argv[0][0] == '-') {
        return 0;
    }
    return 1;
}

int cmdline_redirect(posix_spawn_file_actions_t* fa, const ZARGV* av)
{
    int rc = 0;
    if (av->redirect == ZARGV_ALL_TO_NULL) {
        // The flags the shell opens a ">" target with.
        rc = posix_spawn_file_actions_addopen(fa, 1, "/dev/null", O_WRONLY | O_CREAT | O_TRUNC, 0666);
    }
    if (rc == 0) {
        rc = posix_spawn_file_actions_adddup2(fa, 1, 2);
    }
    return rc;
}
