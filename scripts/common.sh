# Shared by the set-up scripts: installs missing Debian packages and configures a build folder.
# Sourced, not run.

set -euo pipefail

MRWL_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
MRWL_JOBS="${MRWL_JOBS:-$(nproc)}"

# Installs the named packages that are not installed yet; refreshes the package lists only when
# something is missing, so a warm machine starts at once.
mrwl_require_packages() {
  local missing=()
  local pkg
  for pkg in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$pkg")
    fi
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "Installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -ne 0 ] && sudo="sudo"
    export DEBIAN_FRONTEND=noninteractive
    $sudo apt-get update -qq
    $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
  fi
}

MRWL_BUILD_PACKAGES=(cmake ninja-build g++ pkg-config libgtest-dev libbenchmark-dev libssl-dev
  libsqlite3-dev libcli11-dev libgmime-3.0-dev libxml2-dev libpng-dev libgtk-3-dev libqpdf-dev
  rapidjson-dev)

# What the converter needs at run time: the browser that renders the pages, and fonts that cover
# Latin, Greek, Cyrillic and the CJK scripts.
MRWL_RUN_PACKAGES=(chromium fonts-dejavu-core fonts-noto-core fonts-noto-cjk)

# Configures and builds one folder: mrwl_build DIR [cmake options...]
mrwl_build() {
  local dir="$1"
  shift
  cmake -S "$MRWL_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
  cmake --build "$dir" -j "$MRWL_JOBS"
}
