#include "image.h"

#include "elffile.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static int refuse(const struct image* image, const char* why)
{
    fprintf(stderr, "tavelin-runtime: %s %s\n", image->path, why);
    return -1;
}

static int refuse_and_close(struct image* image, const char* why)
{
    refuse(image, why);
    close(image->fd);
    return -1;
}

int image_open(struct image* image, const char* path)
{
    struct stat status;
    char mark[3];
    image->path = path;
    image->fd = open(path, O_RDONLY | O_CLOEXEC);
    if (image->fd < 0)
        return fprintf(stderr, "tavelin-runtime: cannot open %s: %s\n", path, strerror(errno)), -1;
    if (fstat(image->fd, &status) != 0 || !S_ISREG(status.st_mode))
        return refuse_and_close(image, "is not a regular file");
    image->size = status.st_size;
    image->offset = elf_end(image->fd);
    if (image->offset < 0)
        return refuse_and_close(image, "is not an AppImage: no 64-bit ELF file");
    if (pread(image->fd, mark, sizeof mark, 8) != sizeof mark || memcmp(mark, "AI\2", sizeof mark) != 0)
        return refuse_and_close(image, "is not an AppImage: no type 2 mark at byte 8");
    if (image->offset > image->size)
        return refuse_and_close(image, "is truncated: its ELF part ends past the end of the file");
    return 0;
}

/* The superblock tells the image's length, so a cut-off copy is caught before any read fails. */
static int check_superblock(const struct image* image)
{
    struct squashfs_super_block block;
    if (image->offset == image->size)
        return refuse(image, "is not an AppImage: no squashfs image appended to the runtime");
    if (pread(image->fd, &block, sizeof block, image->offset) != sizeof block || block.s_magic != SQUASHFS_MAGIC)
        return refuse(image, "is not an AppImage: no squashfs image where the runtime ends");
    if (block.bytes_used > (uint64_t)(image->size - image->offset))
        return refuse(image, "is truncated: its squashfs image is cut off");
    return 0;
}

int image_open_squashfs(const struct image* image, sqfs* fs, const char* required)
{
    if (check_superblock(image) != 0)
        return -1;
    if (sqfs_init(fs, image->fd, (size_t)image->offset) != SQFS_OK)
        return refuse(image, "holds a squashfs image this runtime cannot read (its compression?)");
    sqfs_inode inode;
    bool found = false;
    if (required && (sqfs_inode_get(fs, &inode, sqfs_inode_root(fs)) != SQFS_OK
                     || sqfs_lookup_path(fs, &inode, required, &found) != SQFS_OK || !found)) {
        sqfs_destroy(fs);
        fprintf(stderr, "tavelin-runtime: %s holds no %s\n", image->path, required);
        return -1;
    }
    return 0;
}

int image_check_squashfs(const struct image* image, const char* required)
{
    sqfs fs;
    if (image_open_squashfs(image, &fs, required) != 0)
        return -1;
    sqfs_destroy(&fs);
    return 0;
}

int image_print_section(const struct image* image, const char* name)
{
    uint64_t offset = 0, size = 0;
    if (elf_section(image->fd, name, &offset, &size) != 0 || size > (1 << 20))
        return fprintf(stderr, "tavelin-runtime: %s has no section %s\n", image->path, name), -1;
    char* text = calloc(1, size + 1);
    if (!text || pread(image->fd, text, size, (off_t)offset) != (ssize_t)size) {
        free(text);
        return refuse(image, "cannot be read");
    }
    printf("%s\n", text);
    free(text);
    return 0;
}
