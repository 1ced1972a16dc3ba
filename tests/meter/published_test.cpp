// A report that is read while it is written. For ThreadSanitizer as well.
#include "meter/published.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>

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

// Reads until the last report; returns how many were torn or older than the one before.
static uint32_t read_until(const Published &published, uint32_t end)
{
    uint32_t bad = 0;
    for (uint32_t last = 0; last < end; sched_yield()) {
        const nax_meter_report report = latest(published);
        uint32_t words[Published::WORDS];
        memcpy(words, &report, sizeof report);
        for (const uint32_t word : words)
            bad += word != words[0] || word < last;
        last = words[0];
    }
    return bad;
}

// Keeps what is started from here on to one processor, where a writer is often interrupted
// in the middle of a report.
static void share_one_processor()
{
    cpu_set_t all, one;
    CPU_ZERO(&one);
    if (pthread_getaffinity_np(pthread_self(), sizeof all, &all) != 0) return;
    for (int cpu = 0; cpu < CPU_SETSIZE; cpu++)
        if (CPU_ISSET(cpu, &all)) {
            CPU_SET(cpu, &one);
            pthread_setaffinity_np(pthread_self(), sizeof one, &one);
            return;
        }
}

static void expect_whole_reports(bool on_one_processor)
{
    constexpr uint32_t REPORTS = 1000000;
    std::thread([&] {
        if (on_one_processor) share_one_processor();
        static Published published[2];
        Published &of_this = published[on_one_processor];
        uint32_t bad[2] = {};
        std::vector<std::thread> readers;
        for (uint32_t &count : bad)
            readers.emplace_back([&] { count = read_until(of_this, REPORTS); });
        for (uint32_t number = 1; number <= REPORTS; number++)
            publish(of_this, filled_with(number));
        for (std::thread &reader : readers)
            reader.join();
        EXPECT_EQ(bad[0] + bad[1], 0u);
    }).join();
}

TEST(Published, AReportIsOfOneMomentWhileAnotherProcessorWrites) { expect_whole_reports(false); }

TEST(Published, AReportIsOfOneMomentWhereItsWriterIsInterrupted) { expect_whole_reports(true); }

} // namespace nax::meter
