/*
 * A producer and a consumer over the lock-free ring, with a semaphore
 * hand-off.
 *
 * The ring moves the objects without a lock; the semaphores only say when to
 * look: the producer fills a batch and ups `ready`, the consumer sleeps on
 * `ready` (no polling), drains the ring and ups `room`, on which the producer
 * sleeps before its next batch. Each side is the ring's only thread on its
 * end, so the ring is created single-producer, single-consumer.
 */
#include <inttypes.h>
#include <stdio.h>

#include <tovi/tovi.h>

#define BATCHES 3u
#define BATCH 4u

static tovi_ring_t *ring;
static tovi_sem_enhance_s ready;
static tovi_sem_enhance_s room;
static tovi_sem_enhance_s producer_done;

static void *producer(void *arg)
{
    (void)arg;
    uint64_t next = 1;
    for (unsigned b = 1; b <= BATCHES; b++) {
        tovi_sem_enhance_down(&room);
        for (unsigned i = 0; i < BATCH; i++)
            tovi_ring_enqueue(ring, next++);
        printf("producer: batch %u enqueued, %u objects in the ring\n", b, tovi_ring_count(ring));
        fflush(stdout);
        tovi_sem_enhance_up(&ready);
    }
    tovi_sem_enhance_up(&producer_done);
    return NULL;
}

int main(void)
{
    if (tovi_Init() != 0)
        return 1;
    ring = tovi_ring_create(8, TOVI_RING_F_SP_ENQ | TOVI_RING_F_SC_DEQ);
    if (ring == NULL)
        return 1;
    tovi_sem_enhance_init(&ready, 0);
    tovi_sem_enhance_init(&room, 1);
    tovi_sem_enhance_init(&producer_done, 0);
    printf("ring_handoff: a ring of %u slots, %u batches of %u\n", tovi_ring_size(ring), BATCHES, BATCH);
    if (tovi_thrd_create(producer, NULL, NULL) != 0)
        return 1;

    uint64_t sum = 0;
    for (unsigned b = 1; b <= BATCHES; b++) {
        if (tovi_sem_enhance_down_timeout(&ready, 10000) != 0) {
            printf("consumer: no batch in 10 s\n");
            return 1;
        }
        uint64_t obj;
        printf("consumer: batch %u:", b);
        while (tovi_ring_dequeue(ring, &obj) == 0) {
            printf(" %" PRIu64, obj);
            sum += obj;
        }
        printf("\n");
        fflush(stdout);
        tovi_sem_enhance_up(&room);
    }
    tovi_sem_enhance_down(&producer_done);
    printf("ring_handoff: sum %" PRIu64 ", ring empty: %s\n", sum, tovi_ring_empty(ring) ? "yes" : "no");
    tovi_ring_delete(&ring);
    return tovi_destory() == 0 ? 0 : 1;
}
