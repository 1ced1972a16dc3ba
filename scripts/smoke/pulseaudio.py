"""PulseAudio itself: it has no place for other cancellers, the ALSA plugin is its source."""
import contextlib
import os
import pathlib
import subprocess
import tempfile

import numpy as np

import server
import sound

PLUGIN = sound.BUILD / "plugins/libasound_module_pcm_nax_aec.so"
SOURCE = sound.BUILD / "tests/plugins/libnax_test_source.so"
LOAD = "load-module module-alsa-source device=cleaned source_name=cleaned rate=48000 channels=2 tsched=0 mmap=0"
REFUSED = "load-module module-echo-cancel source_master=other.monitor sink_master=speaker aec_method=nax"


@contextlib.contextmanager
def server_with(folder, make_cards):
    """A server with two null sinks and the ALSA devices that make_cards(home) describes."""
    home = pathlib.Path(tempfile.mkdtemp(dir=folder))
    make_cards(home)
    it = server.Server(home, os.environ | {"HOME": str(home), "XDG_RUNTIME_DIR": str(home),
                                           "ALSA_CONFIG_PATH": str(home / "asound.conf")}, 2, [])
    it.start("pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disable-shm=1",
             "-L", "module-native-protocol-unix", "-L", "module-null-sink sink_name=speaker",
             "-L", "module-null-sink sink_name=other")
    try:
        server.wait_for(lambda: "Server Name: pulseaudio" in it.ask("pactl", "info"))
        yield it
    finally:
        for process in it.processes:
            server.stop(process)


def make_card(home):
    np.hstack([sound.MICS, sound.PLAYED]).tofile(home / "all.raw")
    (home / "asound.conf").write_text(f"""
        </usr/share/alsa/alsa.conf>
        pcm_type.nax_aec.lib "{PLUGIN}"
        pcm_type.nax_test_source.lib "{SOURCE}"
        pcm.board {{
            type nax_test_source file "{home}/all.raw" channels 4 rate {sound.RATE} paced yes }}
        pcm.cleaned {{ type nax_aec slave.pcm board mics 2 refs 2 }}""")


def run(folder):
    if sound.skipped("PulseAudio", [PLUGIN, SOURCE], ["pulseaudio", "pactl", "parec"]):
        return True
    with server_with(folder, make_card) as it:
        said = it.ask("pactl", *REFUSED.split())
        refused = server.check(f"PulseAudio, pactl {REFUSED}", said + it.log(),
                               ["Failure: Module initialization failed", "Invalid echo canceller implementation"])
        it.ask("pactl", *LOAD.split())
        with open(it.home / "out.raw", "wb") as out:
            subprocess.run(["timeout", str(sound.SECONDS), "parec", "-d", "cleaned", "--format=s16le",
                            f"--rate={sound.RATE}", "--channels=2"], env=it.env, stdout=out)
        out = np.fromfile(it.home / "out.raw", np.int16)
    return sound.judge("PulseAudio, source of the ALSA plugin", out[: len(out) // 2 * 2].reshape(-1, 2)) and refused
