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

struct warmup {
    char dir[PATH_MAX];
    pthread_t thread;
    pthread_mutex_t lock;
    int stopping, finished;
};

static int stopping(struct warmup* warmup)
{
    pthread_mutex_lock(&warmup->lock);
    int result = warmup->stopping;
    pthread_mutex_unlock(&warmup->lock);
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

static void open_listed(struct warmup* warmup, FILE* list)
{
    char line[PATH_MAX], path[2 * PATH_MAX];
    for (int count = 0; count < MOST_FILES && fgets(line, sizeof line, list) && !stopping(warmup); ++count) {
        line[strcspn(line, "\n")] = '\0';
        if (!is_inside(line))
            continue;
        snprintf(path, sizeof path, "%s/%s", warmup->dir, line);
        open_regular(path);
    }
}

static void* run(void* context)
{
    struct warmup* warmup = context;
    char path[PATH_MAX + 32];
    snprintf(path, sizeof path, "%s/.tavelin-preload", warmup->dir);
    FILE* list = fopen(path, "re");
    if (list) {
        open_listed(warmup, list);
        fclose(list);
    }
    pthread_mutex_lock(&warmup->lock);
    warmup->finished = 1;
    pthread_mutex_unlock(&warmup->lock);
    return NULL;
}

struct warmup* warmup_start(const char* dir)
{
    struct warmup* warmup = calloc(1, sizeof *warmup);
    if (!warmup)
        return NULL;
    snprintf(warmup->dir, sizeof warmup->dir, "%s", dir);
    pthread_mutex_init(&warmup->lock, NULL);
    if (pthread_create(&warmup->thread, NULL, run, warmup) != 0) {
        free(warmup);
        return NULL;
    }
    return warmup;
}

void warmup_stop(struct warmup* warmup)
{
    pthread_mutex_lock(&warmup->lock);
    warmup->stopping = 1;
    pthread_mutex_unlock(&warmup->lock);
}

int warmup_ended(struct warmup* warmup)
{
    pthread_mutex_lock(&warmup->lock);
    int ended = warmup->finished;
    pthread_mutex_unlock(&warmup->lock);
    return ended;
}

void warmup_free(struct warmup* warmup)
{
    pthread_join(warmup->thread, NULL);
    free(warmup);
}
