// The agent's driver: globals shared by every module, start-up and end of a
// run, configuration set-up, the status text, semaphores and the mount lock.
#pragma once

#include <atomic>

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

// Configuration set-up steps done so far (0 to 5).
extern int _xmlstep;
// 1 while the cluster semaphores are attached / while the mount lock is held.
extern int semflag;
extern int sementmoflag;

// Option codes of ckopt.
#define OPT_NONE 0
#define OPT_ACTIVE 1
#define OPT_DEACTIVE 2
#define OPT_TEST 3
#define OPT_DACTIVE 4
#define OPT_DDEACTIVE 5
// Asked by a cluster engine: in service, out of service, or failed? Exit
// status 0, 7 or 1; "--level N" sets the depth of the check.
#define OPT_MONITOR 6

// Depth of the monitor's check, from "--level" (0 without it).
extern int monlevel;

// The whole run: what main() returns (0 or 1).
int disk_main(int argc, char** argv);

int ckopt(int argc, char** argv, int* poption, char* pgrpname, char* prscname);

// Replaces the status text (bounded to 127 characters).
void setshmbuf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

int xmlinit(void);
int xmlend(void);
void diskend(const char* pname, int line, const char* pfunc, int argret, const char* pgrpname,
             const char* prscname);
void mkshm_getinfo(int ret, const char* resource, const char* group);

int disk_sem_attach(void);
int disk_sem_detach(void);
int disk_entercrit_mount(void);
int disk_leavecrit_mount(void);
