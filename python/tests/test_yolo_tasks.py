# The detection family's other heads against a numpy transcription of the
# documented float rules (yolo_tasks.hpp), on structured synthetic heads: a few
# objects, each with a cluster of jittered candidates, smooth prototypes.
import numpy as np
import pytest

from vemoproc import yolo

f32 = np.float32
M, MH, MW, INPUT = 32, 80, 80, 320  # prototypes of a 320 x 320 input
CENTRES = np.random.default_rng(0).uniform(0, MW, (M, 2))


# A Gaussian blob per prototype, lowered so that only its core is positive.
def protos(seed=0):
    y, x = np.mgrid[0:MH, 0:MW].astype(np.float64)
    return (np.stack([np.exp(-((x - cx) ** 2 + (y - cy) ** 2) / 128) - 0.25 for cx, cy in CENTRES])
            + np.random.default_rng(seed).normal(0, 0.01, (M, MH, MW))).astype(f32)


# Rows (cx, cy, w, h, class scores, extra values): a cluster of jittered
# candidates around each object, then low-scoring noise rows.
def clustered_head(objects, classes, extra, seed=1, per_object=12, background=60):
    rng, rows = np.random.default_rng(seed), []
    for cx, cy, w, h, cls, values in objects:
        for _ in range(per_object):
            scores = rng.uniform(0, 0.2, classes)
            scores[cls] = rng.uniform(0.3, 0.95)
            rows.append(np.concatenate([np.array([cx, cy, w, h]) + rng.normal(0, 2.0, 4), scores,
                                        values + rng.normal(0, 0.05, extra)]))
    rows += [np.concatenate([rng.uniform(0, INPUT, 2), rng.uniform(4, 40, 2), rng.uniform(0, 0.3, classes),
                             rng.normal(0, 1, extra)]) for _ in range(background)]
    return np.array(rows, dtype=f32)[rng.permutation(len(rows))]


# (scale, offset) of the letterbox, per axis, in float32.
def mapping(g):
    return (np.array([g.new_width, g.new_height], f32) / np.array([g.original_width, g.original_height], f32),
            np.array([g.left, g.top], f32))


def map_boxes(b, g):
    scale, offset = mapping(g)
    limit = np.array([g.original_width, g.original_height] * 2, f32)
    return np.clip((b - np.tile(offset, 2)) / np.tile(scale, 2), f32(0), limit)


def xyxy(head):
    return np.concatenate([head[:, :2] - head[:, 2:4] / f32(2), head[:, :2] + head[:, 2:4] / f32(2)], 1)


# The head row each result came from: its mapped box and best score match exactly.
def source_rows(head, boxes, g, classes):
    mapped, best = map_boxes(xyxy(head), g), head[:, 4:4 + classes].max(axis=1)
    hits = [np.flatnonzero((mapped == b[:4]).all(axis=1) & (best == b[4])) for b in boxes]
    return [int(h) for h in hits]  # exactly one each


def taps(begin, end, scale, offset, ratio, size):
    p = np.maximum(((np.arange(begin, end).astype(f32) + f32(0.5)) * scale + offset) * ratio
                   - f32(0.5), f32(0))
    i0 = np.minimum(np.floor(p).astype(np.int64), size - 1)
    return i0, np.minimum(i0 + 1, size - 1), p - i0.astype(f32)


# The documented rule: logits summed in coefficient order, taps at half-pixel
# centres, horizontal then vertical mix, > 0, inside ceil(x1)..ceil(x2) - 1.
def oracle_mask(P, coef, box, scale, offset, limits):
    lo = [int(max(np.ceil(box[a]), 0)) for a in (0, 1)]
    hi = [int(min(np.ceil(box[a + 2]), limits[a])) for a in (0, 1)]
    if hi[0] <= lo[0] or hi[1] <= lo[1]:
        return (0, 0), np.zeros((0, 0), np.uint8)
    logits = sum((f32(c) * p for c, p in zip(coef, P)), np.zeros((MH, MW), f32))  # in order
    i0, i1, a = taps(lo[0], hi[0], scale[0], offset[0], f32(MW) / f32(INPUT), MW)
    j0, j1, b = taps(lo[1], hi[1], scale[1], offset[1], f32(MH) / f32(INPUT), MH)
    top = (f32(1) - a) * logits[j0][:, i0] + a * logits[j0][:, i1]
    bottom = (f32(1) - a) * logits[j1][:, i0] + a * logits[j1][:, i1]
    return tuple(lo), ((f32(1) - b)[:, None] * top + b[:, None] * bottom > 0).astype(np.uint8)


def paste(origin, mask, h, w):
    return np.pad(mask > 0, ((origin[1], h - origin[1] - mask.shape[0]), (origin[0], w - origin[0] - mask.shape[1])))


@pytest.mark.parametrize("size,options", [
    ((600, 400), {}), ((250, 640), {"agnostic": True, "iou_threshold": 0.3}),
    ((320, 320), {"channels_first": True, "max_det": 3})])
def test_masks_follow_the_documented_rule_bit_for_bit(size, options):
    P, rng = protos(), np.random.default_rng(5)
    objects = [(cx, cy, w, h, c, 2 * np.exp(-((CENTRES - [cx / 4, cy / 4]) ** 2).sum(1) / 288)
                + rng.normal(0, 0.05, M)) for cx, cy, w, h, c in  # nearby prototypes weigh most
               [(80, 100, 100, 120, 0), (220, 120, 140, 80, 1), (160, 240, 180, 100, 2), (90, 110, 60, 60, 1)]]
    head = clustered_head(objects, 3, M)
    g, (w, h) = yolo.letterbox_info(*size, (INPUT, INPUT)), size
    given = np.ascontiguousarray(head.T) if options.get("channels_first") else head
    got, inputs = yolo.segment(given, P, g, **options), yolo.segment_input_masks(given, P, g, **options)
    boxes = yolo.postprocess(np.ascontiguousarray(given[:7] if options.get("channels_first") else given[:, :7]),
                             g, as_array=True, **options)
    np.testing.assert_array_equal(got["boxes"], boxes)  # the detection path's boxes
    assert len(boxes) >= 3
    ((sx, sy), (left, top)), ious = mapping(g), []
    for n, i in enumerate(source_rows(head, boxes, g, 3)):
        for out, box, scale, offset, limits in [(got, boxes[n], (sx, sy), (left, top), size),  # original
                                                (inputs, xyxy(head[i:i + 1])[0], (f32(1),) * 2, (f32(0),) * 2,
                                                 (INPUT, INPUT))]:  # and network-input pixels
            origin, mask = oracle_mask(P, head[i, 7:], box, scale, offset, limits)
            assert tuple(out["origins"][n]) == origin and np.array_equal(out["masks"][n], mask)
        # The reference order (threshold at input resolution, then each original
        # pixel takes its input pixel) agrees closely with the original-pixel rule.
        cols = np.minimum(np.floor((np.arange(w) + 0.5) * float(sx) + float(left)).astype(int), INPUT - 1)
        rows = np.minimum(np.floor((np.arange(h) + 0.5) * float(sy) + float(top)).astype(int), INPUT - 1)
        reference = paste(origin, mask, INPUT, INPUT)[np.ix_(rows, cols)]
        ours = paste(got["origins"][n], got["masks"][n], h, w)
        if min(np.diff(box.reshape(2, 2), axis=0)[0]) >= 80:  # the objects, not the noise rows
            ious.append((ours & reference).sum() / (ours | reference).sum())
    assert len(ious) >= 2 and np.mean(ious) >= 0.98 and min(ious) >= 0.95


def test_segment_end2end_filters_then_masks():
    P, g = protos(2), yolo.letterbox_info(200, 100, (INPUT, INPUT))
    rows = np.column_stack([[[10, 40, 60, 90, .9, 0], [70, 50, 150, 110, .1, 1], [0, 0, 5, 5, .8, 2],
                             [20, 30, 80, 120, .7, 1], [1, 1, 159, 159, .6, 0]],
                            np.random.default_rng(3).normal(0, 1.5, (5, M))]).astype(f32)
    got = yolo.segment_end2end(rows, P, g, conf_threshold=0.5, classes=[0, 1], max_det=2)
    np.testing.assert_array_equal(got["boxes"][:, 4], [f32(0.9), f32(0.7)])
    for n, i in enumerate([0, 3]):
        origin, mask = oracle_mask(P, rows[i, 6:], map_boxes(rows[i, :4], g), *mapping(g), (200, 100))
        assert tuple(got["origins"][n]) == origin and np.array_equal(got["masks"][n], mask)


def test_pose_keypoints_map_like_boxes():
    rng, K = np.random.default_rng(7), 5
    objects = [(cx, cy, w, h, 0, np.column_stack([[-30] + list(rng.uniform(cx - w / 2, cx + w / 2, K - 1)),
                [500] + list(rng.uniform(cy - h / 2, cy + h / 2, K - 1)), rng.uniform(0, 1, K)]).ravel())
               for cx, cy, w, h in [(50, 60, 40, 80), (120, 90, 30, 60)]]  # point 0 maps outside: clipped
    head, g = clustered_head(objects, 1, K * 3), yolo.letterbox_info(333, 222, (INPUT, INPUT))
    got = yolo.pose(head, g, keypoint_shape=(K, 3))
    boxes = yolo.postprocess(np.ascontiguousarray(head[:, :5]), g, as_array=True)
    np.testing.assert_array_equal(got["boxes"], boxes)
    for n, i in enumerate(source_rows(head, boxes, g, 1)):
        pts = head[i, 5:].reshape(K, 3)
        xy = map_boxes(np.tile(pts[:, :2], 2), g)[:, :2]
        np.testing.assert_array_equal(got["keypoints"][n], np.column_stack([xy, pts[:, 2]]))
    two = yolo.pose(np.ascontiguousarray(head[:, :5 + K * 2]), g, keypoint_shape=(K, 2))["keypoints"]
    assert np.all(two[..., 2] == 1)


def floor_mod(t, p):  # in [0, p): a remainder rounded up to p is 0
    return np.where((r := np.mod(t, p)) >= p, f32(0), r).astype(f32)


@pytest.mark.parametrize("options", [{"iou_threshold": 0.5}, {"iou_threshold": 0.2, "agnostic": True}])
def test_obb_fast_nms_regularisation_and_mapping(options):
    rng = np.random.default_rng(11)
    objects = [(cx, cy, w, h, cls, np.array([rng.uniform(-0.7, 2.3)])) for cx, cy, w, h, cls in
               [(40, 40, 60, 20, 0), (42, 44, 58, 22, 1), (120, 100, 30, 70, 0)]]
    head, g = clustered_head(objects, 2, 1, per_object=8, background=20), yolo.letterbox_info(640, 480, (INPUT, INPUT))
    head[1::2, 6] += f32(np.pi / 2)
    got = yolo.obb(head, g, **options)
    # Oracle: best class over the scores, then Fast-NMS by descending score.
    scores, cls = head[:, 4:6].max(axis=1), head[:, 4:6].argmax(axis=1)
    cand = np.argsort(np.where(scores > f32(0.25), -scores, 1), kind="stable")[:(scores > f32(0.25)).sum()]
    keep = [j for q, j in enumerate(cand) if all(
        yolo.probabilistic_iou(head[i, [0, 1, 2, 3, 6]], head[j, [0, 1, 2, 3, 6]]) < f32(options["iou_threshold"])
        for i in cand[:q] if options.get("agnostic") or cls[i] == cls[j])]
    assert len(keep) == len(got["boxes"]) >= 2
    r = head[keep][:, [0, 1, 2, 3, 6]].copy()
    swap = floor_mod(r[:, 4], f32(np.pi)) >= f32(np.pi) / f32(2)
    r[swap, 2:4] = r[swap][:, [3, 2]]
    angle, (scale, offset) = floor_mod(r[:, 4], f32(np.pi) / f32(2)), mapping(g)
    expected = np.column_stack([(r[:, :2] - offset) / scale, r[:, 2:4] / f32(g.scale), angle,
                                scores[keep], cls[keep]]).astype(f32)
    np.testing.assert_array_equal(got["boxes"], expected)
    c, s = np.cos(angle.astype(np.float64)), np.sin(angle.astype(np.float64))
    u, v = np.stack([c, s], 1) * expected[:, 2:3] / 2, np.stack([-s, c], 1) * expected[:, 3:4] / 2
    corners = expected[:, None, :2] + np.stack([u + v, u - v, -u - v, -u + v], 1)
    np.testing.assert_allclose(got["corners"], corners, atol=1e-3)


def test_classify_softmax_and_batches():
    logits = np.array([1.0, 3.0, 3.0, -2.0, 0.5], f32)
    (ids, scores), (back, _) = yolo.classify(np.stack([logits, -logits]), top_k=3, apply_softmax=True)
    assert ids.tolist() == [1, 2, 0] and back.tolist() == [3, 4, 0]
    np.testing.assert_allclose(scores, (e := np.exp(logits - 3))[[1, 2, 0]] / e.sum(), rtol=1e-6)
    assert yolo.classify(logits, top_k=10)[0].tolist() == [1, 2, 0, 4, 3]  # k above the count
