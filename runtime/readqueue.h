#pragma once

/* The files waiting to be read ahead, queued as the mount opens them: for
 * each, which blocks either thread has taken and where its blocks lie; and
 * the files done lately, so that opening one again costs nothing. Called
 * under the read-ahead's lock, but for readqueue_list_blocks, which the
 * thread calls without it on a job that only it moves or frees. */

/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include <stddef.h>
#include <stdint.h>

enum {
    QUEUED_FILES = 64, /* more are let go */
    DONE_FILES = 256,
};
/* A bigger file is mostly data that start-up reads in a few places (ICU's
 * is 31 MB): decompressing all of it would hold up the files behind it. */
#define READQUEUE_BIGGEST ((uint64_t)16 << 20)

struct readjob {
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

struct readqueue {
    struct readjob jobs[QUEUED_FILES];
    size_t count;
    fuse_ino_t hot; /* the file last read, worked on first */
    fuse_ino_t done[DONE_FILES];
    size_t done_next;
};

/* Queues the file unless it is empty, too big, queued, done lately or the
 * queue is full; 1 when it was queued. */
int readqueue_add(struct readqueue* queue, fuse_ino_t ino, const sqfs_inode* inode, size_t block_size);
struct readjob* readqueue_find(struct readqueue* queue, fuse_ino_t ino);
/* The file the last read was for, since the program is busy with it; else
 * the one queued first. The queue must not be empty. */
struct readjob* readqueue_next(struct readqueue* queue);
/* Marks the block taken; 0 when it was already, or there is no such job or block. */
int readqueue_take(struct readjob* job, uint64_t block);
/* Takes the next block neither thread has taken; when there is none, the
 * job is finished and 0 returned. */
int readqueue_take_next(struct readqueue* queue, struct readjob* job, uint64_t* block);
/* Drops the job, remembering it as done. */
void readqueue_finish(struct readqueue* queue, struct readjob* job);
/* Reads the file's list of blocks from fs into the job; -1 when it cannot. */
int readqueue_list_blocks(struct readjob* job, sqfs* fs);
void readqueue_release(struct readqueue* queue);
