# Shared by the scripts of this folder: where things are, and what has to be installed.

KX_SOURCE=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

say() { printf '\033[1m== %s\033[0m\n' "$*" >&2; }
die() { printf '%s\n' "$*" >&2; exit 1; }

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    die "This step needs root, and sudo is not installed: $*"
  fi
}

# What the product needs to be built and run.
BUILD_PACKAGES=(
  g++ cmake ninja-build ccache lld pkg-config git
  libsqlite3-dev libavformat-dev libavcodec-dev libavutil-dev libboost-filesystem-dev
  libspdlog-dev libfmt-dev nlohmann-json3-dev libcli11-dev libsimpleini-dev libpugixml-dev
  libqpdf-dev libfuse-dev libudfread-dev ffmpeg fuseiso ghostscript jq
)
# What the tests need beyond that.
TEST_PACKAGES=(
  libgtest-dev libgmock-dev libbenchmark-dev clang clang-format clang-tidy
  libclang-rt-14-dev sqlite3 bc procps util-linux binutils genisoimage udftools
)

# install_packages NAME...: installs with apt what dpkg does not know as installed.
install_packages() {
  local missing=() name
  for name in "$@"; do
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$name" 2>/dev/null)" = installed ] ||
      missing+=("$name")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  say "Installing ${missing[*]}"
  command -v apt-get >/dev/null 2>&1 ||
    die "This machine has no apt-get. Install these packages by hand: ${missing[*]}"
  as_root apt-get update -qq
  as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# build PRESET [TARGET...]: configures once, then builds; a second call finds nothing to do.
build() {
  local preset=$1
  shift
  # Two checkouts of the same sources share what they compiled.
  export CCACHE_BASEDIR=$KX_SOURCE CCACHE_NOHASHDIR=1
  [ -f "$KX_SOURCE/build/$preset/build.ninja" ] ||
    (cd "$KX_SOURCE" && cmake --preset "$preset" -Wno-dev >/dev/null)
  cmake --build "$KX_SOURCE/build/$preset" ${1:+--target "$@"}
}
