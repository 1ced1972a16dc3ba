/*
 * The settings of the plugins, named like the options of the tools.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef SETTINGS_H
#define SETTINGS_H

#include <stdbool.h>
#include <stdint.h>

enum { MAX_MICS = 2, MAX_REFS = 30, MAX_CHANNELS = MAX_MICS + MAX_REFS, MAX_DELAY = 12288 };

struct settings {
    int mics, refs, drop; /* channels; drop: the last ones of the references */
    bool mics_first;      /* order: the microphones before the references */
    int delay;            /* samples */
    bool delay_estimation;
    int remap[MAX_MICS]; /* channels of all, from 0, that are the microphones */
    int remap_count;     /* 0: no table */
    bool suppress;       /* the residual echo suppressor behind the canceller */
};

/* One microphone, then one reference; the delay is estimated. */
extern const struct settings DEFAULT_SETTINGS;

/* Sets the named one from a text. Returns null, or what is wrong with the text: "is ...". */
const char *settings_set(struct settings *settings, const char *name, const char *text);

/* Returns null, or which settings contradict each other. */
const char *settings_check(const struct settings *settings);

#endif
