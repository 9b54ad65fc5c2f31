/* The read-ahead's block slots: how many, where their buffers lie, which a claim takes as blocks come and go. */
#include "blockcache.h"

#include "harness.h"

/* The slots a block size gets: as many as fit in SLOT_BYTES, within bounds. */
static const struct size_row { const char* name; size_t block_size; int slots; } g_sizes[] = {
    {"4 KiB blocks: the most slots", 4 << 10, MOST_SLOTS},
    {"512 KiB blocks: as many as fit", 512 << 10, 8},
    {"3 MiB blocks: the least slots", 3 << 20, LEAST_SLOTS},
};

static void run_size(const struct size_row* row)
{
    struct blockcache cache = {0};
    CHECK(blockcache_init(&cache, row->block_size) == 0);
    /* Every buffer a block long inside the arena and apart from the others: each keeps its own mark. */
    char* buffers[MOST_SLOTS + 2] = {cache.input, cache.spare};
    int count = 2, inside = 1, kept = 1, slots = cache.slot_count;
    for (int i = 0; i < slots && i < MOST_SLOTS; ++i)
        buffers[count++] = cache.slots[i].data;
    for (int i = 0; inside && i < count; ++i)
        if ((inside = buffers[i] >= cache.arena && buffers[i] + row->block_size <= cache.arena + cache.arena_size))
            memset(buffers[i], 'a' + i, row->block_size);
    for (int i = 0; inside && i < count; ++i)
        kept &= buffers[i][0] == 'a' + i && buffers[i][row->block_size - 1] == 'a' + i;
    blockcache_release(&cache);
    CHECK(slots == row->slots && inside && kept);
}

/* Steps on a cache of four slots (1 MiB blocks); all but CLAIM act on the slot blockcache_find gives. */
enum op { END, CLAIM, FILL, FAIL, UNPIN, USE, FIND };
enum { NONE = -1, BUSY = SLOT_BUSY, READY = SLOT_READY }; /* what FIND expects */
#define CLAIMED(ino, block) {CLAIM, ino, block, 1}
#define REFUSED(ino, block) {CLAIM, ino, block, 0}
#define FILLED(ino, block) {FILL, ino, block}
#define FAILED(ino, block) {FAIL, ino, block}
#define UNPINNED(ino, block) {UNPIN, ino, block}
#define USED(ino, block) {USE, ino, block}
#define FOUND(ino, block, state) {FIND, ino, block, state}
#define READIED(ino, block) CLAIMED(ino, block), FILLED(ino, block), UNPINNED(ino, block)

/* expect: for CLAIM 1 for a slot, 0 for NULL; for FIND NONE, BUSY or READY. */
static const struct steps_row {
    const char* name;
    struct step { enum op op; fuse_ino_t ino; uint64_t block; int expect; } steps[24];
} g_steps[] = {
    {"a claimed block is busy, then ready; found by file and number; busy slots never taken",
     {CLAIMED(1, 5), FOUND(1, 5, BUSY), FILLED(1, 5), FOUND(1, 5, READY), UNPINNED(1, 5), FOUND(2, 5, NONE),
      FOUND(1, 6, NONE), CLAIMED(1, 0), CLAIMED(1, 1), CLAIMED(1, 2), CLAIMED(1, 3), REFUSED(1, 4),
      FOUND(1, 5, NONE), FOUND(1, 0, BUSY)}},
    {"the filler's pin and each reader's keep a block until all let go",
     {CLAIMED(1, 0), FILLED(1, 0), USED(1, 0), READIED(1, 1), READIED(1, 2), READIED(1, 3), UNPINNED(1, 0),
      CLAIMED(2, 0), CLAIMED(2, 1), CLAIMED(2, 2), REFUSED(2, 3), FOUND(1, 0, READY), UNPINNED(1, 0),
      CLAIMED(2, 3), FOUND(1, 0, NONE)}},
    {"the block longest unused goes first; a use makes it the newest",
     {READIED(1, 0), READIED(1, 1), READIED(1, 2), READIED(1, 3), USED(1, 0), UNPINNED(1, 0), CLAIMED(2, 0),
      FOUND(1, 1, NONE), FOUND(1, 0, READY), CLAIMED(2, 1), FOUND(1, 2, NONE), FOUND(1, 3, READY)}},
    {"a failed block is gone and its slot free again",
     {CLAIMED(1, 0), FAILED(1, 0), FOUND(1, 0, NONE), CLAIMED(1, 1), CLAIMED(1, 2), CLAIMED(1, 3), CLAIMED(1, 4),
      REFUSED(1, 5)}},
};

static void run_steps(const struct steps_row* row)
{
    struct blockcache cache = {0};
    CHECK(blockcache_init(&cache, 1 << 20) == 0 && cache.slot_count == 4);
    int n = 0, ok = 1;
    for (const struct step* step = row->steps; ok && n < 24 && step->op != END; ++step, ++n) {
        struct slot* slot = step->op == CLAIM ? blockcache_claim(&cache, step->ino, step->block)
                                              : blockcache_find(&cache, step->ino, step->block);
        switch (step->op) {
        case CLAIM: /* a claimed slot holds the block, busy, and nobody reads it yet */
            ok = slot ? step->expect && slot->state == SLOT_BUSY && slot->pins == 0
                            && blockcache_find(&cache, step->ino, step->block) == slot
                      : !step->expect;
            break;
        case FIND: ok = (slot ? (int)slot->state : NONE) == step->expect; break;
        case UNPIN: ok = slot && slot->pins-- > 0; break;
        case USE: ok = slot && slot->state == SLOT_READY && (blockcache_use(&cache, slot), 1); break;
        default: /* a good block is pinned for its decompressor; a failed one is free and unpinned */
            ok = slot && slot->state == SLOT_BUSY && (blockcache_fill(slot, step->op == FAIL, 1000), 1)
                 && (step->op == FAIL ? slot->state == SLOT_FREE && slot->pins == 0
                                      : slot->state == SLOT_READY && slot->size == 1000 && slot->pins == 1);
        }
    }
    blockcache_release(&cache);
    CHECK_STEP(ok, n - 1);
}

int main(void)
{
    RUN_TABLE(g_sizes, run_size);
    RUN_TABLE(g_steps, run_steps);
    return finish("tst_blockcache");
}
