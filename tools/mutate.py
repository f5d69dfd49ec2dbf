#!/usr/bin/env python3
"""mutate.py - measure how many deliberate faults kelva's unit tests catch.

Usage:
  tools/mutate.py [--count N] [--seed S] [--jobs J] [--timeout SEC]
                  [--work DIR] [--only PATH_PREFIX] [--list] [--report FILE]
                  [--again REPORT]

Generates mutants of the product sources (engine/, hardware/, cpu/,
amigaos/, selection/, plugin/, cli/): each is one small change of the kind a
slip of the keyboard makes -

  cmp     a comparison flipped (< <=, > >=, == !=)
  const   an integer constant changed (n -> n + 1, 1 -> 0, 0 -> 1)
  arith   an operator replaced (+ -, * /, && ||, & |, << >>)
  call    a call statement deleted
  swap    two neighbouring statements swapped

The candidate places are listed in a fixed order and N of them are drawn
with a seeded generator, so the same seed gives the same mutants. With
--again, the mutants of an earlier JSON report that still apply to the
sources are tested instead (with --only, those of that path): a check that
a change of the tests keeps killing what it killed before. The
mutants are applied one at a time to a private copy of the source tree
(WORK/src, refreshed from this checkout at the start; your checkout is never
touched), which is rebuilt incrementally (kelva_tests and the kelva tool)
and tested with the unit tests: first the tests of the mutated subsystem,
stopping at the first failure, then, if they all pass, the rest; a mutant
of cpu/ also meets the single-step processor vectors first. A mutant is

  killed        a test failed, crashed or ran past the time limit
  survived      every unit test passed: no test guards the changed rule
  build-failed  the change does not compile (not counted in the score)

The report lists the figures per file, the score (killed / (killed +
survived)) and every survivor with its change, also as JSON (--report).
Needs cmake, a C++ toolchain and the project's dependencies; the first
build of WORK takes a few minutes. Not run by CI: this is a developer tool
(scripts/mutate.sh).
"""

import argparse
import json
import os
import random
import re
import shutil
import subprocess
import sys
import time

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DIRS = ["engine", "hardware", "cpu", "amigaos", "selection", "plugin", "cli"]
# Files no unit test can reach: the Audacious glue is tested only inside the
# real Audacious (tests/integration), which takes minutes per run.
EXCLUDE = {"plugin/kelva_aud.cpp"}

# Tests to run first for a mutant in each folder (gtest filter patterns).
FIRST_TESTS = {
    "engine": "Engine*:EngineApi*:Reset*:Call*:SwMix*:Ptk*",
    "hardware": "Paula*:Mixer*:Cia*:Bus*:Custom*:Engine*",
    "cpu": "Cpu*:Vectors*",
    "amigaos": "Hunk*:LineA*:Dos*:Support*:TestPlayers*",
    "selection": "Epconf*:Fifteen*:ModCorrection*:Tfmx*:RealModules*:ModTag*:ModClassify*:DataTree*:PtkRealModules*",
    "plugin": "SongDb*:Scanner*:ScanTree*:ScanStorm*:HostIo*:ModuleName*:ModuleText*:ModuleInfo*:Vfs*",
    "cli": "Cli*",
}

COMPARISONS = [("<=", "<"), (">=", ">"), ("==", "!="), ("!=", "=="), ("<", "<="), (">", ">=")]
ARITH = [("&&", "||"), ("||", "&&"), ("<<", ">>"), (">>", "<<"), ("+", "-"), ("-", "+"), ("*", "/"),
         ("&", "|"), ("|", "&")]


def mask_code(lines):
    """Each line with comments, string and character literals blanked out
    (same length), and whether it is a preprocessor line."""
    out = []
    in_block = False
    for line in lines:
        chars = list(line)
        i = 0
        n = len(chars)
        pre = line.lstrip().startswith("#")
        while i < n:
            if in_block:
                end = line.find("*/", i)
                stop = n if end < 0 else end + 2
                for j in range(i, stop):
                    chars[j] = " "
                in_block = end < 0
                i = stop
                continue
            c = line[i]
            if line.startswith("//", i):
                for j in range(i, n):
                    chars[j] = " "
                break
            if line.startswith("/*", i):
                in_block = True
                continue
            if c in "\"'":
                j = i + 1
                while j < n and line[j] != c:
                    j += 2 if line[j] == "\\" else 1
                for k in range(i, min(j + 1, n)):
                    chars[k] = " "
                i = j + 1
                continue
            i += 1
        out.append(("".join(chars), pre))
    return out


STATEMENT = re.compile(r"^\s+[A-Za-z_][\w:.\->\[\]]*\s*\(.*\)\s*;\s*$")
SIMPLE = re.compile(r"^(\s+)[^{}]*;\s*$")
CONTROL = re.compile(r"^\s*(return|if|for|while|do|switch|case|default|break|continue|else|goto)\b")
DECL = re.compile(r"^\s*(const\s+)?(static\s+)?(unsigned\s+)?[A-Za-z_][\w:<>,\s*&]*\s+[*&]*[A-Za-z_]\w*\s*(=|;|\[|\{)")


def candidates(rel, text):
    """Every mutation place in one file, in file order."""
    lines = text.split("\n")
    masked = mask_code(lines)
    found = []
    for no, (code, pre) in enumerate(masked):
        if pre or not code.strip():
            continue
        # Comparisons: not part of <<, >>, ->, <= handled first; not templates.
        for m in re.finditer(r"(?<![<>=!\-])(<=|>=|==|!=|<|>)(?![<>=])", code):
            op = m.group(1)
            before = code[:m.start()]
            if op in ("<", ">") and (re.search(r"(template|static_cast|reinterpret_cast|const_cast|"
                                               r"std::\w+|vector|map|set|array|atomic|lock_guard|"
                                               r"unique_ptr|numeric_limits)\s*$", before) or
                                     "#include" in code):
                continue
            if op == ">" and before.endswith("-"):
                continue
            for a, b in COMPARISONS:
                if op == a:
                    found.append((rel, no, m.start(), a, b, "cmp"))
                    break
        for m in re.finditer(r"(?<![\w.])(0x[0-9A-Fa-f]+|\d+)(u|U|ull|ULL|ll|LL|l|L)?(?![\w.])", code):
            lit = m.group(1)
            value = int(lit, 16) if lit.startswith(("0x", "0X")) else int(lit)
            if lit.startswith("0") and len(lit) > 1 and not lit.startswith(("0x", "0X")):
                continue   # octal
            new = value + 1 if value > 1 else 1 - value
            rep = hex(new) if lit.startswith(("0x", "0X")) else str(new)
            found.append((rel, no, m.start(1), lit, rep, "const"))
        # Binary operators are written with a space on each side; so a
        # pointer or reference declarator (char *p, T &x), a unary minus or
        # a dereference is never taken for one.
        for m in re.finditer(r"(?<=\s)(&&|\|\||<<|>>|\+|-|\*|&|\|)(?=\s)", code):
            op = m.group(1)
            start = m.start(1)
            prev = code[:start].rstrip()
            if not prev or prev[-1] in "(,=?:[{;" or re.search(r"\b(return|case)$", prev):
                continue
            if op in ("<<", ">>") and ("cout" in code or "cerr" in code):
                continue
            for a, b in ARITH:
                if op == a:
                    found.append((rel, no, start, a, b, "arith"))
                    break
        if STATEMENT.match(code) and not CONTROL.match(code) and "=" not in code.split("(")[0]:
            found.append((rel, no, 0, lines[no], "", "call"))
    # Neighbouring simple statements of the same indentation.
    for no in range(len(lines) - 1):
        a, b = masked[no][0], masked[no + 1][0]
        ma, mb = SIMPLE.match(a), SIMPLE.match(b)
        if not (ma and mb) or ma.group(1) != mb.group(1):
            continue
        if CONTROL.match(a) or CONTROL.match(b) or DECL.match(a) or DECL.match(b):
            continue
        if lines[no].strip() == lines[no + 1].strip():
            continue
        found.append((rel, no, 0, lines[no], lines[no + 1], "swap"))
    return found


def apply(text, cand):
    rel, no, col, old, new, kind = cand
    lines = text.split("\n")
    if kind in ("cmp", "const", "arith"):
        line = lines[no]
        assert line[col:col + len(old)] == old, (rel, no, col, old, line)
        lines[no] = line[:col] + new + line[col + len(old):]
    elif kind == "call":
        lines[no] = re.sub(r"\S.*", "/* mutant: call removed */;", lines[no], count=1)
    elif kind == "swap":
        lines[no], lines[no + 1] = lines[no + 1], lines[no]
    return "\n".join(lines)


def describe(cand):
    rel, no, col, old, new, kind = cand
    if kind == "call":
        return "%s:%d call removed: %s" % (rel, no + 1, old.strip())
    if kind == "swap":
        return "%s:%d-%d swapped: %s | %s" % (rel, no + 1, no + 2, old.strip(), new.strip())
    return "%s:%d:%d %s %s -> %s" % (rel, no + 1, col + 1, kind, old, new)


def source_files():
    out = []
    for d in DIRS:
        folder = os.path.join(ROOT, d)
        for name in sorted(os.listdir(folder)):
            rel = d + "/" + name
            if name.endswith((".cpp", ".h")) and rel not in EXCLUDE:
                out.append(rel)
    return out


def run(cmd, cwd, timeout=None, env=None):
    try:
        r = subprocess.run(cmd, cwd=cwd, capture_output=True, text=True, errors="replace", timeout=timeout, env=env)
        return r.returncode, r.stdout + r.stderr
    except subprocess.TimeoutExpired:
        return None, "timeout"


def refresh_copy(work):
    src = os.path.join(work, "src")
    os.makedirs(src, exist_ok=True)
    files = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, capture_output=True, check=True).stdout
    tracked = {rel for rel in files.decode().split("\0") if rel}
    # Files an earlier checkout had and this one has not: the build globs tests/*_test.cpp, for one.
    for dirpath, _, names in os.walk(src):
        for name in names:
            path = os.path.join(dirpath, name)
            if os.path.relpath(path, src) not in tracked:
                os.remove(path)
    for rel in sorted(tracked):
        a, b = os.path.join(ROOT, rel), os.path.join(src, rel)
        if not os.path.isfile(a):
            continue
        os.makedirs(os.path.dirname(b), exist_ok=True)
        with open(a, "rb") as fa:
            data = fa.read()
        old = None
        if os.path.exists(b):
            with open(b, "rb") as fb:
                old = fb.read()
        if old != data:   # untouched files keep their time stamps: the build stays incremental
            with open(b, "wb") as fb:
                fb.write(data)
    return src


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--count", type=int, default=150)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--jobs", type=int, default=os.cpu_count() or 2)
    ap.add_argument("--timeout", type=int, default=180, help="seconds of testing per mutant")
    ap.add_argument("--work", default="/tmp/kelva-mutate")
    ap.add_argument("--shared", default=os.path.join(os.path.dirname(ROOT), "shared"))
    ap.add_argument("--only", default="", help="mutate only files whose path starts with this")
    ap.add_argument("--list", action="store_true", help="print the drawn mutants and stop")
    ap.add_argument("--report", default="", help="also write the results as JSON here")
    ap.add_argument("--again", default="", help="test the mutants of this JSON report again instead of drawing")
    args = ap.parse_args()

    every = []
    for rel in source_files():
        if args.only and not rel.startswith(args.only):
            continue
        with open(os.path.join(ROOT, rel), encoding="utf-8") as f:
            every.extend(candidates(rel, f.read()))
    if args.again:
        with open(args.again, encoding="utf-8") as f:
            wanted = {r["mutant"] for r in json.load(f)["results"]}
        drawn = [c for c in every if describe(c) in wanted]
        print("%d of the %d mutants of %s found again" % (len(drawn), len(wanted), args.again))
    else:
        rng = random.Random(args.seed)
        drawn = sorted(rng.sample(every, min(args.count, len(every))), key=lambda c: (c[0], c[1], c[2]))
        print("%d mutation places in %d files; %d drawn with seed %d" % (
            len(every), len({c[0] for c in every}), len(drawn), args.seed))
    if args.list:
        for c in drawn:
            print("  " + describe(c))
        return 0

    src = refresh_copy(args.work)
    build = os.path.join(args.work, "build")
    targets = ["--target", "kelva_tests", "kelva", "kelva-cpu-vectors"]
    vectors = [os.path.join(build, "tools", "kelva-cpu-vectors"), "--skip-missing",
               os.path.join(args.shared, "testdata", "m68000")]
    rc, out = run(["cmake", "-S", src, "-B", build, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
                   "-DKELVA_BUILD_PLUGIN=OFF", "-DKELVA_BUILD_BENCH=OFF", "-DKELVA_SHARED_DIR=" + args.shared], ROOT)
    if rc != 0:
        print(out)
        return 1
    print("building the unmutated tree in %s ..." % build)
    rc, out = run(["cmake", "--build", build, "-j", str(args.jobs)] + targets, ROOT)
    if rc != 0:
        print(out[-3000:])
        return 1
    tests = os.path.join(build, "tests", "kelva_tests")
    env = dict(os.environ, GTEST_FAIL_FAST="1")
    rc, out = run([tests, "--gtest_brief=1"], build, timeout=args.timeout * 3, env=env)
    if rc != 0:
        print("the unmutated tree fails its tests; fix that first:\n" + out[-3000:])
        return 1

    results = []
    start = time.time()
    for i, cand in enumerate(drawn):
        rel = cand[0]
        path = os.path.join(src, rel)
        with open(path, encoding="utf-8") as f:
            original = f.read()
        mutated = apply(original, cand)
        with open(path, "w", encoding="utf-8") as f:
            f.write(mutated)
        try:
            t0 = time.time()
            rc, out = run(["cmake", "--build", build, "-j", str(args.jobs)] + targets, ROOT, timeout=900)
            if rc != 0:
                status, detail = "build-failed", ""
            else:
                first = FIRST_TESTS.get(rel.split("/")[0], "*")
                rc = 0
                if rel.startswith("cpu/"):
                    rc, out = run(vectors, build, timeout=args.timeout)
                    if rc == 77:
                        rc = 0   # no vector folder: the unit tests decide
                if rc == 0:
                    left = max(10, args.timeout - int(time.time() - t0))
                    rc, out = run([tests, "--gtest_brief=1", "--gtest_filter=" + first], build, timeout=left,
                                  env=env)
                if rc == 0:
                    left = max(10, args.timeout - int(time.time() - t0))
                    rc, out = run([tests, "--gtest_brief=1", "--gtest_filter=-" + first], build,
                                  timeout=left, env=env)
                if rc is None:
                    status, detail = "killed", "time limit"
                elif rc != 0:
                    failed = re.findall(r"\[  FAILED  \] (\S+)", out)
                    status, detail = "killed", (failed[0] if failed else "exit %d" % rc)
                else:
                    status, detail = "survived", ""
        finally:
            with open(path, "w", encoding="utf-8") as f:
                f.write(original)
        results.append({"mutant": describe(cand), "file": rel, "kind": cand[5], "status": status,
                        "detail": detail, "seconds": round(time.time() - t0, 1)})
        print("[%3d/%d %5.0f s] %-12s %s %s" % (i + 1, len(drawn), time.time() - start, status, describe(cand),
                                               ("(" + detail + ")") if detail else ""), flush=True)
    # Rebuild the unmutated tree so WORK is ready for the next run.
    run(["cmake", "--build", build, "-j", str(args.jobs)] + targets, ROOT)

    per_file = {}
    for r in results:
        per_file.setdefault(r["file"], {"killed": 0, "survived": 0, "build-failed": 0})[r["status"]] += 1
    print("\n%-32s %7s %9s %13s" % ("file", "killed", "survived", "build-failed"))
    for f in sorted(per_file):
        p = per_file[f]
        print("%-32s %7d %9d %13d" % (f, p["killed"], p["survived"], p["build-failed"]))
    killed = sum(1 for r in results if r["status"] == "killed")
    survived = [r for r in results if r["status"] == "survived"]
    built = killed + len(survived)
    score = 100.0 * killed / built if built else 0.0
    print("\n%d mutants: %d killed, %d survived, %d did not build; score %.1f %% of those that built; %.0f s" % (
        len(results), killed, len(survived), len(results) - built, score, time.time() - start))
    if survived:
        print("\nsurvivors:")
        for r in survived:
            print("  " + r["mutant"])
    if args.report:
        with open(args.report, "w", encoding="utf-8") as f:
            json.dump({"seed": args.seed, "count": len(results), "killed": killed, "survived": len(survived),
                       "build_failed": len(results) - built, "score": round(score, 1), "results": results}, f,
                      indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main())
