#!/usr/bin/env python3
"""compare.py - kelva's players against independent renderers on the shared
test modules.

Usage: compare.py RENDER_TOOL DATA_TREE SHARED_DIR WORK_DIR [--folders=A,B] [MODULE...]

For every module of the folders listed in FOLDERS under
SHARED_DIR/testdata/modules/ (or of the folders named by --folders, or the
named modules, given as folder/file):
  - renders the first 60 s with kelva (tests/reference/kelva_render_wav: 48 kHz,
    A500 filter, separation 1.0) and measures kelva's song length;
  - takes the reference the module's folder (or REFERENCE) names:
      openmpt   renders 60 s with openmpt123 (Amiga resampler, A500, hard
                panning) and reads openmpt123's duration;
      xmp       renders the whole song with xmp (Paula mixer, full
                separation); its length is the duration;
      envelope  the folder's REFERENCE-ENVELOPES.tsv (the 100 ms RMS envelope
                of the first 60 s by the format's own replayer) and the
                duration SOURCES.md gives for that replayer;
  - compares the renders with SHARED_DIR/tools/audiocmp.py (envelope
    correlation at the best alignment), or kelva's 100 ms RMS envelope with
    the stored one.
Prints one line per module with every figure, then a summary. A module fails
when its length differs by more than 1 s or its envelope correlation is
below 0.95, unless the difference is listed in KNOWN with its reason. Exits 0
when nothing fails, 1 otherwise, 77 when a tool or the data is missing
(ctest's skip code).
"""

import array
import concurrent.futures
import json
import math
import os
import re
import shutil
import subprocess
import sys

LENGTH_TOLERANCE_S = 1.0
CORR_THRESHOLD = 0.95
SECONDS = 60

# The folders whose formats kelva plays, and the reference for each.
FOLDERS = {
    "debian": "openmpt",
    "st15": "openmpt",
    "variants": "openmpt",
    "effects": "openmpt",
    "multichannel": "openmpt",
    # Startrekker AM synth sounds: openmpt123 plays them silent.
    "startrekker-am": "xmp",
    "ahx": "envelope",
    "hvl": "envelope",
    "med": "openmpt",
    "okt": "openmpt",
}

# Modules whose reference differs from their folder's: module -> reference.
# openmpt123 does not load Game Music Creator and Images Music System
# modules; PolyTracker's loudness curve and its song-wide pattern loop are
# xmp's (openmpt123 plays pattern_loop_ptm's loops per channel: 59.6 s
# against 10 s).
REFERENCE = {
    "other/gmc.ingame": "xmp",
    "other/redoctober-sub-docking.ims": "xmp",
    "other/rew_vibr.ptm": "xmp",
    "other/pattern_loop_ptm.ptm": "xmp",
    # MED 2/3/4 songs: openmpt123 does not load them.
    "med/med3song.med": "xmp",
    "med/Synth-a-sysmic.med": "xmp",
    "med/med4song.med": "xmp",
    # Synthetic sounds: openmpt123 plays them silent.
    "med/chip_happy.med": "xmp",
    "med/med_synth_diff_speeds.med": "xmp",
    "med/moods-yeah.med": "xmp",
    # openmpt123 plays this song's octave samples differently from both xmp
    # and kelva (per track its envelopes correlate 0.57-0.87 with xmp's,
    # kelva's 0.975-0.999).
    "med/memories of anna.mmd1": "xmp",
}


def okt_chunks(data):
    """(name, data offset, length) of an Oktalyzer song's chunks."""
    at, out = 8, []
    while at + 8 <= len(data):
        length = int.from_bytes(data[at + 4:at + 8], "big")
        out.append((data[at:at + 4], at + 8, length))
        at += 8 + length
    return out


def okt_as_oktasong(data):
    """OKTASNG2 songs have the OKTASONG chunks under another tag, which
    neither reference knows; the reference plays them retagged."""
    return b"OKTASONG" + data[8:]


def orbit_keep_first_speed(data):
    """openmpt123 drops the speed command (28, speed 4) of orbit.okta's first
    row, channel 0, because channel 1 of the same split channel sets the
    volume (31) on that row: it plays the first pattern at the starting
    speed 15 (335.3 s; xmp and Oktalyzer's replay 323.0 s). The volume
    command sets the value the pair starts with (64) and can go; with it
    gone, openmpt123 keeps the speed."""
    data = bytearray(data)
    chunks = okt_chunks(data)
    channels = 4 + sum(1 for i in range(4) if data[chunks[0][1] + 2 * i:chunks[0][1] + 2 * i + 2] != b"\0\0")
    pattern0 = [c for c in chunks if c[0] == b"PBOD"][0]
    cell = pattern0[1] + 2 + 4 * 1   # row 0, channel 1
    assert channels == 7 and data[cell + 2:cell + 4] == bytes([31, 64])
    data[cell + 2:cell + 4] = b"\0\0"
    return bytes(data)


# Modules whose reference renders a patched copy: module -> function of the
# file's bytes.
REFERENCE_PATCH = {
    "okt/45.okt2": okt_as_oktasong,
    "okt/orbit.okta": orbit_keep_first_speed,
}

# Files in the folders that are not modules of their own (companion files).
COMPANION_SUFFIXES = (".nt", ".NT", ".md", ".tsv")

# Understood differences: module -> (what is exempt, why). "corr" exempts the
# envelope correlation, "length" the length, "error" a module kelva does not
# open.
KNOWN = {
    # Startrekker AM sounds against xmp 4.5, whose loader turns the AM
    # envelope into an XM envelope with stage lengths of 256 x distance /
    # (rate x span) ticks: instrument 1's first attack (0x40 to 0xFF by 2)
    # lasts 127 ticks there and 96 in the tracker. The module is made so that
    # its left and right channels sound alike when played as the tracker
    # did: kelva's render does (largest |L - R| 0.034), xmp's does not (its
    # 10 ms envelopes of left and right correlate 0.918).
    "startrekker-am/flt_am_envelope.mod": (("corr",), "xmp 4.5 stretches the AM envelope's stages"),
    # xmp 4.5 refuses this module because the last record of its .nt file is
    # cut short (the tracker reads the missing fields as 0). With the record
    # completed by zeros in a copy, xmp loads it and its render correlates
    # 0.938 with kelva's: xmp 4.5 plays instrument 2's sample where the AM
    # sound takes precedence. kelva plays left and right alike, as the
    # module is made to sound.
    "startrekker-am/flt_am_override.mod": (("length", "corr"), "xmp 4.5 does not load it"),
    # Steady tones only: both envelopes are flat (kelva's and openmpt's block
    # levels agree within 2 %), so the correlation measures the last 0.1 %
    # of ripple, i.e. noise.
    "effects/AmigaLimitsFinetune.mod": (("corr",), "flat envelope, levels agree within 2 %"),
    "effects/ArpWraparound.mod": (("corr",), "flat envelope, levels agree within 3 %"),
    # Under the replay routine's rules this module never ends: B00+D04 on
    # position 1 re-enters position 0 at row 4, whose E61 loops to row 0
    # again and again. kelva reports the end when a row outside a running
    # pattern loop comes round a second time (after 11 rows, 1.32 s);
    # openmpt's own loop detection stops after 43 rows (5.16 s).
    "effects/PatLoop-Break.mod": (("length",), "endless under the replay rules; loop detection differs"),
    # SoundFX ticks at its CIA delay on the PAL E-clock (37768 / 709379 s =
    # 53.24 ms here); openmpt123 and xmp take 14565 x 122 / delay beats per
    # minute (53.13 ms), so the renders drift apart by 0.2 % (0.994 with
    # their tick).
    "other/SFX.Crockett's_theme": (("corr",), "reference tick 0.2 % short of the CIA delay's"),
    # xmp reads this file's sample data 768 bytes early (after the patterns
    # the song names instead of at the offset stored at 1080, which counts a
    # third, unused pattern) and drops its notes below C-1 (13 and 15);
    # with both undone in a copy of the file the envelopes correlate 0.997.
    "other/redoctober-sub-docking.ims": (("corr",), "xmp misplaces the samples and drops notes below C-1"),
    # PolyTracker keeps one pattern loop for the whole song (the file's own
    # instrument names describe it: global target and counter, not cleared by
    # breaks, jumps or a new pattern); xmp 4.5 loops per channel (9.66 s).
    "other/pattern_loop_ptm.ptm": (("length",), "song-wide pattern loop; xmp loops per channel"),
    # MED/OctaMED.
    "med/LOSTMEDFILES_MMD1.MED": (("length",), "16-minute song: measured to the 10-minute limit; kelva's own end "
                                  "(975.0 s) is the sum of its lines at their tempos; the closing ritardando sets "
                                  "tempos 16-30 (F10-F1E), which openmpt123 reads as tempo slides and xmp ignores; "
                                  "with those commands removed in a copy kelva ends at 969.3 s, openmpt123 at 968.9 s"),
    "med/Synth-a-sysmic.med": (("length", "corr"), "xmp 4.5 truncates tempo 35 to 132 BPM (374.5 s; kelva 372.9 s at "
                               "openmpt123's 1.515 ticks/s a unit), ignores MED4 command 0E (synth jump: its renders "
                               "with and without 0E are byte-identical), runs one synth-sequence entry a step (kelva, "
                               "as OpenMPT's current synth model, runs on to the next volume, waveform, WAI or END), "
                               "resumes WAI n a step late and steps the waveform sequence at the volume sequence's "
                               "speed (byte-identical renders for waveform speeds 1 and 3); in a copy at tempo 33 "
                               "without 0E, with the sequences rewritten so that kelva's rules act as xmp's, the tracks "
                               "alone correlate 0.92/0.999/0.994/0.91 (0.71/0.88/0.92/0.95 unrewritten; tracks 0 and "
                               "3 0.99/0.96 without instrument numbers on their portamento lines, which the two treat "
                               "differently); tracks 0 and 3 echo the same sounds on one side, so their sum depends on "
                               "the waves' phases (0.53 as a pair even then, other pairs 0.94-0.99)"),
    "med/instruments.mmd3": (("length", "corr"), "BPM mode: F20 sets tempo 32 at 3 lines per beat = 24 BPM, which "
                             "openmpt123 floors at 32 BPM (10.0 s; kelva 13.4 s), and openmpt123 plays the synthetic "
                             "and hybrid sounds (instruments 3, 5-7) silent; in a copy at tempo 44 (33 BPM) the "
                             "lengths agree (9.698/9.696 s) and without the synthetic notes the envelopes correlate "
                             "0.993"),
    "med/med3song.med": (("length", "corr"), "its instrument is a file the folder lacks (both render silence); xmp "
                         "turns FC0 into 125 x 192 / 33 = 727 BPM kept in a byte, i.e. 215 BPM (6.6 s; kelva 5.4 s); "
                         "with F40 instead in a copy both last 6.44 s"),
    "med/med4song.med": (("length", "corr"), "no reference plays it: openmpt123 has no MED4 loader and xmp 4.5 "
                         "rejects it (\"Unrecognized file format\"); its three instruments are files the folder "
                         "lacks, so kelva plays the 7.7 s song (64 lines of 6 ticks at 50 Hz) silent"),
    "med/mmd0_compat_tempo.med": (("corr",), "openmpt123 neither replays FF1 notes on the fourth tick nor delays "
                                  "FF2 notes by half a line (seen in a copy with track 1 alone); kelva plays both as "
                                  "the tracker did; with FF1/FF2 removed in a copy the envelopes correlate 0.991"),
    "med/mmd2_compat_tempo.med": (("corr",), "as mmd0_compat_tempo: FF1/FF2 in openmpt123; without them in a copy "
                                  "0.969"),
    "med/stereo.med": (("corr",), "a track panned across the stereo field: openmpt123 renders at 200 % stereo "
                       "separation, which deepens the pan's effect on the level envelope (at 100 % the envelopes "
                       "correlate 0.9996)"),
    "med/moods-yeah.med": (("corr",), "synthetic sounds: openmpt123 plays them silent, xmp leaves out the MMD3 notes "
                           "below 25 (the bass of the first positions); with those 272 notes raised into the octave "
                           "kelva plays them in (kelva's render unchanged) the envelopes correlate 0.981"),
}


def run(cmd, env=None, timeout=600):
    return subprocess.run(cmd, capture_output=True, text=True, env=env, timeout=timeout)


def wav_float_stereo(path):
    """The samples of a 32-bit float stereo WAV as written by kelva_render_wav."""
    with open(path, "rb") as f:
        data = f.read()
    pos = data.find(b"data")
    samples = array.array("f")
    samples.frombytes(data[pos + 8:pos + 8 + ((len(data) - pos - 8) // 4) * 4])
    if sys.byteorder != "little":
        samples.byteswap()
    return samples


def wav_frames(path):
    """Frames in a PCM WAV file (from its header)."""
    with open(path, "rb") as f:
        head = f.read(4096)
    channels = int.from_bytes(head[22:24], "little")
    bits = int.from_bytes(head[34:36], "little")
    pos = head.find(b"data")
    size = os.path.getsize(path) - (pos + 8)
    return size // (channels * bits // 8)


def rms_envelope(samples, rate=48000, block_ms=100):
    """RMS of each 100 ms block over its left and right samples together."""
    n = rate * block_ms // 1000 * 2
    env = []
    for start in range(0, len(samples) - n + 1, n):
        block = samples[start:start + n]
        env.append(math.sqrt(math.fsum(v * v for v in block) / n))
    return env


def pearson(x, y):
    n = min(len(x), len(y))
    if n < 2:
        return 0.0
    x, y = x[:n], y[:n]
    mx, my = math.fsum(x) / n, math.fsum(y) / n
    vx = math.fsum((a - mx) ** 2 for a in x)
    vy = math.fsum((b - my) ** 2 for b in y)
    if vx <= 0 or vy <= 0:
        return 0.0
    return math.fsum((a - mx) * (b - my) for a, b in zip(x, y)) / math.sqrt(vx * vy)


def parse_duration(text):
    """'1:12.120', '00:04.121', '6min15s' -> seconds, else None."""
    text = text.strip()
    m = re.fullmatch(r"(?:(\d+):)?(\d+):(\d+(?:\.\d+)?)", text)
    if m:
        return int(m.group(1) or 0) * 3600 + int(m.group(2)) * 60 + float(m.group(3))
    m = re.fullmatch(r"(\d+)min(\d+)s", text)
    if m:
        return int(m.group(1)) * 60 + int(m.group(2))
    return None


def sources_durations(folder_dir, column):
    """file -> duration from the folder's SOURCES.md table column (a header
    containing `column`)."""
    out = {}
    path = os.path.join(folder_dir, "SOURCES.md")
    if not os.path.exists(path):
        return out
    header = None
    with open(path, encoding="utf-8") as f:
        for line in f:
            if not line.startswith("|"):
                continue
            cells = [c.strip() for c in line.strip().strip("|").split("|")]
            if header is None:
                header = cells
                continue
            if set("".join(cells)) <= set("-: "):
                continue
            for i, h in enumerate(header):
                if column in h and i < len(cells):
                    d = parse_duration(cells[i])
                    if d is not None:
                        out[cells[0]] = d
    return out


def reference_envelopes(folder_dir):
    out = {}
    path = os.path.join(folder_dir, "REFERENCE-ENVELOPES.tsv")
    if os.path.exists(path):
        with open(path, encoding="utf-8") as f:
            for line in f:
                if line.startswith("#") or "\t" not in line:
                    continue
                name, values = line.rstrip("\n").split("\t", 1)
                out[name] = [float(v) for v in values.split()]
    return out


def openmpt_duration(path):
    r = run(["openmpt123", "--info", "--subsong", "0", path])
    m = re.search(r"Duration\.*:\s*(?:(\d+):)?(\d+):(\d+(?:\.\d+)?)", r.stdout + r.stderr)
    if not m:
        return None
    h = int(m.group(1) or 0)
    return h * 3600 + int(m.group(2)) * 60 + float(m.group(3))


def reference_openmpt(path, out, res):
    r = run(["openmpt123", "--batch", "--quiet", "--samplerate", "48000", "--channels", "2", "--float",
             "--subsong", "0", "--stereo", "200", "--ctl", "render.resampler.emulate_amiga=1",
             "--ctl", "render.resampler.emulate_amiga_type=a500", "--end-time", str(SECONDS),
             "--force", "-o", out, path])
    if r.returncode != 0 or not os.path.exists(out):
        return "openmpt123 failed: " + r.stderr.strip()[-200:]
    res["ref_s"] = openmpt_duration(path)
    return None


def reference_xmp(path, out, res):
    # xmp stops at the song's end (no looping); the whole render's length is
    # its duration. Capped at 20 minutes.
    r = run(["xmp", "--nocmd", "--norc", "-q", "-d", "wav", "-o", out, "-f", "48000", "-A", "-P", "100",
             "-t", "1200", path], timeout=900)
    if r.returncode != 0 or not os.path.exists(out):
        return "xmp failed: " + (r.stderr.strip() or r.stdout.strip())[-200:]
    res["ref_s"] = wav_frames(out) / 48000.0
    return None


def compare_one(path, tool, tree, shared, work):
    root = os.path.join(shared, "testdata", "modules")
    name = os.path.relpath(path, root)
    folder = name.split("/")[0]
    kind = REFERENCE.get(name, FOLDERS.get(folder, "openmpt"))
    stem = name.replace("/", "_").replace(" ", "_")
    a = os.path.join(work, stem + ".kelva.wav")
    b = os.path.join(work, stem + "." + kind + ".wav")
    env = dict(os.environ, KELVA_DATA=tree)
    res = {"module": name, "ref": kind}
    r = run([tool, path, a, str(SECONDS)], env=env)
    if r.returncode != 0:
        res["error"] = "kelva: " + (r.stderr.strip().splitlines() or ["failed"])[-1]
        return res
    m = re.search(r"player=(\S+).*length_ms=(\d+) reason=(\d+) player_end_ms=(\d+)", r.stdout)
    res["player"], res["kelva_s"], res["reason"] = m.group(1), int(m.group(2)) / 1000.0, int(m.group(3))
    res["end_s"] = int(m.group(4)) / 1000.0
    try:
        if kind == "envelope":
            folder_dir = os.path.join(root, folder)
            ref_env = reference_envelopes(folder_dir).get(os.path.basename(path))
            if ref_env is None:
                res["error"] = "no reference envelope"
                return res
            res["ref_s"] = sources_durations(folder_dir, "hvl2wav").get(os.path.basename(path))
            ours = rms_envelope(wav_float_stereo(a))
            res["corr"] = pearson(ours, ref_env)
            res["offset_ms"] = 0
            n = min(len(ours), len(ref_env))
            mean_ours, mean_ref = sum(ours[:n]) / max(n, 1), sum(ref_env[:n]) / max(n, 1)
            res["rms_db"] = 20 * math.log10(mean_ours / mean_ref) if mean_ours > 0 and mean_ref > 0 else None
        else:
            source = path
            if name in REFERENCE_PATCH:
                source = os.path.join(work, stem + ".patched")
                with open(path, "rb") as f:
                    patched = REFERENCE_PATCH[name](f.read())
                with open(source, "wb") as f:
                    f.write(patched)
            err = (reference_openmpt if kind == "openmpt" else reference_xmp)(source, b, res)
            if source != path:
                os.remove(source)
            if err:
                res["error"] = err
                return res
            r = run([sys.executable, os.path.join(shared, "tools", "audiocmp.py"), a, b])
            d = json.loads(r.stdout)
            res["corr"] = d["env_corr"]
            res["offset_ms"] = d["offset_ms"]
            res["rms_db"] = d.get("rms_ratio_db")
            res["worst"] = d.get("worst_5s")
    except (ValueError, KeyError, OSError) as e:
        res["error"] = "comparison failed: %s" % e
    finally:
        for f in (a, b):
            if os.path.exists(f):
                os.remove(f)
    return res


def list_modules(root, args):
    folders = sorted(FOLDERS)
    names = []
    for a in args:
        if a.startswith("--folders="):
            folders = [f for f in a[len("--folders="):].split(",") if f]
        else:
            names.append(a)
    if names:
        return [os.path.join(root, m) for m in names]
    out = []
    for d in folders:
        folder = os.path.join(root, d)
        if not os.path.isdir(folder):
            continue
        for f in sorted(os.listdir(folder)):
            if f == "SOURCES.md" or f.endswith(COMPANION_SUFFIXES):
                continue
            out.append(os.path.join(folder, f))
    return out


def main():
    if len(sys.argv) < 5:
        print(__doc__)
        return 2
    tool, tree, shared, work = sys.argv[1:5]
    root = os.path.join(shared, "testdata", "modules")
    if not os.path.isdir(root) or not os.path.exists(os.path.join(shared, "tools", "audiocmp.py")):
        print("SKIP: shared test data not found in " + shared)
        return 77
    if not os.path.exists(os.path.join(tree, "players", "PTK-Prowiz")):
        print("SKIP: the players were not built (no cross toolchain?)")
        return 77
    modules = list_modules(root, sys.argv[5:])
    kinds = {REFERENCE.get(os.path.relpath(p, root), FOLDERS.get(os.path.relpath(p, root).split("/")[0],
                                                                  "openmpt")) for p in modules}
    for kind, program in (("openmpt", "openmpt123"), ("xmp", "xmp")):
        if kind in kinds and not shutil.which(program):
            print("SKIP: %s is not installed" % program)
            return 77
    os.makedirs(work, exist_ok=True)
    with concurrent.futures.ThreadPoolExecutor(max_workers=2) as ex:
        results = list(ex.map(lambda p: compare_one(p, tool, tree, shared, work), modules))
    failed = []
    print("%-40s %-20s %-8s %9s %6s %9s %9s %7s %8s %s" % (
        "module", "player", "ref", "measured", "reason", "end_s", "ref_s", "diff_s", "env_corr", "verdict"))
    for r in results:
        if "error" in r:
            known = KNOWN.get(r["module"])
            if known and "error" in known[0]:
                print("%-40s known: %s (%s)" % (r["module"], known[1], r["error"]))
            else:
                print("%-40s ERROR %s" % (r["module"], r["error"]))
                failed.append(r["module"])
            continue
        # The measured length is what listeners get: the player's song end
        # for players that signal it, else the first of silence, repetition
        # or the limit.
        diff = r["kelva_s"] - r["ref_s"] if r.get("ref_s") is not None else float("nan")
        problems = []
        if not abs(diff) <= LENGTH_TOLERANCE_S:
            problems.append("length")
        if not r["corr"] >= CORR_THRESHOLD:
            problems.append("corr")
        known = KNOWN.get(r["module"])
        open_problems = [p for p in problems if not (known and p in known[0])]
        verdict = "ok" if not problems else ("known: " + known[1] if not open_problems else
                                             "BELOW THRESHOLD (" + ",".join(open_problems) + ")")
        print("%-40s %-20s %-8s %9.3f %6d %9.3f %9.3f %+7.3f %8.4f %s" % (
            r["module"], r["player"], r["ref"], r["kelva_s"], r["reason"], r["end_s"], r.get("ref_s") or 0,
            diff, r["corr"], verdict))
        if problems and r.get("worst"):
            print("    worst 5 s at %.1f s: %.4f; offset %d ms; level %+.2f dB" % (
                r["worst"]["start_s"], r["worst"]["env_corr"], r["offset_ms"], r["rms_db"] or 0))
        if open_problems:
            failed.append(r["module"])
    print("%d modules, %d below threshold: %s" % (len(results), len(failed), " ".join(failed) or "none"))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
