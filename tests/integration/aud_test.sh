#!/usr/bin/env bash
# aud_test.sh --plugin kelva.so --players DIR --data DIR --demo FILE --modules DIR [--keep] [--verbose]
# kelva in the real Audacious, headless (lib.sh): first with a data tree (KELVA_DATA) of test players
# and the files below; then with the real data tree where a user installs it (XDG_DATA_HOME), playing
# the demo tune and two real modules, and seeking. Parts whose files are absent say they skip.
TEST_NAME=aud
. "$(dirname "$0")/lib.sh"
parse_args "plugin players data demo modules" "$@"
aud_setup Tone Envelope Subsong
printf 'not a hunk file\n' > "$DATA/players/Broken"
printf '%s prefixes=%s\n' Tone kvt Envelope dw,fc Subsong kvsub Broken brk > "$DATA/eagleplayer.conf"
# tone.kvt: an extension nobody lists, found by content probing; a steady tone. end.dw: ends after
# 4 ticks (an Envelope module). five.kvsub: five subtunes. none.fc: its line is taken out of the
# tree before it is played. bad.brk: a "player" that is no program.
for f in tone.kvt end.dw five.kvsub none.fc bad.brk; do printf 'music for %s\n' "$f" > "$MUS/$f"; done
printf 'ENVL\0\0\0\0\0\0\0\0\0\0\0\4\0\0\0\0\0\0\0\0' | tee "$MUS/none.fc" > "$MUS/end.dw"
aud_start KELVA_DATA="$DATA"

# ---- 1. a file found by content probing; its length comes from the scanner
add_file "$MUS/tone.kvt"
expect_eq "tone.kvt title" "$(field title 1)" "tone.kvt"
expect_eq "tone.kvt format" "$(field codec 1)" "Tone"
if length_of tone.kvt 120; then
    play_entry 1   # playback stops at the first 4096-frame block that reaches the length
    check_wav tone.kvt "$(blocks "$LEN")" "$(blocks "$LEN")" audible
fi

# ---- 2. a listed extension and a player that signals its end within the first block
add_file "$MUS/end.dw"
expect_eq "end.dw format" "$(field codec 1)" "Envelope"
play_entry 1
check_wav end.dw 4096 4096

# ---- 3. subtunes: Audacious expands them only when a file is added, so the file is added
# again until the scanner has stored the count
add_five() { sleep 0.3; add_file "$MUS/five.kvsub"; sleep 0.3; [ "$(nentries)" = 5 ]; }
wait_for 120 add_five
expect_eq "five.kvsub entries" "$(nentries)" "5"
if [ "$(nentries)" = 5 ]; then
    expect_eq "five.kvsub entry 3" "$(at playlist-song-filename 3)" "$MUS/five.kvsub?3"
    expect_eq "five.kvsub entry 3 title (no title: the file name)" "$(field title 3)" "five.kvsub (3/5)"
    all_len() { local e; for e in 1 2 3 4 5; do [ -n "$(field length $e)" ] || return 1; done; }
    check "five.kvsub: every subtune has a length" wait_for 120 all_len
    # The Subsong player only sets a period: silent tunes, measured as the silence rule's second.
    LEN=$(field length 2)
    play_entry 2
    check_wav "five.kvsub?2" "$(blocks "${LEN:-0}")" "$(blocks "${LEN:-0}")"
fi

# ---- 4. failures while playing: a message each, and Audacious goes on
add_file "$MUS/none.fc"
expect_eq "none.fc format before the tree changes" "$(field codec 1)" "Envelope"
sed -i 's/^Envelope prefixes=dw,fc$/Envelope prefixes=dw/' "$DATA/eagleplayer.conf"
play_entry 1
# Audacious 4.2 reads the tags again right before it plays an entry and does not call play() when
# that fails, so the refusal shows as its own error; kelva's line appears if play() runs anyway.
check "none.fc: 'kelva: no player matches' or Audacious' error logged" \
    eval 'log_has "kelva: no player matches $MUS/none.fc" || log_has "Error playing $(uri "$MUS/none.fc")"'
check "none.fc: no output opened" [ -z "$WAV" ]
check "Audacious still runs" aud_answers
add_file "$MUS/bad.brk"
expect_eq "bad.brk format" "$(field codec 1)" "Broken"
expect_eq "bad.brk length (unmeasurable: none shown)" "$(field length 1)" ""
play_entry 1
check "bad.brk: 'failed to start' logged" log_has "kelva: $MUS/bad.brk failed to start on $DATA/players/Broken"
check "Audacious still runs" aud_answers
check_loaded
stop_all
# What Audacious recorded about the plugin: its name, priority, subtune support, file-name
# extensions ("scheme") and settings page.
expect_eq "registry name" "$(reg_field name)" "kelva Amiga Music"
expect_eq "registry priority" "$(reg_field priority)" "1"
expect_eq "registry subtune support" "$(reg_field subtunes)" "2"
expect_eq "registry extensions" "$(reg_field scheme)" \
    "mod med mmd0 mmd1 mmd2 ahx thx hvl fc fc13 fc14 smod sng dw bd okt dmu mug ptm tfmx mdat aon st digi"\
" gmc sfx ml vss ims"
expect_eq "registry settings page" "$(reg_field config)" "1"

# ---- second run: the real data tree where a user installs it
[ -f "$ARG_DATA/eagleplayer.conf" ] && [ -f "$ARG_DATA/players/PTK-Prowiz" ] ||
    { echo "skip the real players: no eagleplayer.conf and players/PTK-Prowiz in '$ARG_DATA'"; aud_finish_report; }
cp -R "$ARG_DATA" "$T/xdg/kelva_data"
aud_start
# name lowest highest length (ms): the demo tune 46.08 to 46.2 s as its source gives it; the
# modules what two independent players measure, one 20 ms tick either way.
while read -r name lo hi src; do
    cp "$src" "$MUS/$name" 2>/dev/null || { echo "skip $name: '$src' not found"; continue; }
    play_song "$name" "$(python3 "$AUDFILES" title "$MUS/$name")" "$lo" "$hi"
done <<EOF
demo.mod 46080 46200 ${ARG_DEMO:-none}
AnarchyMenu1.mod 147820 147860 $(find "${ARG_MODULES:-none}" -name AnarchyMenu1.mod 2>/dev/null | head -n1)
corpses.mod 55060 55100 $(find "${ARG_MODULES:-none}" -name corpses.mod 2>/dev/null | head -n1)
EOF
# A module whose name is only control bytes is listed under its file name.
if [ -f "$MUS/corpses.mod" ]; then
    { printf "$(printf '\\%03o' $(seq 1 20))"; tail -c +21 "$MUS/corpses.mod"; } > "$MUS/garbled.mod"
    add_file "$MUS/garbled.mod"
    expect_eq "garbled.mod title (a garbage name gives the file name)" "$(field title 1)" "garbled.mod"
    expect_eq "garbled.mod format" "$(field codec 1)" "$PTK_FORMAT"
fi

# ---- a seek lands where it should. The file writer takes audio hundreds of times faster than
# real time, so the seek is made while paused: one audtool call starts playback and pauses it
# (the output then holds the plugin in write_audio, or it has not opened the output yet); then
# the seek; then playback goes on to the end. Both WAVs stop with the block in which the song
# ends, so their ends differ by less than one 4096-frame block.
seek_song() { # NAME SECONDS
    local st="" try r pre n equal start_ok end_diff what="seek in $1 to $2 s"
    [ -f "$T/full/$1.wav" ] || { echo "skip the seek in $1: it was not played"; return; }
    add_file "$MUS/$1"
    for try in 1 2 3; do   # on a very loaded machine it may end before the pause arrives
        stop_after 1
        at playback-play playback-pause
        st=$(at playback-status)
        [ "$st" = paused ] && break
        at playback-stop
        wait_for 10 eval '[ "$(at playback-status)" = stopped ]'
    done
    [ "$st" = paused ] || { fail "$what: playback could not be paused in 3 tries (it was '$st')"; return; }
    try=$(now_ms)
    at playback-seek "$2"
    at playback-pause
    wait_stopped "$try"
    first_wav
    [ -n "$WAV" ] || { fail "$what: the file writer wrote nothing"; return; }
    r=$(python3 "$AUDFILES" seek "$T/full/$1.wav" "$WAV" $(($2 * 48000)))
    [ "${r#error}" = "$r" ] || { fail "$what: $r"; return; }
    read -r pre n equal start_ok end_diff <<< "$r"
    expect_eq "$what: audio after it equals playback from $2 s ($n frames)" "$equal" 1
    expect_eq "$what: what was written before it is the song's start ($pre frames)" "$start_ok" 1
    expect_in "$what: frames after it minus frames from $2 s to the end" "$end_diff" -4095 4095
}
seek_song demo.mod 30
seek_song AnarchyMenu1.mod 90   # 4,320,000 frames rendered silently
check "Audacious still runs" aud_answers
stop_all
check "kelva logged no message with the real players" eval '! log_has "kelva: "'
aud_finish_report
