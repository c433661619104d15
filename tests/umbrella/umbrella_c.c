/* <tovi/tovi.h> as a C11 caller sees it: the record sizes the C++ side compares. */
#include <stddef.h>

#include <tovi/tovi.h>

size_t umbrella_c_sizes(size_t *out);
size_t umbrella_c_sizes(size_t *out)
{
    const size_t sizes[] = {sizeof(tovi_timer), sizeof(tovi_sched_work), sizeof(wait_queue_head_t),
                            sizeof(tovi_sem_enhance_s), sizeof(wait_queue_t),
                            sizeof(tovi_hash_table_s), sizeof(tovi_thread_s), sizeof(tovi_spinlock_s)};
    for (size_t i = 0; i < sizeof sizes / sizeof sizes[0]; i++)
        out[i] = sizes[i];
    return sizeof sizes / sizeof sizes[0];
}
