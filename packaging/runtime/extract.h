#pragma once

#include <stdint.h>

/* Writes the squashfs image found at offset in image below target, which
 * must exist. Returns 0, or -1 after printing what failed. */
int extract_squashfs(const char* image, int64_t offset, const char* target);
