# Sourced by the build scripts: installs the Debian packages a fresh machine
# lacks (as root, with apt-get) and puts the CUDA toolkit on PATH when present.

vela_missing_packages() {
    local p
    for p in "$@"; do
        dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "ok installed" || printf '%s ' "$p"
    done
}

vela_ensure_packages() {
    local missing
    missing=$(vela_missing_packages "$@")
    [ -z "$missing" ] && return 0
    if [ "$(id -u)" != 0 ]; then
        echo "missing packages: $missing (install them with apt-get as root)" >&2
        return 1
    fi
    echo "installing: $missing"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    # shellcheck disable=SC2086
    apt-get install -y -qq --no-install-recommends $missing >/dev/null
}

vela_build_packages() {
    vela_ensure_packages cmake make g++ libgtest-dev libbenchmark-dev libpng-dev libturbojpeg0-dev libopencv-video-dev parallel
}

# Python 3 with venv and the headers for building the package's extension;
# the Debian packages only when the python3 on PATH lacks them.
vela_python_packages() {
    python3 -c 'import ensurepip, os, sysconfig
assert os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h"))' 2>/dev/null && return 0
    vela_ensure_packages python3 python3-venv python3-dev
}

if ! command -v nvcc >/dev/null 2>&1 && [ -x /usr/local/cuda/bin/nvcc ]; then
    export PATH="$PATH:/usr/local/cuda/bin"
fi

vela_jobs() { nproc 2>/dev/null || echo 2; }
