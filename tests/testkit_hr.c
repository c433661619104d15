/* The test kit fires high-resolution timers on the test's thread in expiry
 * order, its clock at each expiry (one re-arms itself once); after
 * tovi_destory a second start takes the work queue back from the workers. */
#include <stdio.h>
#include <string.h>

#include <tovi/tovi.h>
#include <tovi_testkit.h>

static tovi_timer timers[2];
static char seen[64];
static size_t used;

static void note(uint64_t id)
{
    used += (size_t)snprintf(seen + used, sizeof seen - used, "%u@%u ", (unsigned)id, (unsigned)tovi_testkit_now_ns());
    if (id == 0 && tovi_testkit_now_ns() < 500000)
        tovi_hr_timer_modify(&timers[0], 300000);
}

static void on_work(tovi_sched_work *work) { note(work->pData == work ? 7 : 8); }

int main(void)
{
    tovi_sched_work work;
    tovi_sched_work_stats_s stats;
    if (tovi_testkit_start() != 0 || tovi_Init() != 0 || tovi_destory() != 0 || tovi_testkit_start() != 0)
        return 1;
    tovi_sched_init_work(&work, on_work, &work);
    tovi_sched_add_work(&work);
    for (unsigned i = 0; i < 2; i++) {
        tovi_timer_set(&timers[i], 300000 + 100000 * i, i, note);
        tovi_hr_timer_add(&timers[i]);
    }
    tovi_sched_work_stats(&stats);
    tovi_testkit_advance_ms(1);
    printf("fired: %s, %d workers\n", seen, stats.threadsAlive);
    return strcmp(seen, "0@300000 1@400000 0@600000 7@1000000 ") != 0 || stats.threadsAlive != 0;
}
