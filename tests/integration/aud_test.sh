#!/usr/bin/env bash
# aud_test.sh -- kelva inside the real Audacious, headless.
#
#   aud_test.sh --plugin kelva.so --players DIR [--keep] [--verbose]
#
# Starts "audacious -H" with a throw-away configuration (its own HOME, XDG
# folders and D-Bus session), the file writer as output (WAV, float), the
# plugins that also claim tracker files (openmpt, modplug, ffaudio) disabled,
# and kelva.so in a private copy of Audacious' plugin folder (Audacious only
# loads plugins from the folder beside its own binary, so the binary is
# copied into a private prefix whose plugin folder links every system plugin
# plus ours). The data tree is made here from the test players in DIR:
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
# Checks what Audacious shows (title, format, length, subtune entries), what
# the file writer wrote (length, level), that the failure is logged and that
# Audacious keeps running. Every process started here is stopped by its PID.
#
# Exit: 0 pass, 1 fail, 77 skipped (Audacious, the file writer or the test
# players are missing).

set -u
export LC_ALL=C

PLUGIN=""
PLAYERS=""
KEEP=0
VERBOSE=0
while [ $# -gt 0 ]; do
    case "$1" in
        --plugin) PLUGIN=${2:-}; shift 2 ;;
        --players) PLAYERS=${2:-}; shift 2 ;;
        --keep) KEEP=1; shift ;;
        --verbose) VERBOSE=1; shift ;;
        *) echo "usage: $0 --plugin kelva.so --players DIR [--keep] [--verbose]" >&2; exit 1 ;;
    esac
done

skip() { echo "SKIP: $*"; exit 77; }
FAILS=0
pass() { echo "ok   $*"; }
fail() { echo "FAIL $*"; FAILS=$((FAILS + 1)); }

[ -n "$PLUGIN" ] && [ -f "$PLUGIN" ] || { echo "aud_test: plugin not found: '$PLUGIN'" >&2; exit 1; }
PLUGIN=$(readlink -f "$PLUGIN")
AUDBIN=$(command -v audacious) || skip "audacious is not installed (Debian packages audacious, audacious-plugins)"
command -v audtool >/dev/null || skip "audtool is not installed (package audacious)"
command -v dbus-daemon >/dev/null || skip "dbus-daemon is not installed (package dbus)"
command -v python3 >/dev/null || skip "python3 is needed to read the WAV files"
AUDBIN=$(readlink -f "$AUDBIN")
SYS_PLUGIN_DIR=$(pkg-config --variable=plugin_dir audacious 2>/dev/null || true)
if [ -z "$SYS_PLUGIN_DIR" ] || [ ! -d "$SYS_PLUGIN_DIR/Output" ]; then
    for d in /usr/lib/*/audacious /usr/lib/audacious; do [ -d "$d/Output" ] && SYS_PLUGIN_DIR=$d && break; done
fi
[ -d "$SYS_PLUGIN_DIR/Output" ] || skip "cannot find Audacious' plugin folder"
[ -f "$SYS_PLUGIN_DIR/Output/filewriter.so" ] || skip "the file writer output plugin is missing (package audacious-plugins)"
for p in Tone SongEnd Subsong; do
    [ -n "$PLAYERS" ] && [ -f "$PLAYERS/$p" ] || skip "test player $p not found in '$PLAYERS' (built with the m68k toolchain)"
done

T=$(mktemp -d /tmp/kelva-aud-XXXXXX) || exit 1
APID=""
DPID=""
alive() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null; }
wait_gone() { # pid seconds
    local n=$(($2 * 20))
    while alive "$1" && [ $n -gt 0 ]; do sleep 0.05; n=$((n - 1)); done
    ! alive "$1"
}
at() { DBUS_SESSION_BUS_ADDRESS=$BUS timeout 10 audtool "$@" 2>/dev/null; }
stop_all() {
    if alive "$APID"; then
        at shutdown >/dev/null
        wait_gone "$APID" 10 || { kill -TERM "$APID" 2>/dev/null; wait_gone "$APID" 5 || kill -KILL "$APID" 2>/dev/null; }
    fi
    [ -n "$APID" ] && wait "$APID" 2>/dev/null
    APID=""
    if alive "$DPID"; then
        kill -TERM "$DPID" 2>/dev/null
        wait_gone "$DPID" 5 || kill -KILL "$DPID" 2>/dev/null
    fi
    [ -n "$DPID" ] && wait "$DPID" 2>/dev/null
    DPID=""
}
finish() {
    stop_all
    if [ $KEEP = 1 ]; then echo "kept: $T"; else rm -rf "$T"; fi
}
trap finish EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
BUS="unix:path=$T/bus"
now_ms() { date +%s%3N; }
# wait_for SECONDS COMMAND...: polls until the command succeeds.
wait_for() {
    local end=$(($(now_ms) + $1 * 1000))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt $end ] || return 1
        alive "$APID" || return 1
        sleep 0.1
    done
}

# ---- private prefix: a copy of the binary and a plugin folder with kelva.so
prefix_root=$(dirname "$(dirname "$AUDBIN")")
case "$SYS_PLUGIN_DIR" in "$prefix_root"/*) ;; *) skip "plugin folder $SYS_PLUGIN_DIR is not under $prefix_root" ;; esac
P=$T/prefix
PDIR=$P/${SYS_PLUGIN_DIR#"$prefix_root"/}
mkdir -p "$P/bin"
cp "$AUDBIN" "$P/bin/audacious"           # a copy: the plugin folder is found from /proc/self/exe
ln -s "$prefix_root/share" "$P/share"
for d in "$SYS_PLUGIN_DIR"/*/; do
    sub=$(basename "$d")
    mkdir -p "$PDIR/$sub"
    for so in "$d"*.so; do
        [ -e "$so" ] || continue
        [ "$sub/$(basename "$so")" = Input/kelva.so ] && continue   # an installed kelva is replaced by ours
        ln -s "$so" "$PDIR/$sub/"
    done
done
mkdir -p "$PDIR/Input"
ln -s "$PLUGIN" "$PDIR/Input/kelva.so"

# ---- data tree and music
DATA=$T/kelva_data
MUS=$T/music
mkdir -p "$DATA/players/ENV" "$MUS" "$T/home" "$T/config/audacious" "$T/xdg" "$T/cache" "$T/run" "$T/out"
chmod 700 "$T/run"
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
uri() { printf 'file://%s' "$1"; }   # the paths made here need no escapes

# ---- configuration
cat > "$T/config/audacious/config" <<EOF
[audacious]
resume_playback_on_startup=FALSE
slow_probe=TRUE
output_bit_depth=-1
metadata_fallbacks=FALSE
stop_after_current_song=FALSE

[filewriter]
fileext=0
file_path=$(uri "$T/out")
save_original=FALSE
filenamefromtags=FALSE
use_suffix=FALSE
prependnumber=FALSE
EOF
{
    echo "format 10"
    echo "output $SYS_PLUGIN_DIR/Output/filewriter.so"
    echo "enabled 1"
    for n in openmpt modplug ffaudio; do
        [ -e "$PDIR/Input/$n.so" ] || continue
        echo "input $PDIR/Input/$n.so"
        echo "enabled 0"
    done
} > "$T/config/audacious/plugin-registry"

# ---- start D-Bus and Audacious
dbus-daemon --session --nofork --nopidfile --address="$BUS" > "$T/dbus.log" 2>&1 &
DPID=$!
n=100; while [ ! -S "$T/bus" ] && [ $n -gt 0 ] && alive "$DPID"; do sleep 0.05; n=$((n - 1)); done
[ -S "$T/bus" ] || { cat "$T/dbus.log"; echo "aud_test: private dbus-daemon did not start"; exit 1; }

HOME=$T/home XDG_CONFIG_HOME=$T/config XDG_DATA_HOME=$T/xdg XDG_CACHE_HOME=$T/cache XDG_RUNTIME_DIR=$T/run \
DBUS_SESSION_BUS_ADDRESS=$BUS KELVA_DATA=$DATA \
    env -u DISPLAY -u WAYLAND_DISPLAY -u SESSION_MANAGER "$P/bin/audacious" -H -V \
    > "$T/aud.out" 2> "$T/aud.log" < /dev/null &
APID=$!
wait_for 20 eval 'at version >/dev/null' || { tail -20 "$T/aud.log"; echo "aud_test: audacious did not come up"; exit 1; }
echo "audacious $(at version), pid $APID, plugin folder $PDIR"

# ---- helpers on the playlist
nentries() { at playlist-length; }
field() { at playlist-tuple-data "$1" "$2"; }
add_file() { # path: clears the playlist and adds one file
    at playlist-clear
    at playlist-addurl "$(uri "$1")"
    wait_for 20 eval '[ "$(nentries)" -ge 1 ]'
}
# play_entry N: plays one entry to its end (stop after it); sets WAV to the
# file written, or "".
play_entry() {
    rm -f "$T/out"/*.wav
    at playlist-jump "$1"
    [ "$(at playlist-stop-after-status)" = on ] || at playlist-stop-after-toggle
    at playback-play
    local end=$(($(now_ms) + 120000)) st seen=0 t0
    t0=$(now_ms)
    while [ "$(now_ms)" -lt $end ] && alive "$APID"; do
        st=$(at playback-status)
        if [ "$st" = playing ] || [ "$st" = paused ]; then seen=1
        elif [ $seen = 1 ] || [ $(($(now_ms) - t0)) -ge 2000 ]; then break
        fi
        sleep 0.05
    done
    [ "$(at playback-status)" = stopped ] || at playback-stop
    WAV=$(ls -1tr "$T/out"/*.wav 2>/dev/null | head -n1)
}
# wav_info FILE: prints "format frames rate channels peak"
wav_info() {
    python3 - "$1" <<'EOF'
import struct, sys
d = open(sys.argv[1], 'rb').read()
pos, fmt, data = 12, None, b''
while pos + 8 <= len(d):
    cid, size = d[pos:pos+4], struct.unpack('<I', d[pos+4:pos+8])[0]
    body = d[pos+8:pos+8+size]
    if cid == b'fmt ': fmt = struct.unpack('<HHIIHH', body[:16])
    if cid == b'data': data = body
    pos += 8 + size + (size & 1)
tag, ch, rate, _, _, bits = fmt
n = len(data) // (bits // 8)
if tag == 3 and bits == 32: vals = struct.unpack('<%df' % n, data[:n*4])
elif tag == 1 and bits == 16: vals = [v / 32768 for v in struct.unpack('<%dh' % n, data[:n*2])]
else: vals = [0]
print('%s %d %d %d %.4f' % ('float' if tag == 3 else 'pcm%d' % bits, n // ch, rate, ch, max((abs(v) for v in vals), default=0)))
EOF
}
expect_eq() { # what got expected
    if [ "$2" = "$3" ]; then pass "$1: $2"; else fail "$1: got '$2', expected '$3'"; fi
}

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
    read -r kind frames rate ch peak <<< "$(wav_info "$WAV")"
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
    read -r kind frames rate ch peak <<< "$(wav_info "$WAV")"
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
    all_len() { local e; for e in 1 2 3 4 5; do [ -n "$(field length $e)" ] || return 1; done; }
    if wait_for 120 all_len; then pass "five.kvsub: every subtune has a length ($(field length 1) ms ...)"
    else fail "five.kvsub: subtune lengths missing"; fi
    SUB_MS=$(field length 2)
    play_entry 2
    if [ -n "$WAV" ] && [ -n "$SUB_MS" ]; then
        # The Subsong player only sets a period: its tunes are silent, so the
        # measured length is the silence rule's one second.
        read -r kind frames rate ch peak <<< "$(wav_info "$WAV")"
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
if grep -q -F "kelva: no player matches $MUS/none.fc" "$T/aud.log"; then pass "none.fc: 'kelva: no player matches' logged"
elif grep -q -F "Error playing $(uri "$MUS/none.fc")" "$T/aud.log"; then pass "none.fc: refused (tags no longer readable), Audacious reports it"
else fail "none.fc: neither kelva nor Audacious reported the file"; fi
[ -z "$WAV" ] && pass "none.fc: no output opened" || fail "none.fc: output was written"
if alive "$APID" && [ -n "$(at version)" ]; then pass "Audacious still runs"; else fail "Audacious died"; fi

add_file "$MUS/bad.brk" || fail "bad.brk: no playlist entry"
expect_eq "bad.brk format" "$(field codec 1)" "Broken"
expect_eq "bad.brk length (unmeasurable: none shown)" "$(field length 1)" ""
play_entry 1
if grep -q -F "kelva: $MUS/bad.brk failed to start on $DATA/players/Broken" "$T/aud.log"; then pass "bad.brk: 'failed to start' logged"
else fail "bad.brk: 'failed to start' missing from the log"; fi
if alive "$APID" && [ -n "$(at version)" ]; then pass "Audacious still runs"; else fail "Audacious died"; fi

# ---- the plugin was the one that played
grep -q -F "Loading plugin: $PDIR/Input/kelva.so" "$T/aud.log" && pass "kelva.so loaded" || fail "kelva.so was not loaded"
if grep -q -E "tone.kvt.* by kelva|kelva.so.*tone.kvt" "$T/aud.log" || grep -q -F "Matched $(uri "$MUS/tone.kvt") by content" "$T/aud.log"; then
    pass "tone.kvt was matched by content"
elif [ $VERBOSE = 1 ]; then
    grep -F tone.kvt "$T/aud.log"
fi

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

if [ $VERBOSE = 1 ] || [ $FAILS -gt 0 ]; then
    echo "---- Audacious log (without INFO/DEBUG)"
    grep -v -E '^(INFO|DEBUG) ' "$T/aud.log" | tail -40
fi
[ $FAILS -eq 0 ] && { echo "PASS"; exit 0; }
echo "$FAILS check(s) failed"
exit 1
