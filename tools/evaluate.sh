#!/usr/bin/env bash
# The evaluation, one command: builds the program (host preset) unless
# DENSESEG_BUILD names a build folder that has it, makes a Python environment
# with numpy, scikit-image and the peers' packages (gco-wrapper, pydensecrf2)
# in .venv-eval/, generates synthetic sequences with exact ground truth and
# labelled tracks (or clicks), segments them with the program in each mode,
# with scikit-image's random walker on the same seeds and with a graph cut and
# a dense CRF on the program's recommended data term (tools/dump_costs), and
# prints one table of scores and times (also written to eval-out/table.md).
#
#     tools/evaluate.sh            the full evaluation (about 7 minutes on 2 cores)
#     tools/evaluate.sh --tiny     the scorer's checks, then three small sequences,
#                                  2 frames, 50 iterations (seconds); needs only
#                                  numpy (the walker and the peers run when their
#                                  packages are there) and installs nothing when
#                                  the python3 found already has numpy
#     tools/evaluate.sh --sweep    the peers' parameter sweeps on the full set's
#                                  sequences instead of the table (eval-out/sweep.md)
#     tools/evaluate.sh --propagation [--tiny]
#                                  denseseg-propagate on 48-frame sequences from a
#                                  first-frame annotation and from clicks, against
#                                  warping the annotation along optical flow and
#                                  against denseseg on ideal tracks; J&F, times,
#                                  and peak memory over 50 and 200 frames
#                                  (eval-out-propagation/table.md, about 10 minutes
#                                  on 2 cores); --tiny: the measures' checks, then
#                                  two 12-frame sequences of 96x72 (seconds)
#     tools/evaluate.sh [--tiny] ARGS...   more options for the Python part, e.g.
#                                  --sequences thin,many  --methods recommended,walker
#                                  --mode NAME=FILE.cfg
#                                  (tools/evaluate.sh -- --help lists them)
#
# Environment: DENSESEG_BUILD (build folder), EVAL_PYTHON (a python3 to use
# instead of making .venv-eval/), OMP_WAIT_POLICY (default passive),
# OPENBLAS_NUM_THREADS (default 1).
set -euo pipefail
cd "$(dirname "$0")/.."

tiny=
propagation=
while :; do
    case "${1:-}" in
        --tiny) tiny=--tiny; shift ;;
        --propagation) propagation=1; shift ;;
        *) break ;;
    esac
done
[ "${1:-}" = -- ] && shift
started=$(date +%s)

# The program and dump_seeds.
if [ -n "${DENSESEG_BUILD:-}" ]; then
    build=$DENSESEG_BUILD
else
    . tools/deps.sh
    vela_build_packages
    echo "== build (host preset)"
    cmake --preset host >/dev/null
    targets="denseseg dump_seeds dump_costs"
    [ -n "$propagation" ] && targets="$targets denseseg-propagate"
    # shellcheck disable=SC2086
    cmake --build --preset host -j "$(vela_jobs)" --target $targets >/dev/null
    build=build-host
fi

# Python with numpy (and scikit-image for the full run).
python=${EVAL_PYTHON:-}
if [ -z "$python" ]; then
    if [ -n "$tiny" ] && [ -z "$propagation" ] && python3 -c "import numpy" 2>/dev/null; then
        python=python3
    else
        packages="numpy scikit-image" modules=numpy,skimage
        [ -n "$tiny" ] && packages=numpy modules=numpy
        # The flow-warp peer's optical flow, from the wheel of the OpenCV major
        # version the program links (4); Pillow, for the PNG files, comes with
        # scikit-image.
        [ -n "$propagation" ] && packages="numpy scikit-image opencv-python-headless<5" modules=numpy,skimage,cv2
        if [ ! -x .venv-eval/bin/python ]; then
            echo "== python environment in .venv-eval/"
            python3 -m venv .venv-eval
        fi
        # shellcheck disable=SC2086
        .venv-eval/bin/python -c "import $modules" 2>/dev/null || .venv-eval/bin/python -m pip install -q $packages
        if [ -z "$tiny" ] && [ -z "$propagation" ]; then
            # The peers build from source (about a minute); without them the
            # evaluation runs and says which peer it left out.
            .venv-eval/bin/python -c "import gco" 2>/dev/null ||
                .venv-eval/bin/python -m pip install -q gco-wrapper || echo "gco-wrapper did not install" >&2
            .venv-eval/bin/python -c "import pydensecrf.densecrf" 2>/dev/null ||
                .venv-eval/bin/python -m pip install -q pydensecrf2 || echo "pydensecrf2 did not install" >&2
            # The package of this checkout, for refine() on the walker's
            # probabilities (host backend; about a minute).
            echo "== the Python package into .venv-eval/"
            CMAKE_BUILD_PARALLEL_LEVEL="$(nproc)" .venv-eval/bin/python -m pip install -q . \
                --config-settings=cmake.define.VELA_CUDA=OFF || echo "the package did not install" >&2
        fi
        python=$PWD/.venv-eval/bin/python
    fi
fi

export OMP_WAIT_POLICY=${OMP_WAIT_POLICY:-passive}
# One BLAS thread for the Python methods: the random walker's conjugate
# gradients are vector operations too small to share, and with two OpenBLAS
# threads on a busy 2-core machine its calls took 10 to 15 times as long
# (0.9 s against 9 to 15 s on a 320x240 frame).  The program's OpenMP threads
# are not affected.
export OPENBLAS_NUM_THREADS=${OPENBLAS_NUM_THREADS:-1}
module=evaluation.evaluate
if [ -n "$propagation" ]; then
    module=evaluation.propagation
    out=eval-out-propagation
    if [ -n "$tiny" ]; then
        echo "== checks of the measures"
        DENSESEG_BUILD="$build" "$python" tools/evaluation/test_jf.py
        out=eval-out-propagation-tiny
    fi
elif [ -n "$tiny" ]; then
    echo "== scorer checks"
    "$python" tools/evaluation/test_score.py
    out=eval-out-tiny
else
    out=eval-out
fi
echo "== evaluation into $out/"
root=$PWD
(cd tools && "$python" -m "$module" --build "$root/$build" --out "$root/$out" $tiny "$@")
echo "the whole command took $(( $(date +%s) - started )) s"
