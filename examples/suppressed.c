/*
 * suppressed: the whole chain, canceller and residual echo suppressor.
 *
 * Reads raw 16-bit samples at 16 kHz in host byte order, one microphone and one
 * reference interleaved, from standard input and writes the microphone without
 * echo to standard output, a frame of 16 ms late:
 *
 *     suppressed < microphone_and_reference.raw > suppressed.raw
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "nax_aec.h"
#include "nax_res.h"

#include <stdio.h>

int main(void)
{
    enum { FRAME = 256, CHANNELS = 2 }; /* 16 ms at 16 kHz; microphone, reference */
    const nax_aec_param param = {.pos = 1, .model_aec_en = NAX_AEC_DELAY_ESTIMATION};
    int16_t in[FRAME * CHANNELS], cleaned[FRAME * CHANNELS], echo[FRAME], suppressed[FRAME];

    nax_aec_state *canceller = nax_aec_state_init(16000, 16, 1, 1, &param);
    nax_res_state *suppressor = nax_res_state_init(16000, 1, 1);
    if (!canceller || !suppressor) return 1;
    while (fread(in, sizeof in, 1, stdin) == 1) {
        nax_aec_short(canceller, in, cleaned, echo, FRAME * CHANNELS);
        nax_res_short(suppressor, cleaned, echo, suppressed);
        if (fwrite(suppressed, sizeof suppressed, 1, stdout) != 1) break;
    }
    nax_res_state_destroy(suppressor);
    nax_aec_state_destroy(canceller);
    return ferror(stdin) || fflush(stdout) != 0;
}
