"""The detection family's other heads against a numpy transcription of the
documented float rules (yolo_tasks.hpp), on structured synthetic heads: a few
objects, each with a cluster of jittered candidates, smooth prototypes."""
import numpy as np
import pytest

from vemoproc import yolo

f32 = np.float32
M, MH, MW = 32, 80, 80  # prototypes of a 320 x 320 input
INPUT = 320
CENTRES = np.random.default_rng(0).uniform(0, MW, (M, 2))


def protos(seed=0):
    """Smooth prototypes: a Gaussian blob each (centres spread over the input),
    lowered so that only their cores are positive."""
    rng = np.random.default_rng(seed)
    y, x = np.mgrid[0:MH, 0:MW].astype(np.float64)
    planes = [np.exp(-((x - cx) ** 2 + (y - cy) ** 2) / (2 * 8.0 ** 2)) - 0.25
              + rng.normal(0, 0.01, (MH, MW)) for cx, cy in CENTRES]
    return np.stack(planes).astype(f32)


def coefficients(cx, cy, rng):
    """An instance's coefficients: the prototypes near its centre weigh most."""
    d2 = ((CENTRES - np.array([cx, cy]) / 4) ** 2).sum(axis=1)
    return 2 * np.exp(-d2 / (2 * 12.0 ** 2)) + rng.normal(0, 0.05, M)


def clustered_head(objects, classes, extra, seed=1, per_object=12, background=60):
    """Rows (cx, cy, w, h, class scores, extra values): a cluster of jittered
    candidates around each object, then low-scoring noise rows."""
    rng = np.random.default_rng(seed)
    rows = []
    for cx, cy, w, h, cls, values in objects:
        for _ in range(per_object):
            box = np.array([cx, cy, w, h]) + rng.normal(0, 2.0, 4)
            scores = rng.uniform(0, 0.2, classes)
            scores[cls] = rng.uniform(0.3, 0.95)
            rows.append(np.concatenate([box, scores, values + rng.normal(0, 0.05, extra)]))
    for _ in range(background):
        rows.append(np.concatenate([rng.uniform(0, INPUT, 2), rng.uniform(4, 40, 2),
                                    rng.uniform(0, 0.3, classes), rng.normal(0, 1, extra)]))
    head = np.array(rows, dtype=f32)
    return head[rng.permutation(len(head))]


def mapping(g):
    sx = f32(g.new_width) / f32(g.original_width)
    sy = f32(g.new_height) / f32(g.original_height)
    return sx, sy, f32(g.left), f32(g.top)


def map_box(row, g):
    sx, sy, left, top = mapping(g)
    x = np.clip((row[[0, 2]] - left) / sx, f32(0), f32(g.original_width))
    y = np.clip((row[[1, 3]] - top) / sy, f32(0), f32(g.original_height))
    return np.array([x[0], y[0], x[1], y[1]], dtype=f32)


def xyxy(head):
    half = head[:, 2:4] / f32(2)
    return np.concatenate([head[:, :2] - half, head[:, :2] + half], axis=1)


def source_rows(head, boxes, g, classes):
    """The head row each result came from: the one whose mapped box and best
    score match exactly."""
    mapped = np.array([map_box(r, g) for r in xyxy(head)])
    best = head[:, 4:4 + classes].max(axis=1)
    out = []
    for b in boxes:
        hit = np.flatnonzero((mapped == b[:4]).all(axis=1) & (best == b[4]))
        assert len(hit) == 1
        out.append(hit[0])
    return out


def taps(begin, end, scale, offset, ratio, size):
    i = np.arange(begin, end).astype(f32)
    p = np.maximum(((i + f32(0.5)) * scale + offset) * ratio - f32(0.5), f32(0))
    i0 = np.minimum(np.floor(p).astype(np.int64), size - 1)
    return i0, np.minimum(i0 + 1, size - 1), p - i0.astype(f32)


def span(a, b, limit):
    lo, hi = max(np.ceil(a), 0), min(np.ceil(b), limit)
    return (int(lo), int(hi)) if hi > lo else (0, 0)


def oracle_mask(P, coef, box, scale_xy, offset_xy, limits):
    """The documented rule: logits summed in coefficient order, taps at half-pixel
    centres, horizontal then vertical mix, > 0, inside ceil(x1)..ceil(x2) - 1."""
    xs, ys = span(box[0], box[2], limits[0]), span(box[1], box[3], limits[1])
    if xs[1] <= xs[0] or ys[1] <= ys[0]:
        return (0, 0), np.zeros((0, 0), np.uint8)
    logits = np.zeros((MH, MW), f32)
    for k in range(M):
        logits = logits + f32(coef[k]) * P[k]
    i0, i1, a = taps(*xs, scale_xy[0], offset_xy[0], f32(MW) / f32(INPUT), MW)
    j0, j1, b = taps(*ys, scale_xy[1], offset_xy[1], f32(MH) / f32(INPUT), MH)
    across_top = (f32(1) - a) * logits[j0][:, i0] + a * logits[j0][:, i1]
    across_bottom = (f32(1) - a) * logits[j1][:, i0] + a * logits[j1][:, i1]
    value = (f32(1) - b)[:, None] * across_top + b[:, None] * across_bottom
    return (xs[0], ys[0]), (value > 0).astype(np.uint8)


SEG_OBJECTS = [(80, 100, 100, 120, 0), (220, 120, 140, 80, 1), (160, 240, 180, 100, 2),
               (90, 110, 60, 60, 1)]


@pytest.mark.parametrize("size,options", [
    ((600, 400), {}),
    ((250, 640), {"agnostic": True, "iou_threshold": 0.3}),
    ((320, 320), {"channels_first": True, "max_det": 3}),
])
def test_masks_follow_the_documented_rule_bit_for_bit(size, options):
    P = protos()
    rng = np.random.default_rng(5)
    objects = [(cx, cy, w, h, c, coefficients(cx, cy, rng)) for cx, cy, w, h, c in SEG_OBJECTS]
    head = clustered_head(objects, 3, M)
    g = yolo.letterbox_info(*size, (INPUT, INPUT))
    given = np.ascontiguousarray(head.T) if options.get("channels_first") else head
    got = yolo.segment(given, P, g, **options)
    detection_head = given[:7] if options.get("channels_first") else given[:, :7]
    boxes = yolo.postprocess(np.ascontiguousarray(detection_head), g, as_array=True, **options)
    np.testing.assert_array_equal(got["boxes"], boxes)  # the detection path's boxes
    assert len(boxes) >= 3
    sx, sy, left, top = mapping(g)
    for n, i in enumerate(source_rows(head, boxes, g, 3)):
        origin, mask = oracle_mask(P, head[i, 7:], boxes[n], (sx, sy), (left, top), size)
        assert tuple(got["origins"][n]) == origin
        np.testing.assert_array_equal(got["masks"][n], mask)

    # At network-input resolution: the same rule with unit scale and the network box.
    inputs = yolo.segment_input_masks(given, P, g, **options)
    ious = []
    for n, i in enumerate(source_rows(head, boxes, g, 3)):
        origin, mask = oracle_mask(P, head[i, 7:], xyxy(head[i:i + 1])[0], (f32(1), f32(1)),
                                   (f32(0), f32(0)), (INPUT, INPUT))
        assert tuple(inputs["origins"][n]) == origin
        np.testing.assert_array_equal(inputs["masks"][n], mask)

        # The reference order (threshold at input resolution, then each original
        # pixel takes its input pixel) agrees closely with the original-pixel rule.
        full = np.zeros((INPUT, INPUT), bool)
        full[origin[1]:origin[1] + mask.shape[0], origin[0]:origin[0] + mask.shape[1]] = mask
        w, h = size
        cols = np.floor((np.arange(w) + 0.5) * float(sx) + float(left)).astype(int)
        rows = np.floor((np.arange(h) + 0.5) * float(sy) + float(top)).astype(int)
        reference = full[np.ix_(np.minimum(rows, INPUT - 1), np.minimum(cols, INPUT - 1))]
        ours = np.zeros((h, w), bool)
        x0, y0 = got["origins"][n]
        m = got["masks"][n]
        ours[y0:y0 + m.shape[0], x0:x0 + m.shape[1]] = m
        union = (ours | reference).sum()
        box = xyxy(head[i:i + 1])[0]
        if min(box[2] - box[0], box[3] - box[1]) >= 80:  # the objects, not the noise rows
            ious.append((ours & reference).sum() / union)
    print("IOU", ious)
    assert len(ious) >= 2 and np.mean(ious) >= 0.98 and min(ious) >= 0.95


def test_segment_end2end_batch_and_outlines():
    P = protos(2)
    rng = np.random.default_rng(3)
    g = yolo.letterbox_info(200, 100, (INPUT, INPUT))
    rows = np.zeros((5, 6 + M), f32)
    rows[:, :4] = [[10, 40, 60, 90], [70, 50, 150, 110], [0, 0, 5, 5], [20, 30, 80, 120],
                   [1, 1, 159, 159]]
    rows[:, 4] = [0.9, 0.1, 0.8, 0.7, 0.6]
    rows[:, 5] = [0, 1, 2, 1, 0]
    rows[:, 6:] = rng.normal(0, 1.5, (5, M))
    got = yolo.segment_end2end(rows, P, g, conf_threshold=0.5, classes=[0, 1], max_det=2,
                               outlines=True)
    np.testing.assert_array_equal(got["boxes"][:, 4], [f32(0.9), f32(0.7)])
    sx, sy, left, top = mapping(g)
    for n, i in enumerate([0, 3]):
        origin, mask = oracle_mask(P, rows[i, 6:], map_box(rows[i, :4], g), (sx, sy),
                                   (left, top), (200, 100))
        np.testing.assert_array_equal(got["masks"][n], mask)
        # Outlines enclose exactly the pixels of the mask: fill them back.
        filled = np.zeros((100, 200), bool)
        yy, xx = np.mgrid[0:100, 0:200] + 0.5
        for poly in got["outlines"][n]:
            inside = np.zeros_like(filled)
            for (ax, ay), (bx, by) in zip(poly, np.roll(poly, -1, axis=0)):
                crosses = (ay > yy) != (by > yy)
                at = ax + (yy - ay) * (bx - ax) / np.where(by == ay, 1, by - ay)
                inside ^= crosses & (xx < at)
            filled |= inside
        full = np.zeros((100, 200), bool)
        full[origin[1]:origin[1] + mask.shape[0], origin[0]:origin[0] + mask.shape[1]] = mask
        # Holes are not outlined, so filling can only add pixels enclosed by the mask.
        assert not (full & ~filled).any()


def test_pose_keypoints_map_like_boxes():
    rng = np.random.default_rng(7)
    K, D = 5, 3
    objects = []
    for cx, cy, w, h in [(50, 60, 40, 80), (120, 90, 30, 60)]:
        pts = np.stack([rng.uniform(cx - w / 2, cx + w / 2, K), rng.uniform(cy - h / 2, cy + h / 2, K),
                        rng.uniform(0, 1, K)], axis=1)
        pts[0, :2] = [-30, 500]  # mapped outside the image: clipped
        objects.append((cx, cy, w, h, 0, pts.ravel()))
    head = clustered_head(objects, 1, K * D)
    g = yolo.letterbox_info(333, 222, (INPUT, INPUT))
    got = yolo.pose(head, g, keypoint_shape=(K, D))
    boxes = yolo.postprocess(np.ascontiguousarray(head[:, :5]), g, as_array=True)
    np.testing.assert_array_equal(got["boxes"], boxes)
    sx, sy, left, top = mapping(g)
    for n, i in enumerate(source_rows(head, boxes, g, 1)):
        pts = head[i, 5:].reshape(K, D)
        x = np.clip((pts[:, 0] - left) / sx, f32(0), f32(333))
        y = np.clip((pts[:, 1] - top) / sy, f32(0), f32(222))
        np.testing.assert_array_equal(got["keypoints"][n], np.stack([x, y, pts[:, 2]], axis=1))
    two = yolo.pose(np.ascontiguousarray(head[:, :5 + K * 2]), g, keypoint_shape=(K, 2))
    assert np.all(two["keypoints"][..., 2] == 1)


def floor_mod(t, p):
    r = np.fmod(t, p)
    r = np.where(r < 0, r + p, r)
    return np.where(r >= p, f32(0), r).astype(f32)


def test_obb_fast_nms_regularisation_and_mapping():
    rng = np.random.default_rng(11)
    objects = []
    for cx, cy, w, h, cls in [(40, 40, 60, 20, 0), (42, 44, 58, 22, 1), (120, 100, 30, 70, 0)]:
        objects.append((cx, cy, w, h, cls, np.array([rng.uniform(-0.7, 2.3)])))
    head = clustered_head(objects, 2, 1, per_object=8, background=20)
    head[:, 6] = np.where(np.arange(len(head)) % 2 == 0, head[:, 6], head[:, 6] + f32(np.pi / 2))
    g = yolo.letterbox_info(640, 480, (INPUT, INPUT))
    for opts in [{"iou_threshold": 0.5}, {"iou_threshold": 0.2, "agnostic": True}]:
        got = yolo.obb(head, g, **opts)
        # Oracle: best class over the scores, then Fast-NMS by descending score.
        scores = head[:, 4:6].max(axis=1)
        cls = head[:, 4:6].argmax(axis=1)
        cand = np.flatnonzero(scores > f32(0.25))
        cand = cand[np.argsort(-scores[cand], kind="stable")]
        keep = []
        for q, j in enumerate(cand):
            earlier = cand[:q]
            if not opts.get("agnostic"):
                earlier = earlier[cls[earlier] == cls[j]]
            if all(yolo.probabilistic_iou(head[i, [0, 1, 2, 3, 6]], head[j, [0, 1, 2, 3, 6]])
                   < f32(opts["iou_threshold"]) for i in earlier):
                keep.append(j)
        assert len(keep) == len(got["boxes"]) >= 2
        r = head[keep][:, [0, 1, 2, 3, 6]].copy()
        swap = floor_mod(r[:, 4], f32(np.pi)) >= f32(np.pi) / f32(2)
        r[swap, 2], r[swap, 3] = r[swap, 3].copy(), r[swap, 2].copy()
        angle = floor_mod(r[:, 4], f32(np.pi) / f32(2))
        sx, sy, left, top = mapping(g)
        expected = np.stack([(r[:, 0] - left) / sx, (r[:, 1] - top) / sy, r[:, 2] / f32(g.scale),
                             r[:, 3] / f32(g.scale), angle, scores[keep], cls[keep]], axis=1)
        np.testing.assert_array_equal(got["boxes"], expected.astype(f32))
        c, s = np.cos(angle.astype(np.float64)), np.sin(angle.astype(np.float64))
        u = np.stack([c, s], 1) * expected[:, 2:3] / 2
        v = np.stack([-s, c], 1) * expected[:, 3:4] / 2
        centre = expected[:, :2]
        corners = np.stack([centre + u + v, centre + u - v, centre - u - v, centre - u + v], 1)
        np.testing.assert_allclose(got["corners"], corners, atol=1e-3)


def test_classify_softmax_and_ranking():
    logits = np.array([1.0, 3.0, 3.0, -2.0, 0.5], f32)
    ids, scores = yolo.classify(logits, top_k=3, apply_softmax=True)
    e = np.exp(logits - logits.max())
    total = f32(0)
    for v in e:
        total = f32(total + v)
    np.testing.assert_array_equal(ids, [1, 2, 0])
    np.testing.assert_allclose(scores, (e / total)[[1, 2, 0]], rtol=1e-6)
    batch = yolo.classify(np.stack([logits, -logits]), top_k=10)
    np.testing.assert_array_equal(batch[1][0], [3, 4, 0, 1, 2])
