#include "warmup.h"

#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Enough for an installer's libraries and plugins. */
enum { MOST_FILES = 256 };

struct preload {
    char dir[PATH_MAX];
    pthread_t thread;
    pthread_mutex_t lock;
    int stopping, finished;
};

static int stopping(struct preload* preload)
{
    pthread_mutex_lock(&preload->lock);
    int result = preload->stopping;
    pthread_mutex_unlock(&preload->lock);
    return result;
}

/* Only paths inside the AppDir: the list comes with the image. */
static int is_inside(const char* path)
{
    if (path[0] == '\0' || path[0] == '/')
        return 0;
    for (const char* part = path; part;) {
        if (strncmp(part, "..", 2) == 0 && (part[2] == '/' || part[2] == '\0'))
            return 0;
        const char* slash = strchr(part, '/');
        part = slash ? slash + 1 : NULL;
    }
    return 1;
}

/* Regular files only: opening a device or a pipe can do more than read. */
static void open_regular(const char* path)
{
    struct stat status;
    if (lstat(path, &status) != 0 || !S_ISREG(status.st_mode))
        return;
    int file = open(path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (file >= 0)
        close(file);
}

static void open_listed(struct preload* preload, FILE* list)
{
    char line[PATH_MAX], path[2 * PATH_MAX];
    for (int count = 0; count < MOST_FILES && fgets(line, sizeof line, list) && !stopping(preload); ++count) {
        line[strcspn(line, "\n")] = '\0';
        if (!is_inside(line))
            continue;
        snprintf(path, sizeof path, "%s/%s", preload->dir, line);
        open_regular(path);
    }
}

static void* run(void* context)
{
    struct preload* preload = context;
    char path[PATH_MAX + 32];
    snprintf(path, sizeof path, "%s/.tavelin-preload", preload->dir);
    FILE* list = fopen(path, "re");
    if (list) {
        open_listed(preload, list);
        fclose(list);
    }
    pthread_mutex_lock(&preload->lock);
    preload->finished = 1;
    pthread_mutex_unlock(&preload->lock);
    return NULL;
}

struct preload* preload_start(const char* dir)
{
    struct preload* preload = calloc(1, sizeof *preload);
    if (!preload)
        return NULL;
    snprintf(preload->dir, sizeof preload->dir, "%s", dir);
    pthread_mutex_init(&preload->lock, NULL);
    if (pthread_create(&preload->thread, NULL, run, preload) != 0) {
        free(preload);
        return NULL;
    }
    return preload;
}

void preload_stop(struct preload* preload)
{
    pthread_mutex_lock(&preload->lock);
    preload->stopping = 1;
    pthread_mutex_unlock(&preload->lock);
}

int preload_ended(struct preload* preload)
{
    pthread_mutex_lock(&preload->lock);
    int ended = preload->finished;
    pthread_mutex_unlock(&preload->lock);
    return ended;
}

void preload_free(struct preload* preload)
{
    pthread_join(preload->thread, NULL);
    free(preload);
}
