#pragma once

/* The files an AppDir names in .tavelin-preload, one path a line, are opened
 * through the mount as soon as it is up, in the order given, so that their
 * decompression starts before the program asks for them: the program's own
 * start takes a shell, two helpers and an exec. A thread of its own opens
 * them, since the mount is served by the thread that starts it. */
struct warmup;

/* Starts on the mount at dir; NULL when there is no thread for it. */
struct warmup* warmup_start(const char* dir);

/* Asks it to stop; its opens wait for the mount, so requests are to be
 * answered until it has ended. Then it can be freed. */
void warmup_stop(struct warmup* warmup);
int warmup_ended(struct warmup* warmup);
void warmup_free(struct warmup* warmup);
