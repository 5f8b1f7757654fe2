# The Debian packages that the project needs, for the scripts at the root; sourced, not run.

packages_to_build="g++ cmake ninja-build pkg-config libplist-dev libcli11-dev libxml2-dev"
packages_to_test="libgtest-dev libgmock-dev libopenblas-dev liblcms2-dev python3"
packages_to_fuzz="clang libclang-rt-dev"
packages_to_measure="libbenchmark-dev libeigen3-dev libopenblas-dev libuv1-dev"
# Without them the tests of report, package and types are skipped.
packages_to_check="clang-format chromium dpkg-dev file mypy"
packages_to_fetch="npm" # or whatever else brings the program of that name

# Whether the package is there, whole.
is_installed() {
    dpkg-query -W -f '${Status}' "$1" 2>/dev/null | grep -q 'ok installed'
}

# Installs those of the named packages that are missing, as root or through sudo; else says which they are and stops.
require_packages() {
    missing=""
    for package in "$@"; do
        is_installed "$package" || missing="$missing $package"
    done
    [ -z "$missing" ] && return
    if [ "$(id -u)" = 0 ]; then
        as_root=""
    elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
        as_root="sudo"
    else
        echo "$0: please install these Debian packages:$missing" >&2
        exit 1
    fi
    echo "Installing$missing"
    export DEBIAN_FRONTEND=noninteractive
    $as_root apt-get -qq update
    # Word splitting makes the list.
    # shellcheck disable=SC2086
    $as_root apt-get -qq install -y --no-install-recommends $missing >/dev/null
}

# Installs the npm packages that tests use, beside these; without them one test of the report is skipped.
require_npm_packages() {
    command -v npm >/dev/null || require_packages $packages_to_fetch
    npm ci --prefix Tests/Tools --no-audit --no-fund --silent
}

# Configures and builds a preset: build_preset NAME [CMake option...]
build_preset() {
    preset="$1"
    shift
    if command -v ccache >/dev/null; then
        set -- "$@" -DCMAKE_CXX_COMPILER_LAUNCHER=ccache
    fi
    cmake --preset "$preset" "$@" >/dev/null
    cmake --build --preset "$preset"
}
