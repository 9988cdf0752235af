# What ./run and ./test share: installing what is missing, building. Sourced with the repository's top
# as the current folder.

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libcgicc-dev libxml2-dev
  libmicrohttpd-dev)
DEVICE_PACKAGES=(bubblewrap lighttpd)
PACKAGING_PACKAGES=(debhelper dpkg-dev fakeroot lighttpd lintian pkgconf)
TEST_PACKAGES=(libgtest-dev libgmock-dev librapidcheck-dev clang libclang-rt-14-dev curl chromium
  chromium-driver python3-selenium valgrind)
# A Node.js from elsewhere brings its own.
command -v npm >/dev/null || TEST_PACKAGES+=(npm)
# Another JDK can take the place of Debian's.
if [[ -z ${JAVA_HOME:-} ]]; then
  BUILD_PACKAGES+=(openjdk-17-jdk-headless)
fi

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# Runs a command; its output goes to a file and is shown only when it fails.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 </dev/null || {
    tail -n 25 "$log" >&2
    return 1
  }
}

as_root() {
  if ((EUID == 0)); then
    "$@"
  else
    sudo "$@"
  fi
}

is_installed() {
  [[ $(dpkg-query --show --showformat '${db:Status-Status}' "$1" 2>/dev/null) == installed ]]
}

# Installs those of the Debian packages that are missing.
install_packages() {
  command -v dpkg-query >/dev/null ||
    fail "this is not a Debian system; it needs what these Debian 12 packages hold: $*"
  local package missing=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]})) || return 0

  local by_hand="install them as root: apt-get install ${missing[*]}"
  ((EUID == 0)) || command -v sudo >/dev/null ||
    fail "packages are missing and there is no sudo to install them; $by_hand"
  echo "Installing ${missing[*]}"
  mkdir -p build
  quietly build/packages.log as_root apt-get -q update ||
    fail "the package lists cannot be had: is there a network? Else $by_hand"
  quietly build/packages.log as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get -q -y --no-install-recommends install "${missing[@]}" ||
    fail "the packages cannot be installed: is there a network? Else $by_hand"
}

# configure FOLDER [CMAKE OPTION...]
configure() {
  local folder=$1
  shift
  mkdir -p "$folder"
  quietly "$folder/configure.log" cmake -S . -B "$folder" -G Ninja "$@" ||
    fail "the build in $folder cannot be configured"
}

# build FOLDER [TARGET...]
build() {
  local folder=$1
  shift
  quietly "$folder/build.log" cmake --build "$folder" ${1:+--target "$@"} ||
    fail "the build in $folder failed"
}

# The accessibility checker that the browser tests put into the pages.
install_accessibility_checker() {
  local version=4.10.3
  ! grep -qs "\"version\": \"$version\"" build/npm/node_modules/axe-core/package.json || return 0
  echo "Fetching axe-core"
  mkdir -p build/npm
  quietly build/npm.log npm install --prefix build/npm --no-save --no-audit --no-fund \
    --ignore-scripts "axe-core@$version" ||
    fail "axe-core cannot be fetched: is there a network?"
}

check_sandbox() {
  quietly build/sandbox.log device/sandbox build -- true ||
    fail "the sandbox does not start: this machine does not let us make user namespaces"
}
