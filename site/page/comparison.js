// One sound as several systems leave it: switched between while it plays, with waveform,
// spectrogram and charts.
import uPlot from './lib/uplot.js';
import Spectrogram from './lib/spectrogram.js';
import WaveSurfer from './lib/wavesurfer.js';

import { Player } from './player.js';

const COLOURS = ['#6b6b6b', '#b25e00', '#8a2f9b', '#1668b8', '#0b2f6b', '#1b7a3d'];
const FFT = 512;

/** An element with attributes and children. */
export function element(tag, attributes = {}, ...children) {
    const made = document.createElement(tag);
    for (const [name, value] of Object.entries(attributes)) made.setAttribute(name, value);
    made.append(...children);
    return made;
}

let count = 0; // of comparisons, for the names of their radio buttons

export class Comparison {
    #host;
    #player;
    #surfer;
    #charts = [];
    #sizes;
    #peak;

    constructor(host) {
        this.#host = host;
        this.#sizes = new ResizeObserver(() => this.#charts.forEach(chart => chart.fit()));
    }

    /**
     * Shows sounds in the place of those before.
     *   tracks: [{ name, note, words, channels }], words an element or null, channels Float32Arrays
     *     or a promise of them
     *   duration in s, rate in Hz, chosen: the track to begin with
     *   charts: [{ title, unit, times, lines: [{ name, values, track }] }], times in s
     */
    show({ tracks, duration, rate, chosen = 0, charts = [] }) {
        this.close();
        this.#player = new Player(tracks, duration, rate);
        const button = element('button', { type: 'button', class: 'play' }, 'Play');
        const clock = element('span', { class: 'clock' });
        const place = element('input', { type: 'range', min: 0, max: duration, step: 0.1, 'aria-label': 'Place, s' });
        const picture = element('div', { class: 'picture', 'aria-hidden': 'true' });
        const problem = element('p', { class: 'problem', role: 'alert' });
        this.#host.replaceChildren(
            this.#choice(tracks, chosen),
            element('div', { class: 'transport' }, button, place, clock),
            problem,
            picture,
            ...charts.map(chart => this.#chart(chart)),
        );
        button.addEventListener('click', async () => {
            problem.textContent = '';
            try {
                await this.#player.toggle();
            } catch (error) {
                problem.textContent = `It cannot be played: ${error.message}`;
            }
        });
        place.addEventListener('input', () => {
            this.#player.currentTime = place.valueAsNumber;
        });
        const update = () => {
            place.value = this.#player.currentTime;
            button.textContent = this.#player.paused ? 'Play' : 'Pause';
            clock.textContent = `${this.#player.currentTime.toFixed(1)} of ${duration.toFixed(1)} s`;
        };
        for (const event of ['play', 'pause', 'ended', 'timeupdate']) this.#player.addEventListener(event, update);
        update();
        this.#draw(picture, rate);
        this.#select(tracks, chosen);
    }

    close() {
        this.#sizes.disconnect();
        this.#surfer?.destroy();
        this.#player?.close();
        this.#charts.forEach(chart => chart.plot.destroy());
        this.#charts = [];
        this.#player = this.#surfer = this.#peak = null;
        this.#host.replaceChildren();
    }

    #choice(tracks, chosen) {
        const name = `track${count++}`;
        const rows = tracks.map((track, i) => {
            const radio = element('input', { type: 'radio', name, value: i });
            radio.checked = i === chosen;
            radio.addEventListener('change', () => this.#select(tracks, i));
            const label = element(
                'label',
                {},
                radio,
                element('strong', {}, track.name),
                ' ',
                element('span', { class: 'note' }, track.note ?? ''),
            );
            return element('div', { class: 'track' }, label, ...(track.words ? [track.words] : []));
        });
        return element('fieldset', { class: 'tracks' }, element('legend', {}, 'Switch while it plays'), ...rows);
    }

    async #select(tracks, index) {
        this.#player.select(index);
        const surfer = this.#surfer;
        try {
            const [samples] = await tracks[index].channels;
            this.#peak ??= samples.reduce((most, x) => Math.max(most, Math.abs(x)), 1e-3);
            if (surfer !== this.#surfer || this.#player.selected !== index) return;
            surfer.options.maxPeak = this.#peak; // one scale for all tracks
            await surfer.load('', [samples], this.#player.duration);
        } catch {
            /* said when it is played */
        }
    }

    #draw(picture, rate) {
        this.#surfer = WaveSurfer.create({
            container: picture,
            media: this.#player,
            height: 64,
            waveColor: '#1668b8',
            progressColor: '#0b2f6b',
            normalize: true,
            cursorColor: '#c00000',
            cursorWidth: 2,
            sampleRate: rate,
            plugins: [
                Spectrogram.create({
                    height: 160,
                    fftSamples: FFT,
                    labels: true,
                    labelsBackground: 'rgba(0, 0, 0, 0.5)',
                    frequencyMax: rate / 2,
                    colorMap: 'roseus',
                    gainDB: 25,
                    rangeDB: 70,
                    scale: 'linear',
                }),
            ],
        });
    }

    #chart({ title, unit, times, lines }) {
        const host = element('div', { class: 'chart' });
        const mean = values => values.filter(Number.isFinite).reduce((sum, x, _, all) => sum + x / all.length, 0);
        const figure = element('figure', {}, element('figcaption', {}, `${title}, ${unit}`), host);
        host.setAttribute('role', 'img');
        host.setAttribute(
            'aria-label',
            `${title} over time. Mean: ` +
                lines.map(({ name, values }) => `${name} ${mean(values).toFixed(0)} ${unit}`).join(', '),
        );
        const axis = { font: '13px sans-serif', size: 46 };
        const plot = new uPlot(
            {
                width: 300,
                height: 180,
                legend: { live: false },
                cursor: { show: false },
                scales: { x: { time: false } },
                axes: [{ ...axis, size: 30, values: (_, ticks) => ticks.map(t => `${t} s`) }, axis],
                series: [
                    {},
                    ...lines.map(({ name, track }) => ({
                        label: name,
                        stroke: COLOURS[track],
                        width: 2,
                        points: { show: false },
                    })),
                ],
            },
            [times, ...lines.map(line => line.values)],
            host,
        );
        this.#charts.push({ plot, fit: () => plot.setSize({ width: host.clientWidth || 300, height: 180 }) });
        this.#sizes.observe(host);
        return figure;
    }
}
