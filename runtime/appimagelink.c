#include "appimagelink.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char g_prefix[] = ".tavelin-appimage-link-";

/* Ranges, not isalnum: the locale must not make a byte of UTF-8 a letter. */
static int inert_byte(unsigned char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9')
        || (byte && strchr("/._+,:@%-", byte));
}

int appimage_link_inert(const char* text)
{
    for (; *text; ++text) {
        if (!inert_byte((unsigned char)*text))
            return 0;
    }
    return 1;
}

/* TMPDIR becomes part of APPIMAGE, so it has to be inert itself. */
static const char* link_parent(void)
{
    const char* tmp = getenv("TMPDIR");
    return tmp && *tmp == '/' && appimage_link_inert(tmp) ? tmp : "/tmp";
}

static void make_inert(char* text)
{
    for (; *text; ++text) {
        if (!inert_byte((unsigned char)*text))
            *text = '_';
    }
}

/* Makes the directory below parent and the link to real in it. Returns 0, or
 * -1 with errno set and nothing left behind. */
static int link_in(struct appimage_link* link, const char* real, const char* parent)
{
    const char* slash = strrchr(real, '/');
    const char* name = slash ? slash + 1 : real;
    if (snprintf(link->dir, sizeof link->dir, "%s/%sXXXXXX", parent, g_prefix) >= (int)sizeof link->dir)
        return errno = ENAMETOOLONG, -1;
    if (!mkdtemp(link->dir))
        return -1;
    int length = snprintf(link->path, sizeof link->path, "%s/%s", link->dir, name);
    if (length < (int)sizeof link->path) {
        make_inert(link->path + strlen(link->dir) + 1);
        if (symlink(real, link->path) == 0)
            return 0;
    } else {
        errno = ENAMETOOLONG;
    }
    int saved = errno;
    rmdir(link->dir);
    errno = saved;
    return -1;
}

void appimage_link_make(struct appimage_link* link, const char* path)
{
    char real[PATH_MAX];
    link->dir[0] = '\0';
    snprintf(link->path, sizeof link->path, "%s", realpath(path, real) ? real : path);
    if (appimage_link_inert(link->path) || link->path[0] != '/')
        return;
    snprintf(real, sizeof real, "%s", link->path);
    const char* parent = link_parent();
    if (link_in(link, real, parent) == 0 || (strcmp(parent, "/tmp") != 0 && link_in(link, real, "/tmp") == 0))
        return;
    fprintf(stderr, "tavelin-runtime: cannot make a link for APPIMAGE (%s): it is %s, which a shell line must quote\n",
            strerror(errno), real);
    link->dir[0] = '\0';
    snprintf(link->path, sizeof link->path, "%s", real);
}

void appimage_link_remove(const struct appimage_link* link)
{
    if (!link->dir[0])
        return;
    unlink(link->path);
    rmdir(link->dir);
}
