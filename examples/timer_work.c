/*
 * A periodic timer that queues scheduled work.
 *
 * The timer callback runs on the library's timer thread, which runs every
 * timer of the process one after another: it must be short. So the tick only
 * queues a work item; the work runs on a scheduled-work thread, where it may
 * take its time, and arms the next tick when it is done, so ticks never pile
 * up behind a slow work. After three rounds the work hands the main thread a
 * semaphore unit.
 */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdio.h>

#include <tovi/tovi.h>

#define PERIOD_MS 100u
#define ROUNDS 3u

static tovi_timer tick;
static tovi_sched_work work;
static tovi_sem_enhance_s finished;
static unsigned rounds;

static const char *thread_name(void)
{
    static __thread char name[16];
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

static void on_work(tovi_sched_work *w)
{
    (void)w;
    rounds++;
    printf("work %u: ran on %s\n", rounds, thread_name());
    fflush(stdout);
    if (rounds < ROUNDS)
        tovi_timer_modify(&tick, PERIOD_MS);
    else
        tovi_sem_enhance_up(&finished);
}

static void on_tick(uint64_t data)
{
    (void)data;
    printf("tick %u: %s queued the work\n", rounds + 1, thread_name());
    fflush(stdout);
    tovi_sched_add_work(&work);
}

int main(void)
{
    if (tovi_Init() != 0)
        return 1;
    tovi_sem_enhance_init(&finished, 0);
    tovi_sched_init_work(&work, on_work, NULL);
    tovi_timer_init(&tick);
    tovi_timer_set(&tick, PERIOD_MS, 0, on_tick);
    uint64_t start = tovi_get_jiffies();
    printf("timer_work: every %u ms a tick queues the work, %u rounds\n", PERIOD_MS, ROUNDS);
    tovi_timer_add(&tick);
    if (tovi_sem_enhance_down_timeout(&finished, 10000) != 0) {
        printf("timer_work: the rounds did not finish in 10 s\n");
        return 1;
    }
    uint64_t ms = (tovi_get_jiffies() - start) * 4;
    tovi_timer_delete_sync(&tick);
    printf("timer_work: %u rounds, at least %u ms: %s\n", rounds, ROUNDS * PERIOD_MS,
           ms + 4 >= ROUNDS * PERIOD_MS ? "yes" : "no");
    return tovi_destory() == 0 ? 0 : 1;
}
