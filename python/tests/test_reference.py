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
R, REF = vemoproc.Resample, vemoproc.Decoder.Reference


def reference_resize(a, width, height, method):
    if method == R.OpenCVLinear:
        return cv2.resize(a, (width, height), interpolation=cv2.INTER_LINEAR)
    f = PIL_Image.BICUBIC if method == R.PillowBicubic else PIL_Image.BILINEAR
    im = PIL_Image.fromarray(a, {2: "L", 3: "RGB", 4: "RGBA"}[a.shape[-1] if a.ndim == 3 else 2])
    return np.asarray(im.resize((width, height), f, reducing_gap=None))


# (source w, h, target w, h): upscales, downscales up to 20x, odd sizes, 1-pixel
# sides, exact 2x and 3x, one side only, the same size.
SIZES = [(37, 53, 100, 80), (64, 48, 128, 96), (101, 99, 7, 5), (400, 300, 20, 15),
         (300, 200, 14, 11), (100, 60, 50, 30), (99, 60, 33, 20), (1, 9, 5, 3), (9, 1, 3, 5),
         (10, 10, 1, 1), (60, 40, 20, 40), (5, 5, 5, 9), (23, 17, 23, 17), (641, 361, 320, 180)]


@pytest.mark.parametrize("method", [R.OpenCVLinear, R.PillowBicubic, R.PillowBilinear])
@pytest.mark.parametrize("channels", [1, 3, 4])
@pytest.mark.parametrize("sw,sh,dw,dh", SIZES)
def test_resize_equals_the_reference(sw, sh, dw, dh, channels, method):
    rng = np.random.default_rng(sw * 1000 + dw * 10 + channels)
    a = rng.integers(0, 256, (sh, sw, channels)[:2 if channels == 1 else 3], np.uint8)
    view = scene(2 * sh + 9, sw + 9)[3:3 + 2 * sh:2, 5:5 + sw, ::-1]  # strided, channels reversed
    for src in (a, view):
        want = reference_resize(np.ascontiguousarray(src), dw, dh, method)
        np.testing.assert_array_equal(vemoproc.resize(src, dw, dh, method), want, strict=True)
    pytest.raises(RuntimeError, vemoproc.resize, a, 0, dh, method).match(r"resize\(\): width and")


def jpeg(kind):
    img, out = PIL_Image.fromarray(scene(67, 91, seed=3)), io.BytesIO()
    if kind == "restart":  # Pillow cannot write restart markers; OpenCV can
        assert b"\xff\xdd" in (data := cv2.imencode(".jpg", np.asarray(img), [
            cv2.IMWRITE_JPEG_RST_INTERVAL, 1])[1].tobytes())
        return data
    exif = PIL_Image.Exif()
    exif[0x0112] = int(kind[4:]) if kind.startswith("exif") else 1
    {"grey": img.convert("L"), "cmyk": img.convert("CMYK")}.get(kind, img).save(
        out, "JPEG", exif=exif, subsampling={"444": 0, "422": 1}.get(kind, 2),
        progressive=kind == "progressive", quality=85)
    return png_bytes(scene(20, 30)) if kind == "png" else out.getvalue()


KINDS = ["444", "422", "420", "progressive", "grey", "restart", "cmyk", "png"]


@pytest.mark.parametrize("kind", KINDS + [f"exif{o}" for o in range(1, 9)])
def test_reference_decoder_equals_opencv_and_pillow(kind, tmp_path):
    data, path = jpeg(kind), tmp_path / "image.jpg"
    got = vemoproc.decode_image(data, decoder=REF)
    np.testing.assert_array_equal(got, cv2.imdecode(np.frombuffer(data, np.uint8), 1)[..., ::-1])
    if kind != "cmyk":  # Pillow's CMYK to RGB differs from the reference's
        pillow = ImageOps.exif_transpose(PIL_Image.open(io.BytesIO(data))).convert("RGB")
        np.testing.assert_array_equal(got, np.asarray(pillow))
    path.write_bytes(data)
    np.testing.assert_array_equal(vemoproc.decode_image_file(path, REF), got)


def test_reference_decoder_errors_name_the_input():
    pytest.raises(RuntimeError, vemoproc.decode_image, b"\xff\xd8\xff\xe0junk",
                  decoder=REF).match("Failed to decode image bytes: ")
    pytest.raises(RuntimeError, vemoproc.decode_image_file, "/nonexistent.jpg",
                  REF).match("Failed to load image: /nonexistent.jpg")
