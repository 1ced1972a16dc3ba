// Creation of a suppressor while memory runs short.
#include "nax_res.h"

#include "heap_wrap.h"
#include "support.h"

class SuppressorMemory : public testing::Test {
protected:
    void SetUp() override { heap::used = 0; }
    void TearDown() override { heap::refuse_after = -1; }
};

TEST_F(SuppressorMemory, IsAllGivenBackWhicheverAllocationIsRefused)
{
    constexpr int ALLOCATIONS = 5; // record, references, microphones, two transforms
    for (int succeed = 0; succeed < ALLOCATIONS; succeed++) {
        heap::refuse_after = succeed;
        EXPECT_EQ(nax_res_state_init(16000, 2, 3), nullptr) << succeed;
        EXPECT_EQ(heap::used, 0) << succeed;
    }
    heap::refuse_after = ALLOCATIONS;
    nax_res_state *state = nax_res_state_init(16000, 2, 3);
    EXPECT_NE(state, nullptr);
    nax_res_state_destroy(state);
    EXPECT_EQ(heap::used, 0);
}
