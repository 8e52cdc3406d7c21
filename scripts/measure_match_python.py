#!/usr/bin/python3
"""Compares the vemoproc tool's tensors with the Python reference pipelines on
real photos: each family with and without --match-python.

Usage: /usr/bin/python3 scripts/measure_match_python.py VEMOPROC_TOOL IMAGE...
(Debian's interpreter: it has cv2 and PIL.) Prints a Markdown table: per family
and mode, the largest absolute difference over the images, the mean fraction
of elements that differ, and how many images got a different shape or grid.
"""
import math
import os
import subprocess
import sys
import tempfile

import cv2
import numpy as np
from PIL import Image, ImageOps

IMAGENET = ((0.485, 0.456, 0.406), (0.229, 0.224, 0.225))
CLIP = ((0.48145466, 0.4578275, 0.40821073), (0.26862954, 0.26130258, 0.27577711))


def pillow_rgb(path):
    return ImageOps.exif_transpose(Image.open(path)).convert("RGB")


def hf_values(img, stats):
    x = (np.asarray(img).astype(np.float64) * (1 / 255)).astype(np.float32)
    return ((x - np.array(stats[0], np.float32)) / np.array(stats[1], np.float32)).transpose(2, 0, 1)


def yolo(path, W=640, H=640):
    im = cv2.imread(path)
    h, w = im.shape[:2]
    r = min(H / h, W / w)
    new = (round(w * r), round(h * r))
    dw, dh = (W - new[0]) / 2, (H - new[1]) / 2
    if (w, h) != new:
        im = cv2.resize(im, new, interpolation=cv2.INTER_LINEAR)
    im = cv2.copyMakeBorder(im, round(dh - 0.1), round(dh + 0.1), round(dw - 0.1),
                            round(dw + 0.1), cv2.BORDER_CONSTANT, value=(114, 114, 114))
    x = np.ascontiguousarray(im[..., ::-1].transpose(2, 0, 1)).astype(np.float32)
    return (x / np.float32(255))[None]


def convnext(path, size=224, crop_pct=0.875):
    im = pillow_rgb(path)
    short = int(size / crop_pct)
    w, h = im.size
    s, l = (w, h) if w <= h else (h, w)
    new = (short, int(short * l / s)) if w <= h else (int(short * l / s), short)
    a = np.asarray(im.resize(new, Image.BICUBIC, reducing_gap=None))
    top, left = (new[1] - size) // 2, (new[0] - size) // 2
    return hf_values(a[top:top + size, left:left + size], IMAGENET)


def zentil(path, size=224):
    im = pillow_rgb(path).resize((size, size), Image.BICUBIC, reducing_gap=None)
    return hf_values(im, ((0.5,) * 3, (0.5,) * 3))[None]


def qwen2vl(path, factor=28, min_pixels=56 * 56, max_pixels=28 * 28 * 1280):
    im = pillow_rgb(path)
    width, height = im.size
    h, w = round(height / factor) * factor, round(width / factor) * factor
    if h * w > max_pixels:
        beta = math.sqrt((height * width) / max_pixels)
        h, w = (math.floor(height / beta / factor) * factor,
                math.floor(width / beta / factor) * factor)
    elif h * w < min_pixels:
        beta = math.sqrt(min_pixels / (height * width))
        h, w = math.ceil(height * beta / factor) * factor, math.ceil(width * beta / factor) * factor
    if (w, h) != im.size:
        im = im.resize((w, h), Image.BICUBIC, reducing_gap=None)
    x = np.stack([hf_values(im, CLIP)] * 2)
    gh, gw = h // 14, w // 14
    x = x.reshape(1, 2, 3, gh // 2, 2, 14, gw // 2, 2, 14).transpose(0, 3, 6, 4, 7, 2, 1, 5, 8)
    return x.reshape(gh * gw, 1176)


FAMILIES = {"yolo": (yolo, ["yolo-preprocess", "--size", "640x640"]),
            "convnext": (convnext, ["convnext"]),
            "zentil": (zentil, ["zentil"]),
            "qwen2vl": (qwen2vl, ["qwen2vl"])}


def main():
    tool, images = sys.argv[1], sys.argv[2:]
    out = os.path.join(tempfile.mkdtemp(), "t.npy")
    print("| family | mode | max abs difference | elements that differ (mean) | "
          "shape or grid differs |")
    print("|---|---|---|---|---|")
    for family, (reference, args) in FAMILIES.items():
        want = {p: reference(p) for p in images}
        for mode in ([], ["--match-python"]):
            worst, fractions, shapes = 0.0, [], 0
            for p in images:
                subprocess.run([tool, *args, p, "-o", out, *mode], check=True,
                               capture_output=True)
                got = np.load(out)
                if got.shape != want[p].shape:
                    shapes += 1
                    continue
                d = np.abs(got.astype(np.float64) - want[p])
                worst = max(worst, float(d.max()))
                fractions.append(float((got != want[p]).mean()))
            mean = 100 * sum(fractions) / max(len(fractions), 1)
            print(f"| {family} | {' '.join(mode) or 'default'} | {worst:.3g} | {mean:.1f} % | "
                  f"{shapes} of {len(images)} |")


if __name__ == "__main__":
    main()
