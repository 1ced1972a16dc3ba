/*
 * cancel_wav as a whole: any options, and WAV files with any header over any content.
 * The program is compiled into this file. Where it would end, it jumps back here; what
 * it had open is closed then, and what it had in its variables is put back.
 */
#define _POSIX_C_SOURCE 200809L

#include "nax_aec.h"
#include "nax_aec_dump.h"
#include "nax_meter.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <math.h>
#include <samplerate.h>
#include <setjmp.h>
#include <sndfile.h>
#include <stdbool.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

/* ---- what the program holds -------------------------------------------------- */

enum kind { NOTHING, MEMORY, STREAM, SOUND, RATE, STATE, METER };
static struct {
    enum kind kind;
    void *what;
} held[64];
static jmp_buf way_back;

static void *hold(enum kind kind, void *what)
{
    for (size_t i = 0; what; i++)
        if (i == sizeof held / sizeof held[0])
            abort(); /* more than it ever opens: something is not given back */
        else if (held[i].kind == NOTHING) {
            held[i].kind = kind;
            held[i].what = what;
            break;
        }
    return what;
}

static void *let_go(void *what)
{
    for (size_t i = 0; what && i < sizeof held / sizeof held[0]; i++)
        if (held[i].what == what) {
            held[i].kind = NOTHING;
            held[i].what = NULL;
        }
    return what;
}

static int release_all(void)
{
    int released = 0;
    for (size_t i = 0; i < sizeof held / sizeof held[0]; i++) {
        void *what = held[i].what;
        const enum kind kind = held[i].kind;
        released += kind != NOTHING;
        let_go(what);
        if (kind == MEMORY) free(what);
        if (kind == STREAM) fclose(what);
        if (kind == SOUND) sf_close(what);
        if (kind == RATE) src_delete(what);
        if (kind == STATE) nax_aec_state_destroy(what);
        if (kind == METER) nax_meter_state_destroy(what);
    }
    return released;
}

__attribute__((noreturn)) static void jump_back(int status) { longjmp(way_back, status + 1); }

/* ---- the program -------------------------------------------------------------- */

#define main cancel_wav_main
#define exit(status) jump_back(status)
#define calloc(count, size) hold(MEMORY, calloc(count, size))
#define free(block) free(let_go(block))
#define fopen(path, mode) hold(STREAM, fopen(path, mode))
#define fclose(file) fclose(let_go(file))
#define sf_open(path, mode, info) hold(SOUND, sf_open(path, mode, info))
#define sf_close(file) sf_close(let_go(file))
#define src_callback_new(...) hold(RATE, src_callback_new(__VA_ARGS__))
#define src_delete(converter) src_delete(let_go(converter))
#define nax_aec_state_init(...) hold(STATE, nax_aec_state_init(__VA_ARGS__))
#define nax_aec_state_destroy(state) nax_aec_state_destroy(let_go(state))
#define nax_meter_state_init(...) hold(METER, nax_meter_state_init(__VA_ARGS__))
#define nax_meter_state_destroy(state) nax_meter_state_destroy(let_go(state))
#pragma clang section bss = "program_bss" data = "program_data"
#include "options.c"

#include "output.c"

#include "cancel_wav_options.c"

#include "sound_file.c"

#include "verdicts.c"

#include "cancel_wav_source.c"

#include "cancel_wav.c"
#pragma clang section bss = "" data = ""
#undef main
#undef exit

/* ---- what the program remembers ---------------------------------------------- */

extern char __start_program_bss[], __stop_program_bss[];
extern char __start_program_data[] __attribute__((weak)),
    __stop_program_data[] __attribute__((weak));

/* Not by memcpy: between the variables lie a sanitiser's red zones. */
__attribute__((no_sanitize("address"))) static void put_back(void)
{
    static char first_data[1 << 16];
    static int saved;
    const size_t size = (size_t)(__stop_program_data - __start_program_data);
    if (size > sizeof first_data) abort();
    for (size_t i = 0; i < size; i++)
        if (saved)
            ((volatile char *)__start_program_data)[i] = first_data[i];
        else
            first_data[i] = ((volatile char *)__start_program_data)[i];
    saved = 1;
    for (volatile char *byte = __start_program_bss; byte < __stop_program_bss; byte++)
        *byte = 0;
    aec_out = NULL;
    echo_out = NULL;
    optind = 0; /* getopt_long starts anew */
}

/* ---- what the program is given ------------------------------------------------ */

static const uint8_t *at;
static size_t left;

static int pick(int count)
{
    if (left == 0) return 0;
    left--;
    return *at++ % count;
}

static void put(uint8_t *to, uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; i++)
        to[i] = (uint8_t)(value >> 8 * i);
}

/* A WAV header with sound, odd or absurd fields, or none, and a share of the bytes. */
static void write_input(const char *path, size_t bytes)
{
    static const uint32_t RATES[] = {8000, 16000, 32000, 48000, 44100, 0, 0xffffffff};
    static const uint32_t CHANNELS[] = {1, 2, 3, 4, 9, 0, 1024, 65535};
    static const uint32_t FORMATS[] = {1, 1, 1, 1, 3, 0xfffe, 17};
    static const uint32_t BITS[] = {16, 16, 16, 16, 8, 24, 0};
    uint8_t header[44] = "RIFF    WAVEfmt ";
    const uint32_t channels = CHANNELS[pick(8)], rate = RATES[pick(7)], bits = BITS[pick(7)];
    const uint32_t length = pick(4) ? (uint32_t)bytes : (uint32_t)pick(256) << pick(25);
    put(header + 4, length + 36, 4);
    put(header + 16, 16, 4);
    put(header + 20, FORMATS[pick(7)], 2);
    put(header + 22, channels, 2);
    put(header + 24, rate, 4);
    put(header + 28, rate * channels * bits / 8, 4);
    put(header + 32, channels * bits / 8, 2);
    put(header + 34, bits, 2);
    memcpy(header + 36, "data", 4);
    put(header + 40, length, 4);

    const int file = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (file < 0) abort();
    if (pick(8)) (void)!write(file, header, sizeof header);
    if (bytes > left) bytes = left;
    (void)!write(file, at, bytes);
    at += bytes;
    left -= bytes;
    close(file);
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static char *const OPTIONS[] = {"--order",
                                    "--mics",
                                    "--drop",
                                    "--remap",
                                    "--delay",
                                    "--look-ahead",
                                    "--no-delay-estimation",
                                    "--echo",
                                    "--refs",
                                    "--delays",
                                    "--dump",
                                    "--input",
                                    "--quiet",
                                    "--channels",
                                    "--ord",
                                    "-x",
                                    "--",
                                    "--check",
                                    "--report"};
    static char *const VALUES[] = {"mics-first", "refs-first",
                                   "0",          "1",
                                   "2",          "3",
                                   "12288",      "12289",
                                   "-1",         "99999999999999999999",
                                   "1,0",        "0,1",
                                   "2,",         ",",
                                   "0,1,2",      "1x",
                                   "",           "0000000000000000000000000000000000000,1",
                                   "1:0",        "0,1:2,0,0"};
    static char *const PATHS[] = {"a.wav",     "b.wav",     "out.wav",   "more.wav",
                                  "/dev/full", "missing/x", "/dev/null", "."};
    static char directory[] = "/tmp/fuzz_cancel_wav.XXXXXX";
    static int there;
    if (!there) {
        if (!mkdtemp(directory) || chdir(directory) != 0) abort();
        there = 1;
    }
    at = data;
    left = size;
    put_back();

    char *argv[32] = {"cancel_wav"};
    int argc = 1;
    for (int n = pick(8); n > 0; n--) {
        const int option = pick(19);
        argv[argc++] = OPTIONS[option];
        if (option >= 7 && option <= 11)
            argv[argc++] = PATHS[pick(8)];
        else if (option != 6 && option != 12 && option < 16)
            argv[argc++] = VALUES[pick(20)];
    }
    const int files = pick(4);
    argv[argc++] = PATHS[files == 3 ? pick(8) : 0];
    if (files > 0) argv[argc++] = PATHS[files == 3 ? pick(8) : 1];
    argv[argc++] = PATHS[pick(8) ? 2 : pick(8)];
    write_input("a.wav", (size_t)pick(256) * 16);
    write_input("b.wav", left);

    const int ended = setjmp(way_back);
    if (ended == 0) {
        cancel_wav_main(argc, argv);
        /* Nothing is left open by a run that succeeds. */
        if (release_all() > 0) abort();
    } else {
        release_all();
    }
    return 0;
}
