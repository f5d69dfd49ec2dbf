#!/usr/bin/env bash
# install_test.sh -- kelva installed as a user would, then used.
#   install_test.sh --build DIR [--cmake CMAKE] [--demo FILE] [--keep] [--verbose]
# "cmake --install DIR" is staged under a temporary DESTDIR (the plugin goes to Audacious' own plugin
# folder, an absolute path, so a plain --prefix would write into the system's folder) and its layout
# checked; then the installed "kelva info" and the installed kelva.so in a headless Audacious (lib.sh)
# use the installed tree as the per-user data tree (XDG_DATA_HOME) for the demo tune.
# Exit: 0 pass, 1 fail, 77 skipped (cmake, Audacious, the demo tune or the ProTracker player missing).
TEST_NAME=install
. "$(dirname "$0")/lib.sh"
parse_args "build cmake demo" "$@"
CMAKE=${ARG_CMAKE:-cmake} DEMO=$ARG_DEMO
[ -f "$ARG_BUILD/cmake_install.cmake" ] || { echo "install_test: no build folder: '$ARG_BUILD'" >&2; exit 1; }
command -v "$CMAKE" >/dev/null || skip "cmake not found: '$CMAKE'"
[ -f "$DEMO" ] || skip "the demo tune '$DEMO' is not built"
[ -f "$ARG_BUILD/kelva_data/players/PTK-Prowiz" ] || skip "the build has no PTK-Prowiz player (m68k toolchain)"
aud_begin

DEST=$T/dest PREFIX=/usr/local
if ! DESTDIR=$DEST "$CMAKE" --install "$ARG_BUILD" --prefix "$PREFIX" > "$T/install.log" 2>&1; then
    tail -20 "$T/install.log"
    fail "cmake --install failed"
    aud_finish_report
fi
pass "cmake --install (DESTDIR=$DEST, prefix $PREFIX)"
R=$DEST$PREFIX PLUGIN=$DEST$SYS_PLUGIN_DIR/Input/kelva.so
while IFS='|' read -r what test path; do
    check "$what: ${path#"$DEST"}" [ "$test" "$path" ]
done <<EOF
plugin in Audacious' Input folder|-f|$PLUGIN
command-line tool|-x|$R/bin/kelva
man page|-f|$R/share/man/man1/kelva.1
eagleplayer.conf|-f|$R/share/kelva_data/eagleplayer.conf
ProTracker player|-f|$R/share/kelva_data/players/PTK-Prowiz
ENV: folder|-d|$R/share/kelva_data/players/ENV
EOF
if command -v nm >/dev/null && [ -f "$PLUGIN" ]; then
    syms=$(nm -D --defined-only "$PLUGIN" | awk '$2 ~ /^[BDTVW]$/ { print $3 }' | sort | paste -sd ' ')
    expect_eq "symbols kelva.so gives the host" "$syms" "aud_plugin_instance"
fi
expect_eq "files outside the prefix and the plugin folder" \
    "$(cd "$DEST" && find . -type f | grep -v -e "^.$PREFIX/" -e "^.$SYS_PLUGIN_DIR/" | head -n3)" ""

# ---- the installed tool finds the installed tree
read -r player ms <<< "$(python3 "$AUDFILES" kelva-info \
    "$(env -u KELVA_DATA HOME="$T/home" XDG_DATA_HOME="$R/share" "$R/bin/kelva" info --json "$DEMO" 2>&1)")"
expect_eq "installed kelva info: player" "$player" "PTK-Prowiz"
expect_in "installed kelva info: length (ms)" "$ms" 46080 46200

# ---- the installed plugin in Audacious, the installed tree as the per-user tree (no KELVA_DATA)
[ -f "$PLUGIN" ] || aud_finish_report
aud_prepare "$PLUGIN"
ln -s "$R/share/kelva_data" "$T/xdg/kelva_data"
cp "$DEMO" "$T/music/demo.mod"
aud_start
play_song demo.mod "kelva demo" 46080 46200
check_loaded   # Audacious loads an input plugin when it first needs it
check "kelva logged no message" eval '! log_has "kelva: "'
stop_all
expect_eq "registry name" "$(reg_field name)" "kelva Amiga Music"
expect_eq "registry settings page" "$(reg_field config)" "1"
aud_finish_report
