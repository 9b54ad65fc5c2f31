#pragma once

/* The blocks the read-ahead thread and the serving thread decompress into,
 * kept so that no block is decompressed twice: a few slots of one block
 * each, in one mapping with the thread's input buffer and the serving
 * thread's spare. All but init and release are called under the
 * read-ahead's lock, which guards every slot. */

/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include <stddef.h>
#include <stdint.h>

enum {
    /* Enough for the reads already on their way when the thread stored
     * their pages; at most 4 MiB of them, all filled in at the start. */
    MOST_SLOTS = 16,
    LEAST_SLOTS = 4,
    SLOT_BYTES = 4 << 20,
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

struct blockcache {
    size_t block_size;
    char* arena;
    size_t arena_size;
    char* input; /* the thread's compressed bytes */
    char* spare; /* the serving thread's, when every slot is in use */
    struct slot slots[MOST_SLOTS];
    int slot_count;
    uint64_t clock;
};

/* Maps the slots and buffers for blocks of block_size; -1 when it cannot. */
int blockcache_init(struct blockcache* cache, size_t block_size);
void blockcache_release(struct blockcache* cache);

/* The slot holding or being filled with the block, or NULL. */
struct slot* blockcache_find(struct blockcache* cache, fuse_ino_t ino, uint64_t block);
/* A slot marked busy with the block, the one longest unused; NULL when every
 * one is busy or being read. */
struct slot* blockcache_claim(struct blockcache* cache, fuse_ino_t ino, uint64_t block);
/* Ends the busy state; a good block is pinned for its decompressor. */
void blockcache_fill(struct slot* slot, int failed, size_t size);
/* Pins a slot found ready, as the one used last. */
void blockcache_use(struct blockcache* cache, struct slot* slot);
