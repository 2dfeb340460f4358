/* SPDX-License-Identifier: MIT */
/* A minimal recorder in C: brings one formatted disk up, records one channel (three clusters
 * with their key frames), plays it back, finds it by channel and day, and shuts down.
 *
 *   recstore_example /dev/hd/sda
 *
 * The disk must have been prepared once (recstore format DEV --yes, or fs_format and a first
 * bring-up with fs_cleardisk). Linked with the library and the reference host; run as root,
 * inside the disk rig on a development machine. */
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "recstore.h"

#define CLUSTERS 3

static unsigned char cluster[RECSTORE_CLUSTER_SIZE] __attribute__((aligned(4096)));

/* The plug-in order of a disk; the disk's id, or -1. */
static int plug_in(const char *dev) {
    fs_umount(dev);
    if (fs_chk(dev) != 0 || fs_mount(dev) != 0) return -1;
    int disk = fs_opendisk(dev);
    if (disk < 0 || fs_datazone_init(disk) != 0) return -1;
    while (!rec_is_cache_loaded()) usleep(10000); /* the cache loader thread */
    if (fs_chkdata(disk, 1) != 0 || fs_adddisk(0, disk) != 0) return -1;
    return disk;
}

static void plug_out(int disk, const char *dev) {
    fs_removedisk(0, disk);
    fs_datazone_exit(disk);
    fs_closedisk(disk);
    fs_umount(dev);
}

int main(int argc, char **argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s DEV (a formatted disk, e.g. /dev/hd/sda)\n", argv[0]);
        return 2;
    }
    const char *dev = argv[1];
    if (rec_init(65536, 16, 0) != 0) return 1; /* cache on, buffered payload I/O */
    int disk = plug_in(dev);
    if (disk < 0) {
        fprintf(stderr, "%s could not be brought up: is it formatted?\n", dev);
        rec_exit();
        return 1;
    }
    rec_bringup_deamon(); /* chooses the current disk and block, follows hot-plug */
    /* The daemon sets the current disk on its own thread: read it atomically. */
    for (int i = 0; i < 500 && __atomic_load_n(&g_recctx.curdiskid, __ATOMIC_ACQUIRE) < 0; i++) {
        usleep(10000);
    }

    /* Record channel 3 from 17 May 2024 08:00:00 (UTC with the reference host). */
    struct tm start;
    memset(&start, 0, sizeof start);
    start.tm_year = 124;
    start.tm_mon = 4;
    start.tm_mday = 17;
    start.tm_hour = 8;
    int h = rec_open(3, &start, 0, 0, 0, 0, RECSTORE_REC_CREATE | O_RDWR, 1 /* mode bit */);
    if (h < 0) return 1;
    for (int n = 0; n < CLUSTERS; n++) {
        kframe frames[RECSTORE_MAX_KFRAMES];
        memset(frames, 0, sizeof frames);
        frames[0].frame_offset = 0; /* one key frame at the start of each cluster */
        frames[0].frame_time = (uint32_t)mktime_abs(&start) + 2u * (uint32_t)n;
        memset(cluster, 'a' + n, sizeof cluster);
        if (rec_write(h, cluster, (int)sizeof cluster, frames, 1) != (int)sizeof cluster) return 1;
    }
    struct tm end = start;
    end.tm_sec = 2 * CLUSTERS;
    rec_close(h, &end);

    /* Play it back from the start. */
    h = rec_open(3, &start, 0, 0, 0, 0, 0, 0);
    uint32_t length = 0, count = 0;
    kframe frames[RECSTORE_MAX_KFRAMES];
    int read = 0, good = 0;
    while (rec_read(h, cluster, &length, frames, &count) > 0) {
        good += cluster[0] == 'a' + read && cluster[length - 1] == 'a' + read;
        read++;
    }
    rec_close(h, NULL);
    printf("played back %d clusters, %d with the bytes written\n", read, good);

    /* Find it: channel 3, all of that day. */
    struct tm day_end = start;
    day_end.tm_hour = 23;
    day_end.tm_min = 59;
    day_end.tm_sec = 59;
    struct tm day_start = start;
    day_start.tm_hour = 0;
    int f = rec_find_open(&day_start, &day_end, 1ull << 3, 0, 0xFF, 0xF, 100, 2);
    rec_param found[4];
    rec_find_info infos[4];
    int n = f >= 0 ? rec_find_next(f, found, infos, 4) : -1;
    if (f >= 0) rec_find_close(f);
    printf("found %d recording(s) of channel 3 on 17 May 2024\n", n);

    rec_shutdown_deamon();
    plug_out(disk, dev);
    rec_exit();
    return read == CLUSTERS && good == CLUSTERS && n == 1 ? 0 : 1;
}
