// The wait of the main thread for the one worker thread, counted in 10 ms
// slices of the completion flag thend.
//
// The waiter wakes as soon as the worker signals its end, but the counting is
// that of a poll every 10 ms: a limit of 0 or less times out at once, and a
// worker that ends during the last slice is a time-out.
#pragma once

// Clears thend before a worker starts.
void thend_reset(void);
// Sets thend to 1 and wakes the waiter; the worker's last act.
void thend_signal(void);
// Waits for thend at most timeout * 100 slices of 10 ms. Returns the number
// of slices counted; the run ended in time when it is below *plimit, which
// receives timeout * 100 computed without overflow (0 for timeout <= 0).
long long thend_wait(int timeout, long long* plimit);
