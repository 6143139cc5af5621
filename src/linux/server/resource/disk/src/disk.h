// The agent's driver: options, start-up and end of a run, configuration
// set-up. The shared globals and services are in globals.h.
#pragma once

#include "globals.h"

// Configuration set-up steps done so far (0 to 5).
extern int _xmlstep;

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

int xmlinit(void);
int xmlend(void);
void diskend(const char* pname, int line, const char* pfunc, int argret, const char* pgrpname,
             const char* prscname);
