/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include "mount.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

struct mount {
    struct fuse_session* session;
    sqfs_ll* ll;
    struct fuse_buf buffer;
};

static const struct fuse_lowlevel_ops g_operations = {
    .lookup = sqfs_ll_op_lookup,
    .forget = sqfs_ll_op_forget,
    .getattr = sqfs_ll_op_getattr,
    .readlink = sqfs_ll_op_readlink,
    .open = sqfs_ll_op_open,
    .read = sqfs_ll_op_read,
    .release = sqfs_ll_op_release,
    .opendir = sqfs_ll_op_opendir,
    .readdir = sqfs_ll_op_readdir,
    .releasedir = sqfs_ll_op_releasedir,
    .statfs = stfs_ll_op_statfs,
    .getxattr = sqfs_ll_op_getxattr,
    .listxattr = sqfs_ll_op_listxattr,
    .create = sqfs_ll_op_create,
};

static char g_last_message[200];

/* libfuse's messages are kept, not printed: the caller says why in one line. */
static void keep_message(enum fuse_log_level level, const char* format, va_list arguments)
{
    (void)level;
    vsnprintf(g_last_message, sizeof g_last_message, format, arguments);
    g_last_message[strcspn(g_last_message, "\n")] = '\0';
}

/* fusermount3 writes its complaints straight to stderr, so that is muted meanwhile. */
static int mount_quietly(struct fuse_session* session, const char* dir)
{
    fflush(stderr);
    int saved = dup(STDERR_FILENO), null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (saved >= 0 && null >= 0)
        dup2(null, STDERR_FILENO);
    int result = fuse_session_mount(session, dir);
    if (saved >= 0 && null >= 0)
        dup2(saved, STDERR_FILENO);
    if (saved >= 0)
        close(saved);
    if (null >= 0)
        close(null);
    return result;
}

static struct mount* give_up(struct mount* mount, char* why, size_t size, const char* reason)
{
    snprintf(why, size, "%s", g_last_message[0] ? g_last_message : reason);
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
    fuse_set_log_func(keep_message);
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
    if (mount_quietly(mount->session, dir) != 0)
        return give_up(mount, why, size, "the mount failed");
    fcntl(fuse_session_fd(mount->session), F_SETFD, FD_CLOEXEC);
    return mount;
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

void mount_close(struct mount* mount)
{
    fuse_session_unmount(mount->session);
    fuse_session_destroy(mount->session);
    sqfs_ll_destroy(mount->ll);
    free(mount->buffer.mem);
    free(mount);
}
