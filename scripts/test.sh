#!/usr/bin/env bash
# Builds Marrowline and runs every test: the plain build, the same tests under AddressSanitizer
# and UndefinedBehaviorSanitizer, and the guard that the portable sources compile for Windows.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

# Python's e-mail test corpus and Python itself, the reference for decoded header fields; the
# sqlite3 program, which the registration tests use to make the hive refuse a write; a virtual
# display and ImageMagick for the dialog's screenshots; qpdf's and poppler's tools to look into
# the PDFs the converter writes.
mrwl_require_packages "${MRWL_BUILD_PACKAGES[@]}" "${MRWL_RUN_PACKAGES[@]}" \
  g++-mingw-w64-x86-64-posix python3 sqlite3 libpython3.11-testsuite xvfb xauth imagemagick \
  qpdf poppler-utils

echo "== Windows compile guard"
"$MRWL_ROOT/scripts/windows_compile_guard.sh"

echo "== Sanitizer build and tests"
mrwl_build "$MRWL_ROOT/build/asan" -DCMAKE_BUILD_TYPE=Debug -DMRWL_SANITIZE=ON -DMRWL_BUILD_BENCH=OFF
ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1 \
  ctest --test-dir "$MRWL_ROOT/build/asan" -j "$MRWL_JOBS" --output-on-failure --timeout 300

echo "== Build and tests"
mrwl_build "$MRWL_ROOT/build/test" -DCMAKE_BUILD_TYPE=RelWithDebInfo
ctest --test-dir "$MRWL_ROOT/build/test" -j "$MRWL_JOBS" --output-on-failure --timeout 300
