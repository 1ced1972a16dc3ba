// Logarithm by table. The exponent of the float gives the whole part. The upper 7 bits of the
// mantissa choose an interval of the table; the rest of the mantissa interpolates linearly in it. The largest error of the chord over an interval of
// width h is h^2 / (8 ln 2) = 1.1e-5 at h = 1/128; rounding adds a little.
#include "engines/logtab.h"

#include <atomic>
#include <cmath>
#include <cstring>

namespace nax {

static constexpr int TABLE_BITS = 7;
static constexpr int TABLE_SIZE = 1 << TABLE_BITS;
static constexpr int MANTISSA_BITS = 23;

// Atomic, so that states may be created on several threads at once without a lock. A relaxed
// load is a plain load on all processors served.
static std::atomic<float> table[TABLE_SIZE + 1];
static_assert(std::atomic<float>::is_always_lock_free);

int32_t nax_logtab_init()
{
    for (int i = 0; i <= TABLE_SIZE; i++) {
        const double mantissa = 1.0 + static_cast<double>(i) / TABLE_SIZE;
        table[i].store(static_cast<float>(std::log2(mantissa)), std::memory_order_relaxed);
    }
    return 0;
}

float log2_approx(float value)
{
    uint32_t bits;
    memcpy(&bits, &value, sizeof bits);
    const int32_t exponent = static_cast<int32_t>(bits >> MANTISSA_BITS) - 127;
    const uint32_t mantissa = bits & ((1u << MANTISSA_BITS) - 1);
    const uint32_t index = mantissa >> (MANTISSA_BITS - TABLE_BITS);
    const uint32_t rest = mantissa & ((1u << (MANTISSA_BITS - TABLE_BITS)) - 1);
    const float low = table[index].load(std::memory_order_relaxed);
    const float high = table[index + 1].load(std::memory_order_relaxed);
    const float fraction = static_cast<float>(rest) / (1u << (MANTISSA_BITS - TABLE_BITS));
    return static_cast<float>(exponent) + low + (high - low) * fraction;
}

float level_db(float power)
{
    constexpr float DB_PER_OCTAVE = 3.0102999566f; // 10 log10(2)
    constexpr float FLOOR_POWER = 1e-10f;
    constexpr float FLOOR_DB = -100.0f;
    return power < FLOOR_POWER ? FLOOR_DB : DB_PER_OCTAVE * log2_approx(power);
}

} // namespace nax
