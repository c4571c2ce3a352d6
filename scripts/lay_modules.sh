#!/usr/bin/env bash
# lay_modules.sh FOLDER...: lays libcrypto.so.1.1 and libssl.so.1.1 (OpenSSL 1.1.1) into each folder,
# beside the program that looks for them there. Nothing is installed system-wide.
#
# They are taken from the first place that has them: the folder itself, another of the folders, the
# machine's library folders, the package in the cache, and at last the package of the release before
# this one, fetched from the mirror that the machine's own apt uses, through a source list of its own.
# The package stays in the cache, so that only the first run needs a network.
set -euo pipefail
shopt -s inherit_errexit

modules=(libcrypto.so.1.1 libssl.so.1.1)
package=libssl1.1
release=bullseye
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

cached_package() {
    local newest
    newest=$(find "$cache" -name "${package}_*_$(dpkg --print-architecture).deb" 2>/dev/null | sort | tail -n 1)
    [ -n "$newest" ] && echo "$newest"
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

fetch_from() {
    local work=$1 uri=$2 suite=$3
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
    private_apt "$work" update && (cd "$work/package" && private_apt "$work" download "$package")
}

fetch_package() {
    local work uri suite
    work=$(mktemp -d)
    while read -r uri suite; do
        rm -rf "$work"
        if fetch_from "$work" "$uri" "$suite" >&2; then
            mkdir -p "$cache"
            mv "$work"/package/*.deb "$cache/"
            rm -rf "$work"
            return
        fi
    done < <(mirror_suites)
    rm -rf "$work"
    echo "no mirror gave the package $package, and $cache has none: lay it there by hand" >&2
    return 1
}

unpack_package() {
    local work=$1 found
    dpkg-deb -x "$(cached_package)" "$work"
    found=$(find "$work" -name "${modules[0]}" -printf '%h\n' | head -n 1)
    has_modules "$found" && echo "$found"
}

source_folder() {
    local work=$1 folder
    shift
    for folder in "$@"; do
        if has_modules "$folder"; then echo "$folder" && return; fi
    done
    machine_folder && return
    cached_package >/dev/null || fetch_package
    unpack_package "$work"
}

missing=()
for folder in "$@"; do has_modules "$folder" || missing+=("$folder"); done
[ ${#missing[@]} -gt 0 ] || exit 0

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
source=$(source_folder "$scratch" "$@")
for folder in "${missing[@]}"; do copy_modules "$source" "$folder"; done
