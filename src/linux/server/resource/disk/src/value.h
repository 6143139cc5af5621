// This server's short host name.
#pragma once

// Fills phostname (256 bytes) with the host name cut at its first ".".
// Returns 0, or 1 when the name cannot be read.
int get_hostname(char* phostname);
