"""Region and boundary measures of a video segmentation, per object.

J is the intersection over union of an object's predicted and true masks. F
is the F-measure of their boundaries: a pixel is on a mask's boundary when it
differs from its right, lower or lower-right neighbour (outside the image
counts as equal, so the image's edge is no boundary), and a boundary pixel is
matched when the other mask has a boundary pixel within a disk of radius
ceil(0.008 x image diagonal).  An object missing from both masks of a frame
scores J = F = 1 there.

A sequence's scores leave out its first frame (the one given) and its last;
each object's scores are averaged over the remaining frames, then over the
objects (label 0, the background, is none).  J decay is the mean J over the
first quarter of those frames minus that over the last quarter.

Needs only numpy.
"""

from __future__ import annotations

import dataclasses
import math

import numpy as np

# Radius of the boundary match, as a share of the image diagonal.
TOLERANCE_SHARE = 0.008


def boundary(mask: np.ndarray) -> np.ndarray:
    """Pixels of a boolean mask that differ from their right, lower or
    lower-right neighbour; a neighbour outside the image is taken as equal."""
    b = np.zeros(mask.shape, dtype=bool)
    b[:, :-1] |= mask[:, :-1] != mask[:, 1:]
    b[:-1, :] |= mask[:-1, :] != mask[1:, :]
    b[:-1, :-1] |= mask[:-1, :-1] != mask[1:, 1:]
    return b


def tolerance(shape: tuple[int, ...]) -> int:
    return math.ceil(TOLERANCE_SHARE * math.hypot(shape[0], shape[1]))


def dilate_disk(mask: np.ndarray, radius: int) -> np.ndarray:
    """Binary dilation by the disk of pixels with dx² + dy² <= radius²."""
    out = mask.copy()
    h, w = mask.shape
    for dy in range(-radius, radius + 1):
        for dx in range(-radius, radius + 1):
            if dx * dx + dy * dy > radius * radius or (dx, dy) == (0, 0):
                continue
            src = mask[max(0, -dy):h - max(0, dy), max(0, -dx):w - max(0, dx)]
            out[max(0, dy):h - max(0, -dy), max(0, dx):w - max(0, -dx)] |= src
    return out


def region_j(pred: np.ndarray, truth: np.ndarray) -> float:
    """Intersection over union of two boolean masks; 1 when both are empty."""
    union = np.count_nonzero(pred | truth)
    return np.count_nonzero(pred & truth) / union if union else 1.0


def boundary_f(pred: np.ndarray, truth: np.ndarray, radius: int | None = None) -> float:
    """Boundary F-measure of two boolean masks: 1 when neither has a boundary,
    0 when only one has."""
    radius = tolerance(truth.shape) if radius is None else radius
    bp, bt = boundary(pred), boundary(truth)
    n_pred, n_true = np.count_nonzero(bp), np.count_nonzero(bt)
    if n_pred == 0 or n_true == 0:
        return 1.0 if n_pred == n_true else 0.0
    precision = np.count_nonzero(bp & dilate_disk(bt, radius)) / n_pred
    recall = np.count_nonzero(bt & dilate_disk(bp, radius)) / n_true
    if precision + recall == 0:
        return 0.0
    return 2 * precision * recall / (precision + recall)


@dataclasses.dataclass
class SequenceJF:
    objects: list[int]
    j_frames: np.ndarray  # scored frames x objects
    f_frames: np.ndarray

    @property
    def j(self) -> float:
        return float(self.j_frames.mean(axis=0).mean())

    @property
    def f(self) -> float:
        return float(self.f_frames.mean(axis=0).mean())

    @property
    def jf(self) -> float:
        return (self.j + self.f) / 2

    @property
    def j_decay(self) -> float:
        """Mean J over the first quarter of the scored frames minus that over
        the last quarter (at least one frame each)."""
        quarter = max(1, len(self.j_frames) // 4)
        return float(self.j_frames[:quarter].mean() - self.j_frames[-quarter:].mean())


def score_sequence(preds: list[np.ndarray], truths: list[np.ndarray] | np.ndarray,
                   objects: list[int] | None = None) -> SequenceJF:
    """J and F of every object in every frame but the first and the last.
    `objects` defaults to the non-zero labels of the truth in any frame."""
    if len(preds) != len(truths):
        raise ValueError(f"{len(preds)} predicted frames for {len(truths)} true ones")
    if len(truths) < 3:
        raise ValueError("a sequence needs 3 frames at least: the first and the last are not scored")
    if objects is None:
        objects = sorted(int(v) for v in np.unique(np.asarray(truths)) if v != 0)
    if not objects:
        raise ValueError("the truth has no object")
    radius = tolerance(truths[0].shape)
    j_frames, f_frames = [], []
    for pred, truth in zip(preds[1:-1], truths[1:-1]):
        if pred.shape != truth.shape:
            raise ValueError(f"prediction has shape {pred.shape}, the truth {truth.shape}")
        js, fs = [], []
        for label in objects:
            p, t = pred == label, truth == label
            js.append(region_j(p, t))
            fs.append(boundary_f(p, t, radius))
        j_frames.append(js)
        f_frames.append(fs)
    return SequenceJF(list(objects), np.array(j_frames), np.array(f_frames))
