// The canceller on the audio thread: input 0 is the microphone, input 1 what is played. Posts a
// report four times a second and, once asked for by { record: seconds }, what it heard.
import { start, NaxAec } from './nax_aec.js';

const FRAME_MS = 16,
    REPORTS_PER_S = 4;
const KEEP = 0.97; // of the power of a frame before, in levels over half a second

registerProcessor(
    'nax-aec',
    class extends AudioWorkletProcessor {
        constructor({ processorOptions: { module } }) {
            super();
            start(module);
            this.aec = new NaxAec(sampleRate, 1, 1, { suppress: true, meter: true });
            const size = this.aec.frameSize;
            [this.mic, this.ref, this.cleaned, this.echo] = Array.from({ length: 4 }, () => new Float32Array(size));
            this.into = { cleaned: this.cleaned, echo: this.echo };
            this.filled = this.frames = this.late = 0;
            this.before = this.after = 0; // powers while the far end is active
            this.tape = null;
            this.port.onmessage = ({ data }) => {
                data.record ? this.record(data.record) : this.close();
            };
        }

        record(seconds) {
            const n = Math.ceil((seconds * sampleRate) / this.aec.frameSize) * this.aec.frameSize;
            this.tape = {
                at: 0,
                mic: new Float32Array(n),
                cancelled: new Float32Array(n),
                suppressed: new Float32Array(n),
            };
        }

        close() {
            this.aec?.close();
            this.aec = null;
        }

        process([[mic], [ref]]) {
            if (!this.aec) return false;
            const block = mic?.length ?? ref?.length ?? 128;
            for (let t = 0; t < block; t++) {
                this.mic[this.filled] = mic ? mic[t] : 0;
                this.ref[this.filled] = ref ? ref[t] : 0;
                if (++this.filled === this.aec.frameSize) this.frame();
            }
            return true;
        }

        frame() {
            this.filled = 0;
            const begun = Date.now(); // there is no finer clock here
            this.aec.process(this.mic, this.ref, this.into);
            if (Date.now() - begun > FRAME_MS) this.late++;
            if (power(this.ref) > 1e-6) {
                this.before = KEEP * this.before + power(this.mic);
                this.after = KEEP * this.after + power(this.cleaned);
            }
            if (this.tape) this.write();
            if (++this.frames % Math.round(1000 / (FRAME_MS * REPORTS_PER_S)) === 0)
                this.port.postMessage({
                    report: this.aec.report(),
                    late: this.late,
                    seconds: (this.frames * FRAME_MS) / 1000,
                    removedDb: 10 * Math.log10((this.before + 1e-12) / (this.after + 1e-12)),
                });
        }

        write() {
            const { tape } = this;
            for (let t = 0; t < this.mic.length; t++) {
                tape.mic[tape.at + t] = this.mic[t];
                tape.cancelled[tape.at + t] = this.mic[t] - this.echo[t];
                tape.suppressed[tape.at + t] = this.cleaned[t]; // a frame late
            }
            tape.at += this.mic.length;
            if (tape.at < tape.mic.length) return;
            this.port.postMessage({ tape });
            this.tape = null;
        }
    },
);

function power(samples) {
    let sum = 0;
    for (let t = 0; t < samples.length; t++) sum += samples[t] * samples[t];
    return sum / samples.length;
}
