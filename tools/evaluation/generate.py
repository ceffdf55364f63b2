"""Synthetic video sequences with exact ground truth and labelled point tracks.

A sequence is a background and a few textured objects, each with a shape, a
depth and a motion of a few pixels per frame.  Rendering paints them back to
front, so the ground truth (the label of the front-most object at every pixel)
is exact.  Label 0 is the background and objects are numbered 1, 2, ...

The tracks imitate a motion-segmentation method's output: points on a jittered
grid about 10 px apart that follow their object while it is visible and end
when it is hidden or leaves the frame; new tracks start where the grid has no
track.  Positions are a little noisy, so points near a boundary sometimes sit
on the wrong side, and a few per cent of the tracks carry a wrong label (another
label of the scene; the share is a parameter of each sequence's plan).

The "clicks" sequences have no tracks but clicks, as a person gives them: in
every frame, 1 to 3 points per visible label, each well inside its label's
region (tracks of length 1, all correctly labelled).

Everything comes from fixed seeds, so the same sequences are made every time.
"""

from __future__ import annotations

import dataclasses
from pathlib import Path
from typing import Callable

import numpy as np

from . import pnm, score

# Tracks with a wrong label, as a fraction of all tracks (the default of a plan).
WRONG_LABEL_FRACTION = 0.025
# Standard deviation of a track point's position error, in pixels.
POSITION_NOISE = 0.6
# Spacing of the track grid, in pixels.
TRACK_SPACING = 10.0
# Clicks per label and frame, and how far inside its region a click lies: every
# pixel within CLICK_MARGIN px (Chebyshev distance) of a click has the click's
# label, where the region allows it.
CLICKS_PER_LABEL = (1, 3)
CLICK_MARGIN = 5

# Photographs that scikit-image ships inside its package (no download).
PHOTOS = ("astronaut", "coffee", "chelsea", "rocket", "camera", "brick", "grass", "gravel")


# --- textures ----------------------------------------------------------------

def _load_photos() -> dict[str, np.ndarray]:
    """The photographs as float RGB in 0..255, or {} without scikit-image."""
    try:
        import skimage.data
    except ImportError:
        return {}
    photos = {}
    for name in PHOTOS:
        img = np.asarray(getattr(skimage.data, name)(), dtype=np.float64)
        if img.ndim == 2:
            img = np.repeat(img[:, :, None], 3, axis=2)
        photos[name] = img[:, :, :3]
    return photos


class Textures:
    """Makes texture patches of a given size from photographs, or from
    procedural noise where no photographs are available."""

    def __init__(self, use_photos: bool = True):
        self.photos = _load_photos() if use_photos else {}

    def photo(self, rng: np.random.Generator, h: int, w: int, name: str | None = None,
              tint: np.ndarray | None = None) -> np.ndarray:
        """A crop of a photograph (tiled, rotated or flipped at random), tinted
        by a per-channel gain; procedural when there are no photographs."""
        if not self.photos:
            return self.noise(rng, h, w, tint=tint)
        img = self.photos[name or rng.choice(sorted(self.photos))]
        img = np.rot90(img, k=int(rng.integers(4)))
        if rng.random() < 0.5:
            img = img[:, ::-1]
        reps = (h // img.shape[0] + 2, w // img.shape[1] + 2, 1)
        if reps[0] > 1 or reps[1] > 1:
            # Mirror-tile so the seams do not show as edges.
            tile = np.concatenate([img, img[::-1]], axis=0)
            tile = np.concatenate([tile, tile[:, ::-1]], axis=1)
            img = np.tile(tile, (reps[0] // 2 + 1, reps[1] // 2 + 1, 1))
        y0 = int(rng.integers(0, img.shape[0] - h + 1))
        x0 = int(rng.integers(0, img.shape[1] - w + 1))
        patch = img[y0:y0 + h, x0:x0 + w].copy()
        if tint is not None:
            patch *= tint
        return np.clip(patch, 0, 255)

    @staticmethod
    def noise(rng: np.random.Generator, h: int, w: int, tint: np.ndarray | None = None,
              contrast: float = 60.0) -> np.ndarray:
        """Smooth multi-scale value noise around a random colour."""
        out = np.zeros((h, w))
        for cell, amp in ((32, 1.0), (8, 0.6), (2, 0.4)):
            grid = rng.random((h // cell + 2, w // cell + 2))
            grid = np.kron(grid, np.ones((cell, cell)))[:h, :w]
            out += amp * (grid - 0.5)
        base = rng.uniform(60, 200, size=3) if tint is None else 128.0 * tint
        return np.clip(base[None, None, :] + contrast * out[:, :, None], 0, 255)


def random_tint(rng: np.random.Generator, strength: float = 0.5) -> np.ndarray:
    """A per-channel gain around 1 that gives a grey photograph a colour."""
    return 1.0 + strength * (rng.random(3) - 0.5) * 2


# --- shapes -------------------------------------------------------------------
# A shape is a function of the coordinates relative to the object's centre
# (arrays X, Y) that returns the object's mask.

Shape = Callable[[np.ndarray, np.ndarray], np.ndarray]


def ellipse(a: float, b: float, angle: float) -> Shape:
    c, s = np.cos(angle), np.sin(angle)
    return lambda X, Y: ((c * X + s * Y) / a) ** 2 + ((-s * X + c * Y) / b) ** 2 <= 1.0


def rectangle(a: float, b: float, angle: float) -> Shape:
    c, s = np.cos(angle), np.sin(angle)
    return lambda X, Y: (np.abs(c * X + s * Y) <= a) & (np.abs(-s * X + c * Y) <= b)


def blob(r: float, rng: np.random.Generator) -> Shape:
    """A star-like shape: radius varying smoothly with the angle."""
    k = rng.uniform(0.1, 0.3, size=3)
    ph = rng.uniform(0, 2 * np.pi, size=3)

    def mask(X, Y):
        t = np.arctan2(Y, X)
        rad = r * (1 + k[0] * np.sin(2 * t + ph[0]) + k[1] * np.sin(3 * t + ph[1]) + k[2] * np.sin(5 * t + ph[2]))
        return np.hypot(X, Y) <= rad
    return mask


def bar(length: float, width: float, angle: float) -> Shape:
    return rectangle(length / 2, width / 2, angle)


def ring(radius: float, width: float) -> Shape:
    return lambda X, Y: np.abs(np.hypot(X, Y) - radius) <= width / 2


def wire(length: float, width: float, angle: float, amplitude: float, period: float) -> Shape:
    """A sinusoidal curve of the given width along a direction."""
    c, s = np.cos(angle), np.sin(angle)

    def mask(X, Y):
        u, v = c * X + s * Y, -s * X + c * Y
        return (np.abs(u) <= length / 2) & (np.abs(v - amplitude * np.sin(2 * np.pi * u / period)) <= width / 2)
    return mask


def fence(length: float, width: float, angle: float, bars: int, spacing: float) -> Shape:
    """`bars` parallel bars of the given length and width, `spacing` px apart
    (centre to centre), across the direction `angle`."""
    c, s = np.cos(angle), np.sin(angle)
    half = (bars - 1) / 2

    def mask(X, Y):
        u, v = c * X + s * Y, -s * X + c * Y
        k = np.clip(np.rint(v / spacing + half), 0, bars - 1) - half
        return (np.abs(u) <= length / 2) & (np.abs(v - k * spacing) <= width / 2)
    return mask


# --- scenes -------------------------------------------------------------------

@dataclasses.dataclass
class SceneObject:
    label: int
    shape: Shape
    texture: np.ndarray  # H x W x 3, moves with the object
    start: tuple[float, float]  # centre (x, y) in frame 0
    velocity: tuple[int, int]  # pixels per frame
    depth: float  # larger is nearer

    def offset(self, t: int) -> tuple[int, int]:
        return self.velocity[0] * t, self.velocity[1] * t

    def mask(self, X: np.ndarray, Y: np.ndarray, t: int) -> np.ndarray:
        dx, dy = self.offset(t)
        return self.shape(X - (self.start[0] + dx), Y - (self.start[1] + dy))


@dataclasses.dataclass
class Sequence:
    name: str
    scene_class: str
    width: int
    height: int
    frames: int
    background: np.ndarray  # H x W x 3, static
    objects: list[SceneObject]
    seed: int
    wrong_fraction: float = WRONG_LABEL_FRACTION
    clicks: bool = False

    def render(self, t: int) -> tuple[np.ndarray, np.ndarray]:
        """Frame t as uint8 RGB and its ground-truth label image."""
        Y, X = np.mgrid[0:self.height, 0:self.width].astype(np.float64)
        image = self.background.copy()
        truth = np.zeros((self.height, self.width), dtype=np.uint8)
        for obj in sorted(self.objects, key=lambda o: o.depth):
            m = obj.mask(X, Y, t)
            dx, dy = obj.offset(t)
            tex = np.roll(obj.texture, shift=(dy, dx), axis=(0, 1))
            image[m] = tex[m]
            truth[m] = obj.label
        return np.clip(np.rint(image), 0, 255).astype(np.uint8), truth

    def label_motion(self, label: int) -> tuple[int, int]:
        if label == 0:
            return 0, 0
        return next(o.velocity for o in self.objects if o.label == label)

    def label_step(self, label: int, t: int) -> tuple[int, int]:
        """How far the label's pixels move from frame t - 1 to frame t: its
        velocity, or the change of its offset for an object whose offset is not
        linear in t (a subclass of SceneObject)."""
        if label == 0:
            return 0, 0
        obj = next(o for o in self.objects if o.label == label)
        (x0, y0), (x1, y1) = obj.offset(t - 1), obj.offset(t)
        return x1 - x0, y1 - y0


def _velocity(rng: np.random.Generator, most: int) -> tuple[int, int]:
    while True:
        v = (int(rng.integers(-most, most + 1)), int(rng.integers(-most, most + 1)))
        if v != (0, 0):
            return v


def _centre(rng, w, h, margin):
    return float(rng.uniform(margin, w - margin)), float(rng.uniform(margin, h - margin))


def thin_structures(tex: Textures, rng, w, h) -> tuple[np.ndarray, list[SceneObject]]:
    """Bars, rings and wires 2-4 px wide on a strongly textured background."""
    background = tex.photo(rng, h, w, name="gravel" if tex.photos else None, tint=random_tint(rng, 0.3))
    # Stretch the background's contrast: strong texture.
    background = np.clip(128 + 1.6 * (background - background.mean()), 0, 255)
    objects = []
    photos = ["astronaut", "coffee", "chelsea", "rocket"]
    for i in range(6):
        width = float(rng.uniform(2.0, 4.0))
        kind = i % 3
        angle = float(rng.uniform(0, np.pi))
        if kind == 0:
            shape = bar(float(rng.uniform(0.5, 0.8)) * min(w, h), width, angle)
        elif kind == 1:
            shape = ring(float(rng.uniform(0.1, 0.2)) * min(w, h), width)
        else:
            shape = wire(float(rng.uniform(0.6, 0.9)) * min(w, h), width, angle,
                         amplitude=float(rng.uniform(4, 12)), period=float(rng.uniform(30, 70)))
        texture = tex.photo(rng, h, w, name=photos[i % len(photos)] if tex.photos else None,
                            tint=random_tint(rng, 0.4))
        objects.append(SceneObject(i + 1, shape, texture, _centre(rng, w, h, 0.25 * min(w, h)),
                                   _velocity(rng, 2), depth=float(rng.random())))
    return background, objects


def thin_on_grass(tex: Textures, rng, w, h) -> tuple[np.ndarray, list[SceneObject]]:
    """Bars, wires, a ring and a fence of parallel bars, 2-4 px wide, on a
    busy grass texture with its contrast stretched."""
    background = tex.photo(rng, h, w, name="grass" if tex.photos else None, tint=random_tint(rng, 0.3))
    background = np.clip(128 + 1.8 * (background - background.mean()), 0, 255)
    objects = []
    photos = ["astronaut", "coffee", "chelsea", "rocket"]
    side = min(w, h)
    for i, kind in enumerate(("bar", "wire", "ring", "fence", "bar", "wire")):
        width = float(rng.uniform(2.0, 4.0))
        angle = float(rng.uniform(0, np.pi))
        if kind == "bar":
            shape = bar(float(rng.uniform(0.5, 0.8)) * side, width, angle)
        elif kind == "ring":
            shape = ring(float(rng.uniform(0.12, 0.2)) * side, width)
        elif kind == "wire":
            shape = wire(float(rng.uniform(0.6, 0.9)) * side, width, angle,
                         amplitude=float(rng.uniform(4, 12)), period=float(rng.uniform(30, 70)))
        else:
            shape = fence(float(rng.uniform(0.3, 0.45)) * side, width, angle, bars=int(rng.integers(4, 7)),
                          spacing=float(rng.uniform(9, 14)))
        texture = tex.photo(rng, h, w, name=photos[i % len(photos)] if tex.photos else None,
                            tint=random_tint(rng, 0.4))
        objects.append(SceneObject(i + 1, shape, texture, _centre(rng, w, h, 0.25 * side),
                                   _velocity(rng, 2), depth=float(rng.random())))
    return background, objects


def low_contrast(tex: Textures, rng, w, h) -> tuple[np.ndarray, list[SceneObject]]:
    """Objects cut from the same kind of texture as the background, told apart
    only by a colour gain of about 7 %."""
    name = "grass" if tex.photos else None
    tint = random_tint(rng, 0.2)
    background = tex.photo(rng, h, w, name=name, tint=tint)
    objects = []
    for i in range(4):
        gain = np.ones(3)
        gain[i % 3] = 1.07 if i < 3 else 0.93
        texture = tex.photo(rng, h, w, name=name, tint=tint * gain)
        r = float(rng.uniform(0.12, 0.2)) * min(w, h)
        shape = blob(r, rng) if i % 2 else ellipse(r * 1.3, r * 0.8, float(rng.uniform(0, np.pi)))
        objects.append(SceneObject(i + 1, shape, texture, _centre(rng, w, h, r * 1.3),
                                   _velocity(rng, 3), depth=float(rng.random())))
    return background, objects


def many_objects(tex: Textures, rng, w, h, count: int = 24) -> tuple[np.ndarray, list[SceneObject]]:
    """Many small objects on a grid of cells, each moving within its cell."""
    background = tex.photo(rng, h, w, name="brick" if tex.photos else None, tint=random_tint(rng, 0.3))
    cols = int(np.ceil(np.sqrt(count * w / h)))
    rows = int(np.ceil(count / cols))
    cw, ch = w / cols, h / rows
    objects = []
    for i in range(count):
        cx, cy = (i % cols + 0.5) * cw, (i // cols + 0.5) * ch
        r = float(rng.uniform(0.28, 0.38)) * min(cw, ch)
        shape = ellipse(r, r * float(rng.uniform(0.6, 1.0)), float(rng.uniform(0, np.pi))) if i % 2 \
            else rectangle(r * 0.9, r * 0.7, float(rng.uniform(0, np.pi)))
        texture = tex.photo(rng, h, w, tint=random_tint(rng, 0.6))
        objects.append(SceneObject(i + 1, shape, texture, (cx, cy), _velocity(rng, 1), depth=float(i)))
    return background, objects


def entering_leaving(tex: Textures, rng, w, h) -> tuple[np.ndarray, list[SceneObject]]:
    """Objects that cross the frame border: some come in, some go out."""
    background = tex.photo(rng, h, w, name="coffee" if tex.photos else None)
    objects = []
    speed = max(6, w // 30)
    r = 0.16 * min(w, h)
    # The first one is wholly outside in frame 0.
    starts = [(-1.3 * r, 0.3 * h, (speed, 1)), (w + 0.4 * r, 0.7 * h, (-speed, -1)),
              (0.85 * w, 0.5 * h, (speed, 0)), (0.5 * w, 0.1 * h, (1, -speed // 2)),
              (0.4 * w, 0.6 * h, (-2, 2))]
    for i, (x, y, v) in enumerate(starts):
        shape = blob(r, rng) if i % 2 else ellipse(r * 1.2, r * 0.8, float(rng.uniform(0, np.pi)))
        texture = tex.photo(rng, h, w, tint=random_tint(rng, 0.5))
        objects.append(SceneObject(i + 1, shape, texture, (x, y), v, depth=float(rng.random())))
    return background, objects


def ordinary(tex: Textures, rng, w, h, count: int | None = None,
             speed: int | None = None) -> tuple[np.ndarray, list[SceneObject]]:
    """3 to 8 large textured objects that move and hide each other, at most
    `speed` px per frame along each axis (default: a hundredth of the width,
    at least 2)."""
    background = tex.photo(rng, h, w, tint=random_tint(rng, 0.3))
    count = count or int(rng.integers(3, 9))
    objects = []
    for i in range(count):
        r = float(rng.uniform(0.12, 0.25)) * min(w, h)
        kind = i % 3
        if kind == 0:
            shape = ellipse(r * 1.2, r * 0.8, float(rng.uniform(0, np.pi)))
        elif kind == 1:
            shape = rectangle(r, r * 0.7, float(rng.uniform(0, np.pi)))
        else:
            shape = blob(r, rng)
        texture = tex.photo(rng, h, w, tint=random_tint(rng, 0.5))
        objects.append(SceneObject(i + 1, shape, texture, _centre(rng, w, h, r),
                                   _velocity(rng, speed or max(2, w // 100)), depth=float(rng.random())))
    return background, objects


# --- the set of sequences ------------------------------------------------------

@dataclasses.dataclass
class SequencePlan:
    name: str
    scene_class: str
    builder: Callable
    width: int
    height: int
    seed: int
    kwargs: dict = dataclasses.field(default_factory=dict)
    frames: int | None = None  # None: the set's frame count
    wrong_fraction: float = WRONG_LABEL_FRACTION  # of the tracks
    clicks: bool = False  # clicks instead of tracks
    # The methods (result folder names, see run.py) that run on the sequence
    # unless --methods names them; None for all.
    methods: tuple[str, ...] | None = None


# The scene class of the 640 x 480 sequence that the timing line reports.
TIMING_CLASS = "ordinary 640x480"
# The long sequence: the program's recommended mode (frame after frame and
# frame by frame) and the random walker only, so that the whole evaluation
# stays within minutes.
LONG_METHODS = ("recommended", "frame-by-frame", "walker")


def full_set(frames: int = 3) -> tuple[list[SequencePlan], int]:
    plans = [
        SequencePlan("thin", "thin structures", thin_structures, 320, 240, 101),
        SequencePlan("thin2", "thin structures", thin_on_grass, 320, 240, 109, wrong_fraction=0.0),
        SequencePlan("lowcontrast", "low contrast", low_contrast, 320, 240, 102),
        SequencePlan("many", "24 small objects", many_objects, 320, 240, 103),
        SequencePlan("entering", "entering/leaving", entering_leaving, 320, 240, 104),
        SequencePlan("ordinary1", "ordinary", ordinary, 320, 240, 105),
        SequencePlan("ordinary2", "ordinary", ordinary, 320, 240, 106),
        SequencePlan("oddsize", "odd size 317x239", ordinary, 317, 239, 107),
        SequencePlan("large", TIMING_CLASS, ordinary, 640, 480, 108, {"count": 5}),
        SequencePlan("clicks", "clicks", ordinary, 320, 240, 110, {"count": 5}, wrong_fraction=0.0, clicks=True),
        # A small frame taller than wide, as a cropped portrait: few pixels
        # per object, and rows longer than columns for once.
        SequencePlan("portrait", "small portrait 120x160", ordinary, 120, 160, 113, {"count": 4}),
        SequencePlan("wrong", "wrong tracks 5 %", ordinary, 320, 240, 111, {"count": 8}, wrong_fraction=0.05),
        SequencePlan("long", "long 640x480", ordinary, 640, 480, 112, {"count": 5, "speed": 3}, frames=20,
                     methods=LONG_METHODS),
    ]
    return plans, frames


def tiny_set() -> tuple[list[SequencePlan], int]:
    plans = [
        SequencePlan("thin", "thin structures", thin_structures, 96, 72, 201),
        SequencePlan("ordinary", "ordinary", ordinary, 97, 71, 202, {"count": 3}),
        SequencePlan("clicks", "clicks", ordinary, 80, 60, 203, {"count": 4}, wrong_fraction=0.0, clicks=True),
    ]
    return plans, 2


def build(plan: SequencePlan, frames: int, textures: Textures) -> Sequence:
    """The sequence of a plan; `frames` unless the plan sets its own count."""
    rng = np.random.default_rng(plan.seed)
    background, objects = plan.builder(textures, rng, plan.width, plan.height, **plan.kwargs)
    assert all(o.label < 100 for o in objects), "label numbers must stay below 100"
    return Sequence(plan.name, plan.scene_class, plan.width, plan.height, plan.frames or frames, background, objects,
                    plan.seed, plan.wrong_fraction, plan.clicks)


# --- tracks --------------------------------------------------------------------

@dataclasses.dataclass
class Track:
    label: int
    points: list[tuple[float, float, int]]


def make_tracks(seq: Sequence, truths: list[np.ndarray]) -> list[Track]:
    """Tracks on a jittered grid that follow their object while it is visible;
    a share seq.wrong_fraction of them carries a wrong label."""
    rng = np.random.default_rng(seq.seed + 7919)
    h, w = seq.height, seq.width
    gy, gx = np.mgrid[TRACK_SPACING / 2:h:TRACK_SPACING, TRACK_SPACING / 2:w:TRACK_SPACING]
    grid = np.stack([gx.ravel(), gy.ravel()], axis=1)
    grid = grid + rng.uniform(-0.3, 0.3, size=grid.shape) * TRACK_SPACING

    tracks: list[Track] = []
    active: list[tuple[Track, float, float]] = []  # track, true x, true y
    for t, truth in enumerate(truths):
        # Continue the tracks whose point is still visible on its object.
        still = []
        for track, x, y in active:
            vx, vy = seq.label_step(track.label, t)
            x, y = x + vx, y + vy
            ix, iy = int(x), int(y)
            if 0 <= ix < w and 0 <= iy < h and truth[iy, ix] == track.label:
                track.points.append(_observe(rng, x, y, t))
                still.append((track, x, y))
        active = still
        # Start tracks where the grid has none nearby.
        taken = np.array([(x, y) for _, x, y in active]) if active else np.zeros((0, 2))
        for x, y in grid:
            if not (0 <= x < w and 0 <= y < h):
                continue
            if len(taken) and np.min(np.max(np.abs(taken - (x, y)), axis=1)) < TRACK_SPACING / 2:
                continue
            track = Track(int(truth[int(y), int(x)]), [_observe(rng, x, y, t)])
            tracks.append(track)
            active.append((track, x, y))

    labels = sorted({0} | {o.label for o in seq.objects})
    for track in tracks:
        if rng.random() < seq.wrong_fraction:
            track.label = int(rng.choice([l for l in labels if l != track.label]))
    return tracks


def interior(mask: np.ndarray, margin: int) -> np.ndarray:
    """The pixels of `mask` whose (2 * margin + 1)-pixel square lies wholly in
    the mask; outside the image counts as outside the mask."""
    padded = np.pad(mask, margin, constant_values=False)
    inner = ~score.dilate(~padded, margin)
    return inner[margin:margin + mask.shape[0], margin:margin + mask.shape[1]]


def make_clicks(seq: Sequence, truths: list[np.ndarray]) -> list[Track]:
    """Clicks as a person places them, new in every frame: 1 to 3 per label
    present in the frame, at random among the pixels at least CLICK_MARGIN px
    inside the label's region (nearer its boundary only where the region has
    no such pixel).  Each click is a track of length 1 at a random position
    within its pixel."""
    rng = np.random.default_rng(seq.seed + 104729)
    clicks: list[Track] = []
    for t, truth in enumerate(truths):
        for label in np.unique(truth):
            region = truth == label
            for margin in range(CLICK_MARGIN, -1, -1):
                candidates = np.argwhere(interior(region, margin))
                if len(candidates):
                    break
            count = int(rng.integers(CLICKS_PER_LABEL[0], CLICKS_PER_LABEL[1] + 1))
            chosen = rng.choice(len(candidates), size=min(count, len(candidates)), replace=False)
            for y, x in candidates[np.sort(chosen)]:
                # Strictly inside the pixel: the track reader refuses x = 0 and y = 0.
                fx, fy = rng.uniform(0.1, 0.9, size=2)
                clicks.append(Track(int(label), [(x + fx, y + fy, t)]))
    return clicks


def _observe(rng: np.random.Generator, x: float, y: float, t: int) -> tuple[float, float, int]:
    return (x + rng.normal(0, POSITION_NOISE), y + rng.normal(0, POSITION_NOISE), t)


def write_tracks(path: Path, frames: int, tracks: list[Track]) -> None:
    lines = [f"{frames}", f"{len(tracks)}"]
    for track in tracks:
        lines.append(f"{track.label} {len(track.points)}")
        lines.extend(f"{x:.2f} {y:.2f} {t}" for x, y, t in track.points)
    path.write_text("\n".join(lines) + "\n")


# --- writing a sequence ----------------------------------------------------------

def write_sequence(seq: Sequence, folder: Path) -> None:
    """frames/frame_NNN.ppm, truth.npy (frames x H x W object numbers) and
    tracks.dat under `folder`."""
    (folder / "frames").mkdir(parents=True, exist_ok=True)
    truths = []
    for t in range(seq.frames):
        image, truth = seq.render(t)
        pnm.write(folder / "frames" / f"frame_{t:03d}.ppm", image)
        truths.append(truth)
    np.save(folder / "truth.npy", np.stack(truths))
    tracks = make_clicks(seq, truths) if seq.clicks else make_tracks(seq, truths)
    write_tracks(folder / "tracks.dat", seq.frames, tracks)
