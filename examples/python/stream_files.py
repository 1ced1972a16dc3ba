#!/usr/bin/python3
"""Cancels the echo of two WAV files that arrive in pieces of odd lengths, as from a network.

    stream_files.py MIC.wav REF.wav CLEANED.wav

The files hold 16 bits and one channel each, at any two rates.
"""
import random
import sys
import wave

from nax_aec import Stream


def odd_pieces(file):
    while piece := file.readframes(random.randint(1, 2000)):
        yield piece


def main(mic_path, ref_path, cleaned_path):
    with wave.open(mic_path) as mic, wave.open(ref_path) as ref, \
            wave.open(cleaned_path, "wb") as cleaned:
        cleaned.setparams(mic.getparams())
        stream = Stream(mic.getframerate(), reference_rate=ref.getframerate())
        played_s = captured_s = 0.0
        reference = odd_pieces(ref)
        for piece in odd_pieces(mic):
            captured_s += len(piece) / 2 / mic.getframerate()
            while played_s < captured_s:    # a reference comes before its echo
                sound = next(reference, b"")
                played_s = played_s + len(sound) / 2 / ref.getframerate() if sound else captured_s
                stream.played(sound)
            cleaned.writeframes(stream.captured(piece))
        cleaned.writeframes(stream.finish())
        print(stream.counts)


if __name__ == "__main__":
    main(*sys.argv[1:])
