#!/usr/bin/env python3
"""Writes the binary seeds of the fuzz corpora: tiny whisper model files in the real layout, WAV
files of every accepted sample format, and a short MP3 spoken by espeak-ng and encoded by lame.
Run from the repository root: python3 fuzz/make-binary-seeds.py"""

import math
import shutil
import struct
import subprocess
from pathlib import Path

CORPUS = Path("fuzz/corpus")
F32, F16, Q8_0 = 0, 1, 8


def whisper_model(n_vocab=51865, tensor_type=F16, vocabulary=(b" a", b"bu", b"n\xc4\x83")):
    state, head, mels, fft = 8, 2, 4, 5
    header = [0x67676D6C, n_vocab, 8, state, head, 1, 8, state, head, 1, mels, 1]
    out = struct.pack("<12i", *header)
    out += struct.pack("<2i", mels, fft) + struct.pack(f"<{mels * fft}f", *([0.01] * (mels * fft)))
    out += struct.pack("<i", len(vocabulary))
    for token in vocabulary:
        out += struct.pack("<i", len(token)) + token
    tensors = [
        (b"encoder.positional_embedding", [state, 8], F32),
        (b"encoder.conv1.weight", [3, mels, state], tensor_type),
        (b"decoder.ln.bias", [state], F32),
    ]
    for name, dims, kind in tensors:
        out += struct.pack("<3i", len(dims), len(name), kind) + struct.pack(f"<{len(dims)}i", *dims) + name
        count = math.prod(dims)
        if kind == F32:
            out += struct.pack(f"<{count}f", *([0.5] * count))
        elif kind == F16:
            out += struct.pack(f"<{count}e", *([0.25] * count))
        else:  # blocks of 32 values: one f16 scale and 32 signed bytes
            out += (struct.pack("<e", 0.1) + bytes(range(32))) * (count // 32)
    return out


def write_whisper_seeds():
    folder = CORPUS / "fuzz_whisper_model_file"
    folder.mkdir(parents=True, exist_ok=True)
    model = whisper_model()
    (folder / "multilingual.bin").write_bytes(model)
    (folder / "english-only.bin").write_bytes(whisper_model(n_vocab=51864))
    (folder / "quantised.bin").write_bytes(whisper_model(tensor_type=Q8_0))
    (folder / "truncated-header.bin").write_bytes(model[:30])
    (folder / "truncated-tensor.bin").write_bytes(model[:-10])


def wav(samples, channels=1, rate=16000, bits=16, fmt=1, extensible=False, extra_chunk=b"", data_size=None):
    block = channels * bits // 8
    if extensible:
        fmt_body = struct.pack("<HHIIHH", 0xFFFE, channels, rate, rate * block, block, bits)
        fmt_body += struct.pack("<HHI", 22, bits, 0) + struct.pack("<H", fmt) + bytes(14)
    else:
        fmt_body = struct.pack("<HHIIHH", fmt, channels, rate, rate * block, block, bits)
    body = b"WAVE" + b"fmt " + struct.pack("<I", len(fmt_body)) + fmt_body + extra_chunk
    body += b"data" + struct.pack("<I", len(samples) if data_size is None else data_size) + samples
    return b"RIFF" + struct.pack("<I", len(body)) + body


def write_wav_seeds():
    folder = CORPUS / "fuzz_wav_file"
    folder.mkdir(parents=True, exist_ok=True)
    tone = [math.sin(i / 5.0) * 0.5 for i in range(64)]
    (folder / "mono-16bit.wav").write_bytes(wav(struct.pack("<64h", *(int(v * 32767) for v in tone))))
    stereo24 = b"".join(struct.pack("<i", int(v * 8388607))[:3] * 2 for v in tone)
    (folder / "stereo-24bit.wav").write_bytes(wav(stereo24, channels=2, rate=48000, bits=24))
    float32 = struct.pack("<64f", *tone)
    (folder / "float-extensible.wav").write_bytes(wav(float32, rate=44100, bits=32, fmt=3, extensible=True))
    odd_list = b"LIST" + struct.pack("<I", 5) + b"INFOx" + b"\0"
    (folder / "8bit-list-chunk.wav").write_bytes(
        wav(bytes(int(128 + v * 100) for v in tone), bits=8, rate=8000, extra_chunk=odd_list))
    (folder / "streamed-size.wav").write_bytes(wav(struct.pack("<32h", *range(32)), data_size=0xFFFFFFFF))


def write_mp3_seeds():
    if not shutil.which("espeak-ng") or not shutil.which("lame"):
        print("espeak-ng or lame missing: MP3 seeds not written")
        return
    folder = CORPUS / "fuzz_mp3_stream"
    folder.mkdir(parents=True, exist_ok=True)
    speech = subprocess.run(["espeak-ng", "-v", "ro", "--stdout", "Bună ziua"], check=True, capture_output=True).stdout
    mp3 = subprocess.run(["lame", "--quiet", "-b", "8", "-m", "m", "--resample", "8", "-", "-"], input=speech,
                         check=True, capture_output=True).stdout
    (folder / "speech-8kbps.mp3").write_bytes(mp3)
    (folder / "cut-after-first-frames.mp3").write_bytes(mp3[: len(mp3) // 3])
    tagged = subprocess.run(["lame", "--quiet", "-b", "16", "--resample", "16", "--tt", "Kelo", "-", "-"],
                            input=speech, check=True, capture_output=True).stdout
    (folder / "id3-16kbps.mp3").write_bytes(tagged)


if __name__ == "__main__":
    write_whisper_seeds()
    write_wav_seeds()
    write_mp3_seeds()
