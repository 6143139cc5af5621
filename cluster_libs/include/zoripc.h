// The cluster's IPC library: the node-wide mount lock and the status table.
//
// Both are shared by every agent process of one node (one ZOR_HOME).
#pragma once

// Result codes (shared by the sem_ and shmrm_ calls).
#define SHMRM_SUCCESS 0
#define SHMRM_ERR_NOTINIT 2
#define SHMRM_ERR_INVALIDPARAM 3
#define SHMRM_ERR_NOTFOUND 4
#define SHMRM_ERR_NOTENOUGH 5
#define SHMRM_ERR_XMLINIT 6
#define SHMRM_ERR_FTOK 7
#define SHMRM_ERR_SHMGET 8
#define SHMRM_ERR_SHMAT 9
#define SHMRM_ERR_SHMCTL 10
#define SHMRM_ERR_MAXGRP 11
#define SHMRM_ERR_MAXRSC 12
#define SHMRM_ERR_MAXMON 13
#define SHMRM_ERR_LOADINFO 14
#define SHMRM_ERR_LOADCONF 15
#define SHMRM_ERR_BUSY 16

// Field sizes of a status record.
#define SHMRM_NAME_SIZE 32
#define SHMRM_TEXT_SIZE 128

// The mount lock. Enter blocks until the lock is free. The kernel releases
// the lock when its holder dies, even by SIGKILL.
int sem_attach(void);
int sem_detach(void);
int sem_entercrit_mount(void);
int sem_leavecrit_mount(void);
// The descriptor on which this process holds the mount lock, or -1 when it
// does not hold it. A process that shares the descriptor's open file (a
// fork, or an inherited copy) keeps the lock alive until it closes it.
int sem_mount_lock_fd(void);

// The status table: one record per (group, type, resource) with its text and
// the time of its last update. Writers (root) take a lock that only root can
// open; readers, any user among them, take none and never see a torn record.
//
// Attaches to write, making the table when the node has none yet.
int shmrm_attach(void);
// Attaches to read only, as any user may: never makes the table.
// SHMRM_ERR_NOTFOUND when the node has none yet. The calls that write then
// return SHMRM_ERR_SHMAT, and so does shmrm_attach until the last detach.
int shmrm_attach_read(void);
int shmrm_setdescript(const char* group, const char* type, const char* resource, const char* text, int len);
int shmrm_detach(void);

// Read side, for zorstat and tests.
typedef struct {
    char group[SHMRM_NAME_SIZE];
    char type[SHMRM_NAME_SIZE];
    char resource[SHMRM_NAME_SIZE];
    char text[SHMRM_TEXT_SIZE];
    long long updated_sec;  // CLOCK_REALTIME of the last update
    long updated_nsec;
} SHMRM_RECORD;

// Copies the text of one record into text (len bytes). SHMRM_ERR_NOTFOUND
// when there is no such record; SHMRM_ERR_BUSY when a record kept changing
// under every copy (a writer that never pauses). Needs an attach.
int shmrm_getdescript(const char* group, const char* type, const char* resource, char* text, int len);

// Copies up to max records into out, *count set to the number copied;
// SHMRM_ERR_NOTENOUGH when the table holds more than max, SHMRM_ERR_BUSY as
// above. Needs an attach.
int shmrm_list(SHMRM_RECORD* out, int max, int* count);

// Removes one record (a resource no longer configured): SHMRM_ERR_NOTFOUND
// when there is none, SHMRM_ERR_SHMAT on a read-only attach. Its place is
// taken by the next new record. Needs shmrm_attach.
int shmrm_remove(const char* group, const char* type, const char* resource);

// Writes the name of this node's shared-memory status table (derived from the
// canonical ZOR_HOME) into out (len bytes). For tools and tests that must
// find or remove the table; needs no attach.
int shmrm_tablename(char* out, int len);
