/* The AppImage runtime: runs AppRun from the squashfs image appended to this
 * very file, served through FUSE by this process where FUSE is usable,
 * otherwise extracted into a private temporary directory. Either goes when
 * AppRun ends, as does the link APPIMAGE names where the path needs one. */
#include "extract.h"
#include "image.h"
#include "launch.h"
#include "mount.h"
/* After the headers above: squashfuse's set the POSIX level before any system header. */
#include "appimagelink.h"

#include <errno.h>
#include <ftw.h>
#include <limits.h>
#include <malloc.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#ifndef TAVELIN_RUNTIME_VERSION
#define TAVELIN_RUNTIME_VERSION "unknown"
#endif

static const char g_prefix[] = "--appimage-";

static int usage(const char* argv0)
{
    printf("Usage: %s [ARGUMENTS...]\n"
           "Runs the program inside this AppImage with ARGUMENTS. Only the first argument\n"
           "is looked at, and only when it begins with --appimage-:\n\n"
           "  --appimage-extract [PATTERN]  write the contents, or the paths matching the\n"
           "                                shell pattern PATTERN, into ./squashfs-root\n"
           "  --appimage-extract-and-run    extract into a temporary directory, run, remove\n"
           "  --appimage-mount              mount, print where, wait for Ctrl+C\n"
           "  --appimage-offset             print where the squashfs image begins\n"
           "  --appimage-updateinformation  print the update information\n"
           "  --appimage-signature          print the image's signature\n"
           "  --appimage-version            print the runtime's version\n"
           "  --appimage-help               show this help\n\n"
           "APPIMAGE_EXTRACT_AND_RUN=1 always extracts; TARGET_APPIMAGE=FILE works on\n"
           "the image in FILE instead of this one.\n",
           argv0);
    return 0;
}

static int make_private_dir(char* dir, size_t size, const char* prefix)
{
    const char* tmp = getenv("TMPDIR");
    snprintf(dir, size, "%s/%sXXXXXX", tmp && *tmp ? tmp : "/tmp", prefix);
    if (mkdtemp(dir))
        return 0;
    snprintf(dir, size, "/tmp/%sXXXXXX", prefix);
    if (mkdtemp(dir))
        return 0;
    fprintf(stderr, "tavelin-runtime: cannot create a temporary directory: %s\n", strerror(errno));
    return -1;
}

static int remove_entry(const char* path, const struct stat* status, int flag, struct FTW* ftw)
{
    (void)status, (void)flag, (void)ftw;
    return remove(path);
}

static void remove_tree(const char* dir)
{
    nftw(dir, remove_entry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

static void set_environment(const char* dir, const char* appimage, const char* argv0)
{
    char owd[PATH_MAX];
    setenv("APPDIR", dir, 1);
    setenv("APPIMAGE", appimage, 1);
    setenv("ARGV0", argv0, 1);
    if (getcwd(owd, sizeof owd))
        setenv("OWD", owd, 1);
}

static int run_apprun(const char* dir, char** args, struct mount* mount)
{
    char apprun[PATH_MAX];
    snprintf(apprun, sizeof apprun, "%s/AppRun", dir);
    size_t count = 0;
    while (args[count])
        ++count;
    char** argv = calloc(count + 2, sizeof *argv);
    if (!argv)
        return 1;
    argv[0] = apprun;
    memcpy(argv + 1, args, count * sizeof *argv);
    int status = launch_run(argv, mount);
    free(argv);
    return status;
}

/* Mounts where FUSE allows, extracts otherwise, and always cleans up after AppRun. */
static int mount_or_extract_and_run(const struct image* image, const struct appimage_link* link, char* argv0,
                                    char** args, int extract)
{
    char dir[PATH_MAX], why[256];
    struct mount* mount = NULL;
    if (!extract && make_private_dir(dir, sizeof dir, ".mount_tavelin") == 0) {
        mount = mount_open(image, dir, link->dir[0] ? link->path : NULL, why, sizeof why);
        if (!mount) {
            rmdir(dir);
            fprintf(stderr, "tavelin-runtime: cannot mount the image (%s), extracting it instead\n", why);
        }
    }
    if (!mount && make_private_dir(dir, sizeof dir, ".tavelin-appimage-") != 0)
        return 1;
    if (!mount && extract_image(image, dir, NULL) != 0) {
        remove_tree(dir);
        return 1;
    }
    set_environment(dir, link->path, argv0);
    int status = run_apprun(dir, args, mount);
    if (mount) {
        mount_close(mount);
        rmdir(dir);
    } else {
        remove_tree(dir);
    }
    return status;
}

/* The link for APPIMAGE comes first, so that a guard the mount starts knows it too. */
static int run(const struct image* image, char* argv0, char** args, int extract)
{
    if (image_check_squashfs(image, "AppRun") != 0)
        return 1;
    launch_hold_signals();
    struct appimage_link link;
    appimage_link_make(&link, image->path);
    int status = mount_or_extract_and_run(image, &link, argv0, args, extract);
    appimage_link_remove(&link);
    return status;
}

static int mount_and_wait(const struct image* image)
{
    char dir[PATH_MAX], why[256];
    if (image_check_squashfs(image, NULL) != 0)
        return 1;
    launch_hold_signals();
    if (make_private_dir(dir, sizeof dir, ".mount_tavelin") != 0)
        return 1;
    struct mount* mount = mount_open(image, dir, NULL, why, sizeof why);
    if (!mount) {
        rmdir(dir);
        fprintf(stderr, "tavelin-runtime: cannot mount the image: %s\n", why);
        return 1;
    }
    mount_read_ahead(mount);
    printf("%s\n", dir);
    fflush(stdout);
    launch_serve_until_stopped(mount);
    mount_close(mount);
    rmdir(dir);
    return 0;
}

static int extract_here(const struct image* image, const char* pattern)
{
    if (extract_image(image, "squashfs-root", pattern) != 0)
        return 1;
    printf("squashfs-root\n");
    return 0;
}

static const char* const g_options[] = {"extract", "extract-and-run", "mount", "offset", "updateinformation",
                                        "signature", "version", "help", NULL};

/* The option's word after --appimage-, or NULL after saying it is unknown. */
static const char* known_option(const char* word)
{
    for (int i = 0; g_options[i]; ++i) {
        if (strcmp(word + sizeof g_prefix - 1, g_options[i]) == 0)
            return g_options[i];
    }
    fprintf(stderr, "tavelin-runtime: unknown option %s (see --appimage-help)\n", word);
    return NULL;
}

/* The image is TARGET_APPIMAGE's file where set, else this very file. */
static const char* image_path(char* self, size_t size)
{
    const char* target = getenv("TARGET_APPIMAGE");
    if (target && *target)
        return target;
    ssize_t length = readlink("/proc/self/exe", self, size - 1);
    if (length <= 0) {
        fprintf(stderr, "tavelin-runtime: cannot find this file through /proc/self/exe: %s\n", strerror(errno));
        return NULL;
    }
    self[length] = '\0';
    return self;
}

static int on(const char* env)
{
    const char* value = getenv(env);
    return value && *value && strcmp(value, "0") != 0;
}

/* The standard variable, and the name older documentation of ours gave it. */
static int extract_and_run_wanted(void)
{
    return on("APPIMAGE_EXTRACT_AND_RUN") || on("TAVELIN_APPIMAGE_EXTRACT_AND_RUN");
}

/* A page fault is dear on some virtual machines (10 us here): freed blocks
 * are reused instead of going back to the system and faulting in again. */
static void keep_freed_memory(void)
{
    mallopt(M_MMAP_THRESHOLD, 64 << 20);
    mallopt(M_TRIM_THRESHOLD, 256 << 20);
    mallopt(M_ARENA_MAX, 1);
}

int main(int argc, char* argv[])
{
    keep_freed_memory();
    const char* option = argc > 1 && strncmp(argv[1], g_prefix, sizeof g_prefix - 1) == 0 ? known_option(argv[1]) : "";
    if (!option)
        return 1;
    if (strcmp(option, "help") == 0)
        return usage(argv[0]);
    if (strcmp(option, "version") == 0)
        return printf("tavelin-runtime %s\n", TAVELIN_RUNTIME_VERSION) < 0;
    char self[PATH_MAX];
    const char* path = image_path(self, sizeof self);
    struct image image;
    if (!path || image_open(&image, path) != 0)
        return 1;
    if (strcmp(option, "offset") == 0)
        return printf("%lld\n", (long long)image.offset) < 0;
    if (strcmp(option, "updateinformation") == 0 || strcmp(option, "signature") == 0)
        return image_print_section(&image, *option == 'u' ? ".upd_info" : ".sha256_sig") != 0;
    if (strcmp(option, "extract") == 0)
        return extract_here(&image, argc > 2 ? argv[2] : NULL);
    if (strcmp(option, "mount") == 0)
        return mount_and_wait(&image);
    int extract_and_run = strcmp(option, "extract-and-run") == 0;
    return run(&image, argv[0], argv + 1 + extract_and_run, extract_and_run || extract_and_run_wanted());
}
