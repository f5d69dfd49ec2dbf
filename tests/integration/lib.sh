# lib.sh -- the harness of the integration tests (sourced): a headless Audacious with a throw-away
# configuration (own HOME, XDG folders, D-Bus session), the file writer as output (WAV, float),
# content probing on, the other tracker plugins off, and kelva.so in a private copy of its plugin
# folder. Every process started here is stopped by its PID.
set -u
export LC_ALL=C
FAILS=0 KEEP=0 VERBOSE=0 APID="" DPID="" T="" AUD_RUN=0 ALOG="" WAV="" LEN="" HOW=""
AUDFILES=$(dirname "${BASH_SOURCE[0]}")/audfiles.py
PTK_FORMAT="ProTracker (31-instrument M.K.), PTK-Prowiz"

skip() { echo "SKIP: $*"; exit 77; }
pass() { echo "ok   $*"; }
fail() { echo "FAIL $*"; FAILS=$((FAILS + 1)); }
expect_eq() { # WHAT GOT EXPECTED
    if [ "$2" = "$3" ]; then pass "$1: $2"; else fail "$1: got '$2', expected '$3'"; fi
}
in_range() { awk -v v="$1" -v lo="$2" -v hi="$3" 'BEGIN { exit !(v ~ /^-?[0-9.]+$/ && v >= lo && v <= hi) }'; }
expect_in() { # WHAT VALUE LOW HIGH: a number within [LOW, HIGH]
    if in_range "$2" "$3" "$4"; then pass "$1: $2 (within $3..$4)"; else fail "$1: got '$2', expected $3..$4"; fi
}
check() { # WHAT COMMAND...: passes when the command succeeds
    local what=$1
    shift
    if "$@"; then pass "$what"; else fail "$what"; fi
}
log_has() { grep -q -F "$1" "$ALOG"; }
uri() { printf 'file://%s' "$1"; }   # the paths made by the tests need no escapes
now_ms() { date +%s%3N; }

# parse_args "NAME..." ARGS...: --keep, --verbose and "--NAME VALUE" for each NAME, as ARG_NAME ("" if not given)
parse_args() {
    local names=" $1 " n
    shift
    for n in $names; do printf -v "ARG_${n^^}" '%s' ""; done
    while [ $# -gt 0 ]; do
        n=${1#--}
        case "$1" in
            --keep | --verbose) printf -v "${n^^}" 1; shift ;;
            *) [[ $names == *" $n "* && $# -ge 2 ]] || { echo "usage: $0$(printf ' --%s X' $names)" >&2; exit 1; }
               printf -v "ARG_${n^^}" '%s' "$2"; shift 2 ;;
        esac
    done
}

alive() { [ -n "$1" ] && kill -0 "$1" 2>/dev/null; }
wait_gone() { timeout "$2" tail --pid="$1" -s 0.05 -f /dev/null; }   # PID SECONDS
at() { DBUS_SESSION_BUS_ADDRESS=$BUS timeout 10 audtool "$@" 2>/dev/null; }
stop_all() { # Audacious (asked to shut down, then TERM, then KILL), then the D-Bus daemon
    local p
    alive "$APID" && at shutdown >/dev/null && wait_gone "$APID" 10
    for p in $APID $DPID; do
        alive "$p" && kill -TERM "$p" 2>/dev/null && ! wait_gone "$p" 5 && kill -KILL "$p" 2>/dev/null
        wait "$p" 2>/dev/null
    done
    APID="" DPID=""
}
wait_for() { # SECONDS COMMAND...: polls until the command succeeds (while Audacious, once started, lives)
    local end=$(($(now_ms) + $1 * 1000))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt $end ] && { [ -z "$APID" ] || alive "$APID"; } || return 1
        sleep 0.1
    done
}

# aud_begin: the host's programs (or a skip), the temporary folder $T and the traps.
aud_begin() {
    local c
    for c in audacious:audacious audtool:audacious dbus-daemon:dbus python3:python3; do
        command -v "${c%%:*}" >/dev/null || skip "${c%%:*} is not installed (package ${c#*:})"
    done
    AUDBIN=$(readlink -f "$(command -v audacious)")
    SYS_PLUGIN_DIR=$(pkg-config --variable=plugin_dir audacious 2>/dev/null || true)
    for c in "$SYS_PLUGIN_DIR" /usr/lib/*/audacious /usr/lib/audacious; do
        [ -d "$c/Output" ] && SYS_PLUGIN_DIR=$c && break
    done
    [ -f "$SYS_PLUGIN_DIR/Output/filewriter.so" ] || skip "no Audacious file writer plugin (package audacious-plugins)"
    T=$(mktemp -d "/tmp/kelva-$TEST_NAME-XXXXXX") || exit 1
    trap 'stop_all; if [ "$KEEP" = 1 ]; then echo "kept: $T"; else rm -rf "$T"; fi' EXIT
    trap 'exit 143' INT TERM
    BUS="unix:path=$T/bus"
    mkdir -p "$T/home" "$T/config/audacious" "$T/xdg" "$T/cache" "$T/run" "$T/out" "$T/music"
    chmod 700 "$T/run"
}

# aud_prepare PLUGIN: Audacious loads plugins only from the folder beside its binary (found from
# /proc/self/exe), so the binary is copied into a private prefix $P whose plugin folder $PDIR
# links every system plugin, with PLUGIN as kelva.so; then the configuration.
aud_prepare() {
    local root d so
    root=$(dirname "$(dirname "$AUDBIN")")
    case "$SYS_PLUGIN_DIR" in "$root"/*) ;; *) skip "plugin folder $SYS_PLUGIN_DIR is not under $root" ;; esac
    P=$T/prefix PDIR=$T/prefix/${SYS_PLUGIN_DIR#"$root"/}
    mkdir -p "$P/bin" "$PDIR/Input"
    cp "$AUDBIN" "$P/bin/audacious"
    ln -s "$root/share" "$P/share"
    for d in "$SYS_PLUGIN_DIR"/*/; do
        mkdir -p "$PDIR/$(basename "$d")"
        for so in "$d"*.so; do
            [ -e "$so" ] && [ "$so" != "$SYS_PLUGIN_DIR/Input/kelva.so" ] && ln -s "$so" "$PDIR/$(basename "$d")/"
        done
    done
    ln -s "$1" "$PDIR/Input/kelva.so"
    printf '%s\n' "[audacious]" resume_playback_on_startup=FALSE slow_probe=TRUE output_bit_depth=-1 \
        metadata_fallbacks=FALSE stop_after_current_song=FALSE "[filewriter]" fileext=0 "file_path=$(uri "$T/out")" \
        save_original=FALSE filenamefromtags=FALSE use_suffix=FALSE prependnumber=FALSE > "$T/config/audacious/config"
    so=$T/config/audacious/plugin-registry
    printf 'format 10\noutput %s\nenabled 1\n' "$SYS_PLUGIN_DIR/Output/filewriter.so" > "$so"
    for d in openmpt modplug ffaudio; do
        [ -e "$PDIR/Input/$d.so" ] && printf 'input %s\nenabled 0\n' "$PDIR/Input/$d.so" >> "$so"
    done
}

# aud_setup PLAYER...: aud_begin and aud_prepare for the plugin --plugin (a build fault when
# missing), and a data tree $DATA with the test players named, from --players (or a skip).
aud_setup() {
    local p
    [ -f "$ARG_PLUGIN" ] || { echo "$TEST_NAME: plugin not found: '$ARG_PLUGIN'" >&2; exit 1; }
    aud_begin
    aud_prepare "$(readlink -f "$ARG_PLUGIN")"
    DATA=$T/kelva_data MUS=$T/music
    mkdir -p "$DATA/players/ENV"
    for p in "$@"; do
        cp "$ARG_PLAYERS/$p" "$DATA/players/$p" 2>/dev/null || skip "test player $p not in '$ARG_PLAYERS'"
    done
}

aud_start() { # [VAR=VALUE...]: the private D-Bus, then "audacious -H" with that environment
    AUD_RUN=$((AUD_RUN + 1))
    ALOG=$T/aud-$AUD_RUN.log
    rm -f "$T/bus"
    dbus-daemon --session --nofork --nopidfile --address="$BUS" > "$T/dbus.log" 2>&1 &
    DPID=$!
    wait_for 5 test -S "$T/bus" || { cat "$T/dbus.log"; echo "$TEST_NAME: no private dbus-daemon"; exit 1; }
    env -u DISPLAY -u WAYLAND_DISPLAY -u SESSION_MANAGER -u KELVA_DATA \
        HOME="$T/home" XDG_CONFIG_HOME="$T/config" XDG_DATA_HOME="$T/xdg" XDG_CACHE_HOME="$T/cache" \
        XDG_RUNTIME_DIR="$T/run" DBUS_SESSION_BUS_ADDRESS="$BUS" "$@" \
        "$P/bin/audacious" -H -V > "$ALOG" 2>&1 < /dev/null &
    APID=$!
    wait_for 20 eval 'at version >/dev/null' || { tail -20 "$ALOG"; echo "$TEST_NAME: no Audacious"; exit 1; }
    echo "audacious $(at version), pid $APID, plugin folder $PDIR"
}
aud_answers() { alive "$APID" && [ -n "$(at version)" ]; }
check_loaded() { check "kelva.so loaded" log_has "Loading plugin: $PDIR/Input/kelva.so"; }
reg_field() { # KEY: kelva's entry in the plugin registry Audacious wrote at shutdown
    awk -v p="input $PDIR/Input/kelva.so" -v k="$1" '$0 == p { on = 1; next }
        on && /^(input|output|effect|general|vis|playlist|transport|iface) / { on = 0 }
        on && $1 == k { sub(/^[^ ]* /, ""); print }' "$T/config/audacious/plugin-registry" | paste -sd ' '
}

# ---- the playlist
nentries() { at playlist-length; }
field() { at playlist-tuple-data "$1" "$2"; }
add_file() { # PATH: clears the playlist and adds one file
    at playlist-clear
    at playlist-addurl "$(uri "$1")"
    wait_for 20 eval '[ "$(nentries)" -ge 1 ]' || fail "$(basename "$1"): no playlist entry"
}
# wait_stopped START_MS [LIMIT_S]: waits until playback started at START_MS has run and stopped
# (or never began within 2 s); after LIMIT_S (120) it is stopped. HOW tells which happened.
wait_stopped() {
    local st seen=0
    HOW="did not stop"
    while alive "$APID"; do
        st=$(at playback-status)
        [ "$st" = playing ] || [ "$st" = paused ] && seen=1
        if [ "$st" = stopped ] && { [ $seen = 1 ] || [ $(($(now_ms) - $1)) -ge 2000 ]; }; then
            HOW="ended or refused"
            return
        elif [ $(($(now_ms) - $1)) -ge $((${2:-120} * 1000)) ]; then
            at playback-stop
            wait_for 20 eval '[ "$(at playback-status)" = stopped ]' && HOW="stopped after ${2:-120} s"
            return
        fi
        sleep 0.05
    done
}
stop_after() { # N: makes entry N the current one, playback stopping after it
    at playlist-jump "$1"
    [ "$(at playlist-stop-after-status)" = on ] || at playlist-stop-after-toggle
    rm -f "$T/out"/*.wav
}
first_wav() { WAV=$(ls -1tr "$T/out"/*.wav 2>/dev/null | head -n1); }   # the first file the writer opened
play_entry() { # N [LIMIT_S]: plays one entry to its end; WAV is the file written, or ""
    local t0
    stop_after "$1"
    t0=$(now_ms)
    at playback-play
    wait_stopped "$t0" "${2:-120}"
    first_wav
}
blocks() { echo $((($1 * 48 + 4095) / 4096 * 4096)); }   # MS: frames to the end of the 4096-frame block
# length_of NAME SECONDS [LOW HIGH]: waits for entry 1's length, which the scanner measures in the
# background; sets LEN; checks it against LOW..HIGH ms when given.
length_of() {
    LEN=""
    wait_for "$2" eval '[ -n "$(field length 1)" ]' || { fail "$1: no length within $2 s"; return 1; }
    LEN=$(field length 1)
    [ $# -gt 2 ] || { pass "$1 length: $LEN ms"; return; }
    expect_in "$1 length in the playlist (ms)" "$LEN" "$3" "$4"
}
# check_wav NAME LOW HIGH [audible]: the writer's WAV is float 48 kHz stereo with LOW..HIGH
# frames and, when asked, audible (peak above 0.05, under half of its 100 ms blocks silent).
check_wav() {
    local kind frames rate ch peak quiet
    [ -n "$WAV" ] || { fail "$1: the file writer wrote nothing"; return 1; }
    read -r kind frames rate ch peak quiet <<< "$(python3 "$AUDFILES" info "$WAV")"
    expect_eq "$1 output format" "$kind $rate $ch" "float 48000 2"
    expect_in "$1 frames written" "$frames" "$2" "$3"
    [ "${4:-}" != audible ] || expect_in "$1 peak" "$peak" 0.05 1000
    [ "${4:-}" != audible ] || expect_in "$1 silent 100 ms blocks" "$quiet" 0 0.499
}
# play_song NAME TITLE LOW HIGH: a ProTracker module from $T/music in the playlist: its title, no
# artist, the format, a length within LOW..HIGH ms; played to the end of the block in which the
# song ends, audible. The WAV is kept as $T/full/NAME.wav.
play_song() {
    add_file "$T/music/$1"
    expect_eq "$1 title" "$(field title 1)" "$2"
    expect_eq "$1 artist (a ProTracker module names none)" "$(field artist 1)" ""
    expect_eq "$1 format" "$(field codec 1)" "$PTK_FORMAT"
    length_of "$1" 60 "$3" "$4" || return
    play_entry 1
    check_wav "$1" $((LEN * 48)) $((LEN * 48 + 4095)) audible || return
    mkdir -p "$T/full"
    mv "$WAV" "$T/full/$1.wav"
}

aud_finish_report() { # on failure or with --verbose the logs without INFO/DEBUG lines, then the verdict
    if [ "$VERBOSE" = 1 ] || [ $FAILS -gt 0 ]; then
        grep -H -v -E '^(INFO|DEBUG) ' "$T"/aud-*.log | uniq -c | tail -80
    fi
    [ $FAILS -eq 0 ] && { echo "PASS"; exit 0; }
    echo "$FAILS check(s) failed"
    exit 1
}
