# common.sh - sourced by the scripts in this folder: installs Debian packages
# that are missing, as root or through sudo.

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null 2>&1; then
    sudo "$@"
  else
    echo "$(basename "$0"): need root (or sudo) to run: $*" >&2
    return 1
  fi
}

# install_missing PKG... installs those of the packages that are not installed.
install_missing() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  if [ ${#missing[@]} -gt 0 ]; then
    echo "==> installing ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    as_root apt-get update -q
    as_root apt-get install -y -q "${missing[@]}"
  fi
}

# The packages every build of the project needs.
BUILD_PACKAGES=(cmake g++ make pkg-config libgtest-dev libbenchmark-dev libpcre3-dev libutf8proc-dev)
