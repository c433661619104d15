/* The test kit fires high-resolution timers on the test's thread, in expiry
 * order, its clock reading each one's expiry; one re-arms itself once. */
#include <stdio.h>
#include <string.h>

#include <tovi/tovi.h>
#include <tovi_testkit.h>

static tovi_timer timers[2];
static char seen[64];
static size_t used;

static void on_hr(uint64_t id)
{
    used += (size_t)snprintf(seen + used, sizeof seen - used, "%u@%u ", (unsigned)id, (unsigned)tovi_testkit_now_ns());
    if (id == 0 && tovi_testkit_now_ns() < 500000)
        tovi_hr_timer_modify(&timers[0], 300000);
}

int main(void)
{
    if (tovi_testkit_start() != 0)
        return 1;
    for (unsigned i = 0; i < 2; i++) {
        tovi_timer_init(&timers[i]);
        tovi_timer_set(&timers[i], 300000 + 100000 * i, i, on_hr);
        tovi_hr_timer_add(&timers[i]);
    }
    tovi_testkit_advance_ms(1);
    printf("fired: %s, clock %u ns\n", seen, (unsigned)tovi_testkit_now_ns());
    return strcmp(seen, "0@300000 1@400000 0@600000 ") != 0 || tovi_testkit_now_ns() != 1000000;
}
