#include "extract.h"

#include <errno.h>
#include <fcntl.h>
#include <fnmatch.h>
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

/* Opens directory name below parent, made if missing; a link or file in its place is replaced, never followed. */
static int open_dir_at(int parent, const char* name, mode_t mode)
{
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = openat(parent, name, flags);
    if (fd >= 0)
        return fd;
    if (errno == ELOOP || errno == ENOTDIR) {
        if (unlinkat(parent, name, 0) != 0)
            return -1;
    } else if (errno != ENOENT) {
        return -1;
    }
    if (mkdirat(parent, name, mode) != 0 && errno != EEXIST)
        return -1;
    return openat(parent, name, flags);
}

/* A crafted image could name "." or ".."; no entry may climb out. */
static int plain_name(const char* name)
{
    return *name && strcmp(name, ".") != 0 && strcmp(name, "..") != 0;
}

/* Opens the directory holding path below root, one component at a time. */
static int open_parent(int root, char* path, char** leaf)
{
    int dir = dup(root);
    char* name = path;
    for (char* slash; dir >= 0 && (slash = strchr(name, '/')); name = slash + 1) {
        *slash = '\0';
        int next = plain_name(name) ? open_dir_at(dir, name, 0755) : (errno = EINVAL, -1);
        *slash = '/';
        close(dir);
        dir = next;
    }
    *leaf = name;
    if (dir >= 0 && !plain_name(name)) {
        close(dir);
        return errno = EINVAL, -1;
    }
    return dir;
}

static int write_file(sqfs* fs, sqfs_inode* inode, int fd)
{
    static char buffer[COPY_CHUNK];
    for (sqfs_off_t done = 0; done < (sqfs_off_t)inode->xtra.reg.file_size;) {
        sqfs_off_t size = COPY_CHUNK;
        errno = 0;
        if (sqfs_read_range(fs, inode, done, &size, buffer) != SQFS_OK || size <= 0
            || write(fd, buffer, (size_t)size) != (ssize_t)size)
            return -1;
        done += size;
    }
    return 0;
}

static int write_symlink(sqfs* fs, sqfs_inode* inode, int dir, const char* name)
{
    size_t size = inode->xtra.symlink_size + 1;
    char* target = malloc(size);
    errno = 0;
    int result = target && sqfs_readlink(fs, inode, target, &size) == SQFS_OK ? symlinkat(target, dir, name) : -1;
    free(target);
    return result;
}

/* Files and links replace whatever is in their place, so no old link is written through. */
static int write_leaf(sqfs* fs, sqfs_inode* inode, int dir, const char* name)
{
    mode_t type = sqfs_mode(inode->base.inode_type), mode = inode->base.mode & 07777;
    if (S_ISDIR(type)) {
        int fd = open_dir_at(dir, name, mode | S_IRWXU);
        return fd < 0 ? -1 : close(fd);
    }
    if (!S_ISREG(type) && !S_ISLNK(type))
        return 0; /* devices, FIFOs and sockets have no place in a payload */
    if (unlinkat(dir, name, 0) != 0 && errno != ENOENT)
        return -1;
    if (S_ISLNK(type))
        return write_symlink(fs, inode, dir, name);
    int fd = openat(dir, name, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0)
        return -1;
    int result = write_file(fs, inode, fd);
    return close(fd) == 0 ? result : -1;
}

/* A matched directory brings its contents, so the pattern is tried on each parent too. */
static int wanted(const char* pattern, char* path)
{
    for (char* end = path; pattern; ++end) {
        if (*end == '/' || *end == '\0') {
            char kept = *end;
            *end = '\0';
            int match = fnmatch(pattern, path, 0) == 0;
            *end = kept;
            if (match || !kept)
                return match;
        }
    }
    return 1;
}

static int write_entry(sqfs* fs, sqfs_traverse* traverse, int root, const char* pattern)
{
    sqfs_inode inode;
    char* leaf;
    if (!wanted(pattern, traverse->path))
        return 0;
    errno = 0;
    if (sqfs_inode_get(fs, &inode, sqfs_dentry_inode(&traverse->entry)) != SQFS_OK)
        return fail("read", traverse->path);
    int dir = open_parent(root, traverse->path, &leaf);
    if (dir < 0)
        return fail("create the directory of", traverse->path);
    int result = write_leaf(fs, &inode, dir, leaf);
    close(dir);
    return result == 0 ? 0 : fail("write", traverse->path);
}

int extract_image(const struct image* image, const char* target, const char* pattern)
{
    sqfs fs;
    if (image_open_squashfs(image, &fs, NULL) != 0)
        return -1;
    sqfs_traverse traverse;
    sqfs_err err = SQFS_OK;
    int root = open_dir_at(AT_FDCWD, target, 0755);
    int result = root >= 0 ? 0 : fail("create", target);
    if (result == 0 && sqfs_traverse_open(&traverse, &fs, sqfs_inode_root(&fs)) != SQFS_OK)
        result = fail("walk the image in", image->path);
    else if (result == 0) {
        while (result == 0 && sqfs_traverse_next(&traverse, &err)) {
            if (!traverse.dir_end)
                result = write_entry(&fs, &traverse, root, pattern);
        }
        if (result == 0 && err != SQFS_OK)
            result = fail("walk the image in", image->path);
        sqfs_traverse_close(&traverse);
    }
    if (root >= 0)
        close(root);
    sqfs_destroy(&fs);
    return result;
}
