#!/usr/bin/env bash
# A package in the cache that isn't the known one is never unpacked, and a fetch uses no folder that
# somebody else could have made. The mirror is out of reach: apt-get fails.
set -euo pipefail
script=$(cd "$(dirname "$0")/../../scripts" && pwd)/lay_modules.sh
for folder in "/usr/lib/$(uname -m)-linux-gnu" /usr/lib64 /usr/lib /usr/local/lib; do
    [ ! -f "$folder/libcrypto.so.1.1" ] || { echo "the machine has modules of its own: skipped"; exit 77; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/bin" "$work/cache/pelmoscope" "$work/tmp" "$work/forged/DEBIAN" "$work/forged/usr/lib"
touch "$work"/forged/usr/lib/lib{crypto,ssl}.so.1.1
printf 'Package: libssl1.1\nVersion: 1\nArchitecture: all\nMaintainer: a <a@b>\nDescription: a\n' \
    >"$work/forged/DEBIAN/control"
for version in 1.1.1w-0+deb11u1 1.1.1w-0+deb11u8; do
    dpkg-deb -b "$work/forged" \
        "$work/cache/pelmoscope/libssl1.1_${version}_$(dpkg --print-architecture).deb" >/dev/null
done
cat >"$work/bin/apt-get" <<'EOF'
#!/bin/sh
case $1 in indextargets) echo "mirror: bookworm main" ;; *) exit 1 ;; esac
EOF
# Notes each folder that is removed before the end of the script.
cat >"$work/bin/rm" <<EOF
#!/bin/sh
case \$1 in -rf) echo "\$2" >>"$work/removed" ;; esac
exec /bin/rm "\$@"
EOF
chmod +x "$work"/bin/*

status=0
PATH=$work/bin:$PATH XDG_CACHE_HOME=$work/cache TMPDIR=$work/tmp "$script" "$work/laid" 2>"$work/said" || status=$?
[ "$status" != 0 ] || { echo "a forged package was laid"; exit 1; }
[ ! -e "$work/laid/libssl.so.1.1" ] || { echo "a forged library was laid"; exit 1; }
[ "$(grep -c "it is not used" "$work/said")" = 2 ] || { cat "$work/said"; exit 1; }
[ "$(wc -l <"$work/removed")" = 1 ] || { echo "a folder was removed and made again"; exit 1; }
