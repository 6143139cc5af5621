// The one builder of command lines; see cmdline.h.
#include "cmdline.h"

#include "../globals.h"
#include "../tracersc.h"

#include <cstdio>
#include <cstring>

namespace {

bool word_char(char c)
{
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
        return true;
    }
    // Nothing here is special to the shell anywhere in a word: no quoting,
    // expansion, globbing, redirection, comment (#) or tilde (~).
    return c != '\0' && strchr("-_.,=:/+@%", c) != nullptr;
}

// Appends n bytes; false when they do not fit with the terminator.
bool put(char* out, size_t size, size_t* o, const char* s, size_t n)
{
    if (*o + n >= size) {
        return false;
    }
    memcpy(out + *o, s, n);
    *o += n;
    return true;
}

// A value inside double quotes: the four characters that keep a meaning
// there get a backslash, everything else is text.
bool put_quoted(char* out, size_t size, size_t* o, const char* s)
{
    for (; *s != '\0'; s++) {
        if (strchr("\"$`\\", *s) != nullptr && !put(out, size, o, "\\", 1)) {
            return false;
        }
        if (!put(out, size, o, s, 1)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool cmd_word_ok(const char* value, int kind)
{
    if (value == nullptr) {
        return true;
    }
    // An option where a name belongs would change what the command does.
    if (kind == ZA_WORD && value[0] == '-') {
        return false;
    }
    for (const char* c = value; *c != '\0'; c++) {
        if (!word_char(*c) && !(kind == ZA_WORDS && *c == ' ')) {
            return false;
        }
    }
    return true;
}

int cmdline_build(char* out, size_t size, const char* fmt, std::initializer_list<ZCMD_ARG> args, int* pbad)
{
    size_t o = 0;
    bool quoted = false;
    const ZCMD_ARG* arg = args.begin();
    bool fits = size > 0;
    for (const char* f = fmt; fits && *f != '\0'; f++) {
        if (*f == '"') {
            quoted = !quoted;
        }
        if (*f != '%' || (f[1] != 's' && f[1] != 'd')) {
            fits = put(out, size, &o, f, 1);
            continue;
        }
        f++;
        if (arg == args.end()) {
            fits = false;  // more fields than values: never run half a line
            break;
        }
        if (*f == 'd') {
            char num[16];
            int n = snprintf(num, sizeof(num), "%d", arg->number);
            fits = put(out, size, &o, num, static_cast<size_t>(n));
        } else if (quoted) {
            fits = put_quoted(out, size, &o, arg->text != nullptr ? arg->text : "");
        } else {
            if (!cmd_word_ok(arg->text, arg->kind)) {
                *pbad = static_cast<int>(arg - args.begin());
                if (size > 0) {
                    out[0] = '\0';
                }
                return ZCMD_UNSAFE;
            }
            const char* t = arg->text != nullptr ? arg->text : "";
            fits = put(out, size, &o, t, strlen(t));
        }
        arg++;
    }
    if (!fits) {
        if (size > 0) {
            out[0] = '\0';
        }
        return ZCMD_LONG;
    }
    out[o] = '\0';
    return ZCMD_OK;
}

int cmd_param_refused(const char* key, const char* value)
{
    trace(TR_ERROR, ZOR_SRC, "%s=%s is invalid.", key, value);
    setshmbuf("Parameter was invalid. (%s)", key);
    return ZR_INTERNAL;
}

int cmdline_make(char* out, size_t size, const char* cmdname, const char* fmt,
                 std::initializer_list<ZCMD_ARG> args)
{
    int bad = 0;
    int rc = cmdline_build(out, size, fmt, args, &bad);
    if (rc == ZCMD_UNSAFE) {
        const ZCMD_ARG& a = args.begin()[bad];
        return cmd_param_refused(a.key != nullptr ? a.key : cmdname, a.text);
    }
    if (rc == ZCMD_LONG) {
        // A cut line would run some other command.
        trace(TR_ERROR, ZOR_SRC, "%s : command line too long.", cmdname);
        setshm_status(ZR_INTERNAL);
        return ZR_INTERNAL;
    }
    return 0;
}
