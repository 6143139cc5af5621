// The schedule of periodic file system checks: a per-resource count of
// successful activations in the cluster's registry, with the device it counts
// for. A registry that cannot be used never stops an activation: the check is
// then simply not run (19).
#include "../bounded.h"
#include "../globals.h"
#include "../tracersc.h"
#include "zor_ops.h"
#include "zorreg.h"

#include <cstring>
#include <functional>

namespace {

constexpr int ZR_FSCK_NOT_DUE = 18;
constexpr int ZR_SCHEDULE_UNUSABLE = 19;

int set_counter(const char* rsctype, const char* rsc, int value)
{
    return reg_set_value(rsctype, rsc, "fsckinterval", REG_TYPE_INT, sizeof(value), &value, 0);
}

// A stored value that the registry reads but finds damaged (not merely
// unreadable): left alone it would stop the schedule for good.
bool damaged(int rc)
{
    return rc == REG_ERR_CORRUPT || rc == REG_ERR_TYPE || rc == REG_ERR_NOTENOUGH;
}

// Rewrites a damaged schedule so that the check is due at the next
// activation; this one goes on without it, as for any registry failure.
void repair_schedule(const char* rsctype, const char* rsc, const char* devname, int interval, bool device)
{
    if (device) {
        char newdev[ZOR_PATH_SIZE];
        memset(newdev, 0, sizeof(newdev));
        BCOPY(newdev, devname);
        int rc = reg_set_value(rsctype, rsc, "device", REG_TYPE_STRING, sizeof(newdev), newdev, 0);
        if (rc != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_set_value(device) failed ignore. (ret=%d)", rc);
            return;
        }
    }
    int rc = set_counter(rsctype, rsc, interval);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_set_value(fsckinterval) failed ignore. (ret=%d)", rc);
        return;
    }
    trace(TR_WARNING, ZOR_SRC, "%s damaged. set fsckinterval->%d, fsck due at next activation. (device:%s)",
          device ? "device" : "fsckinterval", interval, devname);
}

// The part of fsck_timing that runs with the registry open.
int timing_open(const char* rsctype, const char* rsc, PZOR_FSCK pfsck, const char* devname,
                const char* fstype, const char* checkdev)
{
    char stored[ZOR_PATH_SIZE];
    memset(stored, 0, sizeof(stored));
    int rc = reg_get_value(rsctype, rsc, "device", REG_TYPE_STRING, sizeof(stored), stored);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_get_value(device) failed ignore. (ret=%d)", rc);
        if (damaged(rc)) {
            repair_schedule(rsctype, rsc, devname, pfsck->interval, true);
        }
        return ZR_SCHEDULE_UNUSABLE;
    }
    if (strcmp(stored, devname) != 0) {
        // A new device starts a new count, without a check this time.
        trace(TR_INFO, ZOR_SRC, "dev changed %s->%s", stored, devname);
        char newdev[ZOR_PATH_SIZE];
        memset(newdev, 0, sizeof(newdev));
        BCOPY(newdev, devname);
        rc = reg_set_value(rsctype, rsc, "device", REG_TYPE_STRING, sizeof(newdev), newdev, 0);
        if (rc != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_set_value(device) failed ignore. (ret=%d)", rc);
            return ZR_SCHEDULE_UNUSABLE;
        }
        rc = set_counter(rsctype, rsc, 0);
        if (rc != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_set_value(fsckinterval) failed ignore. (ret=%d)", rc);
            return ZR_SCHEDULE_UNUSABLE;
        }
        trace(TR_INFO, ZOR_SRC, "set fsckinterval->0. (device:%s)", devname);
        return ZR_FSCK_NOT_DUE;
    }
    int counter = 0;
    rc = reg_get_value(rsctype, rsc, "fsckinterval", REG_TYPE_INT, sizeof(counter), &counter);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_get_value(fsckinterval) failed ignore. (ret=%d)", rc);
        if (damaged(rc)) {
            repair_schedule(rsctype, rsc, devname, pfsck->interval, false);
        }
        return ZR_SCHEDULE_UNUSABLE;
    }
    trace(TR_INFO, ZOR_SRC, "get fsckinterval=%d. (device:%s)", counter, devname);
    if (pfsck->interval > counter) {
        trace(TR_INFO, ZOR_SRC, "not execute fsck. fsckinterval not over %d. (device:%s)", pfsck->interval,
              devname);
        return ZR_FSCK_NOT_DUE;
    }
    trace(TR_INFO, ZOR_SRC, "execute fsck! fsckinterval over %d. (device:%s)", pfsck->interval, devname);
    int ret = cmd_fsck(pfsck, checkdev != nullptr ? checkdev : devname, fstype);
    if (ret != 0) {
        // The count stays: the next activation checks again.
        return ret;
    }
    rc = set_counter(rsctype, rsc, 0);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_set_value(fsckinterval) failed ignore. (ret=%d)", rc);
    } else {
        trace(TR_INFO, ZOR_SRC, "set fsckinterval->0. (device:%s)", devname);
    }
    return 0;
}

void close_registry(const char* rsctype)
{
    int rc = reg_term(rsctype);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_term() failed ignore. (ret=%d)", rc);
    }
}

// Runs `body` with the registry of rsctype open, and closes it after; 19
// when the registry cannot be opened.
int with_registry(const char* rsctype, const std::function<int()>& body)
{
    int rc = reg_init(rsctype);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_init() failed ignore. (ret=%d)", rc);
        return ZR_SCHEDULE_UNUSABLE;
    }
    int ret = body();
    close_registry(rsctype);
    return ret;
}

// Advances the activation counter in the open registry: 0, or 19 (a
// damaged counter is set afresh to 1 all the same).
int count_activation(const char* rsctype, const char* rsc)
{
    int ret = 0;
    int rc = 0;
    int counter = 0;
    rc = reg_get_value(rsctype, rsc, "fsckinterval", REG_TYPE_INT, sizeof(counter), &counter);
    if (rc != 0) {
        trace(TR_ERROR, ZOR_SRC, "reg_get_value(fsckinterval) failed ignore. (ret=%d)", rc);
        ret = ZR_SCHEDULE_UNUSABLE;
        // Only a schedule that is not in use gets here damaged (the check
        // before the mount repairs its own): count this activation afresh.
        if (damaged(rc) && set_counter(rsctype, rsc, 1) == 0) {
            trace(TR_WARNING, ZOR_SRC, "fsckinterval damaged. set fsckinterval->%d.", 1);
        }
    } else {
        counter++;
        rc = set_counter(rsctype, rsc, counter);
        if (rc != 0) {
            trace(TR_ERROR, ZOR_SRC, "reg_set_value(fsckinterval) failed ignore. (ret=%d)", rc);
            ret = ZR_SCHEDULE_UNUSABLE;
        } else {
            trace(TR_INFO, ZOR_SRC, "set fsckinterval->%d.", counter);
            ret = 0;
        }
    }
    return ret;
}

}  // namespace

int fsck_timing(const char* rsctype, const char* rsc, PZOR_FSCK pfsck, const char* devname,
                const char* fstype, const char* checkdev)
{
    int ret =
        with_registry(rsctype, [&] { return timing_open(rsctype, rsc, pfsck, devname, fstype, checkdev); });
    TRACE_EXIT(ret);
    return ret;
}

int set_fsck_interval(const char* rsctype, const char* rsc)
{
    int ret = with_registry(rsctype, [&] { return count_activation(rsctype, rsc); });
    TRACE_EXIT(ret);
    return ret;
}
