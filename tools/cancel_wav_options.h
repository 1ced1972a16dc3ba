/*
 * The command line of cancel_wav.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef CANCEL_WAV_OPTIONS_H
#define CANCEL_WAV_OPTIONS_H

#include "options.h"

/* As many channels as libsndfile reads, less the microphones. */
enum { MAX_REFS = 1022 };

/* Which of the files' channels, those of the second behind those of the first, are used. */
struct picked {
    int mics, refs; /* 0: all channels as they come */
    int channel[MAX_MICS + MAX_REFS];
};

struct options {
    const char *in[2]; /* MIC and REF, or ALL */
    int in_count;
    const char *out; /* null with --check */
    const char *echo, *refs, *input, *delays, *dump;
    struct words words;
    struct picked picked;
    bool suppress, report, check, quiet;
};

/* Returns the options, checked as far as that is possible without the files. Does not
 * return from a wrong command line, from --help or --version. */
struct options cancel_wav_options(int argc, char **argv);

#endif
