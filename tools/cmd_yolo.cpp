// vemoproc subcommands of the detection family: yolo-preprocess,
// yolo-postprocess and demo.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <random>

#include <xtensor/xadapt.hpp>
#include <xtensor/xmanipulation.hpp>
#include <xtensor/xview.hpp>

#include "cli_common.hpp"
#include "cli_images.hpp"
#include "cmd_yolo_tasks.hpp"
#include "stb_image_resize2.h"
#include "yolo.hpp"
#include "yolo_tasks.hpp"

namespace {

// --- shared by the subcommands ------------------------------------------------

std::vector<std::string> read_names(const std::string& path) {
  if (path.empty()) return {};
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) {
    throw std::runtime_error("--names: " + path + " is a directory, not a file of class names");
  }
  cli::require_file(path);
  std::ifstream in(path);
  std::vector<std::string> names;
  for (std::string line; std::getline(in, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    names.push_back(line);
  }
  if (in.bad()) throw std::runtime_error("--names: cannot read " + path);
  return names;
}

void write_png(const yolo::RawImage& image, const std::string& path) {
  cli::write_png(path, image.data.data(), image.width, image.height, 3);
}

void print_detections(const std::vector<yolo::Detection>& dets,
                      const std::vector<std::string>& names) {
  std::cout << dets.size() << " detection(s): class name score x1 y1 x2 y2\n";
  for (const auto& d : dets) {
    const bool named = d.class_id >= 0 && d.class_id < static_cast<int>(names.size());
    std::cout << d.class_id << ' '
              << (named ? names[static_cast<size_t>(d.class_id)]
                        : "cls_" + std::to_string(d.class_id))
              << ' ' << std::fixed << std::setprecision(4) << d.score << std::setprecision(1) << ' '
              << d.x1 << ' ' << d.y1 << ' ' << d.x2 << ' ' << d.y2 << '\n';
  }
}

// The head as [N, C]: accepts [N, C] or [1, N, C], or the channel-first
// [C, N] / [1, C, N] with layout "cn". Without an explicit --layout, a head
// whose first axis is much smaller than its second (e.g. [84, 8400]) is
// refused as channel-first.
xt::xtensor<float, 2> head_rows(xt::xarray<float> head, const std::string& layout,
                                bool layout_given, const std::string& path) {
  if (head.dimension() == 3 && head.shape(0) == 1) head = xt::view(head, 0);
  if (head.dimension() != 2) {
    throw std::runtime_error(path + ": expected a head of shape [N, C] or [1, N, C], got " +
                             std::to_string(head.dimension()) + " axes");
  }
  const size_t first = head.shape(0), second = head.shape(1);
  if (!layout_given && first >= 6 && second / 10 >= first) {
    throw std::runtime_error(path + ": the head is [" + std::to_string(first) + ", " +
                             std::to_string(second) +
                             "], which looks channel-first; pass --layout cn (or --layout nc "
                             "to read it as rows)");
  }
  if (layout == "cn") head = xt::transpose(head);
  if (head.shape(1) < 6) {
    throw std::runtime_error(path + ": a row needs 4 box values and at least 2 class scores, got " +
                             std::to_string(head.shape(1)) + " columns" +
                             (layout == "nc" ? " (channel-first heads need --layout cn)" : ""));
  }
  return head;
}

// An NMS-free head as [N, 6] rows (x1 y1 x2 y2 score class): [N, 6] or [1, N, 6].
xt::xtensor<float, 2> end2end_rows(xt::xarray<float> head, const std::string& path) {
  if (head.dimension() == 3 && head.shape(0) == 1) head = xt::view(head, 0);
  if (head.dimension() != 2 || head.shape(1) != 6) {
    throw std::runtime_error(path +
                             ": --end2end expects rows of 6 values (x1 y1 x2 y2 score "
                             "class), as [N, 6] or [1, N, 6]");
  }
  return head;
}

// An image argument as a RawImage: a path through the family's loader (its
// own messages), standard input or a raw frame through the shared reader.
yolo::RawImage raw_image(const std::string& arg, const std::string& raw) {
  if (cli::needs_reading(arg, raw)) return yolo::RawImage(cli::read_image(arg, raw).view());
  cli::require_file(arg);
  return yolo::RawImage(arg);
}

// The same with the Python loader's pixels (EXIF applied) when match_python.
yolo::RawImage raw_image(const std::string& arg, const std::string& raw, bool match_python) {
  if (!match_python) return raw_image(arg, raw);
  if (cli::needs_reading(arg, raw)) {
    return yolo::RawImage(cli::read_image(arg, raw, vemoproc::Decoder::Reference).view());
  }
  cli::require_file(arg);
  return yolo::RawImage(vemoproc::decode_image_file(arg, vemoproc::Decoder::Reference).view());
}

// --- yolo-preprocess -----------------------------------------------------------

struct PreprocessArgs {
  std::vector<std::string> images;
  std::string raw;
  std::string size = "640x640";
  std::string output;
  bool match_python = false;
};

// The Python pipeline's letterbox: paths through the library's path form,
// standard input and raw frames as views.
xt::xtensor<float, 4> preprocess_python(const PreprocessArgs& a, const std::array<int, 2>& shape) {
  const vemoproc::Pipeline python = vemoproc::Pipeline::MatchPython;
  if (std::none_of(a.images.begin(), a.images.end(),
                   [&](const std::string& p) { return cli::needs_reading(p, a.raw); })) {
    for (const auto& p : a.images) cli::require_file(p);
    return yolo::preprocess(a.images, shape, python).tensor;
  }
  std::vector<vemoproc::Image> images;
  std::vector<vemoproc::ImageView> views;
  for (const auto& p : a.images) {
    if (cli::needs_reading(p, a.raw)) {
      images.push_back(cli::read_image(p, a.raw, vemoproc::Decoder::Reference));
    } else {
      cli::require_file(p);
      images.push_back(vemoproc::decode_image_file(p, vemoproc::Decoder::Reference));
    }
  }
  for (const auto& im : images) views.push_back(im.view());
  return yolo::preprocess_images(views, shape, python).tensor;
}

void run_preprocess(const PreprocessArgs& a) {
  const auto shape = cli::parse_size(a.size, "--size");
  cli::check_pixels(shape[0], shape[1], "--size");
  cli::check_stdin_once(a.images);
  xt::xtensor<float, 4> batch;
  if (a.match_python) {
    batch = preprocess_python(a, shape);
  } else if (std::none_of(a.images.begin(), a.images.end(),
                          [&](const std::string& p) { return cli::needs_reading(p, a.raw); })) {
    for (const auto& p : a.images) cli::require_file(p);
    batch = yolo::preprocess(a.images, shape);
  } else {
    // Standard input or raw frames: every image as a view, the same tensor.
    std::vector<yolo::RawImage> images;
    for (const auto& p : a.images) images.push_back(raw_image(p, a.raw));
    std::vector<vemoproc::ImageView> views;
    for (const auto& im : images) {
      views.push_back({im.data.data(), im.width, im.height, 0, vemoproc::PixelFormat::RGB});
    }
    batch = yolo::preprocess_images(views, shape).tensor;
  }
  cli::write_npy(a.output, batch);
  std::cout << "wrote " << a.output << ": float32 [" << batch.shape(0) << ", 3, " << batch.shape(2)
            << ", " << batch.shape(3) << "]\n";
}

// --- yolo-postprocess ----------------------------------------------------------

struct PostprocessArgs {
  std::string head;
  std::string input_size;
  std::string image;
  float conf = 0.25f;
  float iou = 0.45f;
  size_t max_det = 300;
  std::string names;
  std::string draw;
  std::string layout = "nc";
  bool layout_given = false;
  int thickness = 2;
  std::string raw;
  bool agnostic = false;
  bool end2end = false;
  bool exact = false;
  bool match_python = false;
  yolo_cli::TaskArgs tasks;
};

void run_postprocess(const PostprocessArgs& a) {
  if (a.tasks.task == "classify") {
    yolo_cli::run_classify(a.tasks, cli::load_npy_as_float(a.head), read_names(a.names));
    return;
  }
  // Every other task needs the geometry (classify needs neither option).
  if (a.input_size.empty()) throw CLI::RequiredError("--input-size");
  if (a.image.empty()) throw CLI::RequiredError("--image");
  const auto in = cli::parse_size(a.input_size, "--input-size");
  const auto names = read_names(a.names);
  yolo::RawImage image = raw_image(a.image, a.raw, a.match_python);
  const vemoproc::Pipeline pipeline = cli::pipeline_of(a.match_python);
  if (a.tasks.task != "detect") {
    // The other heads always map back with the geometry the letterbox applied
    // (by the Python pipeline's rule with --match-python).
    yolo::PostprocessOptions options;
    options.conf_threshold = a.conf;
    options.iou_threshold = a.iou;
    options.max_det = a.max_det;
    options.agnostic = a.agnostic;
    options.box_mapping = pipeline;
    yolo_cli::TaskInput input{
        head_rows(cli::load_npy_as_float(a.head), a.layout, a.layout_given, a.head),
        image,
        names,
        yolo::letterbox_info(image.width, image.height, in, pipeline),
        options,
        a.end2end,
        a.draw,
        a.thickness};
    yolo_cli::run_task(a.tasks, input);
    return;
  }
  std::vector<yolo::Detection> dets;
  if (a.end2end || a.agnostic || a.exact || a.match_python) {
    // Boxes mapped back with the geometry the letterbox applied (by the
    // Python pipeline's rule with --match-python).
    const yolo::LetterboxInfo g = yolo::letterbox_info(image.width, image.height, in, pipeline);
    if (!a.tasks.json)
      std::cout << "letterbox: " << g.original_width << "x" << g.original_height << " scaled by "
                << g.scale << " to " << g.new_width << "x" << g.new_height << " at (" << g.left
                << ", " << g.top << ")\n";
    if (a.end2end) {
      dets = yolo::postprocess_end2end(end2end_rows(cli::load_npy_as_float(a.head), a.head), g,
                                       a.conf, pipeline);
    } else {
      yolo::PostprocessOptions options;
      options.conf_threshold = a.conf;
      options.iou_threshold = a.iou;
      options.max_det = a.max_det;
      options.agnostic = a.agnostic;
      options.box_mapping = pipeline;
      dets = yolo::postprocess(
          head_rows(cli::load_npy_as_float(a.head), a.layout, a.layout_given, a.head), g, options);
    }
  } else {
    const auto head = head_rows(cli::load_npy_as_float(a.head), a.layout, a.layout_given, a.head);
    dets = yolo::postprocess(head, {static_cast<size_t>(in[1]), static_cast<size_t>(in[0])},
                             {static_cast<size_t>(image.height), static_cast<size_t>(image.width)},
                             a.conf, a.iou, a.max_det);
  }
  if (a.tasks.json) {
    yolo_cli::print_json(dets);
  } else {
    print_detections(dets, names);
  }
  if (!a.draw.empty()) {
    yolo::draw_detections(image, dets, names, true, a.thickness);
    write_png(image, a.draw);
    if (!a.tasks.json) std::cout << "wrote " << a.draw << "\n";
  }
}

// --- demo ------------------------------------------------------------------------

struct SceneObject {
  int class_id;
  float x1, y1, x2, y2;  // original-image pixels
};

// Class ids whose palette colours are dark enough for the white label text:
// house, tree, sun and car, and the placeholder boxes drawn on a user's photo.
constexpr int kHouse = 0, kTree = 4, kSun = 9, kCar = 16, kPlaceholder = 15;
std::vector<std::string> demo_names() {
  std::vector<std::string> names(17);
  names[kHouse] = "house";
  names[kTree] = "tree";
  names[kSun] = "sun";
  names[kCar] = "car";
  names[kPlaceholder] = "synthetic box";
  return names;
}

void fill_rect(yolo::RawImage& im, int x1, int y1, int x2, int y2, std::array<uint8_t, 3> c) {
  for (int y = std::max(y1, 0); y < std::min(y2, im.height); ++y)
    for (int x = std::max(x1, 0); x < std::min(x2, im.width); ++x)
      std::copy(c.begin(), c.end(), im.data.begin() + (static_cast<long>(y) * im.width + x) * 3);
}

void fill_disc(yolo::RawImage& im, int cx, int cy, int r, std::array<uint8_t, 3> c) {
  for (int y = cy - r; y <= cy + r; ++y)
    for (int x = cx - r; x <= cx + r; ++x)
      if ((x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r) fill_rect(im, x, y, x + 1, y + 1, c);
}

// A landscape with a sun, a house, two trees and a car; returns the objects.
std::vector<SceneObject> paint_scene(yolo::RawImage& im) {
  im.width = 960;
  im.height = 640;
  im.channels = 3;
  im.data.assign(960u * 640u * 3u, 0);
  for (int y = 0; y < 640; ++y) {
    const auto sky = static_cast<uint8_t>(150 + y / 8);
    fill_rect(im, 0, y, 960, y + 1,
              y < 440 ? std::array<uint8_t, 3>{90, uint8_t(sky - 20), 230}
                      : std::array<uint8_t, 3>{70, 150, 60});
  }
  fill_disc(im, 820, 110, 60, {250, 210, 60});
  fill_rect(im, 160, 300, 420, 470, {190, 90, 70});  // house walls
  for (int i = 0; i < 90; ++i)
    fill_rect(im, 160 + i * 13 / 9, 300 - i, 420 - i * 13 / 9, 301 - i, {120, 40, 40});
  fill_rect(im, 260, 390, 310, 470, {90, 50, 30});   // door
  fill_rect(im, 535, 330, 555, 480, {100, 70, 40});  // tree trunks and crowns
  fill_disc(im, 545, 300, 60, {40, 120, 40});
  fill_rect(im, 705, 360, 720, 470, {100, 70, 40});
  fill_disc(im, 712, 335, 42, {50, 140, 50});
  fill_rect(im, 600, 500, 860, 570, {200, 30, 40});  // car body, roof, wheels
  fill_rect(im, 650, 460, 800, 500, {200, 30, 40});
  fill_disc(im, 650, 570, 24, {30, 30, 30});
  fill_disc(im, 810, 570, 24, {30, 30, 30});
  return {{kHouse, 160, 210, 420, 470},
          {kTree, 485, 240, 605, 480},
          {kTree, 670, 293, 754, 470},
          {kSun, 760, 50, 880, 170},
          {kCar, 600, 460, 860, 594}};
}

// Synthetic raw head [rows, 4 + classes] in network pixels: a cluster of
// jittered candidates per object (what a detector emits around a real object)
// and low-score background rows. There is no network here.
xt::xtensor<float, 2> synthetic_head(const std::vector<SceneObject>& objects, int img_w, int img_h,
                                     std::array<int, 2> net, size_t rows) {
  const size_t classes = demo_names().size();
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, 4 + classes});
  const float r = std::min(float(net[1]) / float(img_h), float(net[0]) / float(img_w));
  const float left = (net[0] - std::round(r * img_w)) / 2;
  const float top = (net[1] - std::round(r * img_h)) / 2;
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> unit(0.0f, 1.0f);
  std::normal_distribution<float> jitter(0.0f, 0.04f);
  for (size_t i = 0; i < rows; ++i) {
    const bool on_object = i < objects.size() * 40;
    if (on_object) {
      const SceneObject& o = objects[i % objects.size()];
      const float w = (o.x2 - o.x1) * r;
      const float h = (o.y2 - o.y1) * r;
      head(i, 0) = (o.x1 + o.x2) / 2 * r + left + jitter(rng) * w;
      head(i, 1) = (o.y1 + o.y2) / 2 * r + top + jitter(rng) * h;
      head(i, 2) = w * (1 + jitter(rng));
      head(i, 3) = h * (1 + jitter(rng));
      head(i, 4 + o.class_id) = 0.55f + 0.4f * unit(rng);
    } else {
      head(i, 0) = unit(rng) * net[0];
      head(i, 1) = unit(rng) * net[1];
      head(i, 2) = 10 + unit(rng) * 100;
      head(i, 3) = 10 + unit(rng) * 100;
    }
    for (size_t c = 0; c < classes; ++c)
      head(i, 4 + c) = std::max(head(i, 4 + c), 0.2f * unit(rng));
  }
  return head;
}

struct DemoArgs {
  std::string image;
  std::string raw;
  std::string output = "vemoproc-demo.png";
  std::string size = "640x640";
  bool match_python = false;
  std::string task = "detect";
};

// The picture the demo writes: at most kDemoSide pixels on its longer side,
// so that lines and the fixed-size label font stay in proportion and the PNG
// stays small whatever the photo's size; detections are scaled with it.
constexpr int kDemoSide = 960;

yolo::RawImage fit_for_display(const yolo::RawImage& image, std::vector<yolo::Detection>& dets) {
  const int side = std::max(image.width, image.height);
  if (side <= kDemoSide) return image;
  const double f = double(kDemoSide) / side;
  yolo::RawImage out;
  out.width = std::max(1, int(std::lround(image.width * f)));
  out.height = std::max(1, int(std::lround(image.height * f)));
  out.channels = 3;
  out.data.resize(size_t(out.width) * size_t(out.height) * 3);
  if (!stbir_resize_uint8_linear(image.data.data(), image.width, image.height, image.width * 3,
                                 out.data.data(), out.width, out.height, out.width * 3,
                                 STBIR_RGB)) {
    throw std::runtime_error("demo: cannot scale the picture for display");
  }
  const float fx = float(out.width) / float(image.width);
  const float fy = float(out.height) / float(image.height);
  for (auto& d : dets) {
    d.x1 *= fx;
    d.x2 *= fx;
    d.y1 *= fy;
    d.y2 *= fy;
  }
  return out;
}

// The synthetic head of another task for the same objects, in network pixels,
// from the detection head's rows (objects first, 40 rows each, then noise):
// segment appends one-hot coefficients over per-object elliptic prototypes
// (returned in `protos`), pose a stick figure of 17 keypoints inside the box,
// obb a per-object angle.
xt::xtensor<float, 2> task_head(const std::string& task, const xt::xtensor<float, 2>& det,
                                size_t objects, std::array<int, 2> net,
                                xt::xtensor<float, 3>& protos) {
  const size_t rows = det.shape(0);
  const size_t classes = det.shape(1) - 4;
  const size_t extra = task == "segment" ? 32 : task == "pose" ? 51 : 1;
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, det.shape(1) + extra});
  xt::view(head, xt::all(), xt::range(0, det.shape(1))) = det;
  if (task == "segment") {
    const size_t mh = size_t(net[1]) / 4, mw = size_t(net[0]) / 4;
    protos = xt::zeros<float>({size_t(32), mh, mw});
    for (size_t o = 0; o < objects; ++o) {
      // The ellipse inside the first (unjittered) candidate's box: positive inside.
      const float cx = det(o, 0) / 4, cy = det(o, 1) / 4;
      const float rx = det(o, 2) / 8, ry = det(o, 3) / 8;
      for (size_t y = 0; y < mh; ++y)
        for (size_t x = 0; x < mw; ++x) {
          const float dx = (float(x) + 0.5f - cx) / rx, dy = (float(y) + 0.5f - cy) / ry;
          protos(o, y, x) = 1.0f - dx * dx - dy * dy;
        }
    }
    for (size_t i = 0; i < rows; ++i)
      head(i, 4 + classes + (i < objects * 40 ? i % objects : 31)) = 1.0f;
  } else if (task == "pose") {
    // Nose, eyes, ears, shoulders, elbows, wrists, hips, knees, ankles as
    // fractions of the box (x across, y down).
    static const float kFigure[17][2] = {
        {0.50f, 0.08f}, {0.46f, 0.06f}, {0.54f, 0.06f}, {0.42f, 0.08f}, {0.58f, 0.08f},
        {0.32f, 0.22f}, {0.68f, 0.22f}, {0.22f, 0.38f}, {0.78f, 0.38f}, {0.18f, 0.52f},
        {0.82f, 0.52f}, {0.38f, 0.55f}, {0.62f, 0.55f}, {0.36f, 0.76f}, {0.64f, 0.76f},
        {0.35f, 0.97f}, {0.65f, 0.97f}};
    for (size_t i = 0; i < rows; ++i) {
      const float x1 = det(i, 0) - det(i, 2) / 2, y1 = det(i, 1) - det(i, 3) / 2;
      for (size_t k = 0; k < 17; ++k) {
        head(i, 4 + classes + 3 * k) = x1 + kFigure[k][0] * det(i, 2);
        head(i, 5 + classes + 3 * k) = y1 + kFigure[k][1] * det(i, 3);
        head(i, 6 + classes + 3 * k) = k == 3 ? 0.2f : 0.9f;  // one ear hidden
      }
    }
  } else {
    for (size_t i = 0; i < rows; ++i) head(i, 4 + classes) = 0.25f * float(i % objects) - 0.3f;
  }
  return head;
}

// Stages 4 to 6 of the demo for the other tasks.
void run_demo_task(const DemoArgs& a, yolo::RawImage& scene, size_t objects,
                   const xt::xtensor<float, 2>& det, std::array<int, 2> net) {
  constexpr int kStages = 6;
  const yolo::LetterboxInfo g = yolo::letterbox_info(scene.width, scene.height, net);
  xt::xtensor<float, 3> protos;
  yolo::PostprocessOptions options;
  if (a.task == "classify") {
    cli::Stage s(4, kStages, "classify a synthetic score vector");
    const auto top = yolo::classify({0.1f, 2.0f, 0.5f, 1.2f}, 5, true);
    for (const auto& c : top)
      std::cout << std::vector<std::string>{"house", "tree", "sun", "car"}[size_t(c.class_id)]
                << ' ' << c.score << '\n';
    return;
  }
  const xt::xtensor<float, 2> head = task_head(a.task, det, objects, net, protos);
  // Drawn at full size, then scaled for display: lines in proportion.
  const int side = std::max(scene.width, scene.height);
  const int thickness = std::max(2, side / 320) * std::max(1, side / kDemoSide);
  {
    cli::Stage s(4, kStages,
                 a.task + " postprocess [8400, " + std::to_string(head.shape(1)) + "] head");
    if (a.task == "segment") {
      yolo::draw_masks(scene, yolo::segment(head, protos, g, options), demo_names(), true,
                       thickness);
    } else if (a.task == "pose") {
      yolo::draw_pose(scene, yolo::postprocess_pose(head, g, options), yolo::human_skeleton(), 0.5f,
                      2 * thickness, thickness);
    } else {
      yolo::draw_oriented(scene, yolo::postprocess_obb(head, g, options), demo_names(), true,
                          thickness);
    }
  }
  {
    cli::Stage s(6, kStages, "write " + a.output);
    std::vector<yolo::Detection> none;
    write_png(fit_for_display(scene, none), a.output);
  }
  std::cout << "annotated image: " << a.output << "\n";
}

void run_demo(const DemoArgs& a) {
  const auto net = cli::parse_size(a.size, "--size");
  cli::check_pixels(net[0], net[1], "--size");
  constexpr int kStages = 6;
  const std::vector<std::string> names = demo_names();
  yolo::RawImage scene;
  std::vector<SceneObject> objects;
  std::string input = a.image;
  const bool photo = !a.image.empty();
  {
    cli::Stage s(1, kStages, photo ? "reading " + a.image : "painting a sample scene");
    if (!photo) {
      objects = paint_scene(scene);
      input = (std::filesystem::temp_directory_path() / "vemoproc-demo-scene.png").string();
      write_png(scene, input);
    } else {
      scene = raw_image(a.image, a.raw, a.match_python);
      if (cli::needs_reading(a.image, a.raw)) {
        // The preprocess stage reads a file: standard input goes through one.
        input = (std::filesystem::temp_directory_path() / "vemoproc-demo-input.png").string();
        write_png(scene, input);
      }
      // No network runs here, so a photo gets placeholder boxes at fixed
      // spots, labelled as such.
      const float w = float(scene.width), h = float(scene.height);
      objects = {{kPlaceholder, 0.1f * w, 0.2f * h, 0.45f * w, 0.9f * h},
                 {kPlaceholder, 0.5f * w, 0.1f * h, 0.7f * w, 0.6f * h},
                 {kPlaceholder, 0.6f * w, 0.55f * h, 0.95f * w, 0.95f * h}};
    }
  }
  {
    cli::Stage s(2, kStages, "preprocess (decode, letterbox, pack) to " + a.size);
    if (a.match_python) {
      const auto batch = yolo::preprocess({input}, net, vemoproc::Pipeline::MatchPython);
      (void)batch;  // the input a detection network would run on
    } else {
      const auto batch = yolo::preprocess({input}, net);
      (void)batch;
    }
  }
  xt::xtensor<float, 2> head;
  {
    cli::Stage s(3, kStages, "synthetic detection head (no network in this library)");
    head = synthetic_head(objects, scene.width, scene.height, net, 8400);
  }
  if (a.task != "detect") {
    run_demo_task(a, scene, objects.size(), head, net);
    return;
  }
  std::vector<yolo::Detection> dets;
  {
    cli::Stage s(4, kStages, "postprocess [8400, " + std::to_string(head.shape(1)) + "] head");
    if (a.match_python) {
      yolo::PostprocessOptions options;
      options.box_mapping = vemoproc::Pipeline::MatchPython;
      dets = yolo::postprocess(
          head,
          yolo::letterbox_info(scene.width, scene.height, net, vemoproc::Pipeline::MatchPython),
          options);
    } else {
      dets = yolo::postprocess(head, {size_t(net[1]), size_t(net[0])},
                               {size_t(scene.height), size_t(scene.width)}, 0.25f, 0.45f, 300);
    }
  }
  yolo::RawImage picture;
  {
    cli::Stage s(5, kStages, "draw " + std::to_string(dets.size()) + " detections");
    std::vector<yolo::Detection> shown = dets;
    picture = fit_for_display(scene, shown);
    const int thickness = std::max(2, std::max(picture.width, picture.height) / 320);
    yolo::draw_detections(picture, shown, names, true, thickness);
    if (photo) {
      // The banner is a label with no box: the picture itself says the boxes
      // are not detections.
      yolo::draw_detections(picture, {{0, 0, 0, 0, 0, 0}}, {"synthetic head"}, false, 0);
    }
  }
  {
    cli::Stage s(6, kStages, "write " + a.output);
    write_png(picture, a.output);
  }
  print_detections(dets, names);
  if (photo) {
    std::cout << "note: the detection head is synthetic (this library runs no network): the boxes "
                 "on your photo are placeholders at fixed spots, not detections\n";
  }
  std::cout << "annotated image: " << a.output << "\n";
}

}  // namespace

void add_yolo_commands(CLI::App& app) {
  auto pre = std::make_shared<PreprocessArgs>();
  auto* p = app.add_subcommand("yolo-preprocess", "Letterbox images into a [N,3,H,W] float .npy");
  p->add_option(
       "images", pre->images,
       "Image files (any format stb_image reads); - for an encoded image on standard input")
      ->required();
  p->add_option("--raw", pre->raw, cli::kRawHelp);
  p->add_option("--size", pre->size, "Network input size WIDTHxHEIGHT")->capture_default_str();
  p->add_option("-o,--output", pre->output, "Output .npy file")->required();
  p->add_flag("--match-python", pre->match_python, cli::kMatchPythonHelp);
  p->callback([pre] { run_preprocess(*pre); });

  auto post = std::make_shared<PostprocessArgs>();
  auto* q = app.add_subcommand("yolo-postprocess", "Decode a raw detection head into boxes");
  q->add_option("head", post->head, "Head .npy: [N, 4+classes] or [1, N, 4+classes]")->required();
  // Required unless --task classify (checked when the command runs).
  q->add_option("--input-size", post->input_size, "Network input size WIDTHxHEIGHT (required)");
  q->add_option("--image", post->image,
                "The original image (for its size, and --draw); - for standard input (required)");
  q->add_option("--raw", post->raw, cli::kRawHelp);
  q->add_flag("--agnostic", post->agnostic, "NMS across classes (maps back as --exact)");
  q->add_flag("--end2end", post->end2end,
              "NMS-free head of [N, 6] rows x1 y1 x2 y2 score class (maps back as --exact)");
  q->add_flag("--match-python", post->match_python,
              "Decode the image as the Python loader does and map boxes back with the Python "
              "pipeline's rule (pad subtracted, divided by the float gain, clipped)");
  q->add_flag("--exact", post->exact,
              "Map boxes back with the geometry the letterbox applied, and print it");
  q->add_option("--conf", post->conf, "Confidence threshold (strictly above)")
      ->check(cli::finite_float())
      ->capture_default_str();
  q->add_option("--iou", post->iou, "NMS IoU threshold (strictly above suppresses)")
      ->check(cli::finite_float())
      ->capture_default_str();
  q->add_option("--max-det", post->max_det, "Most detections kept")
      ->check(cli::unsigned_in(1, std::numeric_limits<size_t>::max()))
      ->capture_default_str();
  q->add_option("--names", post->names, "Class names file, one per line");
  q->add_option("--draw", post->draw, "Write the image with boxes and labels to this PNG");
  auto* layout =
      q->add_option("--layout", post->layout, "nc: rows are boxes; cn: channel-first [C, N] heads")
          ->check(CLI::IsMember({"nc", "cn"}))
          ->capture_default_str();
  q->add_option("--thickness", post->thickness, "Box outline width in pixels")
      ->check(cli::integer_in(1, std::numeric_limits<int>::max()))
      ->capture_default_str();
  yolo_cli::add_task_options(*q, post->tasks);
  q->callback([post, layout] {
    post->layout_given = layout->count() > 0;
    run_postprocess(*post);
  });

  auto demo = std::make_shared<DemoArgs>();
  auto* d =
      app.add_subcommand("demo", "Run detection pre/post-processing end to end on a sample scene");
  d->add_option("--image", demo->image,
                "Use this image instead of the painted sample scene (- for standard input)");
  d->add_option("--raw", demo->raw, cli::kRawHelp);
  d->add_option("-o,--output", demo->output, "Annotated PNG to write")->capture_default_str();
  d->add_option("--size", demo->size, "Network input size WIDTHxHEIGHT")->capture_default_str();
  d->add_flag("--match-python", demo->match_python, cli::kMatchPythonHelp);
  d->add_option("--task", demo->task, "Which head to synthesise and decode")
      ->check(CLI::IsMember({"detect", "segment", "pose", "obb", "classify"}))
      ->capture_default_str();
  d->callback([demo] { run_demo(*demo); });
}
