#include "readahead.h"

#include "blockcache.h"
#include "readqueue.h"

#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Leftovers of served reads waiting for the page cache; more are let go. */
enum { QUEUED_PIECES = 32 };

struct piece {
    fuse_ino_t ino;
    uint64_t offset;
    size_t size;
    char* data;
};

/* The lock guards the cache, the queue, the pieces and the two flags; wake
 * tells the thread of work, ready tells readers that a busy slot is filled. */
struct readahead {
    sqfs_ll* ll;
    sqfs_decompressor decompress;
    struct fuse_session* session;
    pthread_t thread;
    pthread_mutex_t lock;
    pthread_cond_t wake, ready;
    int stopping, finished;
    struct blockcache cache;
    struct readqueue queue;
    struct piece pieces[QUEUED_PIECES];
    size_t piece_count;
};

static int is_zero(const char* data, size_t size)
{
    return size == 0 || (data[0] == 0 && memcmp(data, data + 1, size - 1) == 0);
}

/* Puts the bytes into the kernel's page cache for ino. All-zero ones are
 * left out: they cost a read nothing, and are mostly never read. */
static int store(struct readahead* ahead, fuse_ino_t ino, uint64_t offset, char* data, size_t size)
{
    if (is_zero(data, size))
        return 0;
    struct fuse_bufvec bytes = FUSE_BUFVEC_INIT(size);
    bytes.buf[0].mem = data;
    return fuse_lowlevel_notify_store(ahead->session, ino, (off_t)offset, &bytes, 0);
}

/* Under the lock: the slot's block is in, or failed; waiting readers go on. */
static void fill_slot(struct readahead* ahead, struct slot* slot, int failed, size_t size)
{
    blockcache_fill(slot, failed, size);
    pthread_cond_broadcast(&ahead->ready);
}

/* The thread's side. */

/* One block of the file into out, and its size. */
static int read_block(struct readahead* ahead, const struct readjob* job, uint64_t block, char* out, size_t* size)
{
    size_t block_size = ahead->cache.block_size;
    uint64_t left = job->inode.xtra.reg.file_size - block * block_size;
    size_t length = left < block_size ? (size_t)left : block_size;
    if (block >= job->listed) {
        sqfs_off_t got = (sqfs_off_t)block_size;
        sqfs_inode inode = job->inode;
        int failed = sqfs_read_range(&ahead->ll->fs, &inode, (sqfs_off_t)(block * block_size), &got, out) != SQFS_OK;
        *size = (size_t)got;
        return failed ? -1 : 0;
    }
    uint32_t stored = job->words[block] & ~SQUASHFS_COMPRESSED_BIT_BLOCK;
    int compressed = !(job->words[block] & SQUASHFS_COMPRESSED_BIT_BLOCK);
    char* into = compressed ? ahead->cache.input : out;
    *size = compressed ? block_size : stored;
    if (stored == 0) { /* a hole */
        memset(out, 0, length);
        *size = length;
        return 0;
    }
    if (stored > block_size || pread(ahead->ll->fs.fd, into, stored, (off_t)job->places[block]) != stored)
        return -1;
    return compressed ? ahead->decompress(into, stored, out, size) != SQFS_OK : 0;
}

/* One block of a job, decompressed into a slot and stored. Only this
 * thread moves jobs: the job stays where it is while unlocked. */
static void work_on_a_job(struct readahead* ahead)
{
    struct readjob* job = readqueue_next(&ahead->queue);
    int failed = 0;
    uint64_t block;
    if (!job->places) {
        pthread_mutex_unlock(&ahead->lock);
        failed = readqueue_list_blocks(job, &ahead->ll->fs) != 0;
        pthread_mutex_lock(&ahead->lock);
    }
    /* Every slot in use is unlikely: the block is left to the reads then. */
    struct slot* slot = !failed && readqueue_take_next(&ahead->queue, job, &block)
                            ? blockcache_claim(&ahead->cache, job->ino, block)
                            : NULL;
    if (slot) {
        size_t size;
        pthread_mutex_unlock(&ahead->lock);
        failed = read_block(ahead, job, block, slot->data, &size) != 0;
        pthread_mutex_lock(&ahead->lock);
        fill_slot(ahead, slot, failed, size);
        if (!failed) {
            pthread_mutex_unlock(&ahead->lock);
            failed = store(ahead, slot->ino, block * ahead->cache.block_size, slot->data, size) != 0;
            pthread_mutex_lock(&ahead->lock);
            slot->pins--;
        }
    }
    /* The kernel forgot the file, or the image is damaged: the reads will tell. */
    if (failed)
        readqueue_finish(&ahead->queue, job);
}

static void store_first_piece(struct readahead* ahead)
{
    struct piece piece = ahead->pieces[0];
    memmove(ahead->pieces, ahead->pieces + 1, --ahead->piece_count * sizeof piece);
    pthread_mutex_unlock(&ahead->lock);
    store(ahead, piece.ino, piece.offset, piece.data, piece.size);
    free(piece.data);
    pthread_mutex_lock(&ahead->lock);
}

/* Leftovers of served reads first: they cost no decompression. */
static void* run(void* context)
{
    struct readahead* ahead = context;
    pthread_mutex_lock(&ahead->lock);
    while (!ahead->stopping) {
        if (ahead->piece_count > 0)
            store_first_piece(ahead);
        else if (ahead->queue.count > 0)
            work_on_a_job(ahead);
        else
            pthread_cond_wait(&ahead->wake, &ahead->lock);
    }
    ahead->finished = 1;
    pthread_mutex_unlock(&ahead->lock);
    return NULL;
}

static void free_readahead(struct readahead* ahead)
{
    readqueue_release(&ahead->queue);
    for (size_t i = 0; i < ahead->piece_count; ++i)
        free(ahead->pieces[i].data);
    blockcache_release(&ahead->cache);
    if (ahead->ll)
        sqfs_ll_destroy(ahead->ll);
    free(ahead);
}

struct readahead* readahead_start(const char* path, size_t offset, struct fuse_session* session)
{
    struct readahead* ahead = calloc(1, sizeof *ahead);
    if (!ahead)
        return NULL;
    ahead->session = session;
    pthread_mutex_init(&ahead->lock, NULL);
    pthread_cond_init(&ahead->wake, NULL);
    pthread_cond_init(&ahead->ready, NULL);
    ahead->ll = sqfs_ll_open(path, offset);
    size_t block_size = 0;
    if (ahead->ll) {
        block_size = ahead->ll->fs.sb.block_size;
        ahead->decompress = sqfs_decompressor_get(sqfs_compression(&ahead->ll->fs));
    }
    /* squashfs blocks are 4 KiB to 1 MiB; anything else is a damaged image. */
    if (block_size < 4096 || block_size > (1u << 20))
        ahead->decompress = NULL;
    if (!ahead->decompress || blockcache_init(&ahead->cache, block_size) != 0
        || pthread_create(&ahead->thread, NULL, run, ahead) != 0) {
        free_readahead(ahead);
        return NULL;
    }
    return ahead;
}

void readahead_opened(struct readahead* ahead, fuse_ino_t ino, const sqfs_inode* inode)
{
    pthread_mutex_lock(&ahead->lock);
    if (readqueue_add(&ahead->queue, ino, inode, ahead->cache.block_size))
        pthread_cond_signal(&ahead->wake);
    pthread_mutex_unlock(&ahead->lock);
}

void readahead_stop(struct readahead* ahead)
{
    pthread_mutex_lock(&ahead->lock);
    ahead->stopping = 1;
    pthread_cond_signal(&ahead->wake);
    pthread_mutex_unlock(&ahead->lock);
}

int readahead_ended(struct readahead* ahead)
{
    pthread_mutex_lock(&ahead->lock);
    int ended = ahead->finished;
    pthread_mutex_unlock(&ahead->lock);
    return ended;
}

void readahead_free(struct readahead* ahead)
{
    pthread_join(ahead->thread, NULL);
    free_readahead(ahead);
}

/* The serving thread's side. */

/* Hands bytes a reply left out of its blocks to the thread, for the page cache. */
static void keep_piece(struct readahead* ahead, fuse_ino_t ino, uint64_t offset, const char* data, size_t size)
{
    char* copy = size > 0 && !is_zero(data, size) ? malloc(size) : NULL;
    if (!copy)
        return;
    memcpy(copy, data, size);
    pthread_mutex_lock(&ahead->lock);
    if (ahead->piece_count < QUEUED_PIECES) {
        ahead->pieces[ahead->piece_count++] = (struct piece){ino, offset, size, copy};
        copy = NULL;
        pthread_cond_signal(&ahead->wake);
    }
    pthread_mutex_unlock(&ahead->lock);
    free(copy);
}

/* A block as the serving thread has it: in a pinned slot, or in spare when
 * every slot was in use. */
struct held {
    struct slot* slot;
    const char* data;
    size_t size;
    int decompressed_here;
};

/* The block: found, waited for while the thread decompresses it, or else
 * decompressed here. Under the lock; returns with it. */
static int serve_block(struct readahead* ahead, sqfs* fs, sqfs_inode* inode, fuse_ino_t ino, uint64_t block,
                       struct held* held)
{
    readqueue_take(readqueue_find(&ahead->queue, ino), block);
    ahead->queue.hot = ino;
    while ((held->slot = blockcache_find(&ahead->cache, ino, block)) && held->slot->state == SLOT_BUSY)
        pthread_cond_wait(&ahead->ready, &ahead->lock);
    if (held->slot) {
        blockcache_use(&ahead->cache, held->slot);
        held->data = held->slot->data;
        held->size = held->slot->size;
        return 0;
    }
    held->slot = blockcache_claim(&ahead->cache, ino, block);
    held->data = held->slot ? held->slot->data : ahead->cache.spare;
    held->decompressed_here = 1;
    sqfs_off_t size = (sqfs_off_t)ahead->cache.block_size;
    pthread_mutex_unlock(&ahead->lock);
    int failed = sqfs_read_range(fs, inode, (sqfs_off_t)(block * ahead->cache.block_size), &size, (char*)held->data)
                 != SQFS_OK;
    pthread_mutex_lock(&ahead->lock);
    held->size = (size_t)size;
    if (held->slot)
        fill_slot(ahead, held->slot, failed, held->size);
    return failed ? -1 : 0;
}

static void unpin(struct readahead* ahead, struct slot* slot)
{
    if (!slot)
        return;
    pthread_mutex_lock(&ahead->lock);
    slot->pins--;
    pthread_mutex_unlock(&ahead->lock);
}

ssize_t readahead_read(struct readahead* ahead, sqfs* fs, fuse_ino_t ino, sqfs_inode* inode, uint64_t offset,
                       size_t size, char* out)
{
    size_t block_size = ahead->cache.block_size;
    uint64_t end = offset + size;
    if (end > inode->xtra.reg.file_size)
        end = inode->xtra.reg.file_size;
    size_t done = 0;
    for (uint64_t block = offset / block_size; block * block_size < end; ++block) {
        uint64_t start = block * block_size;
        struct held held = {0};
        pthread_mutex_lock(&ahead->lock);
        int failed = serve_block(ahead, fs, inode, ino, block, &held);
        pthread_mutex_unlock(&ahead->lock);
        if (failed)
            return -1;
        size_t from = offset > start ? (size_t)(offset - start) : 0;
        size_t to = end - start < held.size ? (size_t)(end - start) : held.size;
        if (to < from) { /* a block shorter than the file says: a damaged image */
            unpin(ahead, held.slot);
            return -1;
        }
        memcpy(out + done, held.data + from, to - from);
        done += to - from;
        if (held.decompressed_here) {
            keep_piece(ahead, ino, start, held.data, from);
            keep_piece(ahead, ino, start + to, held.data + to, held.size - to);
        }
        unpin(ahead, held.slot);
    }
    return (ssize_t)done;
}
