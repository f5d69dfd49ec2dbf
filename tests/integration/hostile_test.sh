#!/usr/bin/env bash
# hostile_test.sh -- kelva inside the real Audacious, headless, fed a
# playlist of hostile files.
#
#   hostile_test.sh --plugin kelva.so --players DIR --real-players DIR
#                   [--modules DIR] [--keep] [--verbose]
#
# Starts "audacious -H" through the harness in lib.sh (private HOME, XDG folders,
# D-Bus session and plugin folder; the file writer as output; the other
# tracker plugins disabled) with a data tree holding kelva's real players
# (--real-players, the build tree's kelva_data/players) and the Misbehave
# test player (from --players). The playlist:
#
#   rand1.mod rand2.mod  random bytes under the ProTracker player's extension
#   rand3.fc rand4.okt   random bytes under other listed extensions
#   rand5.hvl            random bytes under the HivelyTracker player's extension
#   rand6.digi           random bytes under the DIGI Booster player's extension
#   cut1.mod cut2.mod    a real module (from --modules, else a made-up one)
#                        cut after its header and in its patterns
#   cut3.ahx             an AHX song from --modules cut in its tracks (when
#                        one is at hand)
#   cut4.okt cut5.digi   an Oktalyzer song cut in its patterns and a DIGI
#                        Booster module cut in its patterns (from --modules,
#                        when at hand)
#   forever.kvloop       the Misbehave player, whose tick routine loops
#                        forever (each tick costs the whole step budget)
#   empty.mod            an empty file
#   x.mod                a folder
#
# Every entry is played; an entry must stop by itself (it ended, or it was
# refused) within a few seconds, or it is stopped, and Audacious must answer
# after each. The log must hold the plugin's "kelva: " messages for the
# entries it refuses. Each process started here is stopped by its PID.
#
# Exit: 0 pass, 1 fail, 77 skipped (Audacious, the file writer or the
# players are missing).

set -u
export LC_ALL=C

PLUGIN=""
PLAYERS=""
REAL=""
MODULES=""
KEEP=0
VERBOSE=0
while [ $# -gt 0 ]; do
    case "$1" in
        --plugin) PLUGIN=${2:-}; shift 2 ;;
        --players) PLAYERS=${2:-}; shift 2 ;;
        --real-players) REAL=${2:-}; shift 2 ;;
        --modules) MODULES=${2:-}; shift 2 ;;
        --keep) KEEP=1; shift ;;
        --verbose) VERBOSE=1; shift ;;
        *) echo "usage: $0 --plugin kelva.so --players DIR --real-players DIR [--modules DIR] [--keep] [--verbose]" >&2
           exit 1 ;;
    esac
done

TEST_NAME=hostile
. "$(dirname "$0")/lib.sh"

aud_require_plugin
[ -n "$PLAYERS" ] && [ -f "$PLAYERS/Misbehave" ] || skip "test player Misbehave not found in '$PLAYERS' (built with the m68k toolchain)"
[ -n "$REAL" ] && [ -f "$REAL/PTK-Prowiz" ] || skip "player PTK-Prowiz not found in '$REAL' (built with the m68k toolchain)"

aud_begin
aud_make_prefix "$PLUGIN"
aud_write_config

# ---- data tree and the hostile files
DATA=$T/kelva_data
MUS=$T/music
mkdir -p "$DATA/players/ENV" "$MUS"
for p in "$REAL"/*; do [ -f "$p" ] && cp "$p" "$DATA/players/"; done
cp "$PLAYERS/Misbehave" "$DATA/players/Misbehave"
cat > "$DATA/eagleplayer.conf" <<'CONF'
# made by hostile_test.sh
PTK-Prowiz prefixes=mod,mod15,m15,st,nst,stk,ptk epopt=type:pt30
UltimateSoundtracker prefixes=ust,fc
Soundtracker-IV prefixes=st4
Oktalyzer prefixes=okt
DIGIBooster prefixes=digi
AHX prefixes=ahx,thx
HivelyTracker prefixes=hvl
Misbehave prefixes=kvloop
CONF

rand_file() { head -c "$2" /dev/urandom > "$1"; }
rand_file "$MUS/rand1.mod" 1500
rand_file "$MUS/rand2.mod" 70000
rand_file "$MUS/rand3.fc" 3000
rand_file "$MUS/rand4.okt" 3000
rand_file "$MUS/rand5.hvl" 3000
rand_file "$MUS/rand6.digi" 3000
# A real module if one is at hand, else a made-up 31-instrument one.
SRC=""
if [ -n "$MODULES" ] && [ -d "$MODULES" ]; then
    SRC=$(find "$MODULES" -type f -iname '*.mod' -size +30k -size -400k 2>/dev/null | sort | head -n1)
fi
if [ -z "$SRC" ]; then
    SRC=$T/made.mod
    python3 - "$SRC" <<'PY'
import struct, sys
h = b"made up".ljust(20, b"\0")
for i in range(31):
    h += b"".ljust(22, b"\0") + struct.pack(">HBBHH", 2000 if i < 4 else 0, 0, 64, 0, 1)
h += bytes([2, 0, 0, 1]) + bytes(126) + b"M.K."
pat = bytearray(1024)
for r in range(0, 64, 2):
    pat[r * 16:r * 16 + 4] = bytes([0x10, 0xAC, 0x10, 0x00])
open(sys.argv[1], "wb").write(h + bytes(pat) * 2 + bytes(range(256)) * 63)
PY
fi
head -c 1500 "$SRC" > "$MUS/cut1.mod"     # the header and part of the first pattern
head -c 9000 "$SRC" > "$MUS/cut2.mod"     # some patterns, no samples
printf 'the tick routine of this player never returns\n' > "$MUS/forever.kvloop"
: > "$MUS/empty.mod"
mkdir "$MUS/x.mod"
ENTRIES="rand1.mod rand2.mod rand3.fc rand4.okt rand5.hvl rand6.digi cut1.mod cut2.mod forever.kvloop empty.mod x.mod"
AHX_SRC=""
[ -n "$MODULES" ] && [ -d "$MODULES/ahx" ] && AHX_SRC=$(find "$MODULES/ahx" -type f -name 'AHX.*' | sort | head -n1)
if [ -n "$AHX_SRC" ]; then
    head -c 700 "$AHX_SRC" > "$MUS/cut3.ahx"
    ENTRIES="$ENTRIES cut3.ahx"
fi
OKT_SRC=""
[ -n "$MODULES" ] && [ -d "$MODULES/okt" ] && OKT_SRC=$(find "$MODULES/okt" -type f -name '*.okta' | sort | head -n1)
if [ -n "$OKT_SRC" ]; then
    head -c 2000 "$OKT_SRC" > "$MUS/cut4.okt"   # the header and part of the first pattern
    ENTRIES="$ENTRIES cut4.okt"
fi
if [ -n "$MODULES" ] && [ -f "$MODULES/other/yyde2.digi" ]; then
    head -c 2000 "$MODULES/other/yyde2.digi" > "$MUS/cut5.digi"   # cut in its patterns: refused
    ENTRIES="$ENTRIES cut5.digi"
fi

aud_start KELVA_DATA="$DATA"

# ---- the playlist
at playlist-clear
for f in $ENTRIES; do at playlist-addurl "$(uri "$MUS/$f")"; done
# Audacious drops what it cannot read when adding (the folder has no
# files, an empty file may be refused): wait until the list settles.
wait_for 30 eval '[ "$(nentries)" -ge 8 ]' || fail "the playlist holds only $(nentries) entries"
sleep 2
N=$(nentries)
echo "playlist: $N entries"
for e in $(seq 1 "$N"); do
    echo "  $e: $(at playlist-song-filename "$e") format '$(at playlist-tuple-data codec "$e")'"
done
alive "$APID" && [ -n "$(at version)" ] && pass "Audacious reads the hostile playlist" || fail "Audacious died reading the playlist"
# The folder x.mod holds no files: Audacious adds nothing for it.
for e in $(seq 1 "$N"); do
    [ "$(at playlist-song-filename "$e")" = "$MUS/x.mod" ] && fail "the folder x.mod became a playlist entry"
done

# ---- play every entry: it ends or is refused by itself, or it is stopped
# after LIMIT seconds (a module may legitimately play on; the endless
# player never ends), and Audacious must answer afterwards.
LIMIT=6
for e in $(seq 1 "$N"); do
    alive "$APID" || break
    name=$(at playlist-song-filename "$e")
    codec=$(at playlist-tuple-data codec "$e")
    at playlist-jump "$e"
    [ "$(at playlist-stop-after-status)" = on ] || at playlist-stop-after-toggle
    t0=$(now_ms)
    at playback-play
    seen=0 how=""
    while alive "$APID"; do
        st=$(at playback-status)
        el=$(( $(now_ms) - t0 ))
        if [ "$st" = playing ] || [ "$st" = paused ]; then seen=1; fi
        if [ "$st" = stopped ] && { [ $seen = 1 ] || [ $el -ge 2000 ]; }; then how="ended or refused"; break; fi
        if [ $el -ge $((LIMIT * 1000)) ]; then
            at playback-stop
            wait_for 20 eval '[ "$(at playback-status)" = stopped ]' && how="stopped after ${LIMIT} s" || how="did not stop"
            break
        fi
        sleep 0.1
    done
    el=$(( $(now_ms) - t0 ))
    if alive "$APID" && [ -n "$(at version)" ] && [ "$how" != "did not stop" ]; then
        pass "$(basename "$name") (${codec:-no decoder claimed it}): $how in $el ms; Audacious answers"
    else
        fail "$(basename "$name"): ${how:-Audacious died} after $el ms"
    fi
done

# ---- what the plugin said
stop_all
grep -q -F "Loading plugin: $PDIR/Input/kelva.so" "$ALOG" && pass "kelva.so loaded" || fail "kelva.so was not loaded"
nk=$(grep -c -F 'kelva: ' "$ALOG")
[ "$nk" -gt 0 ] && pass "the log holds $nk \"kelva: \" messages" || fail "no \"kelva: \" message in the log"
if grep -q -E "kelva: .*(rand1|rand3|rand4|rand5|rand6|cut1|cut2|cut3|cut5|empty)\." "$ALOG"; then
    pass "refused files are named in kelva's messages"
else
    fail "no kelva message names a refused hostile file"
fi
if grep -q -E 'AddressSanitizer|runtime error:|Segmentation fault|Aborted' "$ALOG" "$AOUT"; then
    fail "a crash or sanitizer report is in Audacious' output"
else
    pass "no crash or sanitizer report in Audacious' output"
fi

aud_finish_report
