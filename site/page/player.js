// Plays one of several tracks of the same length and switches between them while it plays.
// wavesurfer.js takes a Player for a media element, so it has the names of one.

const FADE_S = 0.01;

let playing; // the one Player of the page that is heard

export class Player extends EventTarget {
    volume = 1;
    muted = false;
    playbackRate = 1;
    seeking = false;
    paused = true;
    src = '';
    #context;
    #started = 0;
    #at = 0;
    #turn = 0;

    /** tracks: objects with channels, Float32Arrays or a promise of them; duration in s; rate in Hz. */
    constructor(tracks, duration, rate) {
        super();
        this.duration = duration;
        this.rate = rate;
        this.selected = 0;
        this.tracks = tracks.map(sound => ({ sound }));
    }

    get currentTime() {
        if (this.paused) return this.#at;
        return Math.max(0, Math.min(this.duration, this.#at + this.#context.currentTime - this.#started));
    }

    set currentTime(seconds) {
        const again = !this.paused;
        this.#stop();
        this.#at = Math.max(0, Math.min(this.duration, seconds));
        this.#tell('seeking', 'timeupdate', 'seeked');
        if (again) this.play();
    }

    /** Track number index is heard from now on. */
    select(index) {
        this.selected = index;
        for (const [i, { gain }] of this.tracks.entries())
            gain?.gain.setTargetAtTime(i === index ? 1 : 0, this.#context.currentTime, FADE_S);
    }

    async play() {
        if (playing !== this) playing?.pause();
        playing = this;
        const turn = ++this.#turn;
        this.#context ??= makeContext(this.rate);
        if (this.currentTime >= this.duration) this.#at = 0;
        const [channels] = await Promise.all([this.tracks[this.selected].sound.channels, this.#context.resume()]);
        if (turn !== this.#turn) return; // paused or started anew meanwhile
        this.#start(this.tracks[this.selected], channels, turn);
        this.#started = this.#context.currentTime;
        this.paused = false;
        this.#tell('play', 'playing');
        for (const track of this.tracks) {
            if (track.source) continue;
            Promise.resolve(track.sound.channels).then(
                late => turn === this.#turn && this.#start(track, late, turn),
                () => {},
            );
        }
        this.#watch(turn);
    }

    pause() {
        const at = this.currentTime;
        this.#stop();
        this.#at = at;
        this.#tell('pause');
    }

    toggle() {
        return this.paused ? this.play() : this.pause();
    }

    // One track from the present place on, silent unless it is the selected one.
    #start(track, channels, turn) {
        const buffer = this.#context.createBuffer(channels.length, channels[0].length, this.rate);
        channels.forEach((samples, c) => buffer.copyToChannel(samples, c));
        track.source = new AudioBufferSourceNode(this.#context, { buffer });
        track.gain = new GainNode(this.#context, { gain: track === this.tracks[this.selected] ? 1 : 0 });
        track.source.connect(track.gain).connect(this.#context.destination);
        track.source.start(0, this.currentTime);
    }

    #stop() {
        this.#turn++;
        this.paused = true;
        for (const track of this.tracks) {
            track.source?.stop();
            track.gain?.disconnect();
            track.source = track.gain = null;
        }
    }

    // Moves the cursor, and ends at the end.
    #watch(turn) {
        if (turn !== this.#turn) return;
        this.#tell('timeupdate');
        if (this.currentTime < this.duration) return setTimeout(() => this.#watch(turn), 30);
        this.#stop();
        this.#at = this.duration;
        this.#tell('ended', 'pause');
    }

    #tell(...events) {
        for (const event of events) this.dispatchEvent(new Event(event));
    }

    // What else wavesurfer.js calls of a media element.
    load() {}
    remove() {
        this.close();
    }
    removeAttribute() {}
    canPlayType() {
        return '';
    }

    close() {
        this.#stop();
        this.#context?.close();
        this.#context = null;
    }
}

function makeContext(rate) {
    try {
        return new AudioContext({ sampleRate: rate, latencyHint: 'interactive' });
    } catch {
        return new AudioContext(); // it converts the rate when it plays, less well
    }
}
