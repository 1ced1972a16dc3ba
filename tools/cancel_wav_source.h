/*
 * The input of cancel_wav: one or two sound files as frames of interleaved channels.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef CANCEL_WAV_SOURCE_H
#define CANCEL_WAV_SOURCE_H

#include "cancel_wav_options.h"
#include "sound_file.h"

#include <stddef.h>

struct source {
    struct sound_file file[2];
    int files;
    int rate, frame;                   /* Hz; samples of a channel in 16 ms */
    size_t mics, refs, kept, channels; /* kept: references not dropped; channels: mics + refs */
    int *map;                          /* for each channel, its number among the files' channels */
    sf_count_t length, position;       /* sample instants in all, and read so far */
    int16_t *scratch;                  /* one frame of one file */
};

/* Opens the files and, unless quiet, says on standard error how they are used. The source must
 * not be moved afterwards: its sample rate converters point to it. */
void open_source(struct source *source, const struct options *options);

/* Reads the next frame, padded with zeros at the end. Returns the sample instants read, 0 at
 * the end. */
int read_frame(struct source *source, int16_t *audio);

void close_source(struct source *source, bool quiet);

/* Room for so many samples, all 0. */
int16_t *allocate(size_t samples);

#endif
