#!/usr/bin/env bash
# Builds Marrowline and runs its main job: the foundation's self-check, then the settings record
# on a fresh registry hive of its own (the user's hive is left alone).
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

mrwl_require_packages "${MRWL_BUILD_PACKAGES[@]}"
mrwl_build "$MRWL_ROOT/build/release" -DCMAKE_BUILD_TYPE=Release -DMRWL_BUILD_TESTS=OFF \
  -DMRWL_BUILD_BENCH=OFF
mrwl="$MRWL_ROOT/build/release/host/mrwl"
"$mrwl" selfcheck "$@"

hive_dir="$(mktemp -d)"
trap 'rm -rf "$hive_dir"' EXIT
export MRWL_REGISTRY="$hive_dir/registry.db"
echo
echo "== Settings on a fresh hive"
"$mrwl" settings set PageWidth=612 PageHeight=792 LandscapeOrienatation=true
"$mrwl" settings show
echo
echo "== Converter options"
"$mrwl" settings command-line
