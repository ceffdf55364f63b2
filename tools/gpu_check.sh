#!/usr/bin/env bash
# The checks that need a GPU, each writing its log into OUT (default gpu-out/):
#
#   tools/gpu_check.sh [OUT] [STEP...]
#
#   build     a CUDA build (GPU_CHECK_BUILD) for the architecture of the GPU at hand
#   tests     the test suite with VELA_DEVICE=cuda
#   bench     solver_bench on the GPU: time per pixel, label and iteration
#   frames    whole-frame times of a 640 x 480 frame with 6 labels, from image
#             in to files out (the median over a 20-frame sequence): model 1 at
#             500 iterations, the recommended mode, and that frame by frame
#             (temporal 0)
#   backends  the evaluation's sequences and the demo on both backends, the
#             differing pixels per frame (tools/evaluation/backends.py)
#   propagation  the propagation evaluation (tools/evaluation/propagation.py)
#             with denseseg-propagate on the GPU; its table goes to OUT too
#   python    the Python package built with the cuda backend, and its tests
#
# The generated sequences, the package and its build go to GPU_CHECK_DATA
# (default OUT).
# GPU_CHECK_BUILD names the build folder (default build/); one built elsewhere
# for this GPU can be used without the build step.
# Without steps: all of them. Every step runs even when one before failed; the
# exit status is 1 when any did.
set -uo pipefail
cd "$(dirname "$0")/.."
out=$(realpath -m "${1:-gpu-out}")
shift || true
steps=${*:-build tests bench frames backends propagation python}
data_root=$(realpath -m "${GPU_CHECK_DATA:-$out}")
build_dir=$(realpath -m "${GPU_CHECK_BUILD:-build}")
mkdir -p "$out" "$data_root"
python=${PYTHON:-python3}
status=0

step() {  # step NAME COMMAND...: runs the command with its output in OUT/NAME.log
    local name=$1
    shift
    local start=$SECONDS
    if "$@" >"$out/$name.log" 2>&1; then
        echo "$name: ok ($((SECONDS - start)) s)"
    else
        echo "$name: FAILED ($((SECONDS - start)) s), see $name.log"
        tail -n 30 "$out/$name.log"
        status=1
    fi
}

build() {
    nvidia-smi
    local arch
    arch=$(nvidia-smi --query-gpu=compute_cap --format=csv,noheader | head -n 1 | tr -d .)
    cmake -S . -B "$build_dir" -DCMAKE_BUILD_TYPE=Release -DVELA_CUDA=ON "-DCMAKE_CUDA_ARCHITECTURES=$arch" &&
        cmake --build "$build_dir" -j "$(nproc)"
}

tests() { VELA_DEVICE=cuda ctest --test-dir "$build_dir" -j 4 --output-on-failure; }

bench() { VELA_DEVICE=cuda "$build_dir/bench/solver/solver_bench" --benchmark_min_time=0.5; }

# Milliseconds per frame of a 640 x 480 sequence of 20 frames with 6 labels in
# whole-folder mode, from image in to pictures out (tools/evaluation/frame_times.py).
frames() {
    local data=$data_root/frames-data
    rm -rf "$data"
    "$python" tools/evaluation/backends.py --build "$build_dir" --sequences long --out "$data" --only-data || return 1
    printf 'f lambda 100\ni maxiter 500\ni model 1\n' >"$data/model1.cfg"
    cp configs/recommended.cfg "$data/recommended.cfg"
    { cat configs/recommended.cfg; echo "i temporal 0"; } >"$data/frame-by-frame.cfg"
    for mode in model1 recommended frame-by-frame; do
        VELA_DEVICE=cuda "$python" tools/evaluation/frame_times.py "$data/data/long" "$data/$mode.cfg" "$build_dir/src/denseseg" ||
            return 1
    done
}

backends() { "$python" tools/evaluation/backends.py --build "$build_dir" --out "$data_root/backends-data"; }

propagation() {
    (cd tools && VELA_DEVICE=cuda "$python" -m evaluation.propagation --build "$build_dir" \
        --out "$data_root/propagation-data") &&
        cp "$data_root/propagation-data/table.md" "$out/propagation-table.md"
}

# The extension is compiled, C++ and CUDA host code alike, by the compiler whose
# libstdc++ the Python process loads (PYTHON_CXX, default the system's g++): one
# built against a newer libstdc++'s headers (a compiler of its own under /opt,
# say, which CXX and CUDAHOSTCXX may name) crashed at import.
python_package() {
    local arch target=$data_root/python-site build=$data_root/python-build cxx=${PYTHON_CXX:-/usr/bin/g++}
    arch=$(nvidia-smi --query-gpu=compute_cap --format=csv,noheader | head -n 1 | tr -d .)
    rm -rf "$target" "$build"
    CXX=$cxx CUDAHOSTCXX=$cxx CMAKE_BUILD_PARALLEL_LEVEL=$(nproc) "$python" -m pip install -q --no-build-isolation \
        --no-deps --target "$target" . "--config-settings=build-dir=$build" --config-settings=cmake.define.VELA_CUDA=ON \
        "--config-settings=cmake.define.CMAKE_CUDA_ARCHITECTURES=$arch" || return 1
    PYTHONPATH=$target VELA_DEVICE=cuda "$python" -c 'import denseseg; print("backend:", denseseg.backend())' &&
        PYTHONPATH=$target DENSESEG_PROGRAM=$build_dir/src/denseseg VELA_DEVICE=cuda "$python" -m pytest -q tests/python
}

for s in $steps; do
    case $s in
    build | tests | bench | frames | backends | propagation) step "$s" "$s" ;;
    python) step python python_package ;;
    *) echo "unknown step $s" >&2 && exit 2 ;;
    esac
done
exit $status
