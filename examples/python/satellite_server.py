#!/usr/bin/python3
"""Cancels the echo for satellites that send what they play and capture (python3-websockets).

    satellite_server.py PORT [RATE]

Each message is binary: "p" played, "c" captured or "i" interrupted; the time of its first
sample in seconds of the satellite's clock, a double, the high byte first; 16-bit samples of
one channel, the low byte first. "c" is answered by the cleaned samples that are ready.
"""
import asyncio
import struct
import sys

import websockets
from nax_aec import Stream

LATENCY_S = 0.5     # what was played may arrive so much later than what was captured then

async def serve_satellite(socket, rate):
    stream = Stream(rate, latency=LATENCY_S)
    async for message in socket:
        (at,), pcm = struct.unpack(">d", message[1:9]), message[9:]
        if message[:1] == b"p":
            stream.played(pcm, at)
        elif message[:1] == b"i":
            stream.interrupt(at)
        else:
            await socket.send(stream.captured(pcm, at))
    print(stream.counts, flush=True)


async def main(port, rate=16000):
    async with websockets.serve(lambda socket: serve_satellite(socket, int(rate)), "", int(port)):
        print("listening", flush=True)
        await asyncio.Future()


if __name__ == "__main__":
    asyncio.run(main(*sys.argv[1:]))
