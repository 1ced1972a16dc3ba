/*
 * Which channels of which files are which, and how they become one stream.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "cancel_wav_source.h"

#include "output.h"

#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Of the samples above full scale. Conversion of the rate overshoots in fewer. */
static const double LOUD_SHARE = 0.001;

int16_t *allocate(size_t samples)
{
    int16_t *memory = calloc(samples > 0 ? samples : 1, sizeof *memory);
    if (!memory) fail(STATUS_FAILED, "memory", "cannot get room for %zu samples", samples);
    return memory;
}

/* The channels that --channels names, in that order. */
static void pick_channels(struct source *source, const struct options *options, int all)
{
    const struct picked *picked = &options->picked;
    source->mics = (size_t)picked->mics;
    source->refs = (size_t)picked->refs;
    source->channels = source->mics + source->refs;
    for (size_t c = 0; c < source->channels; c++) {
        if (picked->channel[c] >= all)
            fail(STATUS_USAGE, "--channels", "%d is outside the input's channels, 0 to %d",
                 picked->channel[c], all - 1);
        source->map[c] = picked->channel[c];
    }
}

/* All channels in their order. Two files are microphones and references; in one file --mics says
 * how many are microphones. */
static void take_all_channels(struct source *source, const struct options *options, int all)
{
    const int mics = source->files == 2 ? source->file[0].channels : options->words.mics;
    if (mics > MAX_MICS)
        fail(STATUS_FAILED, options->in[0],
             "has %d channels, not 1 or 2 microphones; name those to use, for instance "
             "--channels 0,1:%d",
             mics, mics);
    if (all <= mics)
        fail(STATUS_FAILED, options->in[0],
             "has %d channel(s), too few for %d microphone(s) and a reference; give the "
             "reference as a second file",
             all, mics);
    source->mics = (size_t)mics;
    source->refs = (size_t)(all - mics);
    source->channels = (size_t)all;
    for (int c = 0; c < all; c++)
        source->map[c] = c;
}

static void check_words(const struct source *source, const struct options *options)
{
    const struct words *words = &options->words;
    const int refs = (int)source->refs, channels = (int)source->channels;
    if (words->drop > refs)
        fail(STATUS_USAGE, "--drop", "%d is more than the %d reference(s) of %s", words->drop, refs,
             options->in[source->files - 1]);
    if (words->drop == refs && options->refs)
        fail(STATUS_USAGE, "--refs", "--drop %d leaves no reference to write", words->drop);
    if (words->remap_count > 0 && words->remap_count != (int)source->mics)
        fail(STATUS_USAGE, "--remap", "names %d channel(s) for the %d microphone(s) of %s",
             words->remap_count, (int)source->mics, options->in[0]);
    for (int m = 0; m < words->remap_count; m++)
        if (words->remap[m] >= channels)
            fail(STATUS_USAGE, "--remap", "channel %d is outside the input's channels, 0 to %d",
                 words->remap[m], channels - 1);
}

/* The output is as long as the microphone. */
static void compare_lengths(const struct source *source)
{
    const double more_s = (double)(source->file[1].length - source->file[0].length) / source->rate;
    if (fabs(more_s) < 0.001) return;
    complain(source->file[1].path, "is %.3f s %s than %s, %s", fabs(more_s),
             more_s > 0 ? "longer" : "shorter", source->file[0].path,
             more_s > 0 ? "what is more is left out" : "silence stands in for what is missing");
}

static int open_files(struct source *source, const struct options *options)
{
    int all = 0;
    for (int i = 0; i < source->files; i++) {
        sound_open(&source->file[i], options->in[i]);
        claim(options->in[i], false);
        if (!options->quiet) sound_note_cut_short(&source->file[i]);
        all += source->file[i].channels;
    }
    return all;
}

/* Converts all files to the rate of the library that suits the microphone's. */
static void settle_rate(struct source *source, bool quiet)
{
    source->rate = library_rate(source->file[0].file_rate);
    source->frame = source->rate * 2 / 125; /* 16 ms */
    for (int i = 0; i < source->files; i++) {
        struct sound_file *file = &source->file[i];
        sound_convert(file, source->rate);
        if (file->file_rate != source->rate && !quiet)
            complain(file->path, "has %d Hz, taken as %d Hz", file->file_rate, source->rate);
    }
}

void open_source(struct source *source, const struct options *options)
{
    *source = (struct source){.files = options->in_count};
    const int all = open_files(source, options);
    const int picked = options->picked.mics + options->picked.refs;
    source->map = calloc(1 + (size_t)(all > picked ? all : picked), sizeof *source->map);
    if (!source->map) fail(STATUS_FAILED, "memory", "cannot get room for %d channels", all);
    (picked > 0 ? pick_channels : take_all_channels)(source, options, all);
    check_words(source, options);
    source->kept = source->refs - (size_t)options->words.drop;
    settle_rate(source, options->quiet);
    if (source->files == 2 && !options->quiet) compare_lengths(source);
    source->length = source->file[0].length;
    source->scratch = allocate((size_t)source->frame * (size_t)all);
}

int read_frame(struct source *source, int16_t *audio)
{
    const sf_count_t left = source->length - source->position;
    const int count = left < source->frame ? (int)left : source->frame;
    const size_t stride = source->channels;
    memset(audio, 0, (size_t)source->frame * stride * sizeof *audio);
    for (int i = 0, first = 0; count > 0 && i < source->files; i++) {
        const int width = source->file[i].channels;
        sound_read(&source->file[i], source->scratch, count);
        for (size_t c = 0; c < stride; c++) {
            const int channel = source->map[c] - first;
            for (int t = 0; channel >= 0 && channel < width && t < count; t++)
                audio[(size_t)t * stride + c] = source->scratch[t * width + channel];
        }
        first += width;
    }
    source->position += count;
    return count;
}

void close_source(struct source *source, bool quiet)
{
    for (int i = 0; i < source->files; i++) {
        struct sound_file *file = &source->file[i];
        const double share = (double)file->cut_off / (double)file->length / file->channels;
        if (share > LOUD_SHARE && !quiet)
            complain(file->path, "%.1f %% of its samples are above full scale and were cut off",
                     100 * share);
        sound_close(file);
    }
    free(source->scratch);
    free(source->map);
}
