#pragma once

#include <stddef.h>

struct mount;

/* Holds SIGCHLD, SIGINT, SIGTERM and SIGHUP for launch_wait(); call before
 * mounting, so no stop signal can end the runtime with the mount left behind. */
void launch_hold_signals(void);

/* Starts argv[0] with the signal mask it had before. Returns its pid or -1. */
int launch_start(char* const argv[]);

/* Serves mount (when not NULL) until the child ends, handing it SIGINT,
 * SIGTERM and SIGHUP. Returns its exit status, or 128 + the signal that
 * killed it. Without a child (child < 0) it returns 0 on the first of those
 * signals. */
int launch_wait(int child, struct mount* mount);
