#pragma once

struct mount;

/* Holds SIGCHLD, SIGINT, SIGTERM and SIGHUP for the functions below; call it
 * before mounting, so that no stop signal ends the runtime with the mount
 * left behind. */
void launch_hold_signals(void);

/* Runs argv[0] with the signal mask it had before, serving mount (when not
 * NULL) and handing it SIGINT, SIGTERM and SIGHUP until it ends. Returns its
 * exit status, or 128 + the signal that ended it. A stop signal that came
 * while the image was prepared means it is not started at all. */
int launch_run(char* const argv[], struct mount* mount);

/* Serves mount until SIGINT, SIGTERM or SIGHUP. */
void launch_serve_until_stopped(struct mount* mount);
