#pragma once

#include <stdint.h>

/* Where a 64-bit ELF file's own bytes end: the furthest of its section
 * header table and of its segments. Anything appended starts there.
 * Returns -1 when the file is not such an ELF. */
int64_t elf_end_of_file(const char* path);
