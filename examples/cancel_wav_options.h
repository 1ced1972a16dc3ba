/*
 * The command line of cancel_wav, and the one way in which it fails.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef CANCEL_WAV_OPTIONS_H
#define CANCEL_WAV_OPTIONS_H

#include <stdbool.h>
#include <stdint.h>

enum { STATUS_FILE = 1, STATUS_USAGE = 2 };
enum { REFS_FIRST = 0, MICS_FIRST = 1 }; /* nax_aec_param.pos */
enum { MAX_MICS = 2, MAX_CHANNELS = 1024, MAX_DELAY = 12288 };

struct options {
    const char *in[2]; /* MIC and REF, or ALL */
    int in_count;
    const char *out, *echo, *refs, *delays, *dump;
    int order, mics, drop, delay, look_ahead;
    bool order_given, mics_given, estimate, quiet;
    int16_t remap[MAX_MICS];
    int remap_count; /* 0: no table */
};

/* Returns the options, checked as far as that is possible without the files. Does
 * not return from a wrong command line, from --help or --version. */
struct options parse_options(int argc, char **argv);

/* Ends the program with the one line "cancel_wav: SUBJECT: REASON". */
void fail(int status, const char *subject, const char *format, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

#endif
