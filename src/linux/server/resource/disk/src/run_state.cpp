// The state of the command run in progress (see run_state.h).
#include "run_state.h"

#include <atomic>

namespace {

// Number of the current run, and the run the calling worker thread serves
// (0 on any other thread).
std::atomic<unsigned> run_gen{1};
thread_local unsigned my_gen = 0;
// Descriptor of the held mount lock, handed to the keepers of new commands.
std::atomic<int> keep_fd{-1};

}  // namespace

void zproc_next_run(void)
{
    run_gen.fetch_add(1);
}

unsigned zproc_current_run(void)
{
    return run_gen.load();
}

void zproc_adopt_run(unsigned run)
{
    my_gen = run;
}

void zproc_give_up(void)
{
    // The worker keeps the number it adopted, which is no longer current.
    zproc_next_run();
}

int zproc_orphaned(void)
{
    return my_gen != 0 && my_gen != run_gen.load();
}

void zproc_keep_lock(int fd)
{
    keep_fd.store(fd);
}

int zproc_held_lock(void)
{
    return keep_fd.load();
}
