#pragma once

/* What the prefetcher's two files share: the state behind struct prefetch,
 * kept under its lock, and the helpers both threads call. */

#include "readahead.h"

#include <pthread.h>

enum {
    /* Files waiting, and leftovers of served reads waiting; more are let go. */
    QUEUED_FILES = 64,
    QUEUED_PIECES = 32,
    /* Remembered after they are done, so that opening them again costs nothing. */
    DONE_FILES = 256,
    /* Blocks kept after decompression: enough for the reads that were
     * already on their way when the thread stored their pages; at most
     * 4 MiB of them, all filled in at the start. */
    MOST_SLOTS = 16,
    LEAST_SLOTS = 4,
    SLOT_BYTES = 4 << 20,
};
/* A bigger file is mostly data that start-up reads in a few places (ICU's
 * is 31 MB): decompressing all of it would hold up the files behind it. */
#define PREFETCH_BIGGEST ((uint64_t)16 << 20)

struct job {
    fuse_ino_t ino;
    sqfs_inode inode;
    uint64_t blocks;
    unsigned char* taken; /* one bit per block, set once either thread has it */
    /* Where each block of the file's list lies in the image, and its size
     * word; the tail after them is in a fragment. Read when work starts. */
    size_t listed;
    uint64_t* places;
    uint32_t* words;
};

struct piece {
    fuse_ino_t ino;
    uint64_t offset;
    size_t size;
    char* data;
};

enum slot_state { SLOT_FREE, SLOT_BUSY, SLOT_READY };

struct slot {
    fuse_ino_t ino;
    uint64_t block;
    enum slot_state state;
    int pins; /* readers copying out of it: it is not reused meanwhile */
    uint64_t used;
    size_t size;
    char* data;
};

struct prefetch {
    sqfs_ll* ll;
    sqfs_decompressor decompress;
    struct fuse_session* session;
    size_t block_size;
    char* arena;
    size_t arena_size;
    char* input;
    char* spare; /* the serving thread's, when every slot is in use */
    pthread_t thread;
    pthread_mutex_t lock;
    pthread_cond_t wake, ready;
    int stopping, finished;
    struct job jobs[QUEUED_FILES];
    size_t job_count;
    fuse_ino_t hot; /* the file last read, worked on first */
    struct piece pieces[QUEUED_PIECES];
    size_t piece_count;
    fuse_ino_t done[DONE_FILES];
    size_t done_next;
    struct slot slots[MOST_SLOTS];
    int slot_count;
    uint64_t clock;
};

/* Puts the bytes into the kernel's page cache for ino. */
int prefetch_store(struct prefetch* prefetch, fuse_ino_t ino, uint64_t offset, char* data, size_t size);
int prefetch_is_zero(const char* data, size_t size);

/* The slots and the jobs, under the lock. */
struct slot* prefetch_find_slot(struct prefetch* prefetch, fuse_ino_t ino, uint64_t block);
struct slot* prefetch_claim_slot(struct prefetch* prefetch, fuse_ino_t ino, uint64_t block);
void prefetch_fill_slot(struct prefetch* prefetch, struct slot* slot, int failed, size_t size);
struct job* prefetch_find_job(struct prefetch* prefetch, fuse_ino_t ino);
int prefetch_take(struct job* job, uint64_t block);
