#!/bin/bash
# SPDX-License-Identifier: MIT
#
# Usage: scripts/check-consumers.sh [OPTION]...
#
# Has another project, tests/consumer, use the libraries in every way there is, and runs its
# programs: find_package on an installed tree, add_subdirectory, FetchContent and pkg-config; static
# and shared. Looks at what is installed, and at what add_subdirectory changes in the project around
# (nothing). Configures every preset. Installs nothing outside of build/consumers.
#
#   --build-dir DIR       Release build to install from (default build/consumers/release)
#   --no-install          install no packages
#   -h, --help            show this text

set -eu -o pipefail
# shellcheck source-path=SCRIPTDIR source=lib.sh
. "$(dirname -- "$0")/lib.sh"

build_dir=''
read_options "build-dir=" "$@"
# clang++ and the ARM compiler, GTest and rapidcheck are for the presets.
need_packages "${build_packages[@]}" clang pkgconf libgtest-dev \
    libgmock-dev librapidcheck-dev g++-arm-linux-gnueabihf

work=$tree/build/consumers
: "${build_dir:=$work/release}"
blanks="$work/with two blanks"
rm -rf "$work"/{absolute,around,dest-*,components,presets,*.log} "$blanks"
mkdir -p "$blanks" "$work"
ulimit -c 0 # a descriptor out of range ends a process, as it should

flags="-Werror -Wall -Wextra -Wpedantic -Wshadow -Wconversion"
count=0
# check NAME COMMAND...: the command's output is shown only when it fails.
check() {
    local log=$work/$((++count)).log
    "${@:2}" >"$log" 2>&1 </dev/null || {
        cat "$log"
        die "failed: $1"
    }
    say "good: $1"
}

# consumer WAY DIR FORTIFICATION [FLAG-OR-CMAKE-ARGUMENT]...: -D... goes to CMake, others to the
# compiler. Builds and runs both programs.
consumer() {
    local way=$1 dir=$2 arguments=() own="$flags -DEXPECTED_FORTIFICATION=$3" argument
    for argument in "${@:4}"; do
        case $argument in
        -D_FORTIFY_SOURCE=*) own+=" $argument" ;;
        -D*) arguments+=("$argument") ;;
        *) own+=" $argument" ;;
        esac
    done
    cmake -S "$tree/tests/consumer" -B "$dir" -DWAY="$way" -DCMAKE_CXX_FLAGS="$own" \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON "${arguments[@]}" &&
        cmake --build "$dir" --parallel "$(nproc)" &&
        "$dir/consumer" && "$dir/consumer_shared"
}

say "building in $build_dir (Release)"
build_tree "$build_dir" -DCMAKE_BUILD_TYPE=Release
build_dir=$(cd -- "$build_dir" && pwd -P)

# ---- What is installed ----

install_to() { # PREFIX COMPONENT...
    local component
    for component in "${@:2}"; do
        cmake --install "$build_dir" --prefix "$1" --component "$component" || return
    done
}
moved=$blanks/moved
check "install" install_to "$blanks/first" runtime development
mv "$blanks/first" "$moved"
libdir=$(dirname "$(find "$moved" -name libvka.a)")

mentions_no_build() {
    ! grep -r -l -F -e "$tree" -e "$build_dir" -e "$blanks/first" "$moved"
}
check "installed files name no directory of the build" mentions_no_build

shared_libraries() {
    local library dynamic
    for library in qvutil qvio qvproc vka; do
        dynamic=$(readelf -W -d "$libdir/lib$library.so") || return
        grep "SONAME.*\[lib$library\.so\.[0-9]*\]" <<<"$dynamic" &&
            grep 'FLAGS.* NOW' <<<"$dynamic" &&
            readelf -W -l "$libdir/lib$library.so" | grep GNU_RELRO || return
    done
}
check "SONAME and read-only relocations" shared_libraries
check "symbols" "$tree/packaging/check-symbols.sh" "$libdir"

# DESTDIR takes everything, also below another prefix, and each file belongs to one component.
files_below() { (cd "$1" && find . -not -type d | sort); }
install_by_component() {
    local component
    DESTDIR=$work/dest-all cmake --install "$build_dir" --prefix /elsewhere || return
    for component in runtime development host; do
        DESTDIR=$work/dest-$component cmake --install "$build_dir" --prefix /elsewhere \
            --component $component || return
        files_below "$work/dest-$component" >>"$work/components"
    done
    files_below "$work/dest-all" | diff - <(sort "$work/components")
}
check "components, with DESTDIR" install_by_component

has() { # COMPONENT PATTERN...: a file for each
    local pattern
    for pattern in "${@:2}"; do
        files_below "$work/dest-$1" | grep -x -e "$pattern" || {
            echo "$1 has no file $pattern"
            return 1
        }
    done
}
check "component runtime" has runtime '.*/libvka\.so\.[0-9]*' '.*/libqvio\.so\.[0-9.]*'
check "component development" has development '.*/libvka\.so' '.*/libvka\.a' '.*/vka\.pc' \
    '.*/vkaConfig\.cmake' '.*/vkaConfigVersion\.cmake' '.*/include/libqvio/FdSet' \
    '.*/include/libvka/client/VKAClient'
check "component host" has host '.*/bin/vkahost' '.*/share/vka/Makefile' '.*/vkahost\.service'

service_names_the_program() {
    local unit program
    unit=$(find "$work/dest-host" -name vkahost.service) &&
        program=$(sed -n 's/^ExecStart=\([^ ]*\) .*/\1/p' "$unit") &&
        echo "ExecStart=$program" && [ -n "$program" ] && [ -x "$work/dest-host$program" ]
}
check "the service starts what is installed" service_names_the_program

# ---- find_package ----

for compiler in g++ clang++; do
    for standard in 11 20; do
        check "find_package, moved: $compiler, C++$standard" consumer find_package \
            "$blanks/$compiler-$standard" 2 -DCMAKE_PREFIX_PATH="$moved" \
            -DCMAKE_CXX_COMPILER=$compiler -DCMAKE_CXX_STANDARD=$standard -DCMAKE_BUILD_TYPE=Release
    done
done
moved_package=(-DCMAKE_PREFIX_PATH="$moved" -DCMAKE_BUILD_TYPE=Debug)
check "find_package: Debug" consumer find_package "$blanks/debug" 0 "${moved_package[@]}"
check "find_package: sanitizers" consumer find_package "$blanks/asan" 0 "${moved_package[@]}" \
    -O1 -fsanitize=address,undefined -fno-sanitize-recover=all
check "find_package: own fortification" consumer find_package "$blanks/fortified" 3 \
    "${moved_package[@]}" -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3

# Run by a project before it asks for the version there is.
cat >"$work/other.cmake" <<'END'
foreach(version 0.0.1 0.2 1.0)
  find_package(vka ${version} CONFIG QUIET)
  if(vka_FOUND OR NOT vka_CONSIDERED_VERSIONS)
    message(FATAL_ERROR "asked for ${version}, considered ${vka_CONSIDERED_VERSIONS}")
  endif()
endforeach()
END
check "find_package: no other minor version" cmake -S "$tree/tests/consumer" -B "$blanks/version" \
    "${moved_package[@]}" -DCMAKE_PROJECT_consumer_INCLUDE="$work/other.cmake"

# ---- pkg-config ----

# With another build: an absolute directory of libraries, not below the prefix.
absolute=$work/absolute
separate_directories() {
    cmake -S "$tree" -B "$absolute/build" -DCMAKE_BUILD_TYPE=Debug -DVKA_BUILD_HOST=OFF \
        -DCMAKE_INSTALL_PREFIX="$absolute/prefix" -DCMAKE_INSTALL_LIBDIR="$absolute/libraries" \
        -DVKA_DEVICE_ROOT="$absolute/device" &&
        cmake --build "$absolute/build" --parallel "$(nproc)" && cmake --install "$absolute/build"
}
check "install with an absolute directory of libraries" separate_directories
check "find_package there" consumer find_package "$absolute/consumer" 0 \
    -Dvka_DIR="$absolute/libraries/cmake/vka" -DCMAKE_BUILD_TYPE=Debug

# with_pkg_config LIBDIR MODULE FILE: compiled by one command, static and shared. What pkg-config
# prints is quoted for the shell.
with_pkg_config() {
    local program=$work/program compile="g++ -std=c++11 -O2 $flags -DEXPECTED_FORTIFICATION=2"
    (
        export PKG_CONFIG_PATH=$1/pkgconfig LD_LIBRARY_PATH=$1
        eval "$compile $(pkg-config --cflags "$2")" '"$3" -o "$program"' \
            "$(pkg-config --libs "$2")" &&
            readelf -d "$program" | grep "lib$2.so" && "$program" &&
            unset LD_LIBRARY_PATH &&
            eval "$compile $(pkg-config --cflags "$2")" '"$3" -o "$program"' \
                "-Wl,-Bstatic $(pkg-config --static --libs "$2") -Wl,-Bdynamic" &&
            ! readelf -d "$program" | grep 'libqv\|libvka' && "$program"
    )
}
staged=$(dirname "$(find "$work/dest-all" -name libvka.a)")
for dir in "$libdir" "$absolute/libraries" "$staged"; do
    check "pkg-config: vka in ${dir#"$work/"}" with_pkg_config "$dir" vka \
        "$tree/tests/consumer/main.cc"
done
echo '#include <libqvutil/QVException>
int main() { return *QVException("").what(); }' >"$work/qvutil.cc"
echo '#include <libqvio/sockaddr>
#include <libqvutil/QVException>
sockaddr_in addr;
int main() { try { setInetAddr("127.0.0.1", 1, addr); } catch (const QVException&) {} }' \
    >"$work/qvio.cc"
echo '#include <libqvproc/Proc>
int main() { return Proc::stat(1).empty(); }' >"$work/qvproc.cc"
for module in qvutil qvio qvproc; do
    check "pkg-config: $module alone" with_pkg_config "$libdir" $module "$work/$module.cc"
done

# ---- As a part of another project ----

# One with wishes of its own that must not get at the libraries, and no build type.
around=(-DVKA_TREE="$tree" -DCMAKE_CXX_STANDARD=20 -DCMAKE_CXX_VISIBILITY_PRESET=hidden
    -DCMAKE_VISIBILITY_INLINES_HIDDEN=ON -DCMAKE_UNITY_BUILD=ON)
settings() { # of a cache; what CMake keeps for itself is no setting
    grep -v -E '^(//|#|$)|:(INTERNAL|STATIC)=|^(VKA_[A-Z_]+|WAY):' "$work/around/CMakeCache.txt"
}
bystander() { grep 'command.*bystander\.dir' "$work/around/compile_commands.json"; }
without_vka() {
    cmake -S "$tree/tests/consumer" -B "$work/around" -DWAY=none "${around[@]}" \
        -DCMAKE_CXX_FLAGS="$flags -DEXPECTED_FORTIFICATION=0" -DCMAKE_EXPORT_COMPILE_COMMANDS=ON &&
        settings >"$work/settings" && bystander >"$work/bystander" && rm -rf "$work/around"
}
check "a project without vka" without_vka
check "add_subdirectory" consumer add_subdirectory "$work/around" 0 "${around[@]}"
unchanged() {
    settings | diff "$work/settings" - && bystander | diff "$work/bystander" - &&
        DESTDIR=$work/dest-around cmake --install "$work/around" && [ ! -e "$work/dest-around" ] &&
        [ ! -e "$work/around/vka/host" ]
}
check "add_subdirectory leaves settings, flags and install rules alone" unchanged

copy_tree() { # without .git and what was built
    mkdir "$blanks/tree" && cp -R "$tree"/{CMakeLists.txt,cmake,libq*,libvka} "$blanks/tree"
}
check "a tree with blanks in its path" copy_tree
check "FetchContent" consumer FetchContent "$blanks/fetched" 2 -DVKA_TREE="$blanks/tree" \
    -DCMAKE_CXX_STANDARD=11 -DCMAKE_BUILD_TYPE=MinSizeRel

# ---- Presets ----

presets=$(cd "$tree" && cmake --list-presets | sed -n 's/^ *"\([^"]*\)".*/\1/p') ||
    die "cannot list the presets"
[ "$(wc -w <<<"$presets")" -ge 5 ] || die "there are less presets than expected: $presets"
for preset in $presets; do
    check "preset $preset" cmake -S "$tree" --preset "$preset" -B "$work/presets/$preset"
done

rm -rf "$blanks" "$work"/{absolute,around,dest-*,components,presets,program}
say "consumers: $count checks passed"
