#!/usr/bin/env bash
# Builds Marrowline and runs its main job: the foundation's self-check, then the sample mails
# turned into PDF files by the add-in module and the converter, as Outlook would have them made:
# one PDF portfolio holding all of them, and one PDF per mail. A registry hive of its own keeps
# the user's settings out of it.
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"

mrwl_require_packages "${MRWL_BUILD_PACKAGES[@]}" "${MRWL_RUN_PACKAGES[@]}"
mrwl_build "$MRWL_ROOT/build/release" -DCMAKE_BUILD_TYPE=Release -DMRWL_BUILD_TESTS=OFF \
  -DMRWL_BUILD_BENCH=OFF
bin="$MRWL_ROOT/build/release/bin"
mrwl="$bin/mrwl"
"$mrwl" selfcheck "$@"

hive_dir="$(mktemp -d)"
trap 'rm -rf "$hive_dir"' EXIT
export MRWL_REGISTRY="$hive_dir/registry.db"
export MRWL_USER_ADDRESS="${MRWL_USER_ADDRESS:-${EMAIL:-sample.user@example.org}}"
# The PDFs are the result here; no viewer is started for them.
"$mrwl" settings set RunPDFApp=false >/dev/null

output="$MRWL_ROOT/build/samples"
rm -rf "$output"
mkdir -p "$output/mails"

# The add-in hands each conversion to the converter and returns; the converters run on their own.
wait_for_converters() {
  local waited=0
  while pgrep -f "^$bin/HtmlToPdfApp" >/dev/null; do
    sleep 1
    waited=$((waited + 1))
    if [ "$waited" -ge 600 ]; then
      echo "The converter is still running after $waited seconds." >&2
      return 1
    fi
  done
}

status=0
echo
echo "== Converting the sample mails into one PDF portfolio in $output"
"$mrwl" convert --portfolio -d "$output" --yes "$MRWL_ROOT"/samples/*.eml || status=$?
# Both conversions save the attachments under their own names in the temporary folder, and the
# converter that finishes first deletes them: one after the other, each finds its own.
wait_for_converters || status=1
echo
echo "== Converting the sample mails into one PDF each in $output/mails"
"$mrwl" convert -d "$output/mails" --yes "$MRWL_ROOT"/samples/*.eml || status=$?
wait_for_converters || status=1

echo
echo "== Written"
find "$output" -name '*.pdf' -printf '%10s  %p\n' | sort -k2
count=$(find "$output" -name '*.pdf' | wc -l)
expected=$(($(ls "$MRWL_ROOT"/samples/*.eml | wc -l) + 1))
if [ "$count" -ne "$expected" ]; then
  echo "Expected $expected PDF files, found $count." >&2
  status=1
fi
exit "$status"
