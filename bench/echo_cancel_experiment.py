#!/usr/bin/env python3
"""Can the sound server's echo canceller tell the user's voice from Kelo's own?

A private PulseAudio daemon gets virtual devices only: a null sink where Kelo's voice plays, a pipe
source standing in for the microphone (it carries Kelo's voice as it would come back from the
speakers, attenuated and late, plus - in half of the trials - a Romanian phrase said by someone
else), and module-echo-cancel between them. The echo-cancelled source is recorded and its level
compared: echo only vs echo with speech. A voice interruption is workable when the speech stands
clearly above what is left of the echo in every trial.

Usage: bench/echo_cancel_experiment.py [--trials N] [--method webrtc|speex]
Needs pulseaudio, pactl, paplay, parec and espeak-ng; touches no running sound server.
"""
import argparse
import array
import math
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import wave

RATE = 16000
WINDOW = RATE // 10  # 100 ms
KELO_TEXT = ("Mâine la București va fi senin dimineața, cu temperaturi în jur de douăzeci și două de grade, "
             "iar după-amiază cerul se va înnora treptat și sunt posibile averse scurte.")
USER_TEXT = "Stai puțin, oprește-te te rog."
ECHO_GAIN = 0.5  # speakers to microphone
ECHO_DELAY_MS = 120  # the sound's way out and back in, plus the devices' buffers
USER_AT_S = 3.0
CONVERGE_S = 1.5  # the canceller adapts during the first second or so; not measured


def speak(text, voice, path):
    raw = path + ".raw.wav"
    subprocess.run(["espeak-ng", "-v", voice, "-w", raw, text], check=True)
    # espeak-ng writes 22050 Hz; the experiment works at 16 kHz mono.
    subprocess.run(["sox", raw, "-r", str(RATE), "-c", "1", "-b", "16", path], check=True)
    with wave.open(path, "rb") as w:
        return array.array("h", w.readframes(w.getnframes()))


def write_wav(path, samples):
    with wave.open(path, "wb") as w:
        w.setnchannels(1)
        w.setsampwidth(2)
        w.setframerate(RATE)
        w.writeframes(samples.tobytes())


def mix(kelo, user, with_user):
    delay = RATE * ECHO_DELAY_MS // 1000
    length = max(len(kelo) + delay, int(USER_AT_S * RATE) + len(user)) + RATE // 2
    out = array.array("h", bytes(2 * length))
    for i, s in enumerate(kelo):
        out[i + delay] = int(s * ECHO_GAIN)
    if with_user:
        start = int(USER_AT_S * RATE)
        for i, s in enumerate(user):
            out[start + i] = max(-32768, min(32767, out[start + i] + s))
    return out


def levels_db(samples):
    result = []
    for start in range(0, len(samples) - WINDOW + 1, WINDOW):
        chunk = samples[start:start + WINDOW]
        rms = math.sqrt(sum(s * s for s in chunk) / WINDOW)
        result.append(20 * math.log10(max(rms, 1.0) / 32768))
    return result


class PrivatePulse:
    def __init__(self, runtime):
        self.env = dict(os.environ, XDG_RUNTIME_DIR=runtime, PULSE_RUNTIME_PATH=runtime + "/pulse")
        self.env.pop("PULSE_SERVER", None)

    def start(self):
        subprocess.run(["pulseaudio", "--daemonize=yes", "--exit-idle-time=-1", "-n", "--use-pid-file=yes",
                        "--load=module-native-protocol-unix auth-anonymous=1"],
                       env=self.env, check=True, stderr=subprocess.DEVNULL)
        for _ in range(50):
            if self.pactl("info", check=False).returncode == 0:
                return
            time.sleep(0.1)
        raise RuntimeError("the private PulseAudio did not start")

    def stop(self):
        subprocess.run(["pulseaudio", "--kill"], env=self.env, stderr=subprocess.DEVNULL)

    def pactl(self, *args, check=True):
        return subprocess.run(["pactl", *args], env=self.env, check=check, capture_output=True, text=True)


def envelope(samples, step=160):
    return [math.sqrt(sum(s * s for s in samples[i:i + step]) / step) for i in range(0, len(samples) - step, step)]


def lag_of(recorded, sent):
    """Where `sent` begins in `recorded`, in samples (10 ms resolution), by envelope correlation."""
    a, b = envelope(recorded), envelope(sent)
    best, best_lag = -1.0, 0
    for lag in range(0, max(1, min(300, len(a) - len(b) // 2))):
        score = sum(x * y for x, y in zip(a[lag:], b))
        if score > best:
            best, best_lag = score, lag
    return best_lag * 160


def trial(pulse, fifo, mic, kelo_path, work):
    """Plays Kelo's voice into the canceller's sink while the microphone signal is fed in real time;
    records the microphone as the server sees it and the cancelled source, from the same moment.
    Returns the cancelled recording aligned to the microphone signal."""
    recorders = {}
    for name, device in (("raw", "kelo_mic"), ("out", "kelo_ec_source")):
        path = os.path.join(work, name + ".raw")
        recorders[name] = (path, subprocess.Popen(
            ["parec", "-d", device, "--rate", str(RATE), "--channels", "1", "--format", "s16le",
             "--latency-msec", "20", "--raw", path], env=pulse.env))
    time.sleep(0.3)

    def feed():
        chunk = RATE // 100
        begin = time.monotonic()
        with open(fifo, "wb", buffering=0) as pipe:
            for n, start in enumerate(range(0, len(mic), chunk)):
                pipe.write(mic[start:start + chunk].tobytes())
                delay = begin + (n + 1) * 0.01 - time.monotonic()
                if delay > 0:
                    time.sleep(delay)

    # The voice must reach the canceller before its echo reaches the microphone.
    player = subprocess.Popen(["paplay", "-d", "kelo_ec_sink", "--latency-msec", "20", kelo_path],
                              env=pulse.env)
    time.sleep(0.05)
    feeder = threading.Thread(target=feed)
    feeder.start()
    player.wait()
    feeder.join()
    time.sleep(0.3)
    recorded = {}
    for name, (path, process) in recorders.items():
        process.terminate()
        process.wait()
        with open(path, "rb") as f:
            data = f.read()
        recorded[name] = array.array("h", data[: len(data) // 2 * 2])
    lag = lag_of(recorded["raw"], mic)
    return recorded["out"][lag:]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--trials", type=int, default=5)
    parser.add_argument("--method", default="webrtc")
    # The canceller's gain control would lift the residual echo along with everything else, which hides
    # what the cancelling itself achieves; it stays off unless asked for.
    parser.add_argument("--aec-args", default="analog_gain_control=0")
    args = parser.parse_args()
    for tool in ("pulseaudio", "pactl", "paplay", "parec", "espeak-ng", "sox"):
        if not shutil.which(tool):
            sys.exit(f"{tool} is missing")

    work = tempfile.mkdtemp(prefix="kelo-echo-")
    runtime = os.path.join(work, "runtime")
    os.makedirs(runtime, mode=0o700)
    pulse = PrivatePulse(runtime)
    pulse.start()
    try:
        kelo_path = os.path.join(work, "kelo.wav")
        kelo = speak(KELO_TEXT, "ro", kelo_path)
        user = speak(USER_TEXT, "ro+m3", os.path.join(work, "user.wav"))
        fifo = os.path.join(work, "mic.fifo")
        pulse.pactl("load-module", "module-null-sink", "sink_name=kelo_voice", f"rate={RATE}", "channels=1")
        pulse.pactl("load-module", "module-pipe-source", "source_name=kelo_mic", f"file={fifo}", "format=s16le",
                    f"rate={RATE}", "channels=1")
        loaded = pulse.pactl("load-module", "module-echo-cancel", "source_master=kelo_mic",
                             "sink_master=kelo_voice", "source_name=kelo_ec_source", "sink_name=kelo_ec_sink",
                             f"aec_method={args.method}", f"aec_args={args.aec_args}", f"rate={RATE}",
                             "channels=1", check=False)
        if loaded.returncode != 0:
            print(f"module-echo-cancel did not load: {loaded.stderr.strip()}")
            return 1
        print(f"module-echo-cancel loaded (aec_method={args.method}, aec_args={args.aec_args}); echo gain {ECHO_GAIN}, "
              f"delay {ECHO_DELAY_MS} ms")

        user_windows = range(int(USER_AT_S * 10), int((USER_AT_S + len(user) / RATE) * 10))
        skip = int(CONVERGE_S * 10)
        margins = []
        residuals = []
        for n in range(args.trials):
            row = {}
            for with_user in (False, True):
                mic = mix(kelo, user, with_user)
                out = levels_db(trial(pulse, fifo, mic, kelo_path, work))
                raw = levels_db(mic)
                echo_windows = [i for i in range(skip, min(len(out), len(kelo) * 10 // RATE))
                                if i not in user_windows]
                row[with_user] = (out, raw, echo_windows)
            out0, raw0, echo0 = row[False]
            out1, _, _ = row[True]
            # Echo only: what is left of Kelo's voice, loudest 100 ms window after convergence.
            residual = max(out0[i] for i in echo0 if i < len(out0))
            raw_echo = max(raw0[i] for i in echo0)
            typical = sorted(out0[i] - raw0[i] for i in echo0 if i < len(out0) and raw0[i] > -50)
            typical_removed = -typical[len(typical) // 2] if typical else 0.0
            # With speech: the user's phrase, its median window (speech has pauses).
            speech = sorted(out1[i] for i in user_windows if i < len(out1))
            speech_median = speech[len(speech) // 2] if speech else -120.0
            margins.append(speech_median - residual)
            residuals.append(raw_echo - residual)
            print(f"trial {n + 1}: echo at the microphone {raw_echo:.1f} dBFS, left after cancelling "
                  f"{residual:.1f} dBFS (loudest window; {typical_removed:.1f} dB less in the median window); user's speech after "
                  f"cancelling {speech_median:.1f} dBFS median; margin {speech_median - residual:.1f} dB")
        margins.sort()
        residuals.sort()
        print(f"echo removed: median {residuals[len(residuals) // 2]:.1f} dB, worst {residuals[0]:.1f} dB")
        print(f"speech over residual echo: median {margins[len(margins) // 2]:.1f} dB, worst {margins[0]:.1f} dB "
              f"over {len(margins)} trials (a level detector needs ≥ 6 dB in every trial)")
        return 0
    finally:
        pulse.stop()
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
