# Each family's MatchPython form against the same pipeline composed here from
# cv2 / Pillow / numpy steps, the way the Python code does it, bit for bit.
import contextlib
import io
import math

import numpy as np
import pytest

import vemoproc
from conftest import scene

cv2 = pytest.importorskip("cv2")
Image = pytest.importorskip("PIL.Image")
ImageOps = pytest.importorskip("PIL.ImageOps")

PY, QWEN = vemoproc.Pipeline.MatchPython, vemoproc.qwen2vl.Qwen2VLImageProcessor()
IMAGENET = ((0.485, 0.456, 0.406), (0.229, 0.224, 0.225))
CLIP = ((0.48145466, 0.4578275, 0.40821073), (0.26862954, 0.26130258, 0.27577711))
# Awkward (width, height): odd, tall, wide, tiny, halves in the letterbox rule.
SIZES = [(97, 61), (61, 97), (640, 480), (1280, 720), (333, 721), (29, 400), (500, 28)]


def letterbox_reference(bgr, W, H):
    (h, w), r = bgr.shape[:2], min(H / bgr.shape[0], W / bgr.shape[1])
    new = (round(w * r), round(h * r))
    dw, dh = (W - new[0]) / 2, (H - new[1]) / 2
    bgr = cv2.resize(bgr, new, interpolation=cv2.INTER_LINEAR) if (w, h) != new else bgr
    top, bottom, left, right = (round(dh - 0.1), round(dh + 0.1), round(dw - 0.1), round(dw + 0.1))
    bgr = cv2.copyMakeBorder(bgr, top, bottom, left, right, cv2.BORDER_CONSTANT, value=(114,) * 3)
    return bgr[..., ::-1].transpose(2, 0, 1).astype(np.float32) / np.float32(255), (r, left, top)


def hf_values(rgb, stats):
    x = (np.asarray(rgb).astype(np.float64) * (1 / 255)).astype(np.float32)
    return ((x - np.array(stats[0], np.float32)) / np.array(stats[1], np.float32)).transpose(2, 0, 1)


def convnext_reference(rgb, size, crop_pct, resample):
    im, short, (h, w) = Image.fromarray(rgb), int(size / crop_pct), rgb.shape[:2]
    new = ((size, size) if size >= 384 else (short, int(short * h / w)) if w <= h
           else (int(short * w / h), short))
    a = np.asarray(im.resize(new, resample, reducing_gap=None))
    ph, pw = max(size - new[1], 0), max(size - new[0], 0)  # a larger crop pads with zeros,
    a = np.pad(a, (((ph + 1) // 2, ph // 2), ((pw + 1) // 2, pw // 2), (0, 0)))  # ceil half first
    top, left = (a.shape[0] - size) // 2, (a.shape[1] - size) // 2
    return hf_values(a[top:top + size, left:left + size], IMAGENET)


def siglip_reference(rgb, size):
    im = Image.fromarray(rgb).resize((size, size), Image.BICUBIC, reducing_gap=None)
    return hf_values(im, ((0.5,) * 3, (0.5,) * 3))[None]


def smart_resize_reference(height, width, max_pixels=28 * 28 * 1280, f=28, min_pixels=56 * 56):
    if min(height, width) < f or max(height, width) / min(height, width) > 200:
        return None  # refused: too small or too narrow
    h_bar, w_bar = round(height / f) * f, round(width / f) * f
    if h_bar * w_bar > max_pixels:
        beta = math.sqrt((height * width) / max_pixels)
        return math.floor(height / beta / f) * f, math.floor(width / beta / f) * f
    if h_bar * w_bar < min_pixels:
        beta = math.sqrt(min_pixels / (height * width))
        return math.ceil(height * beta / f) * f, math.ceil(width * beta / f) * f
    return h_bar, w_bar


# Rows and grid of a list of clips (a still image is a clip of one frame).
def qwen_reference(videos):
    rows, grids = [], []
    for frames in videos:
        h, w = smart_resize_reference(*frames[0].shape[:2])
        chw = [hf_values(Image.fromarray(f).resize((w, h), Image.BICUBIC, reducing_gap=None)
                         if (h, w) != f.shape[:2] else f, CLIP) for f in frames]
        chw += chw[-1:] * (len(chw) % 2)
        gt, gh, gw = len(chw) // 2, h // 14, w // 14
        p = np.stack(chw).reshape(gt, 2, 3, gh // 2, 2, 14, gw // 2, 2, 14)
        rows.append(p.transpose(0, 3, 6, 4, 7, 2, 1, 5, 8).reshape(gt * gh * gw, 1176))
        grids.append((gt, gh, gw))
    return np.concatenate(rows), np.array(grids, dtype=np.int64)


# A JPEG with an EXIF orientation: its bytes, its path, and each family's reference
# from Pillow's RGB (cv2's BGR for the detector).
def photo(tmp_path, orientation, subsampling):
    exif, buf = Image.Exif(), io.BytesIO()
    exif[0x0112] = orientation
    Image.fromarray(scene(75, 101, seed=orientation)).save(
        buf, "JPEG", quality=88, exif=exif.tobytes(), subsampling=subsampling)
    (path := tmp_path / "photo.jpg").write_bytes(data := buf.getvalue())
    rgb = np.asarray(ImageOps.exif_transpose(Image.open(io.BytesIO(data))).convert("RGB"))
    bgr = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    return data, path, {"yolo-preprocess": letterbox_reference(bgr, 320, 256)[0][None],
                        "convnext": convnext_reference(rgb, 224, 0.875, Image.BICUBIC),
                        "zentil": siglip_reference(rgb, 96), "qwen2vl": qwen_reference([[rgb]])[0]}


# CLI command: (the library call on bytes or a path, the command's arguments)
ENCODED = {
    "yolo-preprocess": (lambda x: vemoproc.yolo.preprocess_images([x], (320, 256), pipeline=PY)[0]
                        if isinstance(x, bytes) else vemoproc.yolo.preprocess([x], (320, 256), pipeline=PY),
                        ["--size", "320x256"]),
    "convnext": (lambda x: vemoproc.convnext.ConvNextPreprocessor().process(x, pipeline=PY), []),
    "zentil": (lambda x: vemoproc.zentil.ZentilPreprocessor(96).process(x, pipeline=PY), ["--size", "96"]),
    "qwen2vl": (lambda x: QWEN.preprocess(x, pipeline=PY)[0], []),
}


ROWS = np.random.default_rng(3).uniform([-50] * 4 + [0, 0], [700] * 4 + [1, 5], (200, 6)).astype(np.float32)


@pytest.mark.parametrize("w,h", SIZES)
def test_yolo_letterbox_geometry_and_boxes(w, h):
    bgr = scene(h, w, seed=w)
    for target in [(640, 640), (320, 256)]:
        want, (r, left, top) = letterbox_reference(bgr, *target)
        for arr in (bgr, bgr[..., ::-1], np.dstack([bgr[..., ::-1], np.full((h, w), 7, np.uint8)])):
            got, (g,) = vemoproc.yolo.preprocess_images([arr], target, pipeline=PY, bgr=arr is bgr)
            np.testing.assert_array_equal(got[0], want)
            assert g == vemoproc.yolo.letterbox_info(w, h, target, pipeline=PY)
        assert (g.left, g.top, g.scale) == (left, top, np.float32(r))
        want = (ROWS[ROWS[:, 4] > 0.25, :4] - np.float32([left, top] * 2)) / np.float32(r)
        np.testing.assert_array_equal(vemoproc.yolo.postprocess_end2end(
            ROWS, g, 0.25, box_mapping=PY, as_array=True)[:, :4], want.clip(0, np.float32([w, h] * 2)))


# ConvNeXt (size, crop_pct, resample) and SigLIP; (31, 40) crops larger than the
# image, with an odd margin.
@pytest.mark.parametrize("w,h", SIZES + [(31, 40)])
def test_convnext_and_siglip(w, h):
    rgb = scene(h, w, seed=h)
    for size, pct, resample in ([(64, 2.0, "BICUBIC")] if w == 31 else [
            (224, 0.875, "BICUBIC"), (224, 0.875, "BILINEAR"), (384, 0.875, "BICUBIC")]):
        pre = vemoproc.convnext.ConvNextPreprocessor(size, pct)
        pre.resample = getattr(vemoproc.Resample, "Pillow" + resample.capitalize())
        np.testing.assert_array_equal(pre.process(rgb, pipeline=PY),
                                      convnext_reference(rgb, size, pct, getattr(Image, resample)))
    np.testing.assert_array_equal(vemoproc.zentil.ZentilPreprocessor(224).process(rgb, pipeline=PY),
                                  siglip_reference(rgb, 224))


# (height, width, max_pixels) the C++ rows do not hold: narrow but allowed, rounding
# both ways, large, a small budget; then a sweep.
SIZE_RULE = [(h, w, 1003520) for h, w in [(29, 5600), (100, 27), (4352, 3168), (721, 1281), (30, 61)]
             + [(h, w) for h in range(28, 4000, 97) for w in (31, 555, 2222)]] + [(1999, 2001, 200000)]


def test_qwen2vl_size_rule():
    for h, w, mx in SIZE_RULE:
        want = smart_resize_reference(h, w, mx)
        with pytest.raises(RuntimeError) if want is None else contextlib.nullcontext():
            assert vemoproc.qwen2vl.smart_resize_match_python(h, w, 28, 3136, mx) == want, (h, w)


# (clips, as a video): a 1600 x 1200 still (840 x 1148, 4920 rows), a batch of odd
# sizes, a clip of 3 frames.
@pytest.mark.parametrize("videos,video", [
    ([[scene(1200, 1600, seed=5)]], False),
    ([[scene(h, w, seed=w)] for w, h in SIZES + [(84, 56)] if min(w, h) >= 28], False),
    ([[scene(97, 130, seed=s) for s in range(3)]], True)])
def test_qwen2vl_stills_batches_and_video(videos, video):
    got = (QWEN.preprocess_video(videos[0], pipeline=PY) if video else
           QWEN.preprocess([v[0] for v in videos], pipeline=PY))
    for a, b in zip(got, qwen_reference(videos)):
        np.testing.assert_array_equal(a, b, strict=True)  # the grid as int64


@pytest.mark.parametrize("jpeg", [(1, 2), (6, 0), (3, 1)])  # (orientation, subsampling)
@pytest.mark.parametrize("family", ENCODED)
def test_encoded_and_path_inputs_decode_like_the_references(tmp_path, family, jpeg):
    data, path, want = photo(tmp_path, *jpeg)
    for x in (data, path, str(path)):
        np.testing.assert_array_equal(ENCODED[family][0](x), want[family])


def test_cli_match_python(cli, tmp_path):
    _, path, want = photo(tmp_path, 6, 2)
    for command, (_, args) in ENCODED.items():
        np.testing.assert_array_equal(cli(command, path, *args, "--match-python")[1], want[command])
