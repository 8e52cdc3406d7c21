// The other heads of the detection family on fuzzed floats (NaN, infinities,
// huge values), shapes, options and letterbox geometry: segment (with outlines
// and at input resolution), pose, oriented boxes, each end-to-end too,
// classify, and the drawing of their results.
#include <stdexcept>

#include "fuzz_input.hpp"
#include "yolo_tasks.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const size_t rows = static_cast<size_t>(in.range(0, 24));
  const size_t cols = static_cast<size_t>(in.range(0, 16));
  const size_t m = static_cast<size_t>(in.range(0, 3));
  const size_t mh = static_cast<size_t>(in.range(0, 9));
  const size_t mw = static_cast<size_t>(in.range(0, 9));
  yolo::LetterboxInfo letterbox{in.range(-2, 300),  in.range(-2, 300), in.take<float>(),
                                in.range(-2, 300),  in.range(-2, 300), in.range(-300, 300),
                                in.range(-300, 300)};
  yolo::PostprocessOptions options;
  options.conf_threshold = in.take<float>();
  options.iou_threshold = in.take<float>();
  options.max_det = static_cast<size_t>(in.take<uint8_t>());
  const auto flags = in.take<uint8_t>();
  options.agnostic = flags & 1;
  options.channels_first = flags & 2;
  options.objectness = flags & 4;
  if (flags & 8) options.classes = {in.range(-1, 4), in.range(-1, 4)};
  options.max_candidates = static_cast<size_t>(in.range(0, 32));
  const std::array<size_t, 2> keypoints = {static_cast<size_t>(in.range(0, 3)),
                                           static_cast<size_t>(in.range(1, 4))};
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, cols});
  for (float& v : head) v = in.take<float>();
  xt::xtensor<float, 3> protos = xt::zeros<float>({m, mh, mw});
  for (float& v : protos) v = in.take<float>();

  yolo::RawImage image;
  image.width = in.range(0, 40);
  image.height = in.range(0, 40);
  image.channels = 3;
  image.data.assign(static_cast<size_t>(image.width) * image.height * 3, 0);
  const int thickness = in.range(-1, 6);
  const auto attempt = [](auto&& f) {
    try {
      f();
    } catch (const std::runtime_error&) {
    }
  };
  attempt([&] {
    const auto dets = yolo::segment(head, protos, letterbox, options, true);
    for (const auto& d : dets) (void)yolo::full_mask(d.mask, image.width, image.height);
    yolo::draw_masks(image, dets, {"a"}, true, thickness);
  });
  attempt([&] { (void)yolo::segment_input_masks(head, protos, letterbox, options); });
  attempt([&] { (void)yolo::segment_end2end(head, protos, letterbox, options, true); });
  attempt([&] {
    const auto dets = yolo::postprocess_pose(head, letterbox, options, keypoints);
    yolo::draw_pose(image, dets, yolo::human_skeleton(), in.take<float>(), in.range(0, 8),
                    thickness);
  });
  attempt([&] { (void)yolo::postprocess_pose_end2end(head, letterbox, options, keypoints); });
  attempt([&] {
    auto dets = yolo::postprocess_obb(head, letterbox, options);
    const auto more = yolo::postprocess_obb_end2end(head, letterbox, options);
    dets.insert(dets.end(), more.begin(), more.end());
    for (const auto& d : dets) (void)yolo::bounding_box(d, image.width, image.height);
    yolo::draw_oriented(image, dets, {}, true, thickness);
  });
  const std::vector<float> scores(head.begin(), head.end());
  (void)yolo::classify(scores, static_cast<size_t>(in.range(0, 8)), flags & 16);
  return 0;
}
