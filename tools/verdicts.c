/*
 * What the meter says of a stream.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "verdicts.h"

#include "options.h"

static const double FRAME_S = 0.016;

nax_meter_state *create_meter(int rate, int mics, int refs, int drop)
{
    nax_meter_state *meter = nax_meter_state_init(rate, mics, refs);
    if (!meter) fail(STATUS_FAILED, "memory", "cannot get room for the meter");
    nax_meter_drop(meter, drop);
    return meter;
}

void verdicts_add(struct verdicts *sum, const struct verdicts *more)
{
    for (int verdict = 0; verdict < NAX_METER_VERDICTS; verdict++)
        sum->frames[verdict] += more->frames[verdict];
}

void verdicts_print(const struct verdicts *verdicts, FILE *to)
{
    for (int verdict = 0; verdict < NAX_METER_VERDICTS; verdict++)
        if (verdicts->frames[verdict] > 0)
            fprintf(to, "  %8.1f s %s: %s\n", FRAME_S * (double)verdicts->frames[verdict],
                    nax_meter_name(verdict), nax_meter_text(verdict));
}
