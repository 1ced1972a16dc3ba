// A report that is read while it is written. For ThreadSanitizer as well.
#include "meter/published.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace nax::meter {

// Every word tells which report it is of.
static nax_meter_report filled_with(uint32_t number)
{
    uint32_t words[Published::WORDS];
    for (uint32_t &word : words)
        word = number;
    nax_meter_report report;
    memcpy(&report, words, sizeof report);
    return report;
}

TEST(Published, AReportIsOfOneFrameWheneverItIsRead)
{
    constexpr uint32_t REPORTS = 200000;
    static Published published;
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 2; reader++)
        readers.emplace_back([] {
            uint32_t last = 0;
            while (last < REPORTS) {
                const nax_meter_report report = latest(published);
                uint32_t words[Published::WORDS];
                memcpy(words, &report, sizeof report);
                for (const uint32_t word : words)
                    ASSERT_EQ(word, words[0]) << "torn";
                ASSERT_GE(words[0], last) << "went back";
                last = words[0];
            }
        });
    for (uint32_t number = 1; number <= REPORTS; number++)
        publish(published, filled_with(number));
    for (std::thread &reader : readers)
        reader.join();
}

} // namespace nax::meter
