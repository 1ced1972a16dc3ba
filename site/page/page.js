import { startListening } from './listen.js';
import { Recording } from './recording.js';
import { Talk } from './talk.js';

startListening(document.querySelector('#listen')).catch(error => {
    document.querySelector('#listen .scene-text').textContent = `The scenes cannot be loaded: ${error.message}`;
});
new Recording(document.querySelector('#recording'));
new Talk(document.querySelector('#talk'));
