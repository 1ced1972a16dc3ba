/*
 * The sound devices of live_alsa: one or two to capture from, one to play to.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#ifndef LIVE_ALSA_DEVICE_H
#define LIVE_ALSA_DEVICE_H

#include "live_alsa_options.h"

#include <alsa/asoundlib.h>
#include <stddef.h>

struct device {
    const char *name;
    snd_pcm_t *pcm; /* null: not in use */
    size_t channels;
    int16_t *scratch; /* one frame */
};

struct capture {
    struct device device[2];
    int devices, frame;  /* frame: samples of a channel */
    size_t channels;     /* of all devices */
    bool linked;         /* the two start, stop and overrun as one */
    char failure[128];   /* why the last capture_frame failed for good */
    const char *failing; /* and on which device */
};

struct playback {
    struct device device;
    int frame;
};

enum captured { CAPTURED, OVERRUN, STOPPED, LOST };

/* Open what the options name, and start the capture, or end the program with the
 * reason. */
void capture_open(struct capture *capture, const struct options *options, int frame);
void capture_start(struct capture *capture);
void playback_open(struct playback *playback, const struct options *options, int frame);

/* Waits for the next frame, frame x channels samples, the first device's channels
 * before the second's.
 * - OVERRUN: samples were lost and the devices started anew; audio is undefined.
 * - STOPPED: *stop became true while there was nothing to read.
 * - LOST: no more will come, see failure. */
enum captured capture_frame(struct capture *capture, int16_t *audio, const bool *stop);

/* Plays the first channels of an interleaved frame of stride channels, without
 * waiting. Returns false when not all of it was played in time. */
bool playback_frame(struct playback *playback, const int16_t *audio, size_t stride);

void capture_close(struct capture *capture);
void playback_close(struct playback *playback); /* after playing what is queued */

#endif
