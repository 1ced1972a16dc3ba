/*
 * Writes what live_alsa captured and cleaned to WAV files, on a thread of its own:
 * the audio thread hands frames over through a ring and never waits for a disk.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_RECORDER_H
#define LIVE_ALSA_RECORDER_H

#include "live_alsa_options.h"
#include "live_alsa_ring.h"

#include <pthread.h>
#include <semaphore.h>
#include <sndfile.h>

/* One WAV file: some neighbouring channels of the frames handed over. */
struct track {
    const char *path;
    SNDFILE *file; /* null: not wanted */
    size_t offset; /* in samples, of the first channel in a slot */
    size_t stride, width;
};

enum { TRACKS = 3 }; /* cleaned, echo, capture */

struct recorder {
    struct track track[TRACKS];
    struct ring ring; /* a slot: the frame as captured, as cleaned, and its echo */
    sem_t filled;
    pthread_t thread;
    int16_t *scratch;
    int frame, rate;
    bool wanted, failed;
};

/* Creates the files and the thread, or ends the program with the reason. */
void recorder_open(struct recorder *recorder, const struct options *options, int frame);

/* The audio thread: room for the next frame, or null when the disk is too far behind;
 * then hand it over. Slots are made even when no file is wanted. */
int16_t *recorder_slot(struct recorder *recorder);
void recorder_hand_over(struct recorder *recorder);

/* True once a file could not be written. */
bool recorder_failed(const struct recorder *recorder);

/* Writes what is left and completes the files. False when any file failed. */
bool recorder_close(struct recorder *recorder);

#endif
