#pragma once

#include "image.h"

#include <stddef.h>

/* The image served through FUSE by this very process. */
struct mount;

/* Mounts the image read-only on dir, an empty directory: root directly,
 * other users through fusermount3 or else fuse 2's fusermount. Where a
 * helper mounts, the mount goes and dir is removed should this process be
 * killed, and so do link (unless NULL), a link alone in a directory of its
 * own, and that directory. Returns NULL with the reason in why when FUSE
 * cannot be used; prints nothing itself. */
struct mount* mount_open(const struct image* image, const char* dir, const char* link, char* why, size_t size);

/* Starts decompressing files ahead of the reads, in a thread. */
void mount_read_ahead(struct mount* mount);

/* The descriptor that polls readable when the kernel has a request. */
int mount_fd(const struct mount* mount);

/* Answers one request. Returns -1 once the file system is gone. */
int mount_serve(struct mount* mount);

/* Unmounts (lazily, so files still open elsewhere do not hold it) and frees. */
void mount_close(struct mount* mount);
