"""The package's functions on their own, and what they refuse."""

import inspect
import threading
import time

import numpy as np
import pytest

import denseseg
from denseseg import _core
from conftest import textured_frame, write_ppm


def two_halves(height=40, width=60):
    image = np.zeros((height, width, 3), np.uint8)
    image[:, width // 2 :] = 200
    seeds = np.full((height, width), -1)
    seeds[10:30, 2:8] = 0
    seeds[10:30, width - 8 : width - 2] = 1
    return image, seeds


def test_backend():
    assert denseseg.backend() in ("host", "cuda")


def test_tracks_written_and_read_as_the_program_reads_them(tmp_path):
    nan = float("nan")
    points = np.array(
        [
            [[5.5, 3.25], [0.0, 4.0], [7.9, 2.1], [5.2, 3.9]],  # frame 0
            [[nan, nan], [1.5, 1.5], [2.5, 2.5], [60.0, 1.0]],  # frame 1: track 0 hidden, track 3 outside
        ]
    )
    visible = np.array([[True, True, True, True], [False, True, True, True]])
    path = tmp_path / "t.dat"
    denseseg.write_tracks(path, points, visible, np.array([9, 4, 2, 4], np.int16))
    lines = path.read_text().splitlines()
    assert lines[:4] == ["2", "4", "9 1", "5.5 3.25 0"]
    assert lines[4] == "4 2"

    seeds, ids = denseseg.seeds_from_tracks(path, 0, (6, 8))
    # x = 0 is rejected; the last track's point lands on the first one's pixel and wins.
    assert ids == [9, 2, 4]
    expected = np.full((6, 8), -1, np.int32)
    expected[2, 7] = 1
    expected[3, 5] = 2
    assert seeds.dtype == np.int32
    np.testing.assert_array_equal(seeds, expected)

    seeds, ids = denseseg.seeds_from_tracks(str(path), 1, (6, 8))
    assert ids == [4, 2]
    assert sorted(zip(*np.nonzero(seeds >= 0))) == [(1, 1), (2, 2)]

    # Frames without points give no label; frames past the file's count are refused.
    denseseg.write_tracks(path, points[:1], np.zeros((1, 4), bool), np.zeros(4, int))
    seeds, ids = denseseg.seeds_from_tracks(path, 0, (6, 8))
    assert ids == [] and (seeds == -1).all()


def test_track_file_errors_name_the_file(tmp_path):
    missing = tmp_path / "missing.dat"
    with pytest.raises(FileNotFoundError, match="missing.dat"):
        denseseg.seeds_from_tracks(missing, 0, (4, 4))
    bad = tmp_path / "bad.dat"
    bad.write_text("2 1\n5 1\n1.0 x 0\n")
    with pytest.raises(ValueError, match="bad.dat.*not a number"):
        denseseg.seeds_from_tracks(bad, 0, (4, 4))
    bad.write_text("1 1\n5 1\n1.5 1.5 0\n")
    with pytest.raises(ValueError, match="bad.dat: frame 1 is not below"):
        denseseg.seeds_from_tracks(bad, 1, (4, 4))
    bad.write_text("1 1\n150 1\n1.5 1.5 0\n")
    with pytest.raises(ValueError, match="label 150"):
        denseseg.seeds_from_tracks(bad, 0, (4, 4))


def test_read_image(tmp_path):
    image, _ = textured_frame(5, 7)
    write_ppm(tmp_path / "f.ppm", image)
    frame = denseseg.read_image(tmp_path / "f.ppm")
    assert frame.dtype == np.float32 and frame.shape == (5, 7, 3)
    np.testing.assert_array_equal(frame, image)
    with pytest.raises(FileNotFoundError, match="nope.ppm"):
        denseseg.read_image(tmp_path / "nope.ppm")
    (tmp_path / "g.ppm").write_bytes(b"P5\n2 2\n255\n\0\0\0\0")
    with pytest.raises(ValueError, match="g.ppm"):
        denseseg.read_image(tmp_path / "g.ppm")


def test_segment_results():
    image, seeds = two_halves()
    labels, relaxed = denseseg.segment(image, seeds, iterations=300, return_relaxed=True)
    assert labels.dtype == np.int32 and labels.shape == (40, 60)
    np.testing.assert_array_equal(labels, np.where(np.arange(60) < 30, 0, 1)[None, :].repeat(40, 0))
    assert relaxed.dtype == np.float32 and relaxed.shape == (2, 40, 60)
    np.testing.assert_allclose(relaxed.sum(axis=0), 1.0, atol=1e-5)
    np.testing.assert_array_equal(labels, relaxed.argmax(axis=0))

    # The same frame as float32, as non-contiguous views and with other seed
    # types gives the same labels; more labels than seeded ones are allowed.
    flipped = np.ascontiguousarray(image[:, ::-1])[:, ::-1]
    assert not flipped.flags.c_contiguous
    same = denseseg.segment(flipped.astype(np.float32), seeds.astype(np.int16).T.copy().T, iterations=300)
    np.testing.assert_array_equal(same, labels)
    wider = denseseg.segment(image, seeds, iterations=300, num_labels=3)
    assert set(np.unique(wider)) <= {0, 1, 2}


def test_concurrent_calls_agree():
    image, regions = textured_frame(64, 96)
    seeds = np.where(np.random.default_rng(0).random(regions.shape) < 0.02, regions, -1)
    expected = denseseg.segment(image, seeds, iterations=60)
    results = [None] * 4

    def work(k):
        results[k] = denseseg.segment(image, seeds, iterations=60)

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    for result in results:
        np.testing.assert_array_equal(result, expected)


IMAGE = two_halves(6, 8)[0]
SEEDS = np.full((6, 8), -1)
SEEDS[3, 1], SEEDS[3, 6] = 0, 1

BAD_SEGMENT = [
    ((IMAGE.astype(np.int32), SEEDS), {}, TypeError, "image must be uint8, uint16, float32 or float64"),
    ((IMAGE[:, :, 0], SEEDS), {}, ValueError, "image must be H x W x 3"),
    ((IMAGE[:0], SEEDS[:0]), {}, ValueError, "image must not be empty"),
    ((np.full_like(IMAGE, np.nan, np.float32), SEEDS), {}, ValueError, "finite"),
    ((np.full_like(IMAGE, np.inf, np.float64), SEEDS), {}, ValueError, "finite"),
    ((IMAGE / 255.0, SEEDS), {}, ValueError, "values from 0 to 1 only.*multiply it by 255"),
    ((IMAGE - 1.0, SEEDS), {}, ValueError, "image must hold values from 0 to 255, got -1 to 199"),
    ((IMAGE, SEEDS[:5]), {}, ValueError, r"seeds must be 2-D with the image's height and width \(6, 8\), got \(5, 8\)"),
    ((IMAGE, SEEDS.astype(np.float32)), {}, TypeError, "seeds must hold integers"),
    ((IMAGE, np.full_like(SEEDS, -1)), {}, ValueError, "seeds holds no label"),
    ((IMAGE, np.full_like(SEEDS, 128)), {}, ValueError, "at most 128 labels"),
    ((IMAGE, SEEDS), {"num_labels": 1}, ValueError, "not below num_labels=1"),
    ((IMAGE, SEEDS), {"num_labels": 129}, ValueError, "num_labels must be from 1 to 128"),
    ((IMAGE, SEEDS), {"lam": float("nan")}, ValueError, "lam must be a finite number"),
    ((IMAGE, SEEDS), {"lam": 1e39}, ValueError, "lam must be a finite number"),
    ((IMAGE, SEEDS), {"lam": "10"}, TypeError, "lam must be a real number"),
    ((IMAGE, SEEDS), {"iterations": 2.5}, TypeError, "iterations must be an integer"),
    ((IMAGE, SEEDS), {"iterations": -1}, ValueError, "iterations must be from 0"),
    ((IMAGE, SEEDS), {"model": True}, TypeError, "model must be an integer"),
    ((IMAGE, SEEDS), {"walker_iterations": 2**31}, ValueError, "walker_iterations must be from"),
    ((IMAGE, SEEDS), {"data_term": 1}, TypeError, "data_term must be a string"),
    ((IMAGE, SEEDS), {"return_relaxed": 1}, TypeError, "return_relaxed must be a bool"),
]


@pytest.mark.parametrize("args, kwargs, error, message", BAD_SEGMENT)
def test_segment_refuses(args, kwargs, error, message):
    with pytest.raises(error, match=message):
        denseseg.segment(*args, iterations=kwargs.pop("iterations", 1), **kwargs)


# A value out of range for every checked key: the program's reader refuses
# it with its own message, which names the key the package sent.
OUT_OF_RANGE = {
    "model": 5,
    "diffusivity": 2,
    "alpha": 0.0,
    "data_term": "edges",
    "data_weight": -1.0,
    "walker_beta": -1.0,
    "walker_iterations": 100001,
    "walker_tolerance": 1.5,
    "seed_check_radius": 101,
    "seed_check_share": 2.0,
    "seed_check_beta": -1.0,
}


@pytest.mark.parametrize("keyword", sorted(OUT_OF_RANGE))
def test_settings_out_of_range_get_the_programs_message(keyword):
    key = next(key for name, _, key, _, _ in denseseg._SETTINGS if name == keyword)
    with pytest.raises(ValueError) as refused:
        denseseg.segment(IMAGE, SEEDS, iterations=1, **{keyword: OUT_OF_RANGE[keyword]})
    assert str(refused.value).startswith(f'configuration key "{key}": expected ')
    assert str(refused.value).endswith(f"(keyword argument {keyword})")


def test_keywords_cover_every_setting():
    # A setting missing from a signature could not be set; one left out of
    # refine() would leave a solver key of the engine unreachable there.
    solver = {name for name, *_, is_solver in denseseg._SETTINGS if is_solver}
    segment_keywords = set(inspect.signature(denseseg.segment).parameters) - {"image", "seeds"}
    refine_keywords = set(inspect.signature(denseseg.refine).parameters) - {"image", "probabilities"}
    assert segment_keywords == set(denseseg.DEFINITION) | {"num_labels", "return_relaxed"}
    assert refine_keywords == solver | {"return_relaxed"}


def test_definition_holds_the_engines_own_defaults():
    # With the walker and the seed check switched on every setting matters;
    # entries left out take the engine's defaults.
    image, regions = textured_frame(24, 32)
    seeds = np.where(np.random.default_rng(2).random(regions.shape) < 0.05, regions, -1).astype(np.int32)
    switched_on = {"data_term": "walker", "seed_check_radius": 4, "iterations": 40}
    explicit = denseseg._entries({**denseseg.DEFINITION, **switched_on})
    sparse = [("f", "lambda", 10.0), ("i", "maxiter", 40), ("s", "dataTerm", "walker"), ("i", "seedCheckRadius", 4)]
    frame = image.astype(np.float32)
    labels, relaxed = _core.segment(frame, seeds, 3, explicit, True)
    same_labels, same_relaxed = _core.segment(frame, seeds, 3, sparse, True)
    np.testing.assert_array_equal(labels, same_labels)
    np.testing.assert_array_equal(relaxed, same_relaxed)


def test_a_lone_click_keeps_its_label():
    # A 10 x 10 noisy grey frame and one click of each of two labels: the
    # recommended cost filter averages a lone seed's costs away; held seeds
    # keep their labels whatever it and the boundary say.
    for seed in range(10):
        rng = np.random.default_rng(seed)
        image = np.clip(128 + rng.normal(0, 20, (10, 10, 1)), 0, 255).repeat(3, axis=2).astype(np.uint8)
        seeds = np.full((10, 10), -1)
        first, second = rng.choice(100, 2, replace=False)
        seeds.flat[first], seeds.flat[second] = 0, 1
        labels = denseseg.segment(image, seeds)
        assert labels.flat[first] == 0 and labels.flat[second] == 1, seed


def test_a_frame_the_engine_cannot_address_is_refused():
    # Strides are 32-bit: 100 labels of a 2400 x 2300 frame need a 4.5 GB dual field.
    image = np.zeros((2300, 2400, 3), np.uint8)
    seeds = np.full(image.shape[:2], -1, np.int32)
    seeds[0, 0] = 0
    with pytest.raises(ValueError, match=r"a 2400 x 2300 frame with 100 labels is too large.*at most 4 GiB"):
        denseseg.segment(image, seeds, num_labels=100)


def test_image_types_give_the_same_labels():
    image, regions = textured_frame(24, 32)
    seeds = np.where(np.random.default_rng(1).random(regions.shape) < 0.05, regions, -1)
    expected = denseseg.segment(image, seeds, iterations=30)
    for same in (image.astype(np.uint16) * 257, image.astype(np.float32), image.astype(np.float64)):
        np.testing.assert_array_equal(denseseg.segment(same, seeds, iterations=30), expected)
    # All black is black in any type.
    black = denseseg.segment(np.zeros_like(image), seeds, iterations=30)
    np.testing.assert_array_equal(denseseg.segment(np.zeros(image.shape), seeds, iterations=30), black)


LABELS = np.zeros((6, 8), np.int32)

BAD_OTHERS = [
    (denseseg.render, (LABELS, [100]), ValueError, r"label_ids\[0\] = 100 has no colour"),
    (denseseg.render, (LABELS, []), ValueError, "label_ids must hold 1 to 128"),
    (denseseg.render, (LABELS + 1, [3]), ValueError, "labels must hold indices from 0 to 0"),
    (denseseg.render, (LABELS, [3], IMAGE[:5]), ValueError, "labels must be 2-D with the image's"),
    (denseseg.render, (LABELS.astype(float), [3]), TypeError, "labels must hold integers"),
    (denseseg.seeds_from_tracks, ("t.dat", -1, (4, 4)), ValueError, "frame must be from 0"),
    (denseseg.seeds_from_tracks, ("t.dat", 0, (0, 4)), ValueError, r"shape\[0\] \(height\)"),
    (denseseg.seeds_from_tracks, ("t.dat", 0, 4), TypeError, "shape must be"),
    (denseseg.write_tracks, ("t.dat", np.zeros((2, 3)), np.ones((2, 3), bool), [0] * 3), ValueError, "T x N x 2"),
    (denseseg.write_tracks, ("t.dat", np.zeros((2, 3, 2)), np.ones((2, 3)), [0] * 3), TypeError, "booleans"),
    (denseseg.write_tracks, ("t.dat", np.zeros((2, 3, 2)), np.ones((2, 3), bool), [0, 1]), ValueError, "N = 3"),
    (denseseg.write_tracks, ("t.dat", np.zeros((2, 3, 2)), np.ones((2, 3), bool), [0, 1, 100]), ValueError, "0 to 99"),
    (denseseg.write_tracks, ("t.dat", np.full((1, 1, 2), np.inf), np.ones((1, 1), bool), [0]), ValueError, "finite"),
    # The module itself checks what it is handed, too.
    (_core.segment, (IMAGE.astype(np.float32), SEEDS[:5].astype(np.int32), 2, [], False), ValueError, "image must be"),
    (_core.segment, (IMAGE.astype(np.float32), SEEDS.astype(np.int32), 2, [("f", "alpha", 0.0)], False), ValueError,
     'configuration key "alpha"'),
    (_core.segment, (IMAGE.astype(np.float32), SEEDS.astype(np.int32), 2, [("x", "alpha", 0.0)], False), ValueError,
     "type letter"),
]


@pytest.mark.parametrize("function, args, error, message", BAD_OTHERS)
def test_other_functions_refuse(tmp_path, monkeypatch, function, args, error, message):
    monkeypatch.chdir(tmp_path)
    with pytest.raises(error, match=message):
        function(*args)
    assert not (tmp_path / "t.dat").exists()


def test_segment_lets_other_threads_run():
    image, regions = textured_frame(120, 160)
    seeds = np.where(np.random.default_rng(0).random(regions.shape) < 0.02, regions, -1)
    worker = threading.Thread(target=denseseg.segment, args=(image, seeds), kwargs={"iterations": 400})
    ticks = 0
    start = time.perf_counter()
    worker.start()
    while worker.is_alive():
        time.sleep(0.001)
        ticks += 1
    elapsed = time.perf_counter() - start
    # Holding the GIL, the solver would leave this loop a handful of turns.
    assert elapsed < 0.1 or ticks >= 20, (ticks, elapsed)
