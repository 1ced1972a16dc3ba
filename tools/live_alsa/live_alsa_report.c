/*
 * The figures of live_alsa.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "live_alsa_report.h"

#include <math.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdio.h>

static const double FULL_SCALE_ENERGY = 32768.0 * 32768.0;
static const double FRAME_S = 0.016;

/* A reference frame above -60 dB of full scale (mean square, samples squared)
 * counts as active: room noise in a recorded reference stays below it. */
static const double ACTIVE_MEAN_SQUARE = 32.768 * 32.768;

/* Energy of width neighbouring channels of an interleaved buffer of stride channels,
 * and the samples at full scale among them. */
static double measure(const int16_t *audio, int stride, int width, int frame, long *clipped)
{
    double sum = 0;
    for (int t = 0; t < frame; t++, audio += stride)
        for (int c = 0; c < width; c++) {
            sum += (double)audio[c] * audio[c];
            *clipped += audio[c] == INT16_MAX || audio[c] == INT16_MIN;
        }
    return sum;
}

void report_frame(struct report *report, const int16_t *processed, const int16_t *out, int mics,
                  int kept, int refs, int frame)
{
    long unused = 0;
    const double mic = measure(processed, mics + kept, mics, frame, &report->clipped_mic);
    const double ref = measure(processed + mics, mics + kept, kept, frame, &report->clipped_ref);
    const double cleaned = measure(out, mics + refs, mics, frame, &unused);
    report->frames++;
    report->samples += (long)mics * frame;
    report->mic_energy += mic;
    report->cleaned_energy += cleaned;
    if (ref <= ACTIVE_MEAN_SQUARE * kept * frame) return;
    report->active_mic_energy += mic;
    report->active_cleaned_energy += cleaned;
}

void report_time(struct report *report, double busy_s)
{
    report->busy_s += busy_s;
    report->peak_busy_s = fmax(report->peak_busy_s, busy_s);
}

void report_verdict(struct report *report, int verdict)
{
    report->verdict = verdict;
    report->verdicts.frames[verdict]++;
}

void report_add(struct report *sum, const struct report *more)
{
    if (more->frames > 0) {
        sum->delay = more->delay;
        sum->verdict = more->verdict;
    }
    verdicts_add(&sum->verdicts, &more->verdicts);
    sum->frames += more->frames;
    sum->samples += more->samples;
    sum->mic_energy += more->mic_energy;
    sum->cleaned_energy += more->cleaned_energy;
    sum->active_mic_energy += more->active_mic_energy;
    sum->active_cleaned_energy += more->active_cleaned_energy;
    sum->clipped_mic += more->clipped_mic;
    sum->clipped_ref += more->clipped_ref;
    sum->overruns += more->overruns;
    sum->play_slips += more->play_slips;
    sum->unwritten += more->unwritten;
    sum->busy_s += more->busy_s;
    sum->peak_busy_s = fmax(sum->peak_busy_s, more->peak_busy_s);
}

static double dbfs(double energy, long samples)
{
    const double mean_square = samples > 0 ? energy / (double)samples / FULL_SCALE_ENERGY : 0;
    return fmax(10 * log10(mean_square + 1e-12), -99.9);
}

void report_heading(void)
{
    static bool shown;
    if (!shown)
        fputs(" time s   ms in dBFS    out removed clipped overruns    load % verdict\n", stderr);
    shown = true;
}

void report_status(const struct report *recent, const struct report *total, int rate,
                   const char *ending)
{
    char removed[16] = "-", clipped[48], load[48];
    if (recent->active_mic_energy > 0)
        snprintf(removed, sizeof removed, "%.1f",
                 10 * log10(recent->active_mic_energy / (recent->active_cleaned_energy + 1)));
    snprintf(clipped, sizeof clipped, "%ld+%ld", total->clipped_mic, total->clipped_ref);
    const double frames = recent->frames > 0 ? (double)recent->frames : 1;
    const double peak = 100 * recent->peak_busy_s / FRAME_S; // thousands when the device stalls
    snprintf(load, sizeof load, "%.1f/%.*f", 100 * recent->busy_s / frames / FRAME_S,
             peak < 100 ? 1 : 0, peak);
    fprintf(stderr, "%7.1f %5.1f %7.1f %6.1f %6s %7s %8ld %9s %-16.16s%s",
            (double)total->frames * FRAME_S, 1e3 * total->delay / rate,
            dbfs(recent->mic_energy, recent->samples),
            dbfs(recent->cleaned_energy, recent->samples), removed, clipped, total->overruns, load,
            nax_meter_name(total->verdict), ending);
}

void report_summary(const struct report *total, int rate)
{
    report_status(total, total, rate, "\n");
    if (total->play_slips > 0)
        fprintf(stderr, "live_alsa: %ld frame(s) were not played in full or in time\n",
                total->play_slips);
    if (total->unwritten > 0)
        fprintf(stderr,
                "live_alsa: %ld frame(s) came while the disk was behind and are not written\n",
                total->unwritten);
    verdicts_print(&total->verdicts, stderr);
}
