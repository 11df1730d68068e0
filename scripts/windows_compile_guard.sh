#!/usr/bin/env bash
# Compiles every portable source of the logic with the Windows cross compiler, without linking,
# so that no POSIX header or POSIX-only assumption slips into the layers above platform/.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cxx="${MRWL_MINGW_CXX:-x86_64-w64-mingw32-g++-posix}"
cd "$root"

failed=0
count=0
for src in $(git ls-files 'foundation/*.cpp' 'settings/*.cpp' 'conversion/*.cpp' 'addin/*.cpp' | grep -v '_test\.cpp$'); do
  count=$((count + 1))
  if ! "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Werror -I"$root" "$src"; then
    echo "FAILED: $src"
    failed=$((failed + 1))
  fi
done
# The portable headers of the seam must stand on their own for Windows too.
for hdr in $(git ls-files 'platform/*.h' | grep -v '^platform/posix/'); do
  count=$((count + 1))
  if ! echo "#include \"$hdr\"" | "$cxx" -std=c++20 -fsyntax-only -Wall -Wextra -Werror \
      -I"$root" -x c++ -; then
    echo "FAILED: $hdr"
    failed=$((failed + 1))
  fi
done
echo "Windows compile guard: $count files, $failed failed"
[ "$failed" -eq 0 ]
