#!/usr/bin/env bash
# Builds Marrowline and runs its main job.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

mrwl_require_packages "${MRWL_BUILD_PACKAGES[@]}"
mrwl_build "$MRWL_ROOT/build/release" -DCMAKE_BUILD_TYPE=Release -DMRWL_BUILD_TESTS=OFF \
  -DMRWL_BUILD_BENCH=OFF
"$MRWL_ROOT/build/release/host/mrwl" selfcheck "$@"
