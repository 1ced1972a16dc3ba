/*
 * What cancel_wav and live_alsa have in common: reading the command line, the parameter
 * block, and error messages.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef OPTIONS_H
#define OPTIONS_H

#include "nax_aec.h"

#include <stdbool.h>
#include <stdint.h>

enum { STATUS_FAILED = 1, STATUS_USAGE = 2 }; /* 1: a file or a device */
enum { REFS_FIRST = 0, MICS_FIRST = 1 };      /* nax_aec_param.pos */
enum { MAX_MICS = 2, MAX_DELAY = 12288 };
enum { NOT_GIVEN = -1 };

/* Each program has its own. */
extern const char PROGRAM[], USAGE[];

#define USAGE_DELAY                                                                                \
    "Delay:\n"                                                                                     \
    "  --delay SAMPLES        where the search starts, 0 to 12288 (default 0): delay_len\n"        \
    "  --look-ahead SAMPLES   0 to 12288 (default 0), changes no audio: look_ahead\n"              \
    "  --no-delay-estimation  leave the reference where it is\n"

/* The parameter block as the command line gives it. */
struct words {
    int order, mics; /* NOT_GIVEN without their options */
    int drop, delay, look_ahead;
    bool estimate;
    int16_t remap[MAX_MICS];
    int remap_count; /* 0: no table */
};

/* An option of a program's own and what it sets: a const char *, an int within bounds,
 * a double above 0, or a bool that becomes true. */
struct option_rule {
    const char *name; /* without its dashes; null after the last */
    enum { TEXT, NUMBER, SECONDS, FLAG } kind;
    void *value;
    int low, high;
};

/* Reads the words, which it sets, and the program's own options; a program has up to
 * max_refs references. Returns the index of the first file in argv. Does not return from
 * a wrong command line, from --help or --version. */
int parse_options(struct words *words, int max_refs, const struct option_rule *own, int argc,
                  char **argv);

/* The parameter block; its table is that of words, which must outlive the state. */
nax_aec_param param_of(const struct words *words);

bool is_supported_rate(int rate);

/* Writes the one line "PROGRAM: SUBJECT: REASON" to standard error. */
void complain(const char *subject, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* Ends the program with such a line. */
void fail(int status, const char *subject, const char *format, ...)
    __attribute__((noreturn, format(printf, 3, 4)));

#endif
