"""Same-process timings of the reference forms against the Python references
they reproduce: vemoproc.resize next to Pillow's Image.resize and cv2.resize,
and the reference decoder next to cv2.imdecode. Prints the best of N runs
of each and their ratio (ours / theirs); not a test.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/reference_python.py
"""
import io
import time

import numpy as np
import vemoproc
from PIL import Image

try:
    import cv2
    cv2.setNumThreads(1)
except ImportError:  # the Pillow rows still run
    cv2 = None

R = vemoproc.Resample


def best_ms(fn, runs=20):
    fn()
    best = float("inf")
    for _ in range(runs):
        start = time.perf_counter()
        fn()
        best = min(best, time.perf_counter() - start)
    return best * 1e3


def frame_1080p():
    rng = np.random.default_rng(1)
    y, x = np.mgrid[0:1080, 0:1920]
    base = np.stack([x // 8 + y // 5 + 60 * c for c in range(3)], axis=-1)
    return ((base + rng.integers(0, 16, base.shape)) & 255).astype(np.uint8)


def row(name, ours, theirs, target):
    print(f"{name:44s} ours {ours:7.2f} ms  reference {theirs:7.2f} ms  "
          f"ratio {ours / theirs:5.2f}  (target <= {target})")


def main():
    rgb = frame_1080p()
    pil = Image.fromarray(rgb)
    for w, h in [(448, 252), (1148, 840)]:
        row(f"Pillow bicubic 1920x1080 -> {w}x{h}",
            best_ms(lambda: vemoproc.resize(rgb, w, h, R.PillowBicubic)),
            best_ms(lambda: pil.resize((w, h), Image.BICUBIC, reducing_gap=None)), 0.5)
    if cv2 is None:
        return
    for w, h in [(640, 360), (960, 540)]:
        row(f"OpenCV linear 1920x1080 -> {w}x{h}",
            best_ms(lambda: vemoproc.resize(rgb, w, h, R.OpenCVLinear)),
            best_ms(lambda: cv2.resize(rgb, (w, h), interpolation=cv2.INTER_LINEAR)), 1.2)
    out = io.BytesIO()
    pil.save(out, "JPEG", quality=90)
    data = out.getvalue()
    array = np.frombuffer(data, np.uint8)
    row("Reference decode 1080p JPEG (vs cv2.imdecode)",
        best_ms(lambda: vemoproc.decode_image(data, decoder=vemoproc.Decoder.Reference)),
        best_ms(lambda: cv2.imdecode(array, cv2.IMREAD_COLOR)), 1.05)


if __name__ == "__main__":
    main()
