import struct
import zlib

import numpy as np
import pytest

import vemoproc
from conftest import png_bytes, scene


def test_decode_image_returns_the_encoded_pixels_for_every_channel_layout():
    rgb = scene(17, 23)
    assert np.array_equal(vemoproc.decode_image(png_bytes(rgb)), rgb)
    grey = rgb[:, :, 0].copy()
    assert np.array_equal(vemoproc.decode_image(png_bytes(grey)), np.repeat(grey[:, :, None], 3, 2))
    rgba = np.dstack([rgb, np.full(grey.shape, 7, np.uint8)])
    assert np.array_equal(vemoproc.decode_image(bytearray(png_bytes(rgba))), rgb)
    out = vemoproc.decode_image(memoryview(png_bytes(rgb)))
    assert out.dtype == np.uint8 and out.flags.c_contiguous and out.base is not None


def test_decode_image_errors():
    with pytest.raises(RuntimeError, match="Failed to decode image bytes"):
        vemoproc.decode_image(b"not an image")
    with pytest.raises(TypeError, match="data"):
        vemoproc.decode_image("image.png")


def test_pixel_budget_refuses_larger_images_and_is_restored():
    before = vemoproc.max_image_pixels()
    data = png_bytes(scene(20, 20))
    try:
        vemoproc.set_max_image_pixels(399)
        assert vemoproc.max_image_pixels() == 399
        with pytest.raises(RuntimeError, match="Failed to decode image bytes"):
            vemoproc.decode_image(data)
        vemoproc.set_max_image_pixels(400)
        assert vemoproc.decode_image(data).shape == (20, 20, 3)
    finally:
        vemoproc.set_max_image_pixels(before)


def bt601_video(y, u, v):
    """OpenCV's fixed-point BT.601 limited-range conversion, per pixel."""
    shift = 20
    half = 1 << (shift - 1)
    yy = np.maximum(y.astype(np.int64) - 16, 0) * 1220542
    u = u.astype(np.int64) - 128
    v = v.astype(np.int64) - 128
    r = (yy + half + 1673527 * v) >> shift
    g = (yy + half - 852492 * v - 409993 * u) >> shift
    b = (yy + half + 2116026 * u) >> shift
    return np.clip(np.stack([r, g, b], -1), 0, 255).astype(np.uint8)


def frame(height, width, seed=1):
    rng = np.random.default_rng(seed)
    ch, cw = (height + 1) // 2, (width + 1) // 2
    return (rng.integers(0, 256, (height, width), dtype=np.uint8),
            rng.integers(0, 256, (ch, cw), dtype=np.uint8),
            rng.integers(0, 256, (ch, cw), dtype=np.uint8))


def test_yuv_layouts_agree_with_a_numpy_bt601_conversion():
    y, u, v = frame(7, 9)  # odd sides: the last chroma sample serves one pixel
    up = np.repeat(np.repeat(u, 2, 0), 2, 1)[:7, :9]
    vp = np.repeat(np.repeat(v, 2, 0), 2, 1)[:7, :9]
    expected = bt601_video(y, up, vp)
    nv12 = np.stack([u, v], -1)
    L = vemoproc.YuvLayout
    assert np.array_equal(vemoproc.yuv_to_rgb(y, nv12), expected)
    assert np.array_equal(vemoproc.yuv_to_rgb(y, nv12.reshape(4, 10)), expected)
    assert np.array_equal(vemoproc.yuv_to_rgb(y, np.stack([v, u], -1), layout=L.NV21), expected)
    assert np.array_equal(vemoproc.yuv_to_rgb(y, u, v, layout=L.I420), expected)
    full = vemoproc.yuv_to_rgb(y, nv12, range=vemoproc.YuvRange.Full)
    assert not np.array_equal(full, expected)


def test_yuv_single_buffer_strided_planes_and_rotation():
    y, u, v = frame(8, 12, seed=2)
    nv12 = np.stack([u, v], -1)
    planes = vemoproc.yuv_to_rgb(y, nv12)
    buffer = np.concatenate([y.ravel(), nv12.ravel()]).reshape(12, 12)
    assert np.array_equal(vemoproc.yuv_to_rgb(buffer), planes)
    i420 = np.concatenate([y.ravel(), u.ravel(), v.ravel()]).reshape(12, 12)
    L = vemoproc.YuvLayout
    assert np.array_equal(vemoproc.yuv_to_rgb(i420, layout=L.I420), planes)
    # Planes cut out of larger buffers are read in place at their strides.
    big_y = np.zeros((8, 40), np.uint8)
    big_y[:, 5:17] = y
    big_uv = np.zeros((4, 30, 2), np.uint8)
    big_uv[:, 3:9] = nv12
    assert np.array_equal(vemoproc.yuv_to_rgb(big_y[:, 5:17], big_uv[:, 3:9]), planes)
    R = vemoproc.Rotation
    assert np.array_equal(vemoproc.yuv_to_rgb(y, nv12, rotation=R.Clockwise90),
                          np.rot90(planes, k=-1))
    assert np.array_equal(vemoproc.yuv_to_rgb(y, nv12, rotation=R.Rotate180), planes[::-1, ::-1])
    assert np.array_equal(vemoproc.yuv_to_rgb(y, nv12, rotation=R.None_), planes)


def test_yuv_errors_name_the_plane():
    y, u, v = frame(8, 8)
    with pytest.raises(ValueError, match="u: plane too small"):
        vemoproc.yuv_to_rgb(y, u)  # NV12 needs two bytes per chroma sample
    with pytest.raises(ValueError, match="v: required"):
        vemoproc.yuv_to_rgb(y, u, layout=vemoproc.YuvLayout.I420)
    with pytest.raises(ValueError, match="v: plane too small"):
        vemoproc.yuv_to_rgb(y, u, v[:3], layout=vemoproc.YuvLayout.I420)
    with pytest.raises(TypeError, match="y"):
        vemoproc.yuv_to_rgb(y.astype(np.int16), np.stack([u, v], -1))
    with pytest.raises(ValueError, match="y: without u"):
        vemoproc.yuv_to_rgb(y)


def test_copies_too_large_to_make_raise_instead_of_crashing():
    # Broadcast arrays standing for a petabyte: the copy raises MemoryError;
    # sides beyond 32 bits raise ValueError before any copy is tried.
    huge = np.broadcast_to(np.uint8(7), (2**24, 2**24))
    calls = [
        (MemoryError, lambda: vemoproc.convnext.ConvNextPreprocessor().process(huge)),
        (MemoryError, lambda: vemoproc.qwen2vl.Qwen2VLImageProcessor().preprocess_video([huge])),
        (MemoryError, lambda: vemoproc.yuv_to_rgb(huge, huge, huge, vemoproc.YuvLayout.I420)),
        (MemoryError, lambda: vemoproc.yolo.postprocess(
            np.broadcast_to(0.0, (2**24, 2**24)), (640, 640), (640, 640))),
        (ValueError, lambda: vemoproc.yolo.letterbox(
            np.broadcast_to(np.uint8(0), (2**40, 1, 3)), (64, 64))),
        (ValueError, lambda: vemoproc.yuv_to_rgb(np.broadcast_to(np.uint8(0), (2**31, 2)))),
    ]
    for error, call in calls:
        with pytest.raises(error):
            call()


def test_inflate_bombs_are_refused_with_their_message():
    # A 1 x 1 PNG whose data inflates to 300 MiB.
    bomb = png_bytes(np.zeros((1, 1), np.uint8))
    z = zlib.compressobj(9)
    idat = b"".join(z.compress(bytes(1 << 20)) for _ in range(300)) + z.flush()
    start = bomb.index(b"IDAT") - 4
    end = start + 12 + struct.unpack(">I", bomb[start:start + 4])[0]
    chunk = struct.pack(">I", len(idat)) + b"IDAT" + idat + struct.pack(
        ">I", zlib.crc32(b"IDAT" + idat))
    with pytest.raises(RuntimeError, match="inflates past the declared image size"):
        vemoproc.decode_image(bomb[:start] + chunk + bomb[end:])
