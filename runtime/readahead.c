#include "blockcache.h"

#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

/* The jobs, under the lock. */

struct job* prefetch_find_job(struct prefetch* prefetch, fuse_ino_t ino)
{
    for (size_t i = 0; i < prefetch->job_count; ++i) {
        if (prefetch->jobs[i].ino == ino)
            return &prefetch->jobs[i];
    }
    return NULL;
}

static int is_done(const struct prefetch* prefetch, fuse_ino_t ino)
{
    for (size_t i = 0; i < DONE_FILES; ++i) {
        if (prefetch->done[i] == ino)
            return 1;
    }
    return 0;
}

static void free_job(struct job* job)
{
    free(job->taken);
    free(job->places);
    free(job->words);
}

static void finish_job(struct prefetch* prefetch, struct job* job)
{
    prefetch->done[prefetch->done_next++ % DONE_FILES] = job->ino;
    free_job(job);
    size_t after = (size_t)(prefetch->jobs + --prefetch->job_count - job);
    memmove(job, job + 1, after * sizeof *job);
}

/* The file the last read was for, since the program is busy with it; else
 * the one opened first. */
static struct job* next_job(struct prefetch* prefetch)
{
    struct job* hot = prefetch_find_job(prefetch, prefetch->hot);
    return hot ? hot : &prefetch->jobs[0];
}

int prefetch_take(struct job* job, uint64_t block)
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

/* The next block of the job that neither thread has taken, marked as taken;
 * the job is finished when there is none. */
static int take_block(struct prefetch* prefetch, struct job* job, uint64_t* block)
{
    for (uint64_t n = 0; n < job->blocks; ++n) {
        if (prefetch_take(job, nth_block(job->blocks, n))) {
            *block = nth_block(job->blocks, n);
            return 1;
        }
    }
    finish_job(prefetch, job);
    return 0;
}

/* The thread's work, without the lock. */

/* Reads the file's list of blocks, so that blocks are decompressed straight
 * into a slot: squashfuse's reads go through a cache, a copy more. */
static int list_blocks(struct prefetch* prefetch, struct job* job)
{
    sqfs* fs = &prefetch->ll->fs;
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

/* One block of the file into out, and its size. */
static int read_block(struct prefetch* prefetch, const struct job* job, uint64_t block, char* out, size_t* size)
{
    uint64_t left = job->inode.xtra.reg.file_size - block * prefetch->block_size;
    size_t length = left < prefetch->block_size ? (size_t)left : prefetch->block_size;
    if (block >= job->listed) {
        sqfs_off_t got = (sqfs_off_t)prefetch->block_size;
        sqfs_inode inode = job->inode;
        int failed = sqfs_read_range(&prefetch->ll->fs, &inode, (sqfs_off_t)(block * prefetch->block_size), &got,
                                     out) != SQFS_OK;
        *size = (size_t)got;
        return failed ? -1 : 0;
    }
    uint32_t stored = job->words[block] & ~SQUASHFS_COMPRESSED_BIT_BLOCK;
    int compressed = !(job->words[block] & SQUASHFS_COMPRESSED_BIT_BLOCK);
    char* into = compressed ? prefetch->input : out;
    *size = compressed ? prefetch->block_size : stored;
    if (stored == 0) { /* a hole */
        memset(out, 0, length);
        *size = length;
        return 0;
    }
    if (stored > prefetch->block_size || pread(prefetch->ll->fs.fd, into, stored, (off_t)job->places[block]) != stored)
        return -1;
    return compressed ? prefetch->decompress(into, stored, out, size) != SQFS_OK : 0;
}

/* One block of a job, decompressed into a slot and stored. Only this
 * thread moves jobs: the job stays where it is while unlocked. */
static void work_on_a_job(struct prefetch* prefetch)
{
    struct job* job = next_job(prefetch);
    int failed = 0;
    uint64_t block;
    if (!job->places) {
        pthread_mutex_unlock(&prefetch->lock);
        failed = list_blocks(prefetch, job) != 0;
        pthread_mutex_lock(&prefetch->lock);
    }
    /* Every slot in use is unlikely: the block is left to the reads then. */
    struct slot* slot = !failed && take_block(prefetch, job, &block) ? prefetch_claim_slot(prefetch, job->ino, block) : NULL;
    if (slot) {
        size_t size;
        pthread_mutex_unlock(&prefetch->lock);
        failed = read_block(prefetch, job, block, slot->data, &size) != 0;
        pthread_mutex_lock(&prefetch->lock);
        prefetch_fill_slot(prefetch, slot, failed, size);
        if (!failed) {
            pthread_mutex_unlock(&prefetch->lock);
            failed = prefetch_store(prefetch, slot->ino, block * prefetch->block_size, slot->data, size) != 0;
            pthread_mutex_lock(&prefetch->lock);
            slot->pins--;
        }
    }
    /* The kernel forgot the file, or the image is damaged: the reads will tell. */
    if (failed)
        finish_job(prefetch, job);
}

static void store_first_piece(struct prefetch* prefetch)
{
    struct piece piece = prefetch->pieces[0];
    memmove(prefetch->pieces, prefetch->pieces + 1, --prefetch->piece_count * sizeof piece);
    pthread_mutex_unlock(&prefetch->lock);
    prefetch_store(prefetch, piece.ino, piece.offset, piece.data, piece.size);
    free(piece.data);
    pthread_mutex_lock(&prefetch->lock);
}

/* Leftovers of served reads first: they cost no decompression. */
static void* run(void* context)
{
    struct prefetch* prefetch = context;
    pthread_mutex_lock(&prefetch->lock);
    while (!prefetch->stopping) {
        if (prefetch->piece_count > 0)
            store_first_piece(prefetch);
        else if (prefetch->job_count > 0)
            work_on_a_job(prefetch);
        else
            pthread_cond_wait(&prefetch->wake, &prefetch->lock);
    }
    prefetch->finished = 1;
    pthread_mutex_unlock(&prefetch->lock);
    return NULL;
}

static void free_prefetch(struct prefetch* prefetch)
{
    for (size_t i = 0; i < prefetch->job_count; ++i)
        free_job(&prefetch->jobs[i]);
    for (size_t i = 0; i < prefetch->piece_count; ++i)
        free(prefetch->pieces[i].data);
    if (prefetch->arena)
        munmap(prefetch->arena, prefetch->arena_size);
    if (prefetch->ll)
        sqfs_ll_destroy(prefetch->ll);
    free(prefetch);
}

/* The slots, input and spare in one mapping filled at once: faulting the
 * pages in one by one as they are first written costs far more. */
static int allocate_buffers(struct prefetch* prefetch)
{
    size_t fit = SLOT_BYTES / prefetch->block_size;
    prefetch->slot_count = fit > MOST_SLOTS ? MOST_SLOTS : fit < LEAST_SLOTS ? LEAST_SLOTS : (int)fit;
    prefetch->arena_size = (size_t)(prefetch->slot_count + 2) * prefetch->block_size;
    char* arena = mmap(NULL, prefetch->arena_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE,
                       -1, 0);
    if (arena == MAP_FAILED)
        return -1;
    prefetch->arena = arena;
    prefetch->input = arena;
    prefetch->spare = arena + prefetch->block_size;
    for (int i = 0; i < prefetch->slot_count; ++i)
        prefetch->slots[i].data = arena + (size_t)(i + 2) * prefetch->block_size;
    return 0;
}

struct prefetch* prefetch_start(const char* path, size_t offset, struct fuse_session* session)
{
    struct prefetch* prefetch = calloc(1, sizeof *prefetch);
    if (!prefetch)
        return NULL;
    prefetch->session = session;
    pthread_mutex_init(&prefetch->lock, NULL);
    pthread_cond_init(&prefetch->wake, NULL);
    pthread_cond_init(&prefetch->ready, NULL);
    prefetch->ll = sqfs_ll_open(path, offset);
    if (prefetch->ll) {
        prefetch->block_size = prefetch->ll->fs.sb.block_size;
        prefetch->decompress = sqfs_decompressor_get(sqfs_compression(&prefetch->ll->fs));
    }
    /* squashfs blocks are 4 KiB to 1 MiB; anything else is a damaged image. */
    if (prefetch->block_size < 4096 || prefetch->block_size > (1u << 20))
        prefetch->decompress = NULL;
    if (!prefetch->decompress || allocate_buffers(prefetch) != 0
        || pthread_create(&prefetch->thread, NULL, run, prefetch) != 0) {
        free_prefetch(prefetch);
        return NULL;
    }
    return prefetch;
}

void prefetch_file(struct prefetch* prefetch, fuse_ino_t ino, const sqfs_inode* inode)
{
    uint64_t size = inode->xtra.reg.file_size, blocks = (size + prefetch->block_size - 1) / prefetch->block_size;
    if (size == 0 || size > PREFETCH_BIGGEST)
        return;
    pthread_mutex_lock(&prefetch->lock);
    if (prefetch->job_count < QUEUED_FILES && !prefetch_find_job(prefetch, ino) && !is_done(prefetch, ino)) {
        unsigned char* taken = calloc((blocks + 7) / 8, 1);
        if (taken) {
            prefetch->jobs[prefetch->job_count++] = (struct job){ino, *inode, blocks, taken, 0, NULL, NULL};
            pthread_cond_signal(&prefetch->wake);
        }
    }
    pthread_mutex_unlock(&prefetch->lock);
}

void prefetch_stop(struct prefetch* prefetch)
{
    pthread_mutex_lock(&prefetch->lock);
    prefetch->stopping = 1;
    pthread_cond_signal(&prefetch->wake);
    pthread_mutex_unlock(&prefetch->lock);
}

int prefetch_ended(struct prefetch* prefetch)
{
    pthread_mutex_lock(&prefetch->lock);
    int ended = prefetch->finished;
    pthread_mutex_unlock(&prefetch->lock);
    return ended;
}

void prefetch_free(struct prefetch* prefetch)
{
    pthread_join(prefetch->thread, NULL);
    free_prefetch(prefetch);
}
