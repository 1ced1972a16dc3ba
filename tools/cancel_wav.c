/*
 * cancel_wav: cancels the echo in sound files with nax_aec.
 *
 * It uses the public interface only and works through its files frame by frame,
 * so that their length does not matter. Both ways of giving the input end in the
 * same interleaved bytes for nax_aec_byte: a microphone file and a reference
 * file become "microphones first", and one multi-channel file is passed as it is.
 * This file: results, figures, and the loop over the frames.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* isatty, clock_gettime */

#include "cancel_wav_source.h"
#include "output.h"
#include "verdicts.h"

#include "nax_aec.h"
#include "nax_aec_dump.h"
#include "nax_res.h"

#include <errno.h>
#include <math.h>
#include <sndfile.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

enum { STATUS_ALARM = 3, STATUS_NO_ECHO = 4 }; /* of --check */
enum { MAX_LISTED_CHANGES = 32, PATH_ROOM = 4096 };

/* A reference frame above -60 dB of full scale (mean square, samples squared)
 * counts as active: room noise in a recorded reference stays below it. */
static const double ACTIVE_MEAN_SQUARE = 32.768 * 32.768;

struct sinks {
    SNDFILE *cleaned, *echo, *refs, *input;
    FILE *delays;
    char aec_path[PATH_ROOM], echo_path[PATH_ROOM];
    int16_t *scratch; /* one frame of one file */
};

struct change {
    double time_s;
    int delay;
};

struct report {
    long frames, active_frames, changes;
    struct change change[MAX_LISTED_CHANGES];
    double mic_energy[2], cleaned_energy[2]; /* of active frames in each half of the file */
    double library_s;
    struct verdicts verdicts;
    nax_meter_report last, last_far_end; /* the latter: of the last frame of far end */
};

/* ---- output ------------------------------------------------------------------ */

/* Copies width neighbouring channels of count sample instants between interleaved
 * buffers of to_stride and from_stride channels. */
static void copy_channels(int16_t *to, size_t to_stride, const int16_t *from, size_t from_stride,
                          size_t width, int count)
{
    for (int t = 0; t < count; t++, to += to_stride, from += from_stride)
        memcpy(to, from, width * sizeof *to);
}

/* A WAV file whose header is right after each frame, so that it can be read even when the
 * program does not come to its end. Returns null for no path. */
static SNDFILE *create_result(const char *path, int rate, size_t channels)
{
    SNDFILE *file = create_wav(path, rate, channels);
    if (file) sf_command(file, SFC_SET_UPDATE_HEADER_AUTO, NULL, SF_TRUE);
    return file;
}

static FILE *create_file(const char *path)
{
    claim(path, true);
    FILE *file = fopen(path, "wb");
    if (!file) fail(STATUS_FAILED, path, "%s", strerror(errno));
    claim(path, false);
    return file;
}

static FILE *create_dump(char *path, const char *prefix, const char *ending)
{
    if (snprintf(path, PATH_ROOM, "%s%s", prefix, ending) >= PATH_ROOM)
        fail(STATUS_USAGE, "--dump", "the name is too long");
    return create_file(path);
}

static void open_sinks(struct sinks *sinks, const struct options *options,
                       const struct source *source)
{
    memset(sinks, 0, sizeof *sinks);
    sinks->cleaned = create_result(options->out, source->rate, source->mics);
    sinks->echo = create_result(options->echo, source->rate, source->mics);
    sinks->refs = create_result(options->refs, source->rate, source->kept);
    sinks->input = create_result(options->input, source->rate, source->channels);
    if (options->delays) {
        sinks->delays = create_file(options->delays);
        fputs("time_s,delay_samples\n", sinks->delays);
    }
    if (options->dump) {
        aec_out = create_dump(sinks->aec_path, options->dump, "_aec.raw");
        echo_out = create_dump(sinks->echo_path, options->dump, "_echo.raw");
    }
    sinks->scratch = allocate((size_t)source->frame * source->channels);
}

/* Writes width channels of an interleaved buffer of stride channels. */
static void write_wav(SNDFILE *file, const char *path, int16_t *scratch, const int16_t *audio,
                      size_t stride, size_t width, int count)
{
    if (!file) return;
    copy_channels(scratch, width, audio, stride, width, count);
    if (sf_writef_short(file, scratch, count) != count) fail_sndfile(path, file);
}

static void close_wav(SNDFILE *file, const char *path)
{
    if (!file) return;
    sf_write_sync(file);
    if (sf_error(file)) fail_sndfile(path, file);
    if (sf_close(file)) fail(STATUS_FAILED, path, "cannot be completed");
}

static void close_file(FILE *file, const char *path)
{
    if (!file) return;
    const bool failed = ferror(file);
    if (fclose(file) != 0 || failed) fail(STATUS_FAILED, path, "cannot be written");
}

static void close_sinks(struct sinks *sinks, const struct options *options)
{
    close_wav(sinks->cleaned, options->out);
    close_wav(sinks->echo, options->echo);
    close_wav(sinks->refs, options->refs);
    close_wav(sinks->input, options->input);
    close_file(sinks->delays, options->delays);
    close_file(aec_out, sinks->aec_path);
    close_file(echo_out, sinks->echo_path);
    aec_out = echo_out = NULL;
    free(sinks->scratch);
}

/* ---- figures ----------------------------------------------------------------- */

/* Energy of width neighbouring channels of an interleaved buffer of stride channels. */
static double energy(const int16_t *audio, size_t stride, size_t width, int count)
{
    double sum = 0;
    for (int t = 0; t < count; t++, audio += stride)
        for (size_t c = 0; c < width; c++)
            sum += (double)audio[c] * audio[c];
    return sum;
}

/* processed: the input as the canceller got it, microphones before kept references. */
static void note_energy(struct report *report, const struct source *source,
                        const int16_t *processed, const int16_t *out, int count)
{
    const size_t mics = source->mics, stride = mics + source->kept;
    const double samples = (double)count * (double)source->kept;
    if (energy(processed + mics, stride, source->kept, count) <= ACTIVE_MEAN_SQUARE * samples)
        return;
    const int half = source->position * 2 > source->length;
    report->active_frames++;
    report->mic_energy[half] += energy(processed, stride, mics, count);
    report->cleaned_energy[half] += energy(out, source->channels, mics, count);
}

static void note_delay(struct report *report, double time_s, int delay)
{
    static int last_delay;
    if (report->frames > 0 && delay == last_delay) return;
    if (report->changes < MAX_LISTED_CHANGES)
        report->change[report->changes] = (struct change){time_s, delay};
    report->changes++;
    last_delay = delay;
}

/* Takes in what the meter says of a frame. */
static void note_verdict(struct report *report, const nax_meter_report *now)
{
    report->verdicts.frames[now->verdict]++;
    if (now->far_end_s > report->last.far_end_s) report->last_far_end = *now;
    report->last = *now;
}

static void print_second(const nax_meter_report *now, const struct source *source)
{
    static bool headed;
    if (!headed) puts("  time s  mic dBFS  ref dBFS  out dBFS  removed dB  delay ms  verdict");
    headed = true;
    float ref = now->ref_dbfs[0];
    for (int r = 1; r < NAX_METER_REFS; r++)
        ref = fmaxf(ref, now->ref_dbfs[r]);
    printf("%8.1f %9.1f %9.1f %9.1f %11.1f %9.1f  %s\n",
           (double)now->frames * source->frame / source->rate,
           fmaxf(now->mic_dbfs[0], now->mic_dbfs[1]), ref,
           fmaxf(now->out_dbfs[0], now->out_dbfs[1]), now->removed_db,
           1e3 * now->delay / source->rate, nax_meter_name(now->verdict));
}

/* The verdict on the whole: the one that stood when the far end was last heard, since what
 * comes after it says nothing about the echo. */
static int final_verdict(const struct report *report)
{
    return report->last.far_end_s > 0 ? report->last_far_end.verdict : report->last.verdict;
}

static int check_status(int verdict)
{
    if (nax_meter_is_alarm(verdict)) return STATUS_ALARM;
    return verdict == NAX_METER_CANCELLING ? EXIT_SUCCESS : STATUS_NO_ECHO;
}

static void print_ratio(const char *title, double mic_energy, double cleaned_energy)
{
    if (mic_energy <= 0)
        printf("%s none to remove", title);
    else if (cleaned_energy <= 0)
        printf("%s all", title);
    else
        printf("%s %.1f dB", title, 10 * log10(mic_energy / cleaned_energy));
}

static void print_report(const struct report *report, const struct source *source,
                         const struct options *options)
{
    const double audio_s = (double)source->length / source->rate;
    const long listed = report->changes < MAX_LISTED_CHANGES ? report->changes : MAX_LISTED_CHANGES;
    printf("Applied delay%s\n",
           options->words.estimate ? "" : " (estimation is off, nothing held back)");
    for (long i = 0; i < listed; i++)
        printf("  from %8.3f s: %5d samples, %6.1f ms\n", report->change[i].time_s,
               report->change[i].delay, 1e3 * report->change[i].delay / source->rate);
    if (report->changes > listed)
        printf("  and %ld changes more, see --delays\n", report->changes - listed);
    print_ratio("Echo removed:", report->mic_energy[0] + report->mic_energy[1],
                report->cleaned_energy[0] + report->cleaned_energy[1]);
    print_ratio(", second half:", report->mic_energy[1], report->cleaned_energy[1]);
    printf("\n  (microphone over cleaned energy in the %ld frames with an active reference, where\n"
           "  a near-end talker counts in both%s)\n",
           report->active_frames, options->suppress ? "; before the suppression" : "");
    puts("Verdicts:");
    verdicts_print(&report->verdicts, stdout);
    printf("Frames: %ld of %d samples, %.3f s of audio\n", report->frames, source->frame, audio_s);
    printf("Speed: %.0f times real time\n", audio_s / fmax(report->library_s, 1e-9));
}

static void show_progress(const struct source *source)
{
    static int last_percent = -1;
    const int percent = (int)(100 * source->position / source->length);
    if (percent != last_percent)
        fprintf(stderr, "\rcancel_wav: %3d %%%s", percent, percent == 100 ? "\n" : "");
    last_percent = percent;
}

/* ---- suppression ------------------------------------------------------------- */

/* The suppressor's output is one frame late. The file is not: the first frame is left out. */
struct suppressor {
    nax_res_state *state; /* null without --suppress */
    int16_t *out;         /* one frame of the microphones */
    int late;             /* sample instants taken in and not yet written */
};

static struct suppressor create_suppressor(const struct options *options,
                                           const struct source *source)
{
    struct suppressor suppressor = {0};
    if (!options->suppress) return suppressor;
    suppressor.state =
        nax_res_state_init(source->rate, (int32_t)source->mics, (int32_t)source->refs);
    if (!suppressor.state) fail(STATUS_FAILED, "memory", "cannot get room for the suppressor");
    suppressor.out = allocate((size_t)source->frame * source->mics);
    return suppressor;
}

static void write_suppressed(struct suppressor *suppressor, const struct options *options,
                             struct sinks *sinks, const struct source *source,
                             const int16_t *cleaned, const int16_t *echo, int count)
{
    nax_res_short(suppressor->state, cleaned, echo, suppressor->out);
    if (suppressor->late > 0)
        write_wav(sinks->cleaned, options->out, sinks->scratch, suppressor->out, source->mics,
                  source->mics, suppressor->late);
    suppressor->late = count;
}

/* ---- the work ---------------------------------------------------------------- */

static nax_aec_state *create_state(const struct options *options, const struct source *source)
{
    static const int16_t as_they_are[MAX_MICS] = {0, 1};
    nax_aec_param param = param_of(&options->words);
    /* With microphones first and nothing to drop or remap the library has no
     * selection to dump; a table that changes nothing makes it do one. */
    if (options->dump && param.pos == MICS_FIRST && options->words.remap_count == 0) {
        param.model_aec_en |= NAX_AEC_REMAP;
        param.array_list = as_they_are;
    }
    nax_aec_state *state =
        nax_aec_state_init(source->rate, 16, (int32_t)source->mics, (int32_t)source->refs, &param);
    if (!state) fail(STATUS_FAILED, options->in[0], "the library does not accept this format");
    return state;
}

static double now_s(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

static void cancel(const struct options *options, struct source *source, struct sinks *sinks,
                   struct report *report)
{
    const size_t mics = source->mics, channels = source->channels;
    const size_t samples = (size_t)source->frame * channels;
    const bool progress = !options->quiet && isatty(STDERR_FILENO);
    int16_t *in = allocate(samples), *out = allocate(samples), *echo = allocate(samples);
    nax_aec_state *state = create_state(options, source);
    struct suppressor suppressor = create_suppressor(options, source);
    nax_meter_state *meter = create_meter(source->rate, (int)mics, (int)source->refs,
                                          (int)(source->refs - source->kept));
    const long second = source->rate / source->frame; /* in frames */

    for (int count; (count = read_frame(source, in)) > 0; report->frames++) {
        const double time_s = (double)report->frames * source->frame / source->rate;
        write_wav(sinks->input, options->input, sinks->scratch, in, channels, channels, count);
        uint8_t *audio = (uint8_t *)in;
        const double start_s = now_s();
        const int delay = nax_aec_byte(state, &audio, out, echo, (int32_t)(samples * sizeof *in),
                                       NAX_AEC_HOST_ENDIAN);
        report->library_s += now_s() - start_s;
        nax_meter_report now;
        nax_meter_short(meter, (const int16_t *)(const void *)audio, out, delay);
        nax_meter_read(meter, &now);
        note_verdict(report, &now);
        if (options->report && (report->frames + 1) % second == 0) print_second(&now, source);

        if (suppressor.state)
            write_suppressed(&suppressor, options, sinks, source, out, echo, count);
        else
            write_wav(sinks->cleaned, options->out, sinks->scratch, out, channels, mics, count);
        write_wav(sinks->echo, options->echo, sinks->scratch, echo, mics, mics, count);
        write_wav(sinks->refs, options->refs, sinks->scratch, out + mics, channels, source->kept,
                  count);
        if (sinks->delays) fprintf(sinks->delays, "%.3f,%d\n", time_s, delay);
        note_delay(report, time_s, delay);
        note_energy(report, source, (const int16_t *)(const void *)audio, out, count);
        if (progress) show_progress(source);
    }
    if (suppressor.state) { /* a frame of silence makes it return the last one */
        memset(out, 0, samples * sizeof *out);
        memset(echo, 0, samples * sizeof *echo);
        write_suppressed(&suppressor, options, sinks, source, out, echo, 0);
    }
    nax_meter_state_destroy(meter);
    nax_res_state_destroy(suppressor.state);
    free(suppressor.out);
    nax_aec_state_destroy(state);
    free(in);
    free(out);
    free(echo);
}

int main(int argc, char **argv)
{
    const struct options options = cancel_wav_options(argc, argv);
    struct source source;
    struct sinks sinks;
    struct report report = {0};
    open_source(&source, &options);
    open_sinks(&sinks, &options, &source);
    cancel(&options, &source, &sinks, &report);
    close_sinks(&sinks, &options);
    close_source(&source, options.quiet);
    const int verdict = final_verdict(&report);
    if (options.check && !options.quiet)
        printf("%s: %s\n", nax_meter_name(verdict), nax_meter_text(verdict));
    if (!options.check && !options.quiet) print_report(&report, &source, &options);
    finish_stdout();
    return options.check ? check_status(verdict) : EXIT_SUCCESS;
}
