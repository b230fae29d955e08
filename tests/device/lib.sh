# shellcheck shell=bash
# SPDX-License-Identifier: MIT
#
# Makes the ARM systems that the tests run on; sourced, never run, with $cache the directory for
# what lasts.
# shellcheck disable=SC2154 # cache and root are set by the script that sources this

# shellcheck source-path=SCRIPTDIR source=../../scripts/lib.sh
. "$(dirname -- "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

# shellcheck disable=SC2034 # used by the scripts that source this
{
    device_packages=(g++-arm-linux-gnueabihf mmdebstrap arch-test qemu-user-static qemu-system-arm)
    device_packages+=(e2fsprogs kmod cpio python3-pytest mount procps)
}
# What a device has, then what the tests call.
root_packages=(make gcc g++ zip unzip ccache distcc)
root_packages+=(cmake libgtest-dev libgmock-dev librapidcheck-dev python3-pytest python3-pytest-xdist)
root_packages+=(socat ser2net netcat-openbsd)
root_packages+=(strace iproute2 procps sysvinit-utils busybox-static)

# Drivers without which the machine finds neither its disks nor its network.
kernel_modules=(virtio_mmio virtio_blk virtio_net virtio-rng ext4)

release=bookworm

# The archive that this machine takes its own packages from, as a line for the new system.
archive_line() {
    local uri
    # shellcheck disable=SC2016 # the format is apt-get's, not the shell's
    uri=$(apt-get indextargets --format '$(RELEASE) $(REPO_URI)' 'Created-By: Packages' |
        awk -v release=$release '$1 == release { print $2; exit }')
    [ -n "$uri" ] || die "none of this machine's package sources has Debian's $release"
    echo "deb $uri $release main"
}

# bootstrap VARIANT DIR PACKAGE...
bootstrap() {
    local variant=$1 dir=$2 line
    shift 2
    line=$(archive_line)
    # An index in mid-update does not match its sums, so this is tried again.
    retry bootstrap_once "$variant" "$dir" "$line" "$(IFS=, && echo "$*")"
}

bootstrap_once() {
    as_root rm -rf --one-file-system "$2"
    as_root mmdebstrap --quiet --architectures=armhf --variant="$1" --include="$4" \
        --format=directory --dpkgopt='path-exclude=/usr/share/doc/*' \
        --dpkgopt='path-exclude=/usr/share/man/*' --dpkgopt='path-exclude=/usr/share/locale/*' \
        $release "$2" "$3"
}

# cached NAME INPUT...: sets made to a directory of the cache, filled by make_NAME unless it is there.
# Its name tells how and from what (the words of INPUT) it was made; outdated ones are removed.
cached() {
    local name=$1 key
    key=$({
        declare -f "make_$name" bootstrap_once file_system
        echo "$*"
    } | sha256sum | cut -c1-12)
    made=$cache/$name-$key
    [ ! -e "$made" ] || return 0
    as_root rm -rf --one-file-system "$cache/$name"-*
    say "making $made"
    "make_$name" "$made.new"
    as_root mv "$made.new" "$made"
}

make_root() {
    bootstrap minbase "$1" "${root_packages[@]}"
    as_root mkdir -p "$1/mnt/tree"
}

# The kernel, and an initial RAM disk that mounts the root and the tree and starts boot.sh.
make_kernel() {
    local unpacked=$1.unpacked modules kernel module
    bootstrap extract "$unpacked" linux-image-armmp busybox-static
    kernel=$(basename "$unpacked"/lib/modules/*)
    as_root depmod -b "$unpacked" "$kernel"
    modules=$(for module in "${kernel_modules[@]}"; do
        /sbin/modprobe -d "$unpacked" -S "$kernel" --show-depends "$module" || exit
    done | awk '$1 == "insmod" && !seen[$2]++ { print $2 }')
    mkdir -p "$1/ramdisk"/{bin,dev,proc,root,modules}
    cp "$unpacked/boot/vmlinuz-$kernel" "$1/vmlinuz"
    cp "$unpacked/bin/busybox" "$1/ramdisk/bin/"
    for module in $modules; do
        cp "$module" "$1/ramdisk/modules/"
        basename "$module"
    done >"$1/ramdisk/modules/order"
    cp "$tree/tests/device/ramdisk_init" "$1/ramdisk/init"
    (cd "$1/ramdisk" && find . | cpio --quiet -o -H newc -R 0:0) | gzip >"$1/initrd"
    rm -r "$1/ramdisk"
    as_root rm -rf "$unpacked"
}

# file_system DIR LABEL SPARE-MIB IMAGE: a file system with what DIR holds.
file_system() {
    local used
    used=$(as_root du -s --apparent-size -B1M "$1" | cut -f1)
    as_root rm -f "$4"
    as_root mke2fs -q -t ext4 -L "$2" -d "$1" "$4" "$((used * 5 / 4 + $3))M"
    as_root chmod 644 "$4"
}

make_image() {
    mkdir -p "$1"
    file_system "$root" vka-root 300 "$1/image"
}

# The kernel learns to run ARM programs; an entry of our own, so that no other is in the way.
binfmt=/proc/sys/fs/binfmt_misc
binfmt_entry=vka-arm-$$
binfmt_mounted=''

register_emulator() {
    if [ ! -e $binfmt/register ]; then
        as_root mount -t binfmt_misc binfmt_misc $binfmt ||
            die "this kernel cannot be told how to run ARM programs (binfmt_misc)"
        binfmt_mounted=1
    fi
    # Flags: argument 0 is kept (P), the emulator is opened now and found in any root (F).
    as_root tee $binfmt/register >/dev/null <<END
:$binfmt_entry:M::\\x7fELF\\x01\\x01\\x01\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x00\\x02\\x00\\x28\\x00:\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\x00\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xff\\xfe\\xff\\xff\\xff:/usr/libexec/qemu-binfmt/arm-binfmt-P:PF
END
}

forget_emulator() {
    [ ! -e "$binfmt/$binfmt_entry" ] || as_root tee "$binfmt/$binfmt_entry" >/dev/null <<<-1
    [ -z "$binfmt_mounted" ] || as_root umount $binfmt
}
