#!/usr/bin/env python3
"""audfiles.py info WAV | seek FULL SEEK TARGET | title MOD | kelva-info JSON: what the tests read."""
import array
import json
import os
import struct
import sys


def chunks(path):
    d, pos, out = open(path, 'rb').read(), 12, {}
    while pos + 8 <= len(d):
        cid, size = d[pos:pos + 4], struct.unpack('<I', d[pos + 4:pos + 8])[0]
        out.setdefault(cid, d[pos + 8:pos + 8 + size])
        pos += 8 + size + (size & 1)
    return out


def info(path):
    """"format frames rate channels peak silent" of a float WAV (silent: the fraction of 100 ms blocks
    whose peak is below 1/1024); another format is named by its tag and bits, without figures."""
    c = chunks(path)
    tag, ch, rate, _, _, bits = struct.unpack('<HHIIHH', c.get(b'fmt ', bytes(16))[:16])
    if (tag, bits) != (3, 32):
        return 'tag%d/%dbit 0 %d %d 0 1' % (tag, bits, rate, ch)
    data = c.get(b'data', b'')
    a = array.array('f', data[:len(data) // 4 * 4])
    if sys.byteorder != 'little':
        a.byteswap()
    step = max(rate // 10, 1) * max(ch, 1)
    quiet = sum(1 for i in range(0, len(a), step) if max(map(abs, a[i:i + step])) < 1 / 1024)
    return 'float %d %d %d %.4f %.3f' % (len(a) // max(ch, 1), rate, ch, max(map(abs, a), default=0.0),
                                         quiet / max(-(-len(a) // step), 1))


def seek(full_path, seek_path, target):
    """"frames_before frames_compared equal start_ok end_difference" of a playback with a seek to
    frame TARGET against the unseeked one, or "error ...". The seek restarts the song and renders up
    to the target silently, so the audio after it must equal the unseeked playback from the target
    on; before it stands what was written before the pause (the song's start). The 100 ms at the
    target may also occur earlier (a repeated passage): every frame-aligned place is tried, and the
    first after which everything is equal wins."""
    full, sk, s, F = chunks(full_path)[b'data'], chunks(seek_path).get(b'data', b''), int(target), 8
    pat = full[s * F:(s + 4800) * F]
    a = array.array('f', pat)
    if len(pat) < 4800 * F or max(map(abs, a)) < 1e-3:
        return 'error: the song is silent or over at the target'
    best, pos = None, sk.find(pat)
    while pos >= 0:
        if pos % F == 0:
            n = min(len(sk) - pos, len(full) - s * F)
            equal = sk[pos:pos + n] == full[s * F:s * F + n]
            if best is None or (equal and not best[2]):
                best = (pos, n, equal)
            if equal:
                break
        pos = sk.find(pat, pos + 1)
    if best is None:
        return 'error: the audio at the target is not in the WAV'
    pos, n, equal = best
    end_diff = (len(sk) - pos) // F - (len(full) // F - s)
    return '%d %d %d %d %d' % (pos // F, n // F, equal, sk[:pos] == full[:pos], end_diff)


def title(path):
    """The title a ProTracker module's name gives: its first 20 bytes (up to a NUL) as ISO-8859-1
    without control bytes and padding, or the file name when no letter or digit is left."""
    raw = open(path, 'rb').read()[:20].split(b'\0')[0]
    text = ''.join(chr(b) for b in raw if 0x20 <= b < 0x7F or b >= 0xA0).replace('\xa0', ' ').strip()
    return text if any(c.isalnum() for c in text) else os.path.basename(path)


def kelva_info(text):
    """"player length_ms" of the first file in `kelva info --json` output."""
    try:
        e = json.loads(text)[0]
        return '%s %s' % (e.get('player', 'none'), e['subsongs'][0]['length_ms'])
    except (ValueError, LookupError, TypeError):
        return 'none 0'


COMMANDS = {'info': info, 'seek': seek, 'title': title, 'kelva-info': kelva_info}
if __name__ == '__main__':
    print(COMMANDS[sys.argv[1]](*sys.argv[2:]))
