#!/usr/bin/env bash
# package_test.sh: makes the Debian package of the release build and tests three things in a fresh
# root: it installs with its declared dependencies only, its programs run (the tool reads a capture as
# the build does), and a purge leaves nothing behind. Takes some minutes.
#
# Needs root, debootstrap and the mirror of the machine's own apt; without them it reports what is
# missing and ends with status 77. It runs in a mount namespace, so that nothing stays mounted,
# whatever fails.
set -euo pipefail
cd "$(dirname "$0")/.."

skip() { echo "package not tested: $*" && exit 77; }

if [ -z "${PELMO_PACKAGE_NAMESPACE:-}" ]; then
    [ "$(id -u)" = 0 ] || skip "only root can make a root folder"
    command -v debootstrap >/dev/null || skip "debootstrap is missing"
    unshare --mount true 2>/dev/null || skip "no mount namespace can be had"
    PELMO_PACKAGE_NAMESPACE=1 exec unshare --mount "$0" "$@"
fi

build=build/release
work=$(mktemp -d)
root=$work/root
clean_up() {
    ! mountpoint -q "$root/proc" || umount "$root/proc"
    rm -rf --one-file-system "$work"
}
trap clean_up EXIT

# The machine's own mirror for its own release.
mirror() {
    apt-get indextargets --format '$(REPO_URI) $(CODENAME) $(COMPONENT)' 'Created-By: Packages' |
        awk -v release="$1" '$2 == release && $3 == "main" { print $1; exit }'
}

make_root() {
    local release uri cache=${XDG_CACHE_HOME:-$HOME/.cache}/pelmoscope/root
    release=$(. /etc/os-release && echo "$VERSION_CODENAME")
    uri=$(mirror "$release")
    [ -n "$uri" ] || skip "apt knows no mirror of $release"
    mkdir -p "$cache"
    debootstrap --variant=minbase --cache-dir="$cache" "$release" "$root" "$uri" >"$work/log" 2>&1 ||
        skip "no root can be made: $(tail -n 1 "$work/log")"
}

inside() { chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive "$@"; }

# Lists all files of the root except the records that apt and dpkg keep of any package.
files() { (cd "$root" && find . -xdev -path ./proc -prune -o -path ./sys -prune -o \
    -path ./var/cache -prune -o -path ./var/log -prune -o -path ./var/lib/apt -prune -o \
    -path ./var/lib/dpkg -prune -o -path ./tmp -prune -o -path ./etc/ld.so.cache -prune -o -print | sort); }

# read_sample REPORT COMMAND...: writes the command's report, and its log only if it fails.
read_sample() {
    local report=$1
    shift
    "$@" -addrinfo -ptp >"$report" 2>"$work/log" || { cat "$work/log" && exit 1; }
}

cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/made" >"$work/log" || { cat "$work/log" && exit 1; }
package=$(echo "$work"/made/pelmoscope_*.deb)
make_root
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
cp "$package" samples/bus.pcap "$root/tmp/"
inside apt-get -qq update
files >"$work/before"

inside apt-get -qq install -y --no-install-recommends "/tmp/$(basename "$package")" >"$work/log" 2>&1 ||
    { cat "$work/log" && exit 1; }
read_sample "$work/wanted" "$build/bin/pelmoscope" -r samples/bus.pcap
read_sample "$work/given" inside pelmoscope -r /tmp/bus.pcap
grep -q "Multicast Packet Statistics" "$work/wanted"
diff "$work/wanted" "$work/given"
for program in pelmobus pmd pelmowatch; do
    diff <("$build/bin/$program" --help) <(inside "$program" --help)
done
documents="OPERATING.md CHANGELOG.md pelmoscope.service pelmowatch.service pmd.service"
for file in $(printf 'share/man/man1/%s.1 ' pelmoscope pelmobus pmd pelmowatch) \
    $(printf 'share/doc/pelmoscope/%s ' $documents); do
    [ -e "$root/usr/$file" ] || [ -e "$root/usr/$file.gz" ] || { echo "no $file" && exit 1; }
done

inside apt-get -qq purge -y --autoremove pelmoscope >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }
files >"$work/after"
diff "$work/before" "$work/after"
echo "$(basename "$package") installs, runs and purges in a fresh root"
