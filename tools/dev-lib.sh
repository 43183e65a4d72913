# Functions of ./dev; sourced, run from the top of the tree.

say() { printf '\n== %s\n' "$*"; }

missing_packages() {
    for package in $(grep -v '^#' tools/packages.txt); do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

install_packages() {
    missing=$(missing_packages)
    [ -n "$missing" ] || return 0
    say "installing:" $missing
    as_root=
    [ "$(id -u)" = 0 ] || as_root=sudo
    $as_root apt-get update -qq
    # Servers that tests start by hand must not be started by their packages.
    policy_added=
    if [ ! -e /usr/sbin/policy-rc.d ] && [ ! -d /run/systemd/system ]; then
        printf '#!/bin/sh\nexit 101\n' | $as_root tee /usr/sbin/policy-rc.d >/dev/null
        $as_root chmod +x /usr/sbin/policy-rc.d
        policy_added=yes
    fi
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
    [ -z "$policy_added" ] || $as_root rm -f /usr/sbin/policy-rc.d
}

# One preset, all of it or the targets named after it.
build() {
    [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
    cmake --build "build/$1" -j "$(nproc)" ${2:+--target "$2"} -- --quiet
}

# Tests of one preset: every case a line in ctest, failures with their output.  A test that a busy machine kept from
# meeting its bound gets a second try; both are shown.
ctest_preset() {
    preset=$1
    shift
    ctest --test-dir "build/$preset" --output-on-failure --no-tests=error --repeat until-pass:2 \
        -j "$(nproc)" "$@"
}

stage_lint() {
    say "formatting"
    git ls-files '*.cpp' '*.h' | xargs clang-format-14 --dry-run --Werror
    say "static analysis"
    # The compilation database names g++; clang-tidy reads it as it stands.
    git ls-files 'src/*.cpp' 'platform/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy-14 --quiet -p build/release
}

stage_release() { say "g++ build and all tests"; build release; ctest_preset release; }

stage_asan() {
    say "clang build, address and undefined-behaviour sanitizers"
    build asan
    ctest_preset asan -LE 'no-asan|gate'
}

stage_tsan() {
    say "clang build, thread sanitizer"
    build tsan
    ctest_preset tsan -LE 'no-asan|no-tsan|gate'
}

stage_fuzz() {
    say "fuzz targets, ${1:-18} s each"
    build fuzz fuzz_targets
    tools/fuzz "${1:-18}"
}

# The whole table, or what korvid-bench's own options choose of its first part.
run_bench() {
    [ $# -eq 0 ] || { tools/sandbox -- build/release/bench/korvid-bench "$@"; return; }
    status=0
    tools/sandbox -- build/release/bench/korvid-bench || status=1
    tools/sandbox -- bench/process.py || status=1
    return $status
}

run_stages() {
    [ $# -gt 0 ] || set -- release lint asan tsan fuzz
    for stage in "$@"; do
        case $stage in
            lint) build release && stage_lint ;;
            release | asan | tsan | fuzz) "stage_$stage" ;;
            *) echo "unknown stage: $stage" >&2; return 2 ;;
        esac
    done
    say "all stages passed: $*"
}
