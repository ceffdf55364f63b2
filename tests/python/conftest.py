"""Shared helpers of the package's tests: frames, PPM files and the program."""

import os
import pathlib
import shutil

import numpy as np
import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]


def write_ppm(path, image):
    image = np.asarray(image, dtype=np.uint8)
    with open(path, "wb") as f:
        f.write(b"P6\n%d %d\n255\n" % (image.shape[1], image.shape[0]))
        f.write(image.tobytes())


def read_ppm(path):
    """A binary PPM as the program writes it: "P6 \\n<w> <h> \\n255\\n" and bytes."""
    data = pathlib.Path(path).read_bytes()
    fields, pos = [], 0
    while len(fields) < 4:
        while data[pos : pos + 1].isspace():
            pos += 1
        end = pos
        while not data[end : end + 1].isspace():
            end += 1
        fields.append(data[pos:end])
        pos = end
    assert fields[0] == b"P6" and fields[3] == b"255"
    width, height = int(fields[1]), int(fields[2])
    pixels = np.frombuffer(data, np.uint8, count=width * height * 3, offset=pos + 1)
    return pixels.reshape(height, width, 3)


def textured_frame(height=48, width=64, seed=1):
    """A noisy background with a bright disc and a dark bar: three regions."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[:height, :width]
    regions = np.zeros((height, width), np.int64)
    regions[(x - 0.3 * width) ** 2 + (y - 0.5 * height) ** 2 < (0.25 * height) ** 2] = 1
    regions[(x > 0.65 * width) & (x < 0.85 * width)] = 2
    colours = np.array([[60, 110, 50], [220, 200, 60], [40, 40, 160]], np.float64)
    image = colours[regions] + rng.normal(0.0, 18.0, (height, width, 3))
    return np.clip(image, 0, 255).astype(np.uint8), regions


@pytest.fixture(scope="session")
def program():
    """The denseseg program: $DENSESEG_PROGRAM, or one of the build folders."""
    given = os.environ.get("DENSESEG_PROGRAM")
    if given:
        if not os.access(given, os.X_OK):
            pytest.fail(f"DENSESEG_PROGRAM={given} is not an executable")
        return given
    for folder in ("build", "build-host"):
        candidate = ROOT / folder / "src" / "denseseg"
        if os.access(candidate, os.X_OK):
            return str(candidate)
    found = shutil.which("denseseg")
    if found:
        return found
    pytest.skip("no denseseg program built (set DENSESEG_PROGRAM)")
