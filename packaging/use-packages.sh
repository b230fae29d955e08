#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: packaging/use-packages.sh DIR MULTIARCH FLAGS
#
# Installs the packages in DIR, uses and purges them, in a system that has only what they depend on.
# DIR also holds calculator.zip, an example; FLAGS is what pkg-config tells a consumer of
# libvka-dev. Run by check-packages.sh in a throw-away root.

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=../scripts/lib.sh
. "$(dirname -- "$0")/../scripts/lib.sh"
dir=$1 multiarch=$2
read -r -a flags <<<"$3"
packages=(libvka0 libvka-dev vkahost)
answer_seconds=120
wanted=/etc/systemd/system/multi-user.target.wants

# All but what apt and dpkg write for themselves.
list_files() {
    find / \( -path /proc -o -path /sys -o -path /dev -o -path /tmp -o -path "$tree" \
        -o -path "$dir" -o -path /var/cache -o -path /var/log -o -path /var/lib/apt \) -prune \
        -o ! -path '/var/lib/dpkg/*-old' -printf '%y %m %U:%G %p %l\n' | sort
}

apt() {
    apt_get -o DPkg::Use-Pty=0 -o DPkg::Options::=--path-include='*' "$@" >"$dir/apt.log" 2>&1 || {
        cat "$dir/apt.log"
        die "apt-get $1 failed"
    }
}

check_installed() {
    local complaints version page library known used
    complaints=$(dpkg --verify "${packages[@]}")
    [ -z "$complaints" ] || die "not as in the packages: $complaints"
    version=$(dpkg-query -W -f '${source:Upstream-Version}' vkahost)
    [ "$(vkahost --version)" = "vkahost $version" ] ||
        die "vkahost has the version $(vkahost --version)"
    for page in man1/vkahost.1 man7/vka.7; do
        [[ $(zcat "/usr/share/man/$page.gz") == *vka* ]] || die "no manual page $page"
    done
    known=$(ldconfig -p)
    for library in qvutil qvio qvproc vka; do
        [[ $known == *"=> /lib/$multiarch/lib$library.so.0"* ]] || die "lib$library is not found"
    done
    # It is for devices without the libraries, too.
    used=$(ldd /usr/bin/vkahost)
    [[ $used != *libvka* ]] || die "vkahost needs shared libraries of the packages: $used"
    [ ! -e $wanted/vkahost.service ] || die "the service was enabled"
}

# An archive becomes a program that a client talks to; its exit status becomes that of vkahost.
check_host() {
    local line port='' host said console output status=0 log=$dir/host.log
    coproc vkahost --port 0 --workdir "$dir/work" "$dir/calculator.zip" 2>&1
    host=$COPROC_PID
    # Bash forgets the descriptor once the process has ended.
    exec {said}<&"${COPROC[0]}"
    while [ -z "$port" ] && read -r -t $answer_seconds -u "$said" line; do
        echo "$line" >>"$log"
        [[ $line != "vkahost: running, console on port "* ]] || port=${line##* }
    done
    [ -n "$port" ] || die "vkahost does not run the program: $(cat "$log")"
    exec {console}<>"/dev/tcp/127.0.0.1/$port"
    printf '6 * (4 + 3)\nquit 9\n' >&"$console"
    output=$(timeout $answer_seconds cat <&"$console") || die "the console stays open"
    exec {console}>&-
    [[ $output == *'> 42'* ]] || die "the program answers: $output"
    wait "$host" || status=$?
    [ "$status" = 9 ] || die "vkahost ended with status $status instead of the program's"
}

# A program of somebody else's, built with the headers and run with the libraries of the packages.
check_consumer() {
    local used
    cat >"$dir/consumer.cc" <<'END'
#include <libvka/client/VKAClient>

#include <libqvio/FdSet>

int main()
{
    VKAClient agent("/tmp/work", true, 1 << 20, 0, "", 0);
    FdSet readable, writable;
    agent.addConsole(readable, writable);
    return readable.num(writable) > 0 ? 0 : 1;
}
END
    g++ -std=c++11 -Wall -Werror -o "$dir/consumer" "$dir/consumer.cc" "${flags[@]}"
    "$dir/consumer" >/dev/null || die "the consumer fails"
    used=$(ldd "$dir/consumer")
    [[ $used == *"libvka.so.0 => /lib/$multiarch/"* ]] ||
        die "the consumer does not use the package's library: $used"
}

before=$(list_files)
say "installing"
apt install --no-install-recommends "$dir"/*.deb
check_installed
say "again, over the installed ones"
apt install --reinstall "$dir"/*.deb
check_installed
say "vkahost"
check_host
say "a consumer: g++ ${flags[*]}"
check_consumer
say "removing"
# Somebody has enabled it.
mkdir -p $wanted
ln -s /usr/lib/systemd/system/vkahost.service $wanted/
apt purge "${packages[@]}"
diff <(echo "$before") <(list_files) || die "a purge leaves the system changed"
