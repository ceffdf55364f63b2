#!/usr/bin/env bash
# Builds everything and runs every test, installing what a fresh machine lacks:
#   1. the release build, which also compiles and links the cuda backend when
#      the CUDA toolkit is present, and its tests (on the GPU if there is one,
#      otherwise on the host backend), and a tiny run of the evaluation
#      (tools/evaluate.sh --tiny: its scorer checks and three small sequences);
#   2. the Python package, installed with pip into a fresh virtual
#      environment (host backend only, to keep this step short), and its tests,
#      which compare it with the program of step 1;
#   3. the same tests once more on the host backend under AddressSanitizer and
#      UndefinedBehaviorSanitizer;
#   4. a short run of every file reader's fuzz target (VELA_FUZZ_SECONDS each,
#      default 60), which fails on any crash, leak or sanitizer report.
# Pass --quick to skip steps 3 and 4.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/deps.sh
vela_build_packages

cuda=AUTO
if [ "${CI:-}" = "true" ]; then
    # CI proves the cuda backend compiles: a missing toolkit is a failure there.
    command -v nvcc >/dev/null || { echo "CI needs the CUDA toolkit (nvcc) to compile the cuda backend" >&2; exit 1; }
    cuda=ON
fi

echo "== release build (VELA_CUDA=$cuda)"
cmake --preset default -DVELA_CUDA=$cuda >/dev/null
cmake --build --preset default -j "$(vela_jobs)"
ctest --preset default -j "$(vela_jobs)"

echo "== evaluation, tiny version (its scorer checks and three small sequences)"
DENSESEG_BUILD=build tools/evaluate.sh --tiny
# The evaluation's own tests, now that its Python environment exists.
cmake --preset default -DVELA_CUDA=$cuda >/dev/null
ctest --preset default -R evaluation

echo "== Python package in a fresh virtual environment (VELA_CUDA=OFF)"
vela_python_packages
venv=build-python/venv
rm -rf "$venv"
python3 -m venv "$venv"
CMAKE_BUILD_PARALLEL_LEVEL="$(vela_jobs)" "$venv/bin/python" -m pip install -q ".[test]" \
    --config-settings=cmake.define.VELA_CUDA=OFF
# Both the package and the program on the host backend, so that their labels
# can be compared bit for bit.
DENSESEG_PROGRAM="$PWD/build/src/denseseg" VELA_DEVICE=host OMP_WAIT_POLICY=passive \
    "$venv/bin/python" -m pytest -q tests/python

[ "${1:-}" = "--quick" ] && exit 0

echo "== host backend under AddressSanitizer and UndefinedBehaviorSanitizer"
cmake --preset sanitize >/dev/null
cmake --build --preset sanitize -j "$(vela_jobs)"
ctest --preset sanitize -j "$(vela_jobs)"

echo "== fuzz every file reader for ${VELA_FUZZ_SECONDS:-60} s"
tools/fuzz.sh "${VELA_FUZZ_SECONDS:-60}"
