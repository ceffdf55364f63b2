"""refine(): the solver on per-label probabilities from elsewhere."""

import numpy as np
import pytest

import denseseg
from conftest import textured_frame


def one_hot(regions, labels=3):
    return np.eye(labels, dtype=np.float32)[regions].transpose(2, 0, 1).copy()


def noisy_scene(seed, height=48, width=64, noise=20.0, seeds_per_region=12):
    """textured_frame's three regions with more noise, and a few seeds of
    each region as random_walker takes them (1 to 3, 0 for none)."""
    image, regions = textured_frame(height, width, seed)
    rng = np.random.default_rng(seed)
    image = np.clip(image + rng.normal(0.0, noise, image.shape), 0, 255).astype(np.uint8)
    markers = np.zeros(regions.shape, np.int32)
    for r in range(3):
        ys, xs = np.nonzero(regions == r)
        pick = rng.choice(len(xs), seeds_per_region, replace=False)
        markers[ys[pick], xs[pick]] = r + 1
    return image, regions, markers


# The walker's solver leaves its probabilities slightly outside 0 to 1, and
# says so.
@pytest.mark.filterwarnings("ignore:The probability range is outside")
def test_refine_scores_at_least_the_argmax_of_random_walker_probabilities():
    segmentation = pytest.importorskip("skimage.segmentation")
    argmax_wrong = refined_wrong = 0
    for seed in range(4):
        image, regions, markers = noisy_scene(seed)
        probabilities = segmentation.random_walker(
            image / 255.0, markers, beta=130, channel_axis=-1, return_full_prob=True
        )
        probabilities = np.clip(probabilities, 0.0, None)
        argmax = (probabilities.argmax(axis=0) != regions).sum()
        refined = (denseseg.refine(image, probabilities) != regions).sum()
        # The total variation cannot undo a region the walker gave the wrong
        # label, and may move its boundary a little; no frame loses more
        # than 2 % of its pixels.
        assert refined <= argmax + 0.02 * regions.size, (seed, refined, argmax)
        argmax_wrong += argmax
        refined_wrong += refined
    assert refined_wrong < 0.8 * argmax_wrong, (refined_wrong, argmax_wrong)


def test_refine_keeps_a_clean_labelling_and_cleans_a_noisy_one():
    image, regions = textured_frame()
    labels, relaxed = denseseg.refine(image, one_hot(regions), return_relaxed=True)
    assert labels.dtype == np.int32 and labels.shape == regions.shape
    np.testing.assert_array_equal(labels, regions)
    assert relaxed.dtype == np.float32 and relaxed.shape == (3, 48, 64)
    np.testing.assert_allclose(relaxed.sum(axis=0), 1.0, atol=1e-5)
    # Refining is never worse than the argmax: where every pixel's most
    # probable label is right, if only by 0.4 against 0.3, all of them stay.
    weak = 0.3 + 0.1 * one_hot(regions) + np.random.default_rng(3).uniform(0, 0.05, (3,) + regions.shape)
    np.testing.assert_array_equal(denseseg.refine(image, weak), regions)

    # Scores that favour the right label only slightly: more than a quarter
    # of the pixels' winners are wrong.
    rng = np.random.default_rng(5)
    scores = one_hot(regions) + rng.uniform(0.0, 2.5, (3,) + regions.shape)
    assert (scores.argmax(axis=0) != regions).mean() > 0.25
    assert (denseseg.refine(image, scores) != regions).mean() < 0.01


def test_refine_reads_scores_per_pixel_and_fills_empty_pixels():
    image, regions = textured_frame()
    rng = np.random.default_rng(7)
    probabilities = one_hot(regions) * 0.6 + rng.uniform(0.0, 0.4, (3,) + regions.shape).astype(np.float32)
    probabilities /= probabilities.sum(axis=0)
    expected = denseseg.refine(image, probabilities)
    # Sums other than 1, other per-pixel scales and float64 change nothing
    # beyond rounding.
    scales = rng.uniform(1e-3, 1e3, regions.shape)
    for same in (probabilities * 7.0, (probabilities * scales).astype(np.float32), probabilities * scales * 1e300):
        assert (denseseg.refine(image, same) != expected).sum() <= 2
    # Pixels without any score take their label from their surroundings.
    holes = probabilities.copy()
    holes[:, 20:28, 10:18] = 0.0
    holes[:, 0:6, 40:46] = 0.0
    assert (denseseg.refine(image, holes) != expected).sum() <= 2
    # One label: every pixel has it.
    assert (denseseg.refine(image, np.ones((1, 48, 64))) == 0).all()


P = np.full((2, 6, 8), 0.5, np.float32)
IMAGE = np.zeros((6, 8, 3), np.uint8)


def with_value(value):
    p = P.copy()
    p[1, 2, 3] = value
    return p


BAD_REFINE = [
    ((IMAGE, P.astype(np.float16)), {}, TypeError, "probabilities must be float32 or float64, got float16"),
    ((IMAGE, P.astype(np.int64)), {}, TypeError, "probabilities must be float32 or float64"),
    ((IMAGE, P[0]), {}, ValueError, r"probabilities must be 3-D \(labels, height, width\), got shape \(6, 8\)"),
    ((IMAGE, P[:, :5]), {}, ValueError, r"the image's height and width \(6, 8\), got \(2, 5, 8\)"),
    ((IMAGE, P.transpose(1, 2, 0)), {}, ValueError, "the image's height and width"),
    ((IMAGE, P[:0]), {}, ValueError, "probabilities must hold 1 to 128 labels .*got 0"),
    ((IMAGE, np.ones((129, 6, 8), np.float32)), {}, ValueError, "got 129"),
    ((IMAGE, with_value(np.nan)), {}, ValueError, "probabilities must hold finite values"),
    ((IMAGE, with_value(np.inf)), {}, ValueError, "probabilities must hold finite values"),
    ((IMAGE, with_value(-0.25)), {}, ValueError, "probabilities must not be negative, got -0.25"),
    ((IMAGE[:, :, :2], P), {}, ValueError, "image must be H x W x 3"),
    ((IMAGE + 0.5, P), {}, ValueError, "multiply it by 255"),
    ((IMAGE, P), {"lam": None}, TypeError, "lam must be a real number"),
    ((IMAGE, P), {"model": 9}, ValueError, r'configuration key "model".*\(keyword argument model\)'),
    ((IMAGE, P), {"return_relaxed": "yes"}, TypeError, "return_relaxed must be a bool"),
]


@pytest.mark.parametrize("args, kwargs, error, message", BAD_REFINE)
def test_refine_refuses(args, kwargs, error, message):
    with pytest.raises(error, match=message):
        denseseg.refine(*args, **kwargs)

