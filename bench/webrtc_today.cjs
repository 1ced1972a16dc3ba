// The echo canceller of today's WebRTC over whole recordings, for comparison by
// bench/quality and bench/barge_in: `node webrtc_today.cjs JOB.json`, where the job names
// raw int16 files (mic, ref, cleaned, interleaved), rate in Hz, mics, refs, and whether the
// canceller is on. Prints the processor time taken in s; off, that of the calls alone.
//
// Noise suppression, gain control and high-pass filter are off. The canceller's own
// suppressor cannot be switched off. It finds the delay by itself.
const fs = require('fs');
const {
    FfiRequest, FfiResponse, livekitFfiRequest, livekitInitialize, livekitRetrievePtr,
} = require('@livekit/rtc-ffi-bindings');

function request(name, value) {
    const bytes = new FfiRequest({ message: { case: name, value } }).toBinary();
    const answer = FfiResponse.fromBinary(livekitFfiRequest(bytes)).message.value;
    if (answer.error) throw new Error(answer.error);
    return answer;
}

const job = JSON.parse(fs.readFileSync(process.argv[2]));
const mic = fs.readFileSync(job.mic), ref = fs.readFileSync(job.ref);
livekitInitialize(() => {}, false, 'bench');
const { apm } = request('newApm', {
    echoCancellerEnabled: job.on, gainControllerEnabled: false,
    highPassFilterEnabled: false, noiseSuppressionEnabled: false,
});

// A chunk of 10 ms and the request that has it processed in place.
function stream(channels) {
    const chunk = Buffer.alloc(job.rate / 100 * 2 * channels);
    return [chunk, {
        apmHandle: apm.handle.id, dataPtr: livekitRetrievePtr(chunk), size: chunk.length,
        sampleRate: job.rate, numChannels: channels,
    }];
}

const [near, capture] = stream(job.mics), [far, render] = stream(job.refs);
const cleaned = Buffer.from(mic); // what is left over after the last whole chunk stays as it is
const begun = process.cpuUsage();
for (let i = 0; (i + 1) * near.length <= mic.length; i++) {
    ref.copy(far, 0, i * far.length);
    mic.copy(near, 0, i * near.length);
    request('apmProcessReverseStream', render);
    request('apmProcessStream', capture);
    near.copy(cleaned, i * near.length);
}
const used = process.cpuUsage(begun);
fs.writeFileSync(job.cleaned, cleaned);
console.log((used.user + used.system) / 1e6);
process.exit(0); // its threads would wait for ever
