/*
 * The command line of live_alsa.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_OPTIONS_H
#define LIVE_ALSA_OPTIONS_H

#include "options.h"

enum { MAX_REFS = 62 };

struct options {
    const char *device[2]; /* one for all channels, or microphones and references */
    int device_count;
    const char *play;                 /* device, or null */
    const char *out, *echo, *capture; /* WAV files, or null */
    struct words words;
    int rate, refs;
    int priority; /* of the audio thread under SCHED_FIFO, 0: none */
    int frames;   /* to stop after, 0: never */
    bool suppress, quiet;
};

/* Returns the options. Does not return from a wrong command line, from --help or
 * --version. */
struct options live_alsa_options(int argc, char **argv);

#endif
