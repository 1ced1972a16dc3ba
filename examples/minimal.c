/*
 * minimal: the shortest use of nax_aec.
 *
 * Reads raw 16-bit samples at 16 kHz in host byte order, one microphone and one
 * reference interleaved, from standard input and writes the cleaned microphone
 * to standard output:
 *
 *     minimal < microphone_and_reference.raw > cleaned.raw
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "nax_aec.h"

#include <stdio.h>

int main(void)
{
    enum { FRAME = 256, CHANNELS = 2 }; /* 16 ms at 16 kHz; microphone, reference */
    const nax_aec_param param = {.pos = 1, .model_aec_en = NAX_AEC_DELAY_ESTIMATION};
    int16_t in[FRAME * CHANNELS], out[FRAME * CHANNELS], cleaned[FRAME];

    nax_aec_state *state = nax_aec_state_init(16000, 16, 1, 1, &param);
    if (!state) return 1;
    while (fread(in, sizeof in, 1, stdin) == 1) {
        nax_aec_short(state, in, out, NULL, FRAME * CHANNELS);
        for (int t = 0; t < FRAME; t++)
            cleaned[t] = out[t * CHANNELS]; /* out[t * CHANNELS + 1]: the aligned reference */
        if (fwrite(cleaned, sizeof cleaned, 1, stdout) != 1) break;
    }
    nax_aec_state_destroy(state);
    return ferror(stdin) || fflush(stdout) != 0;
}
