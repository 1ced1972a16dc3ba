/* The public headers as C99, and the order of the parameter block's words. */
#include "nax_aec.h"
#include "nax_aec_dump.h"
#include "nax_meter.h"
#include "nax_res.h"

#include <stddef.h>
#include <stdio.h>

#define EXPECT(condition)                                                                          \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "header_test: %s does not hold\n", #condition);                        \
            failures++;                                                                            \
        }                                                                                          \
    } while (0)

int main(void)
{
    int failures = 0;
    nax_aec_state *(*init)(int32_t, int32_t, int32_t, int32_t, const nax_aec_param *) =
        nax_aec_state_init;
    void (*report)(int32_t, int32_t, const nax_aec_param *) = nax_aec_param_printf;
    void (*destroy)(nax_aec_state *) = nax_aec_state_destroy;
    int32_t (*process)(nax_aec_state *, const int16_t *, int16_t *, int16_t *, int32_t) =
        nax_aec_short;
    int32_t (*bytes)(nax_aec_state *, uint8_t **, int16_t *, int16_t *, int32_t, uint32_t) =
        nax_aec_byte;
    EXPECT(init && report && destroy && process && bytes);
    nax_res_state *(*res_init)(int32_t, int32_t, int32_t) = nax_res_state_init;
    int32_t (*suppress)(nax_res_state *, const int16_t *, const int16_t *, int16_t *) =
        nax_res_short;
    void (*res_destroy)(nax_res_state *) = nax_res_state_destroy;
    EXPECT(res_init && suppress && res_destroy);
    nax_meter_state *(*meter_init)(int32_t, int32_t, int32_t) = nax_meter_state_init;
    int32_t (*drop)(nax_meter_state *, int32_t) = nax_meter_drop;
    int32_t (*measure)(nax_meter_state *, const int16_t *, const int16_t *, int32_t) =
        nax_meter_short;
    int32_t (*meter_read)(const nax_meter_state *, nax_meter_report *) = nax_meter_read;
    const char *(*name)(int32_t) = nax_meter_name, *(*text)(int32_t) = nax_meter_text;
    int32_t (*is_alarm)(int32_t) = nax_meter_is_alarm;
    void (*meter_destroy)(nax_meter_state *) = nax_meter_state_destroy;
    EXPECT(meter_init && drop && measure && meter_read && name && text && is_alarm &&
           meter_destroy);

    EXPECT(offsetof(nax_aec_param, pos) == 0);
    EXPECT(offsetof(nax_aec_param, drop_channel) == 4);
    EXPECT(offsetof(nax_aec_param, model_aec_en) == 8);
    EXPECT(offsetof(nax_aec_param, delay_len) == 12);
    EXPECT(offsetof(nax_aec_param, look_ahead) == 16);
    /* The sixth word is as wide as a pointer, and aligned as one. */
    EXPECT(offsetof(nax_aec_param, array_list) == (sizeof(void *) == 4 ? 20 : 24));
    EXPECT(sizeof(nax_aec_param) == (sizeof(void *) == 4 ? 24 : 32));

    EXPECT(NAX_AEC_LITTLE_ENDIAN == 0 && NAX_AEC_BIG_ENDIAN == 1 && NAX_AEC_HOST_ENDIAN == 2);
    EXPECT(NAX_AEC_DELAY_ESTIMATION == 1 && NAX_AEC_REMAP == 2);

    /* The library's own variables, not copies of them. */
    EXPECT(aec_out == NULL && echo_out == NULL);
    return failures != 0;
}
