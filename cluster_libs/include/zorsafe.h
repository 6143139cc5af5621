// Files that root trusts: opened so that no one but root can have chosen
// them, or may hold them.
//
// A directory is trusted when it belongs to root (or to the caller) and no one
// else may write it, or when it is also sticky (as /tmp and /dev/shm are):
// there others may add names but never take ours away. A path is trusted when
// every directory on the way is, and every symbolic link on the way belongs to
// root (or to the caller): /opt/zor/etc -> /etc/opt/zor is followed, a link
// that a user planted is not. A file is trusted when it is a regular file of
// root's (or the caller's), with one name, that no one else may write; the
// files opened here are made private (0600), for an flock needs only a read.
#pragma once

#include <sys/stat.h>

// Opens the directory at path (absolute, or relative to the working
// directory) and checks everything on the way; when mode is not 0, missing
// directories are made with that mode. Returns an O_PATH descriptor
// (close-on-exec), or -1 with errno: EPERM for something on the way that is
// not trusted, ENOENT, ENOTDIR, ELOOP and the like as open(2).
int zor_safe_dir(const char* path, unsigned mode);

// Opens name (one component) in the trusted directory dirfd with flags
// (O_CREAT makes it with mode 0600), without following a link and without
// waiting on a FIFO, and makes it 0600 when it is the caller's. Returns the
// descriptor (close-on-exec), or -1 with errno: EPERM for a file that is not
// trusted.
int zor_safe_open(int dirfd, const char* name, int flags);

// Whether the file whose status is st may be trusted.
bool zor_trusted_file(const struct stat* st);
