"""The package against the program: one frame segmented both ways."""

import subprocess

import numpy as np
import pytest

import denseseg
from conftest import ROOT, read_ppm, textured_frame, write_ppm


def tracks_of(regions, rng, labels=(5, 12, 40), per_region=20):
    """Three frames of tracks on the regions, plus one track whose only point
    is overwritten by a later track, so the frame has a label without seeds."""
    height, width = regions.shape
    points, tracks = [], []
    for region, label in enumerate(labels):
        ys, xs = np.nonzero(regions == region)
        pick = rng.choice(len(xs), per_region, replace=False)
        for k in pick:
            points.append([[xs[k] + 0.5, ys[k] + 0.5]] * 3)
            tracks.append(label)
    points.append([[10.5, 20.25]] * 3)
    tracks.append(7)
    points.append([[10.75, 20.5]] * 3)
    tracks.append(labels[0])
    xy = np.transpose(np.array(points, np.float64), (1, 0, 2))
    visible = np.ones(xy.shape[:2], bool)
    visible[2, 0] = False  # a hidden point
    return xy, visible, np.array(tracks)


SETTINGS = [
    # configuration lines, keyword arguments (the keys a file leaves out take
    # the engine's defaults, DEFINITION's)
    ({"f lambda": 10.0, "i maxiter": 150}, {**denseseg.DEFINITION, "iterations": 150}),
    (
        {"f lambda": 4.0, "i maxiter": 120, "i model": 2, "i diffusivity": 1, "f alpha": 2.0},
        {**denseseg.DEFINITION, "lam": 4.0, "iterations": 120, "model": 2, "diffusivity": 1, "alpha": 2.0},
    ),
    ({"f lambda": 25.0, "i maxiter": 80, "i model": 0}, {**denseseg.DEFINITION, "lam": 25.0, "iterations": 80, "model": 0}),
]


# Configuration keys and the keyword arguments they become, as the README
# lists them.
KEYWORDS = {
    "lambda": "lam",
    "maxiter": "iterations",
    "model": "model",
    "diffusivity": "diffusivity",
    "alpha": "alpha",
    "edgeWeights": "edge_weights",
    "costFilterRadius": "cost_filter_radius",
    "costFilterEpsilon": "cost_filter_epsilon",
    "solverTolerance": "solver_tolerance",
    "lambdaSeedDensity": "lambda_seed_density",
    "dataTerm": "data_term",
    "dataWeight": "data_weight",
    "walkerBeta": "walker_beta",
    "sparseWalkerBeta": "sparse_walker_beta",
    "walkerIterations": "walker_iterations",
    "walkerTolerance": "walker_tolerance",
    "seedCheckRadius": "seed_check_radius",
    "seedCheckShare": "seed_check_share",
    "seedCheckBeta": "seed_check_beta",
    "seedCheckFit": "seed_check_fit",
    "colourWeight": "colour_weight",
    "holdSeeds": "hold_seeds",
}


def recommended_config():
    """The lines of configs/recommended.cfg as {"<letter> <key>": value}."""
    config = {}
    for line in (ROOT / "configs" / "recommended.cfg").read_text().splitlines():
        fields = line.split("#")[0].split()
        if fields:
            letter, key, value = fields
            config[f"{letter} {key}"] = {"i": int, "f": float, "s": str}[letter](value)
    return config


def test_recommended_keywords_are_the_recommended_configuration():
    # Every key of the file has a keyword of segment() (a key without one would
    # be lost) but "temporal", a video's own: segment_video() carries each
    # frame into the next unless told otherwise, as the file does.
    config = recommended_config()
    assert config.pop("i temporal") == 1
    expected = {KEYWORDS[entry.split()[1]]: value for entry, value in config.items()}
    assert denseseg.RECOMMENDED == expected


# segment() without settings is the recommended mode; DEFINITION is the
# original one, the five original keys.
SETTINGS.append((recommended_config(), {}))
SETTINGS.append(({"f lambda": 10.0, "i maxiter": 100}, denseseg.DEFINITION))


@pytest.mark.parametrize(
    "config, kwargs", SETTINGS, ids=["model1", "model2-exp", "model0", "no-settings-recommended", "definition"]
)
def test_segment_and_render_equal_the_program(tmp_path, program, config, kwargs):
    image, regions = textured_frame()
    write_ppm(tmp_path / "frame.ppm", image)
    xy, visible, track_labels = tracks_of(regions, np.random.default_rng(3))
    denseseg.write_tracks(tmp_path / "tracks.dat", xy, visible, track_labels)
    lines = [f"s dataDir {tmp_path}", f"s tracksDir {tmp_path}", f"s resultDir {tmp_path}/results"]
    lines += [f"{key} {value}" for key, value in config.items()]
    (tmp_path / "filestructure").write_text("\n".join(lines) + "\n")
    run = subprocess.run(
        [program, str(tmp_path / "filestructure"), "frame.ppm", "tracks.dat", "0", "out"],
        capture_output=True,
        text=True,
        timeout=300,
    )
    assert run.returncode == 0, run.stderr
    dense = read_ppm(tmp_path / "results" / "out" / "frame_dense.ppm")
    overlay = read_ppm(tmp_path / "results" / "out" / "frame_overlay.ppm")

    frame = denseseg.read_image(tmp_path / "frame.ppm")
    np.testing.assert_array_equal(frame, image.astype(np.float32))
    seeds, label_ids = denseseg.seeds_from_tracks(tmp_path / "tracks.dat", 0, frame.shape[:2])
    assert label_ids == [5, 12, 40, 7]
    assert seeds.max() == 2  # label 7 lost its only seed, yet the program segments with 4 labels
    labels = denseseg.segment(frame, seeds, num_labels=len(label_ids), **kwargs)

    # The program's picture decoded through the palette colours of the labels.
    palette = denseseg.render(np.arange(len(label_ids))[None, :], label_ids)[0]
    assert len({tuple(c) for c in palette}) == len(label_ids)
    matches = (dense[:, :, None, :] == palette[None, None, :, :]).all(axis=3)
    assert (matches.sum(axis=2) == 1).all(), "a pixel of the program's picture has no label colour"
    np.testing.assert_array_equal(labels, matches.argmax(axis=2))
    assert set(np.unique(labels)) >= {0, 1, 2}  # not a trivial labelling

    np.testing.assert_array_equal(denseseg.render(labels, label_ids), dense)
    np.testing.assert_array_equal(denseseg.render(labels, label_ids, image), overlay)


def test_a_refused_setting_gets_the_programs_line(tmp_path, program):
    (tmp_path / "filestructure").write_text(
        f"s dataDir {tmp_path}\ns tracksDir {tmp_path}\ns resultDir {tmp_path}\nf lambda 10\ni model 7\n"
    )
    run = subprocess.run(
        [program, str(tmp_path / "filestructure"), "frame.ppm", "tracks.dat", "0", "out"],
        capture_output=True,
        text=True,
        timeout=60,
    )
    assert run.returncode == 255
    line = run.stderr.strip().splitlines()[0]
    image, regions = textured_frame(8, 8)
    with pytest.raises(ValueError) as refused:
        denseseg.segment(image, regions, model=7)
    assert str(refused.value) == f"{line} (keyword argument model)"
