"""Runs the blocks of docs/voice-assistants.md as they stand, with devices of the tests' own.

A comment above a block says where it belongs and what is done with it: "file" adds it to a file,
"run" gives it to a shell or to Python, "start" to a shell that is not waited for, "shows" compares
it with what was printed last, in which the numbers may be others.
"""
import contextlib
import io
import os
import re
import shutil
import subprocess
import sys

import numpy as np

import pipewire
import pulseaudio
import server
import sound

RATE = 16000        # of the cards
BLOCK = re.compile(r"<!-- ([^:]*): (.*?) -->\n```\w*\n(.*?)```", re.S)
ARRAY_MICS = 4


def make_cards(home, paced="yes"):
    """hw:0 captures a microphone and what it plays, hw:1 four microphones and two such channels."""
    rng, samples, late = np.random.default_rng(3), 30 * RATE, 800
    played = rng.normal(0, 3000, (samples, 2)) * np.repeat(rng.uniform(0.2, 1, samples // 800), 800)[:, None]
    mics = rng.normal(0, 30, (samples, ARRAY_MICS))
    mics[late:] += (played[:-late] @ [0.3, 0.2])[:, None]
    card0 = np.c_[mics[:, 0], 0.5 * played @ [1.2, 0.8]]
    conf = f'</usr/share/alsa/alsa.conf>\npcm_type.nax_aec.lib "{sound.BUILD}/plugins/libasound_module_pcm_nax_aec.so"\n'
    conf += f'pcm_type.nax_test_source.lib "{sound.BUILD}/tests/plugins/libnax_test_source.so"\n'
    for card, channels in enumerate((card0, np.c_[mics, played])):
        np.clip(np.rint(channels), -32768, 32767).astype(np.int16).tofile(home / f"card{card}.raw")
        conf += (f'pcm.card{card} {{ type nax_test_source file "{home}/card{card}.raw" '
                 f"channels {channels.shape[1]} rate {RATE} paced {paced} }}\n")
    conf += """pcm.!hw { @args [ CARD DEV ]
        @args.CARD { type string default "0" }
        @args.DEV { type integer default 0 }
        @func refer name { @func concat strings [ "pcm.card" $CARD ] } }\n"""
    (home / "asound.conf").write_text(conf)


def matches(shown, printed):
    """Whether the shown lines are among the printed ones, in their order, whatever the numbers."""
    rest = iter(printed.splitlines())
    for line in filter(None, map(str.strip, shown.splitlines())):
        pattern = re.sub(r"(\\[-+])?\d+(\\\.\d+)?", r"[-+]?[\\d.]+", re.sub(r"(\\ )+", r"\\s+", re.escape(line)))
        if not any(re.fullmatch(r"\s*" + pattern + r"\s*", other) for other in rest):
            return False
    return True


def run_blocks(place, blocks, it):
    """The blocks of a place in their order, in the environment of a server; whether all were right."""
    printed, right = "", True
    for action, text in blocks:
        if action.startswith("file"):
            path = it.home / action.split("~/")[1]
            path.write_text((path.read_text() if path.exists() else "") + text)
        elif action == "start":
            it.start("sh", "-c", f"exec {text}")
        elif action == "run":
            done = subprocess.run(["timeout", "60", "sh", "-ec", text], env=it.env, cwd=it.home, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
            printed, right = done.stdout, right and done.returncode == 0
            print(f"page, {place}: {text.splitlines()[0]}: {printed if done.returncode else 'runs'}")
        else:
            shown = matches(text, printed)
            right &= shown
            if not shown:
                print(f"page, {place}: not printed as shown:\n{text}but:\n{printed}")
    return right


def alsa(blocks, folder):
    home = folder / "alsa"
    home.mkdir()
    make_cards(home, "no")
    env = os.environ | {"HOME": str(home), "ALSA_CONFIG_PATH": str(home / "asound.conf"),
                        "PATH": f"{sound.BUILD}/tools:{os.environ['PATH']}"}
    return run_blocks("ALSA", blocks["alsa"], server.Server(home, env, 1, []))


def of_pulseaudio(blocks, folder):
    stanza = next(text for action, text in blocks["alsa"] if action.startswith("file"))
    with pulseaudio.server_with(folder, make_cards) as it:
        (it.home / ".asoundrc").write_text(stanza)
        return run_blocks("PulseAudio", blocks["pulseaudio"], it)


def of_pipewire(blocks, folder):
    later = server.version() >= pipewire.STREAMS_MAY_DIFFER
    with server.server(folder, 1, 1024) as it:
        it.start("pipewire-pulse", "-c", it.home / "conf/pulse.conf")
        own = it.home / ".config/pipewire"
        own.mkdir(parents=True)
        shutil.copy(sound.BUILD / "plugins/nax-aec.conf", own)
        start, rest = blocks["pipewire"][:1], blocks["pipewire"][1:]
        run_blocks("PipeWire", start, it)
        it.wait_for_ports("nax_aec.microphone:capture_" + ("MONO" if later else "FL"))
        server.play_and_record(it, "nax_aec.microphone", "speaker" if later else "nax_aec.loudspeaker",
                               1 if later else 2)
        right = run_blocks("PipeWire", rest, it)
        right &= run_blocks("PipeWire", blocks["pipewire 1" if later else "pipewire 0.3"], it)
        it.wait_for_ports("echo-cancel-source:capture_FL")
        return server.check("page, PipeWire, the canceller of pactl", it.log(), ["Using plugin AEC nax"]) and right


def of_python(blocks, folder):
    """The blocks in one process; between them their callbacks get ten seconds of sound."""
    sys.path.insert(0, str(sound.ROOT / "python"))
    os.environ.setdefault("NAX_AEC_LIBRARY", str(sound.BUILD / "libnax_aec.so"))
    make_cards(folder)
    mic, played = np.fromfile(folder / "card0.raw", "<i2").reshape(-1, 2)[: 10 * RATE].T
    names, printed, right = {}, io.StringIO(), True
    for action, text in blocks["python"]:
        if action == "shows":
            shown = matches(text, printed.getvalue())
            right &= shown
            print(f"page, Python: {'as shown' if shown else printed.getvalue()}")
            continue
        with contextlib.redirect_stdout(printed):
            exec(compile(text, "docs/voice-assistants.md", "exec"), names)
        for at in range(0, len(mic), RATE // 50) if "def" in text else ():
            piece = slice(at, at + RATE // 50)
            when = [at / RATE] if "at):" in text else []
            names.get("on_play_begins", names["on_playback"])(played[piece].tobytes(), *when)
            names.get("on_audio", names["on_capture"])(mic[piece].tobytes(), *when)
    counts = names["stream"].counts
    return right and counts.delay > 0 and counts.late == counts.silent == 0


def run(folder):
    text = (sound.ROOT / "docs/voice-assistants.md").read_text()
    blocks = {}
    for place, action, block in BLOCK.findall(text):
        blocks.setdefault(place, []).append((action, block))
    results = [text.count("```") == 2 * sum(map(len, blocks.values()))]
    if not results[0]:
        print("page: a block without a word on what is done with it")
    known = {answer for answers in pipewire.MISTAKES.values() for answer in answers}
    if server.version() >= pipewire.STREAMS_MAY_DIFFER:
        known.add("aec.method is not supported anymore use library.name")
    for row in re.findall(r"^\| `(.*?)`", text, re.M):
        if row not in known:
            print(f"page: no mistake that is made here is answered by: {row}")
            results.append(False)
    wanted = {alsa: ["arecord"], of_pulseaudio: ["pulseaudio", "pactl"], of_pipewire: server.PROGRAMS, of_python: []}
    for part, programs in wanted.items():
        if not sound.skipped("page", [sound.BUILD / "tests/plugins/libnax_test_source.so"], programs):
            results.append(part(blocks, folder))
    return all(results)
