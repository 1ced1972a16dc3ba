/*
 * What the meter says of a stream, for cancel_wav and live_alsa.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef VERDICTS_H
#define VERDICTS_H

#include "nax_meter.h"

#include <stdio.h>

/* For how many frames each verdict stood. */
struct verdicts {
    long frames[NAX_METER_VERDICTS];
};

/* Returns a meter for the canceller of these parameters; ends the program without memory. */
nax_meter_state *create_meter(int rate, int mics, int refs, int drop);

void verdicts_add(struct verdicts *sum, const struct verdicts *more);

/* Writes a line for each verdict that stood: for how long, and what it says. */
void verdicts_print(const struct verdicts *verdicts, FILE *to);

#endif
