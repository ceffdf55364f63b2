"""The evaluation of denseseg-propagate: a first-frame annotation (or three
clicks per object) carried through a whole video.

    python3 -m evaluation.propagation --build <build folder> [--tiny] [--out DIR]
                                      [--sequences thin,fast,long] [--frames N]

(run from tools/; tools/evaluate.sh --propagation does all of it).  It writes
sequences of 48 frames that each stress one thing (thin structures, low
contrast, a fast object, two objects crossing, an object entering that the
annotation does not name), runs on each

    propagate            denseseg-propagate from annotations/frame_000.png,
    propagate (clicks)   denseseg-propagate from clicks.txt,
    flow warp            the frame-0 annotation warped along the same kind of
                         optical flow, frame by frame (needs cv2),
    ideal tracks         denseseg with the recommended settings on tracks that
                         follow the objects exactly (the ceiling),

scores them with J and F (jf.py), measures the peak memory of
denseseg-propagate on 50 and on 200 frames of a long sequence, and prints a
table with the targets checked (also written to OUT/table.md).
"""

from __future__ import annotations

import argparse
import dataclasses
import math
import os
import re
import shutil
import subprocess
import sys
import time
from pathlib import Path

import numpy as np

from . import evaluate, frame_times, generate, jf, pnm, run, score

REPO = Path(__file__).resolve().parents[2]
RECOMMENDED = REPO / "configs" / "recommended.cfg"

FRAMES = 48
LONG_FRAMES = 200
LONG_PREFIX = 50  # the memory is also measured on this many first frames of the long sequence
CLICKS_PER_OBJECT = 3

# The targets the table checks.
TARGET_ANNOTATION = 0.92  # mean J&F from the first-frame annotation
TARGET_CLICKS = 0.85  # mean J&F from clicks
TARGET_EVERY_SEQUENCE = 0.85  # J&F from the annotation on each sequence
TARGET_CEILING_GAP = 0.06  # at most this far below the ideal tracks on each sequence
TARGET_TIME_RATIO = 1.5  # time per frame against the ideal tracks' run
TARGET_MEMORY_GROWTH = 0.10  # peak memory over all frames against over the first LONG_PREFIX

PROPAGATE = "propagate"
CLICKS = "propagate (clicks)"
FLOW_WARP = "flow warp"
CEILING = "ideal tracks"
METHODS = (PROPAGATE, CLICKS, FLOW_WARP, CEILING)

PROGRESS = re.compile(r"frame (\d+)/(\d+) (\S+): (\d+) labels, (\d+) tracks, "
                      r"tracking ([0-9.]+) ms, segmentation ([0-9.]+) ms")


# --- scenes --------------------------------------------------------------------

def bounce(start: int, step: int, low: int, high: int, t: int) -> int:
    """Position after t steps of `step` from `start`, reflected at `low` and
    `high` (a triangle wave; integers in, integers out)."""
    span = high - low
    if span <= 0:
        return start
    u = (start - low + step * t) % (2 * span)
    return low + (u if u <= span else 2 * span - u)


@dataclasses.dataclass
class BouncingObject(generate.SceneObject):
    """An object whose centre bounces between `low` and `high` (x, y): a fast
    object stays in view for the whole sequence."""
    low: tuple[int, int] = (0, 0)
    high: tuple[int, int] = (0, 0)

    def offset(self, t: int) -> tuple[int, int]:
        x0, y0 = int(self.start[0]), int(self.start[1])
        return (bounce(x0, self.velocity[0], self.low[0], self.high[0], t) - x0,
                bounce(y0, self.velocity[1], self.low[1], self.high[1], t) - y0)


def _scaled(v: float, w: int) -> int:
    """A speed given for a 320-pixel-wide frame, for a frame `w` wide."""
    return int(math.copysign(max(1, round(abs(v) * w / 320)), v)) if v else 0


def textured(tex: generate.Textures, rng, w, h, photo: str) -> np.ndarray:
    """An object's texture: a tinted crop of a named photograph, so that every
    object has texture that flow can follow (a random photograph may be nearly
    flat and dark where it is cropped)."""
    return tex.photo(rng, h, w, name=photo if tex.photos else None, tint=generate.random_tint(rng, 0.5))


def thin_scene(tex: generate.Textures, rng, w, h):
    """Bars, a wire, a ring and a fence 2-4 px wide, moving 1-2 px a frame over
    strongly textured gravel."""
    background = tex.photo(rng, h, w, name="gravel" if tex.photos else None, tint=generate.random_tint(rng, 0.3))
    background = np.clip(128 + 1.6 * (background - background.mean()), 0, 255)
    side = min(w, h)
    plan = [("bar", (0.35, 0.35), (1, 1)), ("wire", (0.55, 0.6), (-1, 0)), ("ring", (0.72, 0.4), (0, 1)),
             ("fence", (0.3, 0.7), (2, -1)), ("bar", (0.65, 0.7), (-1, -1))]
    photos = ["astronaut", "coffee", "chelsea", "rocket"]
    objects = []
    for i, (kind, (fx, fy), v) in enumerate(plan):
        width = float(rng.uniform(2.0, 4.0))
        angle = float(rng.uniform(0, np.pi))
        if kind == "bar":
            shape = generate.bar(0.6 * side, width, angle)
        elif kind == "wire":
            shape = generate.wire(0.7 * side, width, angle, amplitude=0.04 * side, period=0.2 * side)
        elif kind == "ring":
            shape = generate.ring(0.14 * side, width)
        else:
            shape = generate.fence(0.35 * side, width, angle, bars=5, spacing=max(4.0, 0.05 * side))
        texture = tex.photo(rng, h, w, name=photos[i % len(photos)] if tex.photos else None,
                            tint=generate.random_tint(rng, 0.4))
        objects.append(generate.SceneObject(i + 1, shape, texture, (fx * w, fy * h), v, depth=float(rng.random())))
    return background, objects


def lowcontrast_scene(tex: generate.Textures, rng, w, h):
    """Three objects cut from the background's own texture, told apart only by
    a colour gain of 7 %."""
    name = "grass" if tex.photos else None
    tint = generate.random_tint(rng, 0.2)
    background = tex.photo(rng, h, w, name=name, tint=tint)
    side = min(w, h)
    plan = [((0.3, 0.35), (1, 0), 0.17), ((0.7, 0.4), (-1, 1), 0.15), ((0.5, 0.72), (0, -1), 0.16)]
    objects = []
    for i, ((fx, fy), v, size) in enumerate(plan):
        gain = np.ones(3)
        gain[i % 3] = 1.07 if i != 1 else 0.93
        texture = tex.photo(rng, h, w, name=name, tint=tint * gain)
        r = size * side
        shape = generate.blob(r, rng) if i % 2 else generate.ellipse(r * 1.3, r * 0.8, float(rng.uniform(0, np.pi)))
        objects.append(generate.SceneObject(i + 1, shape, texture, (fx * w, fy * h), v, depth=float(i)))
    return background, objects


def fast_scene(tex: generate.Textures, rng, w, h, speed: tuple[int, int] = (10, 3)):
    """A slow ellipse and, in front of it, a blob moving `speed` px a frame (for
    a 320-pixel-wide frame) that bounces off the frame's sides."""
    background = tex.photo(rng, h, w, tint=generate.random_tint(rng, 0.3))
    side = min(w, h)
    slow_r = 0.2 * side
    slow = generate.SceneObject(1, generate.ellipse(slow_r * 1.2, slow_r * 0.8, float(rng.uniform(0, np.pi))),
                                textured(tex, rng, w, h, "astronaut"),
                                (0.35 * w, 0.4 * h), (1, 0), depth=0.0)
    r = 0.11 * side
    margin = int(math.ceil(1.3 * r))  # the blob reaches out to 1.9 r at most; most of it stays in view
    fast = BouncingObject(2, generate.blob(r, rng), textured(tex, rng, w, h, "chelsea"),
                          (float(margin), float(h // 2)), (_scaled(speed[0], w), _scaled(speed[1], w)), depth=1.0,
                          low=(margin, margin), high=(w - margin, h - margin))
    return background, [slow, fast]


def crossing_scene(tex: generate.Textures, rng, w, h, speed: int = 4):
    """Two objects on paths that cross: a large ellipse passes in front of a
    blob that moves the other way, hiding part of it for a while."""
    background = tex.photo(rng, h, w, tint=generate.random_tint(rng, 0.3))
    side = min(w, h)
    v = _scaled(speed, w)
    front = generate.SceneObject(1, generate.ellipse(0.2 * side, 0.14 * side, 0.2),
                                 textured(tex, rng, w, h, "rocket"),
                                 (0.22 * w, 0.48 * h), (v, 0), depth=1.0)
    back = generate.SceneObject(2, generate.blob(0.11 * side, rng),
                                textured(tex, rng, w, h, "chelsea"),
                                (0.78 * w, 0.6 * h), (-v, 0), depth=0.0)
    return background, [front, back]


def entering_scene(tex: generate.Textures, rng, w, h, speed: int = 5):
    """Two slow objects, and a third that comes in from the left a few frames
    after frame 0 and passes in front of them."""
    background = tex.photo(rng, h, w, tint=generate.random_tint(rng, 0.3))
    side = min(w, h)
    r = 0.15 * side
    first = generate.SceneObject(1, generate.ellipse(r * 1.2, r * 0.8, 0.5),
                                 textured(tex, rng, w, h, "astronaut"),
                                 (0.35 * w, 0.62 * h), (1, 0), depth=0.2)
    second = generate.SceneObject(2, generate.rectangle(r, r * 0.7, 0.3),
                                  textured(tex, rng, w, h, "rocket"),
                                  (0.72 * w, 0.35 * h), (-1, 1), depth=0.4)
    v = _scaled(speed, w)
    er = 0.12 * side
    # The blob reaches out to 1.9 er from its centre at most: wholly outside in
    # frame 0, it comes in within about 3 frames.
    entering = generate.SceneObject(3, generate.blob(er, rng),
                                    textured(tex, rng, w, h, "chelsea"),
                                    (-1.9 * er - 3 * v, 0.45 * h), (v, 0), depth=1.0)
    return background, [first, second, entering]


def plans(tiny: bool, frames: int) -> list[generate.SequencePlan]:
    """The sequences: five of `frames` frames and the long one, or, tiny, two
    small ones of 12 frames."""
    if tiny:
        return [
            generate.SequencePlan("crossing", "crossing", crossing_scene, 96, 72, 402, {"speed": 10}, frames=12,
                                  wrong_fraction=0.0),
            generate.SequencePlan("entering", "entering, not annotated", entering_scene, 96, 72, 403,
                                  {"speed": 12}, frames=12, wrong_fraction=0.0),
        ]

    def plan(name, scene_class, builder, seed, kwargs=None, count=frames):
        return generate.SequencePlan(name, scene_class, builder, 320, 240, seed, kwargs or {}, frames=count,
                                     wrong_fraction=0.0)

    return [
        plan("thin", "thin structures", thin_scene, 301),
        plan("lowcontrast", "low contrast", lowcontrast_scene, 302),
        plan("fast", "fast object, 10 px/frame", fast_scene, 303),
        plan("crossing", "crossing", crossing_scene, 304),
        plan("entering", "entering, not annotated", entering_scene, 305),
        plan("long", "long, for memory", generate.ordinary, 306, {"count": 5, "speed": 1}, count=LONG_FRAMES),
    ]


# --- writing a sequence ----------------------------------------------------------

def write_png(path: Path, labels: np.ndarray) -> None:
    """An 8-bit greyscale PNG of label values."""
    from PIL import Image

    Image.fromarray(np.ascontiguousarray(labels, dtype=np.uint8)).save(path)


def read_png(path: Path) -> np.ndarray:
    """The values of an 8-bit greyscale or palette (index) PNG."""
    from PIL import Image

    with Image.open(path) as img:
        if img.mode not in ("L", "P"):
            raise ValueError(f"{path}: an 8-bit index or greyscale PNG expected, got mode {img.mode}")
        return np.asarray(img).copy()


# A click after the first is the one farthest from those before among this
# many random candidates: spread over the region, as a person spreads them,
# though not pushed to its far ends.
CLICK_CANDIDATES = 10


def pick_clicks(truth: np.ndarray, rng: np.random.Generator) -> list[tuple[float, float, int]]:
    """CLICKS_PER_OBJECT clicks (x, y, label) on every label of a frame, the
    background too, each at a pixel centre as deep inside its region as
    generate.CLICK_MARGIN allows."""
    clicks = []
    for label in np.unique(truth):
        region = truth == label
        for margin in range(generate.CLICK_MARGIN, -1, -1):
            candidates = np.argwhere(generate.interior(region, margin))
            if len(candidates):
                break
        chosen = [candidates[rng.integers(len(candidates))]]
        while len(chosen) < min(CLICKS_PER_OBJECT, len(candidates)):
            sample = candidates[rng.choice(len(candidates), size=min(CLICK_CANDIDATES, len(candidates)),
                                           replace=False)]
            gaps = np.linalg.norm(sample[:, None, :] - np.array(chosen)[None, :, :], axis=2).min(axis=1)
            chosen.append(sample[np.argmax(gaps)])
        clicks.extend((float(x) + 0.5, float(y) + 0.5, int(label)) for y, x in chosen)
    return clicks


def write_sequence(seq: generate.Sequence, folder: Path) -> np.ndarray:
    """frames/frame_NNN.ppm, truth.npy, annotations/frame_000.png, clicks.txt
    and tracks.dat (tracks with exact labels) under `folder`; returns the truth
    as scored.  An object absent from frame 0 is not in the annotation, so the
    scored truth and the tracks give it to the background (label 0)."""
    shutil.rmtree(folder, ignore_errors=True)
    (folder / "frames").mkdir(parents=True)
    (folder / "annotations").mkdir()
    rendered = []
    for t in range(seq.frames):
        image, truth = seq.render(t)
        pnm.write(folder / "frames" / f"frame_{t:03d}.ppm", image)
        rendered.append(truth)
    unnamed = sorted(set(np.unique(np.stack(rendered)).tolist()) - set(np.unique(rendered[0]).tolist()))
    truths = np.where(np.isin(np.stack(rendered), unnamed), 0, np.stack(rendered)).astype(np.uint8)
    np.save(folder / "truth.npy", truths)
    write_png(folder / "annotations" / "frame_000.png", truths[0])

    clicks = pick_clicks(truths[0], np.random.default_rng(seq.seed + 104729))
    (folder / "clicks.txt").write_text("".join(f"0 {x:.2f} {y:.2f} {label}\n" for x, y, label in clicks))

    # The tracks follow every object, the unnamed ones too, then carry the
    # labels of the scored truth.
    tracks = generate.make_tracks(seq, rendered)
    for track in tracks:
        if track.label in unnamed:
            track.label = 0
    generate.write_tracks(folder / "tracks.dat", seq.frames, tracks)
    return truths


def prefix_folder(folder: Path, count: int) -> Path:
    """A folder beside `folder` whose frames/ holds the first `count` frames
    (hard links where the file system allows)."""
    out = folder.with_name(f"{folder.name}-{count}")
    shutil.rmtree(out, ignore_errors=True)
    (out / "frames").mkdir(parents=True)
    for frame in run.frame_paths(folder)[:count]:
        try:
            os.link(frame, out / "frames" / frame.name)
        except OSError:
            shutil.copyfile(frame, out / "frames" / frame.name)
    return out


# --- the methods -------------------------------------------------------------------

@dataclasses.dataclass
class Progress:
    index: int
    total: int
    stem: str
    labels: int
    tracks: int
    tracking_ms: float
    segmentation_ms: float


def parse_progress(stdout: str, stems: list[str]) -> tuple[list[Progress], list[str]]:
    """The progress lines (those starting "frame "), checked against the
    frames in order, and the lines among them that carry more than the
    documented form (read all the same, so that a remark after the times does
    not cost the scores); other lines are let through."""
    found, deviating = [], []
    for line in stdout.splitlines():
        if not line.startswith("frame "):
            continue
        m = PROGRESS.match(line)
        if not m:
            raise ValueError(f"malformed progress line: {line!r}")
        if m.end() != len(line.rstrip("\r")):
            deviating.append(line)
        found.append(Progress(int(m[1]), int(m[2]), m[3], int(m[4]), int(m[5]), float(m[6]), float(m[7])))
    expected = [(k + 1, len(stems), stem) for k, stem in enumerate(stems)]
    got = [(p.index, p.total, p.stem) for p in found]
    if got != expected:
        raise ValueError(f"progress lines name frames {got[:3]}... ({len(got)} lines); "
                         f"expected {expected[:3]}... ({len(expected)})")
    return found, deviating


@dataclasses.dataclass
class Result:
    predictions: list[np.ndarray]
    frame_ms: list[float]  # the time of each frame as the method reports or as it is timed
    wall_seconds: float  # of the whole run
    detail: str = ""  # for the log
    deviating_lines: list[str] = dataclasses.field(default_factory=list)  # progress lines not of the exact form

    @property
    def ms_per_frame(self) -> float:
        return float(np.mean(self.frame_ms))


def program_env() -> dict[str, str]:
    return dict(os.environ, OMP_WAIT_POLICY=os.environ.get("OMP_WAIT_POLICY", "passive"))


def run_propagate(program: Path, frames_dir: Path, annotations: Path, out_dir: Path) -> Result:
    """denseseg-propagate with its default (recommended) settings; its output
    and stated times checked and read back."""
    shutil.rmtree(out_dir, ignore_errors=True)
    out_dir.mkdir(parents=True)
    stems = [f.stem for f in sorted(p for p in frames_dir.iterdir() if p.suffix == ".ppm")]
    start = time.perf_counter()
    proc = subprocess.run([str(program), str(frames_dir), str(annotations), str(out_dir)], env=program_env(),
                          capture_output=True, text=True)
    wall = time.perf_counter() - start
    out_dir.with_suffix(".log").write_text(proc.stdout + proc.stderr)
    if proc.returncode != 0:
        raise RuntimeError(f"exit status {proc.returncode}: {proc.stderr.strip()[-500:]}")
    progress, deviating = parse_progress(proc.stdout, stems)
    missing = [name for stem in stems for name in (f"{stem}.png", f"{stem}_dense.ppm", f"{stem}_overlay.ppm")
               if not (out_dir / name).exists()] + ([] if (out_dir / "tracks.dat").exists() else ["tracks.dat"])
    if missing:
        raise RuntimeError(f"missing in {out_dir}: {', '.join(missing[:5])}" + (" ..." if len(missing) > 5 else ""))
    predictions = [read_png(out_dir / f"{stem}.png") for stem in stems]
    tracking = float(np.mean([p.tracking_ms for p in progress]))
    segmentation = float(np.mean([p.segmentation_ms for p in progress]))
    return Result(predictions, [p.tracking_ms + p.segmentation_ms for p in progress], wall,
                  f"tracking {tracking:.1f} ms + segmentation {segmentation:.1f} ms", deviating)


def flow_warp(frames: list[np.ndarray], first: np.ndarray) -> tuple[list[np.ndarray], list[float]]:
    """`first` carried along the optical flow: each frame's labels are those of
    the frame before at the pixel its flow points to (nearest neighbour,
    background outside the image); and the milliseconds of each frame."""
    import cv2

    # The program's flow: the medium preset, computed up to the full resolution
    # with small patches and no variational refinement.
    dis = cv2.DISOpticalFlow_create(cv2.DISOPTICAL_FLOW_PRESET_MEDIUM)
    dis.setFinestScale(0)
    dis.setPatchSize(4)
    dis.setPatchStride(2)
    dis.setVariationalRefinementIterations(0)
    h, w = first.shape
    grid_x, grid_y = np.meshgrid(np.arange(w, dtype=np.float32), np.arange(h, dtype=np.float32))
    labels, ms = [np.ascontiguousarray(first, dtype=np.uint8)], [0.0]
    before = cv2.cvtColor(frames[0], cv2.COLOR_RGB2GRAY)
    for frame in frames[1:]:
        start = time.perf_counter()
        grey = cv2.cvtColor(frame, cv2.COLOR_RGB2GRAY)
        flow = dis.calc(grey, before, None)  # from this frame to the one before
        labels.append(cv2.remap(labels[-1], grid_x + flow[..., 0], grid_y + flow[..., 1], cv2.INTER_NEAREST,
                                borderMode=cv2.BORDER_CONSTANT, borderValue=0))
        ms.append(1000 * (time.perf_counter() - start))
        before = grey
    return labels, ms


def run_flow_warp(folder: Path) -> Result:
    frames = [np.ascontiguousarray(pnm.read(f)) for f in run.frame_paths(folder)]
    start = time.perf_counter()
    labels, ms = flow_warp(frames, read_png(folder / "annotations" / "frame_000.png"))
    return Result(labels, ms, time.perf_counter() - start)


def run_ceiling(tools: run.Tools, folder: Path) -> Result:
    """denseseg in whole-folder mode with the recommended settings on the ideal
    tracks, timed per frame as frame_times.py does."""
    results = folder / "results" / "timed"
    shutil.rmtree(results, ignore_errors=True)
    times = frame_times.frame_times(tools.denseseg, folder, RECOMMENDED)
    predictions = []
    for frame in run.frame_paths(folder):
        dense = results / f"{frame.stem}_dense.ppm"
        if dense.exists():
            predictions.append(score.decode_colours(pnm.read(dense), tools.palette))
        else:  # a frame without seeds gets no result
            predictions.append(np.full(pnm.read(frame).shape[:2], -1, dtype=np.int32))
    wall = times["start"] + sum(times["frames"]) + times["export"]
    return Result(predictions, [1000 * s for s in times["frames"]], wall)


# Runs in a fresh interpreter, so that RUSAGE_CHILDREN holds the program alone.
PEAK_RSS = ("import resource, subprocess, sys\n"
            "subprocess.run(sys.argv[1:], check=True, stdout=subprocess.DEVNULL)\n"
            "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss)\n")


def peak_memory_mib(command: list[str]) -> float:
    """Peak resident memory of a command, in MiB."""
    out = subprocess.run([sys.executable, "-c", PEAK_RSS, *command], env=program_env(), check=True,
                         capture_output=True, text=True).stdout
    return int(out.split()[-1]) / 1024  # ru_maxrss is in KiB on Linux


# --- the table -------------------------------------------------------------------------

@dataclasses.dataclass
class Outcome:
    score: jf.SequenceJF | None
    result: Result | None
    error: str = ""


def fmt_row(sequence: str, method: str, o: Outcome) -> str:
    if o.score is None:
        return f"| {sequence} | {method} | failed: {o.error.splitlines()[0][:120] if o.error else '?'} | | | | |"
    s = o.score
    return (f"| {sequence} | {method} | {s.jf:.3f} | {s.j:.3f} | {s.f:.3f} | {s.j_decay:+.3f} | "
            f"{o.result.ms_per_frame:.1f} |")


def check(ok: bool, text: str) -> str:
    return f"- [{'x' if ok else ' '}] {text}"


def timing_line(outcomes: dict[str, dict[str, Outcome]]) -> tuple[str, float | None]:
    """The time per frame of propagate against the ideal tracks' run, over the
    sequences where both ran; and their ratio."""
    names = [n for n, row in outcomes.items() if row[PROPAGATE].result and row[CEILING].result]
    if not names:
        return "time per frame: no sequence where both propagate and the ideal tracks ran", None
    prop = [row[PROPAGATE].result for n, row in outcomes.items() if n in names]
    ceil = [row[CEILING].result for n, row in outcomes.items() if n in names]
    prop_ms = float(np.mean([ms for r in prop for ms in r.frame_ms]))
    ceil_ms = float(np.mean([ms for r in ceil for ms in r.frame_ms]))
    prop_wall = 1000 * sum(r.wall_seconds for r in prop) / sum(len(r.predictions) for r in prop)
    ceil_wall = 1000 * sum(r.wall_seconds for r in ceil) / sum(len(r.predictions) for r in ceil)
    ratio = prop_ms / ceil_ms
    return (f"time per frame over {len(names)} sequences: propagate {prop_ms:.1f} ms (tracking + segmentation from "
            f"its progress lines; wall time / frames {prop_wall:.1f} ms), ideal tracks {ceil_ms:.1f} ms "
            f"(frame_times.py; wall time / frames {ceil_wall:.1f} ms): ratio {ratio:.2f} "
            f"(by wall time {prop_wall / ceil_wall:.2f})"), ratio


def table(outcomes: dict[str, dict[str, Outcome]], memory: tuple[float, float] | str | None,
          seconds: float) -> str:
    rows = ["| sequence | method | J&F | J | F | J decay | ms/frame |", "|---|---|---|---|---|---|---|"]
    for name, row in outcomes.items():
        rows.extend(fmt_row(name, m, row[m]) for m in METHODS if m in row)
    means: dict[str, float | None] = {}
    for m in METHODS:
        scored = [row[m] for row in outcomes.values() if m in row]
        if scored and all(o.score for o in scored):
            s = [o.score for o in scored]
            means[m] = float(np.mean([x.jf for x in s]))
            rows.append(f"| **mean** | {m} | {means[m]:.3f} | {np.mean([x.j for x in s]):.3f} | "
                        f"{np.mean([x.f for x in s]):.3f} | {np.mean([x.j_decay for x in s]):+.3f} | "
                        f"{np.mean([o.result.ms_per_frame for o in scored]):.1f} |")
        else:
            means[m] = None
            rows.append(f"| **mean** | {m} | failed on some sequence | | | | |")

    timing, ratio = timing_line(outcomes)
    lines = [timing]
    deviating = [line for row in outcomes.values() for m in (PROPAGATE, CLICKS)
                 if m in row and row[m].result for line in row[m].result.deviating_lines]
    progress_runs = sum(1 for row in outcomes.values() for m in (PROPAGATE, CLICKS) if m in row and row[m].result)
    if deviating:
        lines.append(f"progress lines: {len(deviating)} over {progress_runs} runs carry more than "
                     f"`frame i/n stem: L labels, T tracks, tracking t ms, segmentation s ms`, "
                     f"for example `{deviating[0]}`")
    if isinstance(memory, tuple):
        short, full = memory
        growth = full / short - 1
        lines.append(f"peak resident memory of denseseg-propagate on the long sequence (320x240): "
                     f"{LONG_PREFIX} frames {short:.1f} MiB, {LONG_FRAMES} frames {full:.1f} MiB "
                     f"({100 * growth:+.1f} %, {1024 * (full - short) / (LONG_FRAMES - LONG_PREFIX):+.0f} KiB "
                     f"per further frame)")
    elif isinstance(memory, str):
        growth = None
        lines.append(f"peak resident memory: failed: {memory}")
    else:
        growth = None
        lines.append("peak resident memory: not measured (the long sequence was not run)")

    def per_sequence(m: str) -> list[float | None]:
        return [row[m].score.jf if row[m].score else None for row in outcomes.values()]

    annotated, ceiling = per_sequence(PROPAGATE), per_sequence(CEILING)
    worst = min((v for v in annotated if v is not None), default=None)
    gaps = [c - a if a is not None and c is not None else None for a, c in zip(annotated, ceiling)]
    largest_gap = max((g for g in gaps if g is not None), default=None)

    def value(v: float | None, form: str = ".3f") -> str:
        return "failed" if v is None else format(v, form)

    checks = [
        check(means[PROPAGATE] is not None and means[PROPAGATE] >= TARGET_ANNOTATION,
              f"mean J&F from the first-frame annotation ≥ {TARGET_ANNOTATION}: {value(means[PROPAGATE])}"),
        check(means[CLICKS] is not None and means[CLICKS] >= TARGET_CLICKS,
              f"mean J&F from three clicks per object ≥ {TARGET_CLICKS}: {value(means[CLICKS])}"),
        check(None not in annotated and worst is not None and worst >= TARGET_EVERY_SEQUENCE,
              f"no sequence below {TARGET_EVERY_SEQUENCE} from the annotation: lowest {value(worst)}"),
        check(None not in gaps and largest_gap is not None and largest_gap <= TARGET_CEILING_GAP,
              f"within {TARGET_CEILING_GAP} of the ideal-track ceiling on every sequence: largest gap "
              f"{value(largest_gap, '+.3f')}"),
        check(ratio is not None and ratio <= TARGET_TIME_RATIO,
              f"time per frame ≤ {TARGET_TIME_RATIO}x the ideal-track run's: {value(ratio, '.2f')}x"),
        check(growth is not None and growth <= TARGET_MEMORY_GROWTH,
              f"memory flat over {LONG_FRAMES} frames (peak at most {100 * TARGET_MEMORY_GROWTH:.0f} % above "
              f"that over {LONG_PREFIX}): " + ("not measured" if growth is None else f"{100 * growth:+.1f} %")),
    ]
    notes = (f"J: intersection over union per object; F: boundary F-measure, boundaries matched within a disk of "
             f"ceil(0.008 x image diagonal) px (4 px at 320x240); J&F their mean; J decay: mean J over the first "
             f"quarter of the scored frames minus over the last quarter. The first and last frames are not scored; "
             f"means are per object over the frames, then over the objects, then over the sequences. "
             f"An object that enters unannotated is background in the truth. ms/frame: propagate's tracking + "
             f"segmentation from its progress lines, the flow warp's flow and remap, the ideal tracks' frames "
             f"timed by frame_times.py. machine: {evaluate.machine()}; the whole evaluation took {seconds:.0f} s")
    return "\n".join(rows) + "\n\n" + "\n\n".join(lines) + "\n\n" + "\n".join(checks) + "\n\n" + notes + "\n"


# --- the evaluation -----------------------------------------------------------------------

def run_sequence(tools: run.Tools, program: Path, folder: Path, truth: np.ndarray,
                 flow_peer: bool) -> dict[str, Outcome]:
    runners = {
        PROPAGATE: lambda: run_propagate(program, folder / "frames", folder / "annotations", folder / "propagate"),
        CLICKS: lambda: run_propagate(program, folder / "frames", folder / "clicks.txt", folder / "propagate-clicks"),
        FLOW_WARP: lambda: run_flow_warp(folder),
        CEILING: lambda: run_ceiling(tools, folder),
    }
    if not flow_peer:
        del runners[FLOW_WARP]
    row = {}
    for method, runner in runners.items():
        try:
            result = runner()
            score = jf.score_sequence(result.predictions, truth)
            row[method] = Outcome(score, result)
            print(f"   {method:20s} J&F {score.jf:.3f}  J {score.j:.3f}  F {score.f:.3f}  "
                  f"{result.ms_per_frame:8.1f} ms/frame {result.detail}", flush=True)
        except (RuntimeError, ValueError, OSError, subprocess.CalledProcessError) as e:
            row[method] = Outcome(None, None, str(e))
            print(f"   {method:20s} failed: {e}", flush=True)
    return row


def have_cv2() -> bool:
    try:
        import cv2  # noqa: F401
    except ImportError:
        return False
    return True


def evaluate_propagation(build: Path, out: Path, tiny: bool, only: list[str], frames: int) -> str:
    program = build / "src" / "denseseg-propagate"
    if not program.exists():
        raise SystemExit(f"{program} is missing: build the target denseseg-propagate")
    tools = run.Tools(build)
    chosen = plans(tiny, frames)
    if only:
        unknown = set(only) - {p.name for p in chosen}
        if unknown:
            raise SystemExit(f"unknown sequences {sorted(unknown)}; there are {[p.name for p in chosen]}")
        chosen = [p for p in chosen if p.name in only]
    # Spinning OpenMP threads take the cores from everything else on a small machine.
    os.environ.setdefault("OMP_WAIT_POLICY", "passive")
    flow_peer = have_cv2()
    if not flow_peer:
        print("cv2 (opencv-python-headless) is not installed: the flow warp peer is left out", file=sys.stderr)
    textures = generate.Textures(use_photos=True)
    started = time.perf_counter()
    outcomes: dict[str, dict[str, Outcome]] = {}
    memory: tuple[float, float] | str | None = None
    for plan in chosen:
        seq = generate.build(plan, frames, textures)
        folder = out / "data" / plan.name
        truth = write_sequence(seq, folder)
        objects = int(np.count_nonzero(np.unique(truth)))
        print(f"== {plan.name}: {plan.scene_class}, {plan.width}x{plan.height}, {seq.frames} frames, "
              f"{objects} objects annotated", flush=True)
        if plan.name == "long":
            try:
                short = prefix_folder(folder, LONG_PREFIX)
                memory = tuple(peak_memory_mib([str(program), str(f / "frames"), str(folder / "annotations"),
                                                str(f / "propagate")]) for f in (short, folder))
                print(f"   peak memory {LONG_PREFIX} frames {memory[0]:.1f} MiB, {LONG_FRAMES} frames "
                      f"{memory[1]:.1f} MiB", flush=True)
            except (subprocess.CalledProcessError, OSError) as e:
                memory = f"{e}"
                print(f"   memory measurement failed: {e}", flush=True)
            continue
        outcomes[plan.name] = run_sequence(tools, program, folder, truth, flow_peer)
    text = table(outcomes, memory, time.perf_counter() - started)
    out.mkdir(parents=True, exist_ok=True)
    (out / "table.md").write_text(text)
    return text


def main(argv: list[str] | None = None) -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=Path, required=True,
                        help="build folder with src/denseseg-propagate, src/denseseg and tools/dump_seeds")
    parser.add_argument("--out", type=Path, default=None,
                        help="output folder (eval-out-propagation/ or eval-out-propagation-tiny/)")
    parser.add_argument("--tiny", action="store_true", help="two sequences of 96x72, 12 frames; no memory run")
    parser.add_argument("--sequences", default="",
                        help="comma-separated names of the sequences to run: thin, lowcontrast, fast, crossing, "
                             "entering, long (the memory run); default all")
    parser.add_argument("--frames", type=int, default=FRAMES, help=f"frames of each sequence (default {FRAMES})")
    args = parser.parse_args(argv)
    if args.frames < 3:
        parser.error("--frames must be 3 at least: the first and last frames are not scored")
    out = (args.out or Path("eval-out-propagation-tiny" if args.tiny else "eval-out-propagation")).resolve()
    only = [n for n in args.sequences.split(",") if n]
    print(evaluate_propagation(args.build.resolve(), out, args.tiny, only, args.frames))
    return 0


if __name__ == "__main__":
    sys.exit(main())
