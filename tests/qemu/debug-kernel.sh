#!/bin/bash
# Builds (once per configuration) an x86_64 debug kernel from Debian's
# linux-source-6.1 and prints the directory of the build tree: bzImage at
# arch/x86/boot/bzImage, Module.symvers for out-of-tree modules.
#
#   tests/qemu/debug-kernel.sh kasan|kcsan
#
# The configuration is tinyconfig plus debug-kernel/base.config plus the
# variant's fragment. The build is cached in $VANE_DEBUG_KERNEL_CACHE
# (default /var/cache/vane-debug-kernels) under <variant>-<hash>, the hash
# covering the fragments, the recipe number below, the source package's
# version and the compiler, so a repeat run on the same machine (a fresh
# clone included) costs nothing. Older builds of the same variant are
# dropped. Every option a fragment asks for must survive olddefconfig, or the
# build fails: a silently dropped detector would make every later clean run
# meaningless.
set -euo pipefail

variant=${1:-}
case $variant in
kasan | kcsan) ;;
*)
    echo "usage: $0 kasan|kcsan" >&2
    exit 2
    ;;
esac

# Raise when the way of building changes, so that cached builds are redone.
recipe=1

here=$(cd "$(dirname "$0")" && pwd)
frag=$here/debug-kernel
cache=${VANE_DEBUG_KERNEL_CACHE:-/var/cache/vane-debug-kernels}
tarball=/usr/src/linux-source-6.1.tar.xz

need=()
for p in linux-source-6.1 flex bison bc libelf-dev libssl-dev gcc make xz-utils; do
    dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
    echo "debug-kernel: installing ${need[*]}" >&2
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi

src_version=$(dpkg-query -W -f='${Version}' linux-source-6.1)
hash=$( (cat "$frag/base.config" "$frag/$variant.config"
    echo "$recipe $src_version"
    gcc --version | head -n 1) | sha256sum | cut -c1-16)
dest=$cache/$variant-$hash
if [ -f "$dest/.complete" ]; then
    echo "$dest"
    exit 0
fi

mkdir -p "$cache"
# Two runs at once (two clones testing on one machine) build once: the second
# waits for the first and finds its result.
exec 9>"$cache/.lock"
flock 9
if [ -f "$dest/.complete" ]; then
    echo "$dest"
    exit 0
fi
src=$cache/src-$src_version
if [ ! -f "$src/.complete" ]; then
    echo "debug-kernel: unpacking $tarball" >&2
    rm -rf "$src"
    mkdir -p "$src"
    tar -xf "$tarball" -C "$src" --strip-components=1
    touch "$src/.complete"
fi
# Source trees of other package versions are no longer needed.
for old in "$cache"/src-*; do
    [ "$old" = "$src" ] || rm -rf "$old"
done

echo "debug-kernel: building $variant into $dest (about 8 minutes on 2 cores)" >&2
t0=$(date +%s)
rm -rf "$dest"
mkdir -p "$dest"
log=$dest/build.log
{
    make -C "$src" O="$dest" tinyconfig
    "$src/scripts/kconfig/merge_config.sh" -m -O "$dest" "$dest/.config" \
        "$frag/base.config" "$frag/$variant.config"
    make -C "$src" O="$dest" olddefconfig
} >"$log" 2>&1 || {
    tail -n 30 "$log" >&2
    exit 1
}

missing=0
for f in "$frag/base.config" "$frag/$variant.config"; do
    while IFS= read -r line; do
        case $line in
        CONFIG_*=*)
            grep -qxF "$line" "$dest/.config" || {
                echo "debug-kernel: $line did not survive olddefconfig" >&2
                missing=1
            }
            ;;
        "# CONFIG_"*" is not set")
            opt=${line#\# }
            opt=${opt%% *}
            if grep -q "^$opt=" "$dest/.config"; then
                echo "debug-kernel: $opt is set although the fragment switches it off" >&2
                missing=1
            fi
            ;;
        esac
    done <"$f"
done
[ $missing = 0 ] || exit 1

# Two jobs at most: the machines running this are shared.
if ! nice make -C "$src" O="$dest" -j2 bzImage modules_prepare modules >>"$log" 2>&1; then
    tail -n 40 "$log" >&2
    exit 1
fi
echo "debug-kernel: $variant built in $(($(date +%s) - t0))s" >&2

touch "$dest/.complete"
for old in "$cache/$variant"-*; do
    [ "$old" = "$dest" ] || rm -rf "$old"
done
echo "$dest"
