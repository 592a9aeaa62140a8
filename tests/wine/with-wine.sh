#!/bin/bash
# Runs a command that starts Windows programs. Usage: with-wine.sh PREFIX COMMAND...
# PREFIX is the directory that Wine keeps its Windows in, made when it isn't there; the user's own is left alone.
set -euo pipefail

export WINEPREFIX=$1
shift
export WINEARCH=win64 WINEDEBUG=-all
# Neither the installers that Wine would ask for nor menu entries on the machine's desktop, and no display.
export WINEDLLOVERRIDES="mscoree,mshtml=;winemenubuilder.exe=d"
unset DISPLAY WAYLAND_DISPLAY

# What Debian keeps beside the loader is on nobody's PATH.
PATH=$PATH:/usr/lib/wine
server=$(command -v wineserver || command -v wineserver64)
mkdir -p "$WINEPREFIX"

# The server and Windows' own processes live as long as the command. What each test writes ends with the test all the
# same, for none of them is a child of one.
"$server" --persistent </dev/null >/dev/null 2>&1
trap '"$server" --kill || true' EXIT
wine wineboot --init </dev/null >/dev/null 2>&1

"$@"
