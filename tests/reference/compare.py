#!/usr/bin/env python3
"""compare.py - kelva's players against independent renderers on the shared test modules.

Usage: compare.py KELVA DATA_TREE SHARED_DIR WORK_DIR [--folders=A,B] [MODULE...]

Renders the first 60 s of the modules (of the folders named, all of REFERENCE's by default, under
SHARED_DIR/testdata/modules/, or named as folder/file) with kelva and with the reference REFERENCE
names, and compares their lengths and 100 ms RMS envelopes. A module fails when its length differs
by more than 1 s or its envelope correlation is below 0.95, unless KNOWN lists the difference with
its reason. Exits 0 when nothing fails, 1 otherwise, 77 when a tool or the data is missing.
"""

import array
import concurrent.futures
import json
import math
import os
import re
import shutil
import statistics
import subprocess
import sys

LENGTH_TOLERANCE_S = 1.0
CORR_THRESHOLD = 0.95
SECONDS = 60

# The reference of each folder kelva plays, and of the modules whose reference differs from their
# folder's.
REFERENCE = {
    **dict.fromkeys(("debian", "st15", "variants", "effects", "multichannel", "med", "okt"), "openmpt"),
    "ahx": "envelope",
    "hvl": "envelope",
    # Startrekker AM synth sounds: openmpt123 plays them silent.
    "startrekker-am": "xmp",
    # openmpt123 does not load Game Music Creator and Images Music System modules; PolyTracker's
    # loudness curve and its song-wide pattern loop are xmp's (openmpt123 plays
    # pattern_loop_ptm's loops per channel: 59.6 s against 10 s).
    **dict.fromkeys(("other/gmc.ingame", "other/redoctober-sub-docking.ims", "other/rew_vibr.ptm",
                     "other/pattern_loop_ptm.ptm"), "xmp"),
    # MED 2/3/4 songs: openmpt123 does not load them.
    **dict.fromkeys(("med/med3song.med", "med/Synth-a-sysmic.med", "med/med4song.med"), "xmp"),
    # Synthetic sounds: openmpt123 plays them silent.
    **dict.fromkeys(("med/chip_happy.med", "med/med_synth_diff_speeds.med", "med/moods-yeah.med"), "xmp"),
    # openmpt123 plays this song's octave samples differently from both xmp and kelva (per track
    # its envelopes correlate 0.57-0.87 with xmp's, kelva's 0.975-0.999).
    "med/memories of anna.mmd1": "xmp",
}

# The references: openmpt123 renders 60 s with the Amiga resampler, A500, hard panning (duration from
# --info); xmp the whole song (its duration) with its Paula mixer, full separation; "envelope" is the
# folder's REFERENCE-ENVELOPES.tsv (100 ms RMS of the first 60 s by the format's own replayer).
TOOLS = {
    "openmpt": ["openmpt123", "--batch", "--quiet", "--samplerate", "48000", "--channels", "2", "--float",
                "--subsong", "0", "--stereo", "200", "--ctl", "render.resampler.emulate_amiga=1",
                "--ctl", "render.resampler.emulate_amiga_type=a500", "--end-time", str(SECONDS), "--force",
                "-o", "{out}", "{src}"],
    "xmp": ["xmp", "--nocmd", "--norc", "-q", "-d", "wav", "-o", "{out}", "-f", "48000", "-A", "-P", "100",
            "-t", "1200", "{src}"],
}


def okt_as_oktasong(data):
    """OKTASNG2 songs have the OKTASONG chunks under another tag, which neither reference knows;
    the reference plays them retagged."""
    return b"OKTASONG" + data[8:]


def orbit_keep_first_speed(data):
    """openmpt123 drops the speed command (28, speed 4) of orbit.okta's first row, channel 0,
    because channel 1 of the same split channel sets the volume (31) on that row: it plays the
    first pattern at the starting speed 15 (335.3 s; xmp and Oktalyzer's replay 323.0 s). The
    volume command sets the value the pair starts with (64) and can go; with it gone, openmpt123
    keeps the speed."""
    data = bytearray(data)
    cmod, cell = data.find(b"CMOD") + 8, data.find(b"PBOD") + 8 + 2 + 4 * 1   # pattern 0, row 0, channel 1
    split = bytes([0, 1, 0, 1, 0, 1, 0, 0])   # channels 0-2 split, 3 not: 7 channels
    assert data[cmod:cmod + 8] == split and data[cell + 2:cell + 4] == bytes([31, 64])
    data[cell + 2:cell + 4] = b"\0\0"
    return bytes(data)


# Modules whose reference renders a patched copy: module -> function of the file's bytes.
REFERENCE_PATCH = {
    "okt/45.okt2": okt_as_oktasong,
    "okt/orbit.okta": orbit_keep_first_speed,
}

# Files in the folders that are not modules of their own (companion files).
COMPANION_SUFFIXES = (".nt", ".NT", ".md", ".tsv")

# Understood differences: module -> (what is exempt: "corr" the envelope correlation, "length" the length; why).
KNOWN = {
    # Startrekker AM sounds against xmp 4.5 (both modules sound alike left and right as the tracker played them;
    # kelva's largest |L - R| is 0.034). xmp stretches the AM envelope's stages to 256 x distance / (rate x span)
    # ticks: instrument 1's first attack lasts 127 ticks there, 96 in the tracker.
    "startrekker-am/flt_am_envelope.mod": (("corr",), "xmp 4.5 stretches the AM envelope's stages"),
    # The tracker reads the cut last .nt record's missing fields as 0; completed in a copy, xmp loads it (0.938)
    # and plays instrument 2's sample where the AM sound takes precedence.
    "startrekker-am/flt_am_override.mod": (("length", "corr"), "xmp 4.5 does not load it"),
    # Steady tones only: both envelopes are flat, so the correlation measures the last 0.1 % of ripple.
    "effects/AmigaLimitsFinetune.mod": (("corr",), "flat envelope, levels agree within 2 %"),
    "effects/ArpWraparound.mod": (("corr",), "flat envelope, levels agree within 3 %"),
    # B00+D04 on position 1 re-enters position 0 at row 4, whose E61 loops to row 0 again and again: kelva
    # ends when a row outside a running pattern loop comes round again (11 rows, 1.32 s), openmpt after 43.
    "effects/PatLoop-Break.mod": (("length",), "endless under the replay rules; loop detection differs"),
    # SoundFX ticks at its CIA delay on the PAL E-clock (37768 / 709379 s = 53.24 ms); the references take
    # 14565 x 122 / delay BPM (53.13 ms) and drift apart by 0.2 % (0.994 with their tick).
    "other/SFX.Crockett's_theme": (("corr",), "reference tick 0.2 % short of the CIA delay's"),
    # xmp reads the samples 768 bytes early (after the patterns the song names, not at the offset stored at
    # 1080, which counts a third, unused pattern) and drops notes below C-1; both undone in a copy: 0.997.
    "other/redoctober-sub-docking.ims": (("corr",), "xmp misplaces the samples and drops notes below C-1"),
    # PolyTracker keeps one pattern loop for the whole song (global target and counter, as the file's own
    # instrument names describe); xmp 4.5 loops per channel (9.66 s).
    "other/pattern_loop_ptm.ptm": (("length",), "song-wide pattern loop; xmp loops per channel"),
    # MED/OctaMED. Each difference was checked on an edited copy, as the figures say.
    "med/LOSTMEDFILES_MMD1.MED": (("length",), "measured to the 10-minute limit; kelva's own end (975.0 s) plays the "
                                  "closing tempos F10-F1E, which openmpt123 reads as slides and xmp ignores; without "
                                  "them kelva 969.3 s, openmpt123 968.9 s"),
    "med/Synth-a-sysmic.med": (("length", "corr"), "xmp 4.5 truncates tempo 35 to 132 BPM (374.5 s; kelva 372.9 s), "
                               "ignores command 0E (synth jump) and steps the synth sequences one entry a step at "
                               "the volume sequence's speed; at tempo 33 without 0E, sequences rewritten to act "
                               "alike, the tracks correlate 0.92/0.999/0.994/0.91"),
    "med/instruments.mmd3": (("length", "corr"), "F20 at 3 lines a beat is 24 BPM, which openmpt123 floors at 32 "
                             "(10.0 s; kelva 13.4 s), and it plays the synthetic and hybrid sounds silent; at 33 BPM "
                             "the lengths agree (9.698/9.696 s), without synthetic notes 0.993"),
    "med/med3song.med": (("length", "corr"), "its instrument file is missing (both silent); xmp keeps FC0's 727 BPM "
                         "in a byte (215 BPM: 6.6 s; kelva 5.4 s); with F40 both last 6.44 s"),
    "med/med4song.med": (("length", "corr"), "no reference plays it (openmpt123 has no MED4 loader, xmp 4.5: "
                         "\"Unrecognized file format\"); its instrument files are missing: 7.7 s of silence"),
    "med/mmd0_compat_tempo.med": (("corr",), "openmpt123 neither replays FF1 notes on the fourth tick nor delays FF2 "
                                  "notes by half a line; without FF1/FF2, 0.991"),
    "med/mmd2_compat_tempo.med": (("corr",), "FF1/FF2 as mmd0_compat_tempo; without them, 0.969"),
    "med/stereo.med": (("corr",), "a track panned across the field: openmpt123's 200 % separation deepens the pan's "
                       "effect on the level (at 100 %, 0.9996)"),
    "med/moods-yeah.med": (("corr",), "synthetic sounds silent in openmpt123; xmp leaves out the MMD3 notes below 25 "
                           "(the bass); with those 272 notes raised an octave, 0.981"),
}


def run(cmd, env=None, timeout=900):
    return subprocess.run(cmd, capture_output=True, text=True, env=env, timeout=timeout)


def rms_envelope(path, rate=48000, block_ms=100):
    """RMS of each 100 ms block of a float stereo WAV by kelva, both channels together."""
    with open(path, "rb") as f:
        data = f.read()
    pos = data.find(b"data") + 8
    s = array.array("f", data[pos:pos + (len(data) - pos) // 4 * 4])
    if sys.byteorder != "little":
        s.byteswap()
    n = rate * block_ms // 1000 * 2
    return [math.sqrt(math.fsum(v * v for v in s[i:i + n]) / n) for i in range(0, len(s) - n + 1, n)]


def pearson(x, y):
    n = min(len(x), len(y))
    try:
        return statistics.correlation(x[:n], y[:n])
    except statistics.StatisticsError:   # fewer than two values, or a constant one
        return 0.0


def envelope_reference(folder_dir, name):
    """The stored envelope of a module and the duration the SOURCES.md column "hvl2wav" gives."""
    with open(os.path.join(folder_dir, "REFERENCE-ENVELOPES.tsv"), encoding="utf-8") as f:
        env = next(([float(v) for v in line.split("\t", 1)[1].split()] for line in f if line.startswith(name + "\t")),
                   None)
    with open(os.path.join(folder_dir, "SOURCES.md"), encoding="utf-8") as f:
        rows = [[c.strip() for c in line.strip().strip("|").split("|")] for line in f if line.startswith("|")]
    col = [i for i, h in enumerate(rows[0]) if "hvl2wav" in h][0]
    m = next((re.fullmatch(r"(\d+):(\d+(?:\.\d+)?)", r[col]) for r in rows if r[0] == name), None)
    return env, int(m.group(1)) * 60 + float(m.group(2)) if m else None


def reference_render(kind, path, out, res):
    """Renders with the reference program (RuntimeError when it fails); sets res["ref_s"] for openmpt123."""
    r = run([a.format(out=out, src=path) for a in TOOLS[kind]])
    if r.returncode != 0 or not os.path.exists(out):
        raise RuntimeError("%s failed: %s" % (TOOLS[kind][0], (r.stderr.strip() or r.stdout.strip())[-200:]))
    if kind == "openmpt":
        r = run(["openmpt123", "--info", "--subsong", "0", path])
        m = re.search(r"Duration\.*:\s*(?:(\d+):)?(\d+):(\d+(?:\.\d+)?)", r.stdout + r.stderr)
        res["ref_s"] = int(m.group(1) or 0) * 3600 + int(m.group(2)) * 60 + float(m.group(3)) if m else None


def reference_of(name):
    return REFERENCE.get(name, REFERENCE.get(name.split("/")[0], "openmpt"))


def compare_one(path, tool, tree, shared, work):
    root = os.path.join(shared, "testdata", "modules")
    name = os.path.relpath(path, root)
    kind, stem = reference_of(name), os.path.join(work, name.replace("/", "_").replace(" ", "_"))
    a, b, res = stem + ".kelva.wav", stem + "." + kind + ".wav", {"module": name, "ref": reference_of(name)}
    # As a user runs it: the length measured (into a song-length database of the module's own), then 60 s
    # rendered, or less when the song is shorter; A500 filter, full separation, float samples.
    env = dict(os.environ, KELVA_DATA=tree, XDG_DATA_HOME=stem + ".db")
    info = run([tool, "info", "--json", path], env=env)
    r = run([tool, "render", path, "-o", a, "--bits", "float", "--separation", "1", "--seconds", str(SECONDS)],
            env=env) if info.returncode == 0 else info
    shutil.rmtree(stem + ".db", ignore_errors=True)
    if r.returncode != 0:
        res["error"] = "kelva: " + (r.stderr.strip().splitlines() or ["failed"])[-1]
        return res
    info = json.loads(info.stdout)[0]
    res.update(player=info["player"], kelva_s=info["subsongs"][0]["length_ms"] / 1000.0,
               reason=info["subsongs"][0]["reason"])
    try:
        if kind == "envelope":
            ref_env, res["ref_s"] = envelope_reference(os.path.dirname(path), os.path.basename(path))
            if ref_env is None:
                raise RuntimeError("no reference envelope")
            res.update(corr=pearson(rms_envelope(a), ref_env), offset_ms=0)
            return res
        source = path
        if name in REFERENCE_PATCH:
            source = stem + ".patched"
            with open(path, "rb") as f, open(source, "wb") as g:
                g.write(REFERENCE_PATCH[name](f.read()))
        reference_render(kind, source, b, res)
        d = json.loads(run([sys.executable, os.path.join(shared, "tools", "audiocmp.py"), a, b]).stdout)
        res.update(corr=d["env_corr"], offset_ms=d["offset_ms"], rms_db=d.get("rms_ratio_db"), worst=d.get("worst_5s"))
        if kind == "xmp":   # its render is the whole song
            res["ref_s"] = d["b"]["duration_s"]
    except RuntimeError as e:
        res["error"] = str(e)
    except (ValueError, LookupError, OSError) as e:
        res["error"] = "comparison failed: %s" % e
    finally:
        for f in (a, b, stem + ".patched"):
            if os.path.exists(f):
                os.remove(f)
    return res


def list_modules(root, args):
    names = [a for a in args if not a.startswith("--folders=")]
    folders = [f for a in args if a.startswith("--folders=") for f in a[len("--folders="):].split(",") if f]
    if names:
        return [os.path.join(root, m) for m in names]
    return [os.path.join(root, d, f) for d in sorted(folders or [f for f in REFERENCE if "/" not in f])
            if os.path.isdir(os.path.join(root, d)) for f in sorted(os.listdir(os.path.join(root, d)))
            if f != "SOURCES.md" and not f.endswith(COMPANION_SUFFIXES)]


def report(r):
    """Prints a module's line; returns the problems KNOWN does not explain."""
    if "error" in r:
        print("%-40s ERROR (%s)" % (r["module"], r["error"]))
        return ["error"]
    exempt, why = KNOWN.get(r["module"], ((), ""))
    # The measured length is what listeners get: the player's song end for players that signal
    # it, else the first of silence, repetition or the limit.
    diff = r["kelva_s"] - r["ref_s"] if r.get("ref_s") is not None else float("nan")
    problems = [p for p, ok in (("length", abs(diff) <= LENGTH_TOLERANCE_S), ("corr", r["corr"] >= CORR_THRESHOLD))
                if not ok]
    open_problems = [p for p in problems if p not in exempt]
    text = "BELOW THRESHOLD (%s)" % ",".join(open_problems) if open_problems else "known: " + why if problems else "ok"
    print("%-40s %-20s %-8s %9.3f %-10s %9.3f %+7.3f %8.4f %s" % (
        r["module"], r["player"], r["ref"], r["kelva_s"], r["reason"], r.get("ref_s") or 0, diff,
        r["corr"], text))
    if problems and r.get("worst"):
        print("    worst 5 s at %.1f s: %.4f; offset %d ms; level %+.2f dB" % (
            r["worst"]["start_s"], r["worst"]["env_corr"], r["offset_ms"], r["rms_db"] or 0))
    return open_problems


def main():
    if len(sys.argv) < 5:
        print(__doc__)
        return 2
    tool, tree, shared, work = sys.argv[1:5]
    root = os.path.join(shared, "testdata", "modules")
    modules = list_modules(root, sys.argv[5:])
    programs = sorted({TOOLS[k][0] for k in (reference_of(os.path.relpath(p, root)) for p in modules) if k in TOOLS})
    for missing, what in [(not os.path.exists(os.path.join(shared, "tools", "audiocmp.py")) or not os.path.isdir(root),
                           "shared test data not found in " + shared),
                          (not os.path.exists(os.path.join(tree, "players", "PTK-Prowiz")),
                           "the players were not built (no cross toolchain?)")] + \
            [(not shutil.which(p), p + " is not installed") for p in programs]:
        if missing:
            print("SKIP: " + what)
            return 77
    os.makedirs(work, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as ex:
        results = list(ex.map(lambda p: compare_one(p, tool, tree, shared, work), modules))
    print("%-40s %-20s %-8s %9s %-10s %9s %7s %8s %s" % (
        "module", "player", "ref", "measured", "reason", "ref_s", "diff_s", "env_corr", "verdict"))
    failed = [r["module"] for r in results if report(r)]
    print("%d modules, %d below threshold: %s" % (len(results), len(failed), " ".join(failed) or "none"))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
