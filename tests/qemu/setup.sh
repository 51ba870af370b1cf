#!/bin/sh
# Installs what the qemu harness needs on a Debian 12 machine: the Debian
# kernel with its headers, qemu for both architectures, busybox, the arm64
# cross compiler, and (extracted, not installed) the arm64 kernel image,
# headers and busybox, which apt cannot install on an amd64 host.
#
# Idempotent and quiet; a second run only checks. Needs root (apt-get).
#   tests/qemu/setup.sh            everything
#   tests/qemu/setup.sh x86_64     skip the arm64 pieces
set -eu

want_arm64=1
[ "${1:-}" = x86_64 ] && want_arm64=0

ARM64_CACHE=${VANE_ARM64_CACHE:-/var/cache/vane-arm64}
export DEBIAN_FRONTEND=noninteractive

missing() {
    for p in "$@"; do
        dpkg-query -W -f='${Status}\n' "$p" 2>/dev/null | grep -q 'ok installed' || echo "$p"
    done
}

pkgs="make gcc g++ cpio gzip busybox-static linux-image-amd64 linux-headers-amd64 qemu-system-x86"
[ $want_arm64 = 1 ] && pkgs="$pkgs g++-aarch64-linux-gnu qemu-system-arm"
need=$(missing $pkgs)
if [ -n "$need" ]; then
    echo "setup: installing" $need
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $need >/dev/null
fi

[ $want_arm64 = 1 ] || exit 0

# The arm64 kernel is the Debian build of the host's amd64 kernel release,
# so that the harness boots the same kernel on both architectures and the
# host's kbuild tools match its headers. $ARM64_CACHE/current names it.
kver=$("$(dirname "$0")/../../kport/linux/kver.sh")
want=${kver%-amd64}-arm64
current=$ARM64_CACHE/current
if [ -f "$current/.complete" ] && [ "$(readlink "$current")" = "$want" ]; then
    exit 0
fi

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    dpkg --add-architecture arm64
fi
if ! ls /var/lib/apt/lists/*binary-arm64_Packages* >/dev/null 2>&1; then
    apt-get update -qq
fi

arm_kver=$want
if ! apt-cache show "linux-image-$arm_kver:arm64" >/dev/null 2>&1; then
    # The archive has moved past the host's kernel: take its current arm64
    # kernel, of the same series.
    arm_kver=$(apt-cache show linux-headers-arm64:arm64 |
        sed -n 's/^Depends: linux-headers-\([^ ,]*-arm64\).*/\1/p' | head -n 1)
    [ -n "$arm_kver" ] || { echo "setup: no arm64 kernel in the archive" >&2; exit 1; }
fi
dest=$ARM64_CACHE/$arm_kver
if [ -f "$dest/.complete" ]; then
    ln -sfn "$arm_kver" "$current"
    exit 0
fi

echo "setup: fetching the arm64 kernel $arm_kver into $dest"
rm -rf "$dest"
mkdir -p "$dest/debs" "$dest/root"
# apt drops privileges to _apt for downloads; let it write here.
id _apt >/dev/null 2>&1 && chown _apt "$dest/debs"
common=linux-headers-${arm_kver%-arm64}-common
(cd "$dest/debs" &&
    apt-get download -qq "linux-image-$arm_kver:arm64" "linux-headers-$arm_kver:arm64" \
        "$common" busybox-static:arm64 >/dev/null)
for deb in "$dest"/debs/*.deb; do
    dpkg-deb -x "$deb" "$dest/root"
done
# Debian's kbuild tools are host programs that serve every architecture; the
# extracted headers reach them, and each other, by paths that only resolve in
# a real installation.
src=$dest/root/usr/src
kbuild=/usr/lib/linux-kbuild-${kver%%.[0-9]-*}
for d in "$src/linux-headers-$arm_kver" "$src/$common"; do
    ln -sfn "$kbuild/scripts" "$d/scripts"
    ln -sfn "$kbuild/tools" "$d/tools"
done
sed -i "s|^include .*/$common/Makefile|include $src/$common/Makefile|" \
    "$src/linux-headers-$arm_kver/Makefile"
# Only the kernel image is booted; its modules are not needed.
rm -rf "$dest/root/lib/modules"
rm -rf "$dest/debs"
touch "$dest/.complete"
ln -sfn "$arm_kver" "$current"
