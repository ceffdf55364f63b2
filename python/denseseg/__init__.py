"""Dense segmentation of video frames from labelled point tracks.

The functions run the engine of the ``denseseg`` program on numpy arrays: the
same kernels, on the GPU when the package was built with CUDA and one is
present, otherwise on the CPU.  A frame segmented here gives exactly the label
map the program computes with the same settings.

Examples
--------
>>> import denseseg
>>> frame = denseseg.read_image("frame_000.ppm")
>>> seeds, label_ids = denseseg.seeds_from_tracks("tracks.dat", 0, frame.shape[:2])
>>> labels = denseseg.segment(frame, seeds, num_labels=len(label_ids), lam=10.0, iterations=300)
>>> picture = denseseg.render(labels, label_ids)
"""

from __future__ import annotations

import math
import numbers
import operator
import os
from typing import Optional, Sequence, Tuple, Union

import numpy as np

from . import _core

__all__ = [
    "MAX_LABELS",
    "RECOMMENDED",
    "TRACK_LABEL_LIMIT",
    "backend",
    "read_image",
    "render",
    "seeds_from_tracks",
    "segment",
    "write_tracks",
]

#: Most labels one segmentation can have.
MAX_LABELS: int = _core.MAX_LABELS
#: Track labels run from 0 to ``TRACK_LABEL_LIMIT - 1`` (one palette colour each).
TRACK_LABEL_LIMIT: int = _core.TRACK_LABEL_LIMIT

#: The recommended settings (those of ``configs/recommended.cfg``) as keyword
#: arguments: ``denseseg.segment(image, seeds, **denseseg.RECOMMENDED)``.
RECOMMENDED: dict = {
    "lam": 100.0,
    "iterations": 300,
    "model": 1,
    "data_term": "walker",
    "data_weight": 1.0,
    "walker_beta": 500.0,
    "walker_iterations": 400,
    "walker_tolerance": 0.003,
    "seed_check_radius": 20,
    "seed_check_share": 0.25,
    "seed_check_beta": 50.0,
}

_INT32_MAX = 2**31 - 1
_DATA_TERMS = {"seeds": 0, "walker": 1}

PathLike = Union[str, "os.PathLike[str]"]


# --- argument checks ---------------------------------------------------------


def _integer(name: str, value, low: int, high: int) -> int:
    if isinstance(value, (bool, np.bool_)):
        raise TypeError(f"{name} must be an integer, got {value!r}")
    try:
        number = operator.index(value)
    except TypeError:
        raise TypeError(f"{name} must be an integer, got {type(value).__name__}") from None
    if not low <= number <= high:
        raise ValueError(f"{name} must be from {low} to {high}, got {number}")
    return number


def _real(name: str, value, low: float = -math.inf, high: float = math.inf) -> float:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a real number, got {type(value).__name__}")
    # The engine computes in float, and checks its limits in float too.
    number = float(np.float32(value))
    if not math.isfinite(number) or not low <= number <= high:
        raise ValueError(f"{name} must be a finite number from {low:g} to {high:g}, got {float(value)!r}")
    return number


def _image(image, name: str = "image") -> np.ndarray:
    array = np.asarray(image)
    if array.dtype not in (np.uint8, np.float32):
        raise TypeError(f"{name} must be uint8 or float32 (values 0 to 255), got {array.dtype}")
    if array.ndim != 3 or array.shape[2] != 3:
        raise ValueError(f"{name} must be H x W x 3 (a colour image), got shape {array.shape}")
    if array.shape[0] == 0 or array.shape[1] == 0:
        raise ValueError(f"{name} must not be empty, got shape {array.shape}")
    if array.dtype == np.float32 and not np.isfinite(array).all():
        raise ValueError(f"{name} must hold finite values")
    return np.ascontiguousarray(array, dtype=np.float32)


def _indices(name: str, array, shape: Optional[Tuple[int, int]]) -> np.ndarray:
    array = np.asarray(array)
    if array.dtype.kind not in "iu":
        raise TypeError(f"{name} must hold integers, got {array.dtype}")
    if shape is not None and array.shape != shape:
        raise ValueError(f"{name} must be 2-D with the image's height and width {shape}, got {array.shape}")
    if array.ndim != 2:
        raise ValueError(f"{name} must be 2-D (height, width), got shape {array.shape}")
    if array.size == 0:
        raise ValueError(f"{name} must not be empty, got shape {array.shape}")
    return array


# --- functions ----------------------------------------------------------------


def backend() -> str:
    """The backend the engine runs on in this process.

    Returns
    -------
    str
        ``"cuda"`` (a GPU) or ``"host"`` (CPU threads).  A package built with
        CUDA uses the GPU when one is present; the environment variable
        ``VELA_DEVICE=host`` or ``VELA_DEVICE=cuda`` forces a choice.
    """
    return _core.backend()


def read_image(path: PathLike) -> np.ndarray:
    """Reads a colour image file as the program reads its frames.

    Parameters
    ----------
    path : str or os.PathLike
        A binary PPM file (``.ppm``).

    Returns
    -------
    numpy.ndarray
        H x W x 3 float32, red, green and blue from 0 to 255.

    Raises
    ------
    FileNotFoundError
        The file cannot be opened.
    ValueError
        The file is not a readable colour image.
    """
    path = os.fspath(path)
    status, message, image = _core.read_image(path)
    if status == 1:
        raise FileNotFoundError(message)
    if status != 0:
        raise ValueError(message)
    return image


def seeds_from_tracks(path: PathLike, frame: int, shape: Tuple[int, int]) -> Tuple[np.ndarray, list]:
    """The seeds of one frame, read from a track file as the program reads them.

    Every point of `frame` that lies strictly inside the image (0 < x < width,
    0 < y < height) marks pixel (int(x), int(y)) with its label index; a later
    point on the same pixel wins.

    Parameters
    ----------
    path : str or os.PathLike
        The track file.
    frame : int
        The frame number, from 0.
    shape : tuple of int
        ``(height, width)`` of the frame.

    Returns
    -------
    seeds : numpy.ndarray
        int32 array of `shape`: the label index of every seeded pixel, -1
        elsewhere.
    label_ids : list of int
        The track label of each index: index k stands for ``label_ids[k]``,
        in the order in which the labels were first met.  Pass
        ``num_labels=len(label_ids)`` to :func:`segment` to segment with every
        label the program uses, also one whose points were all overwritten.

    Raises
    ------
    FileNotFoundError
        The file cannot be opened.
    ValueError
        The file is malformed, or `frame` is not below its frame count.
    """
    path = os.fspath(path)
    frame = _integer("frame", frame, 0, _INT32_MAX)
    try:
        height, width = shape
    except (TypeError, ValueError):
        raise TypeError(f"shape must be (height, width), got {shape!r}") from None
    height = _integer("shape[0] (height)", height, 1, _INT32_MAX)
    width = _integer("shape[1] (width)", width, 1, _INT32_MAX)
    status, message, seeds, label_ids = _core.read_track_frame(path, frame, height, width)
    if status == 1:
        raise FileNotFoundError(f"track file {path} cannot be opened")
    if status == 2:
        raise ValueError(f"track file {path}: frame {frame} is not below the file's frame count")
    if status == 3:
        raise ValueError(message)
    return seeds, label_ids


def segment(
    image,
    seeds,
    *,
    lam: float = 10.0,
    iterations: int = 100,
    model: int = 1,
    diffusivity: int = 0,
    alpha: float = 0.5,
    data_term: str = "seeds",
    data_weight: float = 1.0,
    walker_beta: float = 500.0,
    walker_iterations: int = 400,
    walker_tolerance: float = 1e-3,
    seed_check_radius: int = 0,
    seed_check_share: float = 0.25,
    seed_check_beta: float = 50.0,
    num_labels: Optional[int] = None,
    return_relaxed: bool = False,
):
    """Segments a colour image from sparse seeds.

    Builds one cost layer per label from the seeds and minimises the
    multi-label total-variation energy with the primal-dual solver, as the
    program does for one frame.

    Parameters
    ----------
    image : array_like
        H x W x 3, uint8 or float32 with values 0 to 255 (red, green, blue).
    seeds : array_like
        H x W integers: a label index 0 to L - 1 where a seed lies, a negative
        value elsewhere.
    lam : float, optional
        Weight of the data term (configuration key ``lambda``).
    iterations : int, optional
        Primal-dual iterations (``maxiter``).
    model : int, optional
        0 plain TV, 1 weighted TV, 2 weighted TV with the fused step,
        3 anisotropic TV, 4 anisotropic TV with exponential weights
        (``model``).  Models 3 and 4 write ``imageGradient.ppm`` into the
        working directory, as the program does.
    diffusivity : int, optional
        Edge weights of models 1 and 2: 0 standard, 1 exponential
        (``diffusivity``).
    alpha : float, optional
        Parameter of the exponential diffusivity, 1e-6 to 1e6 (``alpha``).
    data_term : {"seeds", "walker"}, optional
        Where the data cost comes from (``dataTerm``).
    data_weight : float, optional
        Weight of the walker cost against the seed cost, 0 to 1e6
        (``dataWeight``).
    walker_beta : float, optional
        How sharply colour edges cut the walker's graph, 0 to 1e6
        (``walkerBeta``).
    walker_iterations : int, optional
        Most conjugate-gradient iterations per label, 0 to 100000
        (``walkerIterations``).
    walker_tolerance : float, optional
        Relative residual at which they stop, 0 to 1 (``walkerTolerance``).
    seed_check_radius : int, optional
        Before the cost map is built, drop every seed whose label holds less
        than `seed_check_share` of the colour-weighted votes of the seeds
        within this many pixels, 0 to 100; 0 keeps every seed
        (``seedCheckRadius``).
    seed_check_share : float, optional
        Share of the votes a seed's label needs, 0 to 1 (``seedCheckShare``).
    seed_check_beta : float, optional
        How much a colour difference weakens a vote, 0 to 1e6
        (``seedCheckBeta``).
    num_labels : int, optional
        L, the number of labels, from 1 to :data:`MAX_LABELS`; by default the
        largest seed index plus one.
    return_relaxed : bool, optional
        Also return the relaxed labelling of the last iteration.

    Returns
    -------
    labels : numpy.ndarray
        H x W int32: the label index of every pixel (the hard labelling).
    relaxed : numpy.ndarray
        L x H x W float32, only with ``return_relaxed=True``.

    Raises
    ------
    TypeError
        An array of the wrong type, or a parameter that is not a number.
    ValueError
        A wrong shape, an empty image, a seed index of L or more labels than
        the engine supports, or a parameter out of range.
    RuntimeError
        The engine failed (for example, out of device memory).

    Examples
    --------
    >>> import numpy as np, denseseg
    >>> image = np.zeros((40, 60, 3), np.uint8); image[:, 30:] = 200
    >>> seeds = np.full((40, 60), -1); seeds[10:30, 2:8] = 0; seeds[10:30, 52:58] = 1
    >>> labels = denseseg.segment(image, seeds, iterations=300)
    >>> int(labels[0, 0]), int(labels[0, 59])
    (0, 1)
    """
    frame = _image(image)
    indices = _indices("seeds", seeds, frame.shape[:2])
    largest = int(indices.max())
    if largest >= MAX_LABELS:
        raise ValueError(
            f"seeds holds label index {largest}; the engine supports at most {MAX_LABELS} labels "
            f"(indices 0 to {MAX_LABELS - 1})"
        )
    if num_labels is None:
        if largest < 0:
            raise ValueError("seeds holds no label: every value is negative")
        num_labels = largest + 1
    else:
        num_labels = _integer("num_labels", num_labels, 1, MAX_LABELS)
        if largest >= num_labels:
            raise ValueError(f"seeds holds label index {largest}, not below num_labels={num_labels}")
    if data_term not in _DATA_TERMS:
        raise ValueError(f'data_term must be "seeds" or "walker", got {data_term!r}')
    if not isinstance(return_relaxed, (bool, np.bool_)):
        raise TypeError(f"return_relaxed must be a bool, got {type(return_relaxed).__name__}")
    # Negative values all mean "no seed"; the rest already fit in int32.
    indices = np.ascontiguousarray(np.where(indices < 0, -1, indices), dtype=np.int32)
    return _core.segment(
        frame,
        indices,
        num_labels,
        _real("lam", lam),
        _integer("iterations", iterations, 0, _INT32_MAX),
        _integer("model", model, 0, 4),
        _integer("diffusivity", diffusivity, 0, 1),
        _real("alpha", alpha, 1e-6, 1e6),
        _DATA_TERMS[data_term],
        _real("data_weight", data_weight, 0.0, 1e6),
        _real("walker_beta", walker_beta, 0.0, 1e6),
        _integer("walker_iterations", walker_iterations, 0, 100000),
        _real("walker_tolerance", walker_tolerance, 0.0, 1.0),
        _integer("seed_check_radius", seed_check_radius, 0, 100),
        _real("seed_check_share", seed_check_share, 0.0, 1.0),
        _real("seed_check_beta", seed_check_beta, 0.0, 1e6),
        bool(return_relaxed),
    )


def render(labels, label_ids: Sequence[int], image=None, alpha: float = 0.4) -> np.ndarray:
    """The program's colour picture of a labelling, or its overlay on the image.

    Each label index k gets the palette colour of track label
    ``label_ids[k]``, so a label keeps its colour in every frame.  The bytes
    equal those of the program's ``_dense.ppm`` (without `image`) and
    ``_overlay.ppm`` (with `image` and ``alpha=0.4``).

    Parameters
    ----------
    labels : array_like
        H x W integers from 0 to ``len(label_ids) - 1``, as :func:`segment`
        returns them.
    label_ids : sequence of int
        Track label of each index, each 0 to ``TRACK_LABEL_LIMIT - 1``.
    image : array_like, optional
        H x W x 3, uint8 or float32 with values 0 to 255.  Given, the result
        is ``alpha * colour + (1 - alpha) * image``.
    alpha : float, optional
        Weight of the label colours in the overlay.

    Returns
    -------
    numpy.ndarray
        H x W x 3 uint8.

    Raises
    ------
    TypeError
        An array of the wrong type.
    ValueError
        A wrong shape, an index without a label, or a label without a colour.
    """
    frame = None if image is None else _image(image)
    indices = _indices("labels", labels, None if frame is None else frame.shape[:2])
    try:
        ids = [operator.index(i) for i in label_ids]
    except TypeError:
        raise TypeError("label_ids must be a sequence of integers") from None
    if not 1 <= len(ids) <= MAX_LABELS:
        raise ValueError(f"label_ids must hold 1 to {MAX_LABELS} labels, got {len(ids)}")
    for k, i in enumerate(ids):
        if not 0 <= i < TRACK_LABEL_LIMIT:
            raise ValueError(f"label_ids[{k}] = {i} has no colour; labels run from 0 to {TRACK_LABEL_LIMIT - 1}")
    low, high = int(indices.min()), int(indices.max())
    if low < 0 or high >= len(ids):
        raise ValueError(f"labels must hold indices from 0 to {len(ids) - 1} (one per label id), got {low} to {high}")
    alpha = _real("alpha", alpha)
    dense, overlay = _core.render(np.ascontiguousarray(indices, dtype=np.int32), ids, frame, alpha)
    return dense if overlay is None else overlay


def write_tracks(path: PathLike, points, visible, track_labels) -> None:
    """Writes a track file from the arrays of a point tracker.

    Parameters
    ----------
    path : str or os.PathLike
        The file to write.
    points : array_like
        T x N x 2 positions (x = column, y = row, in pixels) of N tracks in
        T frames.
    visible : array_like
        T x N booleans; a track's points are the frames in which it is
        visible.  Positions of hidden points are not read (they may be NaN).
    track_labels : array_like
        N integers from 0 to ``TRACK_LABEL_LIMIT - 1``: the object of each
        track.

    Raises
    ------
    TypeError
        An array of the wrong type.
    ValueError
        A wrong shape, a label out of range or a visible point that is not
        finite.
    OSError
        The file cannot be written.
    """
    path = os.fspath(path)
    xy = np.asarray(points)
    if xy.dtype.kind not in "iuf":
        raise TypeError(f"points must hold numbers, got {xy.dtype}")
    if xy.ndim != 3 or xy.shape[2] != 2:
        raise ValueError(f"points must be T x N x 2 (x, y), got shape {xy.shape}")
    frames, tracks = xy.shape[:2]
    seen = np.asarray(visible)
    if seen.dtype != np.bool_:
        raise TypeError(f"visible must hold booleans, got {seen.dtype}")
    if seen.shape != (frames, tracks):
        raise ValueError(f"visible must be T x N like points, {(frames, tracks)}, got {seen.shape}")
    ids = np.asarray(track_labels)
    if ids.dtype.kind not in "iu":
        raise TypeError(f"track_labels must hold integers, got {ids.dtype}")
    if ids.shape != (tracks,):
        raise ValueError(f"track_labels must hold N = {tracks} labels, got shape {ids.shape}")
    if tracks and (ids.min() < 0 or ids.max() >= TRACK_LABEL_LIMIT):
        raise ValueError(f"track_labels must be from 0 to {TRACK_LABEL_LIMIT - 1}")
    xy = xy.astype(np.float64)
    if not np.isfinite(xy[seen]).all():
        raise ValueError("points must be finite where visible")

    lines = [f"{frames}", f"{tracks}"]
    for n in range(tracks):
        ts = np.flatnonzero(seen[:, n])
        lines.append(f"{int(ids[n])} {ts.size}")
        lines.extend(f"{float(xy[t, n, 0])!r} {float(xy[t, n, 1])!r} {t}" for t in ts)
    with open(path, "w", encoding="ascii") as f:
        f.write("\n".join(lines) + "\n")
