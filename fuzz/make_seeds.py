#!/usr/bin/env python3
"""Writes the seeds of the fuzz corpora (fuzz/README.md). Usage: make_seeds.py BUILD FUZZ_BUILD

Hunk files, configurations and database files are written here; the modules come from the player tests of the
release build BUILD (KELVA_FUZZ_SEEDS), of which the libFuzzer programs of FUZZ_BUILD keep those that add edges.
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile
from pathlib import Path

HERE = Path(__file__).resolve().parent


def be32(*v):
    return struct.pack(">%dI" % len(v), *(x & 0xFFFFFFFF for x in v))


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


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    build, fuzz_build = (Path(a).resolve() for a in sys.argv[1:])
    for target, seeds in (("hunk", hunk_seeds()), ("epconf", conf_seeds()), ("songdb", db_seeds())):
        for name, data in seeds.items():
            (HERE / "corpus" / target / ("seed-" + name)).write_bytes(data)
    env = dict(os.environ, KELVA_DATA=str(build / "kelva_data"), KELVA_FUZZ_PLAYERS=str(build / "kelva_data/players"))
    with tempfile.TemporaryDirectory() as tmp:
        subprocess.run([build / "tests" / "kelva_tests", "--gtest_filter=Ptk*:Med*:Ahx*:Trackers*:SwMix*"],
                       env=dict(env, KELVA_FUZZ_SEEDS=tmp), check=True, stdout=subprocess.DEVNULL)
        for target in ("engine", "classify", "identify"):
            for old in (HERE / "corpus" / target).glob("seed-" + "[0-9a-f]" * 40):
                old.unlink()
            kept = Path(tempfile.mkdtemp(dir=tmp))
            subprocess.run([fuzz_build / "fuzz" / ("kelva_fuzz_" + target), "-merge=1", "-use_counters=0", kept,
                            Path(tmp, target)], env=env, check=True, capture_output=True)
            for f in sorted(kept.iterdir()):
                shutil.move(f, HERE / "corpus" / target / ("seed-" + f.name))


if __name__ == "__main__":
    main()
