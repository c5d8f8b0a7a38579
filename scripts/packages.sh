#!/usr/bin/env bash
# Makes the Debian packages of what is committed, into build/packages, and has lintian look at them.
set -u
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
. "$root/scripts/setup.sh"

packages=$root/build/packages
architecture=$(dpkg --print-architecture)
check_reproducible=no
usage() {
    echo "usage: scripts/packages.sh [--check-reproducible] [--architecture A]"
    echo "  --check-reproducible  build a second time elsewhere, and fail when a byte differs"
    echo "  --architecture A      build for A with Debian's cross compiler; scripts/arm64.sh packages has all it needs"
}
while [ $# -gt 0 ]; do
    case $1 in
        --check-reproducible) check_reproducible=yes ;;
        --architecture)
            [ $# -gt 1 ] || complain $usage_error "--architecture needs a name; try scripts/packages.sh --help"
            architecture=$2
            shift
            ;;
        -h | --help)
            usage
            exit 0
            ;;
        *) complain $usage_error "unknown argument $1; try scripts/packages.sh --help" ;;
    esac
    shift
done

# make_packages FOLDER [VARIABLE=VALUE...]: in a tree of its own below FOLDER; the packages end up in FOLDER.
make_packages() {
    local folder=$1 log=$packages/${1##*/}.log
    shift
    mkdir -p "$folder/tree"
    git -C "$root" archive HEAD | tar -x -C "$folder/tree" || complain $failure "what is committed cannot be exported"
    mv "$folder/tree/packaging/debian" "$folder/tree/debian"
    (cd "$folder/tree" && env "$@" dpkg-buildpackage --build=binary --no-sign --host-arch="$architecture") >"$log" 2>&1 || {
        grep -A 2 -m 5 -E 'error: |CMake Error' "$log" >&2
        complain $failure "the build failed; the whole output is in $log"
    }
}

# The changelog is read by Debian's tools and CMakeLists.txt by CMake, so the version has to stand in both.
check_version() {
    local changelog project
    changelog=$(dpkg-parsechangelog -l "$root/packaging/debian/changelog" -S Version)
    project=$(sed -n 's/^project(.* VERSION \([^ ]*\).*/\1/p' "$root/CMakeLists.txt")
    [ "$changelog" = "$project" ] ||
        complain $failure "packaging/debian/changelog is for $changelog, CMakeLists.txt for $project; make them one"
}

# Another path, build folder, number of jobs, time zone and language.
compare_with_second_build() {
    local first=$1 second=$2 package count=0
    make_packages "$second" BUILD_FOLDER=elsewhere/one DEB_BUILD_OPTIONS=parallel=1 TZ=Asia/Tokyo LC_ALL=C.UTF-8
    for package in "$first"/*.deb; do
        cmp "$package" "$second/${package##*/}" || complain $failure "${package##*/} differs from build to build"
        count=$((count + 1))
    done
    echo "two builds in different folders: all $count packages are the same, byte for byte"
}

install_packages "${build_packages[@]}" debhelper lintian git
check_version
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
rm -rf "$packages"
mkdir -p "$packages"

echo "building the packages for $architecture (log: build/packages/first.log)"
make_packages "$work/first"
cp "$work"/first/*.deb "$work"/first/*.changes "$work"/first/*.buildinfo "$packages/"
lintian --allow-root --fail-on error,warning "$packages"/*.changes ||
    complain $failure "lintian has something to say, see above"
[ "$check_reproducible" = no ] || compare_with_second_build "$work/first" "$work/second-and-longer"
(cd "$packages" && ls -s --block-size=K *.deb)
