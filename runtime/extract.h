#pragma once

#include "image.h"

/* Writes the entries of the image whose path inside it, or one of whose
 * parent directories, matches the fnmatch pattern (all when NULL) below
 * the directory target, made if missing. Nothing is written through a link:
 * links in the image stay links and links in the way are replaced.
 * Returns 0, or -1 after saying what failed. */
int extract_image(const struct image* image, const char* target, const char* pattern);
