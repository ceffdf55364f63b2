"""Peer methods on exactly the program's recommended data term: the cost map
that dump_costs writes for a frame (configs/recommended.cfg, before the
solver's weight lambda), minimised with another energy.

    graph cuts   alpha-expansion (PyPI gco-wrapper) with Potts pairwise terms on
                 the 8-neighbour grid, each edge weighted by its colour contrast
    dense CRF    mean-field inference in a fully connected CRF (PyPI
                 pydensecrf2) with a Gaussian and a bilateral pairwise term

Each peer's time per frame is the data term's seconds (as dump_costs measures
prepareFrame) plus the seconds of its own call.  The packages are
imported only when a peer runs; have_peer() says whether one can.
"""

from __future__ import annotations

import dataclasses
import importlib
import subprocess
import time
from pathlib import Path

import numpy as np

from . import run

GRAPH_CUT = "graph cuts"
DENSE_CRF = "dense CRF"
# Result folder names (the names --methods takes) and the modules each needs.
FOLDERS = {GRAPH_CUT: "graphcut", DENSE_CRF: "densecrf"}
MODULES = {GRAPH_CUT: "gco", DENSE_CRF: "pydensecrf.densecrf"}

# The weight of the graph cut's pairwise terms against the cost map (whose
# values lie in about 0..3): the best mean mIoU over all classes of the sweep
# GRAPH_CUT_SWEEP on the full evaluation's sequences but the long one
# (tools/evaluate.sh --sweep), run again on 23 November 2026 when the
# recommended data term gained its colour term: mean mIoU 0.887, 0.894, 0.906,
# 0.912, 0.902, 0.850 for 0.03 to 10, 1 the highest.  (On the earlier data term,
# seeds and walker only, 0.3 had been best, with a plateau from 0.03 to 1.)
GRAPH_CUT_WEIGHT = 1.0
# Costs become int32 for the graph cut: multiplied by this and rounded.
GRAPH_CUT_SCALE = 1000


@dataclasses.dataclass(frozen=True)
class CrfParameters:
    unary_weight: float  # the cost map times this is the unary energy (-ln p)
    bilateral_sxy: float  # px
    bilateral_srgb: float  # colour units of the 0..255 image
    bilateral_compat: float
    iterations: int
    gaussian_sxy: float = 3.0
    gaussian_compat: float = 3.0


# The dense CRF's parameters: the best mean mIoU over all classes of the sweep
# CRF_SWEEP (32 settings) on the same sequences, run with the graph cut's:
# 0.927 (0.925 with compat 10, 0.923 with srgb 20; unary weight 1 reaches 0.85
# at best, 3 reaches 0.917, 30 reaches 0.916).
CRF_PARAMETERS = CrfParameters(unary_weight=10.0, bilateral_sxy=40.0, bilateral_srgb=10.0, bilateral_compat=5.0,
                               iterations=5)

GRAPH_CUT_SWEEP = (0.03, 0.1, 0.3, 1.0, 3.0, 10.0)
CRF_SWEEP = tuple(CrfParameters(u, sxy, srgb, compat, 5) for u in (1.0, 3.0, 10.0, 30.0)
                  for sxy in (40.0, 80.0) for srgb in (10.0, 20.0) for compat in (5.0, 10.0))


def have_peer(name: str) -> bool:
    try:
        importlib.import_module(MODULES[name])
    except ImportError:
        return False
    return True


# --- the data term ----------------------------------------------------------------

@dataclasses.dataclass
class FrameCosts:
    costs: np.ndarray  # L x H x W float32; L = 0 for a frame without seeds
    label_ids: list[int]  # track label number of each layer
    seconds: float  # of the data term


def dump_costs(tools: run.Tools, config: Path, tracks: Path, frame: int, image: Path, out: Path) -> FrameCosts:
    """Runs dump_costs on one frame and reads what it wrote and printed."""
    proc = subprocess.run([str(tools.dump_costs), str(config), str(tracks), str(frame), str(image), str(out)],
                          check=True, capture_output=True, text=True)
    lines = dict(line.partition(" ")[::2] for line in proc.stdout.splitlines() if line.strip())
    return FrameCosts(np.load(out), [int(v) for v in lines["labels"].split()], float(lines["seconds"]))


def data_terms(tools: run.Tools, folder: Path, mode: run.Mode) -> list[FrameCosts]:
    """The cost map of every frame of a sequence with a mode's settings, kept
    under folder/costs/."""
    (folder / "costs").mkdir(exist_ok=True)
    config = folder / "costs" / "data_term.cfg"
    config.write_text("\n".join(mode.lines) + "\n")
    return [dump_costs(tools, config, folder / "tracks.dat", t, frame, folder / "costs" / f"costs_{t:03d}.npy")
            for t, frame in enumerate(run.frame_paths(folder))]


# --- graph cuts ---------------------------------------------------------------------

def graph_cut_edge_weights(image: np.ndarray, weight: float) -> tuple[np.ndarray, ...]:
    """Weights of the 8-neighbour grid's edges: weight * exp(-b |I_p - I_q|^2),
    b = 1 / (2 * mean |I_p - I_q|^2) over every edge of the frame (b = 0 for a
    flat frame), diagonal edges divided by sqrt(2).  Returns (vertical,
    horizontal, down-right, down-left) as gco orders them: (y, x)-(y+1, x),
    (y, x)-(y, x+1), (y, x)-(y+1, x+1) and (y, x+1)-(y+1, x)."""
    im = image.astype(np.float64)
    diffs = [np.sum((a - b) ** 2, axis=-1) for a, b in (
        (im[:-1, :], im[1:, :]), (im[:, :-1], im[:, 1:]), (im[:-1, :-1], im[1:, 1:]), (im[:-1, 1:], im[1:, :-1]))]
    total = sum(float(d.sum()) for d in diffs)
    count = sum(d.size for d in diffs)
    b = count / (2 * total) if total > 0 else 0.0
    scale = (1.0, 1.0, 1 / np.sqrt(2), 1 / np.sqrt(2))
    return tuple(weight * s * np.exp(-b * d) for d, s in zip(diffs, scale))


def graph_cut(costs: np.ndarray, image: np.ndarray, weight: float = GRAPH_CUT_WEIGHT) -> np.ndarray:
    """Label indices (H x W) of alpha-expansion to convergence on the cost map
    (L x H x W) with Potts terms weighted by graph_cut_edge_weights."""
    import gco

    n = costs.shape[0]
    if n == 1:
        return np.zeros(costs.shape[1:], dtype=np.int32)
    unary = np.ascontiguousarray(np.rint(GRAPH_CUT_SCALE * costs.transpose(1, 2, 0)), dtype=np.int32)
    potts = np.ascontiguousarray(1 - np.eye(n), dtype=np.int32)
    edges = [np.ascontiguousarray(np.rint(GRAPH_CUT_SCALE * e), dtype=np.int32)
             for e in graph_cut_edge_weights(image, weight)]
    return gco.cut_grid_graph(unary, potts, *edges, n_iter=-1, algorithm="expansion").reshape(costs.shape[1:])


# --- dense CRF ----------------------------------------------------------------------

def dense_crf(costs: np.ndarray, image: np.ndarray, params: CrfParameters = CRF_PARAMETERS) -> np.ndarray:
    """Label indices (H x W) of mean-field inference with the cost map times
    params.unary_weight as unary energy."""
    import pydensecrf.densecrf as dcrf

    n, h, w = costs.shape
    crf = dcrf.DenseCRF2D(w, h, n)
    crf.setUnaryEnergy(np.ascontiguousarray((params.unary_weight * costs).reshape(n, -1), dtype=np.float32))
    crf.addPairwiseGaussian(sxy=params.gaussian_sxy, compat=params.gaussian_compat)
    crf.addPairwiseBilateral(sxy=params.bilateral_sxy, srgb=params.bilateral_srgb,
                             rgbim=np.array(image, dtype=np.uint8, order="C"), compat=params.bilateral_compat)
    q = np.asarray(crf.inference(params.iterations))
    return np.argmax(q.reshape(n, h, w), axis=0).astype(np.int32)


def graph_cut_probabilities(image: np.ndarray, probabilities: np.ndarray) -> np.ndarray:
    """The graph cut on per-label probabilities, each costing -ln(p + 0.001) /
    -ln(0.001) as the package's refine() costs them."""
    costs = np.log(probabilities + 0.001) / np.log(0.001)
    return graph_cut(costs.astype(np.float32), image)


# --- running a peer on a sequence -----------------------------------------------------

def run_peer(folder: Path, frame_costs: list[FrameCosts], method) -> run.RunResult:
    """`method(costs, image)` on every frame; its label indices become track
    label numbers.  A frame without seeds predicts -1 everywhere."""
    predictions, seconds = [], 0.0
    for frame, fc in zip(run.frame_paths(folder), frame_costs):
        image = run.pnm.read(frame)
        if not fc.label_ids:
            predictions.append(np.full(image.shape[:2], -1, dtype=np.int32))
            continue
        start = time.perf_counter()
        indices = method(fc.costs, image)
        seconds += time.perf_counter() - start + fc.seconds
        predictions.append(np.asarray(fc.label_ids, dtype=np.int32)[indices])
    return run.RunResult(predictions, seconds / len(predictions))


def peer_method(name: str):
    """The per-frame function of a peer with its fixed parameters."""
    return {GRAPH_CUT: graph_cut, DENSE_CRF: dense_crf}[name]
