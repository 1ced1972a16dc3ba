/*
 * Sound files to read, of any kind that libsndfile knows, as 16-bit samples at a rate that
 * the library takes.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef SOUND_FILE_H
#define SOUND_FILE_H

#include <samplerate.h>
#include <sndfile.h>
#include <stdint.h>

struct sound_file {
    const char *path;
    SNDFILE *file;
    SRC_STATE *converter;          /* null at the file's own rate */
    int channels, file_rate, rate; /* Hz: of the file; of what is read */
    sf_count_t length;             /* sample instants at the rate that is read */
    sf_count_t left;               /* sample instants of the file that were not taken yet */
    long cut_off;                  /* samples that were above full scale */
    float *taken;                  /* room for a piece of the file */
};

/* The lowest rate of the library that is not below rate, or its highest. In Hz. */
int library_rate(int rate);

/* Opens a file, to be read at its own rate. Ends the program when the file cannot be read. */
void sound_open(struct sound_file *sound, const char *path);

/* Converts what is read to another rate in Hz. Call it before the first read, and do not move
 * the record afterwards: the converter points to it. */
void sound_convert(struct sound_file *sound, int rate);

/* Reads the next count sample instants of all channels. Samples above full scale are cut off;
 * after the end of the file the samples are 0. */
void sound_read(struct sound_file *sound, int16_t *to, int count);

/* Says on standard error when the file holds less than its header announces. */
void sound_note_cut_short(const struct sound_file *sound);

void sound_close(struct sound_file *sound);

#endif
