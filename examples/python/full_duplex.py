#!/usr/bin/python3
"""Plays a WAV file while it records, and cancels the echo, by PyAudio (python3-pyaudio).

    full_duplex.py SOUND.wav CLEANED.wav [SPEAKER [MICROPHONE]]

The file holds 16 bits and one channel, at a rate that the devices take; these are named as
PyAudio lists them.
"""
import sys
import wave

import pyaudio
from nax_aec import Stream


def device(audio, name):
    devices = map(audio.get_device_info_by_index, range(audio.get_device_count()))
    return next(d["index"] for d in devices if d["name"].startswith(name)) if name else None


def main(sound_path, cleaned_path, speaker=None, microphone=None):
    audio = pyaudio.PyAudio()
    with wave.open(sound_path) as sound, wave.open(cleaned_path, "wb") as cleaned:
        rate, period = sound.getframerate(), sound.getframerate() // 50
        cleaned.setparams(sound.getparams())
        both = audio.open(rate, 1, pyaudio.paInt16, input=True, output=True, frames_per_buffer=period,
                          output_device_index=device(audio, speaker),
                          input_device_index=device(audio, microphone))
        stream = Stream(rate)
        while piece := sound.readframes(period):
            stream.played(piece)        # before it is heard
            both.write(piece)
            cleaned.writeframes(stream.captured(both.read(period, exception_on_overflow=False)))
        cleaned.writeframes(stream.finish())


if __name__ == "__main__":
    main(*sys.argv[1:])
