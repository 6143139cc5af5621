// The globals and the services that every layer of the agent shares: the
// resource type, the installation path, the status text and its writer, the
// cluster semaphores and the mount lock. The driver sits on top of these.
#pragma once

#include <atomic>
#include <cstddef>

#define ZOR_NAME_SIZE 32
#define ZOR_PATH_SIZE 1024
#define ZOR_HOST_SIZE 256
#define ZOR_SHMBUF_SIZE 128

// Resource type of the run: "disk" as zordisk, "nas" as zornas, else empty.
extern char type[ZOR_NAME_SIZE];
// Installation path, from "/root/all/path".
extern char ipath[ZOR_PATH_SIZE];
// Status text of the run, stored for the cluster at the end of the run.
extern char shmbuf[ZOR_SHMBUF_SIZE];
// Completion flag of the one worker thread that may run at a time: cleared
// before the worker starts, set by the worker as its last act.
extern std::atomic<int> thend;

// 1 while the cluster semaphores are attached / while the mount lock is held.
extern int semflag;
extern int sementmoflag;

// Replaces the status text (bounded to 127 characters).
void setshmbuf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// The one map from a result code to its status text: 2 and 3 (resource or
// group not in the configuration, `name` names it), 4 (configuration not
// read), every other code "Internal error. (status=N)". Cut to `size`.
void status_text(int code, const char* name, char* out, size_t size);
// The same text as the run's status text.
void setshm_status(int code, const char* name = nullptr);

// The status text of a failed configuration read (getinfo_* result; 0 sets
// nothing).
void mkshm_getinfo(int ret, const char* resource, const char* group);

int disk_sem_attach(void);
int disk_sem_detach(void);
int disk_entercrit_mount(void);
int disk_leavecrit_mount(void);
