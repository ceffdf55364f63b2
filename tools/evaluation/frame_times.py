"""Times the program's frames in whole-folder mode from its own output: a frame
takes from the line that announces it to the line that announces the next
(image in, data term, solve, pictures out), so the start-up and the track
export at the end are timed apart.

    python3 tools/evaluation/frame_times.py FOLDER CONFIG [PROGRAM]

FOLDER holds frames/ and tracks.dat as the evaluation's sequences do; CONFIG
is a file of configuration lines without the folder keys.
"""

from __future__ import annotations

import re
import statistics
import subprocess
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))
from evaluation import run  # noqa: E402


def frame_times(program: Path, folder: Path, config: Path) -> dict[str, float]:
    """Seconds: `start` until the first frame is announced, `frames` each
    frame's, `export` the track export's, `solver` each frame's solver run
    (the guided filter and the iterations)."""
    lines = [l.strip() for l in config.read_text().splitlines() if l.strip()]
    (folder / "timed.cfg").write_text("\n".join(lines + list(run.FOLDER_LINES)) + "\n")
    first = run.frame_paths(folder)[0].name
    start = time.perf_counter()
    proc = subprocess.Popen([str(program), "timed.cfg", first, "tracks.dat", "-1", "timed"], cwd=folder,
                            stdout=subprocess.PIPE, text=True, bufsize=1)
    marks, solver = [], []
    assert proc.stdout is not None
    for line in proc.stdout:
        if line.startswith("processing ") or line.startswith("write track file"):
            marks.append(time.perf_counter() - start)
        elif line.startswith("PDseg::run() "):
            # The solver's own timer: "PDseg::run()     : 155.385 msec (1 interval)".
            value, unit = re.search(r" : ([0-9.]+) (msec|sec)", line).groups()
            solver.append(float(value) / (1000.0 if unit == "msec" else 1.0))
    if proc.wait() != 0:
        raise RuntimeError(f"{program} failed in {folder}")
    end = time.perf_counter() - start
    return {"start": marks[0], "frames": [b - a for a, b in zip(marks, marks[1:])],
            "export": end - marks[-1], "solver": solver}


def main() -> int:
    folder, config = Path(sys.argv[1]), Path(sys.argv[2])
    program = Path(sys.argv[3]) if len(sys.argv) > 3 else Path("build/src/denseseg")
    t = frame_times(program.resolve(), folder, config)
    frames = t["frames"]
    print(f"{config.stem}: start-up {t['start']:.3f} s; per frame median {1000 * statistics.median(frames):.1f} ms, "
          f"min {1000 * min(frames):.1f} ms over {len(frames)} frames, of which the solver "
          f"{1000 * statistics.median(t['solver']):.1f} ms; track export {t['export']:.3f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
