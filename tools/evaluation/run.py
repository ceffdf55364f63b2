"""Runs the methods on a generated sequence: the program in each of its modes,
in whole-folder mode as a user runs it, and the random walker of scikit-image
on exactly the seeds the program reads (the peers on the program's data term
are in peers.py).  Each run yields predicted label images (object numbers) and
its seconds per frame."""

from __future__ import annotations

import dataclasses
import os
import subprocess
import time
import warnings
from pathlib import Path

import numpy as np

from . import pnm, score

# The folder keys every mode's configuration gets; folders are relative to the
# sequence's folder, where the program runs.
FOLDER_LINES = ("s dataDir frames", "s tracksDir -", "s resultDir results")

WALKER_BETA = 500.0
# Seed image value of an unlabelled pixel (dump_seeds).
UNSEEDED = 255


@dataclasses.dataclass
class Mode:
    """A mode of the program: a name for the table, a result folder name, and
    the configuration lines without the folder keys."""
    name: str
    folder: str
    lines: list[str]


def definition_mode(name: str, folder: str, lam: float, maxiter: int) -> Mode:
    return Mode(name, folder, [f"f lambda {lam}", f"i maxiter {maxiter}"])


def mode_from_file(name: str, path: Path) -> Mode:
    """A mode whose configuration lines are those of a file."""
    lines = [l.strip() for l in Path(path).read_text().splitlines() if l.strip()]
    folder = "".join(c if (c.isascii() and c.isalnum()) or c in "-_." else "_" for c in name)
    return Mode(name, folder, lines)


def recommended_mode(repo: Path, maxiter: int | None = None) -> Mode:
    """The lines of configs/recommended.cfg; until that file exists, the
    definition's settings stand in for it (and the name says so)."""
    path = repo / "configs" / "recommended.cfg"
    if path.exists():
        lines = [l.strip() for l in path.read_text().splitlines() if l.strip()]
        name = "recommended"
    else:
        lines = ["f lambda 100", "i maxiter 500"]
        name = "recommended (placeholder)"
    if maxiter is not None:
        lines.append(f"i maxiter {maxiter}")  # the last line for a key wins
    return Mode(name, "recommended", lines)


def frame_by_frame_mode(repo: Path, maxiter: int | None = None) -> Mode:
    """The recommended settings with every frame segmented afresh, as if the
    video were a pile of photographs: what carrying each frame into the next
    is measured against."""
    recommended = recommended_mode(repo, maxiter)
    return Mode("recommended, frame by frame", "frame-by-frame", recommended.lines + ["i temporal 0"])


def default_modes(repo: Path, maxiter: int | None = None) -> list[Mode]:
    it = maxiter or 500
    return [
        definition_mode("definition", "definition", 100, it),
        definition_mode("definition-λ10", "definition-lambda10", 10, it),
        recommended_mode(repo, maxiter),
        frame_by_frame_mode(repo, maxiter),
    ]


@dataclasses.dataclass
class RunResult:
    predictions: list[np.ndarray]  # one label image per frame
    seconds_per_frame: float


class Tools:
    """The built programs: the segmentation tool, dump_seeds and dump_costs."""

    def __init__(self, build: Path):
        self.denseseg = build / "src" / "denseseg"
        self.dump_seeds = build / "tools" / "dump_seeds"
        self.dump_costs = build / "tools" / "dump_costs"
        for exe in (self.denseseg, self.dump_seeds, self.dump_costs):
            if not exe.exists():
                raise FileNotFoundError(f"{exe} is missing: build the targets denseseg, dump_seeds and dump_costs")
        out = subprocess.run([str(self.dump_seeds), "palette"], check=True, capture_output=True, text=True).stdout
        self.palette = np.array([[int(v) for v in line.split()] for line in out.splitlines()], dtype=np.int64)

    def seeds(self, folder: Path, frame: int, width: int, height: int) -> np.ndarray:
        """The seed image of a frame: label numbers, UNSEEDED elsewhere."""
        out = folder / "seeds" / f"seeds_{frame:03d}.pgm"
        out.parent.mkdir(exist_ok=True)
        subprocess.run([str(self.dump_seeds), "seeds", str(folder / "tracks.dat"), str(frame), str(width),
                        str(height), str(out)], check=True, capture_output=True)
        return pnm.read(out)


def frame_paths(folder: Path) -> list[Path]:
    return sorted((folder / "frames").glob("*.ppm"))


def run_program(tools: Tools, folder: Path, mode: Mode) -> RunResult:
    """Segments every frame of the sequence in one process and decodes the
    colour-coded results; the time is the process's wall time per frame."""
    frames = frame_paths(folder)
    config = folder / f"{mode.folder}.cfg"
    config.write_text("\n".join(mode.lines + list(FOLDER_LINES)) + "\n")
    results = folder / "results" / mode.folder
    if results.exists():  # the track export lists every dense result there
        for f in results.iterdir():
            f.unlink()
    env = dict(os.environ, OMP_WAIT_POLICY=os.environ.get("OMP_WAIT_POLICY", "passive"))
    start = time.perf_counter()
    proc = subprocess.run([str(tools.denseseg), config.name, frames[0].name, "tracks.dat", "-1", mode.folder],
                          cwd=folder, env=env, capture_output=True, text=True)
    seconds = time.perf_counter() - start
    (folder / f"{mode.folder}.log").write_text(proc.stdout + proc.stderr)
    if proc.returncode != 0:
        raise RuntimeError(f"{mode.name} on {folder.name}: exit status {proc.returncode}\n{proc.stderr[-2000:]}")
    predictions = []
    for frame in frames:
        dense = results / f"{frame.stem}_dense.ppm"
        if dense.exists():
            predictions.append(score.decode_colours(pnm.read(dense), tools.palette))
        else:  # a frame without seeds gets no result
            shape = pnm.read(frame).shape[:2]
            predictions.append(np.full(shape, -1, dtype=np.int32))
    return RunResult(predictions, seconds / len(frames))


@dataclasses.dataclass
class WalkerFrame:
    probabilities: np.ndarray | None  # L x H x W, None for a frame without seeds
    label_numbers: np.ndarray  # the track label number of each layer
    seconds: float  # of the random_walker call


# The walker's probabilities of each sequence folder, computed once per run
# for every method that starts from them.
_walker_frames: dict[Path, list[WalkerFrame]] = {}


def walker_frames(tools: Tools, folder: Path) -> list[WalkerFrame]:
    """scikit-image's random walker (beta 500, its default mode) per frame on
    the program's seeds, as the probabilities of every label."""
    from skimage.segmentation import random_walker

    if folder in _walker_frames:
        return _walker_frames[folder]
    frames = []
    for t, frame in enumerate(frame_paths(folder)):
        image = pnm.read(frame).astype(np.float64) / 255.0
        seeds = tools.seeds(folder, t, image.shape[1], image.shape[0]).astype(np.int32)
        numbers = np.unique(seeds[seeds != UNSEEDED])
        if numbers.size == 0:
            frames.append(WalkerFrame(None, numbers, 0.0))
            continue
        # The walker takes 0 as unlabelled and 1, 2, ... as labels.
        markers = np.where(seeds == UNSEEDED, 0, np.searchsorted(numbers, seeds) + 1)
        with warnings.catch_warnings():
            # Its note that probabilities leave [0, 1] by the solver's tolerance.
            warnings.simplefilter("ignore", UserWarning)
            start = time.perf_counter()
            probabilities = random_walker(image, markers, beta=WALKER_BETA, channel_axis=-1, return_full_prob=True)
            seconds = time.perf_counter() - start
        frames.append(WalkerFrame(np.clip(probabilities, 0.0, None), numbers, seconds))
    _walker_frames[folder] = frames
    return frames


def run_walker(tools: Tools, folder: Path, refine=None) -> RunResult:
    """The random walker per frame on the program's seeds, each pixel given its
    most probable label; or, with `refine(image, probabilities)` returning
    label indices, the walker's probabilities cleaned up by it.  The time is
    that of the random_walker calls (and of `refine`)."""
    predictions, seconds = [], 0.0
    for frame, w in zip(frame_paths(folder), walker_frames(tools, folder)):
        if w.probabilities is None:
            predictions.append(np.full(pnm.read(frame).shape[:2], -1, dtype=np.int32))
            continue
        seconds += w.seconds
        if refine is None:
            indices = np.argmax(w.probabilities, axis=0)
        else:
            start = time.perf_counter()
            indices = refine(pnm.read(frame), w.probabilities)
            seconds += time.perf_counter() - start
        predictions.append(w.label_numbers[indices].astype(np.int32))
    return RunResult(predictions, seconds / len(predictions))
