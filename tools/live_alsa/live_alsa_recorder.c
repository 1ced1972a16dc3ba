/*
 * The WAV files of live_alsa and the thread that writes them.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* sem_t, threads */

#include "live_alsa_recorder.h"

#include "output.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

/* An SD card may take no data for seconds. */
enum { RING_FRAMES = 512 }; /* 8 s */

enum { STACK_BYTES = 256 * 1024 }; /* it is locked in memory, so no more than needed */

static bool written(struct recorder *recorder, const struct track *track, const int16_t *slot)
{
    const int16_t *from = slot + track->offset;
    int16_t *to = recorder->scratch;
    if (!track->file) return true;
    for (int t = 0; t < recorder->frame; t++, from += track->stride, to += track->width)
        memcpy(to, from, track->width * sizeof *to);
    return sf_writef_short(track->file, recorder->scratch, recorder->frame) == recorder->frame;
}

static void note_failure(struct recorder *recorder, const struct track *track, const char *why)
{
    if (!recorder->failed) complain(track->path, "cannot be written: %s", why);
    __atomic_store_n(&recorder->failed, true, __ATOMIC_RELAXED);
}

static void write_slot(struct recorder *recorder, const int16_t *slot)
{
    for (int i = 0; i < TRACKS && !recorder->failed; i++)
        if (!written(recorder, &recorder->track[i], slot))
            note_failure(recorder, &recorder->track[i], sf_strerror(recorder->track[i].file));
}

/* A header that is right once a second leaves a good file even after a power cut. */
static void update_headers(struct recorder *recorder)
{
    for (int i = 0; i < TRACKS; i++)
        if (recorder->track[i].file)
            sf_command(recorder->track[i].file, SFC_UPDATE_HEADER_NOW, NULL, 0);
}

static void *write_files(void *argument)
{
    struct recorder *recorder = argument;
    const int second = recorder->rate / recorder->frame;
    int frames = 0;
    for (;;) {
        while (sem_wait(&recorder->filled) != 0 && errno == EINTR)
            ;
        const int16_t *slot = ring_slot_to_empty(&recorder->ring);
        if (!slot) return NULL; /* recorder_close woke it */
        write_slot(recorder, slot);
        ring_empty(&recorder->ring);
        if (++frames % second == 0 && !recorder->failed) update_headers(recorder);
    }
}

static void start_thread(struct recorder *recorder)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, STACK_BYTES);
    const int error = pthread_create(&recorder->thread, &attributes, write_files, recorder);
    pthread_attr_destroy(&attributes);
    if (error) fail(STATUS_FAILED, "writer thread", "%s", strerror(error));
}

void recorder_open(struct recorder *recorder, const struct options *options, int frame)
{
    const size_t mics = (size_t)options->words.mics, all = mics + (size_t)options->refs;
    const size_t samples = (size_t)frame * all;
    memset(recorder, 0, sizeof *recorder);
    recorder->frame = frame;
    recorder->rate = options->rate;
    recorder->track[0] = (struct track){options->out, NULL, samples, all, mics};
    recorder->track[1] = (struct track){options->echo, NULL, 2 * samples, mics, mics};
    recorder->track[2] = (struct track){options->capture, NULL, 0, all, all};
    for (int i = 0; i < TRACKS; i++) {
        struct track *track = &recorder->track[i];
        track->file = create_wav(track->path, options->rate, track->width);
        recorder->wanted = recorder->wanted || track->file;
    }
    recorder->scratch = calloc(samples, sizeof *recorder->scratch);
    const size_t slot_bytes = (2 * samples + (size_t)frame * mics) * sizeof *recorder->scratch;
    if (!recorder->scratch ||
        !ring_create(&recorder->ring, slot_bytes, recorder->wanted ? RING_FRAMES : 1))
        fail(STATUS_FAILED, "memory", "cannot get room for the recordings");
    sem_init(&recorder->filled, 0, 0);
    if (recorder->wanted) start_thread(recorder);
}

int16_t *recorder_slot(struct recorder *recorder) { return ring_slot_to_fill(&recorder->ring); }

void recorder_hand_over(struct recorder *recorder)
{
    if (!recorder->wanted) return; /* the slot is simply used again */
    ring_fill(&recorder->ring);
    sem_post(&recorder->filled);
}

bool recorder_failed(const struct recorder *recorder)
{
    return __atomic_load_n(&recorder->failed, __ATOMIC_RELAXED);
}

bool recorder_close(struct recorder *recorder)
{
    if (recorder->wanted) {
        sem_post(&recorder->filled);
        pthread_join(recorder->thread, NULL);
    }
    for (int i = 0; i < TRACKS; i++) {
        struct track *track = &recorder->track[i];
        if (!track->file) continue;
        sf_write_sync(track->file);
        if (sf_error(track->file)) note_failure(recorder, track, sf_strerror(track->file));
        const int error = sf_close(track->file);
        if (error) note_failure(recorder, track, sf_error_number(error));
    }
    ring_destroy(&recorder->ring);
    free(recorder->scratch);
    return !recorder->failed;
}
