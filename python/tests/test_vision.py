import os
import pathlib
import threading

import numpy as np
import pytest

from vemoproc import convnext, qwen2vl, zentil
from conftest import png_bytes, scene

F32 = np.float32


def normalise(img, mean, std, scale=F32(1 / 255)):
    """(byte * scale - mean[c]) / std[c] in float32, channel first."""
    x = img.astype(F32) * F32(scale)
    return ((x - np.array(mean, F32)) / np.array(std, F32)).transpose(2, 0, 1)


def test_every_image_input_form_gives_the_tools_result(write_png, cli):
    rgb = scene(37, 53)
    path = write_png(rgb)
    _, expected_c = cli("convnext", path, "--size", "24", "--crop-pct", "0.8")
    _, expected_z = cli("zentil", path, "--size", "20")
    big = np.zeros((60, 90, 4), np.uint8)
    big[10:47, 20:73, :3] = rgb
    rgba = big[10:47, 20:73]  # strided RGBA slice, alpha ignored
    forms = [str(path), pathlib.Path(path), png_bytes(rgb), rgb, big[10:47, 20:73, :3].copy(), rgba]
    for pre, expected in ((convnext.ConvNextPreprocessor(24, 0.8), expected_c),
                          (zentil.ZentilPreprocessor(20), expected_z)):
        for x in forms:
            out = pre.process(x)
            assert out.dtype == np.float32 and out.base is not None
            assert np.array_equal(out, expected), type(x)
    # Grey pixels are the RGB image with equal channels.
    grey = rgb[:, :, 2].copy()
    assert np.array_equal(zentil.ZentilPreprocessor(20).process(grey),
                          zentil.ZentilPreprocessor(20).process(np.dstack([grey] * 3)))


def test_normalisation_matches_numpy_when_no_resampling_happens():
    img = scene(16, 16, seed=4)
    pre = convnext.ConvNextPreprocessor(16, 1.0)
    assert list(pre.mean) == [F32(0.485), F32(0.456), F32(0.406)]
    assert np.array_equal(pre.process(img), normalise(img, pre.mean, pre.std))
    z = zentil.ZentilPreprocessor(16).process(img)
    assert z.shape == (1, 3, 16, 16)
    assert np.array_equal(z[0], normalise(img, [0.5] * 3, [0.5] * 3))


def test_vision_errors():
    with pytest.raises(RuntimeError, match="Failed to load image: .*nothing.png"):
        convnext.ConvNextPreprocessor(8, 0.875).process(os.path.join("no", "nothing.png"))
    with pytest.raises(RuntimeError, match="crop_pct"):
        convnext.ConvNextPreprocessor(8, 1.5).process(scene(8, 8))
    with pytest.raises(RuntimeError, match="size"):
        zentil.ZentilPreprocessor(-1).process(scene(8, 8))
    with pytest.raises(RuntimeError, match="Failed to decode image bytes"):
        zentil.ZentilPreprocessor(8).process(b"\x89PNG broken")
    with pytest.raises(TypeError, match="x: expected a uint8 array"):
        zentil.ZentilPreprocessor(8).process(np.zeros((8, 8, 3), np.float64))
    with pytest.raises(TypeError, match="x: expected a uint8 numpy array"):
        zentil.ZentilPreprocessor(8).process(42)
    with pytest.raises(ValueError, match="x: expected an HxW, HxWx3 or HxWx4"):
        convnext.ConvNextPreprocessor(8, 1.0).process(np.zeros((4, 8, 8, 3), np.uint8))


def patch_rows(img, ps=14, tps=2, merge=2):
    """Qwen2-VL patch rows by reshape/transpose, as the reference processor does."""
    x = normalise(img, qwen2vl.DEFAULT_IMAGE_MEAN, qwen2vl.DEFAULT_IMAGE_STD)
    frames = np.stack([x] * tps)  # [T, C, H, W]
    c, h, w = x.shape
    gh, gw = h // ps, w // ps
    p = frames.reshape(1, tps, c, gh // merge, merge, ps, gw // merge, merge, ps)
    p = p.transpose(0, 3, 6, 4, 7, 2, 1, 5, 8)
    return p.reshape(gh * gw, c * tps * ps * ps), [1, gh, gw]


def test_qwen2vl_patch_order_matches_numpy_reshape():
    a, b = scene(56, 84, seed=6), scene(28, 56, seed=7)
    proc = qwen2vl.Qwen2VLImageProcessor(do_resize=False)
    patches, grid = proc.preprocess([a, b])
    rows_a, grid_a = patch_rows(a)
    rows_b, grid_b = patch_rows(b)
    assert patches.dtype == np.float32 and grid.dtype == np.uint64
    assert np.array_equal(patches, np.concatenate([rows_a, rows_b]))
    assert grid.tolist() == [grid_a, grid_b]
    one, _ = proc.preprocess(a)
    assert np.array_equal(one, rows_a)


def test_qwen2vl_video_groups_frames_along_time_like_numpy():
    a, b, c = (scene(56, 84, seed=s) for s in (11, 12, 13))
    proc = qwen2vl.Qwen2VLImageProcessor(do_resize=False)
    patches, grid = proc.preprocess_video([a, b, c])
    # Three frames pad to four with the last one; two temporal groups.
    x = np.stack([normalise(f, qwen2vl.DEFAULT_IMAGE_MEAN, qwen2vl.DEFAULT_IMAGE_STD)
                  for f in (a, b, c, c)])
    t, ch, h, w = x.shape
    p = x.reshape(2, 2, ch, h // 28, 2, 14, w // 28, 2, 14).transpose(0, 3, 6, 4, 7, 2, 1, 5, 8)
    assert np.array_equal(patches, p.reshape(2 * (h // 14) * (w // 14), ch * 2 * 14 * 14))
    assert grid.tolist() == [[2, h // 14, w // 14]]
    assert qwen2vl.sample_frame_indices(300, 30.0, 2.0, 4, 768) == list(range(0, 300, 15))
    with pytest.raises(RuntimeError, match="same size"):
        proc.preprocess_video([a, scene(28, 28, seed=1)])


def test_qwen2vl_paths_arrays_and_bytes_match_the_tool(write_png, cli):
    img = scene(45, 70, seed=8)
    path = write_png(img)
    _, expected = cli("qwen2vl", path, path)
    proc = qwen2vl.Qwen2VLImageProcessor()
    patches, grid = proc.preprocess([img, png_bytes(img)])
    assert np.array_equal(patches, expected)
    single, single_grid = proc.preprocess(path)
    assert np.array_equal(single, expected[: len(expected) // 2])
    assert grid.tolist() == [single_grid[0].tolist()] * 2
    h, w = qwen2vl.smart_resize(45, 70, 28, 56 * 56, 28 * 28 * 1280)
    assert single_grid[0].tolist() == [1, h // 14, w // 14]


def test_qwen2vl_helpers_and_errors():
    assert qwen2vl.smart_resize(100, 200, 28, 56 * 56, 28 * 28 * 1280) == (112, 196)
    # Above the budget: shrunk with a floor to multiples of the factor.
    assert qwen2vl.smart_resize(1000, 1000, 28, 56 * 56, 100 * 100) == (84, 84)
    with pytest.raises(RuntimeError, match="Absolute aspect ratio must be smaller than 200"):
        qwen2vl.smart_resize(10, 2100, 28, 56 * 56, 28 * 28 * 1280)
    img = scene(20, 30)
    assert np.array_equal(qwen2vl.resize_image(img, 20, 30), img)
    assert qwen2vl.resize_image(img, 7, 9).shape == (7, 9, 3)
    with pytest.raises(TypeError, match="image: expected a uint8 array"):
        qwen2vl.resize_image(img.astype(np.uint16), 2, 2)  # never narrowed silently
    with pytest.raises(ValueError, match="image: expected an HxWx3"):
        qwen2vl.resize_image(np.zeros((4, 4, 4), np.uint8), 2, 2)
    with pytest.raises(RuntimeError, match="patch_size"):
        qwen2vl.Qwen2VLImageProcessor(patch_size=0).preprocess([img])
    with pytest.raises(RuntimeError):
        qwen2vl.Qwen2VLImageProcessor(do_resize=False).preprocess([img])  # 20 x 30: not 28s
    with pytest.raises(TypeError, match="images"):
        qwen2vl.Qwen2VLImageProcessor().preprocess([img.astype(np.int32)])
    proc = qwen2vl.Qwen2VLImageProcessor(image_mean=[0.5], image_std=[0.25])
    assert proc.image_mean == [0.5] and proc.image_std == [0.25]


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
