#include "blockcache.h"

#include <sys/mman.h>

/* The slots, input and spare in one mapping filled at once: faulting the
 * pages in one by one as they are first written costs far more. */
int blockcache_init(struct blockcache* cache, size_t block_size)
{
    size_t fit = SLOT_BYTES / block_size;
    cache->block_size = block_size;
    cache->slot_count = fit > MOST_SLOTS ? MOST_SLOTS : fit < LEAST_SLOTS ? LEAST_SLOTS : (int)fit;
    cache->arena_size = (size_t)(cache->slot_count + 2) * block_size;
    char* arena = mmap(NULL, cache->arena_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE,
                       -1, 0);
    if (arena == MAP_FAILED)
        return -1;
    cache->arena = arena;
    cache->input = arena;
    cache->spare = arena + block_size;
    for (int i = 0; i < cache->slot_count; ++i)
        cache->slots[i].data = arena + (size_t)(i + 2) * block_size;
    return 0;
}

void blockcache_release(struct blockcache* cache)
{
    if (cache->arena)
        munmap(cache->arena, cache->arena_size);
    cache->arena = NULL;
}

struct slot* blockcache_find(struct blockcache* cache, fuse_ino_t ino, uint64_t block)
{
    for (int i = 0; i < cache->slot_count; ++i) {
        struct slot* slot = &cache->slots[i];
        if (slot->state != SLOT_FREE && slot->ino == ino && slot->block == block)
            return slot;
    }
    return NULL;
}

struct slot* blockcache_claim(struct blockcache* cache, fuse_ino_t ino, uint64_t block)
{
    struct slot* oldest = NULL;
    for (int i = 0; i < cache->slot_count; ++i) {
        struct slot* slot = &cache->slots[i];
        if (slot->state != SLOT_BUSY && slot->pins == 0 && (!oldest || slot->used < oldest->used))
            oldest = slot;
    }
    if (oldest)
        *oldest = (struct slot){ino, block, SLOT_BUSY, 0, ++cache->clock, 0, oldest->data};
    return oldest;
}

void blockcache_fill(struct slot* slot, int failed, size_t size)
{
    slot->state = failed ? SLOT_FREE : SLOT_READY;
    slot->size = size;
    slot->pins += !failed;
}

void blockcache_use(struct blockcache* cache, struct slot* slot)
{
    slot->pins++;
    slot->used = ++cache->clock;
}
