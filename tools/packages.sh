# The Debian packages this project needs, and how the top-level scripts get them and speak. Sourced by ./run and ./test.

packages_run=(cmake ninja-build g++ libasio-dev libcli11-dev libtelnet-dev libusb-1.0-0-dev nlohmann-json3-dev picocom)
packages_test=(cmake ninja-build g++ libasio-dev libcli11-dev libtelnet-dev libusb-1.0-0-dev nlohmann-json3-dev libgtest-dev
    libumockdev-dev umockdev clang libclang-rt-dev g++-mingw-w64-i686-win32 python3-minimal python3-serial gensio-bin libyaml-0-2
    picocom socat tshark dpkg-dev file man-db systemd udev)
packages_package=(dpkg-dev file)
packages_bench=(cmake ninja-build g++ libasio-dev libcli11-dev libtelnet-dev libusb-1.0-0-dev nlohmann-json3-dev libbenchmark-dev ser2net socat)

say() { printf '== %s\n' "$*"; }

die() {
    printf '%s: %s\n' "$(basename "$0")" "$*" >&2
    exit 1
}

# install_packages NAME... - installs those that are missing; asks dpkg first, so that nothing missing costs nothing.
install_packages() {
    command -v dpkg-query >/dev/null || die "this is not a Debian system: install these packages' counterparts by hand: $*"
    local missing=() name
    for name in "$@"; do
        [ "$(dpkg-query -W -f '${db:Status-Status}' "$name" 2>/dev/null)" = installed ] || missing+=("$name")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    local root=()
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || die "packages are missing and there is no sudo: as root, run apt-get install ${missing[*]}"
        root=(sudo)
    fi
    say "Installing from Debian: ${missing[*]}"
    step packages "${root[@]}" apt-get -qq update ||
        die "the package lists could not be fetched; is the network up?"
    step packages "${root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq -y --no-install-recommends install "${missing[@]}" ||
        die "Debian's packages could not be installed: ${missing[*]}"
}

# step LOG COMMAND... - runs it with its output in build/LOG.log and shows the end of that when it fails.
step() {
    local log=build/$1.log
    shift
    mkdir -p build
    "$@" >"$log" 2>&1 && return 0
    tail -n 40 "$log" >&2
    return 1
}

# build_tree DIRECTORY "TARGET..." CMAKE-OPTION... - configures once, then builds.
build_tree() {
    local directory=$1 targets=$2 log
    log=$(basename "$directory")
    shift 2
    if ! [ -f "$directory/build.ninja" ]; then
        step "$log" cmake -S . -B "$directory" -G Ninja "$@" || return 1
    fi
    # shellcheck disable=SC2086  # a list of targets
    step "$log" cmake --build "$directory" --parallel "${JOBS:-$(nproc)}" --target $targets
}
