/* The read-ahead's block slots: how many a block size gets, where their
 * buffers lie, and which slot a claim takes as blocks are filled, pinned,
 * used and let go. */
#include "blockcache.h"

#include "harness.h"

/* The slots a block size gets: as many as fit in SLOT_BYTES, within bounds. */
static const struct size_row {
    const char* name;
    size_t block_size;
    int slots;
} g_sizes[] = {
    {"4 KiB blocks: the most slots", 4096, MOST_SLOTS},
    {"128 KiB blocks, squashfs' default: the most slots", 128 << 10, MOST_SLOTS},
    {"256 KiB blocks fill SLOT_BYTES exactly", 256 << 10, 16},
    {"512 KiB blocks", 512 << 10, 8},
    {"1 MiB blocks, squashfs' largest: the least slots", 1 << 20, LEAST_SLOTS},
    {"3 MiB blocks: still the least slots", 3 << 20, LEAST_SLOTS},
};

static void run_size(const struct size_row* row)
{
    struct blockcache cache = {0};
    CHECK(blockcache_init(&cache, row->block_size) == 0);
    int slots = cache.slot_count;
    /* Every buffer a block long and apart from the others: each keeps its own mark. */
    char* buffers[MOST_SLOTS + 2] = {cache.input, cache.spare};
    int count = 2;
    for (int i = 0; i < slots && i < MOST_SLOTS; ++i)
        buffers[count++] = cache.slots[i].data;
    int inside = 1;
    for (int i = 0; i < count; ++i) {
        inside &= buffers[i] >= cache.arena && buffers[i] + row->block_size <= cache.arena + cache.arena_size;
        if (inside)
            memset(buffers[i], 'a' + i, row->block_size);
    }
    int kept = inside;
    for (int i = 0; kept && i < count; ++i)
        kept = buffers[i][0] == 'a' + i && buffers[i][row->block_size - 1] == 'a' + i;
    blockcache_release(&cache);
    CHECK(slots == row->slots);
    CHECK(inside);
    CHECK(kept);
}

/* One step on a cache of four slots (1 MiB blocks). FILL, UNPIN and USE act
 * on the slot blockcache_find gives for the block. */
enum op { END, CLAIM, FILL, FAIL, UNPIN, USE, FIND };
enum { NONE, BUSY, READY }; /* what FIND expects */
struct step {
    enum op op;
    fuse_ino_t ino;
    uint64_t block;
    int expect; /* CLAIM: 1 for a slot, 0 for NULL; FIND: NONE, BUSY or READY */
};
#define CLAIMED(ino, block) {CLAIM, ino, block, 1}
#define REFUSED(ino, block) {CLAIM, ino, block, 0}
#define FILLED(ino, block) {FILL, ino, block, 0}
#define FAILED(ino, block) {FAIL, ino, block, 0}
#define UNPINNED(ino, block) {UNPIN, ino, block, 0}
#define USED(ino, block) {USE, ino, block, 0}
#define FOUND(ino, block, state) {FIND, ino, block, state}
/* Blocks 0 to 3 of the file claimed, filled and let go, in that order. */
#define READY4(ino)                                                                                                  \
    CLAIMED(ino, 0), FILLED(ino, 0), UNPINNED(ino, 0), CLAIMED(ino, 1), FILLED(ino, 1), UNPINNED(ino, 1),         \
        CLAIMED(ino, 2), FILLED(ino, 2), UNPINNED(ino, 2), CLAIMED(ino, 3), FILLED(ino, 3), UNPINNED(ino, 3)

static const struct steps_row {
    const char* name;
    struct step steps[32];
} g_steps[] = {
    {"claims take every slot, then none",
     {CLAIMED(1, 0), CLAIMED(1, 1), CLAIMED(1, 2), CLAIMED(1, 3), REFUSED(1, 4), FOUND(1, 4, NONE)}},
    {"a claimed block is busy, then ready when filled",
     {CLAIMED(1, 7), FOUND(1, 7, BUSY), FILLED(1, 7), FOUND(1, 7, READY)}},
    {"filled blocks stay pinned until let go",
     {CLAIMED(1, 0), FILLED(1, 0), CLAIMED(1, 1), FILLED(1, 1), CLAIMED(1, 2), FILLED(1, 2), CLAIMED(1, 3),
      FILLED(1, 3), REFUSED(1, 9), UNPINNED(1, 2), CLAIMED(1, 9), FOUND(1, 2, NONE), FOUND(1, 9, BUSY),
      FOUND(1, 0, READY)}},
    {"the block longest unused goes first",
     {READY4(1), CLAIMED(2, 0), FOUND(1, 0, NONE), FOUND(1, 1, READY), CLAIMED(2, 1), FOUND(1, 1, NONE),
      FOUND(1, 2, READY), FOUND(1, 3, READY), FOUND(2, 0, BUSY)}},
    {"a use makes a block the newest",
     {READY4(1), USED(1, 0), UNPINNED(1, 0), USED(1, 1), UNPINNED(1, 1), CLAIMED(2, 0), FOUND(1, 2, NONE),
      CLAIMED(2, 1), FOUND(1, 3, NONE), CLAIMED(2, 2), FOUND(1, 0, NONE), FOUND(1, 1, READY)}},
    {"a block being read is kept though oldest",
     {CLAIMED(1, 0), FILLED(1, 0), CLAIMED(1, 1), FILLED(1, 1), UNPINNED(1, 1), CLAIMED(1, 2), FILLED(1, 2),
      UNPINNED(1, 2), CLAIMED(1, 3), FILLED(1, 3), UNPINNED(1, 3), CLAIMED(2, 0), FOUND(1, 0, READY),
      FOUND(1, 1, NONE)}},
    {"a use pins: a used block outlives older ones",
     {READY4(1), USED(1, 3), CLAIMED(2, 0), CLAIMED(2, 1), CLAIMED(2, 2), REFUSED(2, 3),
      FOUND(1, 3, READY)}},
    {"two readers pin twice: one letting go keeps it",
     {READY4(1), USED(1, 0), USED(1, 0), UNPINNED(1, 0), CLAIMED(2, 0), CLAIMED(2, 1), CLAIMED(2, 2),
      REFUSED(2, 3), FOUND(1, 0, READY)}},
    {"a failed block is gone and its slot free again",
     {CLAIMED(1, 0), FAILED(1, 0), FOUND(1, 0, NONE), CLAIMED(1, 1), CLAIMED(1, 2), CLAIMED(1, 3),
      CLAIMED(1, 4), REFUSED(1, 5)}},
    {"a busy slot is never taken",
     {CLAIMED(1, 0), CLAIMED(1, 1), FILLED(1, 1), UNPINNED(1, 1), CLAIMED(1, 2), FILLED(1, 2), UNPINNED(1, 2),
      CLAIMED(1, 3), FILLED(1, 3), UNPINNED(1, 3), CLAIMED(2, 0), CLAIMED(2, 1), CLAIMED(2, 2),
      REFUSED(2, 3), FOUND(1, 0, BUSY)}},
    {"a block is told apart by file and number",
     {CLAIMED(1, 5), FILLED(1, 5), FOUND(2, 5, NONE), FOUND(1, 6, NONE), FOUND(1, 5, READY)}},
    {"the filler's pin and a reader's add up",
     {CLAIMED(1, 0), FILLED(1, 0), CLAIMED(1, 1), FILLED(1, 1), CLAIMED(1, 2), FILLED(1, 2), CLAIMED(1, 3),
      FILLED(1, 3), USED(1, 0), UNPINNED(1, 0), REFUSED(2, 0), UNPINNED(1, 0), CLAIMED(2, 0),
      FOUND(1, 0, NONE)}},
};

static void run_steps(const struct steps_row* row)
{
    struct blockcache cache = {0};
    CHECK(blockcache_init(&cache, 1 << 20) == 0 && cache.slot_count == 4);
    int failed = -1;
    for (int n = 0; failed < 0 && n < 32 && row->steps[n].op != END; ++n) {
        const struct step* step = &row->steps[n];
        struct slot* slot = blockcache_find(&cache, step->ino, step->block);
        switch (step->op) {
        case CLAIM:
            slot = blockcache_claim(&cache, step->ino, step->block);
            /* A claimed slot holds the block, busy, and nobody reads it yet. */
            if ((slot != NULL) != step->expect
                || (slot && (slot->state != SLOT_BUSY || slot->ino != step->ino || slot->block != step->block
                             || slot->pins != 0 || blockcache_find(&cache, step->ino, step->block) != slot)))
                failed = n;
            break;
        case FILL:
        case FAIL:
            if (!slot || slot->state != SLOT_BUSY)
                failed = n;
            else
                blockcache_fill(slot, step->op == FAIL, 1000);
            /* A good block is pinned for its decompressor; a failed one is free and unpinned. */
            if (slot && !(step->op == FILL ? slot->state == SLOT_READY && slot->size == 1000 && slot->pins == 1
                                           : slot->state == SLOT_FREE && slot->pins == 0))
                failed = n;
            break;
        case UNPIN:
            if (!slot || slot->pins <= 0)
                failed = n;
            else
                slot->pins--;
            break;
        case USE:
            if (!slot || slot->state != SLOT_READY)
                failed = n;
            else
                blockcache_use(&cache, slot);
            break;
        case FIND:
            if ((step->expect == NONE) != (slot == NULL) || (step->expect == BUSY && slot->state != SLOT_BUSY)
                || (step->expect == READY && slot->state != SLOT_READY))
                failed = n;
            break;
        case END:
            break;
        }
    }
    blockcache_release(&cache);
    CHECK_STEP(failed < 0, failed);
}

int main(void)
{
    RUN_TABLE(g_sizes, run_size);
    RUN_TABLE(g_steps, run_steps);
    return finish("tst_blockcache");
}
