// The third part: the visitor talks over what the page plays.
import { fetchSound } from './audio.js';
import { Comparison, element } from './comparison.js';
import { load } from './nax_aec.js';

const RATES = [16000, 48000]; // tried in turn: a delay of 752 ms is served at the first, 240 at the second
const RECORDED_S = 10;
const HEADSET = /head(set|phone)|earphone|airpods|buds|hands-?free/i;

// What the visitor can do about a verdict of the meter.
const CURES = {
    'not-heard': ' Turn the loudspeaker up; with a headset there is nothing to test.',
    'no-microphone': ' Choose another microphone in the browser, or turn it on.',
    clipped: ' Turn the loudspeaker or the microphone down.',
};

/** Why it cannot start, for the visitor. */
function reason(error) {
    return (
        {
            NotAllowedError: 'The microphone was refused. Allow it for this page and start again.',
            NotFoundError: 'No microphone was found.',
            NotReadableError: 'Another program holds the microphone.',
        }[error.name] ?? `It cannot start: ${error.message}`
    );
}

/** What spoils the test, from the microphone's settings and the names of the devices. */
export function warnings({ settings, names }) {
    const on = ['echoCancellation', 'noiseSuppression', 'autoGainControl'].filter(name => settings[name] === true);
    const found = [];
    if (on.length)
        found.push(
            'This browser keeps processing the microphone by itself, so this is not a fair test ' +
                `(${on.join(', ')} cannot be switched off).`,
        );
    if (names.some(name => HEADSET.test(name)))
        found.push(
            'A headset or headphones seem to be in use. The microphone then hears ' +
                'no loudspeaker, and there is nothing to cancel.',
        );
    return found;
}

export class Talk {
    #host;
    #comparison;
    #session;
    #turn = 0;

    constructor(host) {
        this.#host = host;
        this.#comparison = new Comparison(host.querySelector('.comparison'));
        this.#find('.start').addEventListener('click', () => (this.#session ? this.stop() : this.#start()));
        this.#find('.record').addEventListener('click', () => this.#record());
        document.addEventListener('visibilitychange', () => {
            if (document.hidden && this.#session) this.stop('Stopped, because the page was hidden.');
        });
        addEventListener('pagehide', () => this.stop());
    }

    #find(selector) {
        return this.#host.querySelector(selector);
    }

    #say(text, isProblem = false) {
        this.#find('[role=status]').textContent = text;
        this.#find('[role=status]').classList.toggle('problem', isProblem);
    }

    async #start() {
        if (!navigator.mediaDevices)
            return this.#say('The browser gives the microphone only to pages over https or from localhost.', true);
        const turn = ++this.#turn,
            session = (this.#session = {});
        this.#comparison.close();
        this.#find('.start').textContent = 'Stop';
        this.#say('Asking for the microphone …');
        try {
            await open(session, this.#find('select').value);
            if (turn !== this.#turn) return close(session);
            session.node.port.onmessage = ({ data }) =>
                data.tape ? this.#compare(data.tape, session) : this.#update(data);
            const [track] = session.stream.getAudioTracks();
            track.addEventListener('ended', () => this.stop('Stopped: the microphone is gone.'));
            this.#find('.record').disabled = false;
            this.#warn(await warningsOf(session));
            this.#say('Listening. Talk over what is played.');
        } catch (error) {
            close(session);
            if (turn === this.#turn) this.stop(reason(error), true);
        }
    }

    stop(text = 'Stopped.', isProblem = false) {
        if (!this.#session) return;
        this.#turn++;
        close(this.#session);
        this.#session = null;
        this.#find('.start').textContent = 'Start';
        this.#find('.record').disabled = true;
        this.#say(text, isProblem);
    }

    #warn(texts) {
        this.#find('.warnings').replaceChildren(...texts.map(text => element('li', {}, text)));
    }

    #update({ report, removedDb, late, seconds }) {
        const level = (name, dbfs) => {
            this.#find(`.${name} meter`).value = Math.max(-80, dbfs);
            this.#find(`.${name} output`).textContent = `${dbfs.toFixed(0)} dBFS`;
        };
        level('mic', report.micDbfs[0]);
        level('ref', report.refDbfs[0]);
        level('out', report.outDbfs[0]);
        this.#find('.delay').textContent = `${((1000 * report.delay) / this.#session.rate).toFixed(0)} ms`;
        this.#find('.removed').textContent = `${report.removedDb.toFixed(0)} dB`;
        this.#find('.suppressed').textContent = `${removedDb.toFixed(0)} dB`;
        this.#find('.late').textContent = late;
        Object.assign(this.#host.dataset, {
            seconds,
            late,
            removed: report.removedDb,
            suppressed: removedDb,
            verdict: report.verdict,
        });
        const verdict = this.#find('.verdict');
        const text = `${report.text[0].toUpperCase()}${report.text.slice(1)}.${CURES[report.verdict] ?? ''}`;
        if (verdict.textContent !== text) verdict.textContent = text;
        verdict.classList.toggle('problem', report.alarm);
    }

    #record() {
        this.#find('.record').disabled = true;
        this.#say(`Recording ${RECORDED_S} s. Talk!`);
        this.#session.node.port.postMessage({ record: RECORDED_S });
    }

    #compare({ mic, cancelled, suppressed }, { rate }) {
        this.stop('Recorded. Now compare.');
        const tracks = [
            ['Microphone', 'nothing is done to it', mic],
            ['nax_aec', 'the canceller alone', cancelled],
            ['nax_aec and nax_res', 'the canceller and the suppressor', suppressed],
        ].map(([name, note, samples]) => ({ name, note, channels: [samples] }));
        this.#comparison.show({ tracks, duration: mic.length / rate, rate });
    }
}

/** Opens microphone, sound and worklet; what is open already stands in the session when it fails. */
async function open(session, sound) {
    session.stream = await navigator.mediaDevices.getUserMedia({
        audio: { echoCancellation: false, noiseSuppression: false, autoGainControl: false, channelCount: 1 },
    });
    const module = await load();
    for (const rate of RATES) {
        try {
            session.context = new AudioContext({ sampleRate: rate, latencyHint: 'interactive' });
            session.mic = session.context.createMediaStreamSource(session.stream);
            break;
        } catch (error) {
            // not every browser brings the microphone to another rate
            await session.context?.close();
            session.context = null;
            if (rate === RATES.at(-1)) throw error;
        }
    }
    const { context } = session;
    session.rate = context.sampleRate;
    const [samples] = await fetchSound(`sounds/${sound}.flac`, session.rate);
    await context.audioWorklet.addModule('talk_worklet.js');
    await context.resume();
    const buffer = context.createBuffer(1, samples.length, session.rate);
    buffer.copyToChannel(samples, 0);
    session.sound = new AudioBufferSourceNode(context, { buffer, loop: true });
    session.node = new AudioWorkletNode(context, 'nax-aec', {
        numberOfInputs: 2,
        numberOfOutputs: 0,
        channelCount: 1,
        channelCountMode: 'explicit',
        processorOptions: { module },
    });
    session.mic.connect(session.node, 0, 0);
    session.sound.connect(session.node, 0, 1);
    session.sound.connect(context.destination);
    session.sound.start();
}

function close(session) {
    session.stream?.getTracks().forEach(track => track.stop());
    session.node?.port.postMessage({});
    session.context?.close();
    session.stream = session.context = null;
}

async function warningsOf({ stream }) {
    const [track] = stream.getAudioTracks(),
        devices = await navigator.mediaDevices.enumerateDevices();
    const outputs = devices.filter(({ kind, deviceId }) => kind === 'audiooutput' && deviceId === 'default');
    return warnings({ settings: track.getSettings(), names: [track.label, ...outputs.map(({ label }) => label)] });
}
