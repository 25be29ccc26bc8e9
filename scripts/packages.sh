# SPDX-License-Identifier: GPL-2.0-or-later
# Sourced by the scripts beside it: installs what is missing of the packages named, on Debian and Ubuntu.

build_packages="g++ cmake ninja-build ntfs-3g ntfs-3g-dev libcli11-dev zlib1g-dev libxxhash-dev libzstd-dev libnbd-dev"
sanitizer_packages="clang libclang-rt-dev llvm libgtest-dev"
test_packages="$build_packages $sanitizer_packages g++-mingw-w64-x86-64 clang-format clang-tidy python3
    python3-jsonschema xz-utils dosfstools libhivex-bin sleuthkit wine wine64 mandoc qemu-utils nbdkit"
release_packages="$build_packages g++-mingw-w64-x86-64 git dpkg-dev lintian mandoc man-db python3 zip"
bench_packages="$build_packages libbenchmark-dev python3 libhivex-bin xz-utils"
fleet_packages="$build_packages ansible-core slurm-wlm slurm-client munge qemu-utils python3"

# is_installed PACKAGE: whether dpkg knows it as installed (libc6-dev counts by its own name alone).
is_installed() {
    [ "$(dpkg-query -W -f '${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

# need_packages PACKAGE...: all of them are installed when it returns; ends the script with a message when they can't be.
need_packages() {
    local missing="" package runner="" log
    if ! command -v dpkg-query >/dev/null || ! command -v apt-get >/dev/null; then
        echo "$0: this sets itself up on Debian and Ubuntu only; elsewhere install the counterparts of: $*" >&2
        exit 1
    fi
    for package in "$@"; do is_installed "$package" || missing="$missing $package"; done
    [ -n "$missing" ] || return 0
    if [ "$(id -u)" != 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "$0: missing packages, and neither root nor sudo to install them; as root run: apt-get install$missing" >&2
            exit 1
        fi
        runner=sudo
    fi
    echo "installing:$missing"
    log=$(mktemp)
    if ! { $runner env DEBIAN_FRONTEND=noninteractive apt-get update &&
        $runner env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends $missing; } >"$log" 2>&1 </dev/null; then
        tail -n 20 "$log" >&2
        echo "$0: the packages could not be installed (all output: $log); as root run: apt-get install$missing" >&2
        exit 1
    fi
    rm -f "$log"
}

# sources PATTERN...: the files of the project that match, by git, or in an unpacked source archive as they lie there.
sources() {
    if [ "$(git rev-parse --show-toplevel 2>/dev/null)" = "$PWD" ]; then
        git ls-files "$@"
    else
        local pattern
        for pattern in "$@"; do find . -path './build*' -prune -o -type f -path "./$pattern" -printf '%P\n'; done
    fi
}

# quietly COMMAND...: runs it without output; where it fails, shows what it said and ends the script.
quietly() {
    local log
    log=$(mktemp)
    if ! "$@" >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        echo "$0: failed: $*" >&2
        exit 1
    fi
    rm -f "$log"
}

# build PRESET: configures and builds one of the presets of CMakePresets.json.
build() {
    quietly cmake --preset "$1"
    quietly cmake --build --preset "$1"
}
