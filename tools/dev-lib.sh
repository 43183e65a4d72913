# Functions of ./dev; sourced, run from the top of the tree.

say() { printf '\n== %s\n' "$*"; }

# The packages of some sections of tools/packages.txt; of all without a name.
packages_of() {
    sed 's/ *#.*//' tools/packages.txt | awk -v wanted=" $* " '
        /^\[/ { inside = wanted == "  " || index(wanted, " " substr($0, 2, length($0) - 2) " "); next }
        NF && inside'
}

missing_packages() {
    for package in $(packages_of "$@"); do
        dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null | grep -qx installed || echo "$package"
    done
}

# step TEXT LOG COUNT COMMAND...: one line that ends in the seconds that the command took.  What the command writes goes
# to the log; COUNT, a function of the log, tells how far it has come, for those who watch.
step() {
    text=$1 log=$2 count=$3
    shift 3
    mkdir -p "$(dirname "$log")"
    : >"$log"
    begin=$(date +%s)
    printf '%s ... ' "$text"
    # Watches from behind, so that an interrupt reaches the command itself.
    if [ -t 1 ]; then
        while sleep 1 && kill -0 $$ 2>/dev/null; do
            printf '\r%s ... %s \033[K' "$text" "$("$count" "$log")"
        done &
        watcher=$!
    fi
    status=0
    "$@" </dev/null >"$log" 2>&1 || status=$?
    if [ -t 1 ]; then
        kill "$watcher" 2>/dev/null || :
        wait "$watcher" 2>/dev/null || :
        printf '\r%s ... \033[K' "$text"
    fi
    if [ "$status" -ne 0 ]; then
        echo "FAILED; the end of $PWD/$log:"
        tail -n 12 "$log"
        return "$status"
    fi
    echo "$(($(date +%s) - begin)) s"
}

apt_install() {
    # A foreign source that cannot be reached need not matter: whether a package is missing shows next.
    $as_root apt-get update -q || :
    # Servers that tests start by hand must not be started by their packages.
    policy_added=
    if [ ! -e /usr/sbin/policy-rc.d ] && [ ! -d /run/systemd/system ]; then
        printf '#!/bin/sh\nexit 101\n' | $as_root tee /usr/sbin/policy-rc.d >/dev/null
        $as_root chmod +x /usr/sbin/policy-rc.d
        policy_added=yes
    fi
    installed=0
    $as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -q -o Dpkg::Use-Pty=0 --no-install-recommends \
        "$@" || installed=$?
    [ -z "$policy_added" ] || $as_root rm -f /usr/sbin/policy-rc.d
    return "$installed"
}

apt_count() {
    awk '/ newly installed, / { all = $3 } /^Get:/ && all { got++ } /^Unpacking / { unpacked++ } /^Setting up / { ready++ }
         END { if (all) print ready ? "ready: " ready : unpacked ? "unpacked: " unpacked : "fetched: " got + 0, "of", all }' "$1"
}

# Installs what is missing of some sections, of all without a name.
install_packages() {
    missing=$(missing_packages "$@")
    [ -n "$missing" ] || return 0
    as_root=
    if [ "$(id -u)" != 0 ]; then
        as_root=sudo
        command -v sudo >/dev/null || { echo "as root, please, or with sudo: apt-get install" $missing >&2; return 1; }
        sudo -v  # a password is asked for here, not behind the progress
    fi
    echo "packages:" $missing
    # shellcheck disable=SC2086  # one name a word
    step "installing them and what they need" build/install.log apt_count apt_install $missing
}

# One preset, all of it or the targets named after it.
build() {
    [ -f "build/$1/build.ninja" ] || cmake --preset "$1" >/dev/null
    cmake --build "build/$1" -j "$(nproc)" ${2:+--target "$2"} -- --quiet
}

build_log() {
    { [ -f "build/$1/build.ninja" ] || cmake --preset "$1"; } && cmake --build "build/$1" -j "$(nproc)" --target "$2"
}

build_count() { sed -n '$s|^\[\([0-9]*\)/\([0-9]*\)\].*|\1 of \2|p' "$1"; }

# What a demo runs ($1, a target), in the folder that demo_build names: a release build that is there already, else one of its own
# with nothing else in it.
build_demo() {
    demo_build=build/demo
    [ ! -f build/release/build.ninja ] || demo_build=build/release
    step "building the daemon and its stand-ins" build/build.log build_count build_log "${demo_build#build/}" "$1"
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
    say "includes"
    tools/check-includes
    say "table of faults"
    tests/faults/run --list >/dev/null
    say "static analysis"
    # The compilation database names g++; clang-tidy reads it as it stands.
    git ls-files 'src/*.cpp' 'platform/*.cpp' 'fleet/*.cpp' | xargs -P "$(nproc)" -n 1 clang-tidy-14 --quiet -p build/release
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

# Debian packages, in build/package.
make_packages() {
    say "Debian packages"
    cmake --preset package >/dev/null
    cmake --build build/package -j "$(nproc)" --target package_files -- --quiet
    rm -f build/package/*.deb
    (cd build/package && cpack >cpack.log 2>&1) || { cat build/package/cpack.log; return 1; }
    lintian --tag-display-limit 0 --fail-on error,warning --allow-root build/package/*.deb
    ls -l build/package/*.deb
}

# The router laboratory on Debian's kernel, all of it or the tests named, as unittest names them.  Its network is not the
# machine's first one, which it is given for what the kernel lets only that one set.
run_vm() {
    mkdir -p build/vm
    {
        ended=0
        # shellcheck disable=SC2016 # expanded inside
        tools/vm --timeout 3600 -- \
            sh -ec 'uname -sr; : >"$0"; mount --bind /proc/self/ns/net "$0"; exec "$@"' /run/machine-network \
            env -C "$PWD/tests/router" "$PWD/tools/sandbox" --ro-bind /run/machine-network /run/machine-network -- \
            env "KORVID_BUILD=$PWD/build/release" KORVID_PATIENCE=120 /usr/bin/python3 -m unittest -v "$@" || ended=$?
        echo "$ended" >build/vm/ended
    } 2>&1 | tee build/vm/laboratory.log
    awk 'NR == 1 { print "\n== " $0 }
        { line = $0 }
        /^test_/ { gsub(/[()]/, "", $2); name = $2 }
        name && line ~ / \.\.\. / {
            outcome = substr(line, index(line, " ... ") + 5)
            printf "%-9s%s%s\n", outcome ~ /^skipped/ ? "skipped" : outcome ? outcome : "FAILED", name, substr(outcome, 8)
            name = ""
        }' build/vm/laboratory.log
    return "$(cat build/vm/ended)"
}

# The whole table, or what korvid-bench's own options choose of its first part.
run_bench() {
    if [ "${1-}" = fleet ]; then
        shift
        mkdir -p build/fleet-bench
        tools/sandbox --bind build/fleet-bench /data -- bench/fleet/run.py "$@"
        return
    fi
    [ $# -eq 0 ] || { tools/sandbox -- build/release/bench/korvid-bench "$@"; return; }
    status=0
    tools/sandbox -- build/release/bench/korvid-bench || status=1
    tools/sandbox -- bench/process.py || status=1
    tools/sandbox -- bench/router_cost.py || status=1
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
