import os
import pathlib
import threading

import numpy as np
import pytest

from vemoproc import convnext, qwen2vl, zentil
from conftest import png_bytes, scene

C, Z, Q = convnext.ConvNextPreprocessor, zentil.ZentilPreprocessor, qwen2vl.Qwen2VLImageProcessor


def test_every_image_input_form_gives_the_tools_result(write_png, cli):
    rgb = scene(37, 53)
    path = write_png(rgb)
    _, expected_c = cli("convnext", path, "--size", "24", "--crop-pct", "0.8")
    _, expected_z = cli("zentil", path, "--size", "20")
    big = np.zeros((60, 90, 4), np.uint8)
    big[10:47, 20:73, :3] = rgb
    # Paths, bytes, arrays, and a strided RGBA slice (alpha ignored).
    forms = [str(path), pathlib.Path(path), png_bytes(rgb), rgb, big[10:47, 20:73]]
    for pre, expected in ((C(24, 0.8), expected_c), (Z(20), expected_z)):
        for x in forms:
            out = pre.process(x)
            assert out.dtype == np.float32 and out.base is not None
            assert np.array_equal(out, expected), type(x)
    grey = rgb[:, :, 2].copy()  # grey pixels: RGB with equal channels
    assert np.array_equal(Z(20).process(grey), Z(20).process(np.dstack([grey] * 3)))


def test_qwen2vl_arrays_bytes_paths_and_videos_match_the_tool(write_png, cli):
    img = scene(45, 70, seed=8)
    path = write_png(img)
    _, expected = cli("qwen2vl", path, path)
    proc = Q()
    patches, grid = proc.preprocess([img, png_bytes(img)])
    assert patches.dtype == np.float32 and grid.dtype == np.uint64
    assert np.array_equal(patches, expected)
    single, single_grid = proc.preprocess(path)
    assert np.array_equal(single, expected[: len(expected) // 2])
    h, w = qwen2vl.smart_resize(45, 70, 28, 56 * 56, 28 * 28 * 1280)
    assert grid.tolist() == [[1, h // 14, w // 14]] * 2 == [single_grid[0].tolist()] * 2
    # Three frames pad to two temporal groups; a one-frame video is the image.
    video, video_grid = proc.preprocess_video([img, img[::-1].copy(), img])
    assert video.shape == (2 * len(single), single.shape[1])
    assert video_grid.tolist() == [[2, h // 14, w // 14]]
    assert np.array_equal(proc.preprocess_video([img])[0], single)
    assert qwen2vl.sample_frame_indices(300, 30.0, 2.0, 4, 768) == list(range(0, 300, 15))
    assert qwen2vl.resize_image(img, 7, 9).shape == (7, 9, 3)
    assert Q(image_mean=[0.5], image_std=[0.25]).image_std == [0.25]
    assert list(C(16, 1.0).mean) == [np.float32(0.485), np.float32(0.456), np.float32(0.406)]


@pytest.mark.parametrize("call, error, match", [
    (lambda: C(8, 0.875).process(os.path.join("no", "x.png")), RuntimeError, "load image: .*x.png"),
    (lambda: C(8, 1.5).process(scene(8, 8)), RuntimeError, "crop_pct"),
    (lambda: Z(-1).process(scene(8, 8)), RuntimeError, "size"),
    (lambda: Z(8).process(b"\x89PNG broken"), RuntimeError, "Failed to decode image bytes"),
    (lambda: Z(8).process(np.zeros((8, 8, 3), np.float64)), TypeError, "x: expected a uint8 array"),
    (lambda: Z(8).process(42), TypeError, "x: expected a uint8 numpy array"),
    (lambda: C(8, 1.0).process(np.zeros((4, 8, 8, 3), np.uint8)), ValueError, "HxWx3 or HxWx4"),
    (lambda: qwen2vl.smart_resize(10, 2100, 28, 0, 10**6), RuntimeError, "smaller than 200"),
    (lambda: qwen2vl.resize_image(np.zeros((4, 4, 3), np.uint16), 2, 2), TypeError, "a uint8"),
    (lambda: qwen2vl.resize_image(np.zeros((4, 4, 4), np.uint8), 2, 2), ValueError, "an HxWx3"),
    (lambda: Q(patch_size=0).preprocess([scene(20, 30)]), RuntimeError, "patch_size"),
    (lambda: Q().preprocess([scene(20, 30).astype(np.int32)]), TypeError, "images"),
    (lambda: Q().preprocess_video([scene(28, 28), scene(56, 56)]), RuntimeError, "same size"),
])
def test_errors_map_to_python_exceptions(call, error, match):
    with pytest.raises(error, match=match):
        call()


def test_settings_changed_during_a_call_do_not_reach_it(tmp_path):
    # The call reads a FIFO, so it is inside the library (GIL released) when
    # the writer's open returns; the settings changed then must not reach it.
    fifo = tmp_path / "frame.fifo"
    os.mkfifo(fifo)
    p = qwen2vl.Qwen2VLImageProcessor()
    out = {}
    worker = threading.Thread(target=lambda: out.update(r=p.preprocess(fifo)))
    worker.start()
    with open(fifo, "wb") as w:
        p.temporal_patch_size, p.merge_size = 1, 1
        w.write(png_bytes(scene(56, 56)))
    worker.join()
    assert out["r"][0].shape == (16, 3 * 2 * 14 * 14)
