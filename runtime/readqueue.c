#include "readqueue.h"

#include <stdlib.h>
#include <string.h>

static int is_done(const struct readqueue* queue, fuse_ino_t ino)
{
    for (size_t i = 0; i < DONE_FILES; ++i) {
        if (queue->done[i] == ino)
            return 1;
    }
    return 0;
}

static void free_job(struct readjob* job)
{
    free(job->taken);
    free(job->places);
    free(job->words);
}

int readqueue_add(struct readqueue* queue, fuse_ino_t ino, const sqfs_inode* inode, size_t block_size)
{
    uint64_t size = inode->xtra.reg.file_size, blocks = (size + block_size - 1) / block_size;
    if (size == 0 || size > READQUEUE_BIGGEST || queue->count >= QUEUED_FILES || readqueue_find(queue, ino)
        || is_done(queue, ino))
        return 0;
    unsigned char* taken = calloc((blocks + 7) / 8, 1);
    if (!taken)
        return 0;
    queue->jobs[queue->count++] = (struct readjob){ino, *inode, blocks, taken, 0, NULL, NULL};
    return 1;
}

struct readjob* readqueue_find(struct readqueue* queue, fuse_ino_t ino)
{
    for (size_t i = 0; i < queue->count; ++i) {
        if (queue->jobs[i].ino == ino)
            return &queue->jobs[i];
    }
    return NULL;
}

struct readjob* readqueue_next(struct readqueue* queue)
{
    struct readjob* hot = readqueue_find(queue, queue->hot);
    return hot ? hot : &queue->jobs[0];
}

int readqueue_take(struct readjob* job, uint64_t block)
{
    unsigned char bit = (unsigned char)(1u << (block % 8));
    if (!job || block >= job->blocks || (job->taken[block / 8] & bit))
        return 0;
    job->taken[block / 8] |= bit;
    return 1;
}

/* The order blocks are taken in. A program maps a library, reads its
 * header and then its dynamic section and relocated data, which lie at the
 * end, so those come first; then the rest in order. The head comes last:
 * who opens a file reads it at once, and the serving thread is there first. */
static uint64_t nth_block(uint64_t blocks, uint64_t n)
{
    uint64_t tail = blocks / 8 > 0 ? blocks / 8 : 1;
    if (blocks == 1 || n == blocks - 1)
        return 0;
    return n < tail ? blocks - tail + n : n - tail + 1;
}

int readqueue_take_next(struct readqueue* queue, struct readjob* job, uint64_t* block)
{
    for (uint64_t n = 0; n < job->blocks; ++n) {
        if (readqueue_take(job, nth_block(job->blocks, n))) {
            *block = nth_block(job->blocks, n);
            return 1;
        }
    }
    readqueue_finish(queue, job);
    return 0;
}

void readqueue_finish(struct readqueue* queue, struct readjob* job)
{
    queue->done[queue->done_next++ % DONE_FILES] = job->ino;
    free_job(job);
    size_t after = (size_t)(queue->jobs + --queue->count - job);
    memmove(job, job + 1, after * sizeof *job);
}

/* Blocks are then decompressed straight into a slot: squashfuse's reads go
 * through a cache, a copy more. */
int readqueue_list_blocks(struct readjob* job, sqfs* fs)
{
    sqfs_inode inode = job->inode;
    size_t count = sqfs_blocklist_count(fs, &inode), i = 0;
    job->places = malloc((count + 1) * sizeof *job->places);
    job->words = malloc((count + 1) * sizeof *job->words);
    sqfs_blocklist list;
    sqfs_blocklist_init(fs, &inode, &list);
    uint64_t place = fs->offset + inode.xtra.reg.start_block;
    for (; job->places && job->words && i < count && sqfs_blocklist_next(&list) == SQFS_OK; ++i) {
        job->places[i] = place;
        job->words[i] = list.header;
        place += list.header & ~SQUASHFS_COMPRESSED_BIT_BLOCK;
    }
    job->listed = i;
    return job->places && job->words && i == count ? 0 : -1;
}

void readqueue_release(struct readqueue* queue)
{
    for (size_t i = 0; i < queue->count; ++i)
        free_job(&queue->jobs[i]);
    queue->count = 0;
}
