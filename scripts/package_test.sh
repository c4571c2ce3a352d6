#!/usr/bin/env bash
# package_test.sh: makes the Debian packages of the release build, checks what is in them, and tests
# them in a fresh root: each installs alone, with its declared dependencies only, its programs run as
# those of the build do, an upgrade keeps what the operator made, and a purge leaves nothing else
# behind. Takes some minutes.
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

in_root=(chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive)
inside() { "${in_root[@]}" "$@"; }

# Lists all files of the root except the records that apt and dpkg keep of any package.
files() { (cd "$root" && find . -xdev -path ./proc -prune -o -path ./sys -prune -o \
    -path ./var/cache -prune -o -path ./var/log -prune -o -path ./var/lib/apt -prune -o \
    -path ./var/lib/dpkg -prune -o -path ./tmp -prune -o -path ./etc/ld.so.cache -prune -o -print | sort); }

# quietly COMMAND...: its output is shown only if it fails.
quietly() { "$@" >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }; }

fail() { echo "$*" && exit 1; }

# Rules of Debian's that no installation would notice.
check_contents() {
    local deb=$1 strange unpacked=$work/unpacked.$(basename "$1") lines=$work/lines
    dpkg-deb -c "$deb" >"$lines"
    strange=$(awk '$2 != "root/root" || $6 !~ /^\.\/(usr\/.*)?$/ ||
        $1 !~ /^(drwxr-xr-x|-rwxr-xr-x|-rw-r--r--|lrwxrwxrwx)$/' "$lines")
    [ -z "$strange" ] || fail "$deb: strange owners, modes or places:"$'\n'"$strange"
    dpkg-deb -R "$deb" "$unpacked"
    [[ $deb = */python3-* || $(ls "$unpacked/DEBIAN" | grep -vxE 'control|md5sums|shlibs|triggers') = "" ]] ||
        fail "$deb: has scripts"
    (cd "$unpacked" && md5sum --quiet -c DEBIAN/md5sums)
    for field in Package Version Architecture Maintainer Section Depends Description Installed-Size; do
        [ -n "$(dpkg-deb -f "$deb" "$field")" ] || [[ $field = Depends && $deb = *-doc_* ]] ||
            fail "$deb: no $field"
    done
}

# The libraries that the package's own files are linked with, but for the two that it carries.
linked_by() {
    local file
    chroot "$root" dpkg -L "$1" | while read -r file; do
        [ ! -f "$root$file" ] || [ -L "$root$file" ] || readelf -d "$root$file" 2>/dev/null || true
    done | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p' | grep -vE '^lib(crypto|ssl)\.so\.1\.1$' | sort -u
}

# Each library comes from a package that this one depends on itself, not by way of another.
check_depends() {
    local name=$1 deb=$2 library owner
    dpkg-deb -f "$deb" Depends | tr ',' '\n' | sed 's/ *(.*//; s/^ *//' >"$work/depends"
    for library in $(linked_by "$name"); do
        owner=$(chroot "$root" dpkg -S "*/$library" | sed -n '1s/:.*//p')
        grep -qxF "$owner" "$work/depends" || fail "$name doesn't depend on ${owner:-the package} of $library"
    done
}

installs() { quietly inside apt-get -qq install -y --no-install-recommends "${@/#//tmp/}"; }

purges() {
    quietly inside apt-get -qq purge -y --autoremove "$@"
    files >"$work/after"
    diff "$work/before" "$work/after"
}

# same OPTIONS...: the build and the installed program make the same of the sample.
same() {
    local program=$1
    shift
    "$build/bin/$program" "$@" -r samples/bus.pcap >"$work/wanted" 2>/dev/null
    inside "$program" "$@" -r /tmp/bus.pcap >"$work/given" 2>"$work/log" || { cat "$work/log" && exit 1; }
    [ -s "$work/wanted" ]
    diff "$work/wanted" "$work/given"
}

has_files() {
    local file
    for file in "$@"; do
        [ -s "$root/usr/share/$file" ] || fail "no $file"
    done
}

check_pelmoscope() {
    same pelmoscope -addrinfo -ptp
    grep -q "Multicast Packet Statistics" "$work/given"
    has_files man/man1/pelmoscope.1 \
        doc/pelmoscope/{OPERATING.md,CHANGELOG.md,copyright,pelmoscope.service,OpenSSL-1.1.1.txt}
}

check_pelmobus() {
    local program
    for program in pelmobus pmd; do
        diff <("$build/bin/$program" --help) <(inside "$program" --help)
    done
    has_files man/man1/{pelmobus,pmd}.1 doc/pelmobus/{OPERATING.md,CHANGELOG.md,copyright,pmd.service,pelmo-messages.schema.json}
}

check_pelmobridge() {
    diff <("$build/bin/pelmobridge" --help) <(inside pelmobridge --help)
    has_files man/man1/pelmobridge.1 doc/pelmobridge/{BRIDGE.md,copyright,pelmobridge.service}
}

# A program that was built elsewhere finds the library: the root has no compiler.
check_libpelmo0() {
    c++ -std=c++17 tests/scripts/library_user/main.cc -I "$work/unpacked.$(basename "$work"/made/libpelmo-dev_*.deb)/usr/include" \
        -o "$root/tmp/user" -L "$build/lib" -lpelmo
    [ "$(inside /tmp/user)" = "{load=7}" ] || fail "the library's user doesn't run"
}

check_libpelmo_dev() {
    [ -L "$root/usr/lib/libpelmo.so" ] && [ -s "$root/usr/lib/libpelmo.so" ] || fail "no library to link with"
    [ -s "$root/usr/include/pelmo/pelmo.h" ] || fail "no headers"
    has_files doc/libpelmo-dev/{copyright,CHANGELOG.md}
}

check_libpelmo_doc() {
    has_files doc/libpelmo-doc/html/index.html man/man3/pelmoEvent_CreateTimer.3 man/man3/{pelmo_event.h,vcCreateAccept}.3
}

# Python's own files of byte code go with the package, though nobody packed them.
check_python3_pelmo() {
    [ "$(inside python3 -W error -c 'import pelmo
with pelmo.in_process() as bus, bus.listen("A") as messages:
    bus.send("A", load=7)
    print(dict(messages.get(5)))')" = "{'load': 7}" ] || fail "the package for Python doesn't run"
    has_files doc/python3-pelmo/{PYTHON.md,copyright,examples/subscriber.py}
}

# The page itself is tested in the build; here it's enough that the server answers with it.
check_pelmowatch() {
    same pelmowatch json --rows
    inside pelmowatch report -r - -o /tmp/page.html <samples/bus.pcap 2>"$work/log"
    "$build/bin/pelmowatch" report -r - -o "$work/page.html" <samples/bus.pcap 2>"$work/log"
    cmp "$work/page.html" "$root/tmp/page.html"
    has_files man/man1/pelmowatch.1 pelmowatch/pelmowatch{,-report,-compare,-source}.schema.json pelmowatch/pelmo-messages.schema.json \
        pelmowatch/prometheus/pelmo_{bus.yml,alerts.yml,dashboard.json} \
        doc/pelmowatch/{OPERATING.md,copyright,pelmowatch.service,uPlot.txt,RapidJSON.txt}
    check_server
}

check_server() {
    local server answer=
    "${in_root[@]}" pelmowatch serve -r /tmp/bus.pcap --listen 127.0.0.1:0 >"$work/log" 2>&1 &
    server=$!
    for _ in {1..50}; do
        answer=$(ask "$(sed -n 's/.*http:..127\.0\.0\.1:\([0-9]*\).*/\1/p' "$work/log")" 2>/dev/null) && break
        sleep 0.1
    done
    kill "$server"
    wait "$server" || fail "serve ended with status $?"
    [[ $answer == *"200 OK"*"pelmo_packets_total"* ]] || { cat "$work/log" && fail "serve: ${answer:0:200}"; }
}

ask() {
    exec 3<>"/dev/tcp/127.0.0.1/$1" || return 1
    printf 'GET /metrics HTTP/1.0\r\nHost: 127.0.0.1\r\n\r\n' >&3
    cat <&3
    exec 3>&-
}

# An operator's own unit, and a next version.
check_upgrade() {
    local unit=$root/etc/systemd/system/pelmowatch.service name
    mkdir -p "${unit%/*}"
    cp "$root/usr/share/doc/pelmowatch/pelmowatch.service" "$unit"
    quietly inside apt-get -qq install -y "${next[@]/#//tmp/}"
    for name in "${names[@]}"; do
        [ "$(inside dpkg-query -f '${Version} ${Status}' -W "$name")" = "9.9.9 install ok installed" ] ||
            fail "$name isn't upgraded"
    done
    cmp "$unit" "$root/usr/share/doc/pelmowatch/pelmowatch.service"
    rm -r "$root/etc/systemd/system/pelmowatch.service"
}

names=(pelmoscope pelmobus pelmowatch pelmobridge libpelmo0 libpelmo-dev libpelmo-doc python3-pelmo)
quietly scripts/lay_modules.sh "$build/bin"
quietly cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/made"
quietly cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/next" -R 9.9.9
for name in "${names[@]}"; do
    check_contents "$(echo "$work"/made/${name}_*.deb)"
done
mapfile -t next < <(cd "$work/next" && ls ./*.deb)
[ ${#next[@]} = ${#names[@]} ] || fail "other packages than ${names[*]}: ${next[*]}"

make_root
mountpoint -q "$root/proc" || mount -t proc proc "$root/proc"
cp "$work"/{made,next}/*.deb samples/bus.pcap "$root/tmp/"
inside apt-get -qq update
files >"$work/before"

for name in "${names[@]}"; do
    deb=$(basename "$work"/made/${name}_*.deb)
    needs=()
    [[ $name != libpelmo-dev && $name != python3-pelmo ]] || needs=("$(basename "$work"/made/libpelmo0_*.deb)")
    installs "$deb" "${needs[@]}"
    check_depends "$name" "$work/made/$deb"
    "check_${name//-/_}"
    [ "$(inside dpkg-query -f '${Package}\n' -W | grep -c pelmo)" = $((1 + ${#needs[@]})) ] ||
        fail "$name brings another"
    purges "$name" "${needs[@]%%_*}"
    echo "$deb installs, runs and purges in a fresh root"
done
installs $(cd "$work/made" && ls ./*.deb)
check_upgrade
purges "${names[@]}"
echo "all install beside each other, upgrade and purge"
