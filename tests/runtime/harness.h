#pragma once

/* A table-driven check for the runtime's C units. Each row runs as a
 * function; its first failed CHECK prints one line naming the row and ends
 * it, and the program exits non-zero when any row failed. Files go to a
 * temporary directory of the test's own, removed at the end. */

#include <fcntl.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static int g_failed_rows;
static char g_scratch[4096];

/* For a function whose argument row has a name. */
#define CHECK(condition) CHECK_STEP(condition, -1)

/* As CHECK, naming step of the row's steps as well. */
#define CHECK_STEP(condition, step)                                                          \
    do {                                                                                     \
        if (!(condition)) {                                                                  \
            fprintf(stderr, "FAIL %s: %s", row->name, #condition);                           \
            if ((step) >= 0)                                                                 \
                fprintf(stderr, " at step %d", (int)(step));                                 \
            fprintf(stderr, " (line %d)\n", __LINE__);                                       \
            g_failed_rows++;                                                                 \
            return;                                                                          \
        }                                                                                    \
    } while (0)

/* Runs every row of table through run. */
#define RUN_TABLE(table, run)                                                                \
    do {                                                                                     \
        for (size_t i_ = 0; i_ < sizeof(table) / sizeof(table)[0]; ++i_)                     \
            run(&(table)[i_]);                                                               \
    } while (0)

static inline int remove_entry(const char* path, const struct stat* status, int type, struct FTW* walk)
{
    (void)status, (void)type, (void)walk;
    return remove(path);
}

static inline void scratch_remove(void)
{
    if (g_scratch[0])
        nftw(g_scratch, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
}

/* Makes the test's temporary directory under TMPDIR or /tmp; exits when it cannot. */
static inline const char* scratch_dir(void)
{
    if (!g_scratch[0]) {
        const char* base = getenv("TMPDIR");
        snprintf(g_scratch, sizeof g_scratch, "%s/tavelin-runtime-test-XXXXXX", base && *base ? base : "/tmp");
        if (!mkdtemp(g_scratch)) {
            perror("mkdtemp");
            exit(2);
        }
        atexit(scratch_remove);
    }
    return g_scratch;
}

/* The path of name inside the temporary directory, in a static buffer. */
static inline const char* scratch_path(const char* name)
{
    static char path[4096 + 256];
    snprintf(path, sizeof path, "%s/%s", scratch_dir(), name);
    return path;
}

/* Writes size bytes into the file at path, replacing it; 0 or -1. */
static inline int write_file(const char* path, const void* data, size_t size)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int failed = fd < 0 || write(fd, data, size) != (ssize_t)size;
    return (fd >= 0 && close(fd) != 0) || failed ? -1 : 0;
}

static inline int finish(const char* unit)
{
    if (g_failed_rows)
        fprintf(stderr, "%s: %d rows failed\n", unit, g_failed_rows);
    else
        printf("%s: all rows passed\n", unit);
    return g_failed_rows ? 1 : 0;
}
