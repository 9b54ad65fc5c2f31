/* squashfuse's config.h sets the POSIX level, so it comes first. */
#include <squashfuse.h>

#include "extract.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { COPY_CHUNK = 1 << 16 };

static int fail(const char* what, const char* path)
{
    fprintf(stderr, "tavelin-runtime: cannot %s %s: %s\n", what, path, errno ? strerror(errno) : "bad image");
    return -1;
}

static int write_file(sqfs* fs, sqfs_inode* inode, const char* path, mode_t mode)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_EXCL, mode);
    if (fd < 0)
        return fail("create", path);
    static char buffer[COPY_CHUNK];
    sqfs_off_t done = 0;
    while (done < (sqfs_off_t)inode->xtra.reg.file_size) {
        sqfs_off_t size = COPY_CHUNK;
        errno = 0;
        if (sqfs_read_range(fs, inode, done, &size, buffer) != SQFS_OK || size <= 0
            || write(fd, buffer, (size_t)size) != (ssize_t)size) {
            close(fd);
            return fail("write", path);
        }
        done += size;
    }
    return close(fd) == 0 ? 0 : fail("write", path);
}

static int write_symlink(sqfs* fs, sqfs_inode* inode, const char* path)
{
    size_t size = inode->xtra.symlink_size + 1;
    char* target = malloc(size);
    errno = 0;
    int result = target && sqfs_readlink(fs, inode, target, &size) == SQFS_OK && symlink(target, path) == 0
                     ? 0
                     : fail("link", path);
    free(target);
    return result;
}

static int write_entry(sqfs* fs, sqfs_traverse* traverse, const char* target)
{
    sqfs_inode inode;
    errno = 0;
    if (sqfs_inode_get(fs, &inode, sqfs_dentry_inode(&traverse->entry)) != SQFS_OK)
        return fail("read", traverse->path);
    size_t length = strlen(target) + strlen(traverse->path) + 2;
    char* path = malloc(length);
    if (!path)
        return fail("allocate for", traverse->path);
    snprintf(path, length, "%s/%s", target, traverse->path);
    mode_t type = sqfs_mode(inode.base.inode_type);
    mode_t mode = inode.base.mode & 07777;
    int result = 0;
    errno = 0;
    if (S_ISDIR(type))
        result = mkdir(path, mode | S_IRWXU) == 0 ? 0 : fail("create", path);
    else if (S_ISREG(type))
        result = write_file(fs, &inode, path, mode);
    else if (S_ISLNK(type))
        result = write_symlink(fs, &inode, path);
    /* Devices, FIFOs and sockets have no place in a payload: skipped. */
    free(path);
    return result;
}

int extract_squashfs(const char* image, int64_t offset, const char* target)
{
    int fd = open(image, O_RDONLY);
    if (fd < 0)
        return fail("open", image);
    sqfs fs;
    errno = 0;
    if (sqfs_init(&fs, fd, (size_t)offset) != SQFS_OK) {
        close(fd);
        return fail("read the squashfs image in", image);
    }
    sqfs_traverse traverse;
    sqfs_err err = sqfs_traverse_open(&traverse, &fs, sqfs_inode_root(&fs));
    int result = err == SQFS_OK ? 0 : fail("walk the image in", image);
    while (result == 0 && sqfs_traverse_next(&traverse, &err)) {
        if (!traverse.dir_end)
            result = write_entry(&fs, &traverse, target);
    }
    if (result == 0 && err != SQFS_OK)
        result = fail("walk the image in", image);
    sqfs_traverse_close(&traverse);
    sqfs_destroy(&fs);
    close(fd);
    return result;
}
