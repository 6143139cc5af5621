// Table-driven reads of configuration keys, shared by the loaders.
//
// A loader is a table of keys read in order: each row names its key, value
// type, the field it fills and what a failed read means. The field's size
// comes from the array itself, so a row cannot hand the library a wrong size.
#pragma once

#include <zorxml.h>

#include <cstddef>

struct ZorKey {
    const char* key;  // below the parameter path ("mount/path"); absolute when it begins with "/"
    int vtype;        // ZOR_XML_STRING or ZOR_XML_INT
    int size;         // bytes of the field
    void* field;
    bool srvsep;    // read the value for this server
    bool required;  // a failed read fails the load
    int defval;     // stored in an int field when an optional key cannot be read
};

template <size_t N>
constexpr ZorKey zor_str_key(const char* key, char (&field)[N])
{
    return ZorKey{key, ZOR_XML_STRING, static_cast<int>(N), field, false, true, 0};
}

template <size_t N>
constexpr ZorKey zor_srv_str_key(const char* key, char (&field)[N])
{
    return ZorKey{key, ZOR_XML_STRING, static_cast<int>(N), field, true, true, 0};
}

constexpr ZorKey zor_int_key(const char* key, int* field)
{
    return ZorKey{key, ZOR_XML_INT, static_cast<int>(sizeof(int)), field, false, true, 0};
}

constexpr ZorKey zor_int_key_or(const char* key, int* field, int defval)
{
    return ZorKey{key, ZOR_XML_INT, static_cast<int>(sizeof(int)), field, false, false, defval};
}

// Reads the rows in order, each reported through tracexml under the caller's
// file, line and function. A row's value goes straight into its field.
// Returns 0, or 4 at the first required key that could not be read (later
// rows are not read; earlier fields keep their values).
int zor_read_keys(const char* file, int line, const char* func, const char* xmlpath, const ZorKey* rows,
                  size_t count, const char* host);

template <size_t N>
int zor_read_keys(const char* file, int line, const char* func, const char* xmlpath, const ZorKey (&rows)[N],
                  const char* host = nullptr)
{
    return zor_read_keys(file, line, func, xmlpath, rows, N, host);
}

// Writes "<installation path>/<value>" back into path (1024 bytes). Returns 0,
// or 4 when the whole does not fit: a cut path could name another command.
int zor_compose_cmdpath(char* path, size_t size, const char* what);
