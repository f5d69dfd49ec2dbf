#!/usr/bin/env bash
# aud_test.sh -- kelva inside the real Audacious, headless.
#
#   aud_test.sh --plugin kelva.so --players DIR [--data DIR] [--demo FILE]
#               [--modules DIR] [--keep] [--verbose]
#
# Starts "audacious -H" with a throw-away configuration (its own HOME, XDG
# folders and D-Bus session), the file writer as output (WAV, float), the
# plugins that also claim tracker files (openmpt, modplug, ffaudio) disabled,
# and kelva.so in a private copy of Audacious' plugin folder (lib.sh).
#
# First run: a data tree made here from the test players in DIR (--players):
#
#   tone.kvt   Tone player, name with an extension nobody lists, so found by
#              content probing; a steady tone whose length the scanner works
#              out in the background
#   end.dw     SongEnd player (a listed extension): ends after 4 ticks
#   five.kvsub Subsong player: five subtunes, listed as ?1..?5 once known
#   none.fc    SongEnd at first; the tree then loses its line, so the file
#              has no player any more when it is played
#   bad.brk    a "player" that is no program: "kelva: ... failed to start"
#
# Second run: kelva's real data tree (--data, the build tree's kelva_data:
# eagleplayer.conf and players/) copied to where a user installs it
# (XDG_DATA_HOME/kelva_data, no KELVA_DATA), playing the demo tune (--demo)
# and two real ProTracker modules from --modules, and a seek in the demo tune.
# Parts whose files are absent are skipped with a message.
#
# Checks what Audacious shows (title, format, length, subtune entries), what
# the file writer wrote (length, level, the audio after a seek), that the
# failures are logged and that Audacious keeps running.
#
# Exit: 0 pass, 1 fail, 77 skipped (Audacious, the file writer or the test
# players are missing).

PLUGIN=""
PLAYERS=""
REAL_DATA=""
DEMO=""
MODULES=""
KEEP=0
VERBOSE=0
while [ $# -gt 0 ]; do
    case "$1" in
        --plugin) PLUGIN=${2:-}; shift 2 ;;
        --players) PLAYERS=${2:-}; shift 2 ;;
        --data) REAL_DATA=${2:-}; shift 2 ;;
        --demo) DEMO=${2:-}; shift 2 ;;
        --modules) MODULES=${2:-}; shift 2 ;;
        --keep) KEEP=1; shift ;;
        --verbose) VERBOSE=1; shift ;;
        *) echo "usage: $0 --plugin kelva.so --players DIR [--data DIR] [--demo FILE] [--modules DIR] [--keep] [--verbose]" >&2
           exit 1 ;;
    esac
done

TEST_NAME=aud
. "$(dirname "$0")/lib.sh"

aud_require_plugin
for p in Tone SongEnd Subsong; do
    [ -n "$PLAYERS" ] && [ -f "$PLAYERS/$p" ] || skip "test player $p not found in '$PLAYERS' (built with the m68k toolchain)"
done

aud_begin
aud_make_prefix "$PLUGIN"
aud_write_config

# ---- data tree and music for the first run
DATA=$T/kelva_data
MUS=$T/music
mkdir -p "$DATA/players/ENV" "$MUS"
for p in Tone SongEnd Subsong; do cp "$PLAYERS/$p" "$DATA/players/$p"; done
cat > "$DATA/eagleplayer.conf" <<'EOF'
# made by aud_test.sh
Tone prefixes=kvt
SongEnd prefixes=dw,fc
Subsong prefixes=kvsub
Broken prefixes=brk
EOF
printf 'not a hunk file\n' > "$DATA/players/Broken"
printf 'a steady tone\n' > "$MUS/tone.kvt"
printf 'four ticks long\n' > "$MUS/end.dw"
printf 'five subtunes\n' > "$MUS/five.kvsub"
printf 'nobody plays this\n' > "$MUS/none.fc"
printf 'its player is broken\n' > "$MUS/bad.brk"

aud_start KELVA_DATA="$DATA"

# ---- 1. a file found by content probing; its length comes from the scanner
add_file "$MUS/tone.kvt" || fail "tone.kvt: no playlist entry"
expect_eq "tone.kvt title" "$(field title 1)" "tone.kvt"
expect_eq "tone.kvt format" "$(field codec 1)" "Tone"
# The first read only queued the file; the scanner measures it and asks
# Audacious to read the tags again.
if wait_for 120 eval '[ -n "$(field length 1)" ]'; then
    TONE_MS=$(field length 1)
    pass "tone.kvt length from the scanner: $TONE_MS ms"
else
    TONE_MS=""
    fail "tone.kvt: no length within 120 s"
fi
play_entry 1
if [ -n "$WAV" ]; then
    read -r kind frames rate ch peak quiet <<< "$(wav_info "$WAV")"
    expect_eq "tone.kvt output format" "$kind $rate $ch" "float 48000 2"
    if [ -n "$TONE_MS" ]; then
        # Playback stops at the first 4096-frame block that reaches the length.
        want=$(( (TONE_MS * 48 + 4095) / 4096 * 4096 ))
        expect_eq "tone.kvt frames written" "$frames" "$want"
    fi
    if python3 -c "import sys; sys.exit(0 if float('$peak') > 0.05 else 1)"; then pass "tone.kvt is not silent (peak $peak)"
    else fail "tone.kvt is silent (peak $peak)"; fi
else
    fail "tone.kvt: the file writer wrote nothing"
fi

# ---- 2. a listed extension and a player that signals its end
add_file "$MUS/end.dw" || fail "end.dw: no playlist entry"
expect_eq "end.dw format" "$(field codec 1)" "SongEnd"
play_entry 1
if [ -n "$WAV" ]; then
    read -r kind frames rate ch peak quiet <<< "$(wav_info "$WAV")"
    # The song ends within the first block: exactly one block is written.
    expect_eq "end.dw frames written" "$frames" "4096"
else
    fail "end.dw: the file writer wrote nothing"
fi

# ---- 3. subtunes: listed as ?1..?5 once the database knows the count
add_file "$MUS/five.kvsub" || fail "five.kvsub: no playlist entry"
# Audacious expands subtunes only when a file is added; add it again until
# the scanner has stored the count.
end_ms=$(($(now_ms) + 120000))
while [ "$(nentries)" != 5 ] && [ "$(now_ms)" -lt $end_ms ] && alive "$APID"; do
    sleep 0.5
    at playlist-clear
    at playlist-addurl "$(uri "$MUS/five.kvsub")"
    wait_for 10 eval '[ "$(nentries)" -ge 1 ]'
    sleep 0.3
done
expect_eq "five.kvsub entries" "$(nentries)" "5"
if [ "$(nentries)" = 5 ]; then
    expect_eq "five.kvsub entry 3" "$(at playlist-song-filename 3)" "$MUS/five.kvsub?3"
    # The Subsong player names no title: the file name, with the subtune.
    expect_eq "five.kvsub entry 3 title" "$(field title 3)" "five.kvsub (3/5)"
    all_len() { local e; for e in 1 2 3 4 5; do [ -n "$(field length $e)" ] || return 1; done; }
    if wait_for 120 all_len; then pass "five.kvsub: every subtune has a length ($(field length 1) ms ...)"
    else fail "five.kvsub: subtune lengths missing"; fi
    SUB_MS=$(field length 2)
    play_entry 2
    if [ -n "$WAV" ] && [ -n "$SUB_MS" ]; then
        # The Subsong player only sets a period: its tunes are silent, so the
        # measured length is the silence rule's one second.
        read -r kind frames rate ch peak quiet <<< "$(wav_info "$WAV")"
        expect_eq "five.kvsub?2 frames written" "$frames" "$(( (SUB_MS * 48 + 4095) / 4096 * 4096 ))"
    else
        fail "five.kvsub?2: the file writer wrote nothing"
    fi
fi

# ---- 4. failures while playing: a message each, and Audacious goes on
add_file "$MUS/none.fc" || fail "none.fc: no playlist entry"
expect_eq "none.fc format before the tree changes" "$(field codec 1)" "SongEnd"
grep -v '^SongEnd' "$DATA/eagleplayer.conf" > "$DATA/conf.new" && printf 'SongEnd prefixes=dw\n' >> "$DATA/conf.new"
mv "$DATA/conf.new" "$DATA/eagleplayer.conf"
play_entry 1
# Audacious 4.2 reads the tags again right before it plays an entry and does
# not call play() when that fails, so the refusal shows as its own error;
# kelva's "no player matches" line appears only if play() is reached anyway.
if grep -q -F "kelva: no player matches $MUS/none.fc" "$ALOG"; then pass "none.fc: 'kelva: no player matches' logged"
elif grep -q -F "Error playing $(uri "$MUS/none.fc")" "$ALOG"; then pass "none.fc: refused (tags no longer readable), Audacious reports it"
else fail "none.fc: neither kelva nor Audacious reported the file"; fi
[ -z "$WAV" ] && pass "none.fc: no output opened" || fail "none.fc: output was written"
if alive "$APID" && [ -n "$(at version)" ]; then pass "Audacious still runs"; else fail "Audacious died"; fi

add_file "$MUS/bad.brk" || fail "bad.brk: no playlist entry"
expect_eq "bad.brk format" "$(field codec 1)" "Broken"
expect_eq "bad.brk length (unmeasurable: none shown)" "$(field length 1)" ""
play_entry 1
if grep -q -F "kelva: $MUS/bad.brk failed to start on $DATA/players/Broken" "$ALOG"; then pass "bad.brk: 'failed to start' logged"
else fail "bad.brk: 'failed to start' missing from the log"; fi
if alive "$APID" && [ -n "$(at version)" ]; then pass "Audacious still runs"; else fail "Audacious died"; fi

# ---- the plugin was the one that played
grep -q -F "Loading plugin: $PDIR/Input/kelva.so" "$ALOG" && pass "kelva.so loaded" || fail "kelva.so was not loaded"
# (That kelva read tone.kvt, whose extension nobody lists, shows in its
# format "Tone" above: only kelva reports player names.)
stop_all
# What Audacious recorded about the plugin when it shut down (its registry
# lists file-name extensions under the word "scheme").
REG=$T/config/audacious/plugin-registry
block=$(awk -v p="input $PDIR/Input/kelva.so" '$0 == p { on = 1; next } on && /^(input|output|effect|general|vis|playlist|transport|iface) / { on = 0 } on' "$REG" 2>/dev/null)
expect_eq "registry name" "$(sed -n 's/^name //p' <<< "$block")" "kelva Amiga Music"
expect_eq "registry priority" "$(sed -n 's/^priority //p' <<< "$block")" "1"
expect_eq "registry subtune support" "$(sed -n 's/^subtunes //p' <<< "$block")" "2"
expect_eq "registry extensions" "$(sed -n 's/^scheme //p' <<< "$block" | tr '\n' ' ')" \
    "mod med mmd0 mmd1 mmd2 ahx thx hvl fc fc13 fc14 smod sng dw bd okt dmu mug ptm tfmx mdat aon st digi gmc sfx ml vss ims "
expect_eq "registry settings page" "$(sed -n 's/^config //p' <<< "$block")" "1"


# ---- second run: the real data tree where a user installs it
# mod_title FILE: the title a ProTracker module's bytes give: its first 20
# bytes (up to a NUL) as ISO-8859-1 without control bytes and padding, or
# the file name when no letter or digit is left.
mod_title() {
    python3 - "$1" <<'EOF'
import os, sys
raw = open(sys.argv[1], 'rb').read()[:20].split(b'\0')[0]
text = ''.join(chr(b) for b in raw if 0x20 <= b < 0x7F or b >= 0xA0).replace('\xa0', ' ').strip()
print(text if any(c.isalnum() for c in text) else os.path.basename(sys.argv[1]))
EOF
}
if [ -z "$REAL_DATA" ] || [ ! -f "$REAL_DATA/eagleplayer.conf" ] || [ ! -f "$REAL_DATA/players/PTK-Prowiz" ]; then
    echo "skip the real players: no data tree with eagleplayer.conf and players/PTK-Prowiz in '$REAL_DATA'"
    aud_finish_report
fi
mkdir -p "$T/xdg/kelva_data"
cp -R "$REAL_DATA/." "$T/xdg/kelva_data/"
# Each song as name|lowest|highest length in ms: the length measured from
# the song's end: for the demo tune 46.08 to 46.2 s as its source gives it,
# for the modules what two independent players measure, one 20 ms
# tick either way.
SONGS=""
if [ -n "$DEMO" ] && [ -f "$DEMO" ]; then
    cp "$DEMO" "$MUS/demo.mod"
    SONGS="demo.mod|46080|46200"
else
    echo "skip the demo tune: '$DEMO' not found"
fi
for m in AnarchyMenu1.mod:147820:147860 corpses.mod:55060:55100; do
    f=${m%%:*}
    src=""
    [ -n "$MODULES" ] && src=$(find "$MODULES" -type f -name "$f" 2>/dev/null | head -n1)
    if [ -n "$src" ]; then
        cp "$src" "$MUS/$f"
        lo=${m#*:}
        SONGS="$SONGS $f|${lo%%:*}|${lo#*:}"
    else
        echo "skip $f: not found under '$MODULES'"
    fi
done

aud_start
mkdir -p "$T/full"
# play_song NAME LOW HIGH: the playlist shows title, format and a length
# within LOW..HIGH ms; playing writes a WAV of that length (to the end of
# the 4096-frame block that reaches it) that is not silent. The WAV is kept
# as $T/full/NAME.wav.
play_song() {
    local name=$1 lo=$2 hi=$3 len kind frames rate ch peak quiet
    add_file "$MUS/$name" || { fail "$name: no playlist entry"; return; }
    expect_eq "$name title (from the module's name)" "$(field title 1)" "$(mod_title "$MUS/$name")"
    expect_eq "$name artist (a ProTracker module names none)" "$(field artist 1)" ""
    expect_eq "$name format" "$(field codec 1)" "ProTracker (31-instrument M.K.), PTK-Prowiz"
    # The add-time read only queued the file: the scanner measures it.
    if wait_for 60 eval '[ -n "$(field length 1)" ]'; then
        len=$(field length 1)
        expect_in "$name length in the playlist (ms)" "$len" "$lo" "$hi"
    else
        fail "$name: no length within 60 s"
        return
    fi
    play_entry 1
    [ -n "$WAV" ] || { fail "$name: the file writer wrote nothing"; return; }
    read -r kind frames rate ch peak quiet <<< "$(wav_info "$WAV")"
    expect_eq "$name output format" "$kind $rate $ch" "float 48000 2"
    # Playback ends with the block in which the song ends.
    expect_in "$name frames written (length $len ms)" "$frames" "$((len * 48))" "$((len * 48 + 4095))"
    if python3 -c "import sys; sys.exit(0 if float('$peak') > 0.05 and float('$quiet') < 0.5 else 1)"; then
        pass "$name is not silent (peak $peak, silent 100 ms blocks $quiet)"
    else
        fail "$name is silent or nearly (peak $peak, silent 100 ms blocks $quiet)"
    fi
    mv "$WAV" "$T/full/$name.wav"
}
for s in $SONGS; do
    IFS='|' read -r name lo hi <<< "$s"
    play_song "$name" "$lo" "$hi"
done
# A module whose name is only control bytes is listed under its file name.
if [ -f "$MUS/corpses.mod" ]; then
    python3 -c "import sys; d = bytearray(open(sys.argv[1], 'rb').read()); d[0:20] = bytes(range(1, 21)); open(sys.argv[2], 'wb').write(d)" \
        "$MUS/corpses.mod" "$MUS/garbled.mod"
    add_file "$MUS/garbled.mod" || fail "garbled.mod: no playlist entry"
    expect_eq "garbled.mod title (a garbage name gives the file name)" "$(field title 1)" "garbled.mod"
    expect_eq "garbled.mod format" "$(field codec 1)" "ProTracker (31-instrument M.K.), PTK-Prowiz"
fi

# ---- a seek lands where it should
# The file writer takes audio as fast as the plugin renders it (hundreds of
# times real time), so the seek is made while paused: one audtool call starts
# playback and pauses it at once (while paused, the output holds the plugin
# in write_audio, or the plugin has not opened the output yet); then the
# seek; then playback goes on to the end. The WAV is then what was written
# before the pause (the start of the song, often nothing) followed by the
# song from the target on. A seek restarts the song and renders up to the
# target silently, so the audio after it must equal, sample for sample, the
# unseeked playback from the target on; the two ends differ by less than one
# 4096-frame block (each stops with the block in which the song ends).
seek_compare() { # FULL.wav SEEK.wav TARGET_FRAMES -> "pre tail_frames equal prefix_ok end_diff" or "error ..."
    python3 - "$@" <<'EOF'
import array, struct, sys
def data(p):
    d = open(p, 'rb').read(); pos = 12
    while pos + 8 <= len(d):
        cid, size = d[pos:pos+4], struct.unpack('<I', d[pos+4:pos+8])[0]
        if cid == b'data': return d[pos+8:pos+8+size]
        pos += 8 + size + (size & 1)
    return b''
full, seek, s = data(sys.argv[1]), data(sys.argv[2]), int(sys.argv[3])
F = 8                                  # bytes per frame: two float channels
pat = full[s * F:(s + 4800) * F]       # 100 ms of the song at the target
a = array.array('f'); a.frombytes(pat)
if len(pat) < 4800 * F or max(map(abs, a)) < 1e-3:
    print('error: the song is silent or over at the target'); sys.exit()
# Where the WAV holds those 100 ms: the same music may also occur earlier
# (a repeated passage), so every frame-aligned place is tried, and the first
# one after which everything equals the song from the target wins.
best, pos = None, seek.find(pat)
while pos >= 0:
    if pos % F == 0:
        n = min(len(seek) - pos, len(full) - s * F)
        equal = seek[pos:pos + n] == full[s * F:s * F + n]
        if best is None or (equal and not best[2]): best = (pos, n, equal)
        if equal: break
    pos = seek.find(pat, pos + 1)
if best is None:
    print('error: the audio at the target is not in the WAV'); sys.exit()
pos, n, equal = best
prefix_ok = seek[:pos] == full[:pos]
end_diff = (len(seek) - pos) // F - (len(full) // F - s)
print(pos // F, n // F, int(equal), int(prefix_ok), end_diff)
EOF
}
# seek_song NAME SECONDS: plays NAME with a seek to SECONDS made while
# paused and compares the WAV with $T/full/NAME.wav.
seek_song() {
    local name=$1 sec=$2 st try t0 r pre n equal prefix_ok end_diff
    if [ ! -f "$T/full/$name.wav" ]; then
        echo "skip the seek in $name: it was not played"
        return
    fi
    add_file "$MUS/$name" || { fail "$name: no playlist entry for the seek"; return; }
    at playlist-jump 1
    [ "$(at playlist-stop-after-status)" = on ] || at playlist-stop-after-toggle
    st=""
    for try in 1 2 3; do
        rm -f "$T/out"/*.wav
        at playback-play playback-pause
        st=$(at playback-status)
        [ "$st" = paused ] && break
        # It ended before the pause arrived (a very loaded machine): again.
        at playback-stop
        wait_for 10 eval '[ "$(at playback-status)" = stopped ]'
    done
    if [ "$st" != paused ]; then
        fail "seek in $name: playback could not be paused after 3 tries (it was '$st')"
        return
    fi
    t0=$(now_ms)
    at playback-seek "$sec"
    at playback-pause
    wait_stopped "$t0"
    WAV=$(first_wav)
    [ -n "$WAV" ] || { fail "seek in $name to $sec s: the file writer wrote nothing"; return; }
    r=$(seek_compare "$T/full/$name.wav" "$WAV" $((sec * 48000)))
    echo "     seek in $name to $sec s: $r (frames before the seek, frames compared, equal, start ok, end difference)"
    if [ "${r#error}" != "$r" ]; then
        fail "seek in $name to $sec s: $r"
        return
    fi
    read -r pre n equal prefix_ok end_diff <<< "$r"
    expect_eq "seek in $name to $sec s: audio after it equals playback from $sec s ($n frames)" "$equal" 1
    expect_eq "seek in $name to $sec s: what was written before it is the song's start ($pre frames)" "$prefix_ok" 1
    expect_in "seek in $name to $sec s: frames after it minus frames from $sec s to the end" "$end_diff" -4095 4095
}
seek_song demo.mod 30
[ -f "$MUS/AnarchyMenu1.mod" ] && seek_song AnarchyMenu1.mod 90   # 4,320,000 frames rendered silently
aud_answers && pass "Audacious still runs" || fail "Audacious died"
stop_all
grep -q -F 'kelva: ' "$ALOG" && fail "kelva logged a message with the real players: $(grep -F 'kelva: ' "$ALOG" | head -n1)"

aud_finish_report
