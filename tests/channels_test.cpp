// Strided copies of one channel (src/process/channels) against the plain loop.
#include "kernels/channels.h"

#include "support.h"

// Copies with every pair of strides up to 6 and compares the whole destination, the
// samples between and behind the channel's own included.
TEST(Channels, CopiesOnlyTheChannelsOwnSamplesAtEveryPairOfStrides)
{
    for (int32_t from_stride = 1; from_stride <= 6; from_stride++)
        for (int32_t to_stride = 1; to_stride <= 6; to_stride++)
            for (const int32_t count : {0, 1, 2, 7, 8, 9, 31, 128, 129, 768}) {
                const Samples from =
                    counting(static_cast<size_t>(count * from_stride) + 1, 1 + from_stride);
                Samples to(static_cast<size_t>(count * to_stride) + 16, -7);
                Samples expected = to;
                for (int32_t i = 0; i < count; i++)
                    expected[static_cast<size_t>(i * to_stride)] =
                        from[static_cast<size_t>(i * from_stride)];
                nax::copy_channel(from.data(), from_stride, to.data(), to_stride, count);
                ASSERT_EQ(to, expected) << from_stride << " to " << to_stride << ", " << count;
            }
}

// A channel other than the first starts at an address that is aligned to two bytes
// only, and its last sample may be the last of the buffer.
TEST(Channels, ReadsNothingBehindTheLastSampleOfTheLastChannel)
{
    for (int32_t stride = 2; stride <= 5; stride++) {
        const Samples from = counting(static_cast<size_t>(128 * stride));
        Samples to(128);
        nax::copy_channel(from.data() + stride - 1, stride, to.data(), 1, 128);
        EXPECT_EQ(to[127], static_cast<int16_t>(128 * stride - 1));
        Samples back(from.size());
        nax::copy_channel(to.data(), 1, back.data() + stride - 1, stride, 128);
        EXPECT_EQ(back.back(), to[127]);
    }
}
