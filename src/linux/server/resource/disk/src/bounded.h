// Bounded copies and prints into the agent's fixed-size buffers.
//
// The records keep fixed sizes (31-character names, 127-character status
// texts, 1023-character lines); every copy and print into them goes through
// these two helpers so that truncation is defined in one place: the result is
// always NUL-terminated and cut at size - 1 characters.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <type_traits>

// Copies src (null reads as "") into dst of `size` bytes.
// Returns 1 when src had to be cut, 0 otherwise.
int zor_bcopy(char* dst, size_t size, const char* src);

// printf into dst of `size` bytes. Returns 1 when the text had to be cut,
// 0 otherwise (also 0 on an encoding error, with dst empty).
int zor_bprintf(char* dst, size_t size, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
int zor_vbprintf(char* dst, size_t size, const char* fmt, va_list ap) __attribute__((format(printf, 3, 0)));

// Size of a char array, refusing pointers at compile time.
template <typename T>
constexpr size_t zor_arraysize(const T& a)
{
    static_assert(std::is_array_v<T>, "a fixed-size array is required");
    return sizeof(a);
}

#define BCOPY(arr, src) zor_bcopy((arr), zor_arraysize(arr), (src))
#define BPRINTF(arr, ...) zor_bprintf((arr), zor_arraysize(arr), __VA_ARGS__)
