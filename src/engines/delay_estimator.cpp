#include "engines/delay_estimator.h"

#include "engines/logtab.h"
#include "engines/saturate.h"

#include <kissfft/kiss_fftr.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#ifndef TUNABLE
#define TUNABLE(type, name, value) static constexpr type name = value
#endif

namespace nax {

static constexpr int32_t WORDS = 28;
static constexpr int32_t REACH = 12288;
static constexpr int32_t RATE = 4000;
static constexpr int32_t HOP = 64;
static constexpr int32_t WINDOW = 2 * HOP;
static constexpr int32_t MAX_PARTITIONS = 96;
static constexpr int32_t TAPS_PER_PHASE = 12;
static constexpr int32_t MAX_TAPS = TAPS_PER_PHASE * 12;
static constexpr int32_t MAX_FRAME = 768;
static constexpr int32_t LOW_BIN = 8;
static constexpr int32_t BINS = 52;

TUNABLE(float, KEEP, 0.94f);   // decay of the evidence per frame of active far end
TUNABLE(float, RELEASE, 0.9f); // decay of the whitening's peak power per frame
TUNABLE(float, PRIOR_FRAMES, 20.0f);
TUNABLE(float, SILENT_REF_DB, -62.0f);
TUNABLE(float, SILENT_MIC_DB, -80.0f);
TUNABLE(float, RANGE_DB, 35.0f);
TUNABLE(int, TRANSFORMS, 1);
TUNABLE(int, SEARCH, 3);
TUNABLE(int, REST, 3);
TUNABLE(int, FRESH, 10);
TUNABLE(float, Z_SURE, 7.0f);
TUNABLE(float, Z_FIRST, 6.5f);
TUNABLE(int, CONFIRM, 2);
TUNABLE(float, RIVAL, 0.7f);
TUNABLE(float, BEAT, 1.4f);
TUNABLE(float, ARRIVAL, 0.6f);
TUNABLE(int, ARRIVAL_LAGS, 32);
TUNABLE(int, SPREAD_LAGS, 48);
TUNABLE(float, MARGIN_MS, 0.5f);
TUNABLE(float, LOST_MARGIN_MS, 2.0f);
TUNABLE(int, SETTLED_LOST, 4);
TUNABLE(int, SETTLED, 12);
TUNABLE(float, WHOLE2, 0.5f);
TUNABLE(float, WHOLE4, 0.5f);
TUNABLE(float, WHOLE8, 0.5f);
TUNABLE(float, WHOLE12, 0.5f);
TUNABLE(float, FINE, 0.5f);

struct Peak {
    float height; // z
    int32_t lag;
    int32_t age;
};

struct Work {
    kiss_fftr_cfg forward;
    kiss_fftr_cfg inverse;
    int16_t taps[MAX_TAPS];
    float window[WINDOW];
    int16_t ref_line[MAX_TAPS + MAX_FRAME];
    int16_t mic_line[MAX_TAPS + MAX_FRAME];
    float ref_block[WINDOW];
    float mic_block[WINDOW];
    float ref_power[BINS], mic_power[BINS];
    float ref_hist_re[MAX_PARTITIONS][BINS], ref_hist_im[MAX_PARTITIONS][BINS];
    float ref_weight[MAX_PARTITIONS];
    float acc_re[MAX_PARTITIONS][BINS], acc_im[MAX_PARTITIONS][BINS];
    float variance[MAX_PARTITIONS];
    float score[MAX_PARTITIONS];
    Peak peaks[MAX_PARTITIONS];
    float lags[WINDOW];
    float cosine[WINDOW];
    float ref_peak_db;
};

struct Book {
    int32_t enable;
    int32_t decimation;
    int32_t frame;
    int32_t mics;
    int32_t refs;
    int32_t base;
    int32_t partitions;
    int32_t newest; // slot of the newest reference spectrum
    int32_t turn;
    int32_t applied;
    int32_t pending; // second half of a small move, or -1
    int32_t found;   // lag at the base of the applied delay, or -1
    int32_t suspect; // candidate lag waiting for confirmation
    int32_t seen;
    float z;
    Work *work;
};
static_assert(sizeof(Book) <= WORDS * sizeof(int32_t));

static void design_taps(int16_t *taps, int32_t decimation)
{
    const int32_t count = TAPS_PER_PHASE * decimation;
    const double cutoff = 0.4625 / decimation;
    for (int32_t i = 0; i < count; i++) {
        const double t = i - (count - 1) / 2.0;
        const double sinc = t == 0 ? 2 * cutoff : std::sin(2 * M_PI * cutoff * t) / (M_PI * t);
        const double hann = 0.5 + 0.5 * std::cos(2 * M_PI * t / (count + 1));
        taps[i] = static_cast<int16_t>(std::lround(32768 * sinc * hann));
    }
}

int32_t AEC_DelayInit(int32_t enable, int32_t sample_rate, int32_t half_frame, int32_t mics,
                      int32_t base_delay, int32_t refs, int32_t *state)
{
    Book book = {};
    book.enable = enable;
    book.decimation = sample_rate / RATE;
    book.frame = 2 * half_frame;
    book.mics = mics;
    book.refs = refs;
    book.base = base_delay;
    book.partitions = REACH / book.frame;
    book.applied = base_delay;
    book.pending = -1;
    book.found = -1;
    book.suspect = -1;
    Work *work = refs > 0 ? static_cast<Work *>(calloc(1, sizeof(Work))) : nullptr;
    if (work) {
        work->forward = kiss_fftr_alloc(WINDOW, 0, nullptr, nullptr);
        work->inverse = kiss_fftr_alloc(WINDOW, 1, nullptr, nullptr);
        design_taps(work->taps, book.decimation);
        for (int32_t i = 0; i < WINDOW; i++)
            work->window[i] =
                static_cast<float>(0.5 - 0.5 * std::cos(2 * M_PI * (i + 0.5) / WINDOW));
        for (int32_t i = 0; i < WINDOW; i++)
            work->cosine[i] = static_cast<float>(std::cos(2 * M_PI * i / WINDOW));
        for (auto &p : work->peaks)
            p = {0, 0, 1000};
        work->ref_peak_db = -100;
    }
    book.work = work;
    memcpy(state, &book, sizeof book);
    return work ? 0 : -1;
}

int32_t AEC_DelayDestroy(int32_t *state)
{
    Book book;
    memcpy(&book, state, sizeof book);
    if (book.work) {
        kiss_fftr_free(book.work->forward);
        kiss_fftr_free(book.work->inverse);
        free(book.work);
    }
    return 0;
}

// Mixes planar channels to one.
static void mix(const int16_t *frame, int32_t length, int32_t channels, int16_t *to)
{
    if (channels == 1) {
        memcpy(to, frame, static_cast<size_t>(length) * sizeof *to);
        return;
    }
    for (int32_t i = 0; i < length; i++) {
        int32_t sum = 0;
        for (int32_t c = 0; c < channels; c++)
            sum += frame[c * length + i];
        to[i] = static_cast<int16_t>(sum / channels);
    }
}

// Appends a frame to the line and writes HOP new samples to the end of block
static void decimate(const Book &book, int16_t *line, const int16_t *frame, int32_t channels,
                     float *block)
{
    const int32_t count = TAPS_PER_PHASE * book.decimation;
    mix(frame, book.frame, channels, line + count);
    memmove(block, block + HOP, HOP * sizeof *block);
    for (int32_t j = 0; j < HOP; j++) {
        const int16_t *from = line + (j + 1) * book.decimation;
        int32_t sum = 0;
        for (int32_t i = 0; i < count; i++)
            sum += from[i] * book.work->taps[i];
        block[HOP + j] = static_cast<float>(sum) * (1.0f / 32768);
    }
    memmove(line, line + book.frame, static_cast<size_t>(count) * sizeof *line);
}

static float block_db(const float *block)
{
    float sum = 0;
    for (int32_t i = 0; i < WINDOW; i++)
        sum += block[i] * block[i];
    return level_db(sum * (1.0f / (WINDOW * 32768.0f * 32768.0f)));
}

// Whitened spectrum of a block; returns the mean squared magnitude
static float whitened_spectrum(Work &work, const float *block, float *power, float *re, float *im)
{
    float windowed[WINDOW];
    kiss_fft_cpx spectrum[HOP + 1];
    for (int32_t i = 0; i < WINDOW; i++)
        windowed[i] = block[i] * work.window[i];
    kiss_fftr(work.forward, windowed, spectrum);
    float sum = 0;
    for (int32_t k = 0; k < BINS; k++) {
        const kiss_fft_cpx v = spectrum[LOW_BIN + k];
        const float p = v.r * v.r + v.i * v.i;
        power[k] = std::max(p, power[k] * RELEASE);
        const float gain = 1.0f / (std::sqrt(power[k]) + 1.0f);
        re[k] = v.r * gain;
        im[k] = v.i * gain;
        sum += p * gain * gain;
    }
    return sum / BINS;
}

static void silence_spectrum(float *power)
{
    for (int32_t k = 0; k < BINS; k++)
        power[k] *= RELEASE;
}

static void accumulate(float *__restrict acc_re, float *__restrict acc_im,
                       const float *__restrict x_re, const float *__restrict x_im,
                       const float *__restrict y_re, const float *__restrict y_im)
{
    for (int32_t k = 0; k < BINS; k++) {
        acc_re[k] = KEEP * acc_re[k] + (x_re[k] * y_re[k] + x_im[k] * y_im[k]);
        acc_im[k] = KEEP * acc_im[k] + (x_re[k] * y_im[k] - x_im[k] * y_re[k]);
    }
}

static float energy(const float *re, const float *im)
{
    float sum[4] = {};
    for (int32_t k = 0; k < BINS; k += 4)
        for (int32_t j = 0; j < 4; j++)
            sum[j] += re[k + j] * re[k + j] + im[k + j] * im[k + j];
    return (sum[0] + sum[1]) + (sum[2] + sum[3]);
}

// Noise variance of a lag value of a partition when nothing correlates
static float noise(const Work &w, int32_t p)
{
    return w.variance[p] + PRIOR_FRAMES * 2 * BINS * 0.09f;
}

static void evaluate(Work &work, int32_t p)
{
    kiss_fft_cpx spectrum[HOP + 1] = {};
    for (int32_t k = 0; k < BINS; k++)
        spectrum[LOW_BIN + k] = {work.acc_re[p][k], work.acc_im[p][k]};
    kiss_fftri(work.inverse, spectrum, work.lags);
    // lag of index n: p*HOP + n for -HOP/2 <= n < HOP/2
    const float scale = 1.0f / std::sqrt(noise(work, p));
    float best = 0;
    int32_t at = 0;
    for (int32_t n = p == 0 ? 0 : -HOP / 2; n < HOP / 2; n++) {
        const float v = std::fabs(work.lags[n & (WINDOW - 1)]);
        if (v > best) {
            best = v;
            at = n;
        }
    }
    // first arrival: the earliest lag nearly as strong
    int32_t first = at;
    const int32_t from = std::max(p == 0 ? 0 : -HOP / 2 - 8, at - ARRIVAL_LAGS);
    for (int32_t n = at - 1; n >= from; n--) {
        const float v = std::fabs(work.lags[n & (WINDOW - 1)]);
        if (v > ARRIVAL * best && v >= std::fabs(work.lags[(n - 1) & (WINDOW - 1)]) &&
            v >= std::fabs(work.lags[(n + 1) & (WINDOW - 1)]))
            first = n;
    }
    work.peaks[p] = {best * scale, std::max(0, p * HOP + first), 0};
}

// Height at one lag, by a direct transform
static float height_at(const Work &work, int32_t partitions, int32_t lag)
{
    const int32_t p = std::min((lag + HOP / 2) / HOP, partitions - 1);
    const int32_t n = lag - p * HOP;
    float best = 0;
    for (int32_t m = n - 2; m <= n + 2; m++) {
        float sum = 0;
        for (int32_t k = 0; k < BINS; k++) {
            const int32_t phase = (LOW_BIN + k) * m;
            sum += work.acc_re[p][k] * work.cosine[phase & (WINDOW - 1)] -
                   work.acc_im[p][k] * work.cosine[(phase - WINDOW / 4) & (WINDOW - 1)];
        }
        best = std::max(best, 2 * std::fabs(sum));
    }
    return best / std::sqrt(noise(work, p));
}

static int32_t target_for(const Book &book, int32_t lag, float margin_ms)
{
    const int32_t margin = static_cast<int32_t>(margin_ms * 4) * book.decimation;
    const int32_t exact = std::max(0, lag * book.decimation - margin);
    const int32_t rest = exact % book.frame;
    const float WHOLE = book.decimation == 2   ? WHOLE2
                        : book.decimation == 4 ? WHOLE4
                        : book.decimation == 8 ? WHOLE8
                                               : WHOLE12;
    return static_cast<float>(rest) < WHOLE * static_cast<float>(book.frame) ? exact - rest : exact;
}

static int32_t answer(Book &book, int64_t wanted)
{
    wanted = std::clamp<int64_t>(wanted, 0, REACH);
    if (std::abs(wanted - book.applied) > book.frame) book.applied = static_cast<int32_t>(wanted);
    return saturate_int32(int64_t{book.applied} - book.base);
}

int32_t AEC_DelayProcess(const int16_t *mic_frame, const int16_t *ref_frame, int32_t frame_length,
                         int32_t frame_count, int32_t *state)
{
    (void)frame_count;
    Book book;
    memcpy(&book, state, sizeof book);
    if (book.applied > REACH) book.applied = REACH;
    if (!book.work) return saturate_int32(std::max<int64_t>(0, book.applied) - book.base);
    Work &work = *book.work;
    (void)frame_length;

    decimate(book, work.ref_line, ref_frame, book.refs, work.ref_block);
    decimate(book, work.mic_line, mic_frame, book.mics, work.mic_block);

    book.newest = book.newest == 0 ? book.partitions - 1 : book.newest - 1;
    const float ref_db = block_db(work.ref_block);
    work.ref_peak_db = std::max(ref_db, work.ref_peak_db - 0.05f);
    if (ref_db > SILENT_REF_DB && ref_db > work.ref_peak_db - RANGE_DB) {
        work.ref_weight[book.newest] =
            whitened_spectrum(work, work.ref_block, work.ref_power, work.ref_hist_re[book.newest],
                              work.ref_hist_im[book.newest]);
    } else {
        silence_spectrum(work.ref_power);
        work.ref_weight[book.newest] = 0;
    }

    float y_re[BINS], y_im[BINS];
    bool news = false;
    if (block_db(work.mic_block) > SILENT_MIC_DB) {
        const float mic_weight =
            whitened_spectrum(work, work.mic_block, work.mic_power, y_re, y_im);
        for (int32_t p = 0; p < book.partitions; p++) {
            int32_t slot = book.newest + p;
            if (slot >= book.partitions) slot -= book.partitions;
            if (work.ref_weight[slot] == 0) continue;
            accumulate(work.acc_re[p], work.acc_im[p], work.ref_hist_re[slot],
                       work.ref_hist_im[slot], y_re, y_im);
            work.variance[p] =
                KEEP * KEEP * work.variance[p] + 2 * BINS * work.ref_weight[slot] * mic_weight;
            news = true;
        }
    } else
        silence_spectrum(work.mic_power);

    if (book.pending >= 0) {
        const int32_t t = book.pending;
        book.pending = -1;
        const int32_t e = answer(book, t);
        memcpy(state, &book, sizeof book);
        return e;
    }
    if (!news) {
        memcpy(state, &book, sizeof book);
        return answer(book, book.applied);
    }
    for (int32_t p = book.turn & 3; p < book.partitions; p += 4)
        work.score[p] = 2 * energy(work.acc_re[p], work.acc_im[p]) / noise(work, p);
    book.turn++;
    for (int32_t p = 0; p < book.partitions; p++)
        work.peaks[p].age++;
    for (int32_t n = 0; n < (book.found < 0 ? SEARCH : TRANSFORMS); n++) {
        int32_t pick = -1;
        for (int32_t p = 0; p < book.partitions; p++)
            if (work.peaks[p].age >= REST && (pick < 0 || work.score[p] > work.score[pick]))
                pick = p;
        if (pick >= 0) evaluate(work, pick);
    }

    // The tallest peak, its tallest rival elsewhere
    int32_t best = -1;
    for (int32_t p = 0; p < book.partitions; p++)
        if (work.peaks[p].age <= FRESH &&
            (best < 0 || work.peaks[p].height > work.peaks[best].height))
            best = p;
    int64_t wanted = book.applied;
    if (best >= 0 && work.peaks[best].age == 0) {
        const Peak top = work.peaks[best];
        // an earlier neighbour nearly as tall is the first arrival
        float rival = 0, here = 0;
        for (int32_t p = 0; p < book.partitions; p++) {
            const Peak &q = work.peaks[p];
            if (p == best) continue;
            if (q.age > FRESH) continue;
            if (std::abs(q.lag - top.lag) > SPREAD_LAGS) rival = std::max(rival, q.height);
        }
        if (std::abs(top.lag - book.suspect) <= 2)
            book.seen++;
        else {
            book.suspect = top.lag;
            book.seen = 1;
        }
        (void)here;
        const bool sure = top.height >= Z_SURE || (top.height >= Z_FIRST && book.seen >= CONFIRM);
        const bool same = book.found >= 0 && std::abs(top.lag - book.found) <= SPREAD_LAGS;
        bool move = false;
        int32_t target = 0;
        const bool clear = rival < RIVAL * top.height;
        if (sure && clear && !same) {
            const float home = book.found >= 0 ? height_at(work, book.partitions, book.found) : 0;
            if (top.height > BEAT * home) {
                move = true;
                book.found = top.lag;
                target = target_for(book, top.lag, MARGIN_MS);
            }
        } else if (clear && same && book.seen >= SETTLED_LOST) {
            book.found = top.lag;
            const bool lost = top.lag * book.decimation < book.applied;
            target = target_for(book, top.lag, lost ? LOST_MARGIN_MS : MARGIN_MS);
            move = lost || (book.seen >= SETTLED && static_cast<float>(target - book.applied) >
                                                        FINE * static_cast<float>(book.frame));
        }
        if (move) {
            const int32_t gap = target - book.applied;
            if (std::abs(gap) > book.frame)
                wanted = target;
            else if (gap != 0) {
                const int32_t high = std::max(target, book.applied) + book.frame + 1;
                const int32_t low = std::min(target, book.applied) - book.frame - 1;
                if (high <= REACH) {
                    wanted = high;
                    book.pending = target;
                } else if (low >= 0) {
                    wanted = low;
                    book.pending = target;
                }
            }
        }
    }
    const int32_t e = answer(book, wanted);
    memcpy(state, &book, sizeof book);
    return e;
}

} // namespace nax
