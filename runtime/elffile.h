#pragma once

#include <stdint.h>

/* Where a 64-bit ELF file's own bytes end: the furthest of its section
 * header table and of its segments. Anything appended starts there.
 * Returns -1 when fd holds no such ELF. */
int64_t elf_end(int fd);

/* Finds the section called name through the section header table and
 * .shstrtab. Returns 0 and its place in the file, or -1. */
int elf_section(int fd, const char* name, uint64_t* offset, uint64_t* size);
