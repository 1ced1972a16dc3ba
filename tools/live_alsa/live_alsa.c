/*
 * live_alsa: cancels the echo as it comes, from ALSA to ALSA, WAV files or both.
 *
 * Three threads. The audio thread captures a frame, cancels, plays, and never waits
 * for anything but the capture: under SCHED_FIFO where that is permitted, its memory
 * locked. The writer thread (live_alsa_recorder) gets the frames through a ring. The
 * main thread gets each frame's figures through another, shows them and waits for
 * signals.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 */
#define _POSIX_C_SOURCE 200809L /* clock_gettime, sigtimedwait, mlockall */

#include "live_alsa_device.h"
#include "live_alsa_options.h"
#include "live_alsa_recorder.h"
#include "live_alsa_report.h"
#include "live_alsa_ring.h"

#include "nax_aec.h"
#include "nax_res.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

enum { HOST_ORDER = 2 }; /* for nax_aec_byte: ALSA's S16 is the host's order */
enum { STACK_BYTES = 256 * 1024, REPORTS = 64, STATUS_MS = 500, LOG_TURNS = 20 };

struct session {
    struct options options;
    struct capture capture;
    struct playback playback;
    struct recorder recorder;
    struct ring reports;   /* of struct report */
    struct report pending; /* what did not fit there yet; the audio thread's own */
    nax_aec_state *state;
    nax_meter_state *meter;
    nax_res_state *suppressor; /* null without --suppress */
    int16_t *suppressed;       /* a frame of the microphones */
    pthread_t main_thread;
    int16_t *spare; /* in place of a recorder's slot while the disk is behind */
    int frame;
    bool stop, device_lost;
};

static int frame_size(int rate) { return rate * 2 / 125; } /* 16 ms */

static double now_s(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (double)now.tv_sec + 1e-9 * (double)now.tv_nsec;
}

/* ---- the audio thread ---------------------------------------------------------- */

/* Runs the library over a slot's captured frame. Points audio to the frame as it was
 * processed and returns the applied delay. */
static int cancel(struct session *session, int16_t *slot, const int16_t **audio)
{
    const size_t samples = (size_t)session->frame * session->capture.channels;
    int16_t *out = slot + samples, *echo = out + samples;
    uint8_t *bytes = (uint8_t *)slot;
    const int delay = nax_aec_byte(session->state, &bytes, out, echo,
                                   (int32_t)(samples * sizeof *slot), HOST_ORDER);
    *audio = (const int16_t *)(const void *)bytes;
    return delay;
}

/* Exchanges the cleaned microphones in out for the suppressed ones of the frame before. */
static void suppress(struct session *session, int16_t *out)
{
    const size_t mics = (size_t)session->options.words.mics, channels = session->capture.channels;
    const int16_t *echo = out + (size_t)session->frame * channels;
    nax_res_short(session->suppressor, out, echo, session->suppressed);
    for (size_t t = 0; t < (size_t)session->frame; t++)
        memcpy(out + t * channels, session->suppressed + t * mics, mics * sizeof *out);
}

/* Cancels, plays and hands over the figures. */
static void process(struct session *session, int16_t *slot, struct report *report)
{
    const struct options *options = &session->options;
    const size_t channels = session->capture.channels;
    const int16_t *audio;
    int16_t *out = slot + (size_t)session->frame * channels;

    const double start_s = now_s();
    report->delay = cancel(session, slot, &audio);
    nax_meter_report now;
    nax_meter_short(session->meter, audio, out, report->delay);
    nax_meter_read(session->meter, &now);
    report_verdict(report, now.verdict);
    if (session->suppressor) suppress(session, out);
    report_time(report, now_s() - start_s);
    report_frame(report, audio, out, options->words.mics, options->refs - options->words.drop,
                 options->refs, session->frame);
    report->play_slips += !playback_frame(&session->playback, out, channels);
}

static void send_report(struct session *session)
{
    struct report *slot = ring_slot_to_fill(&session->reports);
    if (!slot) return; /* the main thread is behind: the next report holds both */
    *slot = session->pending;
    ring_fill(&session->reports);
    session->pending = (struct report){0};
}

/* Room to capture into, or null when the disk is too far behind. A device without a
 * clock, such as ALSA's file device, delivers as fast as it is read. It is recognised by
 * more seconds of audio than have passed; there it waits for the disk and loses nothing. */
static int16_t *slot_for(struct session *session, double audio_s, double start_s)
{
    const struct timespec moment = {.tv_nsec = 1000000};
    int16_t *slot;
    while (!(slot = recorder_slot(&session->recorder)) && audio_s > now_s() - start_s + 1 &&
           !__atomic_load_n(&session->stop, __ATOMIC_RELAXED))
        nanosleep(&moment, NULL);
    return slot;
}

static void *run_audio(void *argument)
{
    struct session *session = argument;
    const double start_s = now_s();
    const long limit = session->options.frames;
    for (long frames = 0; limit == 0 || frames < limit;) {
        if (__atomic_load_n(&session->stop, __ATOMIC_RELAXED)) break;
        int16_t *slot = slot_for(session, (double)frames * 0.016, start_s);
        int16_t *audio = slot ? slot : session->spare;
        const enum captured captured = capture_frame(&session->capture, audio, &session->stop);
        if (captured == CAPTURED) {
            process(session, audio, &session->pending);
            if (slot)
                recorder_hand_over(&session->recorder);
            else
                session->pending.unwritten++;
            frames++;
        } else if (captured == OVERRUN) {
            session->pending.overruns++;
        } else {
            session->device_lost = captured == LOST;
            break;
        }
        send_report(session);
    }
    pthread_kill(session->main_thread, SIGUSR1);
    return NULL;
}

static int create_thread(struct session *session, pthread_t *thread, int priority)
{
    const struct sched_param parameters = {.sched_priority = priority};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, STACK_BYTES);
    if (priority > 0) {
        pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED);
        pthread_attr_setschedpolicy(&attributes, SCHED_FIFO);
        pthread_attr_setschedparam(&attributes, &parameters);
    }
    const int error = pthread_create(thread, &attributes, run_audio, session);
    pthread_attr_destroy(&attributes);
    return error;
}

/* Locks the memory and starts the thread, real-time as far as that is permitted. */
static pthread_t start_audio(struct session *session)
{
    const int priority = session->options.priority;
    pthread_t thread;
    if (priority > 0 && mlockall(MCL_CURRENT | MCL_FUTURE) != 0)
        complain("memory", "cannot be locked (%s), page faults may cost samples", strerror(errno));
    int error = create_thread(session, &thread, priority);
    if (error == EPERM) {
        complain("audio thread", "may not run under SCHED_FIFO, runs as an ordinary thread");
        error = create_thread(session, &thread, 0);
    }
    if (error) fail(STATUS_FAILED, "audio thread", "%s", strerror(error));
    return thread;
}

/* ---- the main thread ----------------------------------------------------------- */

static nax_aec_state *create_state(const struct options *options)
{
    const nax_aec_param param = param_of(&options->words);
    nax_aec_state *state =
        nax_aec_state_init(options->rate, 16, options->words.mics, options->refs, &param);
    if (!state) fail(STATUS_FAILED, "library", "does not accept this format");
    return state;
}

static void create_suppressor(struct session *session)
{
    const struct options *options = &session->options;
    const size_t samples = (size_t)session->frame * (size_t)options->words.mics;
    session->suppressor = nax_res_state_init(options->rate, options->words.mics, options->refs);
    session->suppressed = calloc(samples, sizeof *session->suppressed);
    if (!session->suppressor || !session->suppressed)
        fail(STATUS_FAILED, "memory", "cannot get room for the suppressor");
}

/* The devices are opened before files are created, so that a missing device leaves no
 * file. The capture starts last, so that it does not overrun meanwhile. */
static void open_session(struct session *session)
{
    const struct options *options = &session->options;
    const size_t channels = (size_t)(options->words.mics + options->refs);
    session->frame = frame_size(options->rate);
    session->main_thread = pthread_self();
    session->spare = calloc((size_t)session->frame * 3 * channels, sizeof *session->spare);
    if (!session->spare || !ring_create(&session->reports, sizeof(struct report), REPORTS))
        fail(STATUS_FAILED, "memory", "cannot get room for a frame");
    capture_open(&session->capture, options, session->frame);
    playback_open(&session->playback, options, session->frame);
    recorder_open(&session->recorder, options, session->frame);
    session->state = create_state(options);
    session->meter =
        create_meter(options->rate, options->words.mics, options->refs, options->words.drop);
    if (options->suppress) create_suppressor(session);
    /* The first call allocates a buffer. A frame of silence makes it here, so that the
     * audio thread allocates nothing. The suppressor hears the same frames as the canceller. */
    const int16_t *audio;
    cancel(session, session->spare, &audio);
    if (session->suppressor) suppress(session, session->spare + (size_t)session->frame * channels);
    capture_start(&session->capture);
}

static void drain_reports(struct session *session, struct report *total, struct report *recent)
{
    for (const struct report *report; (report = ring_slot_to_empty(&session->reports));) {
        report_add(total, report);
        report_add(recent, report);
        ring_empty(&session->reports);
    }
}

/* Shows the status until a signal, the audio thread or a full disk ends the session. */
static void watch(struct session *session, const sigset_t *signals, struct report *total)
{
    const struct timespec turn = {.tv_nsec = STATUS_MS * 1000000L};
    const bool terminal = isatty(STDERR_FILENO);
    struct report recent = {0};
    for (int turns = 1; !recorder_failed(&session->recorder); turns++) {
        const int signal = sigtimedwait(signals, NULL, &turn);
        drain_reports(session, total, &recent);
        if (signal > 0) break;
        /* A log gets a line every ten seconds; on a terminal one line is written over. */
        if (session->options.quiet || (!terminal && turns % LOG_TURNS != 0)) continue;
        report_heading();
        report_status(&recent, total, session->options.rate, terminal ? "\r" : "\n");
        recent = (struct report){0};
    }
    __atomic_store_n(&session->stop, true, __ATOMIC_RELAXED);
}

int main(int argc, char **argv)
{
    static struct session session;
    struct report total = {0};
    sigset_t signals;
    session.options = live_alsa_options(argc, argv);

    /* Blocked in every thread and waited for in this one. */
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, NULL);

    open_session(&session);
    const pthread_t audio_thread = start_audio(&session);
    watch(&session, &signals, &total);
    pthread_join(audio_thread, NULL);
    drain_reports(&session, &total, &(struct report){0});
    report_add(&total, &session.pending);

    capture_close(&session.capture);
    playback_close(&session.playback);
    const bool recorded = recorder_close(&session.recorder);
    nax_aec_state_destroy(session.state);
    nax_meter_state_destroy(session.meter);
    nax_res_state_destroy(session.suppressor);
    free(session.suppressed);
    ring_destroy(&session.reports);
    free(session.spare);

    if (!session.options.quiet) report_heading();
    if (!session.options.quiet) report_summary(&total, session.options.rate);
    if (session.device_lost) complain(session.capture.failing, "%s", session.capture.failure);
    return recorded && !session.device_lost ? EXIT_SUCCESS : STATUS_FAILED;
}
