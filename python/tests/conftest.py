"""Shared helpers: PNG files written by the tests, and the command-line tool
built in the same tree (its .npy output is the C++ library's own result)."""
import os
import struct
import subprocess
import zlib

import numpy as np
import pytest


def png_bytes(pixels):
    """Encode a uint8 HxW, HxWx3 or HxWx4 array as a PNG (no filtering)."""
    pixels = np.ascontiguousarray(pixels, dtype=np.uint8)
    height, width = pixels.shape[:2]
    channels = 1 if pixels.ndim == 2 else pixels.shape[2]
    colour_type = {1: 0, 3: 2, 4: 6}[channels]
    rows = pixels.reshape(height, width * channels)
    raw = b"".join(b"\x00" + row.tobytes() for row in rows)

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, colour_type, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(raw))
            + chunk(b"IEND", b""))


def scene(height, width, seed=0):
    """A deterministic RGB test picture: gradients, noise and a bright block."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:height, 0:width]
    img = np.stack([x * 255 // max(width - 1, 1), y * 255 // max(height - 1, 1),
                    (x + y) % 256], axis=-1).astype(np.int32)
    img += rng.integers(-20, 21, size=img.shape)
    img[height // 4: height // 2, width // 3: width // 2] = (250, 240, 30)
    return np.clip(img, 0, 255).astype(np.uint8)


@pytest.fixture
def write_png(tmp_path):
    def write(pixels, name="image.png"):
        path = tmp_path / name
        path.write_bytes(png_bytes(pixels))
        return path
    return write


@pytest.fixture
def cli(tmp_path):
    """Runs the vemoproc tool; returns a function giving (stdout, loaded .npy)."""
    tool = os.environ.get("VEMOPROC_CLI")
    if not tool:
        pytest.skip("VEMOPROC_CLI is not set (the CTest entry sets it)")

    def run(*args, npy=True):
        out = tmp_path / "cli_out.npy"
        argv = [tool, *map(str, args)] + (["-o", str(out)] if npy else [])
        done = subprocess.run(argv, check=True, capture_output=True, text=True)
        return done.stdout, (np.load(out) if npy else None)
    return run
