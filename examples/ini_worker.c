/*
 * A worker driven by an ini file, reacting to edits.
 *
 * The worker is a timer that polls every 50 ms: when the file on disk
 * changed (another inode or modification time: editors, the library's own
 * included, write a new file and rename it over the old one) it loads the
 * file into the library's cache again, then compares its settings with the
 * ones it runs with and reports each change once. (The library's editor
 * also refreshes the cache of a loaded file itself, so its edit may show
 * before the worker notices the new file; either way it is reported once.) The main thread plays the
 * operator: it edits the file once through the library's editor and once by
 * writing a new file, and waits for the worker's answer after each edit.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <tovi/tovi.h>

#define POLL_MS 50u

static char path[256];
static tovi_timer poll_timer;
static tovi_sem_enhance_s answered;
static char message[64];
static char repeat[16];
static struct stat seen;

static void read_setting(const char *item, char *value, size_t size)
{
    char now[64];
    if (tovi_cfg_getItemValue_ex(path, "worker", item, now, sizeof now) != 0)
        snprintf(now, sizeof now, "(missing)");
    if (strcmp(now, value) != 0) {
        printf("worker: %s = %s%s%s\n", item, now, value[0] ? ", was " : "", value);
        snprintf(value, size, "%s", now);
        tovi_sem_enhance_up(&answered);
    }
}

static void on_poll(uint64_t data)
{
    (void)data;
    struct stat st;
    if (stat(path, &st) == 0 && (st.st_ino != seen.st_ino || st.st_mtim.tv_sec != seen.st_mtim.tv_sec ||
                                 st.st_mtim.tv_nsec != seen.st_mtim.tv_nsec)) {
        if (seen.st_ino != 0)
            tovi_cfg_init(path); /* loads it again: the cache now holds what is on disk */
        seen = st;
    }
    read_setting("message", message, sizeof message);
    read_setting("repeat", repeat, sizeof repeat);
    fflush(stdout);
    tovi_timer_modify(&poll_timer, POLL_MS);
}

/* The operator waits for the worker to report one changed setting. */
static int wait_for_worker(void)
{
    if (tovi_sem_enhance_down_timeout(&answered, 10000) != 0) {
        printf("ini_worker: the worker did not answer in 10 s\n");
        return -1;
    }
    return 0;
}

int main(void)
{
    char dir[] = "/tmp/ini_worker.XXXXXX";
    if (mkdtemp(dir) == NULL || tovi_Init() != 0)
        return 1;
    snprintf(path, sizeof path, "%s/worker.ini", dir);
    FILE *f = fopen(path, "w");
    if (f == NULL)
        return 1;
    fputs("[worker]\nmessage=hello\nrepeat=2\n", f);
    fclose(f);
    if (tovi_cfg_init(path) != 0)
        return 1;

    tovi_sem_enhance_init(&answered, 0);
    tovi_timer_init(&poll_timer);
    tovi_timer_set(&poll_timer, POLL_MS, 0, on_poll);
    tovi_timer_add(&poll_timer);
    printf("ini_worker: the worker polls worker.ini every %u ms\n", POLL_MS);
    int rc = wait_for_worker() || wait_for_worker();

    printf("operator: message=bonjour through the library's editor\n");
    fflush(stdout);
    rc = rc || tovi_cfg_file_setItemValue(path, "worker", "message", "bonjour") != 0 || wait_for_worker();

    printf("operator: repeat=5 by writing a new file over the old one\n");
    fflush(stdout);
    char tmp[300];
    snprintf(tmp, sizeof tmp, "%s.new", path);
    f = fopen(tmp, "w");
    rc = rc || f == NULL;
    if (f != NULL) {
        fputs("[worker]\nmessage=bonjour\nrepeat=5\n", f);
        fclose(f);
        rc = rc || rename(tmp, path) != 0 || wait_for_worker();
    }

    tovi_timer_delete_sync(&poll_timer);
    tovi_cfg_destroy();
    unlink(path);
    rmdir(dir);
    printf("ini_worker: %s\n", rc ? "failed" : "done");
    return rc == 0 && tovi_destory() == 0 ? 0 : 1;
}
