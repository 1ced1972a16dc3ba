// Sound files in, sound files out, and levels.

/** Why a file cannot be used, for the visitor. */
export class Unusable extends Error {}

/** The channels (Float32Array each, full scale 1) of a sound file's bytes, at rate in Hz. */
export async function decode(bytes, rate, name) {
    try {
        const buffer = await new OfflineAudioContext(1, 1, rate).decodeAudioData(bytes);
        return Array.from({ length: buffer.numberOfChannels }, (_, c) => buffer.getChannelData(c));
    } catch {
        throw new Unusable(`${name} is not a sound file that this browser can read.`);
    }
}

export async function fetchSound(url, rate) {
    const answer = await fetch(url);
    if (!answer.ok) throw new Unusable(`${url} cannot be loaded: ${answer.status}.`);
    return decode(await answer.arrayBuffer(), rate, url);
}

/** Floats of full scale 1 from 16-bit samples. */
export function toFloat(samples) {
    return Float32Array.from(samples, x => x / 32768);
}

/** Channels (Float32Array each) as one interleaved array. */
export function interleave(channels, n = channels[0].length) {
    const audio = new Float32Array(n * channels.length);
    channels.forEach((samples, c) => {
        for (let t = 0; t < Math.min(n, samples.length); t++) audio[t * channels.length + c] = samples[t];
    });
    return audio;
}

/** The reverse of interleave. */
export function channelsOf(audio, count) {
    return Array.from({ length: count }, (_, c) =>
        Float32Array.from({ length: audio.length / count }, (_, t) => audio[t * count + c]),
    );
}

/** A 16-bit WAV file of channels (Float32Array each), as a Blob. */
export function wavFile(channels, rate) {
    const count = channels.length,
        audio = interleave(channels),
        bytes = 2 * audio.length;
    const view = new DataView(new ArrayBuffer(44 + bytes));
    const text = (at, word) => [...word].forEach((c, i) => view.setUint8(at + i, c.charCodeAt(0)));
    text(0, 'RIFF');
    view.setUint32(4, 36 + bytes, true);
    text(8, 'WAVEfmt ');
    view.setUint32(16, 16, true);
    view.setUint16(20, 1, true);
    view.setUint16(22, count, true);
    view.setUint32(24, rate, true);
    view.setUint32(28, 2 * rate * count, true);
    view.setUint16(32, 2 * count, true);
    view.setUint16(34, 16, true);
    text(36, 'data');
    view.setUint32(40, bytes, true);
    audio.forEach((x, t) => view.setInt16(44 + 2 * t, Math.max(-32768, Math.min(32767, Math.round(32768 * x))), true));
    return new Blob([view], { type: 'audio/wav' });
}

/** Mean power of each whole stretch of size samples. */
export function powers(samples, size) {
    return Array.from({ length: Math.floor(samples.length / size) }, (_, i) => {
        let sum = 0;
        for (let t = i * size; t < (i + 1) * size; t++) sum += samples[t] * samples[t];
        return sum / size;
    });
}

/** 10 log10 of a ratio of powers. */
export function decibels(above, below = 1) {
    return 10 * Math.log10((above + 1e-12) / (below + 1e-12));
}
