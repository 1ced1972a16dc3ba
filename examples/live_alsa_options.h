/*
 * The command line of live_alsa, and the one way in which it fails.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_OPTIONS_H
#define LIVE_ALSA_OPTIONS_H

#include <stdbool.h>
#include <stdint.h>

enum { STATUS_DEVICE = 1, STATUS_USAGE = 2 }; /* a file that fails counts as a device */
enum { REFS_FIRST = 0, MICS_FIRST = 1 };      /* nax_aec_param.pos */
enum { MAX_MICS = 2, MAX_REFS = 62, MAX_DELAY = 12288 };

struct options {
    const char *device[2]; /* one for all channels, or microphones and references */
    int device_count;
    const char *play;                 /* device, or null */
    const char *out, *echo, *capture; /* WAV files, or null */
    int rate, mics, refs, order, drop, delay, look_ahead;
    int priority; /* of the audio thread under SCHED_FIFO, 0: none */
    bool estimate, quiet;
    int16_t remap[MAX_MICS];
    int remap_count; /* 0: no table */
    long frames;     /* to stop after, 0: never */
    double seconds;  /* the same in s */
};

/* Returns the options. Does not return from a wrong command line, from --help or
 * --version. */
struct options parse_options(int argc, char **argv);

/* Writes the one line "live_alsa: SUBJECT: REASON" to standard error. */
void complain(const char *subject, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Ends the program with such a line. */
void fail(int status, const char *subject, const char *format, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

#endif
