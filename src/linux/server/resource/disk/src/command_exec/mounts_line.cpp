// Reading the kernel's mount tables as data: the escaped form of a path,
// the grep pattern that selects its lines, and the fields of a line.
//
// The kernel writes a space, tab, newline or backslash of a path as a
// backslash and three octal digits; every other byte stands as it is.
#include "zor_exec.h"

#include <cstdio>
#include <cstring>

namespace {

bool mangled(char c)
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\\';
}

bool octal(char c)
{
    return c >= '0' && c <= '7';
}

// The byte that an escape at s stands for, or -1 when s is no escape.
int escaped_byte(const char* s)
{
    if (s[0] == '\\' && s[1] >= '0' && s[1] <= '3' && octal(s[2]) && octal(s[3])) {
        return (s[1] - '0') * 64 + (s[2] - '0') * 8 + (s[3] - '0');
    }
    return -1;
}

bool put(char* out, size_t size, size_t* o, const char* s, size_t n)
{
    if (*o + n >= size) {
        return false;
    }
    memcpy(out + *o, s, n);
    *o += n;
    return true;
}

// Compares the field [f, end) of a table line, unescaped, with want.
bool field_equals(const char* f, const char* end, const char* want)
{
    while (f < end) {
        int c = end - f >= 4 ? escaped_byte(f) : -1;
        if (c >= 0) {
            f += 4;
        } else {
            c = static_cast<unsigned char>(*f++);
        }
        if (*want == '\0' || static_cast<unsigned char>(*want) != c) {
            return false;
        }
        want++;
    }
    return *want == '\0';
}

}  // namespace

namespace {

// Writes path into out, each character as `encode` spells it (at most 7
// bytes); 0, or -1 with out empty when it does not fit.
template <typename Encode>
int encode_path(const char* path, char* out, size_t size, Encode encode)
{
    size_t o = 0;
    for (const char* s = path; *s != '\0'; s++) {
        char enc[8];
        const size_t n = encode(*s, s == path, enc, sizeof(enc));
        if (!put(out, size, &o, enc, n)) {
            if (size > 0) {
                out[0] = '\0';
            }
            return -1;
        }
    }
    if (size == 0) {
        return -1;
    }
    out[o] = '\0';
    return 0;
}

}  // namespace

int mounts_escape_field(const char* path, char* out, size_t size)
{
    return encode_path(path, out, size, [](char c, bool, char* enc, size_t encsize) -> size_t {
        if (mangled(c)) {
            return static_cast<size_t>(
                snprintf(enc, encsize, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c))));
        }
        enc[0] = c;
        return 1;
    });
}

int mounts_grep_pattern(const char* path, char* out, size_t size)
{
    return encode_path(path, out, size, [](char c, bool first, char* enc, size_t encsize) -> size_t {
        if (mangled(c)) {
            // The table shows a backslash here; the pattern must match it as one.
            return static_cast<size_t>(
                snprintf(enc, encsize, "\\\\%03o", static_cast<unsigned>(static_cast<unsigned char>(c))));
        }
        if (strchr(".[*^$", c) != nullptr) {
            // Characters a basic regular expression gives a meaning.
            enc[0] = '\\';
            enc[1] = c;
            return 2;
        }
        if (first && c == '-') {
            // A pattern starting with "-" would be read as an option.
            memcpy(enc, "[-]", 3);
            return 3;
        }
        enc[0] = c;
        return 1;
    });
}

void mounts_unescape(const char* in, char* out, size_t size)
{
    if (size == 0) {
        return;
    }
    size_t o = 0;
    while (*in != '\0' && o + 1 < size) {
        int c = escaped_byte(in);
        if (c >= 0) {
            out[o++] = static_cast<char>(c);
            in += 4;
        } else {
            out[o++] = *in++;
        }
    }
    out[o] = '\0';
}

bool mounts_line_matches(const char* line, const char* want)
{
    // The mount point is the second field, between the first two blanks.
    const char* field = strchr(line, ' ');
    if (field == nullptr) {
        return false;
    }
    field++;
    const char* end = strchr(field, ' ');
    if (end == nullptr) {
        return false;
    }
    return field_equals(field, end, want);
}

int mountinfo_line_parse(const char* line, unsigned* pmajor, unsigned* pminor, const char** ppoint,
                         size_t* plen)
{
    // "ID PARENT MAJOR:MINOR ROOT POINT OPTIONS ...": fields 3 and 5.
    const char* f = line;
    for (int i = 0; i < 2; i++) {
        f = strchr(f, ' ');
        if (f == nullptr) {
            return 0;
        }
        f++;
    }
    unsigned major = 0;
    unsigned minor = 0;
    const char* c = f;
    int digits = 0;
    for (; *c >= '0' && *c <= '9' && digits < 10; c++, digits++) {
        major = major * 10 + static_cast<unsigned>(*c - '0');
    }
    if (digits == 0 || *c != ':') {
        return 0;
    }
    c++;
    digits = 0;
    for (; *c >= '0' && *c <= '9' && digits < 10; c++, digits++) {
        minor = minor * 10 + static_cast<unsigned>(*c - '0');
    }
    if (digits == 0 || *c != ' ') {
        return 0;
    }
    const char* root_end = strchr(c + 1, ' ');
    if (root_end == nullptr) {
        return 0;
    }
    const char* point = root_end + 1;
    const char* point_end = strchr(point, ' ');
    if (point_end == nullptr) {
        return 0;
    }
    *pmajor = major;
    *pminor = minor;
    *ppoint = point;
    *plen = static_cast<size_t>(point_end - point);
    return 1;
}
