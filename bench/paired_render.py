#!/usr/bin/env python3
"""Paired render speed: kelva against openmpt123's Amiga emulation.

Renders the same excerpt (the first 60 s, or to the song's end) of every
module in a folder with `kelva render` and with openmpt123 (A500 filter
emulation, the reference command of the shared test data), alternating the
two programs, and prints each module's real-time multiples and the ratio
kelva / openmpt123 (above 1: kelva is faster), then the median ratio.

Absolute times on a shared machine are noise; the ratio of two renders
taken back to back is the figure. Times are the CPU time (user + system)
of each child process, so that other load on the machine counts against
neither program; the wall-clock ratio is printed beside it.

kelva runs the way a user runs it: the command-line tool, its player
selection and its default 0.25 separation replaced by hard panning like
the openmpt123 command, 32-bit float WAV output like openmpt123's. Before
the timed rounds every module is rendered once by both programs, untimed:
that fills kelva's song-length database (in a private XDG_DATA_HOME), as a
second render of a song finds it, and the file cache for both.

    bench/paired_render.py --kelva build/cli/kelva --data build/kelva_data
"""
import argparse
import os
import statistics
import struct
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_MODULES = os.path.join(HERE, '..', '..', 'shared', 'testdata', 'modules', 'debian')


def wav_seconds(path):
    """Duration of a PCM or float WAV file from its fmt and data chunks."""
    with open(path, 'rb') as f:
        head = f.read(12)
        if len(head) < 12 or head[:4] != b'RIFF' or head[8:12] != b'WAVE':
            return 0.0
        rate = block = 0
        while True:
            chunk = f.read(8)
            if len(chunk) < 8:
                return 0.0
            cid, size = chunk[:4], struct.unpack('<I', chunk[4:])[0]
            if cid == b'fmt ':
                fmt = f.read(size)
                rate, block = struct.unpack('<I', fmt[4:8])[0], struct.unpack('<H', fmt[12:14])[0]
            elif cid == b'data':
                return size / block / rate if rate and block else 0.0
            else:
                f.seek(size + (size & 1), 1)


def timed(cmd, env):
    """Runs cmd; returns (CPU seconds of the child, wall seconds)."""
    start = time.monotonic()
    proc = subprocess.Popen(cmd, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.monotonic() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    err = proc.stderr.read().decode(errors='replace')
    proc.stderr.close()
    if proc.returncode != 0:
        sys.exit('failed (%d): %s\n%s' % (proc.returncode, ' '.join(cmd), err))
    return usage.ru_utime + usage.ru_stime, wall


def main():
    ap = argparse.ArgumentParser(description=__doc__.split('\n\n')[0])
    ap.add_argument('--kelva', default='build/cli/kelva', help='the kelva command-line tool')
    ap.add_argument('--data', help='kelva data tree (default: KELVA_DATA or the installed tree)')
    ap.add_argument('--openmpt', default='openmpt123')
    ap.add_argument('--modules', default=DEFAULT_MODULES, help='folder of modules (default: the debian set)')
    ap.add_argument('--seconds', type=float, default=60.0)
    ap.add_argument('--rounds', type=int, default=3, help='timed renders per program and module')
    args = ap.parse_args()

    mods = sorted(os.path.join(args.modules, n) for n in os.listdir(args.modules)
                  if os.path.isfile(os.path.join(args.modules, n)) and not n.endswith('.md'))
    if not mods:
        sys.exit('no modules in %s' % args.modules)
    work = tempfile.mkdtemp(prefix='paired_render.')
    env = dict(os.environ, XDG_DATA_HOME=os.path.join(work, 'xdg'))
    if args.data:
        env['KELVA_DATA'] = args.data
    out_k, out_o = os.path.join(work, 'kelva.wav'), os.path.join(work, 'openmpt.wav')
    secs = '%g' % args.seconds

    def kelva(mod):
        return [args.kelva, 'render', mod, '-o', out_k, '--bits', 'float', '--seconds', secs,
                '--rate', '48000', '--model', 'a500', '--separation', '1']

    def openmpt(mod):
        return [args.openmpt, '--batch', '--quiet', '--samplerate', '48000', '--channels', '2', '--float',
                '--subsong', '0', '--stereo', '200', '--ctl', 'render.resampler.emulate_amiga=1',
                '--ctl', 'render.resampler.emulate_amiga_type=a500', '--end-time', secs, '--force',
                '-o', out_o, mod]

    print('%-32s %8s %8s %8s %10s %6s' % ('module', 'audio_s', 'kelva_x', 'mpt_x', 'ratio_cpu', 'wall'))
    ratios = []
    try:
        for mod in mods:
            timed(kelva(mod), env)
            timed(openmpt(mod), env)
            sk, so = wav_seconds(out_k), wav_seconds(out_o)
            if sk <= 0 or so <= 0:
                sys.exit('no audio from %s' % mod)
            cpu_r, wall_r, xk, xo = [], [], [], []
            for r in range(args.rounds):
                order = [('k', kelva), ('o', openmpt)]
                if r % 2:
                    order.reverse()
                t = {}
                for who, cmd in order:
                    t[who] = timed(cmd(mod), env)
                xk.append(sk / t['k'][0])
                xo.append(so / t['o'][0])
                cpu_r.append(xk[-1] / xo[-1])
                wall_r.append((sk / t['k'][1]) / (so / t['o'][1]))
            ratio = statistics.median(cpu_r)
            ratios.append(ratio)
            print('%-32s %8.2f %8.1f %8.1f %10.2f %6.2f' % (os.path.basename(mod)[:32], sk, statistics.median(xk),
                                                        statistics.median(xo), ratio, statistics.median(wall_r)),
                  flush=True)
    finally:
        for p in (out_k, out_o):
            if os.path.exists(p):
                os.remove(p)
        subprocess.run(['rm', '-rf', work])
    print('median ratio kelva/openmpt123 over %d modules: %.2f (min %.2f, max %.2f)'
          % (len(ratios), statistics.median(ratios), min(ratios), max(ratios)))


if __name__ == '__main__':
    main()
