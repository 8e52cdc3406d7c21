import numpy as np
import pytest

import vemoproc
from vemoproc import yolo
from conftest import png_bytes, scene


def test_preprocess_matches_the_tool_and_the_letterbox_arithmetic(write_png, cli):
    a = write_png(scene(48, 80), "a.png")
    b = write_png(scene(60, 30, seed=3), "b.png")
    batch = yolo.preprocess([a, str(b)], (64, 32))
    assert batch.dtype == np.float32 and batch.shape == (2, 3, 32, 64)
    _, expected = cli("yolo-preprocess", a, b, "--size", "64x32")
    assert np.array_equal(batch, expected)
    # Each plane is the letterboxed image over 255, channel first.
    boxed = yolo.letterbox(scene(60, 30, seed=3), (64, 32))
    assert boxed.shape == (32, 64, 3)
    assert np.array_equal(batch[1], boxed.transpose(2, 0, 1).astype(np.float32) / np.float32(255))
    assert np.all(boxed[:, :8] == 114)  # 16 wide content centred in 64


def test_letterbox_reads_grey_rgba_and_sliced_arrays_like_rgb():
    rgb = scene(30, 40)
    expected = yolo.letterbox(rgb, (50, 50), pad_value=9)
    big = np.zeros((50, 90, 3), np.uint8)
    big[10:40, 20:60] = rgb
    assert np.array_equal(yolo.letterbox(big[10:40, 20:60], (50, 50), 9), expected)
    rgba = np.dstack([rgb, np.full((30, 40), 3, np.uint8)])
    assert np.array_equal(yolo.letterbox(rgba, (50, 50), 9), expected)
    grey = rgb[:, :, 1].copy()
    assert np.array_equal(yolo.letterbox(grey, (50, 50), 9),
                          yolo.letterbox(np.dstack([grey] * 3), (50, 50), 9))
    # A mirrored view has a negative step: copied first, same result.
    assert np.array_equal(yolo.letterbox(rgb[:, ::-1], (50, 50), 9),
                          yolo.letterbox(rgb[:, ::-1].copy(), (50, 50), 9))


def head_rows(boxes):
    """Rows (cx, cy, w, h, score class 0, score class 1) from corner boxes."""
    rows = []
    for x1, y1, x2, y2, s0, s1 in boxes:
        rows.append([(x1 + x2) / 2, (y1 + y2) / 2, x2 - x1, y2 - y1, s0, s1])
    return np.array(rows, np.float32)


def test_postprocess_nms_and_letterbox_undo():
    # Network input 64x64 of a 32 (h) x 64 (w) image: gain 1, 16 rows of pad.
    head = head_rows([
        (10, 20, 30, 40, 0.9, 0.1),   # kept
        (11, 21, 31, 41, 0.8, 0.0),   # same class, IoU ~0.82: suppressed
        (11, 21, 31, 41, 0.0, 0.7),   # other class: kept
        (40, 30, 60, 60, 0.2, 0.1),   # below the threshold
        (50, 10, 70, 30, 0.6, 0.0),   # kept, clipped to the 64 wide image
    ])
    dets = yolo.postprocess(head, (64, 64), (32, 64), 0.25, 0.45, 300)
    pad_y = np.float32(16) - np.float32(0.1)
    pad_x = np.float32(0) - np.float32(0.1)
    expected = np.array([
        [10 - pad_x, 20 - pad_y, 30 - pad_x, 40 - pad_y, 0.9, 0],
        [11 - pad_x, 21 - pad_y, 31 - pad_x, 41 - pad_y, 0.7, 1],
        [50 - pad_x, 0, 64, 30 - pad_y, 0.6, 0],
    ], np.float32)
    got = np.array([[d.x1, d.y1, d.x2, d.y2, d.score, d.class_id] for d in dets], np.float32)
    assert np.array_equal(got, expected)
    arr = yolo.postprocess(head, (64, 64), (32, 64), as_array=True)
    assert arr.dtype == np.float32 and np.array_equal(arr, expected)
    assert len(yolo.postprocess(head, (64, 64), (32, 64), max_det=1)) == 1
    assert yolo.postprocess(head.astype(np.float64), (64, 64), (32, 64), 0.95, 0.45, 9) == []


def test_postprocess_and_drawing_match_the_tool(write_png, cli, tmp_path):
    image = scene(120, 160)
    path = write_png(image)
    rng = np.random.default_rng(5)
    head = np.concatenate([rng.uniform(20, 140, (40, 2)), rng.uniform(10, 60, (40, 2)),
                           rng.uniform(0, 1, (40, 3))], 1).astype(np.float32)
    np.save(tmp_path / "head.npy", head[None])
    drawn_path = tmp_path / "drawn.png"
    out, _ = cli("yolo-postprocess", tmp_path / "head.npy", "--input-size", "160x160",
                 "--image", path, "--draw", drawn_path, npy=False)
    dets = yolo.postprocess(head, (160, 160), (120, 160))
    lines = [x for x in out.splitlines()[1:] if not x.startswith("wrote")]
    assert len(lines) == len(dets) > 3
    for line, d in zip(lines, dets):
        cls, _, score, x1, y1, x2, y2 = line.split()
        assert int(cls) == d.class_id and float(score) == pytest.approx(d.score, abs=5e-5)
        assert np.allclose([float(v) for v in (x1, y1, x2, y2)], [d.x1, d.y1, d.x2, d.y2],
                           atol=0.051)
    # Drawing in place into a slice of a larger array equals the tool's PNG.
    canvas = np.zeros((130, 170, 3), np.uint8)
    canvas[5:125, 5:165] = image
    yolo.draw_detections(canvas[5:125, 5:165], dets, [], True, 2)
    assert np.array_equal(canvas[5:125, 5:165], vemoproc.decode_image(drawn_path.read_bytes()))
    assert not canvas[:5].any() and not canvas[:, :5].any()
    as_array = image.copy()
    yolo.draw_detections(as_array, yolo.postprocess(head, (160, 160), (120, 160), as_array=True))
    assert np.array_equal(as_array, canvas[5:125, 5:165])


def test_yolo_errors():
    with pytest.raises(RuntimeError, match=r"expected \(N,5\+nc\) tensor"):
        yolo.postprocess(np.zeros((3, 5), np.float32), (64, 64), (64, 64))
    with pytest.raises(ValueError, match="predictions: expected 2 dimensions"):
        yolo.postprocess(np.zeros((1, 3, 6), np.float32), (64, 64), (64, 64))
    with pytest.raises(TypeError, match="predictions"):
        yolo.postprocess(np.array([["a"] * 6]), (64, 64), (64, 64))
    with pytest.raises(RuntimeError, match="stbi_load failed for: .*missing.png"):
        yolo.preprocess(["missing.png"], (32, 32))
    with pytest.raises(TypeError, match="paths"):
        yolo.preprocess("one.png", (32, 32))
    image = np.zeros((10, 10, 3), np.uint8)
    image.flags.writeable = False
    with pytest.raises(ValueError, match="image: array is read-only"):
        yolo.draw_detections(image, [])
    with pytest.raises(TypeError, match="image"):
        yolo.letterbox(np.zeros((10, 10, 3), np.float32), (8, 8))
    with pytest.raises(ValueError, match="image: expected an HxW, HxWx3 or HxWx4"):
        yolo.letterbox(np.zeros((10, 10, 2), np.uint8), (8, 8))


def test_in_memory_batches_and_geometry_postprocessing(write_png):
    a, b = scene(48, 80), scene(60, 30, seed=3)
    tensor, infos = yolo.preprocess_images([a, png_bytes(b)], (64, 32))
    assert np.array_equal(tensor, yolo.preprocess([write_png(a, "a.png"), write_png(b, "b.png")],
                                                  (64, 32)))
    assert infos == [yolo.letterbox_info(80, 48, (64, 32)), yolo.letterbox_info(30, 60, (64, 32))]
    info = infos[1]  # 30 x 60 into 64 x 32: scale 0.533..., a 16 x 32 block at left 24
    assert (info.new_width, info.new_height, info.left, info.top) == (16, 32, 24, 0)

    # Channel-first heads give what their row form gives; boxes map back as
    # (net - left) / (new_width / original_width).
    head = head_rows([(26, 4, 34, 12, 0.9, 0.1), (27, 5, 35, 13, 0.2, 0.8)])
    rows = yolo.postprocess(head, info, as_array=True)
    assert np.array_equal(yolo.postprocess(head.T.copy(), info, channels_first=True,
                                           as_array=True), rows)
    sx = np.float32(16) / np.float32(30)
    sy = np.float32(32) / np.float32(60)
    expected = (np.float32(26) - np.float32(24)) / sx
    assert rows[0, 0] == expected and rows[0, 1] == np.float32(4) / sy
    assert len(yolo.postprocess(head, info, agnostic=True)) == 1  # IoU 0.6 across classes
    assert [d.class_id for d in yolo.postprocess(head, info, classes=[1])] == [1]
    batch = yolo.postprocess_batch(np.stack([head, head]), [info, info], as_array=True)
    assert len(batch) == 2 and all(np.array_equal(r, rows) for r in batch)
    end2end = yolo.postprocess_end2end(np.array([[26, 4, 34, 12, 0.9, 1]], np.float32), info)
    assert (end2end[0].x1, end2end[0].class_id) == (expected, 1)
    with pytest.raises(RuntimeError, match="letterbox"):
        yolo.postprocess_batch(np.stack([head, head]), [info], as_array=True)
    with pytest.raises(TypeError, match="images"):
        yolo.preprocess_images(["a.png"], (64, 32))


def test_drawn_class_columns_saturate_and_nan_is_class_0():
    def drawn(rows_or_list):
        image = np.zeros((40, 60, 3), np.uint8)
        yolo.draw_detections(image, rows_or_list, ["person"])
        return image

    row = [5.0, 15.0, 40.0, 35.0, 0.5]
    assert np.array_equal(drawn(np.array([row + [np.nan]], np.float32)),
                          drawn(np.array([row + [0.0]], np.float32)))
    for value, class_id in ((1e30, 2**31 - 1), (-1e30, -2**31)):
        assert np.array_equal(drawn(np.array([row + [value]], np.float32)),
                              drawn([yolo.Detection(*row, class_id)]))
