// The first part: scenes that were computed when the page was made.
import { fetchSound } from './audio.js';
import { Comparison, element } from './comparison.js';

const FIRST_HEARD = 'microphone';

/** What the recogniser understood, beside what was said. */
function understood(said, heard) {
    const right = heard.filter((word, i) => word === said[i].word).length;
    const words = heard.map((word, i) =>
        word === said[i].word
            ? element('span', { class: 'right' }, `✓ ${word}`)
            : element('span', { class: 'wrong' }, `✗ ${word || 'nothing'}`),
    );
    return element(
        'p',
        { class: 'words' },
        `Understood ${right} of ${said.length}: `,
        ...words.flatMap(word => [word, ' ']),
    );
}

function tracksOf(scene, { systems, rate }) {
    return scene.tracks.map(track => {
        const system = systems.find(({ id }) => id === track.system);
        let channels; // loaded when it is first asked for
        const louder = track.gain_db > 0.5 ? `, made ${track.gain_db.toFixed(0)} dB louder` : '';
        return {
            name: system.name,
            note: system.note + louder,
            words: understood(scene.said, track.heard),
            get channels() {
                return (channels ??= fetchSound(`sounds/${track.file}`, rate));
            },
        };
    });
}

export async function startListening(host) {
    const all = await (await fetch('sounds/scenes.json')).json();
    const comparison = new Comparison(host.querySelector('.comparison'));
    const text = host.querySelector('.scene-text');
    const show = scene => {
        text.textContent = `${scene.text} Said: ${scene.said.map(({ word }) => word).join(', ')}.`;
        const times = scene.tracks[1].removed.map((_, i) => (i + 0.5) * all.step_s);
        const lines = scene.tracks.flatMap(({ system, removed }, track) =>
            removed ? [{ name: all.systems.find(({ id }) => id === system).name, values: removed, track }] : [],
        );
        comparison.show({
            tracks: tracksOf(scene, all),
            duration: all.seconds,
            rate: all.rate,
            chosen: scene.tracks.findIndex(({ system }) => system === FIRST_HEARD),
            charts: [{ title: 'Echo removed', unit: 'dB', times, lines }],
        });
    };
    const select = host.querySelector('select');
    select.replaceChildren(...all.scenes.map(({ id, title }) => element('option', { value: id }, title)));
    select.addEventListener('change', () => show(all.scenes.find(({ id }) => id === select.value)));
    show(all.scenes[0]);
}
