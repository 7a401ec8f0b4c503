# scripts/lib.sh: shared by demo.sh and test.sh. Installs missing Debian
# packages (as root) or prints the line that would.

BUILD_PACKAGES=(cmake ninja-build g++ pkg-config zlib1g-dev libpng-dev libjpeg62-turbo-dev
                libtiff-dev libwebp-dev libcli11-dev)
TEST_PACKAGES=(libgtest-dev libgmock-dev libbenchmark-dev libgif-dev clang libclang-rt-14-dev
               binutils python3 python3-pil libimagequant-dev)

need_packages() {
  local missing=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "Missing Debian packages. Install them with:" >&2
    echo "  sudo apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
  echo "== installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

jobs() { nproc 2>/dev/null || echo 2; }
