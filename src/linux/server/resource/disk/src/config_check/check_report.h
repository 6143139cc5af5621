// The check report: what the configuration check (--test) and the device
// checks write, one line each.
#pragma once

// One line of the check report, written to standard output (the result
// file during a check) and flushed at once, so that the lines keep their
// order with anything a child process writes.
void chk_report(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
