/* The read-ahead's queue: which files, in what order jobs and blocks go out, files done, a file's listed blocks. */
#include "readqueue.h"

#include "harness.h"

#include <stdbool.h>
#include <zlib.h>

enum { BLOCK = 4096 };

/* Steps on a queue; sizes in bytes, blocks of BLOCK bytes. */
enum op { END, ADD, ADD_MANY, TAKE, TAKE_NEXT, NEXT, HOT, FINISH };
#define ADDED(ino, size) {ADD, ino, size, 1}
#define REFUSED(ino, size) {ADD, ino, size, 0}
#define ADDED_MANY(ino, count) {ADD_MANY, ino, count, 0} /* count files from ino on, each queued */
#define CYCLED_MANY(ino, count) {ADD_MANY, ino, count, 1} /* each also finished */
#define TAKEN(ino, block) {TAKE, ino, block, 1}
#define NOT_TAKEN(ino, block) {TAKE, ino, block, 0}
#define GIVES(ino, block) {TAKE_NEXT, ino, block, 1}
#define GIVES_NOTHING(ino) {TAKE_NEXT, ino, UINT64_MAX, 0} /* and the file is finished */
#define NEXT_IS(ino) {NEXT, 0, ino}
#define MADE_HOT(ino) {HOT, ino}
#define FINISHED(ino) {FINISH, ino}

/* value: the size, number of files, block or next file; expect: the result, or for ADD_MANY 1 to finish each. */
static const struct steps_row {
    const char* name;
    struct step { enum op op; fuse_ino_t ino; uint64_t value; int expect; } steps[20];
} g_steps[] = {
    {"an empty file, a byte past READQUEUE_BIGGEST and a file queued already are refused",
     {REFUSED(1, 0), ADDED(1, READQUEUE_BIGGEST), REFUSED(2, READQUEUE_BIGGEST + 1), REFUSED(1, 10)}},
    {"a file finished or drained is not queued again",
     {ADDED(1, BLOCK), FINISHED(1), REFUSED(1, BLOCK), ADDED(2, 1), GIVES(2, 0), GIVES_NOTHING(2), REFUSED(2, 1)}},
    {"a block of a queued file is taken once, none past its end; blocks taken are skipped",
     {ADDED(1, 9 * BLOCK), ADDED(2, BLOCK), TAKEN(1, 8), NOT_TAKEN(1, 8), NOT_TAKEN(1, 9), NOT_TAKEN(1, UINT64_MAX),
      NOT_TAKEN(9, 0), TAKEN(2, 0), TAKEN(1, 1), TAKEN(1, 0), GIVES(1, 2), NOT_TAKEN(1, 2), GIVES(1, 3), GIVES(1, 4),
      GIVES(1, 5), GIVES(1, 6), GIVES(1, 7), GIVES_NOTHING(1)}},
    {"the hot file first, else the one queued first; finishing keeps the order",
     {ADDED(1, 1), ADDED(2, 1), ADDED(3, 1), ADDED(4, 1), NEXT_IS(1), MADE_HOT(3), NEXT_IS(3), FINISHED(3),
      NEXT_IS(1), FINISHED(1), NEXT_IS(2), FINISHED(2), NEXT_IS(4)}},
    {"a full queue lets files go until one finishes",
     {ADDED_MANY(100, QUEUED_FILES), REFUSED(1, 1), FINISHED(130), ADDED(1, 1), REFUSED(2, 1), NEXT_IS(100)}},
    {"a file done is remembered for DONE_FILES more, the list wrapping round",
     {ADDED(1, 1), FINISHED(1), CYCLED_MANY(100, DONE_FILES - 1), REFUSED(1, 1), REFUSED(100 + DONE_FILES - 2, 1),
      CYCLED_MANY(1000, DONE_FILES + 5), ADDED(1, 1), ADDED(1004, 1), REFUSED(1005, 1)}},
};

static void run_steps(const struct steps_row* row)
{
    struct readqueue queue = {0};
    int n = 0, ok = 1;
    for (const struct step* step = row->steps; ok && n < 20 && step->op != END; ++step, ++n) {
        struct readjob* job = readqueue_find(&queue, step->ino);
        sqfs_inode inode = {0};
        inode.xtra.reg.file_size = step->op == ADD_MANY ? 100 : step->value;
        uint64_t block = UINT64_MAX;
        switch (step->op) {
        case ADD:
            ok = readqueue_add(&queue, step->ino, &inode, BLOCK) == step->expect
                 && (readqueue_find(&queue, step->ino) != NULL) >= step->expect;
            break;
        case ADD_MANY:
            for (fuse_ino_t ino = step->ino; ok && ino < step->ino + step->value; ++ino)
                if ((ok = readqueue_add(&queue, ino, &inode, BLOCK) == 1) && step->expect)
                    readqueue_finish(&queue, readqueue_find(&queue, ino));
            break;
        case TAKE: ok = readqueue_take(job, step->value) == step->expect; break;
        case TAKE_NEXT:
            ok = job && readqueue_take_next(&queue, job, &block) == step->expect && block == step->value
                 && (step->expect || !readqueue_find(&queue, step->ino));
            break;
        case NEXT: ok = queue.count > 0 && readqueue_next(&queue)->ino == step->value; break;
        case HOT: queue.hot = step->ino; break;
        default: ok = job && (readqueue_finish(&queue, job), !readqueue_find(&queue, step->ino));
        }
    }
    readqueue_release(&queue);
    CHECK_STEP(ok, n - 1);
}

/* Every block of a file handed out once, the last part first and the head last, however many it has. */
static const struct order_row { const char* name; uint64_t size, blocks, first; } g_orders[] = {
    {"a byte: one block", 1, 1, 0},
    {"3 whole blocks: the last one first", 3 * BLOCK, 3, 2},
    {"a byte past 16 blocks: the last two first", 16 * BLOCK + 1, 17, 15},
    {"READQUEUE_BIGGEST: the last eighth first", READQUEUE_BIGGEST, READQUEUE_BIGGEST / BLOCK, 3584},
};

static void run_order(const struct order_row* row)
{
    struct readqueue queue = {0};
    sqfs_inode inode = {0};
    inode.xtra.reg.file_size = row->size;
    uint64_t given = 0, first = UINT64_MAX, last = UINT64_MAX, block;
    unsigned char* seen = calloc(row->blocks, 1);
    int twice = 0, queued = seen && readqueue_add(&queue, 7, &inode, BLOCK) == 1;
    struct readjob* job = readqueue_find(&queue, 7);
    while (queued && job && given <= row->blocks && readqueue_take_next(&queue, job, &block)) {
        twice |= block >= row->blocks || seen[block]++;
        first = given++ ? first : block;
        last = block;
    }
    int finished = !readqueue_find(&queue, 7);
    readqueue_release(&queue);
    free(seen);
    CHECK(queued && job && finished && !twice && given == row->blocks);
    CHECK(first == row->first && last == 0);
}

/* Blocks listed from an image made after offset bytes, as an AppImage's runtime comes first: each must be there. */
static const struct image_row {
    const char *name, *options; size_t offset, size; uint64_t holes, raw, compressed;
} g_images[] = {
    {"after a runtime's bytes: a hole, raw and compressed blocks, the tail in a fragment",
     "-comp gzip -always-use-fragments", 12345, 7 * BLOCK + 1000, 1, 3, 3},
    {"a file all in its fragment lists no blocks", "-noD", 0, 100, 0, 0, 0},
};

/* What the listed block i holds, as the reads find it: 'h'ole, 'r'aw, 'c'ompressed; 0 when not the content. */
static char check_block(int fd, const struct readjob* job, uint64_t i, const unsigned char* expected, uLongf length)
{
    uint32_t stored = job->words[i] & ~SQUASHFS_COMPRESSED_BIT_BLOCK, raw = job->words[i] != stored;
    unsigned char bytes[2 * BLOCK] = {0}, plain[BLOCK];
    uLongf size = sizeof plain;
    if (stored > sizeof bytes || pread(fd, bytes, stored, (off_t)job->places[i]) != (ssize_t)stored)
        return 0;
    if (!stored || raw) /* a hole reads as zeros, as bytes holds */
        return (!raw || stored == length) && memcmp(bytes, expected, length) == 0 ? (raw ? 'r' : 'h') : 0;
    int same = uncompress(plain, &size, bytes, stored) == Z_OK && size == length && !memcmp(plain, expected, length);
    return same ? 'c' : 0;
}

static void run_image(const struct image_row* row)
{
    if (system("command -v mksquashfs >/dev/null") != 0)
        return (void)printf("skip %s: no mksquashfs (Debian package squashfs-tools)\n", row->name);
    const char* base = getenv("TMPDIR");
    char dir[4096], file[4200], image[4200], command[8600];
    snprintf(dir, sizeof dir, "%s/tst_readqueue-XXXXXX", base && *base ? base : "/tmp");
    CHECK(mkdtemp(dir));
    snprintf(file, sizeof file, "%s/file", dir);
    snprintf(image, sizeof image, "%s/image", dir);
    snprintf(command, sizeof command, "mksquashfs '%s' '%s' -noappend -quiet -no-progress -all-root -b %d -o %zu %s",
             file, image, BLOCK, row->offset, row->options);
    /* Block 2 all zeros (a hole), even blocks text that compresses, odd ones noise that does not. */
    unsigned char* content = malloc(row->size);
    uint32_t state = 2463534242u;
    for (size_t i = 0; content && i < row->size; ++i) {
        state ^= state << 13, state ^= state >> 17, state ^= state << 5;
        content[i] = i / BLOCK == 2 ? 0 : i / BLOCK % 2 ? (unsigned char)state : (unsigned char)"text "[i % 5];
    }
    FILE* stream = fopen(file, "w");
    int made = content && stream && fwrite(content, row->size, 1, stream) == 1;
    made = stream && fclose(stream) == 0 && made && system(command) == 0;
    int fd = made ? open(image, O_RDONLY | O_CLOEXEC) : -1;
    sqfs fs;
    sqfs_inode inode;
    bool found = false;
    struct readqueue queue = {0};
    int opened = fd >= 0 && sqfs_init(&fs, fd, row->offset) == SQFS_OK;
    int looked_up = opened && sqfs_inode_get(&fs, &inode, sqfs_inode_root(&fs)) == SQFS_OK
                    && sqfs_lookup_path(&fs, &inode, "file", &found) == SQFS_OK && found && fs.sb.block_size == BLOCK;
    struct readjob* job = looked_up && readqueue_add(&queue, 2, &inode, BLOCK) ? readqueue_find(&queue, 2) : NULL;
    int listed = job && readqueue_list_blocks(job, &fs) == 0;
    uint64_t kinds['r' + 1] = {0};
    for (uint64_t i = 0; listed && i < job->listed; ++i) {
        size_t length = row->size - i * BLOCK < BLOCK ? row->size - i * BLOCK : BLOCK;
        kinds[(unsigned char)check_block(fd, job, i, content + i * BLOCK, length)]++;
    }
    readqueue_release(&queue);
    if (opened)
        sqfs_destroy(&fs);
    free(content), close(fd), unlink(file), unlink(image), rmdir(dir);
    CHECK(made && opened && looked_up && job && listed);
    CHECK(kinds[0] == 0); /* no listed block holds other bytes */
    CHECK(kinds['h'] == row->holes && kinds['r'] == row->raw && kinds['c'] == row->compressed);
}

int main(void)
{
    RUN_TABLE(g_steps, run_steps);
    RUN_TABLE(g_orders, run_order);
    RUN_TABLE(g_images, run_image);
    return finish("tst_readqueue");
}
