"""Dense segmentation of video frames from labelled point tracks.

The functions run the engine of the ``denseseg`` program on numpy arrays: the
same kernels, on the GPU when the package was built with CUDA and one is
present, otherwise on the CPU.  A frame segmented here gives exactly the label
map the program computes with the same settings.

:func:`segment` turns sparse seeds into a labelling, with the recommended
settings (:data:`RECOMMENDED`) unless told otherwise; :func:`segment_video`
does it for the frames of a video from its tracks, each frame starting from
the one before; :func:`propagate` segments a video from one annotated frame
(or a few clicks) with tracks it makes from the optical flow; :func:`refine` cleans up per-label probabilities from any
other method with the engine's edge-weighted total variation.

Examples
--------
>>> import denseseg
>>> frame = denseseg.read_image("frame_000.ppm")
>>> seeds, label_ids = denseseg.seeds_from_tracks("tracks.dat", 0, frame.shape[:2])
>>> labels = denseseg.segment(frame, seeds, num_labels=len(label_ids))
>>> picture = denseseg.render(labels, label_ids)
"""

from __future__ import annotations

import collections.abc
import math
import numbers
import operator
import os
import re
from typing import Optional, Sequence, Tuple, Union

import numpy as np

from . import _core

__all__ = [
    "DEFINITION",
    "MAX_LABELS",
    "RECOMMENDED",
    "TRACK_LABEL_LIMIT",
    "UNLABELLED",
    "backend",
    "iter_segment_video",
    "propagate",
    "read_image",
    "refine",
    "render",
    "seeds_from_tracks",
    "segment",
    "segment_video",
    "write_tracks",
]

#: Most labels one segmentation can have.
MAX_LABELS: int = _core.MAX_LABELS
#: Track labels run from 0 to ``TRACK_LABEL_LIMIT - 1`` (one palette colour each).
TRACK_LABEL_LIMIT: int = _core.TRACK_LABEL_LIMIT

_INT32_MIN, _INT32_MAX = -(2**31), 2**31 - 1

PathLike = Union[str, "os.PathLike[str]"]

# --- settings -----------------------------------------------------------------

def _float32_value(value: float) -> float:
    # The shortest decimal that reads back as the same float: 0.003, not
    # 0.003000000026077032.
    return float(str(np.float32(value)))


# The engine's own table of settings (the one the program's configuration
# reader reads): configuration key -> (type letter, the engine's default).
_ENGINE_KEYS = {
    key: (letter, _float32_value(default) if letter == "f" else default)
    for letter, key, default in _core.setting_keys()
}


def _keywords(rows) -> tuple:
    """(keyword, configuration key, solver?) rows as (keyword, type letter,
    key, the engine's default, solver?)."""
    return tuple((keyword, _ENGINE_KEYS[key][0], key, _ENGINE_KEYS[key][1], solver) for keyword, key, solver in rows)


# Every setting the engine reads: keyword argument, key of its configuration
# entry, and whether the solver reads it (those are refine()'s keywords too);
# type letters and defaults come from the engine's table.  The keywords reach
# the engine as configuration entries, read by the program's own checked
# reader, so ranges and their messages are the program's.  A new key needs a
# row here and its documented keyword in segment() (and in refine() for a
# solver key).
_SETTINGS = _keywords((
    ("lam", "lambda", True),
    ("iterations", "maxiter", True),
    ("model", "model", True),
    ("diffusivity", "diffusivity", True),
    ("alpha", "alpha", True),
    ("edge_weights", "edgeWeights", True),
    ("cost_filter_radius", "costFilterRadius", True),
    ("cost_filter_epsilon", "costFilterEpsilon", True),
    ("solver_tolerance", "solverTolerance", True),
    ("lambda_seed_density", "lambdaSeedDensity", False),
    ("data_term", "dataTerm", False),
    ("data_weight", "dataWeight", False),
    ("walker_beta", "walkerBeta", False),
    ("sparse_walker_beta", "sparseWalkerBeta", False),
    ("walker_iterations", "walkerIterations", False),
    ("walker_tolerance", "walkerTolerance", False),
    ("seed_check_radius", "seedCheckRadius", False),
    ("seed_check_share", "seedCheckShare", False),
    ("seed_check_beta", "seedCheckBeta", False),
    ("seed_check_fit", "seedCheckFit", False),
    ("colour_weight", "colourWeight", False),
    ("hold_seeds", "holdSeeds", False),
))
# The settings of a video only (segment_video()), in the same form.
_VIDEO_SETTINGS = _keywords((
    ("temporal", "temporal", False),
    ("temporal_weight", "temporalWeight", False),
    ("temporal_motion_weight", "temporalMotionWeight", False),
    ("temporal_walker_radius", "temporalWalkerRadius", False),
    ("temporal_walker_tolerance", "temporalWalkerTolerance", False),
    ("temporal_walker_warm_start", "temporalWalkerWarmStart", False),
))
_ENTRY_OF = {keyword: (letter, key) for keyword, letter, key, _, _ in _SETTINGS + _VIDEO_SETTINGS}
_KEYWORD_OF = {key: keyword for keyword, _, key, _, _ in _SETTINGS + _VIDEO_SETTINGS}
_SOLVER_KEYWORDS = tuple(keyword for keyword, _, _, _, solver in _SETTINGS if solver)
# The engine reads "lambda" and "maxiter" unchecked, as the program always has;
# the package refuses negative iterations itself.
_PACKAGE_RANGES = {"iterations": (0, _INT32_MAX)}

#: The original mode as keyword arguments: every setting at the engine's own
#: default (λ 10 and 100 iterations, the solver's; model 1, the seeds alone as
#: data term, no seed check): ``denseseg.segment(image, seeds,
#: **denseseg.DEFINITION)``.
DEFINITION: dict = {keyword: default for keyword, _, _, default, _ in _SETTINGS}


def _read_recommended(rows) -> dict:
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "recommended.cfg")
    error, entries = _core.read_config(path)
    if error:
        raise ImportError(f"denseseg: the recommended settings cannot be read: {error}")
    found = {}
    for letter, key, value in entries:
        # Keys that are no setting (the folders, say) have no keyword.
        if key in _KEYWORD_OF:
            found[_KEYWORD_OF[key]] = _float32_value(value) if letter == "f" else value
    return {keyword: found[keyword] for keyword, *_ in rows if keyword in found}


#: The recommended settings as keyword arguments: those of
#: ``configs/recommended.cfg``, read from the copy installed with the package.
#: They are :func:`segment`'s defaults.
RECOMMENDED: dict = _read_recommended(_SETTINGS)

# segment()'s defaults: the recommended settings, the engine's own default for
# a key they leave out.
_DEFAULTS = {**DEFINITION, **RECOMMENDED}
# segment_video()'s: the same, with the recommended video settings.
_VIDEO_DEFAULTS = {
    **_DEFAULTS,
    **{keyword: default for keyword, _, _, default, _ in _VIDEO_SETTINGS},
    **_read_recommended(_VIDEO_SETTINGS),
}

# refine()'s defaults: the recommended solver settings (contrast-weighted
# edges, the guided filter of the costs, lambda 3, the tolerance).  Measured on
# scikit-image's random_walker probabilities over the evaluation's sequences
# (see the README): mean mIoU 0.878 against 0.810 for the per-pixel argmax and
# 0.830 for the engine's own solver settings at lambda 20.
_REFINE_DEFAULTS = {keyword: _DEFAULTS[keyword] for keyword in _SOLVER_KEYWORDS}


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


def _real(name: str, value) -> float:
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, numbers.Real):
        raise TypeError(f"{name} must be a real number, got {type(value).__name__}")
    # The engine computes in float; a larger value becomes infinite.
    with np.errstate(over="ignore"):
        number = float(np.float32(value))
    if not math.isfinite(number):
        raise ValueError(f"{name} must be a finite number (within float32), got {float(value)!r}")
    return number


def _entries(settings: dict) -> list:
    """The keyword values as configuration entries (type letter, key, value).

    The package checks the types; the program's reader checks the values and
    its message, naming the configuration key, is raised with the keyword."""
    entries = []
    for keyword, value in settings.items():
        letter, key = _ENTRY_OF[keyword]
        if letter == "i":
            value = _integer(keyword, value, *_PACKAGE_RANGES.get(keyword, (_INT32_MIN, _INT32_MAX)))
        elif letter == "f":
            value = _real(keyword, value)
        elif not isinstance(value, str):
            raise TypeError(f"{keyword} must be a string, got {type(value).__name__}")
        entries.append((letter, key, value))
    error = _core.settings_error(entries)
    if error:
        named = re.search(r'configuration key "([^"]*)"', error)
        keyword = _KEYWORD_OF.get(named.group(1)) if named else None
        raise ValueError(error if keyword is None else f"{error} (keyword argument {keyword})")
    return entries


_IMAGE_TYPES = (np.uint8, np.uint16, np.float32, np.float64)


def _image(image, name: str = "image") -> np.ndarray:
    """H x W x 3 float32 with values 0 to 255, as the engine takes images."""
    array = np.asarray(image)
    if array.dtype not in _IMAGE_TYPES:
        raise TypeError(
            f"{name} must be uint8, uint16, float32 or float64 (floats with values 0 to 255), got {array.dtype}"
        )
    if array.ndim != 3 or array.shape[2] != 3:
        raise ValueError(f"{name} must be H x W x 3 (a colour image), got shape {array.shape}")
    if array.shape[0] == 0 or array.shape[1] == 0:
        raise ValueError(f"{name} must not be empty, got shape {array.shape}")
    if array.dtype == np.uint16:
        return np.ascontiguousarray(array * (255.0 / 65535.0), dtype=np.float32)
    if array.dtype.kind == "f":
        if not np.isfinite(array).all():
            raise ValueError(f"{name} must hold finite values (no NaN or infinity)")
        low, high = float(array.min()), float(array.max())
        if low < 0.0 or high > 255.0:
            raise ValueError(f"{name} must hold values from 0 to 255, got {low:g} to {high:g}")
        if 0.0 < high <= 1.0:
            raise ValueError(
                f"{name} holds values from 0 to 1 only, but float images take values from 0 to 255: "
                f"multiply it by 255"
            )
    return np.ascontiguousarray(array, dtype=np.float32)


def _check_bool(name: str, value) -> None:
    if not isinstance(value, (bool, np.bool_)):
        raise TypeError(f"{name} must be a bool, got {type(value).__name__}")


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


def _probabilities(name: str, array, shape: Tuple[int, int]) -> np.ndarray:
    """L x H x W float32, finite and not negative."""
    array = np.asarray(array)
    if array.dtype not in (np.float32, np.float64):
        raise TypeError(f"{name} must be float32 or float64, got {array.dtype}")
    if array.ndim != 3:
        raise ValueError(f"{name} must be 3-D (labels, height, width), got shape {array.shape}")
    if array.shape[1:] != shape:
        raise ValueError(f"{name} must be L x H x W with the image's height and width {shape}, got {array.shape}")
    if not 1 <= array.shape[0] <= MAX_LABELS:
        raise ValueError(f"{name} must hold 1 to {MAX_LABELS} labels (its first axis), got {array.shape[0]}")
    if not np.isfinite(array).all():
        raise ValueError(f"{name} must hold finite values (no NaN or infinity)")
    if (array < 0).any():
        raise ValueError(
            f"{name} must not be negative, got {float(array.min()):g} (rounding errors of another method "
            f"can be cut off with numpy.clip({name}, 0, None))"
        )
    if array.dtype == np.float64:
        # Each pixel over its largest value first, so that float32 holds every
        # ratio between them, however large or small the values.
        largest = array.max(axis=0, keepdims=True)
        array = np.divide(array, largest, out=np.zeros_like(array), where=largest > 0)
    return np.ascontiguousarray(array, dtype=np.float32)


def _tracks(points, visible, track_labels) -> Tuple[np.ndarray, np.ndarray, np.ndarray]:
    """Tracks as write_tracks() takes them, checked: float64 points, their
    visibility and the labels."""
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
    return xy, seen, ids


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
    lam: float = _DEFAULTS["lam"],
    iterations: int = _DEFAULTS["iterations"],
    model: int = _DEFAULTS["model"],
    diffusivity: int = _DEFAULTS["diffusivity"],
    alpha: float = _DEFAULTS["alpha"],
    edge_weights: str = _DEFAULTS["edge_weights"],
    cost_filter_radius: int = _DEFAULTS["cost_filter_radius"],
    cost_filter_epsilon: float = _DEFAULTS["cost_filter_epsilon"],
    solver_tolerance: float = _DEFAULTS["solver_tolerance"],
    lambda_seed_density: float = _DEFAULTS["lambda_seed_density"],
    data_term: str = _DEFAULTS["data_term"],
    data_weight: float = _DEFAULTS["data_weight"],
    walker_beta: float = _DEFAULTS["walker_beta"],
    sparse_walker_beta: float = _DEFAULTS["sparse_walker_beta"],
    walker_iterations: int = _DEFAULTS["walker_iterations"],
    walker_tolerance: float = _DEFAULTS["walker_tolerance"],
    seed_check_radius: int = _DEFAULTS["seed_check_radius"],
    seed_check_share: float = _DEFAULTS["seed_check_share"],
    seed_check_beta: float = _DEFAULTS["seed_check_beta"],
    seed_check_fit: float = _DEFAULTS["seed_check_fit"],
    colour_weight: float = _DEFAULTS["colour_weight"],
    hold_seeds: int = _DEFAULTS["hold_seeds"],
    num_labels: Optional[int] = None,
    return_relaxed: bool = False,
):
    """Segments a colour image from sparse seeds.

    Builds one cost layer per label from the seeds and minimises the
    multi-label total-variation energy with the primal-dual solver, as the
    program does for one frame.

    Every setting defaults to the recommended settings, :data:`RECOMMENDED`
    (those of ``configs/recommended.cfg``; the engine's own default for a key
    the file leaves out).  ``**denseseg.DEFINITION`` gives the original mode:
    the seeds alone as data term, λ 10 and 100 iterations.  Each setting
    names the configuration key it sets; the program's reader checks its value,
    and a value it refuses raises ValueError with the program's message.

    Parameters
    ----------
    image : array_like
        H x W x 3 (red, green, blue): uint8; uint16, scaled to 0 to 255 by
        255 / 65535; or float32 or float64 with values 0 to 255 (a float
        image whose values all lie within 0 to 1 is refused: multiply it by
        255).
    seeds : array_like
        H x W integers: a label index 0 to L - 1 where a seed lies, a negative
        value elsewhere.
    lam : float, optional
        Weight of the data term against the total variation (configuration
        key ``lambda``).
    iterations : int, optional
        Primal-dual iterations, 0 or more (``maxiter``).
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
    edge_weights : {"diffusivity", "contrast"}, optional
        How model 1 weighs boundaries (``edgeWeights``): by the diffusivity,
        or each edge between neighbours by exp(-b d^2), d its colour
        difference and b set by the frame's mean contrast.
    cost_filter_radius : int, optional
        Before the iteration, smooth the costs along the image's colours (a
        guided filter) in windows of this radius, 0 to 100; 0 does not
        (``costFilterRadius``).
    cost_filter_epsilon : float, optional
        The filter's colour variance (channels in 0 to 1) taken as noise
        (``costFilterEpsilon``).
    solver_tolerance : float, optional
        Stop before `iterations` once an iteration moves the relaxed
        labelling by less than this per pixel, 0 to 1; 0 runs them all
        (``solverTolerance``).
    lambda_seed_density : float, optional
        Where fewer than this share of the pixels are seeds (a few clicks),
        `lam` shrinks with the square root of their share, 0 to 1; 0 leaves
        it (``lambdaSeedDensity``).
    data_term : {"seeds", "walker"}, optional
        Where the data cost comes from (``dataTerm``): the seeds alone, or
        the seeds plus, at every pixel, the random-walker probability of each
        label.
    data_weight : float, optional
        Weight of the walker cost against the seed cost, 0 to 1e6
        (``dataWeight``).
    walker_beta : float, optional
        How sharply colour edges cut the walker's graph, 0 to 1e6
        (``walkerBeta``).
    sparse_walker_beta : float, optional
        Above 0, `walker_beta` in an image whose seeds cover less than
        `lambda_seed_density` of its pixels (a few clicks), 0 to 1e6; 0 keeps
        `walker_beta` (``sparseWalkerBeta``).
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
    seed_check_fit : float, optional
        With a value above 0, a seed the vote rejects is dropped only when its
        colour fits another label's colour model better (its own below this
        share of the best), and no label loses its last seeds, 0 to 1
        (``seedCheckFit``).
    colour_weight : float, optional
        Weight of the labels' colour models, learned from the seeds, as a
        further cost; each frame gets it in proportion to how well colour
        separates its labels at the seeds, 0 to 1e6; 0 leaves it out
        (``colourWeight``).
    hold_seeds : int, optional
        1 (recommended): every seed the seed check keeps keeps its label,
        whatever the smoothed costs and the boundary length around it say, so
        a clicked pixel always carries its click's label; 0: a seed only
        costs the other labels (``holdSeeds``).
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
        An array of the wrong type, or a setting of the wrong type.
    ValueError
        A wrong shape, an empty image, image values outside 0 to 255 (or a
        float image within 0 to 1), a seed index of L or more labels than the
        engine supports, or a setting out of range.
    RuntimeError
        The engine failed (for example, out of device memory).

    See Also
    --------
    refine : the solver on per-label probabilities from another method.

    Examples
    --------
    >>> import numpy as np, denseseg
    >>> image = np.zeros((40, 60, 3), np.uint8); image[:, 30:] = 200
    >>> seeds = np.full((40, 60), -1); seeds[10:30, 2:8] = 0; seeds[10:30, 52:58] = 1
    >>> labels = denseseg.segment(image, seeds)
    >>> int(labels[0, 0]), int(labels[0, 59])
    (0, 1)
    >>> original = denseseg.segment(image, seeds, **denseseg.DEFINITION)
    """
    # The settings are the keyword arguments that have a configuration key.
    settings = {keyword: value for keyword, value in locals().items() if keyword in _ENTRY_OF}
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
    _check_bool("return_relaxed", return_relaxed)
    entries = _entries(settings)
    # Negative values all mean "no seed"; the rest already fit in int32.
    indices = np.ascontiguousarray(np.where(indices < 0, -1, indices), dtype=np.int32)
    return _core.segment(frame, indices, num_labels, entries, bool(return_relaxed))


def segment_video(frames, points, visible, track_labels, **settings) -> np.ndarray:
    """Segments the frames of a video from labelled point tracks, each frame
    starting from the one before: :func:`iter_segment_video`'s label maps as
    one T x H x W array.

    Runs the engine over the frames in order, as the program's whole-folder
    mode does: each frame's seeds are the points of its tracks (by the rule of
    :func:`seeds_from_tracks`), and, with ``temporal=1`` (the default here),
    the previous frame's answer, moved along the tracks' motion, is where the
    solver starts and a weak extra cost where this frame has no seed.  A
    frame unlike the one before (a cut), a frame after one without seeds, and
    labels new to a frame start afresh.

    Parameters
    ----------
    frames : iterable of array_like
        T images of one size, each as :func:`segment` takes it: a list, a
        T x H x W x 3 array or a generator.
    points, visible, track_labels : array_like
        The tracks as :func:`write_tracks` takes them: T x N x 2 positions
        (x, y), T x N booleans and N track labels from 0 to
        ``TRACK_LABEL_LIMIT - 1``.
    temporal : int, optional
        1 (default): carry each frame into the next; 0: every frame afresh,
        as :func:`segment` would segment it (``temporal``).
    temporal_weight : float, optional
        Weight of the moved previous labelling as a cost, 0 to 1e6
        (``temporalWeight``).
    temporal_motion_weight : float, optional
        Weight of the motion term, 0 to 1e6, 1 by default: a label costs up
        to this much more where its own tracks' motion brings the pixel's
        colour from the previous frame worse than another label's does
        (``temporalMotionWeight``).
    temporal_walker_radius : int, optional
        4 (default): the walker keeps the previous frame's probabilities,
        moved, and solves again only within this many pixels of where they
        may not hold (label boundaries, doubt, seeds that contradict them,
        pixels whose colour changed); 0: it solves every frame afresh
        (``temporalWalkerRadius``).
    temporal_walker_tolerance : float, optional
        Relative residual at which those solves stop, 0.01 by default; 0:
        ``walker_tolerance`` (``temporalWalkerTolerance``).
    temporal_walker_warm_start : int, optional
        With ``temporal_walker_radius=0``: 1 solves every pixel starting
        from the previous frame's probabilities, moved; 0 (default) from
        nothing (``temporalWalkerWarmStart``).
    **settings
        Any keyword of :func:`segment` but `num_labels` and
        `return_relaxed`; by default the recommended settings, as there.

    Returns
    -------
    labels : numpy.ndarray
        T x H x W int32: the track label of every pixel of every frame, -1
        throughout a frame without seeds.

    Raises
    ------
    TypeError, ValueError
        As :func:`segment` and :func:`write_tracks` raise them; also for an
        unknown keyword.
    """
    labels = list(iter_segment_video(frames, points, visible, track_labels, **settings))
    if not labels:
        raise ValueError("frames must hold at least one frame")
    return np.stack(labels)


def iter_segment_video(frames, points, visible, track_labels, **settings):
    """Segments a video frame after frame, as :func:`segment_video` does, and
    yields each frame's H x W int32 label map (track labels, -1 throughout a
    frame without seeds) as soon as it is ready.

    Only what the next frame needs is held, never the frames before, so the
    memory stays flat however long the video: ``frames`` may be a generator
    that reads one frame at a time.  Takes the arguments and keywords of
    :func:`segment_video`; a bad frame or a frame count other than the
    tracks' raises when it is reached.
    """
    unknown = sorted(set(settings) - set(_ENTRY_OF))
    if unknown:
        raise TypeError(f"got unexpected keyword arguments {unknown}")
    entries = _entries({**_VIDEO_DEFAULTS, **settings})
    xy, seen, ids = _tracks(points, visible, track_labels)
    video = _core.Video(
        np.ascontiguousarray(xy, dtype=np.float32),
        np.ascontiguousarray(seen, dtype=np.uint8),
        np.ascontiguousarray(ids, dtype=np.int32),
        entries,
    )
    return _segmented_frames(video, frames, xy.shape[0])


def _checked_frames(frames):
    """(t, frame) for each frame, checked as an image and against the first's
    size."""
    shape = None
    for t, frame in enumerate(frames):
        frame = _image(frame, f"frames[{t}]")
        if shape is None:
            shape = frame.shape
        elif frame.shape != shape:
            raise ValueError(f"frames must all have one size, the first's {shape[:2]}")
        yield t, frame


def _segmented_frames(video, frames, rows: int):
    # The generator behind iter_segment_video(), which checks its arguments
    # when called rather than at the first frame.
    count = 0
    for t, frame in _checked_frames(frames):
        if t >= rows:
            raise ValueError(f"points must hold one row per frame: frame {t} has none ({rows} rows)")
        labels, _ = video.segment(frame, t)
        count = t + 1
        yield labels
    if count and count != rows:
        raise ValueError(f"points must hold one row per frame: {count} frames, {rows} rows")


# The tracker's settings of propagate(): keyword, type letter, configuration
# key (their defaults are src/propagate/propagator.h's, which checks the
# values).
_TRACKER_SETTINGS = (
    ("track_spacing", "i", "trackSpacing"),
    ("annotation_margin", "i", "annotationMargin"),
    ("click_margin", "i", "clickMargin"),
    ("segmentation_margin", "i", "segmentationMargin"),
    ("click_reach_weight", "f", "clickReachWeight"),
    ("click_motion_weight", "f", "clickMotionWeight"),
    ("motion_frames", "i", "motionFrames"),
)
_TRACKER_ENTRY_OF = {keyword: key for keyword, _, key in _TRACKER_SETTINGS}
# Annotation values: labels below TRACK_LABEL_LIMIT, and this one for pixels
# an annotation leaves open.
UNLABELLED = 255


def propagate(frames, annotations, **settings):
    """Segments every frame of a video from annotated frames or clicks, with
    point tracks made from the optical flow, and yields each frame's H x W
    int32 label map (the annotation's values) as soon as it is ready.

    Points on a grid follow the optical flow from frame to frame and end where
    the forward and backward flow disagree or where they leave the frame; grid
    cells without a point get a new one.  A track passing an annotated frame
    takes the annotation's value at its point (away from the annotation's
    boundaries); a track born later takes the label of the segmentation where
    it is born, where that segmentation is sure.  Each frame is then
    segmented from its labelled tracks, as :func:`segment` segments a frame
    from seeds; an annotated frame keeps its annotation's labels.  This is
    the program ``denseseg-propagate`` frame by frame.

    Only what the next frame needs is held, so ``frames`` may be a generator
    and the memory stays flat however long the video.

    Parameters
    ----------
    frames : iterable of array_like
        The frames in order, each as :func:`segment` takes an image, all of
        one size.
    annotations : mapping or array_like
        Either a mapping from frame index to an H x W label map (integers:
        0 the background, 1 to ``TRACK_LABEL_LIMIT - 1`` objects,
        ``UNLABELLED`` (255) where unknown), or clicks: an N x 4 array of
        ``frame, x, y, label`` rows (pixel coordinates).  A clicked frame is
        first segmented from its clicks alone (give the background clicks of
        label 0 too), and that labelling serves as its annotation.  From an
        annotated frame on, its labels win.  Frames before the first
        annotation are background throughout.
    track_spacing : int, optional
        Pixels between grid points, 1 to 64 (4; ``trackSpacing``).
    annotation_margin, click_margin, segmentation_margin : int, optional
        How far from a boundary of an annotation (3), of a labelling made
        from clicks (8) or of a segmented frame (10) a track takes a label
        there, 0 to 64 pixels (``annotationMargin``, ``clickMargin``,
        ``segmentationMargin``).
    click_reach_weight : float, optional
        In a frame of clicks, the most an object's label costs far from its
        clicks (beyond half their widest distance, growing to this at twice
        that), 3 by default; 0: off (``clickReachWeight``).
    click_motion_weight : float, optional
        In a frame of clicks with a frame before it, the most a label costs
        where a pixel moves unlike all its clicks and like another label's,
        4 by default; 0: off (``clickMotionWeight``).  Clicks on the first
        frame are carried to the second along the flow, which is labelled
        from them again with their motion.
    motion_frames : int, optional
        A track that moves this many frames in a row unlike its label's
        tracks and like another label's takes that label, where both
        labels' tracks move as one (like no label's, the background's), and
        a track without a label takes the label whose tracks it clearly
        moves like; 2 by default, 0 to 1000, 0: never (``motionFrames``).
    **settings
        Any keyword of :func:`segment_video`; by default the recommended
        settings with ``temporal_walker_radius=0`` and
        ``temporal_walker_warm_start=1`` (``configs/propagate.cfg``): the
        walker solves every frame whole, from the frame before's answer.

    Yields
    ------
    labels : numpy.ndarray
        H x W int32 label values per frame.

    Raises
    ------
    TypeError, ValueError
        For an unknown keyword, a bad value, a frame or annotation of the
        wrong shape or type, an annotation value outside the labels, a click
        outside its frame, or an annotation for a frame the video does not
        reach (when it ends).
    """
    unknown = sorted(set(settings) - set(_ENTRY_OF) - set(_TRACKER_ENTRY_OF))
    if unknown:
        raise TypeError(f"got unexpected keyword arguments {unknown}")
    entries = _entries({k: v for k, v in settings.items() if k in _ENTRY_OF})
    for keyword, letter, key in _TRACKER_SETTINGS:
        if keyword in settings:
            value = settings[keyword]
            value = _integer(keyword, value, 0, 64) if letter == "i" else _real(keyword, value)
            entries.append((letter, key, value))
    by_frame, clicked = _annotations(annotations)
    propagation = _core.Propagation(entries)
    return _propagated(propagation, frames, by_frame, clicked)


def _annotations(annotations):
    """The annotations as {frame: uint8 label map} or {frame: float32 rows of
    x, y, label}."""
    if isinstance(annotations, collections.abc.Mapping):
        by_frame = {}
        for frame, labels in annotations.items():
            frame = _integer("an annotation's frame index", frame, 0, _INT32_MAX)
            array = np.asarray(labels)
            if array.ndim != 2 or array.size == 0:
                raise ValueError(f"annotations[{frame}] must be an H x W label map")
            if not (np.issubdtype(array.dtype, np.integer) or array.dtype == np.bool_):
                raise TypeError(f"annotations[{frame}] must hold integers, got {array.dtype}")
            bad = (array < 0) | ((array >= TRACK_LABEL_LIMIT) & (array != UNLABELLED))
            if bad.any():
                raise ValueError(f"annotations[{frame}] must hold labels from 0 to {TRACK_LABEL_LIMIT - 1} "
                                 f"or {UNLABELLED}, found {int(array[bad].flat[0])}")
            by_frame[frame] = np.ascontiguousarray(array, dtype=np.uint8)
        if not by_frame:
            raise ValueError("annotations must annotate at least one frame")
        return by_frame, {}
    rows = np.asarray(annotations, dtype=np.float64)
    if rows.ndim != 2 or rows.shape[1] != 4 or rows.shape[0] == 0:
        raise ValueError("annotations must be a mapping from frame index to label map, or clicks: "
                         "N x 4 rows of frame, x, y, label")
    if not np.isfinite(rows).all():
        raise ValueError("clicks must be finite numbers")
    frames, labels = rows[:, 0], rows[:, 3]
    if (frames < 0).any() or (frames != np.floor(frames)).any():
        raise ValueError("a click's frame must be a frame index (a whole number from 0)")
    if (labels < 0).any() or (labels >= TRACK_LABEL_LIMIT).any() or (labels != np.floor(labels)).any():
        raise ValueError(f"a click's label must be a whole number from 0 to {TRACK_LABEL_LIMIT - 1}")
    clicked = {}
    for frame in np.unique(frames):
        mine = rows[frames == frame]
        clicked[int(frame)] = np.ascontiguousarray(mine[:, 1:], dtype=np.float32)
    return {}, clicked


def _propagated(propagation, frames, by_frame, clicked):
    # The generator behind propagate(), which checks its arguments when called.
    count = 0
    for t, frame in _checked_frames(frames):
        shape = frame.shape
        annotation = by_frame.get(t)
        if annotation is not None and annotation.shape != shape[:2]:
            raise ValueError(f"annotations[{t}] is {annotation.shape[1]} x {annotation.shape[0]}, "
                             f"but the frames are {shape[1]} x {shape[0]}")
        clicks = clicked.get(t)
        if clicks is not None:
            outside = (clicks[:, 0] < 0) | (clicks[:, 1] < 0) | (clicks[:, 0] >= shape[1]) | (clicks[:, 1] >= shape[0])
            if outside.any():
                x, y = clicks[outside][0, :2]
                raise ValueError(f"the click at ({x}, {y}) of frame {t} lies outside the "
                                 f"{shape[1]} x {shape[0]} frame")
        count = t + 1
        yield propagation.next(frame, annotation, clicks)
    late = sorted(f for f in list(by_frame) + list(clicked) if f >= count)
    if late:
        raise ValueError(f"annotations or clicks for frame {late[0]}, but the video has {count} frames")


def refine(
    image,
    probabilities,
    *,
    lam: float = _REFINE_DEFAULTS["lam"],
    iterations: int = _REFINE_DEFAULTS["iterations"],
    model: int = _REFINE_DEFAULTS["model"],
    diffusivity: int = _REFINE_DEFAULTS["diffusivity"],
    alpha: float = _REFINE_DEFAULTS["alpha"],
    edge_weights: str = _REFINE_DEFAULTS["edge_weights"],
    cost_filter_radius: int = _REFINE_DEFAULTS["cost_filter_radius"],
    cost_filter_epsilon: float = _REFINE_DEFAULTS["cost_filter_epsilon"],
    solver_tolerance: float = _REFINE_DEFAULTS["solver_tolerance"],
    return_relaxed: bool = False,
):
    """Cleans up per-label probabilities with the engine's total variation.

    Takes the probabilities of each label at each pixel from any method (a
    network, another segmenter, a random walker), turns them into costs and
    runs the primal-dual solver on them, with the edges of `image` weighting
    the total variation: labels follow the image's edges, and small islands
    and ragged boundaries go, as a conditional random field cleans up such
    maps.

    Each pixel's values are divided by their sum, so they need not sum to 1;
    a pixel whose values are all 0 gets equal probabilities.  A probability p
    costs -ln(p + 0.001) / -ln(0.001), from 0 for a sure label to 1 for an
    impossible one (the scale of the random-walker cost of :func:`segment`),
    so zeros are fine.

    Parameters
    ----------
    image : array_like
        H x W x 3 (red, green, blue): uint8; uint16, scaled to 0 to 255 by
        255 / 65535; or float32 or float64 with values 0 to 255 (a float
        image whose values all lie within 0 to 1 is refused: multiply it by
        255).
    probabilities : array_like
        L x H x W float32 or float64, 1 <= L <= :data:`MAX_LABELS`: the
        probability (or any non-negative score) of label l at pixel (y, x) in
        ``probabilities[l, y, x]``.  Finite and not negative.
    lam : float, optional
        Weight of the costs against the total variation (configuration key
        ``lambda``): smaller values smooth more.
    iterations : int, optional
        Primal-dual iterations, 0 or more (``maxiter``).
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
    edge_weights : {"diffusivity", "contrast"}, optional
        How model 1 weighs boundaries (``edgeWeights``): by the diffusivity,
        or each edge between neighbours by exp(-b d^2), d its colour
        difference and b set by the frame's mean contrast.
    cost_filter_radius : int, optional
        Before the iteration, smooth the costs along the image's colours (a
        guided filter) in windows of this radius, 0 to 100; 0 does not
        (``costFilterRadius``).
    cost_filter_epsilon : float, optional
        The filter's colour variance (channels in 0 to 1) taken as noise
        (``costFilterEpsilon``).
    solver_tolerance : float, optional
        Stop before `iterations` once an iteration moves the relaxed
        labelling by less than this per pixel, 0 to 1; 0 runs them all
        (``solverTolerance``).
    return_relaxed : bool, optional
        Also return the relaxed labelling of the last iteration.

    Returns
    -------
    labels : numpy.ndarray
        H x W int32: the label index of every pixel.
    relaxed : numpy.ndarray
        L x H x W float32, only with ``return_relaxed=True``.

    Raises
    ------
    TypeError
        An array of the wrong type, or a setting of the wrong type.
    ValueError
        A wrong shape (`probabilities` not 3-D, or its height and width not
        the image's), L out of range, NaN, infinite or negative
        probabilities, an empty image, image values outside 0 to 255 (or a
        float image within 0 to 1), or a setting out of range.
    RuntimeError
        The engine failed (for example, out of device memory).

    Examples
    --------
    >>> import numpy as np, denseseg
    >>> rng = np.random.default_rng(0)
    >>> image = np.zeros((40, 60, 3), np.uint8); image[:, 30:] = 200
    >>> truth = (np.arange(60) >= 30)[None, :].repeat(40, axis=0)
    >>> p = np.clip(np.where(truth, 0.7, 0.3) + rng.normal(0, 0.3, truth.shape), 0, 1)
    >>> probabilities = np.stack([1 - p, p])  # noisy scores of labels 0 and 1
    >>> labels = denseseg.refine(image, probabilities)
    >>> wrong = lambda l: float((l != truth).mean())  # share of wrong pixels
    >>> wrong(probabilities.argmax(axis=0)) > 0.2, wrong(labels) < 0.01
    (True, True)
    """
    settings = {keyword: value for keyword, value in locals().items() if keyword in _ENTRY_OF}
    frame = _image(image)
    layers = _probabilities("probabilities", probabilities, frame.shape[:2])
    _check_bool("return_relaxed", return_relaxed)
    entries = _entries(settings)
    return _core.refine(frame, layers, entries, bool(return_relaxed))


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
        H x W x 3, as :func:`segment` takes it (uint8, uint16, or float32 or
        float64 with values 0 to 255).  Given, the result is
        ``alpha * colour + (1 - alpha) * image``.
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
    xy, seen, ids = _tracks(points, visible, track_labels)
    frames, tracks = xy.shape[:2]
    lines = [f"{frames}", f"{tracks}"]
    for n in range(tracks):
        ts = np.flatnonzero(seen[:, n])
        lines.append(f"{int(ids[n])} {ts.size}")
        lines.extend(f"{float(xy[t, n, 0])!r} {float(xy[t, n, 1])!r} {t}" for t in ts)
    with open(path, "w", encoding="ascii") as f:
        f.write("\n".join(lines) + "\n")
