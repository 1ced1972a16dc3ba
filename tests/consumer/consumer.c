/* An application in C: one frame of silence through an installed library. */
#include <nax_aec.h>
#include <nax_aec_dump.h>

#include <string.h>

int main(void)
{
    static int16_t in[256 * 2], out[256 * 2], echo[256];
    nax_aec_param param;
    nax_aec_state *state;
    int32_t delay;

    memset(&param, 0, sizeof param);
    param.pos = 1;
    param.model_aec_en = NAX_AEC_DELAY_ESTIMATION;
    state = nax_aec_state_init(16000, 16, 1, 1, &param);
    if (!state || aec_out || echo_out) return 1;
    delay = nax_aec_short(state, in, out, echo, 256 * 2);
    nax_aec_state_destroy(state);
    return delay != 0;
}
