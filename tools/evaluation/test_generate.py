"""Checks of the generated sequences: exact, repeatable ground truth and tracks
that behave as the evaluation claims.

    python3 tools/evaluation/test_generate.py

Exits with 77 (skipped, for ctest) when numpy is not installed.  Uses the
procedural textures, so scikit-image is not needed.
"""

import sys
import tempfile
import unittest
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("numpy is not installed: generator checks skipped")
    sys.exit(77)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import generate, pnm, score  # noqa: E402

TEXTURES = generate.Textures(use_photos=False)


def make(builder, w=160, h=120, seed=5, frames=3, wrong_fraction=generate.WRONG_LABEL_FRACTION, **kwargs):
    plan = generate.SequencePlan("s", "c", builder, w, h, seed, kwargs, wrong_fraction=wrong_fraction)
    seq = generate.build(plan, frames, TEXTURES)
    truths = [seq.render(t)[1] for t in range(frames)]
    return seq, truths, generate.make_tracks(seq, truths)


def wrong_tracks(tracks, truths):
    """Tracks whose label is not the truth where they start (they start on the
    unjittered position, so only a wrong label makes them differ)."""
    near = [score.dilate(score.boundary_map(t), 2) for t in truths]
    count = 0
    for k in tracks:
        x, y, t = k.points[0]
        if not near[t][int(y), int(x)] and truths[t][int(y), int(x)] != k.label:
            count += 1
    return count


class SequenceTest(unittest.TestCase):
    def test_same_seed_gives_the_same_sequence(self):
        a, b = (make(generate.ordinary, seed=9) for _ in range(2))
        for t in range(3):
            np.testing.assert_array_equal(a[0].render(t)[0], b[0].render(t)[0])
        self.assertEqual([(k.label, k.points) for k in a[2]], [(k.label, k.points) for k in b[2]])

    def test_truth_is_the_front_object(self):
        seq, truths, _ = make(generate.ordinary, count=6)
        Y, X = np.mgrid[0:seq.height, 0:seq.width]
        front = max(seq.objects, key=lambda o: o.depth)
        mask = front.mask(X, Y, 2)
        self.assertTrue(mask.any())
        self.assertTrue((truths[2][mask] == front.label).all())
        # The object moves: its ground truth in frame 2 is its frame-0 mask shifted.
        dx, dy = front.offset(2)
        np.testing.assert_array_equal(mask, front.mask(X - dx, Y - dy, 0))

    def test_many_objects_class_has_24_distinct_labels(self):
        seq, truths, _ = make(generate.many_objects, w=320, h=240, frames=1)
        self.assertEqual(set(np.unique(truths[0])), set(range(25)))

    def test_thin_structures_are_thin(self):
        for builder in (generate.thin_structures, generate.thin_on_grass):
            seq, truths, _ = make(builder, w=320, h=240, frames=1)
            for obj in seq.objects:
                m = truths[0] == obj.label
                self.assertGreater(np.count_nonzero(m), 100, (builder.__name__, obj.label))
                # Eroding by 2 px from each side leaves almost nothing of a 2-4 px structure.
                inner = ~score.dilate(~m, 2)
                self.assertLess(np.count_nonzero(inner), 0.1 * np.count_nonzero(m), (builder.__name__, obj.label))

    def test_fence_has_its_bars_apart(self):
        # Four horizontal bars 2 px wide, 10 px apart: seen along a column,
        # four runs of 2 or 3 pixels (a bar's edge may touch a pixel centre),
        # 10 px apart.
        Y, X = np.mgrid[-30:31, -30:31].astype(np.float64)
        column = generate.fence(40, 2.0, 0.0, bars=4, spacing=10.0)(X, Y)[:, 30]
        starts = np.flatnonzero(np.diff(column.astype(int)) == 1) + 1
        runs = np.flatnonzero(np.diff(column.astype(int)) == -1) + 1 - starts
        np.testing.assert_array_equal(np.diff(starts), [10, 10, 10])
        self.assertTrue(set(runs.tolist()) <= {2, 3}, runs)


class TrackTest(unittest.TestCase):
    def test_tracks_follow_their_object_while_visible(self):
        seq, truths, tracks = make(generate.ordinary, w=240, h=180, count=6, frames=4)
        near_boundary = [score.dilate(score.boundary_map(t), 3) for t in truths]
        wrong = 0
        for track in tracks:
            frames = [t for _, _, t in track.points]
            self.assertEqual(frames, list(range(frames[0], frames[0] + len(frames))), "frames must be consecutive")
            # Away from boundaries a track sits on one object all its life:
            # its own, or another one for a wrongly labelled track.
            on = {int(truths[t][int(y), int(x)]) for x, y, t in track.points if not near_boundary[t][int(y), int(x)]}
            self.assertLessEqual(len(on), 1, (track.label, track.points))
            if on and on != {track.label}:
                wrong += 1
            if on and len(track.points) > 1:
                (x0, y0, t0), (x1, y1, t1) = track.points[0], track.points[-1]
                vx, vy = seq.label_motion(on.pop())
                self.assertLess(abs((x1 - x0) / (t1 - t0) - vx) + abs((y1 - y0) / (t1 - t0) - vy), 2.0)
        self.assertGreater(wrong, 0)
        self.assertLess(wrong, 0.05 * len(tracks))

    def test_every_visible_object_has_tracks_in_every_frame(self):
        seq, truths, tracks = make(generate.entering_leaving, w=320, h=240, frames=4)
        self.assertNotIn(1, truths[0])  # object 1 comes in later
        self.assertIn(1, truths[-1])
        for t, truth in enumerate(truths):
            h, w = truth.shape
            seeded = {k.label for k in tracks for (x, y, pt) in k.points
                      if pt == t and truth[min(int(y), h - 1), min(int(x), w - 1)] == k.label}
            visible = {int(l) for l, n in zip(*np.unique(truth, return_counts=True)) if n >= 300}
            self.assertLessEqual(visible, seeded, f"frame {t}")

    def test_wrong_share_follows_the_plan(self):
        _, truths, none = make(generate.ordinary, w=320, h=240, count=8, wrong_fraction=0.0)
        self.assertEqual(wrong_tracks(none, truths), 0)
        _, truths, some = make(generate.ordinary, w=320, h=240, count=8, wrong_fraction=0.05)
        # The same tracks, only relabelled: about 5 % of them.
        self.assertEqual([k.points for k in some], [k.points for k in none])
        relabelled = sum(a.label != b.label for a, b in zip(some, none))
        self.assertGreater(relabelled, 0.03 * len(some))
        self.assertLess(relabelled, 0.07 * len(some))
        self.assertGreaterEqual(relabelled, wrong_tracks(some, truths))

    def test_grid_is_about_ten_pixels(self):
        _, _, tracks = make(generate.ordinary, w=200, h=100, frames=1)
        self.assertAlmostEqual(len(tracks) / (20 * 10), 1.0, delta=0.1)

    def test_track_file_format(self):
        tracks = [generate.Track(3, [(1.5, 2.25, 0), (2.5, 2.0, 1)]), generate.Track(0, [(7.0, 8.0, 1)])]
        with tempfile.TemporaryDirectory() as d:
            path = Path(d) / "t.dat"
            generate.write_tracks(path, 2, tracks)
            tokens = path.read_text().split()
        self.assertEqual(tokens, "2 2 3 2 1.50 2.25 0 2.50 2.00 1 0 1 7.00 8.00 1".split())


class ClickTest(unittest.TestCase):
    def test_interior_keeps_pixels_whose_square_is_inside(self):
        mask = np.zeros((20, 20), dtype=bool)
        mask[2:15, 4:17] = True  # 13 x 13
        inner = generate.interior(mask, 5)
        expected = np.zeros_like(mask)
        expected[7:10, 9:12] = True
        np.testing.assert_array_equal(inner, expected)
        # The image border is a boundary too.
        full = np.ones((12, 12), dtype=bool)
        self.assertEqual(np.argwhere(generate.interior(full, 5)).tolist(), [[5, 5], [5, 6], [6, 5], [6, 6]])

    def test_clicks_lie_well_inside_every_label_of_every_frame(self):
        plan = generate.SequencePlan("s", "c", generate.ordinary, 160, 120, 11, {"count": 5}, clicks=True)
        seq = generate.build(plan, 3, TEXTURES)
        truths = [seq.render(t)[1] for t in range(3)]
        clicks = generate.make_clicks(seq, truths)
        self.assertTrue(all(len(k.points) == 1 for k in clicks))
        for t, truth in enumerate(truths):
            mine = [k for k in clicks if k.points[0][2] == t]
            for label in np.unique(truth):
                on = [k.points[0] for k in mine if k.label == label]
                self.assertIn(len(on), (1, 2, 3), (t, label))
                region = truth == label
                # Where the region has room, every click is CLICK_MARGIN px inside it.
                room = generate.interior(region, generate.CLICK_MARGIN).any()
                for x, y, _ in on:
                    self.assertTrue(region[int(y), int(x)], (t, label, x, y))
                    m = generate.CLICK_MARGIN
                    if room:
                        square = truth[int(y) - m:int(y) + m + 1, int(x) - m:int(x) + m + 1]
                        self.assertEqual(square.shape, (2 * m + 1, 2 * m + 1))
                        self.assertTrue((square == label).all(), (t, label, x, y))
            self.assertEqual({k.label for k in mine}, set(np.unique(truth).tolist()))
        # Every frame has clicks of its own: not the same positions again.
        positions = [{(round(x), round(y)) for k in clicks for x, y, pt in k.points if pt == t} for t in range(3)]
        self.assertLess(len(positions[0] & positions[1]), len(positions[0]))

    def test_a_clicks_sequence_writes_clicks(self):
        plan = generate.SequencePlan("s", "c", generate.ordinary, 64, 48, 12, {"count": 4}, clicks=True)
        seq = generate.build(plan, 2, TEXTURES)
        with tempfile.TemporaryDirectory() as d:
            generate.write_sequence(seq, Path(d))
            tokens = (Path(d) / "tracks.dat").read_text().split()
        count = int(tokens[1])
        # Every track in the file has exactly one point.
        self.assertEqual(tokens[3::5][:count], ["1"] * count)
        self.assertEqual(len(tokens), 2 + 5 * count)


class PnmTest(unittest.TestCase):
    def test_round_trip_and_comments(self):
        rgb = np.arange(5 * 3 * 3, dtype=np.uint8).reshape(5, 3, 3)
        grey = np.arange(6, dtype=np.uint8).reshape(2, 3)
        with tempfile.TemporaryDirectory() as d:
            pnm.write(Path(d) / "a.ppm", rgb)
            pnm.write(Path(d) / "b.pgm", grey)
            np.testing.assert_array_equal(pnm.read(Path(d) / "a.ppm"), rgb)
            np.testing.assert_array_equal(pnm.read(Path(d) / "b.pgm"), grey)
            (Path(d) / "c.pgm").write_bytes(b"P5\n# made by hand\n3 2\n255\n" + grey.tobytes())
            np.testing.assert_array_equal(pnm.read(Path(d) / "c.pgm"), grey)


if __name__ == "__main__":
    unittest.main()
