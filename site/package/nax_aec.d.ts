/**
 * Acoustic echo cancellation, suppression of what echo is left, and a meter, as WebAssembly.
 *
 * Audio is interleaved: for each sample instant one sample per channel. Samples are 16 bits
 * (Int16Array) or floats of full scale 1 (Float32Array), which are rounded and clipped to
 * 16 bits. A frame is F = 16 ms: 128, 256, 512 or 768 sample instants at 8, 16, 32 or 48 kHz.
 */

/** What the libraries write to standard error, as it comes. */
export type MessageListener = (text: string) => void;

/**
 * Compiles and starts the module; await it before the first NaxAec. Each worker and each
 * AudioWorklet starts it for itself.
 *
 * @param source     nax_aec.wasm: where it is, its bytes, or the compiled module. By default
 *                   the file beside nax_aec.js.
 * @param onMessage  gets the libraries' messages, which are dropped otherwise.
 * @returns the compiled module, to be posted to workers and AudioWorklets.
 */
export function load(source?: URL | string | BufferSource | WebAssembly.Module,
                     onMessage?: MessageListener): Promise<WebAssembly.Module>;

/** Starts a compiled module at once: for AudioWorklets, which can fetch and await nothing. */
export function start(module: WebAssembly.Module, onMessage?: MessageListener): void;

/** F, the sample instants of a 16 ms frame, from the rate in Hz. */
export function frameSize(sampleRate: number): number;

/** Audio as process takes and gives it. */
export type Samples = Int16Array | Float32Array;

export interface Options {
    /** Suppress the echo that the canceller leaves, one frame late. Default false. */
    suppress?: boolean;
    /** Keep a report on whether the echo is cancelled, for report(). Default false. */
    meter?: boolean;
    /** Find the delay of the echo. Default true. */
    delayEstimation?: boolean;
    /** Base delay in samples, 0 to 12288: where the search for the delay starts. Default 0. */
    delayLen?: number;
    /** D, 0 to R: the last D references are kept from the canceller. Default 0. */
    dropChannel?: number;
}

/** Where process writes; what is left out is not written. n is the sample instants passed. */
export interface Results {
    /** n x M samples: the microphones without the echo, suppressed with suppress. */
    cleaned?: Samples;
    /** n x M samples: the echo that the canceller took out of each microphone. */
    echo?: Samples;
    /** n x R samples: the references as aligned with the echo, silence for dropped ones. */
    references?: Samples;
    /** n / F numbers: the delay applied in each frame, in samples. */
    delays?: Int32Array;
}

/** What report gives, brought up to date every 4 frames. Levels are of the last second in dBFS, -100 when there is nothing. */
export interface Report {
    /** The verdict for programs, for instance "not-cancelling" (see nax_meter.h). */
    verdict: string;
    /** The verdict for people: one English clause, without a full stop. */
    text: string;
    /** Whether the verdict is one that somebody should act on. */
    alarm: boolean;
    /** Seconds for which the verdict has stood. */
    verdictS: number;
    /** Frames since the stream began. */
    frames: number;
    /** Seconds of far end since the stream began. */
    farEndS: number;
    /** Level of each microphone. */
    micDbfs: number[];
    /** Level of each microphone behind the canceller. */
    outDbfs: number[];
    /** Level of each of the first 8 references. */
    refDbfs: number[];
    /** Share of clipped samples, 0 to 1, in the last ten seconds. */
    micClipped: number;
    refClipped: number;
    /** Energy of the microphones over that of the canceller's output, in dB, over the last two
     * seconds of far end. */
    removedDb: number;
    /** The delay applied last, in samples, the seconds for which it has stood, and how often it
     * moved in the last minute. */
    delay: number;
    delayS: number;
    delayMoves: number;
    /** How alike the levels of microphone and references are over time, -1 to 1, and by how many
     * ms the microphone is later at that. */
    likeness: number;
    likenessMs: number;
}

/** One audio stream. */
export class NaxAec {
    readonly sampleRate: number;
    /** M. */
    readonly microphones: number;
    /** R. */
    readonly references: number;
    /** K = R - D, the references that reach the canceller. */
    readonly kept: number;
    /** F, the sample instants of a frame. */
    readonly frameSize: number;
    /** How late cleaned is, in samples: F with suppress, else 0. */
    readonly latency: number;
    /** The delay applied in the last frame, in samples; positive: the reference is held back. */
    readonly delay: number;

    /**
     * @param sampleRate   8000, 16000, 32000 or 48000, in Hz.
     * @param microphones  M, 1 or 2. Default 1.
     * @param references   R, 1 or more. Default 1.
     * @throws RangeError for a format that is not supported, Error before load().
     */
    constructor(sampleRate: number, microphones?: number, references?: number, options?: Options);

    /**
     * The next piece of the stream, one frame or more. Allocates nothing when `into` is given.
     *
     * @param mic   n x M samples, n a multiple of F.
     * @param ref   n x R samples.
     * @param into  where the results go; by default a new array for `cleaned`. Its arrays may
     *              be those passed in.
     * @returns into.cleaned.
     * @throws RangeError for a wrong length, TypeError for another type, Error when closed.
     */
    process<T extends Samples>(mic: T, ref: Samples): T;
    process<T extends Samples>(mic: Samples, ref: Samples, into: Results & { cleaned: T }): T;
    process(mic: Samples, ref: Samples, into: Results): Samples | undefined;

    /**
     * Whether the echo is cancelled, and why not.
     *
     * @throws Error without the option meter.
     */
    report(): Report;

    /** Releases the stream's memory. A second call does nothing. */
    close(): void;
}
