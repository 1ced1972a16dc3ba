// Seeded signals, and WAV files of them.

/** Numbers from 0 to 1, the same for the same seed on every machine. */
export function random(seed) {
    let state = seed >>> 0;
    return () => {
        state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
        return state / 2 ** 32;
    };
}

/**
 * A far end of noise in bursts and a microphone that hears it later through a decaying room,
 * 16 bits, n samples each. From sample `from` on a near end of other noise is heard, too.
 */
export function scene({ n, delay, from = n, seed = 1 }) {
    const draw = random(seed),
        ref = new Int16Array(n),
        mic = new Int16Array(n);
    for (let t = 0, low = 0; t < n; t++) {
        low = 0.8 * low + (draw() - 0.5);
        ref[t] = Math.round(4000 * low * (1 + Math.sin(t / 1500)));
    }
    const room = Float32Array.from({ length: 200 }, (_, i) => (i ? (draw() - 0.5) * Math.exp(-i / 40) : 1) * 0.4);
    for (let t = 0; t < n; t++) {
        let sum = 4 * (draw() - 0.5);
        for (let i = 0; i < room.length && i <= t - delay; i++) sum += room[i] * ref[t - delay - i];
        if (t >= from) sum += 3000 * (draw() - 0.5) * (1 + Math.sin(t / 900));
        mic[t] = Math.max(-32768, Math.min(32767, Math.round(sum)));
    }
    return { mic, ref };
}

/** 10 log10 of the mean power of samples from..to over that of 1. */
export function levelDb(samples, from = 0, to = samples.length) {
    let sum = 1e-9;
    for (let t = from; t < to; t++) sum += samples[t] ** 2;
    return 10 * Math.log10(sum / (to - from));
}

/** A 16-bit WAV file (Uint8Array) of interleaved samples. */
export function wavFile(samples, rate, channels = 1) {
    const bytes = new Uint8Array(44 + 2 * samples.length),
        view = new DataView(bytes.buffer);
    const text = (at, word) => [...word].forEach((c, i) => view.setUint8(at + i, c.charCodeAt(0)));
    (text(0, 'RIFF'), view.setUint32(4, 36 + 2 * samples.length, true), text(8, 'WAVEfmt '));
    (view.setUint32(16, 16, true), view.setUint16(20, 1, true), view.setUint16(22, channels, true));
    (view.setUint32(24, rate, true), view.setUint32(28, 2 * rate * channels, true));
    (view.setUint16(32, 2 * channels, true), view.setUint16(34, 16, true));
    (text(36, 'data'), view.setUint32(40, 2 * samples.length, true));
    new Int16Array(bytes.buffer, 44).set(samples);
    return bytes;
}

/** The samples of a 16-bit WAV file. */
export function wavSamples(bytes) {
    const view = new DataView(bytes.buffer, bytes.byteOffset, bytes.length);
    let at = 12;
    while (view.getUint32(at, false) !== 0x64617461) at += 8 + view.getUint32(at + 4, true); // "data"
    const length = view.getUint32(at + 4, true);
    const start = bytes.byteOffset + at + 8;
    return new Int16Array(bytes.buffer.slice(start, start + length));
}
