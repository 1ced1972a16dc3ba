/*
 * The sound devices of live_alsa.
 *
 * All devices are opened non-blocking. The audio thread waits for the capture in turns
 * of 50 ms, after each of which it can be stopped. It never waits for the playback.
 * The clock is that of the capture. A playback device that is faster underruns at times
 * and then plays silence; one that is slower misses part of a frame at times.
 *
 * Two capture devices are linked where ALSA can do it, so that they start at one instant.
 * Otherwise one starts a little after the other. They are read in step. When their clocks
 * drift apart, the devices' buffers take up the difference and the library follows it as a
 * changing delay. When a buffer is full, its device overruns and both are started again.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#include "live_alsa_device.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum {
    CAPTURE_FRAMES = 8,
    PLAYBACK_FRAMES = 6,
    PREFILLED_FRAMES = 2
};                                          /* of the devices' buffers */
enum { TURN_MS = 50, PATIENCE_TURNS = 40 }; /* 2 s without audio: the device is stuck */

static void check(const char *name, int result, const char *what)
{
    if (result < 0) fail(STATUS_FAILED, name, "%s: %s", what, snd_strerror(result));
}

static void check_channels(const char *name, snd_pcm_t *pcm, snd_pcm_hw_params_t *hw, int wanted)
{
    unsigned low = 0, high = 0;
    snd_pcm_hw_params_get_channels_min(hw, &low);
    snd_pcm_hw_params_get_channels_max(hw, &high);
    if (snd_pcm_hw_params_set_channels(pcm, hw, (unsigned)wanted) < 0)
        fail(STATUS_FAILED, name, "has %u to %u channels, not the %d wanted", low, high, wanted);
}

static void check_rate(const char *name, snd_pcm_t *pcm, snd_pcm_hw_params_t *hw, int wanted)
{
    unsigned low = 0, high = 0;
    int direction = 0;
    snd_pcm_hw_params_get_rate_min(hw, &low, &direction);
    snd_pcm_hw_params_get_rate_max(hw, &high, &direction);
    if (snd_pcm_hw_params_set_rate(pcm, hw, (unsigned)wanted, 0) < 0)
        fail(STATUS_FAILED, name, "runs at %u to %u Hz, not at %d Hz", low, high, wanted);
}

static void device_open(struct device *device, const char *name, snd_pcm_stream_t direction,
                        int channels, int rate, int frame, int buffer_frames)
{
    snd_pcm_hw_params_t *hw;
    snd_pcm_uframes_t period = (snd_pcm_uframes_t)frame;
    snd_pcm_uframes_t buffer = period * (snd_pcm_uframes_t)buffer_frames;
    device->name = name;
    device->channels = (size_t)channels;
    device->scratch = calloc((size_t)frame * device->channels, sizeof *device->scratch);
    check(name, device->scratch ? 0 : -ENOMEM, "cannot be opened");
    check(name, snd_pcm_open(&device->pcm, name, direction, SND_PCM_NONBLOCK), "cannot be opened");
    check(name, snd_pcm_hw_params_malloc(&hw), "cannot be set up");
    check(name, snd_pcm_hw_params_any(device->pcm, hw), "cannot be set up");
    check(name, snd_pcm_hw_params_set_access(device->pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED),
          "has no interleaved samples");
    check(name, snd_pcm_hw_params_set_format(device->pcm, hw, SND_PCM_FORMAT_S16),
          "has no 16-bit samples, plughw: would convert them");
    check_channels(name, device->pcm, hw, channels);
    check_rate(name, device->pcm, hw, rate);
    check(name, snd_pcm_hw_params_set_period_size_near(device->pcm, hw, &period, NULL),
          "cannot have periods of 16 ms");
    check(name, snd_pcm_hw_params_set_buffer_size_near(device->pcm, hw, &buffer),
          "cannot have its buffer sized");
    check(name, snd_pcm_hw_params(device->pcm, hw), "cannot be set up");
    snd_pcm_hw_params_free(hw);
    if (buffer < 2 * (snd_pcm_uframes_t)frame)
        fail(STATUS_FAILED, name, "has a buffer of %lu samples, less than two frames of %d", buffer,
             frame);
}

static void device_close(struct device *device)
{
    if (device->pcm) snd_pcm_close(device->pcm);
    free(device->scratch);
    device->pcm = NULL;
    device->scratch = NULL;
}

/* Copies width channels of count sample instants between interleaved buffers. */
static void copy_channels(int16_t *to, size_t to_stride, const int16_t *from, size_t from_stride,
                          size_t width, int count)
{
    for (int t = 0; t < count; t++, to += to_stride, from += from_stride)
        memcpy(to, from, width * sizeof *to);
}

/* ---- capture ------------------------------------------------------------------ */

static int start(struct capture *capture)
{
    int result = 0;
    for (int i = 0; i < capture->devices; i++)
        snd_pcm_drop(capture->device[i].pcm);
    for (int i = 0; i < capture->devices && result >= 0; i++) {
        result = snd_pcm_prepare(capture->device[i].pcm);
        capture->failing = capture->device[i].name;
    }
    for (int i = 0; i < (capture->linked ? 1 : capture->devices) && result >= 0; i++) {
        result = snd_pcm_start(capture->device[i].pcm);
        capture->failing = capture->device[i].name;
    }
    return result;
}

void capture_open(struct capture *capture, const struct options *options, int frame)
{
    const int all = options->words.mics + options->refs;
    memset(capture, 0, sizeof *capture);
    capture->devices = options->device_count;
    capture->frame = frame;
    capture->channels = (size_t)all;
    for (int i = 0; i < capture->devices; i++) {
        const int channels =
            capture->devices == 1 ? all : (i == 0 ? options->words.mics : options->refs);
        device_open(&capture->device[i], options->device[i], SND_PCM_STREAM_CAPTURE, channels,
                    options->rate, frame, CAPTURE_FRAMES);
    }
    if (capture->devices == 1) return;
    const int result = snd_pcm_link(capture->device[0].pcm, capture->device[1].pcm);
    capture->linked = result >= 0;
    if (!capture->linked)
        complain(options->device[1],
                 "cannot be linked to %s (%s), starts after it: a delay that differs a little each "
                 "time",
                 options->device[0], snd_strerror(result));
}

void capture_start(struct capture *capture)
{
    const int result = start(capture);
    if (result < 0)
        fail(STATUS_FAILED, capture->failing, "cannot be started: %s", snd_strerror(result));
}

static enum captured lost(struct capture *capture, const struct device *device, const char *what,
                          const char *why)
{
    capture->failing = device->name;
    snprintf(capture->failure, sizeof capture->failure, "%s%s", what, why);
    return LOST;
}

/* After an overrun or a suspension the capture goes on; any other error ends it. */
static enum captured recover(struct capture *capture, struct device *device, int error)
{
    if (error == -ENODEV || error == -EBADFD)
        return lost(capture, device, "was unplugged or closed: ", snd_strerror(error));
    if (error != -EPIPE && error != -ESTRPIPE)
        return lost(capture, device, "cannot be read: ", snd_strerror(error));
    int result = snd_pcm_recover(device->pcm, error, 1);
    if (result >= 0) result = start(capture);
    if (result < 0) return lost(capture, device, "cannot be started again: ", snd_strerror(result));
    return OVERRUN;
}

static enum captured read_device(struct capture *capture, struct device *device, const bool *stop)
{
    int turns = 0;
    for (int count = 0; count < capture->frame;) {
        int16_t *to = device->scratch + (size_t)count * device->channels;
        snd_pcm_sframes_t got =
            snd_pcm_readi(device->pcm, to, (snd_pcm_uframes_t)(capture->frame - count));
        if (got == -EAGAIN || got == 0) {
            if (__atomic_load_n(stop, __ATOMIC_RELAXED)) return STOPPED;
            if (++turns > PATIENCE_TURNS)
                return lost(capture, device, "has delivered no audio for 2 s", "");
            got = snd_pcm_wait(device->pcm, TURN_MS);
            if (got >= 0) continue;
        }
        if (got < 0) return recover(capture, device, (int)got);
        count += (int)got;
        turns = 0;
    }
    return CAPTURED;
}

enum captured capture_frame(struct capture *capture, int16_t *audio, const bool *stop)
{
    for (int i = 0; i < capture->devices; i++) {
        struct device *device = &capture->device[i];
        const enum captured result = read_device(capture, device, stop);
        if (result != CAPTURED) return result;
        copy_channels(audio, capture->channels, device->scratch, device->channels, device->channels,
                      capture->frame);
        audio += device->channels;
    }
    return CAPTURED;
}

void capture_close(struct capture *capture)
{
    for (int i = 0; i < capture->devices; i++)
        device_close(&capture->device[i]);
}

/* ---- playback ----------------------------------------------------------------- */

/* Plays silence before the first frame, and before the first one after an underrun, so
 * that a frame that is a little late is still played in time. */
static void prefill(struct playback *playback)
{
    struct device *device = &playback->device;
    memset(device->scratch, 0,
           (size_t)playback->frame * device->channels * sizeof *device->scratch);
    for (int i = 0; i < PREFILLED_FRAMES; i++)
        snd_pcm_writei(device->pcm, device->scratch, (snd_pcm_uframes_t)playback->frame);
}

void playback_open(struct playback *playback, const struct options *options, int frame)
{
    memset(playback, 0, sizeof *playback);
    if (!options->play) return;
    playback->frame = frame;
    device_open(&playback->device, options->play, SND_PCM_STREAM_PLAYBACK, options->words.mics,
                options->rate, frame, PLAYBACK_FRAMES);
}

bool playback_frame(struct playback *playback, const int16_t *audio, size_t stride)
{
    struct device *device = &playback->device;
    const snd_pcm_uframes_t frame = (snd_pcm_uframes_t)playback->frame;
    if (!device->pcm) return true;
    snd_pcm_sframes_t played = snd_pcm_avail_update(device->pcm);
    const bool in_time = played >= 0;
    if (!in_time && snd_pcm_recover(device->pcm, (int)played, 1) < 0) return false;
    if (snd_pcm_state(device->pcm) == SND_PCM_STATE_PREPARED) prefill(playback);
    copy_channels(device->scratch, device->channels, audio, stride, device->channels,
                  playback->frame);
    played = snd_pcm_writei(device->pcm, device->scratch, frame);
    return in_time && played == (snd_pcm_sframes_t)frame;
}

void playback_close(struct playback *playback)
{
    if (playback->device.pcm) {
        snd_pcm_nonblock(playback->device.pcm, 0);
        snd_pcm_drain(playback->device.pcm);
    }
    device_close(&playback->device);
}
