# shellcheck shell=bash
# SPDX-License-Identifier: MIT
#
# Shared by the scripts beside it; sourced, never run.

tree=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")/.." && pwd -P)

install=1 # missing packages; see read_options

# The same messages, sort order and number format on every machine.
export LC_ALL=C.UTF-8

# What the build and the running library need; what the sandbox and the tests need besides.
# shellcheck disable=SC2034 # used by the scripts that source this
{
    build_packages=(g++ make cmake unzip zip)
    sandbox_packages=(mount python3)
    test_packages=(libgtest-dev libgmock-dev librapidcheck-dev python3-pytest)
    test_packages+=(python3-pytest-xdist)
    test_packages+=(gcc-arm-linux-gnueabihf g++-arm-linux-gnueabihf ccache distcc busybox-static)
    test_packages+=(socat netcat-openbsd inetutils-telnet putty-tools expect python3-pexpect tmux)
    test_packages+=(strace iproute2 procps sysvinit-utils)
}

say() { printf '==> %s\n' "$*"; }

die() {
    printf '%s: %s\n' "${0##*/}" "$*" >&2
    exit 1
}

# The same, for a command line that is wrong.
refuse_usage() {
    printf '%s: %s (-h for help)\n' "${0##*/}" "$*" >&2
    exit 2
}

# read_options KNOWN [ARGUMENT]...: of the options that KNOWN names, build-dir= sets the variable
# build_dir to its value and all sets the variable all to 1. With ... in KNOWN, other words go to the
# array words. --no-install sets install=0 and --help prints the usage; anything else is refused, with
# status 2.
read_options() {
    local known=" $1 " name
    shift
    words=()
    while [ $# -gt 0 ]; do
        name=${1#--}
        if [[ $1 =~ ^--[a-z-]+$ && $known == *" $name= "* ]]; then
            option_value "$1" $#
            declare -g "${name//-/_}=$2"
            shift
        elif [[ $1 =~ ^--[a-z-]+$ && $known == *" $name "* ]]; then
            declare -g "${name//-/_}=1"
        elif [[ $1 != -* && $known == *" ... "* ]]; then
            words+=("$1")
        else
            case $1 in
            --no-install) install=0 ;;
            -h | --help)
                print_usage
                exit
                ;;
            *) refuse_usage "unknown argument $1" ;;
            esac
        fi
        shift
    done
}

# option_value OPTION COUNT: complains unless OPTION is followed by a value; COUNT is "$#".
option_value() { [ "$2" -ge 2 ] || refuse_usage "option $1 needs a value"; }

# The comment at the head of the running script is its manual.
print_usage() { sed -n '/^# Usage:/,/^[^#]/{/^#/s/^# \{0,1\}//p}' "$0"; }

as_root() {
    if [ "$(id -u)" = 0 ]; then
        "$@"
    elif command -v sudo >/dev/null; then
        sudo "$@"
    else
        die "need root to run: $* (no sudo here; run this as root, or install the packages first)"
    fi
}

# Tries a command that depends on the network several times.
retry() {
    local try
    for try in 1 2 3 4; do
        "$@" && return
        say "failed (try $try): $*" >&2
        sleep $((try * 5))
    done
    "$@"
}

apt_get() {
    as_root env DEBIAN_FRONTEND=noninteractive apt-get -q -y -o DPkg::Lock::Timeout=600 "$@"
}

# install_packages NAME...: installs those that are missing; needs neither root nor network when
# none is.
install_packages() {
    local missing=() package
    command -v dpkg-query >/dev/null || {
        say "no dpkg here: taking it that these are installed: $*"
        return
    }
    for package in "$@"; do
        # shellcheck disable=SC2016 # the format is dpkg-query's, not the shell's
        dpkg-query -W -f='${db:Status-Status}\n' "$package" 2>/dev/null | grep -q -x installed ||
            missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0
    say "installing ${missing[*]}"
    retry apt_get update || die "apt-get update failed"
    # Some packages conflict; none that the machine has is given up for ours.
    retry apt_get install --no-install-recommends --no-remove "${missing[@]}" ||
        die "cannot install ${missing[*]}"
}

# need_packages NAME...: installs those that are missing, unless --no-install was given.
need_packages() { [ "$install" = 0 ] || install_packages "$@"; }

# integration_options DIR PYTHON: options, a line each, for a pytest in the sandbox that keeps DIR. As
# many tests as there are processors run at a time, each process of tests in a sandbox of its own.
integration_options() {
    printf '%s\n' -p no:cacheprovider "--basetemp=$1/tmp" --dist=load \
        --tx "$(nproc)*popen//python='$tree/scripts/sandbox.sh' --keep '$1' -- '$2'"
}

# A Python that has the given modules; the first one on the PATH need not be the system's.
find_python() {
    local python module
    for python in python3 /usr/bin/python3; do
        for module in "$@"; do
            "$python" -c "import $module" 2>/dev/null || continue 2
        done
        command -v "$python"
        return
    done
    die "no python3 with the modules: $*"
}

# build_tree DIR [CMAKE-ARGUMENT]...: configures and builds the tree in DIR.
build_tree() {
    local dir=$1
    shift
    mkdir -p "$dir"
    {
        cmake -S "$tree" -B "$dir" "$@" && cmake --build "$dir" --parallel "$(nproc)"
    } >"$dir/build.log" 2>&1 || {
        cat "$dir/build.log"
        die "the build in $dir failed"
    }
}
