#pragma once

#include <limits.h>

/* What APPIMAGE names. The installer puts it unquoted into a shell line run
 * through env, so a path with a blank, a bracket or the like is handed on as
 * a link to it whose path has none, in a private directory of its own. */
struct appimage_link {
    char path[PATH_MAX]; /* the value for APPIMAGE */
    char dir[PATH_MAX]; /* the link's directory, empty when no link was made */
};

/* Whether every byte of text is an ASCII letter or digit or one of /._+,:@%-,
 * which bash and env take as one plain word, unquoted. '=' is left out:
 * env takes a word with it for an assignment, not for the program to run. */
int appimage_link_inert(const char* text);

/* Fills link for the file at path: its real path where that is inert, else a
 * link to it, named as its base name with every other byte made '_', in a new
 * directory of mode 0700 below TMPDIR where that is an inert absolute path
 * that takes it, else below /tmp. Never fails: where no link can be made,
 * link->path is the real path after one line on stderr saying why. */
void appimage_link_make(struct appimage_link* link, const char* path);

/* Removes the link and its directory, where one was made. */
void appimage_link_remove(const struct appimage_link* link);
