#pragma once

/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

/* Decompression ahead of the reader. A program started from the mount
 * faults its libraries in a few pages at a time, each fault waiting for a
 * block to be decompressed; a thread of the runtime decompresses each file
 * as soon as it is opened, on another core, and stores the pages in the
 * kernel's page cache with FUSE's store notification. The last blocks
 * either thread decompressed are kept (blockcache.h), so that no block is
 * decompressed twice; the files wait in a queue (readqueue.h). The thread
 * has its own squashfuse instance: squashfuse's caches are not shared
 * between threads. */
struct readahead;

/* Starts the thread on the image at path. NULL when it cannot: the mount
 * then simply serves every read itself. */
struct readahead* readahead_start(const char* path, size_t offset, struct fuse_session* session);

/* Queues the regular file just opened as ino. */
void readahead_opened(struct readahead* ahead, fuse_ino_t ino, const sqfs_inode* inode);

/* For the serving thread: size bytes of ino at offset into out, from blocks
 * the thread already holds or else decompressed with fs. What the blocks
 * hold beyond the bytes asked for goes to the page cache. Returns the
 * number of bytes, short at the end of the file, or -1. */
ssize_t readahead_read(struct readahead* ahead, sqfs* fs, fuse_ino_t ino, sqfs_inode* inode, uint64_t offset,
                       size_t size, char* out);

/* Asks the thread to stop. A store notification can wait for pages that a
 * read in the queue holds, so requests are to be answered until it has
 * ended; then it can be freed. */
void readahead_stop(struct readahead* ahead);
int readahead_ended(struct readahead* ahead);
void readahead_free(struct readahead* ahead);
