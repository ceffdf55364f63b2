"""Binary PPM (P6) and PGM (P5) files with 8-bit samples."""

from __future__ import annotations

from pathlib import Path

import numpy as np


def write(path: Path, image: np.ndarray) -> None:
    """H x W x 3 uint8 as P6, H x W uint8 as P5."""
    image = np.ascontiguousarray(image, dtype=np.uint8)
    magic = b"P6" if image.ndim == 3 else b"P5"
    h, w = image.shape[:2]
    Path(path).write_bytes(magic + b"\n%d %d\n255\n" % (w, h) + image.tobytes())


def read(path: Path) -> np.ndarray:
    """A P5 or P6 file with a maximum value of 255 at most."""
    data = Path(path).read_bytes()
    fields, pos = [], 0
    while len(fields) < 4:
        while data[pos:pos + 1].isspace():
            pos += 1
        if data[pos:pos + 1] == b"#":
            pos = data.index(b"\n", pos) + 1
            continue
        end = pos
        while not data[end:end + 1].isspace():
            end += 1
        fields.append(data[pos:end])
        pos = end
    magic, w, h, maxval = fields[0], int(fields[1]), int(fields[2]), int(fields[3])
    if magic not in (b"P5", b"P6") or maxval > 255:
        raise ValueError(f"{path}: not an 8-bit binary PPM or PGM")
    channels = 3 if magic == b"P6" else 1
    pixels = np.frombuffer(data, dtype=np.uint8, count=w * h * channels, offset=pos + 1)
    return pixels.reshape((h, w, 3) if channels == 3 else (h, w))
