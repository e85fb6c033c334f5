#!/usr/bin/env python3
"""Writes test WAV files and checks what a host made of them.

make PATH RATE FORMAT SECONDS AMP     stereo test signal; FORMAT pcm16 or float
check OUT IN [IN_RIGHT] [options]     OUT has IN's rate, channels and length (IN and IN_RIGHT: a
                                      stereo input as two mono files), plus:
  --not-silent        OUT's RMS is at least a tenth of IN's
  --differs           some sample differs from IN by more than 1 % of full scale
  --equal-lsb N       every sample equals IN's within N steps of a 16-bit file
  --max-peak X        no sample above X (and, for float files, all finite)
level PATH MIN_RMS                     PATH is finite, at or below full scale, RMS >= MIN_RMS
pad IN OUT FRAMES                      OUT is FRAMES frames of silence, then IN (32-bit float)
same OUT REF [--ref-offset N]          OUT equals REF from REF's frame N on, sample for sample
Reads RIFF itself (PCM 16/24/32 bit, IEEE float 32/64, extensible) so that no part of
the audio path under test reads its own output.
"""
import argparse
import array
import math
import struct
import sys


def make(path, rate, fmt, seconds, amp):
    n = int(rate * seconds)
    # Two partials per side, different on each side, well inside the Nyquist band at 8 kHz.
    left = [amp * (0.6 * math.sin(2 * math.pi * 220 * i / rate) +
                   0.4 * math.sin(2 * math.pi * 1375 * i / rate)) for i in range(n)]
    right = [amp * (0.6 * math.sin(2 * math.pi * 330 * i / rate) +
                    0.4 * math.sin(2 * math.pi * 2750 * i / rate)) for i in range(n)]
    inter = [0.0] * (2 * n)
    inter[0::2] = left
    inter[1::2] = right
    write(path, rate, 2, inter, fmt)


def write(path, rate, channels, samples, fmt="float"):
    """Interleaved samples as 16-bit PCM ("pcm16") or 32-bit float ("float")."""
    if fmt == "pcm16":
        data = array.array("h", (int(round(v * 32767)) for v in samples))
        tag, bits = 1, 16
    else:
        data = array.array("f", samples)
        tag, bits = 3, 32
    if sys.byteorder != "little":
        data.byteswap()
    payload = data.tobytes()
    block = channels * bits // 8
    fmt_chunk = struct.pack("<HHIIHH", tag, channels, rate, rate * block, block, bits)
    with open(path, "wb") as f:
        f.write(b"RIFF" + struct.pack("<I", 4 + 8 + len(fmt_chunk) + 8 + len(payload)) + b"WAVE")
        f.write(b"fmt " + struct.pack("<I", len(fmt_chunk)) + fmt_chunk)
        f.write(b"data" + struct.pack("<I", len(payload)) + payload)


def read(path):
    """Returns (rate, channels, is_float, interleaved samples scaled to +-1)."""
    with open(path, "rb") as f:
        raw = f.read()
    if raw[:4] != b"RIFF" or raw[8:12] != b"WAVE":
        raise SystemExit(f"{path}: not a RIFF WAVE file")
    pos, fmt, data = 12, None, None
    while pos + 8 <= len(raw):
        cid, size = raw[pos:pos + 4], struct.unpack("<I", raw[pos + 4:pos + 8])[0]
        body = raw[pos + 8:pos + 8 + size]
        if cid == b"fmt ":
            fmt = body
        elif cid == b"data":
            data = body
        pos += 8 + size + (size & 1)
    if fmt is None or data is None:
        raise SystemExit(f"{path}: missing fmt or data chunk")
    tag, channels, rate, _, _, bits = struct.unpack("<HHIIHH", fmt[:16])
    if tag == 0xFFFE:
        tag = struct.unpack("<H", fmt[24:26])[0]
    if tag == 3:
        code = {32: "f", 64: "d"}[bits]
        samples = array.array(code, data)
        if sys.byteorder != "little":
            samples.byteswap()
        return rate, channels, True, samples
    if tag != 1:
        raise SystemExit(f"{path}: unsupported WAV format tag {tag}")
    if bits == 24:
        ints = [int.from_bytes(data[i:i + 3], "little", signed=True)
                for i in range(0, len(data) - 2, 3)]
    else:
        ints = array.array({16: "h", 32: "i"}[bits], data)
        if sys.byteorder != "little":
            ints.byteswap()
    scale = float(1 << (bits - 1))
    return rate, channels, False, [v / scale for v in ints]


def rms(xs):
    return math.sqrt(sum(v * v for v in xs) / max(1, len(xs)))


def read_input(left, right):
    """The input as one file, or as a stereo pair of mono files."""
    rate, ch, is_float, xs = read(left)
    if right is None:
        return rate, ch, is_float, xs
    r_rate, r_ch, _, ys = read(right)
    if (r_rate, r_ch, ch) != (rate, 1, 1) or len(xs) != len(ys):
        raise SystemExit(f"{left}, {right}: not two mono files of one rate and length")
    pair = [0.0] * (2 * len(xs))
    pair[0::2] = xs
    pair[1::2] = ys
    return rate, 2, is_float, pair


def check(args):
    rate, ch, is_float, out = read(args.out)
    in_rate, in_ch, _, ref = read_input(args.ref, args.ref_right)
    problems = []
    if (rate, ch) != (in_rate, in_ch):
        problems.append(f"format {rate} Hz/{ch} ch, input {in_rate} Hz/{in_ch} ch")
    if len(out) != len(ref):
        problems.append(f"{len(out) // max(ch, 1)} frames, input {len(ref) // max(in_ch, 1)}")
    bad = [i for i, v in enumerate(out) if not math.isfinite(v)]
    if bad:
        problems.append(f"{len(bad)} non-finite samples, first at sample {bad[0]}")
    if not problems:
        if args.not_silent and rms(out) < 0.1 * rms(ref):
            problems.append(f"RMS {rms(out):.3g} against input {rms(ref):.3g}: silent")
        diff = max((abs(a - b) for a, b in zip(out, ref)), default=0.0)
        if args.differs and diff <= 0.01:
            problems.append(f"largest difference from the input is {diff:.3g}: unprocessed")
        if args.equal_lsb is not None and diff > args.equal_lsb / 32768 + 1e-9:
            i = max(range(len(out)), key=lambda k: abs(out[k] - ref[k]))
            problems.append(f"differs from the input by {diff * 32768:.2f} LSB at frame "
                            f"{i // ch} channel {i % ch} ({out[i]!r} vs {ref[i]!r})")
        peak = max((abs(v) for v in out), default=0.0)
        if args.max_peak is not None and peak > args.max_peak:
            problems.append(f"peak {peak!r} above {args.max_peak}")
    if problems:
        for p in problems:
            print(f"{args.out}: {p}", file=sys.stderr)
        return 1
    print(f"{args.out}: {rate} Hz, {ch} ch, {len(out) // ch} frames, RMS {rms(out):.4f} "
          f"(input {rms(ref):.4f}), peak {max(abs(v) for v in out):.6f}")
    return 0


def level(path, min_rms):
    rate, ch, _, xs = read(path)
    peak = max((abs(v) for v in xs), default=0.0)
    print(f"{path}: {rate} Hz, {ch} ch, {len(xs) // ch} frames, RMS {rms(xs):.4f}, peak {peak:.4f}")
    if not all(math.isfinite(v) for v in xs) or peak > 1.0 or rms(xs) < min_rms:
        print(f"{path}: wanted finite samples within full scale and RMS >= {min_rms}",
              file=sys.stderr)
        return 1
    return 0


def pad(src, dst, frames):
    rate, ch, _, xs = read(src)
    write(dst, rate, ch, [0.0] * (frames * ch) + list(xs))
    return 0


def same(out_path, ref_path, offset):
    rate, ch, _, out = read(out_path)
    ref_rate, ref_ch, _, ref = read(ref_path)
    if (rate, ch) != (ref_rate, ref_ch):
        print(f"{out_path}: {rate} Hz/{ch} ch, {ref_path}: {ref_rate} Hz/{ref_ch} ch",
              file=sys.stderr)
        return 1
    ref = ref[offset * ch:]
    n = min(len(out), len(ref))
    if n == 0 or len(out) != len(ref):
        print(f"{out_path}: {len(out) // ch} frames against {len(ref) // ch} of {ref_path} from "
              f"frame {offset}", file=sys.stderr)
        return 1
    differing = [i for i in range(n) if out[i] != ref[i]]
    diff = max((abs(out[i] - ref[i]) for i in differing), default=0.0)
    print(f"{out_path}: {n // ch} frames compared with {ref_path} from frame {offset}: "
          f"{len(differing)} samples differ, largest difference {diff:.3g}, "
          f"RMS {rms(out):.4f}, peak {max(abs(v) for v in out):.6f}")
    if differing:
        i = differing[0]
        print(f"{out_path}: first difference at frame {i // ch} channel {i % ch}: "
              f"{out[i]!r} vs {ref[i]!r}", file=sys.stderr)
        return 1
    return 0


def main():
    p = argparse.ArgumentParser()
    sub = p.add_subparsers(dest="cmd", required=True)
    m = sub.add_parser("make")
    m.add_argument("path")
    m.add_argument("rate", type=int)
    m.add_argument("format", choices=["pcm16", "float"])
    m.add_argument("seconds", type=float)
    m.add_argument("amp", type=float)
    c = sub.add_parser("check")
    c.add_argument("out")
    c.add_argument("ref")
    c.add_argument("ref_right", nargs="?")
    c.add_argument("--not-silent", action="store_true")
    c.add_argument("--differs", action="store_true")
    c.add_argument("--equal-lsb", type=float)
    c.add_argument("--max-peak", type=float)
    lv = sub.add_parser("level")
    lv.add_argument("path")
    lv.add_argument("min_rms", type=float)
    pd = sub.add_parser("pad")
    pd.add_argument("src")
    pd.add_argument("dst")
    pd.add_argument("frames", type=int)
    sm = sub.add_parser("same")
    sm.add_argument("out")
    sm.add_argument("ref")
    sm.add_argument("--ref-offset", type=int, default=0)
    a = p.parse_args()
    if a.cmd == "make":
        make(a.path, a.rate, a.format, a.seconds, a.amp)
        return 0
    if a.cmd == "level":
        return level(a.path, a.min_rms)
    if a.cmd == "pad":
        return pad(a.src, a.dst, a.frames)
    if a.cmd == "same":
        return same(a.out, a.ref, a.ref_offset)
    return check(a)


if __name__ == "__main__":
    sys.exit(main())
