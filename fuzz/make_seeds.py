#!/usr/bin/env python3
"""Writes the synthetic seeds of the fuzz corpora (fuzz/corpus/<target>/seed-*).

Usage: make_seeds.py [--modules DIR]

Hunk executables of every hunk and sub-tag kind, ProTracker-layout modules of each tag and
classification branch, TFMX headers, a song of every other player's format whose cells use every
command, configurations and database files. With --modules, the small .mod files of DIR (under
10 KB) join the engine and classification seeds. Reproducers and merged inputs are not touched.
"""
import os
import struct
import sys
from pathlib import Path

HERE = Path(__file__).resolve().parent


def be32(*v):
    return struct.pack(">%dI" % len(v), *(x & 0xFFFFFFFF for x in v))


def be16(*v):
    return struct.pack(">%dH" % len(v), *(x & 0xFFFF for x in v))


def commands(text):
    """(command, parameter) pairs from hex words "CCPP"."""
    return [divmod(int(w, 16), 256) for w in text.split()]


def at(size, *fields):
    """`size` zero bytes with (offset, bytes) fields written over them."""
    out = bytearray(size)
    for o, data in fields:
        out[o:o + len(data)] = data
    return out


# ---- hunk executables ----------------------------------------------------

HEADER, CODE, DATA, BSS, RELOC32, NAME, SYMBOL, DEBUG, END = (
    0x3F3, 0x3E9, 0x3EA, 0x3EB, 0x3EC, 0x3E8, 0x3F0, 0x3F1, 0x3F2)


def hunk_file(sizes, bodies, resident=b""):
    return be32(HEADER) + resident + be32(0, len(sizes), 0, len(sizes) - 1, *sizes) + b"".join(bodies)


def hunk_seeds():
    # Code + data + bss, relocations between them, a name, symbols, debug.
    code = (be32(CODE, 4, 0, 4, 8, 0x4E754E75, NAME, 1) + b"code" + be32(RELOC32, 2, 1, 0, 4, 1, 2, 8, 0, SYMBOL, 1) +
            b"sym\0" + be32(0, 0, DEBUG, 2, 0, 0, END))
    data = be32(DATA, 2, 0x11111111, 0x22222222, RELOC32, 1, 0, 4, 0, END)
    return {
        "minimal": hunk_file([2], [be32(CODE, 2) + b"\x4e\x75\x00\x00" + be32(0, END)]),
        "three-hunks": hunk_file([4, 2, 3], [code, data, be32(BSS, 3, END)]),
        # Extended memory attributes and chip/fast flags on the size longs.
        "mem-flags": hunk_file([0xC0000002, 0x40000001],
                               [be32(0x40000000 | CODE, 2, 1, 2, END), be32(0x80000000 | DATA, 1, 3)]),
        # Resident-library names before the table; the last hunk without END.
        "resident-no-end": hunk_file([1, 1], [be32(CODE, 1, 7, END), be32(BSS, 1)], resident=be32(1) + b"lib\0"),
        # A relocation to a missing hunk, one outside its hunk, a BSS larger
        # than its header size.
        "bad-reloc": hunk_file([1], [be32(CODE, 1, 0, RELOC32, 1, 5, 0, 0, END)]),
        "reloc-outside": hunk_file([1], [be32(CODE, 1, 0, RELOC32, 1, 0, 64, 0, END)]),
        "bss-count": hunk_file([16], [be32(BSS, 0x100000, END)]),
    }


# ---- ProTracker-layout modules -----------------------------------------------

SQUARE = bytes([0x60] * 16 + [0xA0] * 16) * 4   # 128 bytes, 64 words
PERIODS = [428, 381, 339, 320, 285, 254, 226, 214]


def sample_header(name, length, volume, rstart, rlen, finetune=0):
    return name.encode()[:22].ljust(22, b"\0") + struct.pack(">HBBHH", length, finetune, volume, rstart, rlen)


def looped(i, volume=48):
    return sample_header("smp%d" % i, 64, volume, 0, 64)


def cell(period, sample, command, param):
    return bytes([(sample & 0xF0) | (period >> 8), period & 0xFF, ((sample & 0x0F) << 4) | command, param])


def pattern(effects, sample_count=4, step=4, channels=4, notes=4):
    """Notes every `step` rows on the first `notes` channels; effects maps
    (row, channel) to (command, parameter)."""
    out = b""
    for r in range(64):
        for c in range(channels):
            n = r // step + c
            note = (PERIODS[n % 8], 1 + n % sample_count) if r % step == 0 and c < notes else (0, 0)
            out += cell(*note, *effects.get((r, c), (0, 0)))
    return out


def mod31(tag, patterns, samples, song_len=None, restart=0, orders=None):
    orders = list(range(len(patterns))) if orders is None else orders
    head = b"fuzz seed".ljust(20, b"\0") + b"".join(samples) + sample_header("", 0, 0, 0, 1) * (31 - len(samples))
    head += bytes([len(orders) if song_len is None else song_len, restart]) + bytes(orders).ljust(128, b"\0") + tag
    return head + b"".join(patterns) + SQUARE * len(samples)


def mod15(patterns, samples, restart=120):
    """The pattern count comes from the highest order entry (at least 1): two patterns."""
    head = b"st seed".ljust(20, b"\0") + b"".join(samples) + sample_header("", 0, 0, 0, 0) * (15 - len(samples))
    head += bytes([len(patterns), restart]) + bytes(range(len(patterns))).ljust(128, b"\0")
    return head + b"".join(patterns) + bytes(1024) * (2 - len(patterns)) + SQUARE * len(samples)


def module_seeds():
    s = [looped(i) for i in range(4)]
    fx_all = {(1, 0): (0x0, 0x37), (2, 1): (0x1, 0x04), (3, 2): (0x2, 0x04), (5, 3): (0x3, 0x08),
              (6, 0): (0x4, 0x44), (7, 1): (0x5, 0x02), (9, 2): (0x6, 0x20), (10, 3): (0x7, 0x33),
              (11, 0): (0x9, 0x02), (13, 1): (0xA, 0x0F), (14, 2): (0xC, 0x30), (15, 3): (0xE, 0x01),
              (17, 0): (0xE, 0x93), (18, 1): (0xE, 0xC2), (19, 2): (0xE, 0xD1), (21, 3): (0xE, 0x62),
              (22, 0): (0xE, 0x60), (25, 1): (0xF, 0x04), (26, 2): (0xF, 0x7D), (30, 3): (0xE, 0xE2),
              (33, 0): (0xB, 0x01), (40, 1): (0xD, 0x10)}
    seeds = {
        "mk-effects": mod31(b"M.K.", [pattern(fx_all), pattern({(63, 0): (0xB, 0x00)})], s),
        "mk-plain": mod31(b"M.K.", [pattern({(0, 0): (0xF, 0x03)})], s),
        "mk-st24": mod31(b"M.K.", [pattern({})], [sample_header("x", 32, 64, 60, 10)] + s[1:]),
        "mk-nt": mod31(b"M.K.", [pattern({(0, 0): (0xE, 0x00)})], [sample_header("a", 64, 64, 0, 0), looped(1)]),
        "mk-finetune": mod31(b"M.K.", [pattern({})], [sample_header("f", 64, 64, 0, 64, 7)] + s[1:]),
        "mk-restart127": mod31(b"M.K.", [pattern({})], s, restart=127),
        "mk-song-jump": mod31(b"M.K.", [pattern({(8, 0): (0xB, 0x01)}), pattern({(8, 0): (0xB, 0x00)})], s,
                              orders=[0, 1, 0, 1]),
        "flt4": mod31(b"FLT4", [pattern({(0, 0): (0xF, 0x06)})], s),
        "flt4-marks": mod31(b"FLT4", [pattern({})], s + [sample_header("mark", 0, 64, 0, 1)]),
        "6chn": mod31(b"6CHN", [pattern({}, channels=6)], s),
        "8chn": mod31(b"8CHN", [bytes(2048)], s),
        "st15-ust": mod15([pattern({(0, 0): (0x0, 0x37), (4, 1): (0x0, 0x47), (8, 2): (0x0, 0x25)})], s),
        "st15-porta-ust": mod15([pattern({(0, 0): (0x1, 0x40), (4, 1): (0x2, 0x50)})], s),
        "st15-st4": mod15([pattern({(0, 0): (0x5, 0x02), (8, 1): (0xD, 0x01)})], s),
        "st15-ptk": mod15([pattern({(0, 0): (0xC, 0x20), (4, 1): (0xF, 0x06)})], s),
        "st15-disk": mod15([pattern({})], [sample_header("st-01:drum", 64, 64, 200, 64)] + s[1:]),
        "tfmx-7v": bytes(at(2600, (0, b"TFMX-SONG "), (464, be32(600, 1200, 1800)), (608, b"\xef\xfe\x00\x03"))),
        "tfmx-by": bytes(at(600, (0, b"TFMX-SONG by\0\0\x0e\x60"))),
    }
    seeds.update({n: mod31(tag, [pattern({})], s) for n, tag in (("nt", b"N.T."), ("mk-noise", b"M&K!"),
                                                                  ("octa", b"OCTA"))})
    seeds.update({"tfhd-%d" % v: bytes(at(600, (0, b"TFHD"), (8, bytes([v])))) for v in (1, 2, 3)})
    return seeds


def multichannel_seeds():
    """Modules mixed in software (notes on every channel, instrument swaps, retriggers, offsets, a
    tempo), FLT8 pattern pairs, fewer than four channels and His Master's Noise synth sounds."""
    s = [looped(i) for i in range(3)] + [sample_header("shot", 64, 64, 0, 1)]
    fx = {(0, 0): (0xF, 0x7D), (4, 5): (0x9, 0x01), (8, 6): (0xE, 0x93), (12, 7): (0x3, 0x10),
          (16, 1): (0x0, 0x37), (20, 4): (0xC, 0x20), (24, 9): (0xE, 0xD2), (62, 11): (0xD, 0x00)}
    # Row 2 of 12CH: instrument numbers without notes on every channel.
    twelve = bytearray(pattern(fx, channels=12, notes=12))
    twelve[96:144] = b"".join(cell(0, 1 + c % 4, 0, 0) for c in range(12))
    # His Master's Noise: "Mupp" + pattern, first and last step; one synth in
    # pattern 1 (28 waveforms, steps of waveforms and volumes), one naming a
    # pattern past the file, and 7xy chords.
    synth = b"".join(bytes((w * 9 + i * 8) & 0xFF for i in range(32)) for w in range(28)).ljust(0x380, b"\0")
    synth += bytes((i * 5) % 40 for i in range(64)) + bytes((i * 13) & 0xFF for i in range(64))   # some past 28
    mupp = [sample_header("Mupp\x01\x02\x09", 0, 50, 0, 1), sample_header("Mupp\x7f\x00\x00", 0, 64, 0, 1),
            sample_header("fine", 64, 64, 0, 64, 0xFE)] + s[:1]
    hmn = pattern({(0, 2): (0x7, 0x03), (4, 3): (0x7, 0x1A), (8, 0): (0xA, 0x04), (12, 1): (0xC, 0x40)})
    return {
        "12ch": mod31(b"12CH", [bytes(twelve)], s),
        "32ch": mod31(b"32CH", [pattern({(0, 31): (0xA, 0x0F)}, channels=32, notes=32)], s),
        "5chn": mod31(b"5CHN", [pattern({(1, 4): (0xE, 0x61)}, channels=5, notes=5)], s),
        "tdz3": mod31(b"TDZ3", [pattern({}, channels=3, notes=3)], s),
        # FLT8: orders 0, 2, 1 play the pairs (0, 1), (2, 3) and (0, 1).
        "flt8": mod31(b"FLT8", [pattern({}), pattern({(4, 0): (0xB, 0x01)}), pattern({}), pattern({})], s,
                      orders=[0, 2, 1]),
        "hmn-mupp": mod31(b"M&K!", [hmn, synth], mupp, song_len=1, orders=[0, 1]),
    }


def am_seeds():
    """AudioSculpture: FLT4 modules whose AM instruments (empty headers with a volume) use every waveform and
    command, with their .nt file (120-byte records from 144): whole, cut short, wrongly identified, missing."""
    s = [sample_header("am", 0, 64, 0, 1) for _ in range(5)] + [looped(5)]
    fx = {(0, 0): (0xF, 0x03), (4, 1): (0x3, 0x10), (8, 2): (0xC, 0x10), (12, 3): (0xA, 0x0F),
          (16, 0): (0x4, 0x33)}
    module = mod31(b"FLT4", [pattern(fx, sample_count=6)], s)
    records = [(1, 0, [64, 255, 2, 200, 1, 100, 8, 4, 0xFFFF, 5, 0, 8, 3, 2, 1]),
               (2, 1, [0, 255, 0, 255, 1, 0, 255, 0, 0xFFFF, 1, 0, 0xFFF8, 0, 0, 0]),
               (3, 2, [255, 0, 255, 128, 4, 64, 2, 60000, 0, 0, 0, 0, 20, 7, 9]),
               (4, 3, [32, 32, 0, 255, 32, 0, 255, 0, 0, 1, 0, 16, 0, 0, 2]),
               (5, 7, [255] * 15), (6, 1, [255, 255, 1, 255, 1, 255, 1, 0, 0, 255, 0, 0, 0, 0, 1])]

    def nt(records, ident=b"ST1.3 ModuleINFO", cut=0):
        out = at(144 + 120 * len(records), (0, ident))
        for n, wf, words in records:
            out[24 + 120 * n:60 + 120 * n] = b"AM\0\0\0\0" + be16(*words[:10], wf, *words[11:])
        return bytes(out[:len(out) - cut])

    return {"am": (module, nt(records)), "am-cut": (module, nt(records[:4], b"AudioSculpture10", 30)),
            "am-bad-id": (module, nt(records, b"ST1.4 ModuleINFO")), "am-no-nt": (module, None)}


# ---- SoundFX, Game Music Creator, Images Music System, PolyTracker ------------

def sfx_seed(samples31=False):
    n = 31 if samples31 else 15
    out = be32(128, 128, 128, 128) + bytes(4 * (n - 4)) + (b"SO31" if samples31 else b"SONG") + be16(14565)
    out += bytes(14) + b"".join(("sfx%d" % i).encode().ljust(22, b"\0") +
                                be16(64 if i < 4 else 0, 48, 0, 32 if i % 2 else 1) for i in range(n))
    out += bytes([2, 0]) + bytes([0, 1]).ljust(128, b"\0") + (bytes(4) if samples31 else b"")
    cells = [(0, 0, 428, 1, 1, 0x37), (0, 1, 0x0358, 2, 2, 0x30), (0, 2, 320, 3, 7, 0x25), (0, 3, 285, 4, 9, 0x12),
             (4, 0, 0xFFFE, 0, 0, 0), (5, 1, 0xFFFD, 2, 5, 0x10), (8, 2, 381, 2, 8, 0x13), (9, 3, 254, 1, 6, 0x08),
             (12, 0, 0xFFFC, 0, 3, 0), (1, 0, 0x1000 | 428, 1, 4, 0)]
    pat = at(1024, *((r * 16 + c * 4, struct.pack(">HBB", n, (s & 15) << 4 | f, p)) for r, c, n, s, f, p in cells))
    return out + pat * 2 + SQUARE * 4


def gmc_seed():
    out = b"".join(struct.pack(">IHHIHH", 0x20000 + 256 * i, 64, 40, 0x20000 + 256 * i + 64, 32 if i else 2, 0)
                   for i in range(3))
    out = out.ljust(240, b"\0") + be32(3) + be16(0, 1024, 0) + bytes(194)
    cells = [(0, 0, 428, 1, 1, 3), (0, 1, 320, 2, 3, 30), (4, 2, 214, 3, 2, 2), (8, 3, 856, 1, 8, 3),
             (12, 0, 381, 2, 6, 0), (16, 1, 254, 3, 7, 0), (20, 2, 0, 0, 4, 0)]
    pat = at(1024, *((r * 16 + c * 4, struct.pack(">HBB", period, s << 4 | f, p)) for r, c, period, s, f, p in cells))
    return out + pat + at(1024, (0, struct.pack(">HBB", 428, 0x15, 0))) + SQUARE * 3   # 2nd: jump to position 0


def ims_seed():
    head = b"ims seed".ljust(20, b"\0") + b"".join(
        ("ims%d" % i).encode().ljust(20, b"\0") + (be16(0, 64, 48, 16, 32) if i < 3 else bytes(10)) for i in range(31))
    head += bytes([3, 0]) + bytes([0, 1, 0]).ljust(128, b"\0") + be32(1084 + 2 * 768)
    fx = commands("0037 0304 0444 0a02 0c20 0e01 0901 0733 0f04 0d10 0b02 0501 0610 0103 0203 0f40")
    pats = at(2 * 768, *((p * 768 + r * 12 + c * 3,
                          bytes([[4, 13, 16, 28, 40, 52, 62, 63][(r // 4 + c + p) % 8],
                                 (1 + (r // 4 + c) % 3) << 4 | fx[(r // 4 + c) % 16][0], fx[(r // 4 + c) % 16][1]]))
                         for p in range(2) for r in range(0, 64, 4) for c in range(4)))
    return head + pats + SQUARE * 3


def ptm_seed(channels=4, cut=0):
    head = at(608 + 240, (0, b"ptm seed\0"), (28, b"\x1a"), (32, struct.pack("<6H", 3, 3, 2, channels, 0, 0)),
              (44, b"PTMF"), (64, bytes(c * 5 % 16 for c in range(channels))), (96, bytes([0, 1, 0] + [255] * 253)))
    fx = commands("0037 0104 02f2 0308 0444 0502 0620 0733 0901 0a0f 0b01 0c30 0d10 0e62 0e60 0e93 0ec2 0ed1 0ee1 "
                    "0f04 0f90 1030 1142 1244 1321 1412 1531 1621 1700")
    body = b""
    for p in range(2):   # patterns at 16-byte boundaries, cells on every third (row + channel)
        while (len(head) + len(body)) % 16:
            body += b"\0"
        head[352 + 2 * p:354 + 2 * p] = struct.pack("<H", (len(head) + len(body)) // 16)
        body += b"".join(b"".join(bytes([c | 0xE0, [49, 61, 37, 254, 73, 25][(r + c) % 6], 1 + (r + c) % 3,
                                         *fx[(r + c + p) % len(fx)], 40 + c % 24])
                                  for c in range(channels) if (r + c) % 3 == 0) + b"\0" for r in range(64))
    for i in range(3):
        head[608 + 80 * i] = [1 | 4, 1, 1 | 4 | 16][i]
        head[621 + 80 * i] = 48
        struct.pack_into("<HH4I", head, 622 + 80 * i, 8363 + 1000 * i, 0, len(head) + len(body) + 64 * i, 64, 8, 64)
    out = bytes(head) + body + bytes([1] * 32 + [0xFF] * 32) * 3
    return out[:len(out) - cut]


# ---- Oktalyzer and DIGI Booster -------------------------------------------------

def okt_seed(cmod=(0, 1, 0, 1), magic=b"OKTASONG", cut=0):
    """An Oktalyzer song: samples of every mode (looping and not), two patterns whose cells use
    every effect, notes past B-3 and samples that do not exist."""
    channels = 4 + sum(1 for f in cmod if f)

    def chunk(name, data):
        return name + be32(len(data)) + data

    lengths = [64, 64, 128, 32]
    samp = b"".join(("okt%d" % i).encode().ljust(20, b"\0") +
                    struct.pack(">IHHHH", lengths[i], 8 * (i % 2), 16 * (i % 2), 48, i % 3) for i in range(4))
    fx = commands("0103 0205 0a23 0b12 0c34 0d01 0f01 1102 1502 1820 1901 1b00 1c1f 1e01 1f30 1f44 1f52 1f63 1f74 "
                    "1f90 0909")
    pats = b""
    for p, rows in enumerate((32, 16)):
        cells = at(rows * channels * 4, *((4 * (r * channels + c), bytes([[13, 1, 36, 25, 40, 0][(r + c) % 6],
                                                                          [0, 1, 2, 3, 40][(r + 2 * c) % 5],
                                                                          *fx[(r + c + p) % len(fx)]]))
                                          for r in range(rows) for c in range(channels) if (r + c) % 2 == 0))
        pats += chunk(b"PBOD", be16(rows) + cells)
    out = (magic + chunk(b"CMOD", be16(*cmod)) + chunk(b"SAMP", samp + bytes(32 * 32)) + chunk(b"SPEE", b"\0\4") +
           chunk(b"SLEN", b"\0\2") + chunk(b"PLEN", b"\0\3") + chunk(b"PATT", bytes([0, 1, 0]).ljust(128, b"\0")) +
           pats + b"".join(chunk(b"SBOD", SQUARE[:n]) for n in lengths))
    return out[:len(out) - cut]


def digi_seed(channels=8, packed=True, cut=0):
    """A DIGI Booster module with every effect and E command, tempo changes,
    a loop, a pattern delay, F00 and a sample offset past the sample."""
    head = at(1572, (0, b"DIGI Booster module\0V1.6"), (24, bytes([0x16, channels, packed])),
              (46, bytes([1, 2, 0, 1, 0])), (176, be32(128, 64, 96)), (300, be32(32, 0, 32)), (424, be32(32, 0, 32)),
              (548, bytes([48] * 3)), (579, bytes([0, 3, 0xFB])), (610, b"digi seed"))
    fx = commands("0037 0103 0200 0308 0444 0502 0620 0711 0810 0901 0a12 0c50 0e01 0e12 0e22 0e30 0e31 0e40 0e50 "
                    "0e51 0e60 0e62 0e81 0e93 0ea2 0eb2 0ec2 0ed1 0ee1 0f03 0f40 0d10 0b02 0f00")
    body = b""
    for p in range(2):   # cells on every third (row + channel)
        cells = {(r, c): cell([428, 856, 113, 0, 320, 1000][(r + c) % 6], [1, 2, 3, 0, 31][(r + 2 * c) % 5],
                              *fx[(r // 2 + c + 5 * p) % len(fx)])
                 for r in range(64) for c in range(channels) if (r + c) % 3 == 0}
        if packed:
            masks = bytes(sum(0x80 >> c for c in range(channels) if (r, c) in cells) for r in range(64))
            data = b"".join(cells.values())
            body += be16(64 + len(data)) + masks + data
        else:
            body += b"".join(cells.get((r, c), bytes(4)) for c in range(channels) for r in range(64))
    out = bytes(head) + body + SQUARE[:128] + SQUARE[:64] + SQUARE[:96]
    return out[:len(out) - cut]


# ---- AHX and HivelyTracker songs ---------------------------------------------

def synth_song(hvl, channels=4, version=1, speed_mult=1, stereo=2):
    """A song whose instruments use every playlist command and modulation and
    whose tracks use every track command (both columns in HVL)."""
    fx_code = {12: 6, 15: 7}
    # playlist entries: (waveform, note, fixed, fx1, p1, fx2, p2)
    lead = [(3, 1, 0, 3, 0x20, 4, 0xF1), (0, 13, 0, 0, 0x10, 1, 4), (2, 1, 0, 2, 3, 12, 0x30),
            (0, 0, 0, 4, 0x01, 15, 2), (1, 49, 1, 3, 0x08, 5, 1)]
    drum = [(4, 30, 1, 12, 0x40, 0, 0x3F), (3, 20, 1, 3, 0x3C, 2, 20), (4, 10, 1, 12, 0x90, 15, 0)]
    ring = [(3, 1, 0, 7 * hvl, 0x81, 9 * hvl, 0x40), (0, 0, 0, 8 * hvl, 0x30, 4, 0xF0), (0, 0, 0, 7 * hvl, 0, 5, 0)]
    # (volume, wave length, ADSR, filter lower/upper/speed, vibrato, hard cut, square limits/speed, speed, list)
    instruments = [
        (64, 3, (4, 64, 8, 40, 16, 20, 0), (10, 40, 33), (2, 5, 24), (3, 1), (0x10, 0x30, 2), 1, lead),
        (48, 5, (1, 64, 4, 20, 0, 8, 0), (1, 63, 1), (0, 0, 0), (0, 0), (0x00, 0x3F, 1), 2, drum),
        (40, 2, (0, 64, 0, 64, 100, 0, 0), (30, 34, 4), (0, 15, 63), (7, 0), (0x3F, 0x01, 3), 0, ring),
    ]
    # track steps: (note, instrument, fx, param, fxb, paramb)
    t1 = [(25, 1, 0x9, 0x10, 0xE, 0xF1), (0, 0, 0x1, 4, 0, 0), (37, 0, 0x3, 0x20, 0x7, 0x40), (0, 0, 0x5, 0x21, 0, 0),
          (30, 2, 0xC, 0x30, 0xA, 0x04), (0, 0, 0xE, 0x13, 0xE, 0x24), (0, 0, 0xE, 0x41, 0xE, 0xA2),
          (42, 3, 0x4, 0x45, 0x4, 0x10), (0, 0, 0xE, 0xC2, 0, 0), (49, 1, 0xE, 0xD3, 0xE, 0xB1),
          (0, 0, 0x2, 0x03, 0xC, 0x70), (0, 0, 0xC, 0xB0, 0xF, 0x04), (13, 3, 0xF, 0x06, 0, 0),
          (0, 0, 0x0, 0x01, 0, 0), (60, 2, 0xD, 0x02, 0, 0), (0, 0, 0xB, 0x01, 0, 0)]
    tracks = [[(0,) * 6] * 16, t1, [(1 + 3 * i, 1 + i % 3, 0, 0, 0, 0) for i in range(16)]]
    out = bytearray((b"HVL" if hvl else b"THX") + bytes([version, 0, 0, (speed_mult - 1) << 5, 3]))
    out += bytes([(channels - 4) << 2 if hvl else 0, 1, 16, 2, 3, 2]) + (bytes([80, stereo]) if hvl else b"")
    out += bytes([0, 1, 0, 2])   # subsongs from positions 1 and 2
    out += b"".join(bytes([1 + (c + p) % 2, (c * 3 - 4) & 255]) for p in range(3) for c in range(channels))
    for n, i, fx, pa, fxb, pb in (step for t in tracks for step in t):
        if hvl:
            out += bytes([n, i, fx << 4 | fxb, pa, pb]) if n or i or fx or pa or fxb or pb else bytes([0x3F])
        else:
            out += bytes([n << 2 | i >> 4, (i & 15) << 4 | fx, pa])
    for vol, wl, (a, av, d, dv, st, r, rv), (lo, hi, fs), vib, hc, sq, speed, plist in instruments:
        out += bytes([vol, (fs & 31) << 3 | wl, a, av, d, dv, st, r, rv, 0, 0, 0, (fs & 32) << 2 | lo, vib[0],
                      hc[1] << 7 | hc[0] << 4 | vib[1], vib[2], sq[0], sq[1], sq[2], hi, speed, len(plist)])
        for w, n, fixed, f1, p1, f2, p2 in plist:
            if hvl:
                out += bytes([f1, f2 << 3 | w, fixed << 6 | n, p1, p2])
            else:
                out += bytes([fx_code.get(f2, f2) << 5 | fx_code.get(f1, f1) << 2 | w >> 1,
                              (w & 1) << 7 | fixed << 6 | n, p1, p2])
    out[4:6] = be16(len(out))   # where the names begin
    return bytes(out + b"seed\0lead\0drum\0ring\0")


# ---- MED/OctaMED modules -------------------------------------------------------

def mmd(version, songs, insts):
    """An MMD0-MMD3 file: songs = [(blocks, seq, tempo, tempo2, flags, flags2)],
    blocks = [(tracks, lines, {(line, track): (note, ins, cmd, data)})],
    insts = [(type, sample bytes, rep, replen, vol table, wf table, waves)]."""
    out = bytearray()

    def add(data, size=0):   # at the next even offset, padded to size; returns the offset
        out.extend(bytes(len(out) & 1) + data.ljust(size, b"\0"))
        return len(out) - max(size, len(data))

    def put(o, data):
        out[o:o + len(data)] = data

    headers, exps = [], []
    for si, (blocks, seq, tempo, tempo2, flags, flags2) in enumerate(songs):
        h = add(at(52, (0, (b"MCN" if si else b"MMD") + bytes([48 + version])), (51, bytes([len(songs) - 1]))))
        headers.append(h)
        track_vols = [64] * 16 if version < 2 else []   # MMD2 and later: in the section table
        sg = add(at(788, (0, b"".join(be16(i[2], i[3]) + bytes([0, 0, 48, 0]) for i in insts)),
                    (504, be16(len(blocks))), (764, be16(tempo) + bytes([0, flags, flags2, tempo2] + track_vols)),
                    (786, bytes([64, len(insts)]))))
        put(h + 8, be32(sg))
        offs, size, skip = [], 3 + (version > 0), 2 + 6 * (version > 0)
        for tracks, lines, cells in blocks:
            b = add(be16(tracks, lines - 1) if version else bytes([tracks, lines - 1]), skip + tracks * lines * size)
            offs.append(b)
            for (line, t), (note, ins, cmd, data) in cells.items():
                put(b + skip + (line * tracks + t) * size, bytes([note, ins, cmd, data]) if version else
                    bytes([(note & 0x3F) | ((ins & 0x30) << 2), ((ins & 15) << 4) | (cmd & 15), data]))
        put(h + 16, be32(add(be32(*offs))))
        if version < 2:
            put(sg + 506, be16(len(seq)) + bytes(seq))
        else:   # a play sequence and a section table, track volumes and pans
            ps = add(bytes(40) + be16(len(seq), *seq))
            tbl = add(be32(ps) + bytes(2) + bytes([64] * 16) + bytes([0xF0, 0x10, 0, 8] * 4))
            put(sg + 506, be16(1) + be32(tbl, tbl + 4, tbl + 6) + be16(16, 1) + be32(tbl + 22, 2))
        e = add(bytes(80) + bytes([2, 3, 0, 0xFF]) * len(insts))
        exps.append(e)
        put(h + 32, be32(e))
        put(e + 4, be32(e + 80) + be16(len(insts), 4))
    for e, h in zip(exps, headers[1:]):
        put(e, be32(h))
    arr = add(bytes(4 * len(insts)))
    for h in headers:
        put(h + 24, be32(arr))
    for i, (itype, data, rep, replen, vol, wf, waves) in enumerate(insts):
        if itype >= 0:
            o = add(be32(len(data)) + be16(itype) + data)
        else:   # synth (-1) or hybrid (-2, its first wave a sample)
            o = add(be32(272) + be16(itype) + bytes(4) + be16(rep, replen, len(vol), len(wf)) + bytes([1, 2]) +
                    be16(len(waves)), 278 + 4 * len(waves))
            put(o + 22, bytes(vol))
            put(o + 150, bytes(wf))
            for w, wave in enumerate(waves):
                head = be32(len(wave)) + be16(0) if itype == -2 and w == 0 else be16(len(wave) // 2)
                put(o + 278 + 4 * w, be32(add(head + wave) - o))
        put(arr + 4 * i, be32(o))
    put(4, be32(len(out)))
    return bytes(out)


def med_old(version):
    """A MED3 or MED4 song of one packed block using two instruments."""
    if version == 3:
        out = b"MED\x03" + b"\0" + b"s1\0" + b"\0" * 30
        out += be32(0x60000000) + bytes([64, 50])            # volumes of slots 1, 2
        out += be32(0x40000000) + be16(0) + be32(0x40000000) + be16(16)
        out += be16(1, 2) + bytes([0, 0]) + be16(40) + bytes([0, 0]) + be16(6) + bytes(20) + be32(0) + be32(0)
        # Block: 4 tracks; lines 0-31 with notes and commands on track 0
        # (a track mask nibble, then note byte and instrument nibble, or
        # command nibble and data byte), lines 32-63 empty.
        data = bytes.fromhex("80d1" + "8f20" + ("8111" + "8d02") * 31)
        out += bytes([4, 0xA5]) + be16(len(data)) + data
        return out + be32(0x40000000) + be32(64) + be16(0) + SQUARE[:64]
    out = b"MED\x04" + bytes([0x80, 0xC0])                   # instruments 1 and 2
    out += bytes([0x30, 1]) + b"a" + be16(0, 16) + bytes([0, 0, 0])
    out += bytes([0x7F, 1]) + b"b"
    out += be16(1, 2) + bytes([0, 0]) + be16(35) + bytes([0, 0x10]) + be16(6) + bytes(20) + bytes([64] * 16) + b"\x40"
    data = bytes.fromhex(("c" + "0d1" + "112" + "8" + "c30") * 16)   # notes on tracks 0, 1; C30 on track 0
    blk = bytes([4, 15]) + be16(len(data)) + bytes([0x33]) + be32(0xFFFF0000)
    out += bytes([len(blk)]) + blk + data
    synth = b"MSH\0" + be16(0xFFFF, 0, 0, 0, 0, 4, 6) + bytes([1, 1]) + be16(1)
    synth += bytes([40, 0xF2, 2, 0xFF]) + bytes([0, 0xFC, 0, 7, 0xFD, 0xFF]) + be32(34) + be16(16) + SQUARE[:32]
    out += be32(0x60000000, 0) + be32(64) + be16(0) + SQUARE[:64] + be32(len(synth)) + be16(0xFFFF) + synth
    return out + b"MEDV" + be32(4) + be32(0x0300)


def med_seeds():
    fx = {(0, 0): (13, 1, 0x01, 2), (0, 1): (20, 2, 0x04, 0x34), (1, 2): (25, 1, 0x00, 0x37),
          (2, 3): (13, 2, 0x08, 0x21), (3, 0): (0, 1, 0x0D, 0x03), (4, 1): (15, 1, 0x0F, 0xF1),
          (5, 2): (0, 0, 0x0F, 0x40), (6, 3): (30, 2, 0x0C, 0x32), (7, 0): (0, 0, 0x09, 3),
          (8, 1): (17, 1, 0x03, 0x10), (9, 2): (0, 0, 0x0E, 1), (10, 3): (18, 2, 0x0F, 0xF3),
          (11, 0): (0, 0, 0x0F, 0x00)}
    wide = {(0, 0): (13, 1, 0x16, 0), (1, 4): (25, 2, 0x1F, 0x12), (2, 5): (37, 1, 0x19, 1),
            (3, 0): (0, 0, 0x16, 2), (4, 5): (0, 0, 0x1E, 1), (5, 3): (49, 2, 0x1D, 2),
            (6, 1): (0, 0, 0x0F, 0xFE)}
    mix = {(0, 0): (40, 1, 0x2E, 0xF0), (1, 1): (52, 2, 0x2E, 0x10), (2, 2): (64, 3, 0x0B, 0)}
    sample = (0, SQUARE[:96], 0, 48, [], [], [])
    synth = (-1, b"", 0, 0, [48, 0xF2, 4, 0xF1, 2, 0xFE, 1], [0, 0xF4, 8, 0xF5, 30, 0xFC, 0, 4, 7, 0xFD, 1, 0xFE, 1],
             [SQUARE[:32], SQUARE[:64]])
    hybrid = (-2, b"", 0, 16, [64, 0xF4, 1, 0xFB], [0xF1, 2, 1, 0xFF], [SQUARE[:64], SQUARE[:32]])
    s16 = (0x30, SQUARE[:128], 0, 32, [], [], [])
    return {
        "mmd0": mmd(0, [([(4, 12, fx)], [0, 0], 6, 6, 0x20, 0)], [sample, synth]),
        "mmd1-bpm": mmd(1, [([(4, 12, fx), (4, 4, {})], [0, 1, 0], 125, 6, 0x10, 0x23)], [sample, hybrid]),
        "mmd2-songs": mmd(2, [([(6, 8, wide)], [0], 33, 4, 0x40, 0), ([(4, 12, fx)], [0], 6, 6, 0, 0x20)],
                          [sample, synth]),
        "mmd3-mix": mmd(3, [([(4, 4, mix)], [0], 33, 3, 0, 0x80)], [s16, synth, hybrid]),
        "med3": med_old(3),
        "med4": med_old(4),
    }


# ---- eagleplayer.conf and songlengths.db --------------------------------------

def conf_seeds():
    return {
        "shipped": (HERE / ".." / "data" / "kelva_data" / "eagleplayer.conf").read_bytes(),
        "items": (b"A prefixes=mod,x,,y,mod.song epopt=type:pt30 epopt=type:st20\n"
                  b"B prefixes= prefixes=mod epopt=\n"
                  b"#comment\n\n\tA prefixes=tfx\n"
                  b"TFMX prefixes=mdat,tfx,TFX\r\n"
                  b"PTK-Prowiz\tprefixes=mod\tepopt=type:pt30\r\n"),
        "long-line": b"A prefixes=" + b"x," * 3000 + b"mod\nB prefixes=" + b"y" * 70 + b",mod\n",
        "long-name": b"N" * 300 + b" prefixes=mod\nPTK-Prowiz prefixes=mod epopt=" + b"o" * 300 + b"\n",
    }


def db_seeds():
    k = "0123456789abcdef" * 2
    return {
        "records": ("%s 183000 tune.mod\n%s -1 broken.mod\n%s 5 count\n" % (k, "f" * 32, "0" * 32)).encode(),
        "bad-lines": ("%s 1 short key\n%sg 1 bad digit\n%s\n%s 99999999999 overflow\n%s 7" %
                      (k[:31], k[:31], k, k, k)).encode(),
        "no-newline": (k + " 42 x\n" + k + " 43").encode(),
    }


def named(file_name, module, subsong=0, companion=None):
    """An engine input naming its module (0xFF), so that identification picks the player; with a
    companion (0xFE), also the file the player finds under the module's name + ".nt"."""
    name = bytes([0xFF if companion is None else 0xFE, subsong]) + file_name.encode("latin-1") + b"\0"
    return name + (b"" if companion is None else be32(len(companion)) + companion) + module


def main():
    if len(sys.argv) not in (1, 3) or len(sys.argv) == 3 and sys.argv[1] != "--modules":
        sys.exit(__doc__)
    real = {}
    for root, _, files in os.walk(sys.argv[2]) if len(sys.argv) == 3 else ():
        for path in sorted(Path(root, f) for f in files if f.lower().endswith(".mod")):
            if path.stat().st_size < 10240:
                real["real-" + path.name.replace(" ", "_")] = path.read_bytes()
    mods, multi = module_seeds(), multichannel_seeds()
    # Identification: as x.mod, and a few as mod.x and song.tfx.
    identify = {n: bytes([0]) + d for n, d in mods.items()}
    for n in ("mk-effects", "st15-ust", "tfmx-7v", "tfhd-2"):
        identify.update({n + "-prefix": bytes([1]) + mods[n], n + "-tfx": bytes([5]) + mods[n]})
    # Engine: byte 0 picks a player by its index in the tree's name order;
    # these were written for a tree of PTK-Prowiz, Soundtracker-IV and
    # UltimateSoundtracker (3: identification chooses). Later formats name
    # their module, so that identification picks their player.
    engine = {n: bytes([3, 0]) + d for n, d in {**mods, **real}.items() if not n.startswith("tf")}
    engine.update({"mk-effects-ptk": bytes([0, 1]) + mods["mk-effects"],
                   "mk-effects-st4": bytes([1, 0]) + mods["mk-effects"],
                   "st15-st4-ust": bytes([2, 2]) + mods["st15-st4"], "flt4-st4": bytes([1, 3]) + mods["flt4"]})
    # Oktalyzer splits channels on 0, 2 or 4 Paula channels; PolyTracker,
    # Oktalyzer and DIGI Booster files are also cut short.
    engine.update({
        "sfx13": named("SFX.seed", sfx_seed()), "sfx20": named("seed.sfx", sfx_seed(True)),
        "gmc": named("gmc.seed", gmc_seed()), "ims": named("seed.ims", ims_seed()),
        "ims-st": named("seed.st", ims_seed()), "ptm": named("seed.ptm", ptm_seed()),
        "ptm-9ch": named("seed.ptm", ptm_seed(9)), "ptm-cut": named("seed.ptm", ptm_seed(32, 600)),
        "okt-6ch": named("seed.okt", okt_seed()), "okt-8ch": named("OKT.seed", okt_seed((1, 1, 1, 1))),
        "okt-4ch": named("seed.okta", okt_seed((0, 0, 0, 0))), "okt-cut": named("seed.okt", okt_seed(cut=700)),
        "okt2": named("seed.okt2", okt_seed((1, 0, 0, 1), b"OKTASNG2")), "digi-8ch": named("seed.digi", digi_seed()),
        "digi-3ch-unpacked": named("seed.digi", digi_seed(3, False)),
        "digi-cut": named("seed.digi", digi_seed(5, True, 200)), "ahx1": named("seed.ahx", synth_song(False)),
        "ahx0-sub2": named("AHX.seed", synth_song(False, 4, 0, 2), 2),
        "hvl-6ch": named("seed.hvl", synth_song(True, 6, stereo=0)),
        "hvl-16ch-sub1": named("seed.hvl", synth_song(True, 16, speed_mult=4), 1),
        "hvl-4ch": named("seed.hvl", synth_song(True, 4, 0))})
    engine.update({n: named("seed.mod", d) for n, d in multi.items()})
    engine.update({n: named("seed.mod", d, 0, nt) for n, (d, nt) in am_seeds().items()})
    for name, data in med_seeds().items():   # MMD2 songs: subsongs 0 and 2
        for sub in (0, 2) if "songs" in name else (0,):
            engine["med-%s-%d" % (name, sub)] = named("song." + ("med" if name[:3] == "med" else name[:4]), data, sub)
    for target, seeds in (("hunk", hunk_seeds()), ("classify", {**mods, **real, **multi}), ("identify", identify),
                          ("engine", engine), ("epconf", conf_seeds()), ("songdb", db_seeds())):
        (HERE / "corpus" / target).mkdir(parents=True, exist_ok=True)
        for name, data in seeds.items():
            (HERE / "corpus" / target / ("seed-" + name)).write_bytes(data)


if __name__ == "__main__":
    main()
