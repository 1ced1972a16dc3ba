"""The PipeWire plugin in a server: from its configuration, in a process beside it, by pactl."""
import json
import os
import pathlib
import signal
import time

import server
import sound

STANZA = """
context.modules = [
    { name = libpipewire-module-echo-cancel
      args = {
          library.name = LIBRARY
          aec.args = ARGUMENTS
          capture.props = { node.name = ec_capture target.object = micfeed
                            node.lock-quantum = true audio.position = [ MICS ] }
          source.props = { node.name = ec_source audio.position = [ MICS ] }
          sink.props = { node.name = ec_sink }
          playback.props = { node.name = ec_playback target.object = speaker }
      }
      flags = [ nofail ] }
]
"""
PLUGIN = "aec/libspa-aec-nax"
STREAMS_MAY_DIFFER = (0, 3, 69)  # in their channels, from this version on; aec_method is heeded


def stanza(library=PLUGIN, arguments="{ delay = 768 }", mics=2):
    text = STANZA.replace("LIBRARY", library).replace("ARGUMENTS", arguments)
    return text.replace("MICS", "FL,FR" if mics == 2 else "MONO")


def told(it):
    """The parameters that the running module tells; empty where its version tells none."""
    # They are told when the streams connect and whenever a parameter is set.
    it.ask("pw-cli", "set-param", "ec_capture", "Props", '{ "params": [ "nax.applied-delay", 0 ] }')
    for node in json.loads(it.ask("pw-dump")):
        info = node.get("info") or {}
        if (info.get("props") or {}).get("node.name") == "ec_capture":
            for props in info["params"].get("Props", []):
                params = props.get("params", [])
                if "nax.applied-delay" in params:
                    return dict(zip(params[::2], params[1::2]))
    return {}


def in_the_server(folder, quantum, mics=2, library=PLUGIN):
    """With so many microphones and two references. Without a quantum given another player asks for
    a small one and leaves soon after the start."""
    name = f"PipeWire, {library}, {mics} x 2, quantum {quantum or 'asked for by others'}"
    arguments = "{ delay = 768 }" if library == PLUGIN else "{}"
    with server.server(folder, mics, quantum, aec=stanza(library, arguments, mics)) as it:
        it.wait_for_ports("ec_sink:playback_FL")
        if not quantum:
            sound.write_wav(it.home / "played.wav", sound.PLAYED)
            it.start("timeout", "3", "pw-cat", "-p", "--latency", "256/48000", "--target", "speaker", "played.wav")
            time.sleep(1)
        out = server.play_and_record(it, "ec_source", "ec_sink")
        tells, banners = told(it), it.log().count("nax_aec_state_init")
    delay, status = (tells.get(f"nax.{which}") for which in ("applied-delay", "status"))
    print(f"{name}: {banners} banner lines, applied delay {delay}, status {status}")
    return sound.judge(name, out, mics) and (library != PLUGIN or status == "cancelling")


def wrong_setting(folder):
    """Whether the server answers without the module and its log names the setting."""
    with server.server(folder, manager=False, aec=stanza(arguments="{ delay = far }")) as it:
        name = f"PipeWire, a wrong setting, server {'running' if it.answers() else 'stopped'}"
        return server.check(name, it.log(), ["aec.args: delay: 'far'"]) and it.answers()


def past_the_sink(folder):
    """Whether the status says so when what is heard is played to another sink."""
    with server.server(folder, 2, 1024, aec=stanza()) as it:
        it.wait_for_ports("ec_sink:playback_FL")
        server.play_and_record(it, "ec_source", "another")
        status = told(it).get("nax.status")
    return server.check("PipeWire, played past the sink", str(status), ["no-reference"])


def end_beside(it):
    """Kills the cancellers that the server started, which are no children of its any more; returns
    how many."""
    ended = 0
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            ours = os.readlink(process / "cwd") == str(it.home) and b"nax-aec.conf" in (process / "cmdline").read_bytes()
        except OSError:     # it has ended, or is none of ours to look at
            continue
        if ours:
            os.kill(int(process.name), signal.SIGKILL)
            ended += 1
    return ended


def beside_the_server(folder):
    """The canceller of nax-aec.conf, which the server starts; its end leaves the server."""
    later = server.version() >= STREAMS_MAY_DIFFER
    sink = "speaker" if later else "nax_aec.loudspeaker"
    fragment = (sound.ROOT / "plugins/pipewire/50-nax-aec.conf").read_text()
    with server.server(folder, 1, 1024, nax_aec=fragment) as it:
        it.wait_for_ports("nax_aec.microphone:capture_" + ("MONO" if later else "FL"), f"{sink}:playback_FL")
        chosen = it.ask("pw-metadata", "-n", "default", "0")
        out = server.play_and_record(it, "nax_aec.microphone", sink, 1 if later else 2)
        alive = end_beside(it) == 1 and it.answers()
    name = f"PipeWire, nax-aec.conf{', monitor.mode' if later else ''}"
    print(f"{name}: the server {'runs' if alive else 'stopped'} when it is gone")
    chosen = server.check(f"{name}, default devices", chosen, ['"nax_aec.microphone"', f'"{sink}"'])
    return sound.judge(name, out, 1) and chosen and alive


# What is typed for pipewire-pulse. The earlier one heeds no aec_method; it puts aec_args between
# quotation marks without looking into them.
LOAD = "load-module module-echo-cancel source_master=micfeed sink_master=speaker"
if server.version() >= STREAMS_MAY_DIFFER:
    BY_PACTL = LOAD + """ aec_method=nax aec_args="delay=768\""""
    WRONG_METHOD = {" aec_method=nix": ["aec plugin audio.aec not available library.name aec/libspa-aec-nix"]}
else:
    BY_PACTL = LOAD + """ aec_args='delay=768" library.name="aec/libspa-aec-nax'"""
    WRONG_METHOD = {" aec_method=nax": ["aec.method is not supported anymore use library.name",
                                        "Using plugin AEC webrtc"]}
MISTAKES = {LOAD + method: answers for method, answers in WRONG_METHOD.items()} | {
    BY_PACTL.replace("nax", "nix"): ["aec plugin audio.aec not available library.name aec/libspa-aec-nix"],
    BY_PACTL.replace("768", "far"): ["nax_aec: aec.args: delay: 'far' is not a number of samples from 0 to 12288",
                                     "aec plugin nax create failed: Invalid argument"],
    BY_PACTL + " channels=4": ["nax_aec: 4 captured and 4 played channels: 1 or 2 and 1 to 30"],
}


def by_pactl(folder):
    """What is documented for pactl, and what the log says of mistakes."""
    with server.server(folder, 2, 1024) as it:
        it.start("pipewire-pulse", "-c", it.home / "conf/pulse.conf")
        server.wait_for(lambda: "Server Name" in it.ask("pactl", "info"))
        told = True
        for mistake, answers in MISTAKES.items():
            said = it.ask("pactl", *mistake.split())
            time.sleep(0.3)
            told &= server.check(f"PipeWire, pactl {mistake}", said + it.log(), answers)
            it.ask("pactl", "unload-module", "module-echo-cancel")
        it.ask("pactl", *BY_PACTL.split())
        it.wait_for_ports("echo-cancel-sink:playback_FL", "echo-cancel-source:capture_FL")
        loaded = server.check("PipeWire, pactl, the canceller", it.log(), ["Using plugin AEC nax"])
        out = server.play_and_record(it, "echo-cancel-source", "echo-cancel-sink")
    return sound.judge("PipeWire, pactl", out) and loaded and told


def patiently(check, folder, *arguments):
    """A busy machine loses quanta by itself, not three times running."""
    return any(check(folder, *arguments) for _ in range(3))


def run(folder):
    if sound.skipped("PipeWire", [sound.BUILD / "plugins/libspa-aec-nax.so"], server.PROGRAMS):
        return True
    results = [wrong_setting(folder), past_the_sink(folder)]
    results += [patiently(beside_the_server, folder), patiently(by_pactl, folder)]
    results += [patiently(in_the_server, folder, quantum) for quantum in (1024, 256, None)]
    if server.version() >= STREAMS_MAY_DIFFER:
        results.append(patiently(in_the_server, folder, 1024, 1))
    if not all(results):
        print("PipeWire: its own, which cancels nothing, in the plugin's place, loses here:")
        in_the_server(folder, 256, library="aec/libspa-aec-null")
    return all(results)
