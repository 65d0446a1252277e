# shellcheck shell=bash
# SPDX-License-Identifier: MIT
# shellcheck disable=SC2034 # what is set here is read by the scripts that source this file
# Shared by the scripts: packages, builds, and the tally of checks.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

jobs=$(nproc)
build_packages=(cmake ninja-build g++ pkg-config libmxml-dev)
bench_packages=(python3 libbenchmark-dev libglib2.0-dev libapr1-dev libaprutil1-dev libmimalloc2.0
                libspdlog-dev libuv1-dev libboost-dev libconcurrentqueue-dev)
# The libraries that scripts/sizes looks at.
size_peers=(libglib2.0-0 libapr1 libnspr4 libuv1)
# The compiler; the sanitizers' and the fuzzer's run time; what unpacks Mini-XML's source.
fuzz_packages=(clang libclang-rt-14-dev dpkg-dev)
if command -v ccache >/dev/null; then
    export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi

is_installed() {
    dpkg-query -W -f='${db:Status-Status}\n' "$1" 2>/dev/null | grep -x installed >/dev/null
}

# need_packages NAME...: installs what is missing; fails, with the line to run, when it may not.
# Without dpkg nothing is known about packages: the build itself then says what it misses.
need_packages() {
    local package missing=() as_root=()
    command -v dpkg-query >/dev/null || return 0
    for package; do
        is_installed "$package" || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    if [ "$(id -u)" != 0 ]; then
        if ! command -v sudo >/dev/null || { ! sudo -n true 2>/dev/null && [ ! -t 0 ]; }; then
            echo "Packages are missing. As root, run this and try again:" >&2
            echo "    apt-get install -y --no-install-recommends ${missing[*]}" >&2
            return 1
        fi
        as_root=(sudo)
    fi
    echo "Installing ${missing[*]}"
    local apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq
               -o DPkg::Lock::Timeout=120 -o Acquire::Retries=2)
    # Package lists may be absent or old, and a mirror may be between two updates: two more tries.
    local pause
    for pause in 0 15 -; do
        if "${apt[@]}" install -y --no-install-recommends "${missing[@]}" >/dev/null; then
            return 0
        fi
        [ "$pause" = - ] || { sleep "$pause"; "${apt[@]}" update || true; }
    done
    echo "Could not install: ${missing[*]}" >&2
    return 1
}

# build_preset NAME [CMAKE-ARGUMENT...]: configures and builds.
build_preset() {
    cmake --preset "$@" && cmake --build --preset "$1" -j "$jobs"
}

# quietly COMMAND...: shows the output only when the command fails.
quietly() {
    local log status=0
    log=$(mktemp)
    "$@" >"$log" 2>&1 || status=$?
    [ "$status" = 0 ] || cat "$log"
    rm -f "$log"
    return "$status"
}

# The tally.  A script that counts calls start_tally first; its last line is then always
# "N passed, N failed", however it ends.
start_tally() {
    passed=0 failed=0 skipped=0
    trap finish_tally EXIT
}

stage() {
    printf '\n== %s (%(%H:%M:%S)T)\n' "$1" -1
}

# not_run STAGE WHY: a stage that could not be done counts as skipped, never as passed.
not_run() {
    echo "not run: $1: $2"
    skipped=$((skipped + 1))
}

# check TITLE COMMAND...: runs and counts one check; "checked" tells its result.
check() {
    local title=$1
    shift
    if quietly "$@"; then
        passed=$((passed + 1)) checked=yes
        echo "ok: $title"
    else
        failed=$((failed + 1)) checked=no
        echo "FAILED: $title"
    fi
}

# count_junit FILE: adds the tests of a CTest run.
count_junit() {
    local suite tests bad off
    suite=$(tr -s '\n\t' ' ' <"$1" | grep -o '<testsuite [^>]*>')
    tests=$(attribute tests "$suite")
    bad=$(attribute failures "$suite")
    off=$(($(attribute skipped "$suite") + $(attribute disabled "$suite")))
    passed=$((passed + tests - bad - off)) failed=$((failed + bad)) skipped=$((skipped + off))
}

attribute() {
    sed -n "s/.* $1=\"\([0-9]*\)\".*/\1/p" <<<"$2"
}

finish_tally() {
    local status=$?
    trap - EXIT
    if [ "$failed" = 0 ] && { [ "$status" != 0 ] || [ "$passed" = 0 ]; }; then
        echo "FAILED: the run ended early or did nothing"
        failed=1
    fi
    echo
    if [ "$skipped" = 0 ]; then
        echo "$passed passed, $failed failed"
    else
        echo "$passed passed, $failed failed, $skipped skipped"
    fi
    [ "$failed" = 0 ] || exit 1
    exit 0
}
