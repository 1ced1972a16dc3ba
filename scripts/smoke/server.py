"""A PipeWire daemon and a session manager of the tests' own, with null devices: a loudspeaker
"speaker" and a microphone "micfeed" that hears what the tests play into it."""
import contextlib
import dataclasses
import os
import pathlib
import shutil
import signal
import subprocess
import tempfile
import time

import numpy as np

import sound

CONF = """
context.properties = {
    core.daemon = true
    core.name = pipewire-0
    support.dbus = false
    default.clock.rate = 48000
    default.clock.quantum = 1024
    default.clock.min-quantum = MIN_QUANTUM
    default.clock.max-quantum = MAX_QUANTUM
}
context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert
                     support.* = support/libspa-support }
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-spa-node-factory }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-client-device }
    { name = libpipewire-module-access }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-link-factory }
    { name = libpipewire-module-session-manager }
]
context.objects = [
    { factory = adapter args = { factory.name = support.null-audio-sink node.name = speaker
        media.class = Audio/Sink audio.position = "FL,FR" object.linger = true } }
    { factory = adapter args = { factory.name = support.null-audio-sink node.name = micfeed
        media.class = Audio/Source/Virtual audio.position = "MICS" object.linger = true } }
]
"""

PULSE_CONF = """
context.properties = { support.dbus = false log.level = 3 }
context.spa-libs = { audio.convert.* = audioconvert/libspa-audioconvert
                     support.* = support/libspa-support }
context.modules = [
    { name = libpipewire-module-protocol-native }
    { name = libpipewire-module-client-node }
    { name = libpipewire-module-adapter }
    { name = libpipewire-module-metadata }
    { name = libpipewire-module-protocol-pulse }
]
pulse.properties = { server.address = [ "unix:native" ] }
"""

# The session manager chooses default devices: as a whole with a message bus, or by the profile
# for it that later versions have.
SESSION_MANAGER = ["dbus-run-session", "--", "wireplumber"]
if not pathlib.Path("/usr/share/wireplumber/main.lua.d").exists():
    SESSION_MANAGER = ["wireplumber", "-p", "policy"]
PROGRAMS = ["pipewire", "pipewire-pulse", SESSION_MANAGER[0], "pw-cat", "pw-cli", "pw-dump", "pw-link", "pactl"]

# What a desktop's sound server has, where it is permitted here.
REAL_TIME = ["chrt", "--fifo", "20"]
if subprocess.run([*REAL_TIME, "true"], stderr=subprocess.DEVNULL).returncode != 0:
    REAL_TIME = []


def version():
    said = subprocess.run(["pipewire", "--version"], capture_output=True, text=True).stdout
    return tuple(int(part) for part in said.split("libpipewire ")[-1].split()[0].split("."))


def wait_for(condition, seconds=30):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise TimeoutError
        time.sleep(0.05)


def stop(process):
    process.send_signal(signal.SIGINT)
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        process.kill()
        process.wait()


@dataclasses.dataclass
class Server:
    home: pathlib.Path
    env: dict
    mics: int
    processes: list

    def start(self, *command):
        with open(self.home / "log", "a") as log:
            self.processes.append(subprocess.Popen([*REAL_TIME, *command], env=self.env, cwd=self.home,
                                                   stdout=log, stderr=log))
        return self.processes[-1]

    def ask(self, *command):
        """The output of a program, its errors among it."""
        return subprocess.run(["timeout", "3", *command], env=self.env, cwd=self.home, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout

    def log(self):
        return (self.home / "log").read_text()

    def answers(self):
        return subprocess.run(["timeout", "1", "pw-cli", "info", "0"], env=self.env,
                              capture_output=True).returncode == 0

    def wait_for_ports(self, *ports):
        wait_for(lambda: all(port in self.ask("pw-link", "-io").split() for port in ports))


@contextlib.contextmanager
def server(folder, mics=2, quantum=None, manager=True, **fragments):
    """A server at a quantum (by default 32 to 2048), in a folder of its own in that one. Its
    configuration gets the fragments, file names without .conf and texts; nax-aec.conf is beside it."""
    home = pathlib.Path(tempfile.mkdtemp(dir=folder))   # a name for 108 bytes with the socket's
    (home / "spa/aec").mkdir(parents=True)
    (home / "spa/aec/libspa-aec-nax.so").symlink_to(sound.BUILD / "plugins/libspa-aec-nax.so")
    conf = home / "conf"
    (conf / "pipewire.conf.d").mkdir(parents=True)
    text = CONF.replace("MICS", "FL,FR" if mics == 2 else "MONO")
    text = text.replace("MIN_QUANTUM", str(quantum or 32)).replace("MAX_QUANTUM", str(quantum or 2048))
    (conf / "pipewire.conf").write_text(text)
    (conf / "pulse.conf").write_text(PULSE_CONF)
    shutil.copy(sound.BUILD / "plugins/nax-aec.conf", conf)
    for name, fragment in fragments.items():
        (conf / f"pipewire.conf.d/{name}.conf").write_text(fragment)
    system = next(pathlib.Path("/usr/lib").glob("*/spa-0.2"))
    env = os.environ | {"HOME": str(home), "XDG_RUNTIME_DIR": str(home), "SPA_PLUGIN_DIR": f"{home}/spa:{system}"}
    it = Server(home, env, mics, [])
    try:
        # Only the daemon and what it starts look for configurations here.
        it.start("env", f"PIPEWIRE_CONFIG_DIR={conf}", "pipewire", "-c", "pipewire.conf")
        wait_for(lambda: it.processes[0].poll() is not None or it.answers())
        if manager:
            it.start(*SESSION_MANAGER)
            it.wait_for_ports("speaker:playback_FL", "micfeed:input_" + ("FL" if mics == 2 else "MONO"))
        yield it
    except (TimeoutError, subprocess.TimeoutExpired):
        print(f"PipeWire: did not start\n{it.log()}")
        raise
    finally:
        for process in reversed(it.processes):
            stop(process)


def play_and_record(it, source, sink, channels=None):
    """Plays the echo into the microphone and what it is the echo of into the sink, in one stream, and
    returns what the source gives from the first sound to the last (n x channels)."""
    channels = channels or it.mics
    sound.write_wav(it.home / "all.wav", np.hstack([sound.MICS[:, : it.mics], sound.PLAYED]))
    recorder = it.start("pw-cat", "-r", "--target", source, "--format", "s16", "--channels", str(channels),
                        "--rate", str(sound.RATE), "out.wav")
    it.wait_for_ports("pw-cat:input_" + ("FL" if channels == 2 else "MONO"))
    player = it.start("pw-cat", "-p", "--target", "0", "-P", "{ node.name = player }", "all.wav")
    wait_for(lambda: it.ask("pw-link", "-o").count("player:") >= it.mics + 2)
    ports = [line for line in it.ask("pw-link", "-o").split() if line.startswith("player:")]
    heard = ["micfeed:input_" + place for place in (["FL", "FR"] if it.mics == 2 else ["MONO"])]
    for port, to in zip(ports, [*heard, f"{sink}:playback_FL", f"{sink}:playback_FR"]):
        it.ask("pw-link", port, to)
    player.wait(sound.SECONDS + 10)
    stop(recorder)
    out = sound.read_wav(it.home / "out.wav")
    loud = np.flatnonzero(np.abs(out[:, 0]) > 100)
    return out[loud[0] : loud[-1]] if len(loud) else out[:0]


def check(name, found, wanted):
    """Prints and returns whether what is wanted was found in a text."""
    missing = [text for text in wanted if text not in found]
    print(f"{name}: {'as documented' if not missing else f'{missing} is not in: {found}'}")
    return not missing
