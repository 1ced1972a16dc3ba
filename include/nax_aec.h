/**
 * @file
 * An acoustic echo cancellation (AEC) front end for embedded Linux.
 *
 * Copyright (c) 2026 the nax_aec authors. MIT licence, see LICENSE.
 *
 * @par What it does
 * Once per 16 ms frame an application hands over interleaved 16-bit audio that
 * holds 1 or 2 microphones and the loudspeaker reference channels. It gets back
 * the microphones with the echo removed, the references aligned in time with that
 * echo, silence in the place of dropped references and, apart, the echo that was
 * removed. The delay of the echo is found by the library; the reference is held
 * back by it in delay lines; the echo itself is removed by the multi-channel
 * canceller of libspeexdsp.
 *
 * @par What it refuses to do
 * Samples other than 16 bits, more than 2 microphones, no reference at all, rates
 * other than the four below. It suppresses nothing: what a linear filter of 32 ms
 * cannot explain stays in the output.
 *
 * @par Legal formats
 * @code{.unparsed}
 *   sample_rate  frame_size F  filter  longest delay (12288 samples - F)
 *     8000 Hz       128        256       1520 ms
 *    16000 Hz       256        512        752 ms
 *    32000 Hz       512       1024        368 ms
 *    48000 Hz       768       1536        240 ms
 *
 *   M microphones (num_src_channel): 1 or 2
 *   R references (num_ref_channel): 1 or more
 *   D dropped references (drop_channel): the last D of the R
 *   K = R - D references reach the canceller, which serves 1 to 1024
 * @endcode
 * Every count below is in samples unless it says bytes; an interleaved buffer
 * holds, for each sample instant, one sample per channel in channel order.
 *
 * @par Threads
 * The library starts no thread and takes no lock. A state is used by one thread
 * at a time. Different states may be created, run and destroyed on different threads
 * at the same time. Real-time use is stated call by call. The per-frame calls need at
 * most 8 KiB of stack, libspeexdsp and kissfft included.
 *
 * @par Messages
 * Everything the library has to say goes to standard error. A line that begins
 * "LOG (" names the function and a fixed number. libspeexdsp adds a line of its own
 * when it starts anew; only signals beyond full-scale noise can bring that about.
 */
#ifndef NAX_AEC_H
#define NAX_AEC_H

#include <stdint.h>

/** @name The version
 * The build reads it here and nowhere else. @{ */
#define NAX_AEC_VERSION_MAJOR 2 /**< the ABI: the number in the library's SONAME */
#define NAX_AEC_VERSION_MINOR 0 /**< additions that break nothing */
#define NAX_AEC_VERSION_PATCH 0 /**< corrections */
/** @} */

/** @name The byte orders of nax_aec_byte
 * @{ */
#define NAX_AEC_LITTLE_ENDIAN 0u /**< the low byte first */
#define NAX_AEC_BIG_ENDIAN 1u    /**< the high byte first */
#define NAX_AEC_HOST_ENDIAN 2u   /**< this machine's order, as any larger value */
/** @} */

/** @name Bits of nax_aec_param.model_aec_en
 * Other bits are ignored. @{ */
#define NAX_AEC_DELAY_ESTIMATION 1 /**< find the echo's delay and align to it */
#define NAX_AEC_REMAP 2            /**< array_list names the microphones */
/** @} */

#ifdef __cplusplus
extern "C" {
#endif

/**
 * The state of one audio stream. Opaque; made by nax_aec_state_init and
 * released by nax_aec_state_destroy.
 */
typedef struct nax_aec_state nax_aec_state;

/**
 * The parameter block. Six words in this order, 24 bytes where pointers are
 * 32 bits wide, so that there an array of six int32_t with the table's address
 * in the last serves as well. No word is range-checked; the limits given here
 * are the caller's to keep.
 */
typedef struct nax_aec_param {
    /** Channel order of the bytes given to nax_aec_byte.
     * - 0: the R references, then the M microphones.
     * - 1: the M microphones, then the R references.
     * - Any other value: nax_aec_byte converts and dumps but processes nothing. */
    int32_t pos;
    /** D, 0 to R: the last D references are kept from the canceller and come out
     * silent. */
    int32_t drop_channel;
    /** Sum of NAX_AEC_DELAY_ESTIMATION and NAX_AEC_REMAP, or 0. */
    int32_t model_aec_en;
    /** Base delay in samples, 0 to 12288. With delay estimation on it is the delay
     * applied until the echo has been found; the echo may then turn out to be
     * earlier or later. Up to 12288 - F is served; past that the delay lines give
     * samples just written. With delay estimation off nothing is held back: it is
     * only returned. */
    int32_t delay_len;
    /** Look-ahead in samples, 0 or more. It sizes buffers that are kept for
     * later use and changes nothing in the audio. */
    int32_t look_ahead;
    /** With NAX_AEC_REMAP: M entries; entry m is the channel, counted from 0 over
     * the M + R channels in the order that pos gives, that becomes microphone m.
     * Borrowed, not copied: it must outlive the state. Else unused. */
    const int16_t *array_list;
} nax_aec_param;

#if defined(UINTPTR_MAX) && UINTPTR_MAX == 0xffffffffu
#ifdef __cplusplus
static_assert(sizeof(nax_aec_param) == 24, "six words of 32 bits");
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
_Static_assert(sizeof(nax_aec_param) == 24, "six words of 32 bits");
#else
typedef char nax_aec_param_is_six_words[sizeof(nax_aec_param) == 24 ? 1 : -1];
#endif
#endif

/**
 * Creates the state of one audio stream.
 *
 * @param sample_rate      8000, 16000, 32000 or 48000, in Hz.
 * @param bits_per_sample  16.
 * @param num_src_channel  M, 1 or 2.
 * @param num_ref_channel  R, 1 or more.
 * @param param            read during the call only, except for the table that
 *                         its array_list names. Must not be null.
 * @return the new state, which the caller releases by nax_aec_state_destroy, or
 * null when the format is not supported.
 *
 * Of these tests only the first that fails is reported, by one line on standard
 * error:
 * @code{.unparsed}
 *   bits_per_sample not 16, M < 1 or R < 1:
 *     "LOG (nax_aec_state_init(): ,122), Error: 44100 SampleRate, 24
 *     bits_persample, 2 num_src_channel and 2 num_ref_channel cann't be
 *     supported" (with the figures given)
 *   M > 2:
 *     "LOG (nax_aec_state_init(): ,142), Error: The number of mic is 3, exceed
 *     the limited 2 microphones! "
 *   any other rate:
 *     "Not Support Sampling_rate"; this one call leaks a record of a few
 *     hundred bytes.
 * @endcode
 * On success it writes two banner lines, each followed by an empty one. Running
 * out of memory is not detected for the state's own buffers; an engine that
 * cannot get its own memory lets the audio pass through unchanged, but where there
 * was none even for the canceller's record the cleaned microphones are silent.
 *
 * Threads: any; several at the same time.
 *
 * Real time: no, it allocates.
 */
nax_aec_state *nax_aec_state_init(int32_t sample_rate, int32_t bits_per_sample,
                                  int32_t num_src_channel, int32_t num_ref_channel,
                                  const nax_aec_param *param);

/**
 * Writes a parameter block to standard error. One line with the first five
 * words, and a second, "LOG (nax_aec_param_printf(): ,295), Array list is
 * change", when NAX_AEC_REMAP is set. Needs no state.
 *
 * @param unused_1  not read; pass 0.
 * @param unused_2  not read; pass 0.
 * @param param     the block; must not be null.
 *
 * Threads: any.
 *
 * Real time: no, it writes to standard error.
 */
void nax_aec_param_printf(int32_t unused_1, int32_t unused_2, const nax_aec_param *param);

/**
 * Releases a state and everything that it owns. Writes no message, and leaves
 * array_list and the dump streams alone.
 *
 * @param state  the state; null is accepted and does nothing.
 *
 * Threads: not while another thread uses the state.
 *
 * Real time: no, it frees.
 */
void nax_aec_state_destroy(nax_aec_state *state);

/**
 * Processes one frame of 16-bit samples in host byte order.
 *
 * @param state  from nax_aec_state_init.
 * @param in     F x (M + K) samples, interleaved: microphones, then kept
 *               references. Read only. The whole first frame is read whatever
 *               len says.
 * @param out    room for F x (M + R) samples, or null: for each sample instant
 *               the M cleaned microphones, the K references as aligned, D zeros.
 * @param echo   room for F x M samples, or null: the echo that was taken out of
 *               each microphone (microphone minus cleaned, saturated to 16 bits).
 * @param len    F x (M + R): the samples of the full layout, dropped references
 *               included, although in does not hold them.
 * @return the delay in samples at which the reference was read: positive means
 * held back. With delay estimation off it is delay_len. A refused call returns -1.
 *
 * Pass exactly one frame per call. When len stands for less than a frame
 * nothing is written, though the frame is still taken into the delay lines and
 * the estimator. When it stands for n whole frames the first frame is cancelled
 * n times over and its results fill n frames of out and echo, which must have
 * room for them.
 *
 * Refused, after a message on standard error that ends without a newline:
 * @code{.unparsed}
 *   a null state            "You didn't initlize the nax_aec!"
 *   a null in or len < 0    "Error: input audio data is null!"
 * @endcode
 *
 * Aliasing: out and echo may each be the same buffer as in when one frame is
 * passed, since in is read before either is written; out and echo must not
 * overlap each other.
 *
 * Threads: one at a time per state.
 *
 * Real time: yes, no allocation, no lock, no system call (but for messages: the
 * two above, and libspeexdsp's own, see Messages at the top).
 */
int32_t nax_aec_short(nax_aec_state *state, const int16_t *in, int16_t *out, int16_t *echo,
                      int32_t len);

/**
 * Processes one frame of raw bytes. Converts them to samples, puts the channels
 * into the order of nax_aec_short, calls it and writes the debug dumps
 * (nax_aec_dump.h).
 *
 * @param state       from nax_aec_state_init.
 * @param audio       on entry *audio is the caller's input: len bytes, read only,
 *                    interleaved in the order that pos gives, all R references
 *                    included. With pos 0 or 1 the call sets *audio to the
 *                    samples that it processed, F x (M + K) int16_t owned by the
 *                    state and valid until the next call on it. The input itself
 *                    may have any alignment.
 * @param out         as for nax_aec_short.
 * @param echo        as for nax_aec_short, but while the dump echo_out is open it
 *                    must not be null.
 * @param len         F x (M + R) x 2, in bytes. The first call's length sizes a
 *                    buffer that is never resized: a later call must not be
 *                    longer.
 * @param byte_order  NAX_AEC_LITTLE_ENDIAN, NAX_AEC_BIG_ENDIAN or
 *                    NAX_AEC_HOST_ENDIAN.
 * @return what nax_aec_short returns; 0 when pos is neither 0 nor 1; -1 when the
 * call is refused.
 *
 * Refused, after a message on standard error that ends without a newline:
 * @code{.unparsed}
 *   a null state               "You didn't initialize the nax_aec!"
 *   a null audio or len < 0    "Error: input audio data is null!"
 * @endcode
 *
 * Aliasing: out and echo must not overlap the input or each other.
 *
 * Threads: one at a time per state.
 *
 * Real time: yes after the first call, as long as len stays the same and no dump
 * is open; the first call allocates once and a changed len reallocates.
 */
int32_t nax_aec_byte(nax_aec_state *state, uint8_t **audio, int16_t *out, int16_t *echo,
                     int32_t len, uint32_t byte_order);

#ifdef __cplusplus
}
#endif

#endif
