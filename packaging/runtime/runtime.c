/* The AppImage runtime: runs AppRun from the squashfs image appended to this
 * very file, mounted with squashfuse where FUSE is usable, otherwise
 * extracted into a private temporary directory that goes when AppRun ends. */
#define _GNU_SOURCE
#include "elfend.h"
#include "extract.h"

#include <errno.h>
#include <fcntl.h>
#include <ftw.h>
#include <limits.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static pid_t g_child = -1;

static void usage(const char* argv0)
{
    printf("Usage: %s [ARGUMENTS...]\n"
           "Runs the program inside this AppImage with ARGUMENTS.\n\n"
           "  --appimage-extract  write the contents into ./squashfs-root\n"
           "  --appimage-offset   print where the squashfs image begins\n"
           "  --appimage-help     show this help\n",
           argv0);
}

static int find_in_path(const char* name, char* found, size_t size)
{
    const char* path = getenv("PATH");
    if (!path || !*path)
        path = "/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin";
    for (const char* dir = path; *dir;) {
        size_t length = strcspn(dir, ":");
        snprintf(found, size, "%.*s/%s", (int)length, dir, name);
        if (length > 0 && access(found, X_OK) == 0)
            return 0;
        dir += length + (dir[length] == ':');
    }
    return -1;
}

static int run_and_wait(char* const argv[])
{
    pid_t pid = fork();
    if (pid < 0)
        return -1;
    if (pid == 0) {
        execv(argv[0], argv);
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static int make_private_dir(char* dir, size_t size, const char* prefix)
{
    const char* tmp = getenv("TMPDIR");
    snprintf(dir, size, "%s/%sXXXXXX", tmp && *tmp ? tmp : "/tmp", prefix);
    if (mkdtemp(dir))
        return 0;
    snprintf(dir, size, "/tmp/%sXXXXXX", prefix);
    return mkdtemp(dir) ? 0 : -1;
}

/* FUSE needs the device, the setuid helper to unmount, and squashfuse. */
static int can_mount(char* squashfuse, char* fusermount, size_t size)
{
    if (getenv("TAVELIN_APPIMAGE_EXTRACT_AND_RUN") || access("/dev/fuse", R_OK | W_OK) != 0)
        return 0;
    return find_in_path("squashfuse", squashfuse, size) == 0
           && (find_in_path("fusermount", fusermount, size) == 0 || find_in_path("fusermount3", fusermount, size) == 0);
}

static int mount_image(const char* self, int64_t offset, const char* squashfuse, const char* dir)
{
    char option[64];
    snprintf(option, sizeof option, "offset=%lld", (long long)offset);
    char* argv[] = {(char*)squashfuse, "-o", option, (char*)self, (char*)dir, NULL};
    if (run_and_wait(argv) != 0)
        return -1;
    char apprun[PATH_MAX];
    snprintf(apprun, sizeof apprun, "%s/AppRun", dir);
    return access(apprun, X_OK);
}

static int remove_entry(const char* path, const struct stat* status, int flag, struct FTW* ftw)
{
    (void)status, (void)flag, (void)ftw;
    return remove(path);
}

static void forward_signal(int signal)
{
    if (g_child > 0)
        kill(g_child, signal);
}

static int run_apprun(const char* dir, int argc, char* argv[])
{
    char apprun[PATH_MAX];
    snprintf(apprun, sizeof apprun, "%s/AppRun", dir);
    char** childArgv = calloc((size_t)argc + 1, sizeof *childArgv);
    if (!childArgv)
        return 1;
    childArgv[0] = apprun;
    for (int i = 1; i < argc; ++i)
        childArgv[i] = argv[i];
    struct sigaction action = {.sa_handler = forward_signal};
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, NULL);
    sigaction(SIGTERM, &action, NULL);
    sigaction(SIGHUP, &action, NULL);
    g_child = fork();
    if (g_child == 0) {
        execv(apprun, childArgv);
        fprintf(stderr, "tavelin-runtime: cannot start %s: %s\n", apprun, strerror(errno));
        _exit(127);
    }
    free(childArgv);
    if (g_child < 0) {
        fprintf(stderr, "tavelin-runtime: cannot start %s: %s\n", apprun, strerror(errno));
        return 1;
    }
    int status = 0;
    while (waitpid(g_child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

static void set_environment(const char* dir, const char* self, const char* argv0)
{
    char owd[PATH_MAX];
    setenv("APPDIR", dir, 1);
    setenv("APPIMAGE", self, 1);
    setenv("ARGV0", argv0, 1);
    if (getcwd(owd, sizeof owd))
        setenv("OWD", owd, 1);
}

static int extract_here(const char* self, int64_t offset)
{
    const char* target = "squashfs-root";
    if (mkdir(target, 0755) != 0 && errno != EEXIST) {
        fprintf(stderr, "tavelin-runtime: cannot create %s: %s\n", target, strerror(errno));
        return 1;
    }
    if (extract_squashfs(self, offset, target) != 0)
        return 1;
    printf("%s\n", target);
    return 0;
}

static int run(const char* self, int64_t offset, int argc, char* argv[])
{
    char squashfuse[PATH_MAX], fusermount[PATH_MAX], dir[PATH_MAX];
    int mounted = can_mount(squashfuse, fusermount, sizeof squashfuse);
    if (make_private_dir(dir, sizeof dir, mounted ? ".mount_tavelin" : ".tavelin-appimage-") != 0) {
        fprintf(stderr, "tavelin-runtime: cannot create a temporary directory: %s\n", strerror(errno));
        return 1;
    }
    if (mounted && mount_image(self, offset, squashfuse, dir) != 0) {
        char* unmount[] = {fusermount, "-u", "-q", dir, NULL};
        run_and_wait(unmount);
        fprintf(stderr, "tavelin-runtime: mounting with %s failed, extracting instead\n", squashfuse);
        mounted = 0;
    }
    if (!mounted && extract_squashfs(self, offset, dir) != 0) {
        nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
        fprintf(stderr, "tavelin-runtime: cannot unpack %s, nothing was started\n", self);
        return 1;
    }
    set_environment(dir, self, argv[0]);
    int status = run_apprun(dir, argc, argv);
    if (mounted) {
        char* unmount[] = {fusermount, "-u", "-z", dir, NULL};
        run_and_wait(unmount);
        rmdir(dir);
    } else {
        nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS);
    }
    return status;
}

int main(int argc, char* argv[])
{
    char self[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        fprintf(stderr, "tavelin-runtime: cannot find this file through /proc/self/exe: %s\n", strerror(errno));
        return 1;
    }
    self[length] = '\0';
    int64_t offset = elf_end_of_file(self);
    if (offset <= 0) {
        fprintf(stderr, "tavelin-runtime: %s is not a readable ELF file\n", self);
        return 1;
    }
    const char* option = argc > 1 ? argv[1] : "";
    if (strcmp(option, "--appimage-offset") == 0) {
        printf("%lld\n", (long long)offset);
        return 0;
    }
    if (strcmp(option, "--appimage-help") == 0) {
        usage(argv[0]);
        return 0;
    }
    if (strcmp(option, "--appimage-extract") == 0)
        return extract_here(self, offset);
    if (strncmp(option, "--appimage-", 11) == 0) {
        fprintf(stderr, "tavelin-runtime: unknown option %s (see --appimage-help)\n", option);
        return 1;
    }
    return run(self, offset, argc, argv);
}
