/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include "mount.h"
#include "prefetch.h"
#include "preload.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

struct mount {
    struct fuse_session* session;
    sqfs_ll* ll;
    struct fuse_buf buffer;
    const char* image;
    size_t offset;
    char dir[PATH_MAX];
    char* bytes; /* a read's answer */
    size_t bytes_size;
};

/* squashfuse's operations take the request's user data to be its own, so
 * the one mount a runtime serves keeps the rest here. */
static struct mount* g_mount;
static struct prefetch* g_prefetch;
static struct preload* g_preload;

static void open_file(fuse_req_t request, fuse_ino_t ino, struct fuse_file_info* file)
{
    /* The image never changes: what the page cache holds stays good. */
    file->keep_cache = 1;
    sqfs_ll_op_open(request, ino, file);
    if (file->fh && g_prefetch)
        prefetch_file(g_prefetch, ino, (const sqfs_inode*)(intptr_t)file->fh);
}

/* Reads through the prefetcher where there is one, so that no block is
 * decompressed twice; squashfuse's own read otherwise. */
static void read_file(fuse_req_t request, fuse_ino_t ino, size_t size, off_t offset, struct fuse_file_info* file)
{
    if (!g_prefetch) {
        sqfs_ll_op_read(request, ino, size, offset, file);
        return;
    }
    if (size > g_mount->bytes_size) {
        char* grown = realloc(g_mount->bytes, size);
        if (!grown) {
            fuse_reply_err(request, ENOMEM);
            return;
        }
        g_mount->bytes = grown;
        g_mount->bytes_size = size;
    }
    sqfs_ll* ll = fuse_req_userdata(request);
    sqfs_inode* inode = (sqfs_inode*)(intptr_t)file->fh;
    ssize_t got = prefetch_read(g_prefetch, &ll->fs, ino, inode, (uint64_t)offset, size, g_mount->bytes);
    if (got < 0)
        fuse_reply_err(request, EIO);
    else
        fuse_reply_buf(request, g_mount->bytes, (size_t)got);
}

static const struct fuse_lowlevel_ops g_operations = {
    .lookup = sqfs_ll_op_lookup,
    .forget = sqfs_ll_op_forget,
    .getattr = sqfs_ll_op_getattr,
    .readlink = sqfs_ll_op_readlink,
    .open = open_file,
    .read = read_file,
    .release = sqfs_ll_op_release,
    .opendir = sqfs_ll_op_opendir,
    .readdir = sqfs_ll_op_readdir,
    .releasedir = sqfs_ll_op_releasedir,
    .statfs = stfs_ll_op_statfs,
    .getxattr = sqfs_ll_op_getxattr,
    .listxattr = sqfs_ll_op_listxattr,
    .create = sqfs_ll_op_create,
};

/* The last line of what was written to fd, at most size - 1 bytes of it. */
static void last_line(int fd, char* line, size_t size)
{
    off_t end = lseek(fd, 0, SEEK_CUR), start = end > (off_t)size - 1 ? end - (off_t)size + 1 : 0;
    ssize_t got = end > 0 ? pread(fd, line, (size_t)(end - start), start) : 0;
    line[got > 0 ? got : 0] = '\0';
    while (got > 0 && line[got - 1] == '\n')
        line[--got] = '\0';
    char* newline = strrchr(line, '\n');
    if (newline)
        memmove(line, newline + 1, strlen(newline));
}

/* libfuse and fusermount3 complain on stderr; that is caught, and its last
 * line becomes the reason, so that the caller says why in one line. */
static int mount_catching_stderr(struct fuse_session* session, const char* dir, char* why, size_t size)
{
    fflush(stderr);
    int saved = dup(STDERR_FILENO), catcher = memfd_create("tavelin-runtime-stderr", MFD_CLOEXEC);
    int caught = saved >= 0 && catcher >= 0 && dup2(catcher, STDERR_FILENO) >= 0;
    int result = fuse_session_mount(session, dir);
    why[0] = '\0';
    if (caught) {
        dup2(saved, STDERR_FILENO);
        last_line(catcher, why, size);
    }
    if (!why[0])
        snprintf(why, size, "the mount failed");
    close(saved);
    close(catcher);
    return result;
}

static struct mount* give_up(struct mount* mount, char* why, size_t size, const char* reason)
{
    if (reason)
        snprintf(why, size, "%s", reason);
    if (mount->session)
        fuse_session_destroy(mount->session);
    if (mount->ll)
        sqfs_ll_destroy(mount->ll);
    free(mount);
    return NULL;
}

struct mount* mount_open(const struct image* image, const char* dir, char* why, size_t size)
{
    if (access("/dev/fuse", R_OK | W_OK) != 0) {
        snprintf(why, size, "/dev/fuse: %s", strerror(errno));
        return NULL;
    }
    struct mount* mount = calloc(1, sizeof *mount);
    if (!mount) {
        snprintf(why, size, "%s", strerror(errno));
        return NULL;
    }
    mount->ll = sqfs_ll_open(image->path, (size_t)image->offset);
    if (!mount->ll)
        return give_up(mount, why, size, "squashfuse cannot read the image");
    /* squashfuse opens the image itself; AppRun gets neither that nor the FUSE connection. */
    fcntl(mount->ll->fs.fd, F_SETFD, FD_CLOEXEC);
    char* argv[] = {"tavelin-runtime", "-o", "ro,fsname=tavelin-runtime,subtype=tavelin", NULL};
    struct fuse_args args = FUSE_ARGS_INIT(3, argv);
    mount->session = fuse_session_new(&args, &g_operations, sizeof g_operations, mount->ll);
    if (!mount->session)
        return give_up(mount, why, size, "libfuse refused the options");
    if (mount_catching_stderr(mount->session, dir, why, size) != 0)
        return give_up(mount, why, size, NULL);
    fcntl(fuse_session_fd(mount->session), F_SETFD, FD_CLOEXEC);
    snprintf(mount->dir, sizeof mount->dir, "%s", dir);
    mount->image = image->path;
    mount->offset = (size_t)image->offset;
    g_mount = mount;
    return mount;
}

void mount_prefetch(struct mount* mount)
{
    if (!g_prefetch)
        g_prefetch = prefetch_start(mount->image, mount->offset, mount->session);
    if (g_prefetch && !g_preload)
        g_preload = preload_start(mount->dir);
}

int mount_fd(const struct mount* mount)
{
    return fuse_session_fd(mount->session);
}

int mount_serve(struct mount* mount)
{
    int result = fuse_session_receive_buf(mount->session, &mount->buffer);
    if (result == -EINTR || result == -EAGAIN)
        return 0;
    if (result <= 0)
        return -1;
    fuse_session_process_buf(mount->session, &mount->buffer);
    return 0;
}

/* Both threads wait on the mount when asked to stop: requests are answered
 * until they have ended, waiting a little for each so as not to spin. */
static void stop_threads(struct mount* mount)
{
    if (g_preload)
        preload_stop(g_preload);
    if (g_prefetch)
        prefetch_stop(g_prefetch);
    struct pollfd request = {.fd = mount_fd(mount), .events = POLLIN};
    while ((g_preload && !preload_ended(g_preload)) || (g_prefetch && !prefetch_ended(g_prefetch))) {
        if (poll(&request, 1, 10) > 0)
            mount_serve(mount);
    }
    if (g_preload)
        preload_free(g_preload);
    if (g_prefetch)
        prefetch_free(g_prefetch);
    g_preload = NULL;
    g_prefetch = NULL;
}

void mount_close(struct mount* mount)
{
    stop_threads(mount);
    g_mount = NULL;
    fuse_session_unmount(mount->session);
    fuse_session_destroy(mount->session);
    sqfs_ll_destroy(mount->ll);
    free(mount->buffer.mem);
    free(mount->bytes);
    free(mount);
}
