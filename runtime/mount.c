/* squashfuse's headers set the POSIX level and the FUSE API version first. */
#include <ll.h>

#include "mount.h"
#include "readahead.h"
#include "warmup.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

struct mount {
    struct fuse_session* session;
    sqfs_ll* ll;
    struct fuse_buf buffer;
    const char* image;
    size_t offset;
    char dir[PATH_MAX];
    char link[PATH_MAX]; /* removed with its directory by the guard; empty for none */
    char helper[PATH_MAX]; /* the fusermount that mounted, empty when mounted directly */
    int helper_socket;
    int guard; /* our end of the guard's socket, -1 without a guard */
    char* bytes; /* a read's answer */
    size_t bytes_size;
};

/* squashfuse's operations take the request's user data to be its own, so
 * the one mount a runtime serves keeps the rest here. */
static struct mount* g_mount;
static struct readahead* g_readahead;
static struct warmup* g_warmup;

static void open_file(fuse_req_t request, fuse_ino_t ino, struct fuse_file_info* file)
{
    /* The image never changes: what the page cache holds stays good. */
    file->keep_cache = 1;
    sqfs_ll_op_open(request, ino, file);
    if (file->fh && g_readahead)
        readahead_opened(g_readahead, ino, (const sqfs_inode*)(intptr_t)file->fh);
}

/* Reads through the read-ahead thread where there is one, so that no block is
 * decompressed twice; squashfuse's own read otherwise. */
static void read_file(fuse_req_t request, fuse_ino_t ino, size_t size, off_t offset, struct fuse_file_info* file)
{
    if (!g_readahead) {
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
    ssize_t got = readahead_read(g_readahead, &ll->fs, ino, inode, (uint64_t)offset, size, g_mount->bytes);
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

static const char g_options[] = "ro,fsname=tavelin-runtime,subtype=tavelin";

/* Finds name in the directories of the list dirs; 0 with its path, -1 when
 * none there can be run. Empty entries are passed over: the current
 * directory is no place to look for a setuid helper. */
static int find_in(const char* dirs, const char* name, char* path, size_t size)
{
    for (const char* dir = dirs; dir && *dir;) {
        size_t length = strcspn(dir, ":");
        if (length > 0) {
            snprintf(path, size, "%.*s/%s", (int)length, dir, name);
            if (access(path, X_OK) == 0)
                return 0;
        }
        dir += length + (dir[length] == ':');
    }
    return -1;
}

/* The setuid helper that mounts for users other than root: fuse 3's
 * fusermount3, else fuse 2's fusermount, which speaks the same protocol.
 * Looked for on PATH and where the packages put them. 0 with its path, or -1. */
static int find_helper(char* path, size_t size)
{
    static const char* const names[] = {"fusermount3", "fusermount"};
    for (size_t i = 0; i < sizeof names / sizeof *names; ++i) {
        if (find_in(getenv("PATH"), names[i], path, size) == 0 || find_in("/usr/bin:/bin", names[i], path, size) == 0)
            return 0;
    }
    return -1;
}

/* The descriptor the helper sends over socket, close-on-exec; -1 when it
 * ended without sending one. */
static int receive_device(int socket)
{
    char byte;
    struct iovec data = {.iov_base = &byte, .iov_len = 1};
    union {
        struct cmsghdr header;
        char space[CMSG_SPACE(sizeof(int))];
    } control;
    struct msghdr message = {
        .msg_iov = &data, .msg_iovlen = 1, .msg_control = control.space, .msg_controllen = sizeof control.space};
    ssize_t got;
    while ((got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR)
        ;
    struct cmsghdr* header = got > 0 ? CMSG_FIRSTHDR(&message) : NULL;
    if (!header || header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS)
        return -1;
    int fd;
    memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return fd;
}

/* Has mount->helper mount dir and send the device back, as libfuse has
 * fusermount3 do. With auto_unmount the helper stays, waiting on its
 * socket, and unmounts once this process's end closes, however it ends;
 * so that end is kept, close-on-exec lest AppRun hold the mount up.
 * Returns the device's descriptor, or -1 once the helper has said why. */
static int mount_through_helper(struct mount* mount, const char* dir)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        fprintf(stderr, "socketpair: %s\n", strerror(errno));
        return -1;
    }
    pid_t child = fork();
    if (child == 0) {
        char fd[16], options[sizeof g_options + 16];
        snprintf(fd, sizeof fd, "%d", ends[0]);
        snprintf(options, sizeof options, "%s,auto_unmount", g_options);
        fcntl(ends[0], F_SETFD, 0);
        setenv("_FUSE_COMMFD", fd, 1);
        execl(mount->helper, mount->helper, "-o", options, "--", dir, (char*)NULL);
        fprintf(stderr, "cannot run %s: %s\n", mount->helper, strerror(errno));
        _exit(1);
    }
    close(ends[0]);
    int device = child > 0 ? receive_device(ends[1]) : -1;
    if (device < 0) {
        if (child < 0)
            fprintf(stderr, "fork: %s\n", strerror(errno));
        close(ends[1]);
        if (child > 0)
            waitpid(child, NULL, 0);
        return -1;
    }
    mount->helper_socket = ends[1];
    return device;
}

/* Root mounts directly through libfuse; other users through a helper, whose
 * device libfuse takes as /dev/fd/N. No helper found: libfuse tries and says why. */
static int mount_session(struct mount* mount, const char* dir)
{
    if (geteuid() == 0 || find_helper(mount->helper, sizeof mount->helper) != 0) {
        mount->helper[0] = '\0';
        return fuse_session_mount(mount->session, dir);
    }
    int device = mount_through_helper(mount, dir);
    if (device < 0)
        return -1;
    char path[32];
    snprintf(path, sizeof path, "/dev/fd/%d", device);
    return fuse_session_mount(mount->session, path);
}

/* libfuse and the helpers complain on stderr; that is caught, and its last
 * line becomes the reason, so that the caller says why in one line. */
static int mount_catching_stderr(struct mount* mount, const char* dir, char* why, size_t size)
{
    fflush(stderr);
    int saved = dup(STDERR_FILENO), catcher = memfd_create("tavelin-runtime-stderr", MFD_CLOEXEC);
    int caught = saved >= 0 && catcher >= 0 && dup2(catcher, STDERR_FILENO) >= 0;
    int result = mount_session(mount, dir);
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

/* As libfuse unmounts for users other than root: lazily, through the helper. */
static void unmount_through(const char* helper, const char* dir)
{
    pid_t child = fork();
    if (child == 0) {
        execl(helper, helper, "-u", "-q", "-z", "--", dir, (char*)NULL);
        _exit(1);
    }
    if (child > 0)
        waitpid(child, NULL, 0);
}

/* Removes link and the directory it is alone in. */
static void remove_link(const char* link)
{
    char dir[PATH_MAX];
    snprintf(dir, sizeof dir, "%s", link);
    char* slash = strrchr(dir, '/');
    unlink(link);
    if (slash) {
        *slash = '\0';
        rmdir(dir);
    }
}

/* The guard's part: waits for the runtime's end of the socket to close. A
 * byte first means the runtime unmounted itself; none means it was killed,
 * and the guard unmounts and removes dir, and link where there is one. */
static _Noreturn void unmount_when_killed(const struct mount* mount, int socket)
{
    const char *helper = mount->helper, *dir = mount->dir;
    char byte;
    ssize_t got;
    while ((got = read(socket, &byte, 1)) < 0 && errno == EINTR)
        ;
    if (got == 0)
        unmount_through(helper, dir);
    /* fuse 2's fusermount may be unmounting it too, on auto_unmount */
    for (int tries = 0; got == 0 && tries < 20 && rmdir(dir) != 0 && errno == EBUSY; ++tries)
        usleep(100 * 1000);
    if (got == 0 && mount->link[0])
        remove_link(mount->link);
    _exit(0);
}

/* Closes every descriptor from first on: through close_range where the
 * kernel has it (5.9), else those below the usual limit of 1024. */
static void close_from(int first)
{
#ifdef SYS_close_range
    if (syscall(SYS_close_range, (unsigned)first, ~0U, 0) == 0)
        return;
#endif
    for (int fd = first; fd < 1024; ++fd)
        close(fd);
}

/* Starts a process that takes the mount down and removes its directory, and
 * the link for APPIMAGE, should the runtime be killed: fusermount3 3.14
 * (Debian 12) does not act on auto_unmount once the server is gone, being
 * refused the dead mount as root.
 * The guard holds nothing of the runtime's but a socket's other end, has a
 * session of its own and the stop signals held, so that neither a terminal
 * nor a stop signal meant for the runtime ends it early, and is orphaned at
 * once, so that no one has to wait for it. Returns the runtime's end of the
 * socket, or -1 when there is no guard. */
static int start_guard(const struct mount* mount)
{
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
        return -1;
    pid_t child = fork();
    if (child == 0) {
        if (fork() != 0)
            _exit(0);
        setsid();
        int null = open("/dev/null", O_RDWR);
        for (int fd = 0; null >= 0 && fd < 3; ++fd)
            dup2(null, fd);
        if (dup2(ends[0], 3) == 3)
            close_from(4);
        unmount_when_killed(mount, 3);
    }
    close(ends[0]);
    if (child > 0)
        waitpid(child, NULL, 0);
    if (child < 0) {
        close(ends[1]);
        return -1;
    }
    return ends[1];
}

/* Tells the guard that the runtime has unmounted itself; a guard that is
 * gone already is no reason to die of SIGPIPE. */
static void release_guard(int guard)
{
    if (guard < 0)
        return;
    send(guard, "", 1, MSG_NOSIGNAL);
    close(guard);
}

static struct mount* give_up(struct mount* mount, char* why, size_t size, const char* reason)
{
    if (reason)
        snprintf(why, size, "%s", reason);
    if (mount->session)
        fuse_session_destroy(mount->session);
    if (mount->helper_socket >= 0)
        close(mount->helper_socket);
    if (mount->ll)
        sqfs_ll_destroy(mount->ll);
    free(mount);
    return NULL;
}

struct mount* mount_open(const struct image* image, const char* dir, const char* link, char* why, size_t size)
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
    mount->helper_socket = -1;
    mount->guard = -1;
    mount->ll = sqfs_ll_open(image->path, (size_t)image->offset);
    if (!mount->ll)
        return give_up(mount, why, size, "squashfuse cannot read the image");
    /* squashfuse opens the image itself; AppRun gets neither that nor the FUSE connection. */
    fcntl(mount->ll->fs.fd, F_SETFD, FD_CLOEXEC);
    char* argv[] = {"tavelin-runtime", "-o", (char*)g_options, NULL};
    struct fuse_args args = FUSE_ARGS_INIT(3, argv);
    mount->session = fuse_session_new(&args, &g_operations, sizeof g_operations, mount->ll);
    if (!mount->session)
        return give_up(mount, why, size, "libfuse refused the options");
    if (mount_catching_stderr(mount, dir, why, size) != 0)
        return give_up(mount, why, size, NULL);
    fcntl(fuse_session_fd(mount->session), F_SETFD, FD_CLOEXEC);
    snprintf(mount->dir, sizeof mount->dir, "%s", dir);
    snprintf(mount->link, sizeof mount->link, "%s", link ? link : "");
    mount->image = image->path;
    mount->offset = (size_t)image->offset;
    if (mount->helper[0])
        mount->guard = start_guard(mount);
    g_mount = mount;
    return mount;
}

void mount_read_ahead(struct mount* mount)
{
    if (!g_readahead)
        g_readahead = readahead_start(mount->image, mount->offset, mount->session);
    if (g_readahead && !g_warmup)
        g_warmup = warmup_start(mount->dir);
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
    if (g_warmup)
        warmup_stop(g_warmup);
    if (g_readahead)
        readahead_stop(g_readahead);
    struct pollfd request = {.fd = mount_fd(mount), .events = POLLIN};
    while ((g_warmup && !warmup_ended(g_warmup)) || (g_readahead && !readahead_ended(g_readahead))) {
        if (poll(&request, 1, 10) > 0)
            mount_serve(mount);
    }
    if (g_warmup)
        warmup_free(g_warmup);
    if (g_readahead)
        readahead_free(g_readahead);
    g_warmup = NULL;
    g_readahead = NULL;
}

void mount_close(struct mount* mount)
{
    stop_threads(mount);
    g_mount = NULL;
    if (!mount->helper[0])
        fuse_session_unmount(mount->session);
    /* Destroying closes the device first, as libfuse's unmount does: the
     * helper's unmount must not wait on a request this process would answer. */
    fuse_session_destroy(mount->session);
    if (mount->helper[0])
        unmount_through(mount->helper, mount->dir);
    if (mount->helper_socket >= 0)
        close(mount->helper_socket); /* the waiting helper finds nothing left to unmount */
    release_guard(mount->guard);
    sqfs_ll_destroy(mount->ll);
    free(mount->buffer.mem);
    free(mount->bytes);
    free(mount);
}
