#!/usr/bin/env bash
# install_test.sh -- kelva installed as a user would, then used.
#
#   install_test.sh --build DIR [--cmake CMAKE] [--demo FILE] [--keep] [--verbose]
#
# Runs "cmake --install DIR" staged under a temporary DESTDIR (the plugin's
# destination is Audacious' own plugin folder, an absolute path, so a plain
# --prefix would write into the system's folder) and checks the layout:
# kelva.so in Audacious' Input plugin folder, bin/kelva, the man page,
# share/kelva_data with eagleplayer.conf and players/PTK-Prowiz. Then:
#
#   - the installed "kelva info" finds the player and measures the demo tune
#     with the installed tree as the per-user data tree (XDG_DATA_HOME), and
#     says "no player matches" without any tree;
#   - the installed kelva.so in a headless Audacious (the harness of lib.sh)
#     with the installed tree as the per-user tree: Audacious lists "kelva
#     Amiga Music" with its settings page, shows the demo tune's length and
#     plays it.
#
# Exit: 0 pass, 1 fail, 77 skipped (cmake, Audacious, the demo tune or the
# ProTracker player missing).

BUILD=""
CMAKE=cmake
DEMO=""
KEEP=0
VERBOSE=0
while [ $# -gt 0 ]; do
    case "$1" in
        --build) BUILD=${2:-}; shift 2 ;;
        --cmake) CMAKE=${2:-}; shift 2 ;;
        --demo) DEMO=${2:-}; shift 2 ;;
        --keep) KEEP=1; shift ;;
        --verbose) VERBOSE=1; shift ;;
        *) echo "usage: $0 --build DIR [--cmake CMAKE] [--demo FILE] [--keep] [--verbose]" >&2; exit 1 ;;
    esac
done

TEST_NAME=install
. "$(dirname "$0")/lib.sh"

[ -n "$BUILD" ] && [ -f "$BUILD/cmake_install.cmake" ] || { echo "install_test: no build folder: '$BUILD'" >&2; exit 1; }
command -v "$CMAKE" >/dev/null || skip "cmake not found: '$CMAKE'"
[ -n "$DEMO" ] && [ -f "$DEMO" ] || skip "the demo tune '$DEMO' is not built"
[ -f "$BUILD/kelva_data/players/PTK-Prowiz" ] || skip "the build has no PTK-Prowiz player (built with the m68k toolchain)"
aud_require_host

aud_begin
DEST=$T/dest
PREFIX=/usr/local
if DESTDIR=$DEST "$CMAKE" --install "$BUILD" --prefix "$PREFIX" > "$T/install.log" 2>&1; then
    pass "cmake --install (DESTDIR=$DEST, prefix $PREFIX): $(grep -c -E '^-- (Installing|Up-to-date)' "$T/install.log") files"
else
    tail -20 "$T/install.log"
    fail "cmake --install failed"
    aud_finish_report
fi

# ---- the layout
R=$DEST$PREFIX
PLUGIN=$DEST$SYS_PLUGIN_DIR/Input/kelva.so
check_file() { # what path [test]
    if [ ${3:--f} "$2" ]; then pass "$1: ${2#"$DEST"}"; else fail "$1 missing: ${2#"$DEST"}"; fi
}
check_file "plugin in Audacious' Input folder" "$PLUGIN"
check_file "command-line tool" "$R/bin/kelva" -x
check_file "man page" "$R/share/man/man1/kelva.1"
check_file "eagleplayer.conf" "$R/share/kelva_data/eagleplayer.conf"
check_file "ProTracker player" "$R/share/kelva_data/players/PTK-Prowiz"
check_file "ENV: folder" "$R/share/kelva_data/players/ENV" -d
if command -v nm >/dev/null && [ -f "$PLUGIN" ]; then
    expect_eq "symbols kelva.so gives the host" "$(nm -D --defined-only "$PLUGIN" | awk '$2 ~ /^[BDTVW]$/ {print $3}' | sort | tr '\n' ' ')" \
        "aud_plugin_instance "
fi
# Nothing may have gone outside DESTDIR's prefix and plugin folder.
other=$(cd "$DEST" && find . -type f | grep -v -e "^.$PREFIX/" -e "^.$SYS_PLUGIN_DIR/" | head -n3)
expect_eq "files outside the prefix and the plugin folder" "$other" ""

# ---- the installed tool finds the installed tree
mkdir -p "$T/empty"
KELVA_TOOL=$R/bin/kelva
info() { # XDG_DATA_HOME file
    env -u KELVA_DATA HOME="$T/empty" XDG_DATA_HOME="$1" "$KELVA_TOOL" info --json "$2" 2>&1
}
out=$(info "$R/share" "$DEMO")
echo "     kelva info with XDG_DATA_HOME=${R#"$DEST"}/share: $out"
read -r player ms <<< "$(python3 -c '
import json, sys
try:
    e = json.loads(sys.argv[1])[0]
    print(e.get("player", "none"), e["subsongs"][0]["length_ms"])
except Exception:
    print("none 0")' "$out")"
expect_eq "installed kelva info: player" "$player" "PTK-Prowiz"
expect_in "installed kelva info: length (ms)" "$ms" 46080 46200
# Without KELVA_DATA the tool looks for a kelva_data folder beside its own
# program, then the per-user tree, then /usr/local/share and /usr/share; a
# staged install is in none of those places. What it does without the
# per-user tree is shown, not required.
if [ -e /usr/local/share/kelva_data ] || [ -e /usr/share/kelva_data ]; then
    echo "     note: a kelva_data tree is installed on this system; the run without the per-user tree is left out"
else
    out=$(info "$T/empty" "$DEMO")
    case "$out" in
        *'"player":"PTK-Prowiz"'*) echo "     note: the staged tool $R/bin/kelva finds $R/share/kelva_data by itself" ;;
        *) echo "     note: the staged tool $R/bin/kelva does not find $R/share/kelva_data by itself:" $out ;;
    esac
fi

# ---- the installed plugin in Audacious
[ -f "$PLUGIN" ] || aud_finish_report
aud_make_prefix "$PLUGIN"
aud_write_config
ln -s "$R/share/kelva_data" "$T/xdg/kelva_data"     # the per-user tree, no KELVA_DATA
mkdir -p "$T/music"
cp "$DEMO" "$T/music/demo.mod"
aud_start
add_file "$T/music/demo.mod" || fail "demo.mod: no playlist entry"
expect_eq "demo.mod title" "$(field title 1)" "kelva demo"
expect_eq "demo.mod format" "$(field codec 1)" "ProTracker (31-instrument M.K.), PTK-Prowiz"
if wait_for 60 eval '[ -n "$(field length 1)" ]'; then
    LEN=$(field length 1)
    expect_in "demo.mod length in the playlist (ms)" "$LEN" 46080 46200
    play_entry 1
    if [ -n "$WAV" ]; then
        read -r kind frames rate ch peak quiet <<< "$(wav_info "$WAV")"
        expect_in "demo.mod frames written" "$frames" "$((LEN * 48))" "$((LEN * 48 + 4095))"
        if python3 -c "import sys; sys.exit(0 if float('$peak') > 0.05 else 1)"; then pass "demo.mod is not silent (peak $peak)"
        else fail "demo.mod is silent (peak $peak)"; fi
    else
        fail "demo.mod: the file writer wrote nothing"
    fi
else
    fail "demo.mod: no length within 60 s"
fi
# Audacious loads an input plugin when it first needs it.
grep -q -F "Loading plugin: $PDIR/Input/kelva.so" "$ALOG" && pass "Audacious loads the installed kelva.so" || fail "kelva.so was not loaded"
grep -q -F 'kelva: ' "$ALOG" && fail "kelva logged: $(grep -F 'kelva: ' "$ALOG" | head -n1)"
stop_all
block=$(awk -v p="input $PDIR/Input/kelva.so" '$0 == p { on = 1; next } on && /^(input|output|effect|general|vis|playlist|transport|iface) / { on = 0 } on' \
    "$T/config/audacious/plugin-registry" 2>/dev/null)
expect_eq "input plugin listed as" "$(sed -n 's/^name //p' <<< "$block")" "kelva Amiga Music"
expect_eq "settings page offered" "$(sed -n 's/^config //p' <<< "$block")" "1"

aud_finish_report
