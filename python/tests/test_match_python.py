"""Each family's MatchPython form against the same pipeline composed here from
cv2 / Pillow / numpy steps, the way the Python code does it, bit for bit."""
import io
import math

import numpy as np
import pytest

import vemoproc
from conftest import scene

cv2 = pytest.importorskip("cv2")
Image = pytest.importorskip("PIL.Image")
ImageOps = pytest.importorskip("PIL.ImageOps")

PY = vemoproc.Pipeline.MatchPython
IMAGENET = ((0.485, 0.456, 0.406), (0.229, 0.224, 0.225))
CLIP = ((0.48145466, 0.4578275, 0.40821073), (0.26862954, 0.26130258, 0.27577711))
# Awkward (width, height): odd, tall, wide, tiny, halves in the letterbox rule.
SIZES = [(97, 61), (61, 97), (640, 480), (1280, 720), (333, 721), (29, 400), (500, 28)]


# --- the reference pipelines, step by step -----------------------------------

def letterbox_reference(bgr, W, H):
    h, w = bgr.shape[:2]
    r = min(H / h, W / w)
    new = (round(w * r), round(h * r))
    dw, dh = (W - new[0]) / 2, (H - new[1]) / 2
    if (w, h) != new:
        bgr = cv2.resize(bgr, new, interpolation=cv2.INTER_LINEAR)
    top, bottom, left, right = (round(dh - 0.1), round(dh + 0.1), round(dw - 0.1),
                                round(dw + 0.1))
    bgr = cv2.copyMakeBorder(bgr, top, bottom, left, right, cv2.BORDER_CONSTANT,
                             value=(114, 114, 114))
    chw = np.ascontiguousarray(bgr[..., ::-1].transpose(2, 0, 1)).astype(np.float32)
    return chw / np.float32(255), (r, left, top)


def hf_values(rgb, stats):
    x = (np.asarray(rgb).astype(np.float64) * (1 / 255)).astype(np.float32)
    x = (x - np.array(stats[0], np.float32)) / np.array(stats[1], np.float32)
    return x.transpose(2, 0, 1)


def convnext_reference(rgb, size, crop_pct, resample):
    im = Image.fromarray(rgb)
    if size >= 384:
        return hf_values(im.resize((size, size), resample, reducing_gap=None), IMAGENET)
    short = int(size / crop_pct)
    w, h = im.size
    s, l = (w, h) if w <= h else (h, w)
    new = (short, int(short * l / s)) if w <= h else (int(short * l / s), short)
    a = np.asarray(im.resize(new, resample, reducing_gap=None))
    top, left = (new[1] - size) // 2, (new[0] - size) // 2
    return hf_values(a[top:top + size, left:left + size], IMAGENET)


def siglip_reference(rgb, size):
    im = Image.fromarray(rgb).resize((size, size), Image.BICUBIC, reducing_gap=None)
    return hf_values(im, ((0.5,) * 3, (0.5,) * 3))[None]


def smart_resize_reference(height, width, factor=28, min_pixels=56 * 56,
                           max_pixels=28 * 28 * 1280):
    if height < factor or width < factor:
        raise ValueError("smaller than factor")
    if max(height, width) / min(height, width) > 200:
        raise ValueError("aspect ratio")
    h_bar, w_bar = round(height / factor) * factor, round(width / factor) * factor
    if h_bar * w_bar > max_pixels:
        beta = math.sqrt((height * width) / max_pixels)
        h_bar = math.floor(height / beta / factor) * factor
        w_bar = math.floor(width / beta / factor) * factor
    elif h_bar * w_bar < min_pixels:
        beta = math.sqrt(min_pixels / (height * width))
        h_bar = math.ceil(height * beta / factor) * factor
        w_bar = math.ceil(width * beta / factor) * factor
    return h_bar, w_bar


def qwen_reference(videos, max_pixels=28 * 28 * 1280):
    """Rows and grid of a list of clips (a still image is a clip of one frame)."""
    rows, grids = [], []
    for frames in videos:
        h, w = smart_resize_reference(*frames[0].shape[:2], max_pixels=max_pixels)
        chw = [hf_values(Image.fromarray(f).resize((w, h), Image.BICUBIC, reducing_gap=None)
                         if (h, w) != f.shape[:2] else f, CLIP) for f in frames]
        chw += chw[-1:] * (len(chw) % 2)
        gt, gh, gw = len(chw) // 2, h // 14, w // 14
        p = np.stack(chw).reshape(gt, 2, 3, gh // 2, 2, 14, gw // 2, 2, 14)
        rows.append(p.transpose(0, 3, 6, 4, 7, 2, 1, 5, 8).reshape(gt * gh * gw, 1176))
        grids.append((gt, gh, gw))
    return np.concatenate(rows), np.array(grids, dtype=np.int64)


def jpeg(rgb, orientation=1, **save):
    exif = Image.Exif()
    exif[0x0112] = orientation
    buf = io.BytesIO()
    Image.fromarray(rgb).save(buf, "JPEG", quality=88, exif=exif.tobytes(), **save)
    return buf.getvalue()


def pillow_load(data):
    return np.asarray(ImageOps.exif_transpose(Image.open(io.BytesIO(data))).convert("RGB"))


# --- the tests ------------------------------------------------------------------

@pytest.mark.parametrize("w,h", SIZES)
def test_yolo_letterbox_and_geometry(w, h):
    bgr = scene(h, w, seed=w)
    for target in [(640, 640), (320, 256)]:
        want, (r, left, top) = letterbox_reference(bgr, *target)
        got, (g,) = vemoproc.yolo.preprocess_images([bgr], target, pipeline=PY, bgr=True)
        np.testing.assert_array_equal(got[0], want)
        assert (g.left, g.top, g.scale) == (left, top, np.float32(r))
        assert g == vemoproc.yolo.letterbox_info(w, h, target, pipeline=PY)
        # RGB and RGBA arrays: the same tensor.
        rgb = np.ascontiguousarray(bgr[..., ::-1])
        for arr in (rgb, np.dstack([rgb, np.full((h, w), 7, np.uint8)])):
            again, _ = vemoproc.yolo.preprocess_images([arr], target, pipeline=PY)
            np.testing.assert_array_equal(again[0], want)


def test_yolo_boxes_map_back_with_the_reference_rule():
    g = vemoproc.yolo.letterbox_info(1280, 721, (640, 640), pipeline=PY)
    rng = np.random.default_rng(3)
    rows = np.concatenate([rng.uniform(-50, 700, (200, 4)), rng.uniform(0, 1, (200, 1)),
                           rng.integers(0, 5, (200, 1))], axis=1).astype(np.float32)
    want = rows[rows[:, 4] > 0.25, :4].copy()
    want[:, [0, 2]] -= g.left
    want[:, [1, 3]] -= g.top
    want /= np.float32(g.scale)
    want[:, [0, 2]] = want[:, [0, 2]].clip(0, 1280)
    want[:, [1, 3]] = want[:, [1, 3]].clip(0, 721)
    got = vemoproc.yolo.postprocess_end2end(rows, g, 0.25, box_mapping=PY, as_array=True)
    np.testing.assert_array_equal(got[:, :4], want)


@pytest.mark.parametrize("w,h", SIZES)
def test_convnext_and_siglip(w, h):
    rgb = scene(h, w, seed=h)
    pre = vemoproc.convnext.ConvNextPreprocessor(224, 0.875)
    np.testing.assert_array_equal(pre.process(rgb, pipeline=PY),
                                  convnext_reference(rgb, 224, 0.875, Image.BICUBIC))
    pre.resample = vemoproc.Resample.PillowBilinear
    np.testing.assert_array_equal(pre.process(rgb, pipeline=PY),
                                  convnext_reference(rgb, 224, 0.875, Image.BILINEAR))
    big = vemoproc.convnext.ConvNextPreprocessor(384, 0.875)
    np.testing.assert_array_equal(big.process(rgb, pipeline=PY),
                                  convnext_reference(rgb, 384, 0.875, Image.BICUBIC))
    np.testing.assert_array_equal(
        vemoproc.zentil.ZentilPreprocessor(224).process(rgb, pipeline=PY),
        siglip_reference(rgb, 224))


def test_convnext_pads_with_zeros_when_the_crop_is_larger():
    rgb = scene(40, 30)
    got = vemoproc.convnext.ConvNextPreprocessor(64, 2.0).process(rgb, pipeline=PY)
    im = np.asarray(Image.fromarray(rgb).resize((32, 42), Image.BICUBIC, reducing_gap=None))
    padded = np.zeros((64, 64, 3), np.uint8)  # centred at the ceil of half the margin
    padded[11:53, 16:48] = im
    np.testing.assert_array_equal(got, hf_values(padded, IMAGENET))


# (height, width, max_pixels): the example, halves to even, both
# budgets, the factor itself, extreme aspect ratios, errors.
SIZE_RULE = [(1200, 1600, 1003520), (70, 70, 1003520), (42, 98, 1003520), (28, 28, 1003520),
             (29, 5600, 1003520), (28, 5601, 1003520), (27, 100, 1003520), (100, 27, 1003520),
             (3000, 4000, 12845056), (4352, 3168, 1003520), (721, 1281, 1003520),
             (30, 61, 1003520), (1999, 2001, 200000)]


def test_qwen2vl_size_rule():
    cases = SIZE_RULE + [(h, w, 1003520) for h in range(28, 4000, 97) for w in (31, 555, 2222)]
    for h, w, mx in cases:
        try:
            want = smart_resize_reference(h, w, max_pixels=mx)
        except ValueError:
            with pytest.raises(RuntimeError):
                vemoproc.qwen2vl.smart_resize_match_python(h, w, 28, 3136, mx)
            continue
        assert vemoproc.qwen2vl.smart_resize_match_python(h, w, 28, 3136, mx) == want, (h, w)


def test_qwen2vl_stills_batches_and_video():
    proc = vemoproc.qwen2vl.Qwen2VLImageProcessor()
    big = scene(1200, 1600, seed=5)
    rows, grid = proc.preprocess(big, pipeline=PY)
    assert grid.dtype == np.int64 and grid.tolist() == [[1, 60, 82]] and rows.shape[0] == 4920
    want_rows, _ = qwen_reference([[big]])
    np.testing.assert_array_equal(rows, want_rows)

    images = [scene(h, w, seed=w) for w, h in SIZES if min(w, h) >= 28] + [scene(56, 84)]
    rows, grid = proc.preprocess(images, pipeline=PY)
    want_rows, want_grid = qwen_reference([[im] for im in images])
    np.testing.assert_array_equal(grid, want_grid)
    np.testing.assert_array_equal(rows, want_rows)

    clip = [scene(97, 130, seed=s) for s in range(3)]
    rows, grid = proc.preprocess_video(clip, pipeline=PY)
    want_rows, want_grid = qwen_reference([clip])
    np.testing.assert_array_equal(grid, want_grid)
    np.testing.assert_array_equal(rows, want_rows)


@pytest.mark.parametrize("orientation,subsampling", [(1, 2), (6, 0), (3, 1)])
def test_encoded_and_path_inputs_decode_like_the_references(tmp_path, orientation, subsampling):
    data = jpeg(scene(75, 101, seed=orientation), orientation, subsampling=subsampling)
    path = tmp_path / "photo.jpg"
    path.write_bytes(data)
    bgr = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    want, _ = letterbox_reference(bgr, 320, 320)
    got, _ = vemoproc.yolo.preprocess_images([data], (320, 320), pipeline=PY)
    np.testing.assert_array_equal(got[0], want)
    np.testing.assert_array_equal(vemoproc.yolo.preprocess([path], (320, 320), pipeline=PY)[0],
                                  want)

    rgb = pillow_load(data)
    pre = vemoproc.convnext.ConvNextPreprocessor(64, 0.875)
    want = convnext_reference(rgb, 64, 0.875, Image.BICUBIC)
    for x in (data, path):
        np.testing.assert_array_equal(pre.process(x, pipeline=PY), want)
    np.testing.assert_array_equal(vemoproc.zentil.ZentilPreprocessor(48).process(path, pipeline=PY),
                                  siglip_reference(rgb, 48))
    rows, _ = vemoproc.qwen2vl.Qwen2VLImageProcessor().preprocess(str(path), pipeline=PY)
    np.testing.assert_array_equal(rows, qwen_reference([[rgb]])[0])


def test_cli_match_python(cli, tmp_path):
    data = jpeg(scene(90, 130, seed=9), 6)
    path = tmp_path / "photo.jpg"
    path.write_bytes(data)
    rgb = pillow_load(data)
    bgr = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)
    _, got = cli("yolo-preprocess", path, "--size", "320x256", "--match-python")
    np.testing.assert_array_equal(got[0], letterbox_reference(bgr, 320, 256)[0])
    _, got = cli("convnext", path, "--match-python")
    np.testing.assert_array_equal(got, convnext_reference(rgb, 224, 0.875, Image.BICUBIC))
    _, got = cli("zentil", path, "--size", "96", "--match-python")
    np.testing.assert_array_equal(got, siglip_reference(rgb, 96))
    out, got = cli("qwen2vl", path, "--match-python")
    np.testing.assert_array_equal(got, qwen_reference([[rgb]])[0])
