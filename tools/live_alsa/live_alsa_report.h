/*
 * The figures of live_alsa: counted frame by frame, shown in one line.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_REPORT_H
#define LIVE_ALSA_REPORT_H

#include "verdicts.h"

#include <stdint.h>

/* Sums over some frames; those of several reports add up. */
struct report {
    long frames, samples;                            /* samples: of all microphones */
    int delay;                                       /* of the last frame, in samples */
    double mic_energy, cleaned_energy;               /* sums of squares */
    double active_mic_energy, active_cleaned_energy; /* the same while a reference is active */
    long clipped_mic, clipped_ref;                   /* samples at full scale */
    long overruns, play_slips, unwritten;            /* unwritten: frames that the disk missed */
    double busy_s, peak_busy_s;                      /* spent in the library */
    int verdict;                                     /* of the last frame */
    struct verdicts verdicts;
};

/* Adds a frame of samples of mics + kept and mics + refs channels, microphones first. */
void report_frame(struct report *report, const int16_t *processed, const int16_t *out, int mics,
                  int kept, int refs, int frame);
void report_time(struct report *report, double busy_s);
void report_add(struct report *sum, const struct report *more);

void report_verdict(struct report *report, int verdict);

/* Writes, the first time, what the columns of the status line are. */
void report_heading(void);

/* Writes one line to standard error, below 80 columns while counts and load have up to three digits:
 * levels and load of recent, counts of total. */
void report_status(const struct report *recent, const struct report *total, int rate,
                   const char *ending);

/* The last status line, over all, what was lost on the way, and how long each verdict stood. */
void report_summary(const struct report *total, int rate);

#endif
