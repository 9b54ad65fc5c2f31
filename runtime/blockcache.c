#include "blockcache.h"

#include <stdlib.h>
#include <string.h>

/* The blocks both threads decompress into, and the serving thread's reads. */

int prefetch_is_zero(const char* data, size_t size)
{
    return size == 0 || (data[0] == 0 && memcmp(data, data + 1, size - 1) == 0);
}

/* Puts the bytes into the kernel's page cache for ino. All-zero ones are
 * left out: they cost a read nothing, and are mostly never read. */
int prefetch_store(struct prefetch* prefetch, fuse_ino_t ino, uint64_t offset, char* data, size_t size)
{
    if (prefetch_is_zero(data, size))
        return 0;
    struct fuse_bufvec bytes = FUSE_BUFVEC_INIT(size);
    bytes.buf[0].mem = data;
    return fuse_lowlevel_notify_store(prefetch->session, ino, (off_t)offset, &bytes, 0);
}

struct slot* prefetch_find_slot(struct prefetch* prefetch, fuse_ino_t ino, uint64_t block)
{
    for (int i = 0; i < prefetch->slot_count; ++i) {
        struct slot* slot = &prefetch->slots[i];
        if (slot->state != SLOT_FREE && slot->ino == ino && slot->block == block)
            return slot;
    }
    return NULL;
}

/* A slot marked busy with the block, the one longest unused; NULL when every
 * one is busy or being read. */
struct slot* prefetch_claim_slot(struct prefetch* prefetch, fuse_ino_t ino, uint64_t block)
{
    struct slot* oldest = NULL;
    for (int i = 0; i < prefetch->slot_count; ++i) {
        struct slot* slot = &prefetch->slots[i];
        if (slot->state != SLOT_BUSY && slot->pins == 0 && (!oldest || slot->used < oldest->used))
            oldest = slot;
    }
    if (oldest)
        *oldest = (struct slot){ino, block, SLOT_BUSY, 0, ++prefetch->clock, 0, oldest->data};
    return oldest;
}

/* Ends the busy state; a good block is pinned for its decompressor. */
void prefetch_fill_slot(struct prefetch* prefetch, struct slot* slot, int failed, size_t size)
{
    slot->state = failed ? SLOT_FREE : SLOT_READY;
    slot->size = size;
    slot->pins += !failed;
    pthread_cond_broadcast(&prefetch->ready);
}

/* Hands bytes a reply left out of its blocks to the thread, for the page cache. */
static void keep_piece(struct prefetch* prefetch, fuse_ino_t ino, uint64_t offset, const char* data, size_t size)
{
    char* copy = size > 0 && !prefetch_is_zero(data, size) ? malloc(size) : NULL;
    if (!copy)
        return;
    memcpy(copy, data, size);
    pthread_mutex_lock(&prefetch->lock);
    if (prefetch->piece_count < QUEUED_PIECES) {
        prefetch->pieces[prefetch->piece_count++] = (struct piece){ino, offset, size, copy};
        copy = NULL;
        pthread_cond_signal(&prefetch->wake);
    }
    pthread_mutex_unlock(&prefetch->lock);
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
static int serve_block(struct prefetch* prefetch, sqfs* fs, sqfs_inode* inode, fuse_ino_t ino, uint64_t block,
                       struct held* held)
{
    prefetch_take(prefetch_find_job(prefetch, ino), block);
    prefetch->hot = ino;
    while ((held->slot = prefetch_find_slot(prefetch, ino, block)) && held->slot->state == SLOT_BUSY)
        pthread_cond_wait(&prefetch->ready, &prefetch->lock);
    if (held->slot) {
        held->slot->pins++;
        held->slot->used = ++prefetch->clock;
        held->data = held->slot->data;
        held->size = held->slot->size;
        return 0;
    }
    held->slot = prefetch_claim_slot(prefetch, ino, block);
    held->data = held->slot ? held->slot->data : prefetch->spare;
    held->decompressed_here = 1;
    sqfs_off_t size = (sqfs_off_t)prefetch->block_size;
    pthread_mutex_unlock(&prefetch->lock);
    int failed = sqfs_read_range(fs, inode, (sqfs_off_t)(block * prefetch->block_size), &size, (char*)held->data)
                 != SQFS_OK;
    pthread_mutex_lock(&prefetch->lock);
    held->size = (size_t)size;
    if (held->slot)
        prefetch_fill_slot(prefetch, held->slot, failed, held->size);
    return failed ? -1 : 0;
}

static void unpin(struct prefetch* prefetch, struct slot* slot)
{
    if (!slot)
        return;
    pthread_mutex_lock(&prefetch->lock);
    slot->pins--;
    pthread_mutex_unlock(&prefetch->lock);
}

ssize_t prefetch_read(struct prefetch* prefetch, sqfs* fs, fuse_ino_t ino, sqfs_inode* inode, uint64_t offset,
                      size_t size, char* out)
{
    uint64_t end = offset + size;
    if (end > inode->xtra.reg.file_size)
        end = inode->xtra.reg.file_size;
    size_t done = 0;
    for (uint64_t block = offset / prefetch->block_size; block * prefetch->block_size < end; ++block) {
        uint64_t start = block * prefetch->block_size;
        struct held held = {0};
        pthread_mutex_lock(&prefetch->lock);
        int failed = serve_block(prefetch, fs, inode, ino, block, &held);
        pthread_mutex_unlock(&prefetch->lock);
        if (failed)
            return -1;
        size_t from = offset > start ? (size_t)(offset - start) : 0;
        size_t to = end - start < held.size ? (size_t)(end - start) : held.size;
        if (to < from) { /* a block shorter than the file says: a damaged image */
            unpin(prefetch, held.slot);
            return -1;
        }
        memcpy(out + done, held.data + from, to - from);
        done += to - from;
        if (held.decompressed_here) {
            keep_piece(prefetch, ino, start, held.data, from);
            keep_piece(prefetch, ino, start + to, held.data + to, held.size - to);
        }
        unpin(prefetch, held.slot);
    }
    return (ssize_t)done;
}

