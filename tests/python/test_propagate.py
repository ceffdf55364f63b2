"""propagate(): the program denseseg-propagate frame by frame."""

import os
import pathlib
import subprocess

import numpy as np
import pytest

import denseseg
from conftest import read_ppm, write_ppm


def moving_square(frames=6, height=36, width=48, side=14, step=2):
    """A noisy textured square moving right over a noisy background: frames
    and the true label map of each (7 in the square, 0 elsewhere)."""
    rng = np.random.default_rng(5)
    background = rng.integers(20, 100, (height, width, 3))
    texture = rng.integers(150, 240, (side, side, 3))
    images, truths = [], []
    for t in range(frames):
        image = background.copy()
        truth = np.zeros((height, width), np.int32)
        left = 6 + step * t
        image[10:10 + side, left:left + side] = texture
        truth[10:10 + side, left:left + side] = 7
        images.append(image.astype(np.uint8))
        truths.append(truth)
    return images, truths


def iou(labels, truth, label=7):
    both = np.count_nonzero((labels == label) & (truth == label))
    return both / np.count_nonzero((labels == label) | (truth == label))


@pytest.fixture(scope="module")
def propagate_program(program):
    path = pathlib.Path(program).with_name("denseseg-propagate")
    if not os.access(path, os.X_OK):
        pytest.skip(f"no {path} built")
    return path


def test_equals_the_program_frame_for_frame(tmp_path, propagate_program):
    images, truths = moving_square()
    (tmp_path / "frames").mkdir()
    for t, image in enumerate(images):
        write_ppm(tmp_path / "frames" / f"f_{t:02d}.ppm", image)
    clicks = np.array([[0, 12.5, 16, 7], [0, 15, 20, 7], [0, 3, 3, 0], [0, 40, 30, 0], [0, 30, 8, 0]])
    (tmp_path / "clicks.txt").write_text("".join(f"{int(f)} {x} {y} {int(l)}\n" for f, x, y, l in clicks))
    subprocess.run([str(propagate_program), "frames", "clicks.txt", "out"], cwd=tmp_path, check=True,
                   capture_output=True)
    # The frames as a generator: one at a time.
    got = list(denseseg.propagate((image for image in images), clicks))
    assert len(got) == len(images)
    for t, labels in enumerate(got):
        assert labels.dtype == np.int32 and labels.shape == truths[t].shape
        # The program's dense picture is the rendering of the same labels.
        ids = [int(v) for v in np.unique(labels)]
        picture = denseseg.render(np.searchsorted(ids, labels).astype(np.int32), ids)
        np.testing.assert_array_equal(picture, read_ppm(tmp_path / "out" / f"f_{t:02d}_dense.ppm"))
    assert iou(got[-1], truths[-1]) > 0.8


def test_an_annotation_is_kept_and_a_later_one_corrects_the_labels():
    images, truths = moving_square()
    wrong = np.zeros_like(truths[3])  # frame 3 says: no square any more
    labels = list(denseseg.propagate(images, {0: truths[0], 3: wrong}))
    np.testing.assert_array_equal(labels[0], truths[0])
    assert iou(labels[2], truths[2]) > 0.85
    assert not (labels[3] == 7).any() and not (labels[5] == 7).any()
    # Open pixels (255) leave the label to the segmentation.
    open_annotation = truths[0].astype(np.uint8)
    open_annotation[:, :4] = denseseg.UNLABELLED
    first = next(denseseg.propagate(images, {0: open_annotation}))
    assert (first[:, :4] == 0).all()


@pytest.mark.parametrize(
    "annotations, kwargs, error, message",
    [
        ({0: np.zeros((36, 48, 3), np.uint8)}, {}, ValueError, "H x W label map"),
        ({0: np.full((36, 48), 150)}, {}, ValueError, "labels from 0 to 99 or 255, found 150"),
        ({0: np.zeros((36, 48), np.float32)}, {}, TypeError, "must hold integers"),
        ({}, {}, ValueError, "at least one frame"),
        (np.array([[0, 1, 2]]), {}, ValueError, "N x 4 rows"),
        (np.array([[0, 1, 2, 100]]), {}, ValueError, "from 0 to 99"),
        (np.array([[0.5, 1, 2, 1]]), {}, ValueError, "frame index"),
        ({0: np.zeros((36, 48), np.uint8)}, {"track_spacing": 0}, ValueError, "trackSpacing"),
        ({0: np.zeros((36, 48), np.uint8)}, {"walker_beta": -1.0}, ValueError, "walkerBeta"),
        ({0: np.zeros((36, 48), np.uint8)}, {"speed": 1}, TypeError, "unexpected keyword"),
    ],
)
def test_refuses_bad_arguments_when_called(annotations, kwargs, error, message):
    images, _ = moving_square(frames=2)
    with pytest.raises(error, match=message):
        denseseg.propagate(images, annotations, **kwargs)


@pytest.mark.parametrize(
    "annotations, message",
    [
        ({0: np.zeros((35, 48), np.uint8)}, "is 48 x 35, but the frames are 48 x 36"),
        (np.array([[1, 48, 3, 1]]), r"lies outside the 48 x 36 frame"),
        ({5: np.zeros((36, 48), np.uint8)}, "for frame 5, but the video has 2 frames"),
    ],
)
def test_refuses_what_it_meets_at_its_frame(annotations, message):
    images, _ = moving_square(frames=2)
    with pytest.raises(ValueError, match=message):
        list(denseseg.propagate(images, annotations))
