#pragma once

/* squashfuse's config.h sets the POSIX level, so it comes before any system header. */
#include <squashfuse.h>

#include <stdint.h>

/* An AppImage file: a runtime ELF with a squashfs image appended at offset. */
struct image {
    const char* path;
    int fd;
    int64_t offset;
    int64_t size;
};

/* Opens path as an AppImage: readable, ELF, type 2 mark, whole ELF part.
 * Returns 0, or -1 after saying on stderr what is wrong. */
int image_open(struct image* image, const char* path);

/* Opens the appended squashfs image after checking that it is there whole,
 * and that it holds required (a path inside it) unless that is NULL.
 * Returns 0, or -1 after saying what is wrong; sqfs_destroy() it after use. */
int image_open_squashfs(const struct image* image, sqfs* fs, const char* required);

/* The same, closing the image again: for the checks before a mount. */
int image_check_squashfs(const struct image* image, const char* required);

/* Prints the text kept in the ELF section called name. Returns 0 or -1. */
int image_print_section(const struct image* image, const char* name);
