"""Checks of the scorer on hand-made label maps.

    python3 tools/evaluation/test_score.py

Exits with 77 (skipped, for ctest) when numpy is not installed.
"""

import sys
import unittest
from pathlib import Path

try:
    import numpy as np
except ImportError:
    print("numpy is not installed: scorer checks skipped")
    sys.exit(77)

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import score  # noqa: E402


def halves(width: int, height: int, split: int) -> np.ndarray:
    """Label 0 left of column `split`, label 1 from it on."""
    labels = np.zeros((height, width), dtype=np.int32)
    labels[:, split:] = 1
    return labels


class MetricsTest(unittest.TestCase):
    def test_perfect_prediction_scores_one(self):
        truth = np.zeros((17, 23), dtype=np.uint8)
        truth[3:9, 4:15] = 2
        truth[10:, 18:] = 7
        s = score.score_frame(truth.copy(), truth)
        self.assertEqual((s.miou, s.accuracy, s.boundary_f), (1.0, 1.0, 1.0))

    def test_boundary_shifted_by_three_pixels(self):
        # True boundary pixels: columns 9 and 10; predicted: 12 and 13.  Only
        # column 12 lies within 2 px of column 10, and only 10 of 12.
        truth, pred = halves(20, 20, 10), halves(20, 20, 13)
        s = score.score_frame(pred, truth)
        self.assertAlmostEqual(s.boundary_f, 0.5)
        self.assertAlmostEqual(s.accuracy, 17 / 20)
        self.assertAlmostEqual(s.miou, (10 / 13 + 7 / 10) / 2)

    def test_boundary_shifted_by_tolerance_is_still_matched(self):
        self.assertEqual(score.boundary_f(halves(20, 20, 12), halves(20, 20, 10)), 1.0)

    def test_tolerance_is_chebyshev(self):
        truth = np.zeros((12, 12), dtype=np.int32)
        truth[5, 5] = 1  # boundary: the pixel and its 4 neighbours
        diagonal = np.zeros_like(truth)
        diagonal[7, 7] = 1  # 2 px away along both axes: every pixel matched
        self.assertEqual(score.boundary_f(diagonal, truth), 1.0)
        far = np.zeros_like(truth)
        far[5, 10] = 1  # 5 px away: boundaries touch nowhere
        self.assertEqual(score.boundary_f(far, truth), 0.0)

    def test_missing_label_has_zero_iou(self):
        truth = halves(10, 4, 5)
        truth[:, 8:] = 2
        pred = truth.copy()
        pred[pred == 2] = 1  # label 2 never predicted
        self.assertAlmostEqual(score.mean_iou(pred, truth), (1.0 + 3 / 5 + 0.0) / 3)

    def test_labels_only_in_the_prediction_do_not_add_terms(self):
        truth = np.zeros((6, 6), dtype=np.int32)
        pred = truth.copy()
        pred[0, 0] = -1  # an undecodable colour
        self.assertAlmostEqual(score.mean_iou(pred, truth), 35 / 36)

    def test_uniform_maps_have_no_boundary(self):
        flat = np.full((5, 9), 3, dtype=np.int32)
        self.assertFalse(score.boundary_map(flat).any())
        self.assertEqual(score.boundary_f(flat, flat), 1.0)
        self.assertEqual(score.boundary_f(flat, halves(9, 5, 4)), 0.0)

    def test_shape_mismatch_is_refused(self):
        with self.assertRaises(ValueError):
            score.score_frame(np.zeros((3, 4)), np.zeros((4, 3)))


class LabelsLostTest(unittest.TestCase):
    def test_counts_true_labels_without_any_predicted_pixel(self):
        truth = halves(10, 4, 5)
        truth[:, 8:] = 2
        pred = np.full_like(truth, 7)  # a label the truth lacks does not help
        pred[0, 0] = 2  # one pixel anywhere keeps a label
        self.assertEqual(score.labels_lost(pred, truth), 2)
        s = score.score_frame(pred, truth)
        self.assertEqual((s.labels, s.labels_lost), (3, 2))
        self.assertEqual(score.labels_lost(truth, truth), 0)


class FlickerTest(unittest.TestCase):
    def test_counts_changes_only_where_the_truth_stays(self):
        # Pixel (1, 1) holds label 2 in frame 1 only: the truth changes there
        # in both pairs of frames, so whatever is predicted there is left out.
        truths = [np.zeros((4, 5), dtype=np.int32) for _ in range(3)]
        truths[1][1, 1] = 2
        preds = [t.copy() for t in truths]
        preds[1][1, 1] = 5
        preds[0][1, 1] = 3
        preds[2][3, 4] = 1  # a stable pixel flips between frames 1 and 2
        self.assertEqual(score.flicker(preds, truths), (1, 2 * 19))
        # A wrong label that lasts one frame flickers twice: in and out.
        preds[1][0, 0] = 4
        self.assertEqual(score.flicker(preds, truths), (3, 2 * 19))

    def test_a_steady_prediction_does_not_flicker_and_one_frame_has_no_pairs(self):
        truth = halves(5, 5, 2)
        self.assertEqual(score.flicker([truth, truth.copy()], [truth, truth]), (0, 25))
        # A prediction that is wrong but the same in every frame does not flicker.
        self.assertEqual(score.flicker([truth * 0, truth * 0], [truth, truth]), (0, 25))
        self.assertEqual(score.flicker([truth], [truth]), (0, 0))


class DecodeTest(unittest.TestCase):
    def test_colours_decode_to_palette_positions(self):
        palette = np.array([[255, 10, 10], [0, 0, 255], [1, 2, 3], [200, 190, 0]])
        image = np.array([[[0, 0, 255], [200, 190, 0]], [[255, 10, 10], [9, 9, 9]]], dtype=np.uint8)
        np.testing.assert_array_equal(score.decode_colours(image, palette), [[1, 3], [0, -1]])


if __name__ == "__main__":
    unittest.main()
