#!/usr/bin/env bash
# lay_modules.sh FOLDER...: lays libcrypto.so.1.1 and libssl.so.1.1 (OpenSSL 1.1.1) into each folder,
# beside the program that looks for them there. Nothing is installed system-wide.
#
# They are taken from the first place that has them: the folder itself, another of the folders, the
# machine's library folders, the package in the cache, and at last the package of the release before
# this one, fetched from the mirror that the machine's own apt uses, through a source list of its own.
# The package stays in the cache, so that only the first run needs a network.
#
# Root may run this on a machine that it shares. So all work is done in one scratch folder, made once and
# never removed before the end, and a package is unpacked only if its SHA-256 is in the table below. The
# sum is taken of a private copy, so that the file can't be exchanged between the check and its use.
set -euo pipefail
shopt -s inherit_errexit

modules=(libcrypto.so.1.1 libssl.so.1.1)
package=libssl1.1
release=bullseye
# VERSION ARCHITECTURE SHA-256, the preferred version first. The last one is in the release itself and
# stays; the others come from its security updates, where a newer one replaces them. To add a newer one,
# take its sum from the signed index: apt-cache show libssl1.1.
known_packages='
1.1.1w-0+deb11u8 amd64 dcc68a543de6cb955a57077b66dcdb15f61d1e31e072f2c6cc4082c37da1b00d
1.1.1w-0+deb11u8 arm64 0fba4e602e499c97c4b623bd56295115667c312ff583221a71b476dd6983a5e0
1.1.1w-0+deb11u1 amd64 aadf8b4b197335645b230c2839b4517aa444fd2e8f434e5438c48a18857988f7
1.1.1w-0+deb11u1 arm64 fe7a7d313c87e46e62e614a07137e4a476a79fc9e5aab7b23e8235211280fee3
'
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
cache=${XDG_CACHE_HOME:-$HOME/.cache}/pelmoscope

has_modules() {
    local module
    for module in "${modules[@]}"; do [ -f "$1/$module" ] || return 1; done
}

# The rename is one step, so that no program finds half a library.
copy_modules() {
    local module
    mkdir -p "$2"
    for module in "${modules[@]}"; do
        cp -L "$1/$module" "$2/.$module.new"
        mv "$2/.$module.new" "$2/$module"
    done
}

machine_folder() {
    local folder
    for folder in "/usr/lib/$(uname -m)-linux-gnu" /usr/lib64 /usr/lib /usr/local/lib; do
        if has_modules "$folder"; then echo "$folder" && return; fi
    done
    return 1
}

# Prints the known packages of this machine's architecture, one "VERSION SHA-256" per line.
known_versions() {
    local architecture
    architecture=$(dpkg --print-architecture)
    awk -v architecture="$architecture" '$2 == architecture { print $1, $3 }' <<<"$known_packages"
}

# take_package FILE SUM: copies FILE to the scratch folder; fails, and removes the copy, if its sum differs.
take_package() {
    local copy=$scratch/package.deb
    cp -- "$1" "$copy" && echo "$2  $copy" | sha256sum --check --status && return
    rm -f "$copy"
    echo "$1 isn't the package whose SHA-256 this script knows: it is not used" >&2
    return 1
}

# Takes the preferred one of the packages in the cache.
take_cached() {
    local version sum file
    while read -r version sum; do
        file=$cache/${package}_${version}_$(dpkg --print-architecture).deb
        [ ! -f "$file" ] || ! take_package "$file" "$sum" || return 0
    done < <(known_versions)
    return 1
}

# Prints the machine's own mirrors, one "URI SUITE" per line: they have the release before this one
# too, and the security updates of both. Security mirrors come first, since their index is small.
mirror_suites() {
    apt-get indextargets --format '$(REPO_URI) $(RELEASE) $(COMPONENT)' 'Created-By: Packages' |
        awk -v release="$release" '
            $3 != "main" || $2 !~ /^(bookworm|stable|oldstable)/ { next }
            $2 ~ /-security$/ { print 0, $1, release "-security"; next }
            $2 !~ /-/ { print 1, $1, release }' |
        sort -u | cut -d' ' -f2-
}

# Runs apt with folders of its own, so that the machine's lists, cache and post-update hooks aren't
# touched. The release is out of support, so its index may have expired; its signature is still
# checked.
private_apt() {
    local work=$1
    shift
    apt-get -qq -c "$work/apt.conf" "$@"
}

# fetch_from FOLDER URI SUITE: downloads into FOLDER/package a known version that the suite has. FOLDER
# must not exist yet.
fetch_from() {
    local work=$1 uri=$2 suite=$3 version sum
    mkdir "$work" || return 1
    mkdir -p "$work"/{lists/partial,archives/partial,none,package}
    : >"$work/status"
    cat >"$work/apt.conf" <<EOF
#clear APT::Update::Post-Invoke;
#clear APT::Update::Post-Invoke-Success;
#clear DPkg::Post-Invoke;
Dir::Etc::SourceList "$work/sources.list";
Dir::Etc::SourceParts "$work/none";
Dir::Etc::Preferences "$work/none/preferences";
Dir::Etc::PreferencesParts "$work/none";
Dir::State "$work";
Dir::State::Lists "$work/lists";
Dir::State::Status "$work/status";
Dir::Cache "$work";
Dir::Cache::Archives "$work/archives";
Acquire::Languages "none";
Acquire::Check-Valid-Until "false";
Acquire::Retries "3";
APT::Sandbox::User "$(id -un)";
EOF
    echo "deb [signed-by=$keyring] $uri $suite main" >"$work/sources.list"
    private_apt "$work" update || return 1
    while read -r version sum; do
        (cd "$work/package" && private_apt "$work" download "$package=$version") || continue
        take_package "$work/package/"*.deb "$sum" && return
    done < <(known_versions)
    return 1
}

# Takes a package from the first mirror that has a known one, and keeps it in the cache.
fetch_package() {
    local uri suite tries=0
    while read -r uri suite; do
        tries=$((tries + 1))
        if fetch_from "$scratch/fetch$tries" "$uri" "$suite" >&2; then
            mkdir -p "$cache"
            mv "$scratch/fetch$tries/package/"*.deb "$cache/"
            return
        fi
    done < <(mirror_suites)
    echo "no mirror gave a known version of $package, and $cache has none: put it there by hand" >&2
    return 1
}

unpack_package() {
    local found
    mkdir "$scratch/unpacked"
    dpkg-deb -x "$scratch/package.deb" "$scratch/unpacked"
    found=$(find "$scratch/unpacked" -name "${modules[0]}" -printf '%h\n' | head -n 1)
    has_modules "$found" && echo "$found"
}

source_folder() {
    local folder
    for folder in "$@"; do
        if has_modules "$folder"; then echo "$folder" && return; fi
    done
    machine_folder && return
    take_cached || fetch_package
    unpack_package
}

missing=()
for folder in "$@"; do has_modules "$folder" || missing+=("$folder"); done
[ ${#missing[@]} -gt 0 ] || exit 0

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
source=$(source_folder "$@")
for folder in "${missing[@]}"; do copy_modules "$source" "$folder"; done
