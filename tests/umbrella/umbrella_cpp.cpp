// <tovi/tovi.h> as a C++ caller sees it: the shared records must have the
// same layout in both languages, or a C module and a C++ module of one
// process disagree about every field after the first difference.
#include <cstdio>

#include <tovi/tovi.h>

extern "C" size_t umbrella_c_sizes(size_t *out);

int main()
{
    const size_t cpp[] = {sizeof(tovi_timer), sizeof(tovi_sched_work), sizeof(wait_queue_head_t),
                          sizeof(tovi_sem_enhance_s), sizeof(wait_queue_t),
                          sizeof(tovi_hash_table_s), sizeof(tovi_thread_s), sizeof(tovi_spinlock_s)};
    size_t c[sizeof cpp / sizeof cpp[0]] = {};
    int bad = umbrella_c_sizes(c) != sizeof cpp / sizeof cpp[0];
    for (size_t i = 0; i < sizeof cpp / sizeof cpp[0]; i++) {
        if (c[i] != cpp[i]) {
            std::printf("record %zu: %zu bytes in C, %zu in C++\n", i, c[i], cpp[i]);
            bad = 1;
        }
    }
    return bad;
}
