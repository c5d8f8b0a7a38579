#!/usr/bin/env bash
# Builds everything for 64-bit Arm with Debian's cross compiler, and runs it under an emulator. Compiler, libraries and
# emulator are in a root of their own; the machine itself gets nothing but debootstrap and bubblewrap.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"

arm_root=${KESTO_ARM64_ROOT:-/var/tmp/kesto-arm64}
usage() {
    echo "usage: scripts/arm64.sh [build|tour|test [NAME]|packages]"
    echo "  build     only build, into build/arm64"
    echo "  tour      the client's visit of ./run --once; done unless told otherwise"
    echo "  test      the tests, or the test programs whose names match the regular expression NAME"
    echo "  packages  the Debian packages for arm64, into build/packages"
    echo "  The root for it is made once, in \$KESTO_ARM64_ROOT (default: $arm_root)."
}

# The libraries come for Arm, the tools for this machine.
arm_packages() {
    local package
    for package in "${build_packages[@]}" "${test_packages[@]}"; do
        case $package in
            clang-format) ;;
            lib*-dev) echo "$package:arm64" ;;
            *) echo "$package" ;;
        esac
    done
    printf '%s\n' crossbuild-essential-arm64 qemu-user-static build-essential debhelper lintian git
}

in_new_root() { chroot "$arm_root" env DEBIAN_FRONTEND=noninteractive LC_ALL=C "$@"; }

prepare_root() {
    local wanted
    wanted=$(arm_packages)
    [ "$wanted" != "$(cat "$arm_root/prepared" 2>/dev/null)" ] || return 0
    [ "$(id -u)" = 0 ] || complain $failure "making $arm_root takes root; afterwards anybody can use it"
    echo "preparing $arm_root (log: build/arm64-root.log)"
    mkdir -p "$root/build"
    {
        make_debian "$arm_root" && in_new_root dpkg --add-architecture arm64 && in_new_root apt-get update -qq &&
            in_new_root xargs apt-get install -y -qq --no-install-recommends <<<"$wanted"
    } >"$root/build/arm64-root.log" 2>&1 || complain $failure "that failed; the reason is at the end of build/arm64-root.log"
    echo "$wanted" >"$arm_root/prepared"
}

# Here the kernel hands Arm programs to the emulator, here alone: since Linux 6.7 a user namespace has formats of its own.
# Whoever has registered the emulator for the whole machine needs no such kernel.
let_kernel_run_arm='
mkdir /tmp/formats
if mount -t binfmt_misc none /tmp/formats 2>/dev/null; then
    cat /usr/lib/binfmt.d/qemu-aarch64.conf >/tmp/formats/register
elif [ ! -e /proc/sys/fs/binfmt_misc/qemu-aarch64 ]; then
    echo "Arm programs cannot be run: this takes Linux 6.7, or qemu-user-static installed on the machine" >&2
    exit 1
fi
exec "$@"'

# inside COMMAND...: in the root, with the checkout at its own path, and a network and a /tmp of its own.
inside() {
    local box=(bwrap --unshare-user --uid 0 --gid 0 --cap-add ALL --unshare-net --unshare-pid --die-with-parent
        --bind "$arm_root" / --dev /dev --proc /proc --tmpfs /tmp --bind "$root" "$root" --chdir "$root")
    env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
        "${box[@]}" bash -c "$let_kernel_run_arm" - "$@"
}

build_arm() {
    echo "building (log: build/arm64.log)"
    inside bash -c '. scripts/setup.sh; root=$PWD; build arm64 "$@"' scripts/arm64.sh "$@" || exit
}

visit='
cd /tmp
bin=$0/build/arm64/bin
until_said() { until grep -q "$2" "$1"; do sleep 0.1; done; }
"$bin/kesto-device" --alarm-every 2 --change-every 5 >device.log &
until_said device.log serving
KESTO_AMP_NAME="Simulated amplifier" KESTO_DEBUG=1 "$bin/kesto-access" 2>service.log &
until_said service.log zsys_catch_interrupts
"$bin/kesto-client" tour --user quillmont --password tandrivel
result=$?
kill %1 %2
wait
exit $result'

action=${1-tour}
case $action in
    build | tour | packages) [ $# -le 1 ] || complain $usage_error "too many arguments; try scripts/arm64.sh --help" ;;
    test) [ $# -le 2 ] || complain $usage_error "too many arguments; try scripts/arm64.sh --help" ;;
    -h | --help)
        usage
        exit 0
        ;;
    *) complain $usage_error "there is no action $action; try scripts/arm64.sh --help" ;;
esac

install_packages debootstrap bubblewrap
prepare_root
case $action in
    build) build_arm -DACCESS_TESTS=OFF ;;
    tour)
        build_arm -DACCESS_TESTS=OFF
        inside timeout 300 dbus-run-session -- bash -c "$visit" "$root" ||
            complain $failure "the visit failed at the step above, or before the first one"
        ;;
    test)
        build_arm -DACCESS_TESTS=ON
        # Now and then the emulator hangs where a program with threads starts another, and the time limit ends it.
        inside ctest --test-dir build/arm64 --output-on-failure --no-tests=error -j "$(nproc)" \
            --repeat after-timeout:3 ${2+-R "$2"}
        ;;
    packages) inside scripts/packages.sh --architecture arm64 ;;
esac
