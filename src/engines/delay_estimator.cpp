#include "engines/delay_estimator.h"
namespace nax {
int32_t AEC_DelayInit(int32_t enable, int32_t, int32_t, int32_t, int32_t, int32_t, int32_t *state)
{
    state[0] = enable;
    return 0;
}
int32_t AEC_DelayProcess(const int16_t *, const int16_t *, int32_t, int32_t, int32_t *) { return 0; }
int32_t AEC_DelayDestroy(int32_t *) { return 0; }
} // namespace nax
