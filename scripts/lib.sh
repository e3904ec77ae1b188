# Shared helpers for scripts/run and scripts/test. Sourced, not executed.

QNV_ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
QNV_JOBS=${QNV_JOBS:-$(nproc 2>/dev/null || echo 2)}

# Packages every build needs.
QNV_BUILD_PACKAGES=(build-essential cmake pkg-config libgtest-dev libgmock-dev libtinyxml2-dev
                    libcli11-dev nlohmann-json3-dev libbenchmark-dev)

# Installs the Debian packages that are missing, without prompting.
ensure_packages() {
    local missing=()
    local p
    for p in "$@"; do
        if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'ok installed'; then
            missing+=("$p")
        fi
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    echo "== installing: ${missing[*]}"
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        sudo=(sudo)
    fi
    export DEBIAN_FRONTEND=noninteractive
    "${sudo[@]}" apt-get update -q >/dev/null
    "${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}" >/dev/null
}

# configure_build DIR [cmake args...]: configures (once) and builds DIR.
configure_build() {
    local dir=$1
    shift
    cmake -S "$QNV_ROOT" -B "$dir" "$@" >/dev/null
    cmake --build "$dir" -j "$QNV_JOBS"
}

# clang and its sanitizer runtimes, for the libFuzzer targets.
QNV_FUZZ_PACKAGES=(clang libclang-rt-14-dev)

# build_fuzzers: configures and builds the libFuzzer targets in build-fuzz.
build_fuzzers() {
    CC=clang CXX=clang++ configure_build "$QNV_ROOT/build-fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQNV_FUZZ=ON
}
