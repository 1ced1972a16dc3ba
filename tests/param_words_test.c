/* Where pointers have 32 bits, six int32_t serve as the parameter block. */
#include "nax_aec.h"

#include <stdio.h>
#include <string.h>

#define FRAME 128
#define CHANNELS 3 /* two microphones and a reference */

/* Whether the base delay is returned and the table orders the microphones. */
static int obeyed(nax_aec_state *state, int16_t first, int16_t second)
{
    int16_t in[FRAME * CHANNELS];
    int16_t out[FRAME * CHANNELS];
    int16_t echo[FRAME * 2];
    uint8_t *audio = (uint8_t *)in;
    int i;
    for (i = 0; i < FRAME; i++) {
        in[CHANNELS * i] = 0;
        in[CHANNELS * i + 1] = 100;
        in[CHANNELS * i + 2] = 200;
    }
    if (nax_aec_byte(state, &audio, out, echo, sizeof in, NAX_AEC_LITTLE_ENDIAN) != 77) return 0;
    memcpy(in, audio, sizeof in);
    return in[0] == first && in[1] == second && in[2] == 0;
}

int main(void)
{
    static const int16_t table[2] = {2, 1};
    int32_t words[6] = {0, 0, NAX_AEC_REMAP, 77, 5, 0};
    nax_aec_state *state;
    int failed;

    words[5] = (int32_t)(intptr_t)table;
    nax_aec_param_printf(0, 0, (const nax_aec_param *)(const void *)words);
    state = nax_aec_state_init(8000, 16, 2, 1, (const nax_aec_param *)(const void *)words);
    failed = !state || !obeyed(state, 200, 100);
    nax_aec_state_destroy(state);
    if (failed) puts("six words were not taken as the parameter block");
    return failed;
}
