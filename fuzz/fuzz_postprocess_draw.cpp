// yolo::postprocess (both overloads) and postprocess_end2end on heads of fuzzed
// floats (NaN, infinities, huge values) and shapes, then yolo::draw_detections of its results and
// of raw fuzzed detections, class ids and labels.
#include <stdexcept>

#include "fuzz_input.hpp"
#include "yolo.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  const size_t rows = static_cast<size_t>(in.range(0, 48));
  const size_t cols = static_cast<size_t>(in.range(0, 12));
  const std::array<size_t, 2> input_shape = {in.take<uint16_t>(), in.take<uint16_t>()};
  const std::array<size_t, 2> original_shape = {in.take<uint16_t>(), in.take<uint16_t>()};
  const auto conf = in.take<float>();
  const auto iou = in.take<float>();
  const auto max_det = static_cast<size_t>(in.take<uint8_t>());
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, cols});
  for (float& v : head) v = in.take<float>();

  std::vector<yolo::Detection> dets;
  try {
    dets = yolo::postprocess(head, input_shape, original_shape, conf, iou, max_det);
  } catch (const std::runtime_error&) {
  }
  // The geometry overloads on the same head, read both ways, with fuzzed
  // letterbox sizes and options.
  yolo::LetterboxInfo letterbox{in.range(-2, 4096),   in.range(-2, 4096), in.take<float>(),
                                in.range(-2, 4096),   in.range(-2, 4096), in.range(-4096, 4096),
                                in.range(-4096, 4096)};
  yolo::PostprocessOptions options;
  options.conf_threshold = conf;
  options.iou_threshold = iou;
  options.max_det = max_det;
  const auto flags = in.take<uint8_t>();
  options.agnostic = flags & 1;
  options.channels_first = flags & 2;
  options.objectness = flags & 4;
  if (flags & 8) options.classes = {in.range(-1, 8), in.range(-1, 8)};
  options.max_candidates = static_cast<size_t>(in.range(0, 64));
  try {
    const auto more = yolo::postprocess(head, letterbox, options);
    dets.insert(dets.end(), more.begin(), more.end());
  } catch (const std::runtime_error&) {
  }
  try {
    const auto more = yolo::postprocess_end2end(head, letterbox, conf);
    dets.insert(dets.end(), more.begin(), more.end());
  } catch (const std::runtime_error&) {
  }
  for (int i = in.range(0, 4); i > 0; --i) {
    dets.push_back({in.take<float>(), in.take<float>(), in.take<float>(), in.take<float>(),
                    in.take<float>(), in.take<int>()});
  }
  std::vector<std::string> names;
  for (int i = in.range(0, 3); i > 0; --i) names.push_back(in.string(80));

  yolo::RawImage image;
  image.width = in.range(0, 48);
  image.height = in.range(0, 48);
  image.channels = 3;
  image.data.assign(static_cast<size_t>(image.width) * image.height * 3, 0);
  const bool show_score = in.take<uint8_t>() & 1;
  const int thickness = in.take<int>();
  yolo::draw_detections(image, dets, names, show_score, thickness);
  return 0;
}
