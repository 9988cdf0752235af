# Shared by ./run, ./test and ./package: installs missing packages, builds. Sourced with the repository's top as the
# current folder.
# shellcheck shell=bash disable=SC2034,SC2154

# No program that we start can ask and wait for an answer; and a closed standard input is opened.
exec </dev/null

BUILD_PACKAGES=(g++ cmake ninja-build pkg-config libcgicc-dev libxml2-dev
  libmicrohttpd-dev)
DEVICE_PACKAGES=(bubblewrap lighttpd)
PACKAGING_PACKAGES=(build-essential debhelper dpkg-dev fakeroot git pkgconf)
TEST_PACKAGES=(libgtest-dev libgmock-dev librapidcheck-dev clang libclang-rt-14-dev clang-format
  clang-tidy llvm shellcheck curl iproute2 chromium chromium-driver python3-hypothesis python3-psutil
  python3-pytest python3-pytest-xdist python3-selenium libxml2-utils proot
  systemd strace nftables valgrind qemu-system-x86 qemu-user busybox-static cpio e2fsprogs git)
# For other processors: Debian's cross compilers, and the packages of those processors that are unpacked to compile
# against and to run.
CROSS_PACKAGES=(g++-aarch64-linux-gnu g++-arm-linux-gnueabihf mmdebstrap)
SYSROOT_PACKAGES=(libc6 libstdc++6 libcgicc-dev libxml2-dev libmicrohttpd-dev openjdk-17-jre-headless
  libgtest-dev libgmock-dev librapidcheck-dev python3-pytest lighttpd busybox-static)
declare -A SYSROOT_KERNEL=([arm64]=linux-image-cloud-arm64 [armhf]=linux-image-armmp-lpae)
# What ./test --long needs in addition, with PACKAGING_PACKAGES and CROSS_PACKAGES.
LONG_TEST_PACKAGES=(lintian blhc ccache diffoscope-minimal faketime firefox-esr locales
  gdb linux-perf python3-matplotlib wrk pngquant qemu-system-arm)
# A Node.js that is not Debian's brings its own npm.
command -v npm >/dev/null || TEST_PACKAGES+=(npm)
# JAVA_HOME names another JDK than Debian's.
if [[ -z ${JAVA_HOME:-} ]]; then
  BUILD_PACKAGES+=(openjdk-17-jdk-headless)
fi

# The web servers whose packages start no service; fetch_web_servers unpacks the others.
TEST_PACKAGES+=(apache2-bin libfcgi0ldbl lighttpd-mod-openssl openssl)

fail() {
  echo "${0##*/}: $*" >&2
  exit 1
}

# Prints the comment at the top of the script $self; its first line is the usage.
show_help() {
  sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$self"
}

# refuse MESSAGE: for a wrong command line.
refuse() {
  echo "${0##*/}: $*. $(show_help | head -n 1); see --help" >&2
  exit 2
}

# check_writable FOLDER...: these and the top folder. Called first, so that nothing is installed for a checkout that
# cannot be built.
check_writable() {
  local folder
  for folder in . "$@"; do
    [[ ! -e $folder || -w $folder ]] ||
      fail "this checkout is read-only: $(realpath "$folder") cannot be written to; copy it to a folder of" \
        "yours and start ./${0##*/} there"
  done
}

# Ctrl-C ends a script with one line. The terminal interrupts the running commands, too; they keep the log locked
# until the last one has ended.
log=
stop() {
  trap '' INT
  [[ ! -e $log ]] || flock --timeout 10 "$log" true || true
  [[ ! -t 2 ]] || echo >&2 # behind the terminal's ^C
  echo "${0##*/}: stopped" >&2
  exit 130
}
trap stop INT

# Runs a command; its output goes to a file and is shown only when it fails.
quietly() {
  log=$1
  shift
  # In a subshell, so that the trap does not write its line into the file.
  (
    exec >"$log" 2>&1 </dev/null
    flock --nonblock 1 || true
    "$@"
  ) || {
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

# install_packages PACKAGE...: installs the missing ones.
install_packages() {
  command -v dpkg-query >/dev/null ||
    fail "this is not a Debian system, and it installs Debian's packages; build by hand, as README.md says," \
      "with what these packages of Debian 12 hold: $*"
  local package missing=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  ((${#missing[@]})) || return 0

  local by_hand="install them by hand, as root: apt-get install ${missing[*]}"
  ((EUID == 0)) || command -v sudo >/dev/null ||
    fail "packages are missing, and there is no sudo to install them with; $by_hand"
  echo "Installing ${missing[*]}"
  mkdir -p build
  quietly build/packages.log as_root apt-get -q update ||
    fail "the package lists cannot be fetched, for the reason above: is there a network? Or $by_hand"
  quietly build/packages.log as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y \
    --no-install-recommends -o Dpkg::Options::=--force-confold install "${missing[@]}" ||
    fail "the packages cannot be installed, for the reason above: is there a network? Or $by_hand"
}

# is_copied FOLDER: whether the build folder was configured in another checkout, and copied together with it.
is_copied() {
  local cache=$1/CMakeCache.txt source folder
  [[ -e $cache ]] || return 1
  source=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$cache")
  folder=$(sed -n 's/^CMAKE_CACHEFILE_DIR:INTERNAL=//p' "$cache")
  ! [[ $source -ef . && $folder -ef $1 ]]
}

# configure FOLDER [CMAKE OPTION...]
configure() {
  local folder=$1
  shift
  if is_copied "$folder"; then
    echo "The checkout is a copy: building $folder anew"
    # Keeps the device's storage and what was fetched.
    find "$folder" -mindepth 1 -maxdepth 1 ! -name state ! -name npm ! -name roots -exec rm -rf {} +
  fi
  mkdir -p "$folder"
  local configure=(quietly "$folder/configure.log" cmake -S . -B "$folder" -G Ninja "$@")
  local failed="the build in $folder cannot be configured, for the reason above; all of it is in"
  "${configure[@]}" || fail "$failed $folder/configure.log"
  # With another compiler than before, CMake starts again and forgets its other options: so a second run.
  ! grep -q 'require your cache to be deleted' "$folder/configure.log" || "${configure[@]}" ||
    fail "$failed $folder/configure.log"
}

# Shows ninja's steps in one line of the terminal, and its other output in full.
show_steps() {
  local line
  while IFS= read -r line; do
    if [[ $line =~ ^\[[0-9]+/[0-9]+\] ]]; then
      printf '\r\e[K\e[?7l%s\e[?7h' "$line" # cut where the terminal ends
    elif [[ $line != 'ninja: '@(Entering|no work)* ]]; then
      printf '\r\e[K%s\n' "$line"
    fi
  done
  printf '\r\e[K'
}

# build FOLDER [TARGET...]: shows the progress at a terminal. Calls ninja directly: it waits for the compilers that it
# interrupts, while `cmake --build` does not wait for ninja.
build() {
  local folder=$1
  shift
  if [[ -t 1 && ${TERM:-dumb} != dumb ]]; then
    ninja -C "$folder" "$@" 2>&1 </dev/null | show_steps
  else
    quietly "$folder/build.log" ninja -C "$folder" "$@"
  fi || fail "the build in $folder failed, for the reason above"
}

# The accessibility checker that the browser tests load into the pages.
install_accessibility_checker() {
  local version=4.10.3
  ! grep -qs "\"version\": \"$version\"" build/npm/node_modules/axe-core/package.json || return 0
  echo "Fetching axe-core"
  mkdir -p build/npm
  quietly build/npm.log npm install --prefix build/npm --no-save --no-audit --no-fund \
    --ignore-scripts "axe-core@$version" ||
    fail "axe-core cannot be fetched, for the reason above: is there a network?"
}

# unpack FOLDER PACKAGE...: unpacks the packages into the folder, without installing them.
unpack() {
  ! tools/unpack-packages --is-there "$@" || return 0
  echo "Fetching ${*:2}"
  mkdir -p build
  quietly build/unpack.log tools/unpack-packages "$@" 2>/dev/null ||
    { quietly build/packages.log as_root apt-get -q update &&
      quietly build/unpack.log tools/unpack-packages "$@"; } ||
    fail "the packages cannot be fetched, for the reason above: is there a network?"
}

# The kernel of the emulated machines.
fetch_kernel() {
  unpack build/machine/kernel linux-image-cloud-amd64
}

# The web servers whose packages would start services when installed.
fetch_web_servers() {
  unpack build/web-servers nginx fcgiwrap
}

# make_sysroot ARCHITECTURE: unpacks SYSROOT_PACKAGES of another Debian architecture, and a kernel, in
# build/roots.
make_sysroot() {
  local folder=build/roots/$1 packages=("${SYSROOT_PACKAGES[@]}" "${SYSROOT_KERNEL[$1]}") wanted
  wanted="$(cksum <tools/make-sysroot) ${packages[*]}"
  [[ $(cat "$folder.packages" 2>/dev/null) != "$wanted" ]] || return 0
  echo "Unpacking packages of $1"
  mkdir -p build/roots
  quietly "$folder.log" as_root tools/make-sysroot "$1" "$folder" "${packages[@]}" ||
    fail "the packages of $1 cannot be unpacked, for the reason above: is there a network?"
  echo "$wanted" >"$folder.packages"
}

is_listening() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

find_sandbox() {
  VEMO_SANDBOX_KIND=$(standin/sandbox --kind 2>build/sandbox.log)
}

# Sets VEMO_SANDBOX_KIND to the kind of sandbox that the machine allows, so that no later command has to try.
check_sandbox() {
  # proot traces programs: it is installed only on machines that need it.
  if ! find_sandbox && ! is_installed proot; then
    (install_packages proot) || true
  fi
  [[ -n $VEMO_SANDBOX_KIND ]] || find_sandbox || {
    cat build/sandbox.log >&2
    fail "the sandbox does not start, for the reasons above; it needs one of the two"
  }
  export VEMO_SANDBOX_KIND
}

# Sets jobs, the number of tests that may run at once. After check_sandbox.
prepare_tests() {
  jobs=$(nproc)
  [[ $VEMO_SANDBOX_KIND == proot ]] || return 0
  # All tests share the machine's loopback, so they cannot run at once.
  jobs=1
  local port
  # The device's ports, and those of tests/web/device.py.
  for port in 5302 {8080..8103}; do
    ! is_listening "$port" ||
      fail "this machine refuses namespaces, so the tests use its own port $port, which is busy:" \
        "stop what listens there (./run does)"
  done
  echo "This machine refuses namespaces: the tests run under proot, one after the other." \
    "Memory leaks are not looked for, and some tests are skipped."
}
