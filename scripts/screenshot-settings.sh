#!/bin/sh
# Pictures of the options dialog, one per tab, for the documentation and for a look at the
# layout: starts a private X server, opens the dialog through the add-in's "Settings" command with
# a fresh registry, and lets the dialog photograph each of its tabs into OUTDIR.
#
#   scripts/screenshot-settings.sh OUTDIR
#
# The programs come from MRWL_BUILD_DIR (default: build/ of the repository). Exits non-zero with a
# message when Xvfb or the program is missing, or when fewer pictures than tabs come out, or a
# picture is blank.
set -eu

if [ $# -ne 1 ]; then
  echo "usage: $0 OUTDIR" >&2
  exit 2
fi
outdir=$1
repo=$(cd "$(dirname "$0")/.." && pwd)
build=${MRWL_BUILD_DIR:-$repo/build}
program=$build/bin/mrwl
tabs=3

if ! command -v Xvfb >/dev/null 2>&1; then
  echo "Xvfb is not installed (Debian package xvfb)." >&2
  exit 3
fi
if [ ! -x "$program" ]; then
  echo "$program is missing; build the project first or set MRWL_BUILD_DIR." >&2
  exit 4
fi
if [ ! -f "$build/bin/libmrwl-gtk-dialogs.so" ]; then
  echo "$build/bin/libmrwl-gtk-dialogs.so is missing; build the target mrwl_gtk_dialogs." >&2
  exit 4
fi

mkdir -p "$outdir"
outdir=$(cd "$outdir" && pwd)
scratch=$(mktemp -d)
xvfb_pid=
cleanup() {
  if [ -n "$xvfb_pid" ]; then kill "$xvfb_pid" 2>/dev/null || true; fi
  rm -rf "$scratch"
}
trap cleanup EXIT INT TERM

# Xvfb picks a free display itself and tells its number through the pipe.
mkfifo "$scratch/display"
Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$scratch/display" \
  >"$scratch/xvfb.log" 2>&1 &
xvfb_pid=$!
read -r display <"$scratch/display" || true
if [ -z "${display:-}" ]; then
  echo "Xvfb did not start:" >&2
  cat "$scratch/xvfb.log" >&2
  exit 3
fi

rm -f "$outdir"/[0-9]-*.png
# In a sanitizer build the toolkit's font and settings caches, kept until the process ends, are
# not the program's leaks.
printf 'leak:%s\n' libfontconfig libglib-2.0 libgobject-2.0 libgtk-3 libgdk-3 libpango \
  libcairo libharfbuzz libgio-2.0 libdbus-1 libX11 >"$scratch/lsan.supp"
status=0
env -u WAYLAND_DISPLAY DISPLAY=":$display" GSETTINGS_BACKEND=memory NO_AT_BRIDGE=1 \
  MRWL_REGISTRY="$scratch/registry.db" XDG_CONFIG_HOME="$scratch/config" \
  LSAN_OPTIONS="suppressions=$scratch/lsan.supp${LSAN_OPTIONS:+:$LSAN_OPTIONS}" \
  MRWL_DIALOG_SNAPSHOTS="$outdir" "$program" settings || status=$?
if [ "$status" -ne 0 ]; then
  echo "mrwl settings failed with status $status." >&2
  exit 5
fi

count=0
for picture in "$outdir"/[0-9]-*.png; do
  [ -f "$picture" ] || continue
  count=$((count + 1))
  if command -v identify >/dev/null 2>&1; then
    deviation=$(identify -format '%[fx:standard_deviation]' "$picture")
    if [ "$(echo "$deviation" | awk '{ print ($1 > 0.01) }')" != 1 ]; then
      echo "$picture is blank (standard deviation $deviation)." >&2
      exit 6
    fi
  fi
  echo "$picture"
done
if [ "$count" -lt "$tabs" ]; then
  echo "Only $count of $tabs pictures were written to $outdir." >&2
  exit 6
fi
