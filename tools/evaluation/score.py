"""Scores of one predicted label image against the ground truth.

Label images are 2-D integer arrays of object numbers; a prediction may hold
numbers that the truth lacks (for instance -1 for a colour that decodes to no
label), which count as wrong.  Needs only numpy.
"""

from __future__ import annotations

import dataclasses

import numpy as np

# Tolerance of the boundary F-score, in pixels, as a Chebyshev distance: a
# boundary pixel is matched when the other map has a boundary pixel within the
# (2 * tolerance + 1)-pixel square around it.
BOUNDARY_TOLERANCE = 2


@dataclasses.dataclass
class FrameScore:
    miou: float
    accuracy: float
    boundary_f: float
    labels: int = 0  # labels present in the truth
    labels_lost: int = 0  # of those, the ones without any pixel in the prediction


def mean_iou(pred: np.ndarray, truth: np.ndarray) -> float:
    """Mean over the labels present in the truth of intersection / union."""
    ious = []
    for label in np.unique(truth):
        p, t = pred == label, truth == label
        ious.append(np.count_nonzero(p & t) / np.count_nonzero(p | t))
    return float(np.mean(ious))


def labels_lost(pred: np.ndarray, truth: np.ndarray) -> int:
    """How many labels of the truth the prediction gives no pixel at all."""
    return len(set(np.unique(truth).tolist()) - set(np.unique(pred).tolist()))


def flicker(preds: list[np.ndarray], truths: list[np.ndarray]) -> tuple[int, int]:
    """Label changes where the truth stays: over every pair of consecutive
    frames, (pixels whose predicted label changes while the true one does not,
    pixels whose true label does not change).  Their quotient is the share of
    flickering pixels; pixels where the truth changes are left out."""
    changed = stable = 0
    for t in range(len(truths) - 1):
        same = truths[t] == truths[t + 1]
        stable += int(np.count_nonzero(same))
        changed += int(np.count_nonzero(same & (preds[t] != preds[t + 1])))
    return changed, stable


def pixel_accuracy(pred: np.ndarray, truth: np.ndarray) -> float:
    return float(np.mean(pred == truth))


def boundary_map(labels: np.ndarray) -> np.ndarray:
    """Pixels with a 4-neighbour (inside the image) of a different label."""
    b = np.zeros(labels.shape, dtype=bool)
    dx = labels[:, 1:] != labels[:, :-1]
    dy = labels[1:, :] != labels[:-1, :]
    b[:, 1:] |= dx
    b[:, :-1] |= dx
    b[1:, :] |= dy
    b[:-1, :] |= dy
    return b


def dilate(mask: np.ndarray, radius: int) -> np.ndarray:
    """Binary dilation by a (2 * radius + 1) square."""
    out = mask.copy()
    h, w = mask.shape
    for dy in range(-radius, radius + 1):
        for dx in range(-radius, radius + 1):
            src = mask[max(0, -dy):h - max(0, dy), max(0, -dx):w - max(0, dx)]
            out[max(0, dy):h - max(0, -dy), max(0, dx):w - max(0, -dx)] |= src
    return out


def boundary_f(pred: np.ndarray, truth: np.ndarray, tolerance: int = BOUNDARY_TOLERANCE) -> float:
    """F = 2PR / (P + R): P is the fraction of predicted boundary pixels within
    `tolerance` of a true one, R the fraction of true boundary pixels within
    `tolerance` of a predicted one.  A map without boundary pixels has
    precision (or recall) 1; two maps without any give F = 1."""
    bp, bt = boundary_map(pred), boundary_map(truth)
    n_pred, n_true = np.count_nonzero(bp), np.count_nonzero(bt)
    precision = np.count_nonzero(bp & dilate(bt, tolerance)) / n_pred if n_pred else 1.0
    recall = np.count_nonzero(bt & dilate(bp, tolerance)) / n_true if n_true else 1.0
    if precision + recall == 0:
        return 0.0
    return float(2 * precision * recall / (precision + recall))


def score_frame(pred: np.ndarray, truth: np.ndarray) -> FrameScore:
    if pred.shape != truth.shape:
        raise ValueError(f"prediction has shape {pred.shape}, the truth {truth.shape}")
    pred = pred.astype(np.int32)
    truth = truth.astype(np.int32)
    return FrameScore(mean_iou(pred, truth), pixel_accuracy(pred, truth), boundary_f(pred, truth),
                      len(np.unique(truth)), labels_lost(pred, truth))


def decode_colours(image: np.ndarray, palette: np.ndarray) -> np.ndarray:
    """Label numbers of a colour-coded H x W x 3 image: the index of the
    palette entry with exactly the pixel's colour, -1 where none has it."""
    codes = (image[..., 0].astype(np.int64) << 16) | (image[..., 1].astype(np.int64) << 8) | image[..., 2]
    pal = (palette[:, 0].astype(np.int64) << 16) | (palette[:, 1].astype(np.int64) << 8) | palette[:, 2]
    order = np.argsort(pal)
    pos = np.clip(np.searchsorted(pal[order], codes), 0, len(pal) - 1)
    found = pal[order][pos] == codes
    return np.where(found, order[pos], -1).astype(np.int32)
