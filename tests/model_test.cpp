// The library against the model (model.h), in random lives. NAX_AEC_MODEL_CALLS sets
// how many calls are compared, a million for instance, and NAX_AEC_MODEL_SEED where to
// begin; a failure prints the seed that repeats it alone.
#include "life.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

class Seeded : public Choices {
public:
    explicit Seeded(uint32_t seed) : engine_(seed) {}
    int32_t pick(int32_t low, int32_t high) override
    {
        const uint64_t span = static_cast<uint64_t>(int64_t{high} - low) + 1;
        return static_cast<int32_t>(low + static_cast<int64_t>(engine_() % span));
    }
    bool more() override { return true; }

private:
    std::mt19937 engine_;
};

static int64_t setting(const char *name, int64_t otherwise)
{
    const char *text = std::getenv(name);
    return text ? std::atoll(text) : otherwise;
}

TEST(Model, AgreesWithTheLibraryInRandomLives)
{
    const int64_t wanted = setting("NAX_AEC_MODEL_CALLS", 100000);
    const uint32_t first = static_cast<uint32_t>(setting("NAX_AEC_MODEL_SEED", 1));
    int64_t calls = 0;
    uint32_t lives = 0;
    for (; calls < wanted; lives++) {
        Seeded choices(first + lives);
        const int32_t max_calls = choices.pick(1, 100);
        const Life life = live(choices, max_calls);
        calls += life.calls + 1; // a creation may be refused, and is a call as well
        ASSERT_EQ(life.difference, "")
            << "Repeat with NAX_AEC_MODEL_SEED=" << first + lives << " NAX_AEC_MODEL_CALLS=1";
    }
    printf("%lld calls in %u lives, seeds %u to %u\n", static_cast<long long>(calls), lives, first,
           first + lives - 1);
}

// Long enough for the frame counter to reach its end.
TEST(Model, AgreesWithTheLibraryInALongLife)
{
    Seeded choices(5);
    const Life life = live(choices, 17500);
    EXPECT_EQ(life.difference, "");
    EXPECT_EQ(life.calls, 17500);
}
