# Sourced by run, test and the like: installs what is missing, configures and builds. Expects $root, the project's folder.

build_packages=(g++ cmake ninja-build pkg-config libglib2.0-dev libczmq-dev libzmq3-dev libssl-dev libprotobuf-dev
    protobuf-compiler libedit-dev libmosquitto-dev nlohmann-json3-dev dbus-daemon)
test_packages=(libgtest-dev libgmock-dev bubblewrap clang-format mosquitto mosquitto-clients python3 iproute2)
rack_packages=(python3 iproute2)
bench_packages=(bubblewrap python3 valgrind strace gnuplot-nox)
bench_peer_packages=(mosquitto libmosquitto-dev)
bench_bridge_packages=(mosquitto mosquitto-clients python3-gi)

usage_error=64
failure=1

# complain STATUS SENTENCE: one line on standard error, then the end.
complain() {
    echo "${0##*/}: $2" >&2
    exit "$1"
}

missing_packages() {
    local package
    for package in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# install_packages PACKAGE...: nothing is said or done when all are there.
install_packages() {
    local as_root=() missing log=$root/build/packages.log
    mapfile -t missing < <(missing_packages "$@")
    [ ${#missing[@]} -gt 0 ] || return 0
    command -v apt-get >/dev/null || complain $failure "these Debian packages are needed: ${missing[*]}"
    if [ "$(id -u)" != 0 ]; then
        command -v sudo >/dev/null || complain $failure "as root, run: apt-get install ${missing[*]}"
        as_root=(sudo)
    fi
    echo "installing ${missing[*]} (log: build/packages.log)"
    mkdir -p "$root/build"
    {
        "${as_root[@]}" apt-get update -qq &&
            "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
    } >"$log" 2>&1 || complain $failure "installing ${missing[*]} failed; the reason is at the end of build/packages.log"
}

# apt_mirror SUITE: where this machine's apt takes that suite of Debian from; nothing when it does not take it.
apt_mirror() { apt-get update --print-uris | sed -n "s|^'\(.*\)/dists/$1/main/.*|\1|p" | head -n 1; }

# make_debian FOLDER: a minimal Debian 12 there, with this machine's apt mirror, proxy and the like. Takes root and debootstrap.
make_debian() {
    local folder=$1 suite mirror
    mirror=$(apt_mirror bookworm)
    if [ -z "$mirror" ]; then
        echo "none of this machine's apt sources has Debian's suite bookworm"
        return $failure
    fi
    [ -e "$folder/etc/debian_version" ] ||
        debootstrap --variant=minbase --include=ca-certificates bookworm "$folder" "$mirror" || return
    cp /etc/resolv.conf "$folder/etc/"
    cp -r /etc/apt/*.conf* "$folder/etc/apt/"
    for suite in bookworm bookworm-updates bookworm-security; do
        mirror=$(apt_mirror $suite)
        [ -z "$mirror" ] || echo "deb $mirror $suite main"
    done >"$folder/etc/apt/sources.list"
}

# build PRESET [CMAKE OPTION...]: the whole log is in build/PRESET.log, an error is shown.
build() {
    local preset=$1 log=$root/build/$1.log
    shift
    mkdir -p "$root/build"
    (cd "$root" && cmake --preset "$preset" "$@") >"$log" 2>&1 || {
        grep -A 2 'CMake Error' "$log" >&2
        complain $failure "configuring failed; the whole output is in build/$preset.log"
    }
    (cd "$root" && cmake --build --preset "$preset") >>"$log" 2>&1 || {
        grep -m 5 -E 'error|undefined reference' "$log" >&2
        complain $failure "the build failed; the whole output is in build/$preset.log"
    }
}
