"""The reference forms against the references themselves: vemoproc.resize with
cv2.resize and PIL's Image.resize, Decoder.Reference with cv2.imdecode and
Pillow, bit for bit."""
import io

import numpy as np
import pytest

import vemoproc
from conftest import png_bytes, scene

cv2 = pytest.importorskip("cv2")
PIL_Image = pytest.importorskip("PIL.Image")
ImageOps = pytest.importorskip("PIL.ImageOps")

R = vemoproc.Resample
MODES = {1: "L", 3: "RGB", 4: "RGBA"}


def reference_resize(a, width, height, method):
    if method == R.OpenCVLinear:
        return cv2.resize(a, (width, height), interpolation=cv2.INTER_LINEAR)
    f = PIL_Image.BICUBIC if method == R.PillowBicubic else PIL_Image.BILINEAR
    im = PIL_Image.fromarray(a, MODES[1 if a.ndim == 2 else a.shape[2]])
    return np.asarray(im.resize((width, height), f, reducing_gap=None))


# (source w, h) -> (target w, h): upscales, downscales up to 20x, odd sizes,
# 1-pixel sides, exact 2x and 3x, one side only, the same size.
SIZES = [((37, 53), (100, 80)), ((64, 48), (128, 96)), ((101, 99), (7, 5)), ((400, 300), (20, 15)),
         ((300, 200), (14, 11)), ((100, 60), (50, 30)), ((99, 60), (33, 20)), ((1, 9), (5, 3)),
         ((9, 1), (3, 5)), ((10, 10), (1, 1)), ((60, 40), (20, 40)), ((5, 5), (5, 9)),
         ((23, 17), (23, 17)), ((641, 361), (320, 180))]


@pytest.mark.parametrize("method", [R.OpenCVLinear, R.PillowBicubic, R.PillowBilinear])
@pytest.mark.parametrize("channels", [1, 3, 4])
@pytest.mark.parametrize("src,dst", SIZES)
def test_resize_equals_the_reference(src, dst, channels, method):
    rng = np.random.default_rng(src[0] * 1000 + dst[0] * 10 + channels)
    shape = (src[1], src[0]) if channels == 1 else (src[1], src[0], channels)
    a = rng.integers(0, 256, shape, dtype=np.uint8)
    got = vemoproc.resize(a, dst[0], dst[1], method)
    assert got.shape == (dst[1], dst[0]) + shape[2:]
    np.testing.assert_array_equal(got, reference_resize(a, dst[0], dst[1], method))


def test_resize_reads_strided_views_and_keeps_channel_order():
    big = scene(90, 120)
    view = big[5:85:2, 7:110]  # every other row of a wider image
    for method in (R.OpenCVLinear, R.PillowBicubic):
        got = vemoproc.resize(view, 31, 17, method)
        np.testing.assert_array_equal(got, reference_resize(np.ascontiguousarray(view), 31, 17,
                                                            method))
    bgr = np.ascontiguousarray(view[:, :, ::-1])
    np.testing.assert_array_equal(vemoproc.resize(bgr, 31, 17, R.OpenCVLinear),
                                  reference_resize(bgr, 31, 17, R.OpenCVLinear))
    with pytest.raises(RuntimeError, match=r"resize\(\): width and height"):
        vemoproc.resize(view, 0, 17, R.OpenCVLinear)


def jpeg(kind):
    img = PIL_Image.fromarray(scene(67, 91, seed=3))
    out = io.BytesIO()
    if kind == "restart":  # Pillow cannot write restart markers; OpenCV can
        ok, data = cv2.imencode(".jpg", scene(67, 91, seed=3),
                                [cv2.IMWRITE_JPEG_RST_INTERVAL, 1])
        assert ok and b"\xff\xdd" in data.tobytes()
        return data.tobytes()
    if kind.startswith("exif"):
        exif = PIL_Image.Exif()
        exif[0x0112] = int(kind[4:])
        img.save(out, "JPEG", exif=exif, subsampling=2)
    elif kind == "grey":
        img.convert("L").save(out, "JPEG")
    elif kind == "progressive":
        img.save(out, "JPEG", progressive=True, quality=90)
    else:
        img.save(out, "JPEG", subsampling={"444": 0, "422": 1, "420": 2}[kind], quality=85)
    return out.getvalue()


@pytest.mark.parametrize("kind", ["444", "422", "420", "progressive", "grey", "restart"] +
                         [f"exif{o}" for o in range(1, 9)])
def test_reference_decoder_equals_opencv_and_pillow(kind, tmp_path):
    data = jpeg(kind)
    got = vemoproc.decode_image(data, decoder=vemoproc.Decoder.Reference)
    opencv = cv2.imdecode(np.frombuffer(data, np.uint8), cv2.IMREAD_COLOR)[:, :, ::-1]
    pillow = np.asarray(ImageOps.exif_transpose(PIL_Image.open(io.BytesIO(data))).convert("RGB"))
    np.testing.assert_array_equal(got, opencv)
    np.testing.assert_array_equal(got, pillow)
    path = tmp_path / "image.jpg"
    path.write_bytes(data)
    np.testing.assert_array_equal(vemoproc.decode_image_file(path, vemoproc.Decoder.Reference), got)


def test_reference_decoder_other_formats_cmyk_and_errors():
    rgb = scene(20, 30)
    png = png_bytes(rgb)
    np.testing.assert_array_equal(vemoproc.decode_image(png, decoder=vemoproc.Decoder.Reference),
                                  rgb)
    out = io.BytesIO()
    PIL_Image.fromarray(rgb).convert("CMYK").save(out, "JPEG")
    cmyk = out.getvalue()
    np.testing.assert_array_equal(vemoproc.decode_image(cmyk, decoder=vemoproc.Decoder.Reference),
                                  cv2.imdecode(np.frombuffer(cmyk, np.uint8), 1)[:, :, ::-1])
    with pytest.raises(RuntimeError, match="Failed to decode image bytes: "):
        vemoproc.decode_image(b"\xff\xd8\xff\xe0junk", decoder=vemoproc.Decoder.Reference)
    with pytest.raises(RuntimeError, match="Failed to load image: /nonexistent.jpg"):
        vemoproc.decode_image_file("/nonexistent.jpg", vemoproc.Decoder.Reference)
