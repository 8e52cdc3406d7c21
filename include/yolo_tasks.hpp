#pragma once
// The detection family's other heads: instance masks, pose keypoints, oriented
// (rotated) boxes and classification. Kept apart from yolo.hpp, which stays the
// detection pipeline read top to bottom; this header adds only the task results
// and the functions that produce and draw them.
//
// Every task selects boxes exactly as yolo::postprocess does with the same
// PostprocessOptions (best class of the class scores, objectness, class filter,
// max_candidates, channels_first, NMS, max_det) and maps them back with the same
// letterbox inverse: x = (x_net - left) / (new_width / original_width), y likewise
// with top, new_height and original_height, in float, clipped to the image.
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <xtensor/xtensor.hpp>

#include "vemoproc_export.hpp"
#include "yolo.hpp"

namespace yolo {

// ---------------------------------------------------------------------------
// Segmentation
// ---------------------------------------------------------------------------

// One detection's mask over its box region: `width` x `height` bytes, row-major,
// 1 inside the instance and 0 outside, for the pixels (x0 + col, y0 + row) of the
// frame it was computed in (original image, or network input for
// segment_input_masks). Pixels outside the region are outside the instance.
struct VEMOPROC_API InstanceMask {
  int x0 = 0;
  int y0 = 0;
  int width = 0;
  int height = 0;
  std::vector<uint8_t> bits;

  // Pixels inside the instance.
  size_t area() const;
};

// A closed outline, vertices (x, y) in the mask's frame.
using Polygon = std::vector<std::array<float, 2>>;

struct SegmentedDetection {
  Detection box;  // original pixels, as postprocess gives it
  InstanceMask mask;
  std::vector<Polygon> outlines;  // filled only when asked for
};

// Decodes one image's segmentation head [N, 4 + classes + m] ([4 + classes + m, N]
// when channels_first; objectness adds a column after the box as for detection)
// with prototypes [m, mh, mw] into detections with masks in original-image pixels,
// best first. The input size the prototypes cover is new_width + 2 * left (or one
// more, whichever mw divides) by likewise for height.
//
// The exact float rule, per kept detection with coefficients c[0..m):
// - logit at prototype pixel (u, v): L = 0; L = L + c[k] * P[k][v][u] for k = 0..m-1;
// - original pixel (col, row) is sampled at the network point
//   xn = (col + 0.5f) * sx + left, yn = (row + 0.5f) * sy + top (sx = new_width /
//   original_width, sy likewise), then at prototype coordinate
//   px = max(xn * (mw / W) - 0.5f, 0) (mw / W computed once in float), py likewise;
//   i0 = min(floor(px), mw - 1), i1 = min(i0 + 1, mw - 1), a = px - i0 (likewise j0,
//   j1, b for rows);
// - value = (1 - b) * ((1 - a) * L[j0][i0] + a * L[j0][i1])
//         + b * ((1 - a) * L[j1][i0] + a * L[j1][i1]), evaluated in that order;
// - the pixel is in the instance iff value > 0 (the sigmoid's 0.5) and it lies in
//   the box: x1 <= col < x2 and y1 <= row < y2 with the mapped, clipped box, so the
//   mask region is columns ceil(x1) .. ceil(x2) - 1 and rows likewise.
// Work and memory grow with the boxes' areas, never with N times the image.
// Against the reference default (upsample the logits to the network input, threshold at 0,
// crop with the network box there, then scale to the original) the masks differ only along
// edges: where the two samplings (original-pixel centres here, input pixels there) straddle
// 0, and where the box crop falls between input pixels. The tests hold the mean IoU per
// object at 0.98 or more. The reference's older orders (crop at prototype resolution before
// upsampling, which leaks past the box, or a 0.5 threshold on interpolated sigmoids) differ
// further.
// Detections whose mask is empty are kept (box and empty mask).
// With outlines, each mask's outer boundaries: the 4-connected components' borders walked
// along pixel edges with the inside on the right (clockwise on screen), straight runs
// merged, vertices on pixel corners in original pixels; holes are left out.
// Throws std::runtime_error naming `head` when it has too few columns for the m
// coefficients, naming `protos` for an empty prototype tensor, and naming
// `letterbox` for a size below 1.
VEMOPROC_API std::vector<SegmentedDetection> segment(const xt::xtensor<float, 2>& head,
                                                     const xt::xtensor<float, 3>& protos,
                                                     const LetterboxInfo& letterbox,
                                                     const PostprocessOptions& options,
                                                     bool outlines = false);

// segment for a batch: heads [B, N, C] (or [B, C, N]), prototypes [B, m, mh, mw].
VEMOPROC_API std::vector<std::vector<SegmentedDetection>> segment_batch(
    const xt::xtensor<float, 3>& heads, const xt::xtensor<float, 4>& protos,
    const std::vector<LetterboxInfo>& letterbox, const PostprocessOptions& options,
    bool outlines = false);

// End-to-end (NMS-free) segmentation rows [N, 6 + m]: x1, y1, x2, y2 (network
// pixels), score, class, m coefficients. Rows with score strictly above
// options.conf_threshold and a class in options.classes (when given), the first
// options.max_det of them in input order; masks as segment gives them.
VEMOPROC_API std::vector<SegmentedDetection> segment_end2end(const xt::xtensor<float, 2>& rows,
                                                             const xt::xtensor<float, 3>& protos,
                                                             const LetterboxInfo& letterbox,
                                                             const PostprocessOptions& options,
                                                             bool outlines = false);

// The masks at network-input resolution, as the reference's default gives them:
// for each detection of segment (same order), the logits upsampled to the input
// W x H with the same bilinear rule (px = max((col + 0.5f) * (mw / W) - 0.5f, 0)),
// kept where > 0 and inside the unmapped network box (x1 <= col < x2, y1 <= row < y2).
// Regions are in network pixels.
VEMOPROC_API std::vector<InstanceMask> segment_input_masks(const xt::xtensor<float, 2>& head,
                                                           const xt::xtensor<float, 3>& protos,
                                                           const LetterboxInfo& letterbox,
                                                           const PostprocessOptions& options);

// The full-frame mask of one instance: height x width bytes, 1 inside, 0 outside.
VEMOPROC_API xt::xtensor<uint8_t, 2> full_mask(const InstanceMask& mask, int width, int height);

// ---------------------------------------------------------------------------
// Pose
// ---------------------------------------------------------------------------

struct Keypoint {
  float x;
  float y;
  float visibility;  // as the head gives it (already a probability); 1 when D = 2
};

struct PoseDetection {
  Detection box;
  std::vector<Keypoint> keypoints;
};

// Decodes one image's pose head [N, 4 + classes + K * D] (keypoints x, y[, v]
// interleaved per keypoint, in network pixels): boxes as postprocess selects them,
// classes = C - 4 - K * D (one for human pose), and each kept detection's K
// keypoints mapped back with the letterbox inverse and clipped, visibility passed
// through untouched. D must be 2 or 3. Throws std::runtime_error naming
// `keypoint_shape` for another D or K = 0, and naming `head` when it is too narrow.
VEMOPROC_API std::vector<PoseDetection> postprocess_pose(
    const xt::xtensor<float, 2>& head, const LetterboxInfo& letterbox,
    const PostprocessOptions& options, std::array<size_t, 2> keypoint_shape = {17, 3});

VEMOPROC_API std::vector<std::vector<PoseDetection>> postprocess_pose_batch(
    const xt::xtensor<float, 3>& heads, const std::vector<LetterboxInfo>& letterbox,
    const PostprocessOptions& options, std::array<size_t, 2> keypoint_shape = {17, 3});

// End-to-end pose rows [N, 6 + K * D]: x1, y1, x2, y2, score, class, keypoints;
// rows kept as for segment_end2end.
VEMOPROC_API std::vector<PoseDetection> postprocess_pose_end2end(
    const xt::xtensor<float, 2>& rows, const LetterboxInfo& letterbox,
    const PostprocessOptions& options, std::array<size_t, 2> keypoint_shape = {17, 3});

// The 17-point human skeleton, 0-based keypoint pairs.
VEMOPROC_API const std::vector<std::pair<int, int>>& human_skeleton();

// Paints every detection's box (as draw_detections), then its limbs (lines between
// keypoint pairs of `limbs`) and keypoints (filled discs of `radius`). A keypoint
// with visibility below min_visibility is not drawn, nor are its limbs.
VEMOPROC_API void draw_pose(RawImage& image, const std::vector<PoseDetection>& detections,
                            const std::vector<std::pair<int, int>>& limbs,
                            float min_visibility = 0.5f, int radius = 4, int thickness = 2);

// ---------------------------------------------------------------------------
// Oriented boxes
// ---------------------------------------------------------------------------

struct OrientedDetection {
  float cx;
  float cy;
  float width;
  float height;
  float angle;  // radians, in [0, pi/2)
  float score;
  int class_id;
  // (cx, cy) + u + v, + u - v, - u - v, - u + v with u = (width / 2)(cos, sin)
  // and v = (height / 2)(-sin, cos) of the angle, in float.
  std::array<std::array<float, 2>, 4> corners;
};

// The probabilistic IoU of two rotated boxes (cx, cy, w, h, angle in radians),
// all float, eps = 1e-7: a' = w^2 / 12, b' = h^2 / 12, a = a' cos^2 + b' sin^2,
// b = a' sin^2 + b' cos^2, c = (a' - b') cos sin per box; A = a1 + a2, B = b1 + b2,
// C = c1 + c2, D = A B - C^2;
// t1 = 0.25 (A (y1 - y2)^2 + B (x1 - x2)^2) / (D + eps),
// t2 = 0.5 C (x2 - x1)(y1 - y2) / (D + eps),
// t3 = 0.5 ln(D / (4 sqrt(max(a1 b1 - c1^2, 0) max(a2 b2 - c2^2, 0)) + eps) + eps),
// d = clamp(t1 + t2 + t3, eps, 100), result 1 - sqrt(1 - exp(-d) + eps).
// Identical boxes give about 0.99953, never 1.
VEMOPROC_API float probabilistic_iou(const std::array<float, 5>& a, const std::array<float, 5>& b);

// Decodes one image's oriented-box head [N, 4 + classes + 1] (cx, cy, w, h in
// network pixels, class scores, angle in radians last): selection as postprocess;
// rotated NMS by descending score where a box is dropped when any higher-scored box
// of its class (any class when agnostic), itself kept or not, has a probabilistic
// IoU >= iou_threshold with it (Fast-NMS, as the reference); at most max_det kept.
// Then each box is regularised (w and h swap when the angle modulo pi is at least
// pi/2, and the angle becomes angle modulo pi/2, modulo taken with std::fmod plus
// the modulus when negative), its centre mapped with the letterbox inverse without
// clipping, w and h divided by letterbox.scale, and its corners computed.
VEMOPROC_API std::vector<OrientedDetection> postprocess_obb(const xt::xtensor<float, 2>& head,
                                                            const LetterboxInfo& letterbox,
                                                            const PostprocessOptions& options);

VEMOPROC_API std::vector<std::vector<OrientedDetection>> postprocess_obb_batch(
    const xt::xtensor<float, 3>& heads, const std::vector<LetterboxInfo>& letterbox,
    const PostprocessOptions& options);

// End-to-end oriented rows [N, 7]: cx, cy, w, h, score, class, angle; rows kept as
// for segment_end2end, then regularised and mapped as above.
VEMOPROC_API std::vector<OrientedDetection> postprocess_obb_end2end(
    const xt::xtensor<float, 2>& rows, const LetterboxInfo& letterbox,
    const PostprocessOptions& options);

// The axis-aligned bounds of the corners, clipped to the image.
VEMOPROC_API Detection bounding_box(const OrientedDetection& box, int width, int height);

// Paints each rotated outline (corners joined by lines `thickness` wide) in its
// class colour and a label as draw_detections does, at the top-most corner.
VEMOPROC_API void draw_oriented(RawImage& image, const std::vector<OrientedDetection>& boxes,
                                const std::vector<std::string>& class_names, bool show_score,
                                int thickness = 2);

// Paints each instance's mask translucently over the image (alpha 0.5 in its class
// colour), then the boxes as draw_detections.
VEMOPROC_API void draw_masks(RawImage& image, const std::vector<SegmentedDetection>& detections,
                             const std::vector<std::string>& class_names, bool show_score,
                             int thickness = 2);

// ---------------------------------------------------------------------------
// Classification
// ---------------------------------------------------------------------------

struct ClassScore {
  int class_id;
  float score;
};

// The top_k classes (all of them when fewer) by descending score, equal scores in
// ascending class order, NaN scores last (with a NaN score the softmax gives NaN). With
// apply_softmax the scores first become probabilities: m = max, e[i] = exp(s[i] - m) in float, sum
// = e[0] + e[1]
// + ... in index order, p[i] = e[i] / sum.
// Exported classification heads usually end in a softmax already: asking for
// another flattens the ranking's scores toward 1 / classes (the order stays, the
// values are wrong). Leave apply_softmax false for such heads.
VEMOPROC_API std::vector<ClassScore> classify(const std::vector<float>& scores, size_t top_k,
                                              bool apply_softmax);

// classify for each row of [B, classes].
VEMOPROC_API std::vector<std::vector<ClassScore>> classify_batch(
    const xt::xtensor<float, 2>& scores, size_t top_k, bool apply_softmax);

}  // namespace yolo
