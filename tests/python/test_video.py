"""segment_video(): the program's whole-folder run on arrays."""

import subprocess

import numpy as np
import pytest

import denseseg
from conftest import ROOT, read_ppm, textured_frame, write_ppm

FRAMES = 4


def moving_video(rng):
    """FRAMES frames of the textured scene shifted 2 px right per frame, with
    tracks that follow it; no track has a point in the last frame but one."""
    base, regions = textured_frame(seed=4)
    frames, truth = [], []
    for t in range(FRAMES):
        frames.append(np.roll(base, 2 * t, axis=1))
        truth.append(np.roll(regions, 2 * t, axis=1))
    labels = (5, 12, 40)
    points, track_labels = [], []
    for region, label in enumerate(labels):
        ys, xs = np.nonzero((regions == region)[:, 4:-12])
        for k in rng.choice(len(xs), 15, replace=False):
            points.append([[xs[k] + 4 + 2 * t + 0.5, ys[k] + 0.5] for t in range(FRAMES)])
            track_labels.append(label)
    xy = np.transpose(np.array(points, np.float64), (1, 0, 2))
    visible = np.ones(xy.shape[:2], bool)
    visible[FRAMES - 2] = False  # a frame without seeds: the next starts afresh
    return frames, truth, xy, visible, np.array(track_labels)


def program_run(tmp_path, program, frames, xy, visible, track_labels, lines):
    """The program's whole-folder run: each frame's labels as track labels."""
    for t, frame in enumerate(frames):
        write_ppm(tmp_path / f"f{t}.ppm", frame)
    denseseg.write_tracks(tmp_path / "tracks.dat", xy, visible, track_labels)
    folders = [f"s dataDir {tmp_path}", f"s tracksDir {tmp_path}", f"s resultDir {tmp_path}/results"]
    (tmp_path / "video.cfg").write_text("\n".join(folders + lines) + "\n")
    run = subprocess.run([program, str(tmp_path / "video.cfg"), "f0.ppm", "tracks.dat", "-1", "out"],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stderr
    ids = sorted(set(int(i) for i in track_labels))
    palette = denseseg.render(np.arange(len(ids))[None, :], ids)[0]
    labels = np.full((len(frames),) + frames[0].shape[:2], -1, np.int32)
    for t in range(len(frames)):
        dense_path = tmp_path / "results" / "out" / f"f{t}_dense.ppm"
        if dense_path.exists():
            dense = read_ppm(dense_path)
            matches = (dense[:, :, None, :] == palette[None, None, :, :]).all(axis=3)
            assert (matches.sum(axis=2) == 1).all()
            labels[t] = np.array(ids)[matches.argmax(axis=2)]
    return labels, run.stdout


@pytest.mark.parametrize("temporal", [0, 1])
def test_equals_the_programs_whole_folder_run(tmp_path, program, temporal):
    frames, truth, xy, visible, track_labels = moving_video(np.random.default_rng(2))
    lines = [line for line in (ROOT / "configs" / "recommended.cfg").read_text().splitlines() if line.strip()]
    expected, log = program_run(tmp_path, program, frames, xy, visible, track_labels, lines + [f"i temporal {temporal}"])
    labels = denseseg.segment_video(frames, xy, visible, track_labels, temporal=temporal)
    assert labels.shape == (FRAMES,) + frames[0].shape[:2] and labels.dtype == np.int32
    np.testing.assert_array_equal(labels, expected)
    assert (labels[FRAMES - 2] == -1).all()  # no seeds, no result
    ids = np.array([5, 12, 40])
    for t in (0, 1, FRAMES - 1):
        assert (labels[t] == ids[truth[t]]).mean() > 0.95
    if temporal:
        assert log.count("started from the frame before") == 1  # frame 1; frame 3 follows a frame without seeds
    else:
        # Every frame afresh is segment() on each frame's seeds.
        for t in (0, 1):
            write_ppm(tmp_path / "one.ppm", frames[t])
            seeds, label_ids = denseseg.seeds_from_tracks(tmp_path / "tracks.dat", t, frames[t].shape[:2])
            one = denseseg.segment(frames[t], seeds, num_labels=len(label_ids))
            np.testing.assert_array_equal(labels[t], np.array(label_ids)[one])


def test_frames_may_come_from_a_generator_one_at_a_time():
    frames, _, xy, visible, track_labels = moving_video(np.random.default_rng(2))
    read = []

    def reader():
        for t, frame in enumerate(frames):
            read.append(t)
            yield frame

    whole = denseseg.segment_video(frames, xy, visible, track_labels)
    for t, labels in enumerate(denseseg.iter_segment_video(reader(), xy, visible, track_labels)):
        assert read == list(range(t + 1))  # no frame is read ahead
        np.testing.assert_array_equal(labels, whole[t])
    assert len(read) == FRAMES
    np.testing.assert_array_equal(denseseg.segment_video(reader(), xy, visible, track_labels), whole)


def test_refuses_what_it_cannot_segment():
    frames, _, xy, visible, track_labels = moving_video(np.random.default_rng(2))
    with pytest.raises(ValueError, match="one row per frame"):
        denseseg.segment_video(frames[:2], xy, visible, track_labels)
    with pytest.raises(ValueError, match="one size"):
        denseseg.segment_video([frames[0], frames[1][:, :-1]] + frames[2:], xy, visible, track_labels)
    with pytest.raises(TypeError, match="unexpected keyword"):
        denseseg.segment_video(frames, xy, visible, track_labels, num_labels=3)
    with pytest.raises(ValueError, match="temporalWeight"):
        denseseg.segment_video(frames, xy, visible, track_labels, temporal_weight=-1.0)
    with pytest.raises(ValueError, match="temporalMotionWeight"):
        denseseg.segment_video(frames, xy, visible, track_labels, temporal_motion_weight=-1.0)
    with pytest.raises(ValueError, match="temporalWalkerRadius"):
        denseseg.segment_video(frames, xy, visible, track_labels, temporal_walker_radius=-1)
    with pytest.raises(ValueError, match="track_labels"):
        denseseg.segment_video(frames, xy, visible, track_labels + 200)
    with pytest.raises(ValueError, match="at least one frame"):
        denseseg.segment_video([], xy[:0], visible[:0], track_labels)
    with pytest.raises(ValueError, match="multiply it by 255"):
        denseseg.segment_video([f / 255.0 for f in frames], xy, visible, track_labels)
