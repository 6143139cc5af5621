// Where a cluster node keeps its files.
//
// Every file the cluster libraries use lives below one tree, named by the
// environment variable ZOR_HOME (default /opt/zor), so that a test or a demo
// can run a whole isolated node in a temporary directory:
//   etc/zor.conf, etc/policy/NAME.xml   configuration library
//   log/NAME.log                        log library
//   var/registry/, var/xmlindex/        registry, configuration index
//   run/mount.lock, run/status.lock     IPC library (the mount lock, the
//                                       status table's writers' lock)
// The Debian package keeps /opt/zor whole with links (etc to /etc/opt/zor;
// log, var and run into /var/opt/zor): the libraries know only the tree.
#pragma once

#include <cstddef>

// The node's tree: $ZOR_HOME, or /opt/zor when unset or empty.
const char* zor_home(void);

// Writes "$ZOR_HOME/<rel>" into out (size bytes). Returns 0, or -1 when the
// result does not fit (out is then an empty string).
int zor_home_path(char* out, size_t size, const char* rel);

// Creates dir and its missing parents with the given mode. Returns 0 or -1
// (errno set).
int zor_mkdirs(const char* dir, unsigned mode);
