"""Checks of the J and F measures on hand-made masks, and of what the
propagation evaluation writes and reads (sequences, clicks, progress lines,
the flow warp).

    python3 tools/evaluation/test_jf.py

Exits with 77 (skipped, for ctest) when numpy is not installed; the checks of
the propagation evaluation skip themselves without Pillow or cv2, and its
tiny run without a build of denseseg-propagate (DENSESEG_BUILD, default
build-host).
"""

import importlib.util
import os
import sys
import tempfile
import unittest
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("numpy is not installed: J and F checks skipped")
    sys.exit(77)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import generate, jf, propagation  # noqa: E402

HAVE_PIL = importlib.util.find_spec("PIL") is not None
HAVE_CV2 = importlib.util.find_spec("cv2") is not None
BUILD = Path(os.environ.get("DENSESEG_BUILD", "build-host")).resolve()


def halves(split: int, size: int = 100) -> np.ndarray:
    """Object 1 from column `split` on, background left of it."""
    labels = np.zeros((size, size), dtype=np.uint8)
    labels[:, split:] = 1
    return labels


class BoundaryTest(unittest.TestCase):
    def test_boundary_is_right_lower_and_diagonal_differences(self):
        mask = np.zeros((6, 6), dtype=bool)
        mask[2:4, 2:4] = True
        expected = np.zeros_like(mask)
        expected[1, 1:4] = True  # above: differs from the pixel below or below-right
        expected[2:4, 1] = True  # left: differs from the pixel to the right
        expected[2:4, 3] = True  # the square's own right column
        expected[3, 2] = True  # and bottom row
        np.testing.assert_array_equal(jf.boundary(mask), expected)

    def test_image_edge_is_no_boundary(self):
        band = np.zeros((5, 7), dtype=bool)
        band[3:] = True  # the two bottom rows, touching three edges
        expected = np.zeros_like(band)
        expected[2] = True
        np.testing.assert_array_equal(jf.boundary(band), expected)
        self.assertFalse(jf.boundary(np.ones((4, 4), dtype=bool)).any())

    def test_tolerance_is_a_share_of_the_diagonal_rounded_up(self):
        self.assertEqual(jf.tolerance((240, 320)), 4)  # 0.008 x 400 = 3.2
        self.assertEqual(jf.tolerance((72, 96)), 1)
        self.assertEqual(jf.tolerance((100, 100)), 2)  # 1.13


class FrameMeasuresTest(unittest.TestCase):
    def test_shifted_half_is_matched_up_to_the_tolerance(self):
        # The object's boundary is the single column left of the split; at
        # 100 x 100 the tolerance is 2 px.
        truth = halves(50) == 1
        for shift, f in ((0, 1.0), (1, 1.0), (2, 1.0), (3, 0.0)):
            pred = halves(50 + shift) == 1
            self.assertAlmostEqual(jf.region_j(pred, truth), (50 - shift) / 50)
            self.assertEqual(jf.boundary_f(pred, truth), f, f"shift {shift}")

    def test_match_is_within_a_disk_not_a_square(self):
        # Two single pixels 3 px apart along both axes: their 2 x 2 boundaries
        # come within 2.83 px at one corner, the next pairs 3.6 px.
        truth = np.zeros((20, 20), dtype=bool)
        pred = truth.copy()
        truth[8, 8] = pred[11, 11] = True
        self.assertEqual(jf.boundary_f(pred, truth, radius=2), 0.0)
        self.assertAlmostEqual(jf.boundary_f(pred, truth, radius=3), 0.25)

    def test_shifted_squares(self):
        # 20 x 20 squares, the prediction 10 px right: J = 200 / 600.  The
        # boundaries meet only on the overlapping stretch of the top and
        # bottom rows, so F is well below 1 but above 0.
        truth = np.zeros((100, 100), dtype=bool)
        pred = truth.copy()
        truth[40:60, 40:60] = True
        pred[40:60, 50:70] = True
        self.assertAlmostEqual(jf.region_j(pred, truth), 1 / 3)
        self.assertTrue(0.2 < jf.boundary_f(pred, truth) < 0.7)
        self.assertEqual(jf.boundary_f(truth, truth), 1.0)

    def test_empty_masks(self):
        empty = np.zeros((30, 30), dtype=bool)
        square = empty.copy()
        square[10:20, 10:20] = True
        self.assertEqual((jf.region_j(empty, empty), jf.boundary_f(empty, empty)), (1.0, 1.0))
        self.assertEqual((jf.region_j(empty, square), jf.boundary_f(empty, square)), (0.0, 0.0))
        self.assertEqual((jf.region_j(square, empty), jf.boundary_f(square, empty)), (0.0, 0.0))


class SequenceMeasuresTest(unittest.TestCase):
    def test_first_and_last_frames_are_left_out(self):
        truths = [halves(50) for _ in range(5)]
        preds = [t.copy() for t in truths]
        preds[0][:] = preds[-1][:] = 0
        s = jf.score_sequence(preds, truths)
        self.assertEqual((s.j, s.f, s.jf, s.j_decay), (1.0, 1.0, 1.0, 0.0))
        self.assertEqual(s.j_frames.shape, (3, 1))

    def test_objects_are_averaged_over_frames_then_objects(self):
        truth = halves(50)
        truth[:, 75:] = 2
        truths = [truth] * 4
        # Object 2 lost in one scored frame of two, object 1 right in both:
        # J = (1 + 0.5) / 2; the background is no object.
        lost = truth.copy()
        lost[lost == 2] = 0
        s = jf.score_sequence([truth, truth, lost, truth], truths)
        self.assertEqual(s.objects, [1, 2])
        self.assertAlmostEqual(s.j, 0.75)
        self.assertAlmostEqual(s.f, 0.75)

    def test_object_absent_from_truth_and_prediction_scores_one(self):
        truths = [halves(50) for _ in range(4)]
        truths[1][:, 90:] = 3  # object 3 only in frame 1
        s = jf.score_sequence([t.copy() for t in truths], truths)
        self.assertEqual(s.objects, [1, 3])
        np.testing.assert_array_equal(s.j_frames, np.ones((2, 2)))

    def test_decay_compares_the_first_and_last_quarters(self):
        # 10 frames, 8 scored: quarters of 2.  J falls from 1 to 40/50.
        truths = [halves(50) for _ in range(10)]
        splits = [50, 50, 50, 55, 55, 55, 55, 60, 60, 60]
        s = jf.score_sequence([halves(k) for k in splits], truths)
        self.assertAlmostEqual(s.j_decay, 1.0 - 0.8)
        reversed_s = jf.score_sequence([halves(k) for k in splits[::-1]], truths)
        self.assertAlmostEqual(reversed_s.j_decay, -0.2)

    def test_refuses_what_cannot_be_scored(self):
        with self.assertRaises(ValueError):
            jf.score_sequence([halves(50)] * 2, [halves(50)] * 2)  # nothing left to score
        with self.assertRaises(ValueError):
            jf.score_sequence([halves(50)] * 3, [halves(50)] * 4)
        with self.assertRaises(ValueError):
            jf.score_sequence([np.zeros((5, 5))] * 3, [halves(50)] * 3)


class ProgressTest(unittest.TestCase):
    STEMS = ["frame_000", "frame_001"]

    def line(self, k, stem, extra=""):
        return f"frame {k}/2 {stem}: 2 labels, 130 tracks, tracking 3.5 ms, segmentation 120.25 ms{extra}"

    def test_lines_are_read_and_other_output_let_through(self):
        out = "\n".join(["reading frames", self.line(1, "frame_000"), self.line(2, "frame_001"), "done"])
        p, deviating = propagation.parse_progress(out, self.STEMS)
        self.assertEqual(deviating, [])
        self.assertEqual([(x.index, x.stem, x.labels, x.tracks) for x in p], [(1, "frame_000", 2, 130),
                                                                             (2, "frame_001", 2, 130)])
        self.assertEqual((p[0].tracking_ms, p[0].segmentation_ms), (3.5, 120.25))

    def test_trailing_text_is_read_but_reported(self):
        lines = [self.line(1, "frame_000", extra=" (annotated)"), self.line(2, "frame_001")]
        p, deviating = propagation.parse_progress("\n".join(lines), self.STEMS)
        self.assertEqual(p[0].segmentation_ms, 120.25)
        self.assertEqual(deviating, [lines[0]])

    def test_missing_misordered_or_malformed_lines_are_refused(self):
        for lines in ([self.line(1, "frame_000")],
                      [self.line(2, "frame_001"), self.line(1, "frame_000")],
                      [self.line(1, "frame_000"), self.line(2, "frame_009")],
                      [self.line(1, "frame_000"), "frame 2/2 frame_001: 2 labels, tracking 3 ms"]):
            with self.assertRaises(ValueError, msg=lines):
                propagation.parse_progress("\n".join(lines), self.STEMS)


class SceneTest(unittest.TestCase):
    def test_bounce_stays_in_range_and_reflects(self):
        path = [propagation.bounce(10, 7, 5, 30, t) for t in range(12)]
        self.assertEqual(path[:6], [10, 17, 24, 29, 22, 15])  # 31 reflects to 29
        self.assertTrue(all(5 <= x <= 30 for x in path))

    def test_tracks_follow_a_bouncing_object(self):
        plan = generate.SequencePlan("fast", "fast", propagation.fast_scene, 96, 72, 9, {"speed": (30, 20)},
                                     frames=14, wrong_fraction=0.0)
        seq = generate.build(plan, 14, generate.Textures(use_photos=False))
        truths = [seq.render(t)[1] for t in range(seq.frames)]
        # It reflects every 8 frames or so; moved by its velocity alone, its
        # tracks would fall off it there (6 frames at most).
        tracks = [k for k in generate.make_tracks(seq, truths) if k.label == 2]
        self.assertEqual(max(len(k.points) for k in tracks), seq.frames)


@unittest.skipUnless(HAVE_PIL, "Pillow is not installed")
class WrittenSequenceTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        plan = next(p for p in propagation.plans(True, 12) if p.name == "entering")
        cls.seq = generate.build(plan, 12, generate.Textures(use_photos=False))
        cls.folder = Path(cls.dir.name) / "entering"
        cls.truth = propagation.write_sequence(cls.seq, cls.folder)
        cls.rendered = np.stack([cls.seq.render(t)[1] for t in range(cls.seq.frames)])

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def test_object_entering_later_is_background(self):
        self.assertNotIn(3, np.unique(self.rendered[0]))
        self.assertIn(3, np.unique(self.rendered[-1]))
        np.testing.assert_array_equal(np.load(self.folder / "truth.npy"), self.truth)
        np.testing.assert_array_equal(self.truth, np.where(self.rendered == 3, 0, self.rendered))
        labels = {int(line.split()[0]) for line in (self.folder / "tracks.dat").read_text().splitlines()[2:]
                  if len(line.split()) == 2}
        self.assertEqual(labels, {0, 1, 2})

    def test_annotation_is_frame_0_truth(self):
        np.testing.assert_array_equal(propagation.read_png(self.folder / "annotations" / "frame_000.png"),
                                      self.truth[0])

    def test_clicks_lie_inside_their_labels(self):
        lines = (self.folder / "clicks.txt").read_text().splitlines()
        per_label: dict[int, int] = {}
        for line in lines:
            frame, x, y, label = line.split()
            self.assertEqual(frame, "0")
            label = int(label)
            per_label[label] = per_label.get(label, 0) + 1
            inner = generate.interior(self.truth[0] == label, generate.CLICK_MARGIN)
            self.assertTrue(inner[int(float(y)), int(float(x))], line)
        self.assertEqual(per_label, {0: 3, 1: 3, 2: 3})


@unittest.skipUnless(HAVE_CV2, "cv2 is not installed")
class FlowWarpTest(unittest.TestCase):
    def test_labels_follow_a_translated_texture(self):
        rng = np.random.default_rng(3)
        texture = generate.Textures.noise(rng, 120, 160, contrast=120.0).astype(np.uint8)
        first = np.zeros((100, 140), dtype=np.uint8)
        first[30:70, 40:90] = 2
        frames = [texture[10:110, 10:150], texture[7:107, 5:145]]  # content moves 5 right, 3 down
        labels, ms = propagation.flow_warp(frames, first)
        expected = np.zeros_like(first)
        expected[33:73, 45:95] = 2
        self.assertEqual(labels[1].dtype, np.uint8)
        self.assertGreater(jf.region_j(labels[1] == 2, expected == 2), 0.95)
        self.assertEqual(len(ms), 2)


@unittest.skipUnless(HAVE_PIL and HAVE_CV2 and (BUILD / "src" / "denseseg-propagate").exists(),
                     "needs Pillow, cv2 and a build of denseseg-propagate")
class TinyRunTest(unittest.TestCase):
    def test_tiny_evaluation_gives_a_table(self):
        with tempfile.TemporaryDirectory() as d:
            text = propagation.evaluate_propagation(BUILD, Path(d), True, [], propagation.FRAMES)
            self.assertTrue((Path(d) / "table.md").exists())
        for method in propagation.METHODS:
            self.assertIn(f"| **mean** | {method} | ", text)
        self.assertNotIn("failed", text)


if __name__ == "__main__":
    unittest.main()
