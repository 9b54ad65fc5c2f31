#pragma once

/* Table rows for the runtime's C units: a row's first failed CHECK names it and ends it; then the program fails. */

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* Rows leave their trailing fields out where zero is meant. */
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

static int g_failed_rows;

#define CHECK_STEP(condition, step)                                                                              \
    do {                                                                                                         \
        if (!(condition))                                                                                        \
            return (void)g_failed_rows++, (void)fprintf(stderr, "FAIL %s: %s, step %d (line %d)\n", row->name, \
                                                        #condition, (int)(step), __LINE__);                      \
    } while (0)
#define CHECK(condition) CHECK_STEP(condition, -1)
#define RUN_TABLE(table, run) for (size_t i_ = 0; i_ < sizeof(table) / sizeof(table)[0]; ++i_) run(&(table)[i_])

static inline int finish(const char* unit)
{
    fprintf(g_failed_rows ? stderr : stdout, "%s: %d rows failed\n", unit, g_failed_rows);
    return g_failed_rows != 0;
}
