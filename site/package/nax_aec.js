// libnax_aec, libnax_res and libnax_meter over WebAssembly. nax_aec.d.ts documents the interface.

const FULL_SCALE = 32768; // of 16 bits, for floats of full scale 1
const LONGEST_DELAY = 12288; // samples that a delay line holds
const DELAY_ESTIMATION = 1; // bit of nax_aec_param.model_aec_en
const MICROPHONES_FIRST = 1; // nax_aec_param.pos
const REPORT_WORDS = 24; // of nax_meter_report, 32 bits each
const REPORTED_REFS = 8; // NAX_METER_REFS

let library; // the exports of the running module
let listener; // gets what the libraries write to standard error

// What the libraries import: standard error, and nothing else of a system.
function imports() {
    const view = () => new DataView(library.memory.buffer);
    function write(descriptor, vectors, count, written) {
        let total = 0,
            text = '';
        for (let i = 0; i < count; i++) {
            const start = view().getUint32(vectors + 8 * i, true);
            const length = view().getUint32(vectors + 8 * i + 4, true);
            text += String.fromCharCode(...new Uint8Array(library.memory.buffer, start, length));
            total += length;
        }
        view().setUint32(written, total, true);
        listener?.(text);
        return 0;
    }
    return {
        env: { emscripten_notify_memory_growth() {} },
        wasi_snapshot_preview1: { fd_write: write, fd_close: () => 0, fd_seek: () => 0 },
    };
}

export function start(module, onMessage) {
    library = new WebAssembly.Instance(module, imports()).exports;
    library._initialize();
    listener = onMessage;
}

export async function load(source = new URL('nax_aec.wasm', import.meta.url), onMessage) {
    let bytes = source;
    if (source instanceof URL && source.protocol === 'file:') {
        bytes = await (await import('node:fs/promises')).readFile(source);
    } else if (source instanceof URL || typeof source === 'string') {
        const answer = await fetch(source);
        if (!answer.ok) throw new Error(`${source}: ${answer.status} ${answer.statusText}`);
        bytes = await answer.arrayBuffer();
    }
    const module = bytes instanceof WebAssembly.Module ? bytes : await WebAssembly.compile(bytes);
    start(module, onMessage);
    return module;
}

// A C string, all of which are ASCII here. An AudioWorklet has no TextDecoder.
function text(memory, start) {
    const bytes = new Uint8Array(memory.buffer, start);
    return String.fromCharCode(...bytes.subarray(0, bytes.indexOf(0)));
}

export function frameSize(sampleRate) {
    return (sampleRate * 16) / 1000;
}

function toInt16(sample) {
    return Math.max(-FULL_SCALE, Math.min(FULL_SCALE - 1, Math.round(sample * FULL_SCALE)));
}

function checkAudio(audio, samples, name) {
    if (!(audio instanceof Int16Array || audio instanceof Float32Array))
        throw new TypeError(`${name} is no Int16Array or Float32Array`);
    if (audio.length !== samples) throw new RangeError(`${name} has ${audio.length} samples, not ${samples}`);
}

export class NaxAec {
    #library;
    #aec;
    #res = 0;
    #meter = 0;
    #block = 0;
    #heap;
    #in;
    #out;
    #echo;
    #suppressed; // where the frame's buffers are, in samples of the heap

    constructor(sampleRate, microphones = 1, references = 1, options = {}) {
        const { suppress = false, meter = false, delayEstimation = true, delayLen = 0, dropChannel = 0 } = options;
        if (!library) throw new Error('await load() before the first NaxAec');
        if (!(dropChannel >= 0 && dropChannel <= references))
            throw new RangeError(`dropChannel is ${dropChannel}, not 0 to ${references}`);
        if (!(delayLen >= 0 && delayLen <= LONGEST_DELAY))
            throw new RangeError(`delayLen is ${delayLen}, not 0 to ${LONGEST_DELAY}`);
        this.#library = library;
        this.sampleRate = sampleRate;
        this.microphones = microphones;
        this.references = references;
        this.kept = references - dropChannel;
        this.frameSize = frameSize(sampleRate);
        this.latency = suppress ? this.frameSize : 0;
        this.delay = delayLen;
        this.#start(suppress, meter, [
            MICROPHONES_FIRST,
            dropChannel,
            delayEstimation ? DELAY_ESTIMATION : 0,
            delayLen,
            0,
            0,
        ]);
    }

    #start(suppress, meter, words) {
        const { sampleRate: rate, microphones: mics, references: refs, frameSize: frame } = this;
        const param = this.#library.malloc(4 * words.length);
        new Int32Array(this.#library.memory.buffer, param, words.length).set(words);
        this.#aec = this.#library.nax_aec_state_init(rate, 16, mics, refs, param);
        this.#library.free(param);
        if (this.#aec && suppress) this.#res = this.#library.nax_res_state_init(rate, mics, refs);
        if (this.#aec && meter) this.#meter = this.#library.nax_meter_state_init(rate, mics, refs);
        if (this.#meter) this.#library.nax_meter_drop(this.#meter, refs - this.kept);
        if (this.#aec && (this.#res || !suppress) && (this.#meter || !meter))
            this.#block = this.#library.malloc(2 * frame * (4 * mics + 2 * refs) + 4 * REPORT_WORDS);
        if (!this.#block) {
            this.close();
            throw new RangeError(
                `not supported: ${rate} Hz, ${mics} microphones, ${refs} references; 8000, ` +
                    '16000, 32000 or 48000 Hz are, 1 or 2 microphones, 1 reference or more',
            );
        }
        this.#in = this.#block / 2 + 2 * REPORT_WORDS;
        this.#out = this.#in + frame * (mics + refs);
        this.#echo = this.#out + frame * (mics + refs);
        this.#suppressed = this.#echo + frame * mics;
    }

    process(mic, ref, into = { cleaned: new mic.constructor(mic.length) }) {
        if (!this.#aec) throw new Error('the canceller is closed');
        const { frameSize: frame, microphones: mics, references: refs } = this;
        const frames = mic.length / (frame * mics);
        if (!Number.isInteger(frames))
            throw new RangeError(`mic has ${mic.length} samples, not whole frames of ${frame * mics}`);
        checkAudio(mic, mic.length, 'mic');
        checkAudio(ref, frames * frame * refs, 'ref');
        if (into.cleaned) checkAudio(into.cleaned, mic.length, 'cleaned');
        if (into.echo) checkAudio(into.echo, mic.length, 'echo');
        if (into.references) checkAudio(into.references, ref.length, 'references');
        for (let i = 0; i < frames; i++) {
            this.#frame(mic, ref, i);
            if (into.cleaned)
                this.#take(
                    this.#res ? this.#suppressed : this.#out,
                    this.#res ? mics : mics + refs,
                    into.cleaned,
                    mics,
                    i,
                );
            if (into.echo) this.#take(this.#echo, mics, into.echo, mics, i);
            if (into.references) this.#take(this.#out + mics, mics + refs, into.references, refs, i);
            if (into.delays) into.delays[i] = this.delay;
        }
        return into.cleaned;
    }

    // One frame through both libraries.
    #frame(mic, ref, index) {
        const { frameSize: frame, microphones: mics, references: refs, kept } = this;
        const start = this.#in,
            heap = this.#samples();
        this.#put(mic, index * frame * mics, mics, mics, heap, start);
        this.#put(ref, index * frame * refs, refs, kept, heap, start + mics);
        this.delay = this.#library.nax_aec_short(
            this.#aec,
            2 * this.#in,
            2 * this.#out,
            2 * this.#echo,
            frame * (mics + refs),
        );
        if (this.#meter) this.#library.nax_meter_short(this.#meter, 2 * this.#in, 2 * this.#out, this.delay);
        if (this.#res) this.#library.nax_res_short(this.#res, 2 * this.#out, 2 * this.#echo, 2 * this.#suppressed);
    }

    report() {
        if (!this.#meter) throw new Error('the canceller has no meter');
        const { memory, nax_meter_read, nax_meter_name, nax_meter_text, nax_meter_is_alarm } = this.#library;
        nax_meter_read(this.#meter, this.#block);
        const whole = new Int32Array(memory.buffer, this.#block, REPORT_WORDS);
        const real = new Float32Array(memory.buffer, this.#block, REPORT_WORDS);
        const { microphones: mics, references: refs } = this;
        return {
            verdict: text(memory, nax_meter_name(whole[0])),
            text: text(memory, nax_meter_text(whole[0])),
            alarm: nax_meter_is_alarm(whole[0]) !== 0,
            verdictS: real[2],
            frames: whole[1],
            farEndS: real[3],
            micDbfs: [...real.subarray(4, 4 + mics)],
            outDbfs: [...real.subarray(6, 6 + mics)],
            refDbfs: [...real.subarray(8, 8 + Math.min(refs, REPORTED_REFS))],
            micClipped: real[16],
            refClipped: real[17],
            removedDb: real[18],
            delay: whole[19],
            delayS: real[20],
            delayMoves: whole[21],
            likeness: real[22],
            likenessMs: real[23],
        };
    }

    // Some of the channels of interleaved audio into the frame handed over.
    #put(audio, at, channels, taken, heap, start) {
        const whole = audio instanceof Int16Array,
            stride = this.microphones + this.kept;
        for (let t = 0; t < this.frameSize; t++)
            for (let c = 0; c < taken; c++) {
                const sample = audio[at + t * channels + c];
                heap[start + t * stride + c] = whole ? sample : toInt16(sample);
            }
    }

    // The first channels of interleaved samples into the caller's audio.
    #take(start, stride, audio, channels, index) {
        const heap = this.#samples(),
            scale = audio instanceof Int16Array ? 1 : 1 / FULL_SCALE;
        let at = index * this.frameSize * channels;
        for (let t = 0; t < this.frameSize; t++)
            for (let c = 0; c < channels; c++) audio[at++] = heap[start + t * stride + c] * scale;
    }

    // The memory, which another canceller may have let grow.
    #samples() {
        if (this.#heap?.buffer !== this.#library.memory.buffer)
            this.#heap = new Int16Array(this.#library.memory.buffer);
        return this.#heap;
    }

    close() {
        if (this.#meter) this.#library.nax_meter_state_destroy(this.#meter);
        if (this.#res) this.#library.nax_res_state_destroy(this.#res);
        if (this.#aec) this.#library.nax_aec_state_destroy(this.#aec);
        if (this.#block) this.#library.free(this.#block);
        this.#aec = this.#res = this.#meter = this.#block = 0;
    }
}
