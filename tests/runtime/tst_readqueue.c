/* The files waiting to be read ahead: which are queued, in what order jobs
 * and their blocks are handed out, the files done lately, and the list of a
 * file's blocks read from a squashfs image made here with mksquashfs. */
#include "readqueue.h"

#include "harness.h"

#include <spawn.h>
#include <stdbool.h>
#include <sys/wait.h>
#include <zlib.h>

extern char** environ;

enum { BLOCK = 4096 };

/* One step on a queue; sizes in bytes, blocks of BLOCK bytes. */
enum op { END, ADD, ADD_MANY, CYCLE_MANY, TAKE, TAKE_NEXT, DRAINED, NEXT, HOT, FINISH, QUEUED };
struct step {
    enum op op;
    fuse_ino_t ino;
    uint64_t value; /* ADD: size; *_MANY: files; TAKE, TAKE_NEXT: block; NEXT: ino; QUEUED: count */
    int expect;     /* ADD, TAKE: the result */
};
#define ADDED(ino, size) {ADD, ino, size, 1}
#define REFUSED(ino, size) {ADD, ino, size, 0}
/* count files from ino on, each queued; CYCLE_MANY also finishes each. */
#define ADDED_MANY(ino, count) {ADD_MANY, ino, count, 1}
#define CYCLED_MANY(ino, count) {CYCLE_MANY, ino, count, 1}
#define TAKEN(ino, block) {TAKE, ino, block, 1}
#define NOT_TAKEN(ino, block) {TAKE, ino, block, 0}
#define GIVES(ino, block) {TAKE_NEXT, ino, block, 1}
#define GIVES_NOTHING(ino) {DRAINED, ino, 0, 0}
#define NEXT_IS(ino) {NEXT, 0, ino, 0}
#define MADE_HOT(ino) {HOT, ino, 0, 0}
#define FINISHED(ino) {FINISH, ino, 0, 0}
#define COUNT(count) {QUEUED, 0, count, 0}

static const struct steps_row {
    const char* name;
    struct step steps[24];
} g_steps[] = {
    {"an empty file is not queued", {REFUSED(1, 0), COUNT(0)}},
    {"a file of READQUEUE_BIGGEST is queued, a byte more is not",
     {ADDED(1, READQUEUE_BIGGEST), REFUSED(2, READQUEUE_BIGGEST + 1), COUNT(1)}},
    {"a file queued is not queued twice", {ADDED(1, 10), REFUSED(1, 10), COUNT(1)}},
    {"a file finished is not queued again", {ADDED(1, 2 * BLOCK), FINISHED(1), COUNT(0), REFUSED(1, 2 * BLOCK)}},
    {"a file drained is finished and not queued again",
     {ADDED(1, 1), GIVES(1, 0), GIVES_NOTHING(1), COUNT(0), REFUSED(1, 1)}},
    {"a byte short of a block is one block", {ADDED(1, BLOCK - 1), GIVES(1, 0), GIVES_NOTHING(1)}},
    {"a whole block is one block", {ADDED(1, BLOCK), GIVES(1, 0), GIVES_NOTHING(1)}},
    {"a byte past a block is two blocks", {ADDED(1, BLOCK + 1), GIVES(1, 1), GIVES(1, 0), GIVES_NOTHING(1)}},
    {"a block is taken once; none past the end, none of a file not queued",
     {ADDED(1, 3 * BLOCK), TAKEN(1, 2), NOT_TAKEN(1, 2), NOT_TAKEN(1, 3), NOT_TAKEN(1, UINT64_MAX), NOT_TAKEN(9, 0)}},
    {"blocks taken by the reads are skipped",
     {ADDED(1, 9 * BLOCK), TAKEN(1, 8), TAKEN(1, 1), TAKEN(1, 0), GIVES(1, 2), GIVES(1, 3), GIVES(1, 4), GIVES(1, 5),
      GIVES(1, 6), GIVES(1, 7), GIVES_NOTHING(1)}},
    {"a block given out is taken", {ADDED(1, 2 * BLOCK), GIVES(1, 1), NOT_TAKEN(1, 1), TAKEN(1, 0), GIVES_NOTHING(1)}},
    {"each file has its own blocks", {ADDED(1, 2 * BLOCK), ADDED(2, 2 * BLOCK), TAKEN(1, 0), TAKEN(2, 0)}},
    {"16 blocks: the last eighth first, then from the second, the head last",
     {ADDED(1, 16 * BLOCK), GIVES(1, 14), GIVES(1, 15), GIVES(1, 1), GIVES(1, 2), GIVES(1, 3), GIVES(1, 4),
      GIVES(1, 5), GIVES(1, 6), GIVES(1, 7), GIVES(1, 8), GIVES(1, 9), GIVES(1, 10), GIVES(1, 11), GIVES(1, 12),
      GIVES(1, 13), GIVES(1, 0), GIVES_NOTHING(1)}},
    {"3 blocks: the last one first", {ADDED(1, 3 * BLOCK), GIVES(1, 2), GIVES(1, 1), GIVES(1, 0), GIVES_NOTHING(1)}},
    {"no file hot: the one queued first",
     {ADDED(1, 1), ADDED(2, 1), ADDED(3, 1), NEXT_IS(1), MADE_HOT(2), NEXT_IS(2), MADE_HOT(9), NEXT_IS(1)}},
    {"a hot file finished: the one queued first again",
     {ADDED(1, 1), ADDED(2, 1), MADE_HOT(2), FINISHED(2), NEXT_IS(1), COUNT(1)}},
    {"finishing keeps the others in order",
     {ADDED(1, 1), ADDED(2, 1), ADDED(3, 1), ADDED(4, 1), ADDED(5, 1), FINISHED(1), NEXT_IS(2), FINISHED(3),
      FINISHED(2), NEXT_IS(4), FINISHED(4), NEXT_IS(5), COUNT(1)}},
    {"a full queue lets files go until one finishes",
     {ADDED_MANY(100, QUEUED_FILES), COUNT(QUEUED_FILES), REFUSED(1, 1), FINISHED(130), ADDED(1, 1),
      COUNT(QUEUED_FILES), REFUSED(2, 1), NEXT_IS(100)}},
    {"a file done is remembered for DONE_FILES more",
     {ADDED(1, 1), FINISHED(1), CYCLED_MANY(100, DONE_FILES - 1), REFUSED(1, 1), CYCLED_MANY(1000, 1), ADDED(1, 1)}},
    {"the done files wrap round more than once",
     {CYCLED_MANY(100, 2 * DONE_FILES + 5), REFUSED(100 + 2 * DONE_FILES, 1), ADDED(100 + DONE_FILES + 4, 1)}},
};

static void run_steps(const struct steps_row* row)
{
    struct readqueue queue = {0};
    int failed = -1;
    for (int n = 0; failed < 0 && n < 24 && row->steps[n].op != END; ++n) {
        const struct step* step = &row->steps[n];
        struct readjob* job = readqueue_find(&queue, step->ino);
        sqfs_inode inode;
        memset(&inode, 0, sizeof inode);
        inode.xtra.reg.file_size = step->value;
        uint64_t block = UINT64_MAX;
        switch (step->op) {
        case ADD:
            failed = readqueue_add(&queue, step->ino, &inode, BLOCK) == step->expect
                             && (readqueue_find(&queue, step->ino) != NULL) >= step->expect
                         ? -1
                         : n;
            break;
        case ADD_MANY:
        case CYCLE_MANY:
            inode.xtra.reg.file_size = 100;
            for (fuse_ino_t ino = step->ino; failed < 0 && ino < step->ino + step->value; ++ino) {
                if (readqueue_add(&queue, ino, &inode, BLOCK) != 1)
                    failed = n;
                else if (step->op == CYCLE_MANY)
                    readqueue_finish(&queue, readqueue_find(&queue, ino));
            }
            break;
        case TAKE:
            failed = readqueue_take(job, step->value) == step->expect ? -1 : n;
            break;
        case TAKE_NEXT:
            failed = job && readqueue_take_next(&queue, job, &block) == 1 && block == step->value ? -1 : n;
            break;
        case DRAINED:
            failed = job && readqueue_take_next(&queue, job, &block) == 0 && block == UINT64_MAX
                             && !readqueue_find(&queue, step->ino)
                         ? -1
                         : n;
            break;
        case NEXT:
            failed = queue.count > 0 && readqueue_next(&queue)->ino == step->value ? -1 : n;
            break;
        case HOT:
            queue.hot = step->ino;
            break;
        case FINISH:
            if (job)
                readqueue_finish(&queue, job);
            failed = job && !readqueue_find(&queue, step->ino) ? -1 : n;
            break;
        case QUEUED:
            failed = queue.count == step->value ? -1 : n;
            break;
        case END:
            break;
        }
    }
    readqueue_release(&queue);
    CHECK_STEP(failed < 0, failed);
    CHECK(queue.count == 0);
}

/* Every block of a file handed out once, the head last, however many it has. */
static const struct order_row {
    const char* name;
    uint64_t size;
} g_orders[] = {
    {"1 block", 1},
    {"2 blocks", 2 * BLOCK},
    {"7 blocks, a tail of one", 7 * BLOCK},
    {"8 blocks", 8 * BLOCK},
    {"9 blocks", 9 * BLOCK},
    {"17 blocks, the last part-filled", 16 * BLOCK + 1},
    {"100 blocks", 100 * BLOCK},
    {"READQUEUE_BIGGEST in 4 KiB blocks", READQUEUE_BIGGEST},
};

static void run_order(const struct order_row* row)
{
    struct readqueue queue = {0};
    sqfs_inode inode;
    memset(&inode, 0, sizeof inode);
    inode.xtra.reg.file_size = row->size;
    uint64_t blocks = (row->size + BLOCK - 1) / BLOCK, given = 0, last = UINT64_MAX, block;
    unsigned char* seen = calloc(blocks, 1);
    int twice = 0, queued = seen && readqueue_add(&queue, 7, &inode, BLOCK) == 1;
    struct readjob* job = readqueue_find(&queue, 7);
    while (queued && job && given <= blocks && readqueue_take_next(&queue, job, &block)) {
        twice |= block >= blocks || seen[block]++;
        last = block;
        given++;
    }
    int finished = !readqueue_find(&queue, 7);
    readqueue_release(&queue);
    free(seen);
    CHECK(queued && job);
    CHECK(!twice);
    CHECK(given == blocks);
    CHECK(last == 0);
    CHECK(finished);
}

/* The list of a file's blocks, read from an image mksquashfs makes with the
 * options, placed after offset other bytes. Each listed block must be there:
 * a hole of zeros, raw, or compressed with zlib. */
static const struct image_row {
    const char* name;
    const char* options[3];
    size_t offset;
    size_t size;
    uint64_t holes, raw, compressed; /* the blocks listed */
} g_images[] = {
    {"uncompressed blocks, the tail in a fragment", {"-noD", "-always-use-fragments"}, 0, 7 * BLOCK + 1000, 1, 6, 0},
    {"uncompressed blocks, the tail a block", {"-noD"}, 0, 7 * BLOCK + 1000, 1, 7, 0},
    {"compressed blocks, the tail in a fragment", {"-comp", "gzip", "-always-use-fragments"}, 0, 7 * BLOCK + 1000, 1, 3,
     3},
    {"compressed blocks, no fragments", {"-comp", "gzip", "-no-fragments"}, 0, 7 * BLOCK + 1000, 1, 4, 3},
    {"the image after a runtime's bytes", {"-comp", "gzip", "-always-use-fragments"}, 12345, 7 * BLOCK + 1000, 1, 3, 3},
    {"a file all in its fragment", {"-noD"}, 0, 100, 0, 0, 0},
    {"a file of one whole block", {"-noD"}, 4096, BLOCK, 0, 1, 0},
};

/* Block 2 all zeros (a hole), even blocks text that compresses, odd ones noise that does not. */
static void make_content(unsigned char* content, size_t size)
{
    uint32_t state = 2463534242u;
    for (size_t i = 0; i < size; ++i) {
        size_t block = i / BLOCK;
        state ^= state << 13, state ^= state >> 17, state ^= state << 5;
        content[i] = block == 2 ? 0 : block % 2 ? (unsigned char)state : (unsigned char)"squashfs block text "[i % 20];
    }
}

/* 0 when made, -1 when mksquashfs failed, -2 when there is none. */
static int run_mksquashfs(const char* from, const char* image, size_t offset, const char* const* options)
{
    /* -o: the image behind offset other bytes, as the runtime comes first in an AppImage. */
    char skip[32];
    snprintf(skip, sizeof skip, "%zu", offset);
    const char* argv[16] = {"mksquashfs", from, image, "-noappend", "-quiet", "-no-progress", "-all-root", "-b",
                            "4096", "-o", skip};
    int argc = 11;
    for (int i = 0; i < 3 && options[i]; ++i)
        argv[argc++] = options[i];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    int status = -1;
    int spawned = posix_spawnp(&pid, "mksquashfs", &actions, NULL, (char* const*)argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return -2;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : -1;
}

/* What the listed block i holds, as the reads will find it: 'h'ole, 'r'aw, 'c'ompressed; 0 when it is not the content. */
static char check_block(int fd, const struct readjob* job, uint64_t i, const unsigned char* expected, size_t length)
{
    uint32_t stored = job->words[i] & ~SQUASHFS_COMPRESSED_BIT_BLOCK;
    int is_raw = (job->words[i] & SQUASHFS_COMPRESSED_BIT_BLOCK) != 0;
    unsigned char bytes[2 * BLOCK], plain[BLOCK] = {0};
    uLongf plain_size = sizeof plain;
    if (stored == 0)
        plain_size = length;
    else if (stored > sizeof bytes || pread(fd, bytes, stored, (off_t)job->places[i]) != (ssize_t)stored)
        return 0;
    else if (is_raw)
        memcpy(plain, bytes, stored < sizeof plain ? stored : sizeof plain), plain_size = stored;
    else if (uncompress(plain, &plain_size, bytes, stored) != Z_OK)
        return 0;
    if (plain_size != length || memcmp(plain, expected, length) != 0)
        return 0;
    return stored == 0 ? 'h' : is_raw ? 'r' : 'c';
}

static void run_image(const struct image_row* row)
{
    char from[8192], file[8192], image[8192];
    snprintf(from, sizeof from, "%s", scratch_path("tree"));
    snprintf(file, sizeof file, "%s", scratch_path("tree/file"));
    snprintf(image, sizeof image, "%s", scratch_path("image.squashfs"));
    unsigned char* content = malloc(row->size);
    CHECK(content);
    make_content(content, row->size);
    int made = mkdir(from, 0700) == 0 && write_file(file, content, row->size) == 0
                   ? run_mksquashfs(from, image, row->offset, row->options)
                   : -1;
    unlink(file), rmdir(from);
    if (made == -2) {
        printf("skip %s: no mksquashfs (Debian package squashfs-tools)\n", row->name);
        free(content);
        return;
    }
    int fd = made == 0 ? open(image, O_RDONLY | O_CLOEXEC) : -1;
    sqfs fs;
    sqfs_inode inode;
    bool found = false;
    struct readqueue queue = {0};
    int opened = fd >= 0 && sqfs_init(&fs, fd, row->offset) == SQFS_OK;
    int looked_up = opened && sqfs_inode_get(&fs, &inode, sqfs_inode_root(&fs)) == SQFS_OK
                    && sqfs_lookup_path(&fs, &inode, "file", &found) == SQFS_OK && found
                    && fs.sb.block_size == BLOCK;
    struct readjob* job = looked_up && readqueue_add(&queue, 2, &inode, BLOCK) ? readqueue_find(&queue, 2) : NULL;
    int listed = job && readqueue_list_blocks(job, &fs) == 0;
    uint64_t kinds['r' + 1] = {0}, wrong = 0;
    for (uint64_t i = 0; listed && i < job->listed; ++i) {
        size_t length = row->size - i * BLOCK < BLOCK ? row->size - i * BLOCK : BLOCK;
        char kind = check_block(fd, job, i, content + i * BLOCK, length);
        kinds[(unsigned char)kind]++;
        wrong += kind == 0;
    }
    readqueue_release(&queue);
    if (opened)
        sqfs_destroy(&fs);
    if (fd >= 0)
        close(fd);
    unlink(image);
    free(content);
    CHECK(made == 0);
    CHECK(opened && looked_up && job);
    CHECK(listed);
    CHECK(wrong == 0);
    CHECK(kinds['h'] == row->holes && kinds['r'] == row->raw && kinds['c'] == row->compressed);
}

int main(void)
{
    RUN_TABLE(g_steps, run_steps);
    RUN_TABLE(g_orders, run_order);
    RUN_TABLE(g_images, run_image);
    return finish("tst_readqueue");
}
