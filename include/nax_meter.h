/**
 * @file
 * A meter to run beside nax_aec: it says whether the echo is being cancelled, and why not.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 *
 * @par What it does
 * Once per frame it looks at what went into nax_aec_short, what came out and the delay that
 * was returned. From levels and counts it keeps a report: levels in dBFS, clipped samples,
 * echo removed in dB, how the delay behaves, and a verdict in one word. A verdict that
 * sounds an alarm is one that somebody should act on: the wiring, a level or a buffer is
 * wrong, and no setting of the canceller mends it.
 *
 * It is a library of its own, libnax_meter, of the same version as nax_aec, of which it
 * needs nothing but the signals.
 *
 * @par What it refuses to do
 * It changes no audio. It computes no spectra: levels over 16 ms cannot tell a reference
 * that nobody hears from one that is not what is played, where the near end talks all the
 * time. diagnose_wav looks closer, at a recording.
 *
 * @par Legal formats
 * @code{.unparsed}
 *   sample_rate  frame_size F
 *     8000 Hz       128
 *    16000 Hz       256
 *    32000 Hz       512
 *    48000 Hz       768, always one frame of 16 ms
 *
 *   M microphones (num_src_channel): 1 or 2
 *   R references (num_ref_channel): 1 or more, dropped ones counted
 *   D dropped references (nax_meter_drop): the last D of the R
 *   K = R - D references are in the input
 * @endcode
 * All buffers are interleaved 16-bit samples in host byte order and hold, for each sample
 * instant, one sample per channel.
 *
 * @par Use
 * @code{.c}
 *   delay = nax_aec_short(aec, in, out, echo, F * (M + R));   // out is not in
 *   nax_meter_short(meter, in, out, delay);
 *   ...                                                       // on any thread
 *   nax_meter_read(meter, &report);
 *   puts(nax_meter_text(report.verdict));
 * @endcode
 *
 * @par Threads
 * The library starts no thread, takes no lock and keeps nothing outside its states.
 * nax_meter_short is called by one thread at a time per state; nax_meter_read by any number
 * of threads at the same time. Real-time use is stated call by call.
 *
 * @par Messages
 * None.
 */
#ifndef NAX_METER_H
#define NAX_METER_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @name Verdicts
 * Those from NAX_METER_NO_MICROPHONE on sound an alarm. The cause and the cure of each
 * stand in docs/troubleshooting.md. @{ */
#define NAX_METER_SEARCHING 0        /**< too little far end was heard yet to judge */
#define NAX_METER_CANCELLING 1       /**< echo is removed */
#define NAX_METER_REFERENCE_SILENT 2 /**< nothing is played: nothing to do */
#define NAX_METER_NEAR_END_ONLY 3    /**< nothing is played, the microphone hears something */
#define NAX_METER_NOT_HEARD 4        /**< played, but not heard: headphones, a muted speaker */
#define NAX_METER_NO_MICROPHONE 5    /**< alarm: no sound from any microphone */
#define NAX_METER_NO_REFERENCE 6     /**< alarm: never a reference, the microphone hears */
#define NAX_METER_NOT_CANCELLING 7   /**< alarm: the echo is there and stays */
#define NAX_METER_CLIPPED 8          /**< alarm: a reference or microphone clips */
#define NAX_METER_DELAY_MOVES 9      /**< alarm: the delay does not stay */
#define NAX_METER_REFERENCE_IS_MICROPHONE 10 /**< alarm: the reference is the microphone */
#define NAX_METER_VERDICTS 11                /**< how many there are */
/** @} */

/** References whose levels are reported; further ones count for the verdict all the same. */
#define NAX_METER_REFS 8

/**
 * What nax_meter_read fills in, brought up to date every 4 frames (64 ms). Levels are of the last second, -100 when there is nothing;
 * a channel's mean (DC) is not counted. A frame is of the far end when its references together
 * are above -60 dBFS.
 */
typedef struct nax_meter_report {
    /** One of the verdicts. */
    int32_t verdict;
    /** Frames since the state was created, or 2^31 - 1 once there were more. */
    int32_t frames;
    /** Seconds for which the verdict has stood. */
    float verdict_s;
    /** Seconds of far end since the state was created. */
    float far_end_s;
    /** Level of each of the M microphones, in dBFS; -100 for a second one that is not there. */
    float mic_dbfs[2];
    /** Level of each microphone as it came out, in dBFS. */
    float out_dbfs[2];
    /** Level of each of the first NAX_METER_REFS references, in dBFS; -100 for the others. */
    float ref_dbfs[NAX_METER_REFS];
    /** Share of samples that are clipped, 0 to 1, in the microphone that clips most, over the
     * last ten seconds in which it sounded: runs of three and more at the channel's largest value. */
    float mic_clipped;
    /** The same of the references. */
    float ref_clipped;
    /** Energy of the microphones over that of the output, in dB, over the last two seconds of
     * far end; 0 while there was none. Near end counts in both, so talking over the echo
     * makes it less. */
    float removed_db;
    /** The delay that was returned last, in samples. */
    int32_t delay;
    /** Seconds for which it has stood. */
    float delay_s;
    /** How often it moved in the last minute, 8 at most. The first move of all, when the echo
     * is found, is not counted; moves within half a second of each other count as one. */
    int32_t delay_moves;
    /** Correlation of the changes of the microphones' level with those of the references',
     * -1 to 1, at the distance at which it is highest; 0 before there was far end. Above 0.25
     * or so there is an echo. */
    float likeness;
    /** That distance: by how much the microphone is later than the reference, in ms, -512 to
     * 2032 in steps of a frame. It says little while likeness is low. */
    float likeness_ms;
} nax_meter_report;

/**
 * The state of one audio stream. Opaque; made by nax_meter_state_init and released by
 * nax_meter_state_destroy.
 */
typedef struct nax_meter_state nax_meter_state;

/**
 * Creates the state of one audio stream.
 *
 * @param sample_rate      8000, 16000, 32000 or 48000, in Hz.
 * @param num_src_channel  M, 1 or 2.
 * @param num_ref_channel  R, 1 or more: the same as for nax_aec_state_init, so with the
 *                         references that are dropped there.
 * @return the new state, which the caller releases by nax_meter_state_destroy, or null when
 * the format is not supported or memory is short.
 *
 * Everything that a state needs is allocated here, 4 KB at most for up to 8 references.
 *
 * Threads: any.
 *
 * Real time: no, it allocates.
 */
nax_meter_state *nax_meter_state_init(int32_t sample_rate, int32_t num_src_channel,
                                      int32_t num_ref_channel);

/**
 * Says that references are dropped, as nax_aec_param.drop_channel does: the last D of the R
 * are not in the input. Call it before the first frame; without it none is dropped.
 *
 * @param state         from nax_meter_state_init.
 * @param drop_channel  D, 0 to R. With R itself there is no reference.
 * @return 0, or -1 when state is null or D is out of range; then nothing changes.
 *
 * Threads: as nax_meter_short.
 *
 * Real time: yes.
 */
int32_t nax_meter_drop(nax_meter_state *state, int32_t drop_channel);

/**
 * Takes in one frame.
 *
 * @param state  from nax_meter_state_init.
 * @param in     F x (M + K) samples as they went into nax_aec_short: microphones, then the
 *               references that are not dropped. nax_aec_byte leaves *audio pointing at
 *               them. Read only.
 * @param out    F x (M + R) samples, the output out of that call: the cleaned microphones
 *               come first. Not what a suppressor made of it. Read only.
 * @param delay  what that call returned, in samples.
 * @return 0, or -1 when any pointer is null; then nothing is read or counted.
 *
 * Call it once per frame, with every frame in turn. After a gap in the audio go on likewise.
 *
 * Aliasing: in and out must be two buffers: nax_aec_short may write over its input, but then
 * what the microphones heard is gone.
 *
 * Threads: one at a time per state; nax_meter_read may run meanwhile.
 *
 * Real time: yes, no allocation, no lock, no system call. The floating-point mode is as
 * before when it returns.
 */
int32_t nax_meter_short(nax_meter_state *state, const int16_t *in, const int16_t *out,
                        int32_t delay);

/**
 * Copies the latest report; all its fields are of one moment.
 *
 * @param state   from nax_meter_state_init.
 * @param report  filled in. Before the first four frames the verdict is
 *                NAX_METER_SEARCHING and the levels are -100.
 * @return 0, or -1 when a pointer is null; then nothing is written.
 *
 * Threads: any, at any time between creation and release; it never waits for
 * nax_meter_short, and nax_meter_short never waits for it.
 *
 * Real time: yes, no allocation, no lock, no system call.
 */
int32_t nax_meter_read(const nax_meter_state *state, nax_meter_report *report);

/**
 * The name of a verdict for programs and logs: lower-case words with hyphens, for instance
 * "not-cancelling".
 *
 * @param verdict  NAX_METER_SEARCHING to NAX_METER_VERDICTS - 1.
 * @return the name, which the library owns; null for any other number.
 *
 * Threads: any.
 *
 * Real time: yes.
 */
const char *nax_meter_name(int32_t verdict);

/**
 * What a verdict says, for people: one English clause, without a full stop, in ASCII.
 *
 * @param verdict  NAX_METER_SEARCHING to NAX_METER_VERDICTS - 1.
 * @return the text, which the library owns; null for any other number.
 *
 * Threads: any.
 *
 * Real time: yes.
 */
const char *nax_meter_text(int32_t verdict);

/**
 * Whether a verdict sounds an alarm.
 *
 * @param verdict  NAX_METER_SEARCHING to NAX_METER_VERDICTS - 1.
 * @return 1 from NAX_METER_NO_MICROPHONE on, else 0; 0 for any other number.
 *
 * Threads: any.
 *
 * Real time: yes.
 */
int32_t nax_meter_is_alarm(int32_t verdict);

/**
 * Releases a state and everything that it owns.
 *
 * @param state  the state; null is accepted and does nothing.
 *
 * Threads: not while another thread uses the state.
 *
 * Real time: no, it frees.
 */
void nax_meter_state_destroy(nax_meter_state *state);

#ifdef __cplusplus
}
#endif

#endif
