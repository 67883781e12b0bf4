#!/usr/bin/env bash
# Cross-builds the driver, unchanged, for 32-bit Windows into DIRECTORY/qvcdcacm.sys, twice, and checks the image.
set -euo pipefail
cd "$(dirname "$0")/.."
directory=${1:-build/windows}
cxx=i686-w64-mingw32-g++

die() {
    echo "windows/build.sh: $*" >&2
    exit 1
}
command -v $cxx >/dev/null || die "$cxx is missing: install g++-mingw-w64-i686-win32"

# The compiler knows where its platform headers are; the driver headers stand in ddk/ below one of those directories.
ddk=
while read -r include; do
    if [ -f "$include/ddk/wdm.h" ]; then ddk=$include/ddk; fi
done < <($cxx -E -x c++ -v /dev/null 2>&1 | sed -n '/^#include </,/^End of search/p')
[ -n "$ddk" ] || die "$cxx has no ddk/wdm.h on its include path: install mingw-w64-i686-dev"

compile=(
    -std=c++20 -O2 -Wall -Wextra -Wno-multichar -Werror
    -fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-use-cxa-atexit -fno-asynchronous-unwind-tables
    -fno-unwind-tables -fno-stack-protector -fno-ident
    -mno-stack-arg-probe -mgeneral-regs-only -mpreferred-stack-boundary=2
    -D_WIN32_WINNT=0x0600 -DNTDDI_VERSION=0x06000000
    -D__INTRINSIC_DEFINED_InterlockedBitTestAndSet -D__INTRINSIC_DEFINED_InterlockedBitTestAndReset
    -isystem "$ddk" -Iwindows -Icdcacm
)
link=(
    -nostdlib -Wl,--subsystem,native -Wl,--entry,_DriverEntry@8 -Wl,--image-base,0x10000
    -Wl,--dynamicbase -Wl,--nxcompat -Wl,--fatal-warnings -Wl,--no-insert-timestamp -Wl,-s
    -Wl,--major-os-version,5 -Wl,--minor-os-version,1
    -Wl,--major-subsystem-version,5 -Wl,--minor-subsystem-version,1
)

compgen -G 'cdcacm/*.cpp' >/dev/null || die "cdcacm/ holds no sources"

build_once() { # build_once DIRECTORY
    rm -rf "$1"
    mkdir -p "$1"
    printf '%s\0' cdcacm/*.cpp |
        OUT=$1 xargs -0 -P "$(nproc)" -I{} sh -c \
            'source=$1; shift; exec "$@" -c "$source" -o "$OUT/$(basename "$source" .cpp).o"' compile {} "$cxx" "${compile[@]}" ||
        die "the driver does not compile for Windows"
    $cxx "${link[@]}" -o "$1/qvcdcacm.sys" "$1"/*.o -lntoskrnl -lhal -lusbd -lgcc ||
        die "the driver does not link for Windows"
}

build_once "$directory/first"
build_once "$directory/second"
cmp "$directory/first/qvcdcacm.sys" "$directory/second/qvcdcacm.sys" || die "two builds of one source differ"
python3 windows/check_image.py "$directory/first/qvcdcacm.sys" "$directory"/first/*.o
cp "$directory/first/qvcdcacm.sys" windows/qvcdcacm.inf "$directory/"
echo "$directory/qvcdcacm.sys"
