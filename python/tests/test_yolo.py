# The yolo bindings: array types and strides in and out, in-place drawing and
# error mapping. The arithmetic itself is checked by the C++ tests.
import numpy as np
import pytest

import vemoproc

from vemoproc import yolo
from conftest import png_bytes, scene

HEAD = np.array([[20, 30, 20, 20, 0.9, 0.1], [21, 31, 20, 20, 0.1, 0.8],
                 [50, 20, 20, 20, 0.6, 0.0]], np.float32)


def test_images_in_any_layout_and_the_batch_tensor(write_png):
    rgb = scene(30, 40)
    expected = yolo.letterbox(rgb, (50, 50), pad_value=9)
    assert expected.dtype == np.uint8 and expected.shape == (50, 50, 3)
    big = np.pad(rgb, ((10, 10), (20, 30), (0, 0)))
    # Sliced, RGBA, Fortran-order, mirrored (negative strides) and grey arrays.
    for same, copy in [(big[10:40, 20:60], rgb), (np.dstack([rgb, rgb[:, :, :1]]), rgb),
                       (np.asfortranarray(rgb), rgb), (rgb[:, ::-1], rgb[:, ::-1].copy()),
                       (rgb[:, :, 1], np.dstack([rgb[:, :, 1]] * 3))]:
        assert np.array_equal(yolo.letterbox(same, (50, 50), 9), yolo.letterbox(copy, (50, 50), 9))
    # Paths as str or Path; the tensor is [B, 3, H, W] float32, planes over 255.
    batch = yolo.preprocess([str(write_png(rgb, "a.png")), write_png(rgb, "b.png")], (50, 20))
    assert batch.dtype == np.float32 and batch.shape == (2, 3, 20, 50)
    boxed = yolo.letterbox(rgb, (50, 20))
    assert np.array_equal(batch[1], boxed.transpose(2, 0, 1).astype(np.float32) / np.float32(255))
    tensor, infos = yolo.preprocess_images([rgb, png_bytes(rgb)], (50, 20))
    assert np.array_equal(tensor, batch) and infos == [yolo.letterbox_info(40, 30, (50, 20))] * 2


def test_detections_as_objects_or_arrays_and_drawing_in_place():
    dets = yolo.postprocess(HEAD.astype(np.float64), (64, 64), (64, 64), 0.25, 0.45, 300)
    arr = yolo.postprocess(HEAD, (64, 64), (64, 64), as_array=True)
    assert arr.dtype == np.float32 and arr.shape == (len(dets), 6) == (3, 6)
    assert np.array_equal(arr, [[d.x1, d.y1, d.x2, d.y2, d.score, d.class_id] for d in dets])
    info = yolo.letterbox_info(64, 64, (64, 64))
    rows = yolo.postprocess(HEAD, info, as_array=True)
    assert np.array_equal(yolo.postprocess(HEAD.T.copy(), info, channels_first=True,
                                           as_array=True), rows)
    assert len(yolo.postprocess(HEAD, info, agnostic=True, max_det=1, classes=[0])) == 1
    batch = yolo.postprocess_batch(np.stack([HEAD, HEAD]), [info, info], as_array=True)
    assert len(batch) == 2 and all(np.array_equal(r, rows) for r in batch)
    assert yolo.postprocess_end2end(HEAD, info)[0].class_id == 0
    # Drawing writes through a slice of a larger array and nowhere else.
    canvas = np.zeros((70, 80, 3), np.uint8)
    yolo.draw_detections(canvas[3:67, 5:69], dets, [], True, 2)
    expected = np.zeros((64, 64, 3), np.uint8)
    yolo.draw_detections(expected, arr)
    assert np.array_equal(canvas[3:67, 5:69], expected) and expected.any()
    assert not canvas[:3].any() and not canvas[:, :5].any() and not canvas[:, 69:].any()


@pytest.mark.parametrize("call, error, match", [
    (lambda: yolo.postprocess(np.zeros((3, 5), np.float32), (64, 64), (64, 64)),
     RuntimeError, r"expected \(N,5\+nc\) tensor"),
    (lambda: yolo.postprocess(np.zeros((1, 3, 6), np.float32), (64, 64), (64, 64)),
     ValueError, "predictions: expected 2 dimensions"),
    (lambda: yolo.postprocess(np.array([["a"] * 6]), (64, 64), (64, 64)), TypeError, "predictions"),
    (lambda: yolo.preprocess(["missing.png"], (32, 32)), RuntimeError, "stbi_load failed for: .*missing"),
    (lambda: yolo.preprocess("one.png", (32, 32)), TypeError, "paths"),
    (lambda: yolo.preprocess_images(["a.png"], (64, 32)), TypeError, "images"),
    (lambda: yolo.draw_detections(np.broadcast_to(np.zeros(3, np.uint8), (9, 9, 3)), []),
     ValueError, "image: array is read-only"),
    (lambda: yolo.letterbox(np.zeros((10, 10, 3), np.float32), (8, 8)), TypeError, "image"),
    (lambda: yolo.letterbox(np.zeros((10, 10, 2), np.uint8), (8, 8)), ValueError,
     "image: expected an HxW, HxWx3 or HxWx4"),
    (lambda: yolo.postprocess_batch(np.stack([HEAD, HEAD]), [yolo.letterbox_info(9, 9, (9, 9))]),
     RuntimeError, "letterbox"),
])
def test_errors_map_to_python_exceptions(call, error, match):
    with pytest.raises(error, match=match):
        call()


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
