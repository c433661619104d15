/*
 * An application module and its unit test with libtovi-testkit.
 *
 * The module: a heartbeat. A timer fires every `period` ms and queues a work
 * item, which counts the beat and arms the next one; heartbeat_start refuses
 * a second start. The test runs on one thread, moves the clock by hand and
 * checks beats, jiffies and the library's log lines exactly: the result is
 * the same on a loaded machine as on an idle one.
 */
#include <stdio.h>
#include <string.h>

#include <tovi/tovi.h>
#include <tovi_testkit.h>

/* ---- the module under test ---- */

static tovi_timer beat_timer;
static tovi_sched_work beat_work;
static unsigned beats;
static uint64_t beat_ms[16];

static void on_beat_work(tovi_sched_work *work)
{
    (void)work;
    if (beats < 16)
        beat_ms[beats] = tovi_time_getmillisec();
    beats++;
    tovi_timer_modify(&beat_timer, beat_timer.timeOut);
}

static void on_beat(uint64_t data)
{
    (void)data;
    tovi_sched_add_work(&beat_work);
}

static int heartbeat_start(uint64_t period)
{
    tovi_sched_init_work(&beat_work, on_beat_work, NULL);
    if (tovi_timer_is_pending(&beat_timer) == 1)
        return tovi_timer_add(&beat_timer); /* refused and logged by the library */
    tovi_timer_set(&beat_timer, period, 0, on_beat);
    return tovi_timer_add(&beat_timer);
}

/* ---- its test ---- */

static int failures;
#define EXPECT(cond)                                                \
    do {                                                            \
        if (!(cond)) {                                              \
            printf("%s:%d: expected %s\n", __FILE__, __LINE__, #cond); \
            failures++;                                             \
        }                                                           \
    } while (0)

int main(void)
{
    EXPECT(tovi_testkit_start() == 0);
    EXPECT(tovi_timer_init(&beat_timer) == 0);
    EXPECT(heartbeat_start(100) == 0);

    /* Nothing before the first period is over; then one beat at exactly 100 ms. */
    EXPECT(tovi_testkit_advance_ms(99) == 0 && beats == 0);
    EXPECT(tovi_testkit_advance_ms(1) == 1 && beats == 1 && beat_ms[0] == 100);
    /* Ten more periods: a beat every 100 ms, and 4 ms jiffies that agree. */
    EXPECT(tovi_testkit_advance_ms(1000) == 10 && beats == 11);
    EXPECT(beat_ms[10] == 1100 && tovi_get_jiffies() == 275);

    /* A second start is refused, and the library says why at level 3. */
    tovi_testkit_log_clear();
    EXPECT(heartbeat_start(100) == -1);
    EXPECT(tovi_testkit_log_count() == 1);
    const char *line = tovi_testkit_log_line(0);
    EXPECT(line != NULL && strcmp(line, "3 tovi_timer:tovi_timer_add: The timer is pending.") == 0);

    /* Stopped, it stays stopped. */
    EXPECT(tovi_timer_delete(&beat_timer) == 0);
    EXPECT(tovi_testkit_advance_ms(1000) == 0 && beats == 11);

    printf("testkit example: %s\n", failures == 0 ? "passed" : "FAILED");
    return failures == 0 ? 0 : 1;
}
