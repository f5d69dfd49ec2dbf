#!/usr/bin/env bash
# hostile_test.sh -- kelva inside the real Audacious, headless (the harness of lib.sh), fed a
# playlist of hostile files.
#   hostile_test.sh --plugin kelva.so --players DIR --data DIR [--modules DIR] [--demo FILE] [--keep] [--verbose]
# The data tree holds kelva's real players (from --data) and the Misbehave test player, whose tick
# routine loops forever. The playlist (table below): random bytes under listed extensions; real
# modules cut after their header or in their patterns; the endless player; an empty file; a folder.
# Each entry must stop by itself (ended or refused) or when stopped after a few seconds, Audacious
# answering after each; the log must name refused files in "kelva: " messages and hold no crash.
# Exit: 0 pass, 1 fail, 77 skipped (Audacious, the file writer or the players missing).
TEST_NAME=hostile
. "$(dirname "$0")/lib.sh"
parse_args "plugin players data modules demo" "$@"
aud_setup Misbehave
[ -f "$ARG_DATA/players/PTK-Prowiz" ] || skip "player PTK-Prowiz not found in '$ARG_DATA/players' (m68k toolchain)"
M=${ARG_MODULES:-none}
for p in "$ARG_DATA"/players/*; do [ -f "$p" ] && cp "$p" "$DATA/players/"; done
{
    echo "PTK-Prowiz prefixes=mod,mod15,m15,st,nst,stk,ptk epopt=type:pt30"
    printf '%s prefixes=%s\n' UltimateSoundtracker ust,fc Soundtracker-IV st4 Oktalyzer okt DIGIBooster digi \
        AHX ahx,thx HivelyTracker hvl Misbehave kvloop
} > "$DATA/eagleplayer.conf"
first() { find "$@" -type f 2>/dev/null | sort | head -n1; }
MOD=$(first "$M" -iname '*.mod' -size +30k -size -400k) AHX=$(first "$M/ahx" -name 'AHX.*')
OKT=$(first "$M/okt" -name '*.okta')
ENTRIES=""
# name, bytes kept, source (random: random bytes)
while read -r name bytes src; do
    [ "$src" = random ] && src=/dev/urandom
    [ -e "$src" ] || { echo "no source for $name: left out"; continue; }
    head -c "$bytes" "$src" > "$MUS/$name"
    ENTRIES="$ENTRIES $name"
done <<EOF
rand1.mod 1500 random
rand2.mod 70000 random
rand3.fc 3000 random
rand4.okt 3000 random
rand5.hvl 3000 random
rand6.digi 3000 random
cut1.mod 1500 ${MOD:-${ARG_DEMO:-none}}
cut2.mod 9000 ${MOD:-${ARG_DEMO:-none}}
cut3.ahx 700 ${AHX:-none}
cut4.okt 2000 ${OKT:-none}
cut5.digi 2000 $M/other/yyde2.digi
forever.kvloop 100 random
empty.mod 0 /dev/null
EOF
mkdir "$MUS/x.mod"
aud_start KELVA_DATA="$DATA"

at playlist-clear
for f in $ENTRIES x.mod; do at playlist-addurl "$(uri "$MUS/$f")"; done
# Audacious drops what it cannot read when adding (the folder holds no files, an empty file may be
# refused): wait until the list settles.
wait_for 30 eval '[ "$(nentries)" -ge 8 ]' || fail "the playlist holds only $(nentries) entries"
sleep 2
N=$(nentries)
check "Audacious reads the hostile playlist ($N entries)" aud_answers
# A module may legitimately play on and the endless player never ends: each entry is stopped
# after 6 s.
for e in $(seq 1 "$N"); do
    alive "$APID" || { fail "Audacious died"; break; }
    name=$(basename "$(at playlist-song-filename "$e")") codec=$(field codec "$e") t0=$(now_ms)
    [ "$name" != x.mod ] || fail "the folder x.mod became a playlist entry"
    play_entry "$e" 6
    check "$name (${codec:-no decoder claimed it}): $HOW in $(($(now_ms) - t0)) ms; Audacious answers" \
        eval '[ "$HOW" != "did not stop" ] && aud_answers'
done
stop_all
check_loaded
check "the log holds \"kelva: \" messages" log_has 'kelva: '
check "refused files are named in kelva's messages" \
    grep -q -E "kelva: .*(rand1|rand3|rand4|rand5|rand6|cut1|cut2|cut3|cut5|empty)\." "$ALOG"
check "no crash or sanitizer report in Audacious' output" \
    eval '! grep -q -E "AddressSanitizer|runtime error:|Segmentation fault|Aborted" "$ALOG"'
aud_finish_report
