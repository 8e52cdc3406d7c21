import numpy as np
import pytest

import vemoproc
from conftest import png_bytes, scene


def test_decode_image_takes_any_byte_buffer_and_owns_its_result():
    rgb = scene(17, 23)
    for data in (png_bytes(rgb), bytearray(png_bytes(rgb)), memoryview(png_bytes(rgb))):
        out = vemoproc.decode_image(data)
        assert np.array_equal(out, rgb)
        assert out.dtype == np.uint8 and out.flags.c_contiguous and out.base is not None
    before = vemoproc.max_image_pixels()
    try:
        vemoproc.set_max_image_pixels(17 * 23 - 1)
        assert vemoproc.max_image_pixels() == 17 * 23 - 1
        for data in (png_bytes(rgb), b"not an image"):
            with pytest.raises(RuntimeError, match="Failed to decode image bytes"):
                vemoproc.decode_image(data)
    finally:
        vemoproc.set_max_image_pixels(before)
    with pytest.raises(TypeError, match="data"):
        vemoproc.decode_image("image.png")


def test_yuv_planes_buffers_strides_and_enums_reach_the_library():
    rng = np.random.default_rng(2)
    y = rng.integers(0, 256, (8, 12), dtype=np.uint8)
    u, v = rng.integers(0, 256, (2, 4, 6), dtype=np.uint8)
    nv12 = np.stack([u, v], -1)
    L, R, yuv = vemoproc.YuvLayout, vemoproc.Rotation, vemoproc.yuv_to_rgb
    planes = yuv(y, nv12)
    assert planes.dtype == np.uint8 and planes.shape == (8, 12, 3)
    # Planes cut out of larger buffers are read in place at their strides.
    big_y = np.zeros((8, 40), np.uint8)
    big_y[:, 5:17] = y
    big_uv = np.zeros((4, 30, 2), np.uint8)
    big_uv[:, 3:9] = nv12
    for out in (yuv(y, nv12.reshape(4, 12)), yuv(y, np.stack([v, u], -1), layout=L.NV21),
                yuv(y, u, v, layout=L.I420), yuv(np.vstack([y, nv12.reshape(4, 12)])),
                yuv(np.vstack([y, u.reshape(2, 12), v.reshape(2, 12)]), layout=L.I420),
                yuv(big_y[:, 5:17], big_uv[:, 3:9]), yuv(y, nv12, rotation=R.None_)):
        assert np.array_equal(out, planes)
    assert np.array_equal(yuv(y, nv12, rotation=R.Clockwise90), np.rot90(planes, -1))
    # One pixel worked out by hand in both ranges.
    red = (np.full((1, 1), 81, np.uint8), np.array([[[90, 240]]], np.uint8))
    assert yuv(*red).tolist() == [[[254, 0, 0]]]
    assert yuv(*red, range=vemoproc.YuvRange.Full).tolist() == [[[238, 14, 14]]]
    for args, kwargs, error, match in (
            ((y, u), {}, ValueError, "u: plane too small"),  # NV12: two bytes per sample
            ((y, u), {"layout": L.I420}, ValueError, "v: required"),
            ((y, u, v[:3]), {"layout": L.I420}, ValueError, "v: plane too small"),
            ((y.astype(np.int16), nv12), {}, TypeError, "y"),
            ((y,), {}, ValueError, "y: without u")):
        with pytest.raises(error, match=match):
            yuv(*args, **kwargs)


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
