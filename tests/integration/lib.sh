# lib.sh -- the harness that the integration tests share: a headless
# Audacious with a throw-away configuration and kelva.so in a private copy of
# its plugin folder. Sourced by the test scripts (bash), never run.
#
# Before sourcing, a script sets TEST_NAME (used in messages and in the name
# of the temporary folder), KEEP (1 keeps the folder) and VERBOSE.
#
#   aud_require_host             finds Audacious, audtool, dbus-daemon, python3
#                                and the file writer, or skips (exit 77)
#   aud_begin                    makes the temporary folder $T and the traps
#                                that stop everything started here
#   aud_make_prefix PLUGIN       a private prefix $P whose plugin folder $PDIR
#                                links every system plugin plus PLUGIN
#   aud_write_config [LINES]     Audacious' configuration: the file writer as
#                                output (WAV, float) into $T/out, content
#                                probing on, openmpt/modplug/ffaudio disabled;
#                                LINES are added to the [audacious] section
#   aud_start [VAR=VALUE...]     starts the private D-Bus and "audacious -H"
#                                with the given extra environment
#   stop_all                     shuts Audacious down, then D-Bus (by PID)
#   at ARGS...                   audtool on the private bus
#   add_file PATH, play_entry N, field NAME N, nentries, wav_info WAV, ...
#   aud_finish_report            prints the log when asked or on failure and
#                                exits 0 (all passed) or 1
#
# Every process started here is stopped by its PID.

set -u
export LC_ALL=C

FAILS=0
skip() { echo "SKIP: $*"; exit 77; }
pass() { echo "ok   $*"; }
fail() { echo "FAIL $*"; FAILS=$((FAILS + 1)); }
expect_eq() { # what got expected
    if [ "$2" = "$3" ]; then pass "$1: $2"; else fail "$1: got '$2', expected '$3'"; fi
}
# expect_in WHAT VALUE LOW HIGH: a number within [LOW, HIGH].
expect_in() {
    if python3 -c "import sys; v, lo, hi = map(float, sys.argv[1:]); sys.exit(0 if lo <= v <= hi else 1)" \
        "$2" "$3" "$4" 2>/dev/null; then
        pass "$1: $2 (within $3..$4)"
    else
        fail "$1: got '$2', expected $3..$4"
    fi
}
uri() { printf 'file://%s' "$1"; }   # the paths made by the tests need no escapes
now_ms() { date +%s%3N; }

aud_require_host() {
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
}

# The plugin given with --plugin must exist (a build fault, not a skip);
# PLUGIN becomes its absolute path. Then the host is checked.
aud_require_plugin() {
    [ -n "$PLUGIN" ] && [ -f "$PLUGIN" ] || { echo "${TEST_NAME}_test: plugin not found: '$PLUGIN'" >&2; exit 1; }
    PLUGIN=$(readlink -f "$PLUGIN")
    aud_require_host
}

APID=""
DPID=""
T=""
AUD_RUN=0
ALOG=""      # Audacious' log (stderr with -V) of the latest run
AOUT=""      # and its standard output
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
aud_cleanup() {
    stop_all
    [ -n "$T" ] || return 0
    if [ "${KEEP:-0}" = 1 ]; then echo "kept: $T"; else rm -rf "$T"; fi
}
# wait_for SECONDS COMMAND...: polls until the command succeeds (while
# Audacious, once started, is alive).
wait_for() {
    local end=$(($(now_ms) + $1 * 1000))
    shift
    until "$@"; do
        [ "$(now_ms)" -lt $end ] || return 1
        [ -z "$APID" ] || alive "$APID" || return 1
        sleep 0.1
    done
}

aud_begin() {
    T=$(mktemp -d "/tmp/kelva-$TEST_NAME-XXXXXX") || exit 1
    trap aud_cleanup EXIT
    trap 'exit 130' INT
    trap 'exit 143' TERM
    BUS="unix:path=$T/bus"
    mkdir -p "$T/home" "$T/config/audacious" "$T/xdg" "$T/cache" "$T/run" "$T/out"
    chmod 700 "$T/run"
}

# Audacious only loads plugins from the folder beside its own binary, so the
# binary is copied into a private prefix whose plugin folder links every
# system plugin plus ours.
aud_make_prefix() {
    local plugin=$1 prefix_root d sub so
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
    ln -s "$plugin" "$PDIR/Input/kelva.so"
}

aud_write_config() {
    local n
    {
        echo "[audacious]"
        echo "resume_playback_on_startup=FALSE"
        echo "slow_probe=TRUE"
        echo "output_bit_depth=-1"
        echo "metadata_fallbacks=FALSE"
        echo "stop_after_current_song=FALSE"
        [ $# -gt 0 ] && printf '%s\n' "$@"
        echo
        echo "[filewriter]"
        echo "fileext=0"
        echo "file_path=$(uri "$T/out")"
        echo "save_original=FALSE"
        echo "filenamefromtags=FALSE"
        echo "use_suffix=FALSE"
        echo "prependnumber=FALSE"
    } > "$T/config/audacious/config"
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
}

aud_start() {
    local n
    AUD_RUN=$((AUD_RUN + 1))
    ALOG=$T/aud-$AUD_RUN.log
    AOUT=$T/aud-$AUD_RUN.out
    rm -f "$T/bus"
    dbus-daemon --session --nofork --nopidfile --address="$BUS" > "$T/dbus.log" 2>&1 &
    DPID=$!
    n=100; while [ ! -S "$T/bus" ] && [ $n -gt 0 ] && alive "$DPID"; do sleep 0.05; n=$((n - 1)); done
    [ -S "$T/bus" ] || { cat "$T/dbus.log"; echo "$TEST_NAME: private dbus-daemon did not start"; exit 1; }

    env -u DISPLAY -u WAYLAND_DISPLAY -u SESSION_MANAGER -u KELVA_DATA \
        HOME="$T/home" XDG_CONFIG_HOME="$T/config" XDG_DATA_HOME="$T/xdg" XDG_CACHE_HOME="$T/cache" \
        XDG_RUNTIME_DIR="$T/run" DBUS_SESSION_BUS_ADDRESS="$BUS" "$@" \
        "$P/bin/audacious" -H -V > "$AOUT" 2> "$ALOG" < /dev/null &
    APID=$!
    wait_for 20 eval 'at version >/dev/null' || { tail -20 "$ALOG"; echo "$TEST_NAME: audacious did not come up"; exit 1; }
    echo "audacious $(at version), pid $APID, plugin folder $PDIR"
}

# ---- the playlist
nentries() { at playlist-length; }
field() { at playlist-tuple-data "$1" "$2"; }
add_file() { # path: clears the playlist and adds one file
    at playlist-clear
    at playlist-addurl "$(uri "$1")"
    wait_for 20 eval '[ "$(nentries)" -ge 1 ]'
}
aud_answers() { alive "$APID" && [ -n "$(at version)" ]; }
# wait_stopped START_MS: waits (up to 120 s) until playback that was started
# at START_MS has run and stopped again (or never began within 2 s).
wait_stopped() {
    local end=$(($(now_ms) + 120000)) st seen=0
    while [ "$(now_ms)" -lt $end ] && alive "$APID"; do
        st=$(at playback-status)
        if [ "$st" = playing ] || [ "$st" = paused ]; then seen=1
        elif [ $seen = 1 ] || [ $(($(now_ms) - $1)) -ge 2000 ]; then break
        fi
        sleep 0.05
    done
    [ "$(at playback-status)" = stopped ] || at playback-stop
}
# first_wav: the file the writer opened first since $T/out was emptied.
first_wav() { ls -1tr "$T/out"/*.wav 2>/dev/null | head -n1; }
# play_entry N: plays one entry to its end (stop after it); sets WAV to the
# file written, or "".
play_entry() {
    rm -f "$T/out"/*.wav
    at playlist-jump "$1"
    [ "$(at playlist-stop-after-status)" = on ] || at playlist-stop-after-toggle
    local t0
    t0=$(now_ms)
    at playback-play
    wait_stopped "$t0"
    WAV=$(first_wav)
}
# wav_info FILE: prints "format frames rate channels peak silent", where
# silent is the fraction of 100 ms blocks whose peak is below 1/1024.
wav_info() {
    python3 - "$1" <<'EOF'
import array, struct, sys
d = open(sys.argv[1], 'rb').read()
pos, fmt, data = 12, None, b''
while pos + 8 <= len(d):
    cid, size = d[pos:pos+4], struct.unpack('<I', d[pos+4:pos+8])[0]
    if cid == b'fmt ': fmt = struct.unpack('<HHIIHH', d[pos+8:pos+24])
    if cid == b'data': data = d[pos+8:pos+8+size]
    pos += 8 + size + (size & 1)
if fmt is None:
    print('none 0 0 0 0 1'); sys.exit()
tag, ch, rate, _, _, bits = fmt
if tag == 3 and bits == 32: a, scale, kind = array.array('f'), 1.0, 'float'
elif tag == 1 and bits == 16: a, scale, kind = array.array('h'), 32768.0, 'pcm16'
else: print('other%d 0 %d %d 0 1' % (bits, rate, ch)); sys.exit()
a.frombytes(data[:len(data) // a.itemsize * a.itemsize])
if sys.byteorder != 'little': a.byteswap()
peak = (max(max(a), -min(a)) / scale) if len(a) else 0.0
step = max(rate // 10, 1) * max(ch, 1)
blocks = [a[i:i + step] for i in range(0, len(a), step)]
quiet = sum(1 for b in blocks if max(max(b), -min(b)) / scale < 1 / 1024)
print('%s %d %d %d %.4f %.3f' % (kind, len(a) // max(ch, 1), rate, ch, peak, quiet / max(len(blocks), 1)))
EOF
}

aud_finish_report() {
    local log
    if [ "${VERBOSE:-0}" = 1 ] || [ $FAILS -gt 0 ]; then
        for log in "$T"/aud-*.log; do
            [ -f "$log" ] || continue
            echo "---- kelva's messages in $(basename "$log")"
            grep -F 'kelva: ' "$log" | sort | uniq -c | head -40
            echo "---- Audacious log $(basename "$log") (without INFO/DEBUG)"
            grep -v -E '^(INFO|DEBUG) ' "$log" | tail -40
        done
    fi
    [ $FAILS -eq 0 ] && { echo "PASS"; exit 0; }
    echo "$FAILS check(s) failed"
    exit 1
}
