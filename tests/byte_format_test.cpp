// Conversion of raw bytes to samples (src/engines/byte_format).
#include "engines/byte_format.h"

#include "support.h"

#include <cstring>

TEST(ByteFormat, Code0PutsTheLowByteFirstAndCode1TheHighByte)
{
    const uint8_t bytes[] = {0x01, 0x80, 0xff, 0x7f, 0x34, 0x12};
    int16_t samples[3];
    EXPECT_EQ(nax::nax_bytes2shorts(bytes, samples, 6, 16, NAX_AEC_LITTLE_ENDIAN), 3);
    EXPECT_EQ(Samples(samples, samples + 3), (Samples{-32767, 32767, 0x1234}));
    EXPECT_EQ(nax::nax_bytes2shorts(bytes, samples, 6, 16, NAX_AEC_BIG_ENDIAN), 3);
    EXPECT_EQ(Samples(samples, samples + 3), (Samples{0x0180, -129, 0x3412}));
}

TEST(ByteFormat, TheHostsOrderCopiesSamplesAsTheyAre)
{
    const Samples samples = counting(1000, -500);
    Samples converted(samples.size());
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(samples.data());
    const int32_t count =
        nax::nax_bytes2shorts(bytes, converted.data(), 2000, 16, nax::nax_bigorsmall());
    EXPECT_EQ(count, 1000);
    EXPECT_EQ(converted, samples);
    EXPECT_LE(nax::nax_bigorsmall(), 1u);
}

TEST(ByteFormat, ReadsBytesAtAnyAlignment)
{
    const Samples samples = counting(64, 0x1200);
    std::vector<uint8_t> bytes(129);
    memcpy(bytes.data() + 1, samples.data(), 128);
    for (const uint32_t order : {0u, 1u}) {
        Samples converted(64);
        nax::nax_bytes2shorts(bytes.data() + 1, converted.data(), 128, 16, order);
        const int16_t swapped = static_cast<int16_t>((samples[5] & 0xff) << 8 | samples[5] >> 8);
        EXPECT_EQ(converted[5], order == nax::nax_bigorsmall() ? samples[5] : swapped);
    }
}

TEST(ByteFormat, LeavesAnOddLastByteOut)
{
    const uint8_t bytes[] = {1, 2, 3, 4, 5};
    int16_t samples[3] = {-1, -1, -1};
    for (const uint32_t order : {0u, 1u}) {
        EXPECT_EQ(nax::nax_bytes2shorts(bytes, samples, 5, 16, order), 2);
        EXPECT_EQ(samples[2], -1);
    }
    EXPECT_EQ(nax::nax_bytes2shorts(bytes, samples, 1, 16, 0), 0);
}

TEST(ByteFormat, WritesNothingForNoBytes)
{
    int16_t sample = -1;
    EXPECT_EQ(nax::nax_bytes2shorts(nullptr, &sample, 0, 16, 0), 0);
    EXPECT_EQ(nax::nax_bytes2shorts(nullptr, &sample, 0, 16, 1), 0);
    EXPECT_EQ(sample, -1);
}

TEST(ByteFormat, WritesNothingForOtherWidths)
{
    const uint8_t bytes[] = {1, 2, 3, 4};
    int16_t sample = -1;
    for (const int32_t bits : {8, 24, 32, 0})
        EXPECT_EQ(nax::nax_bytes2shorts(bytes, &sample, 4, bits, 0), 0);
    EXPECT_EQ(sample, -1);
}
