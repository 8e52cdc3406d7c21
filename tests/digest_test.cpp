// Every deterministic entry point run over a fixed data set made here (images
// in several formats and shapes, detection heads, logits, audio-code blocks,
// token streams), each result reduced to a 64-bit FNV-1a digest of its bytes
// and compared with tests/digests.txt. The same table must hold on every
// architecture and with the wide vector paths on or off, so any change to a
// result shows up everywhere at once.
//
// Regenerating after an intended change (commit the file with the change):
//   VEMOPROC_UPDATE_DIGESTS=1 build/release/tests/digest_test
// rewrites the entries of the families that ran and keeps the others.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "../src/pixels/cpu.hpp"
#include "convnext.hpp"
#include "dia.hpp"
#include "pixels.hpp"
#include "qwen2vl.hpp"
#include "streamer.hpp"
#include "test_images.hpp"
#include "threads.hpp"
#include "yolo.hpp"
#include "yolo_tasks.hpp"
#include "zentil.hpp"
#include <xtensor/xmanipulation.hpp>
#include <xtensor/xview.hpp>

namespace {

using testimg::Format;

// FNV-1a, 64 bits, fed byte by byte.
struct Fnv {
  uint64_t h = 14695981039346656037ull;
  void bytes(const void* p, size_t n) {
    const auto* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
  }
  void u64(uint64_t v) { bytes(&v, sizeof v); }
  void text(const std::string& s) { u64(s.size()), bytes(s.data(), s.size()); }
  template <class T>
  void all(const std::vector<T>& v) {
    bytes(v.data(), v.size() * sizeof(T));
  }
};

// Each tensor's shape first, then its elements' bytes (bool as one byte each).
template <class... E>
void add_tensor(Fnv& f, const E&... tensors) {
  const auto one = [&f](const auto& t) {
    f.u64(t.dimension());
    for (size_t d : t.shape()) f.u64(d);
    for (const auto& v : t) {
      const auto value = v;
      f.bytes(&value, sizeof value);
    }
  };
  (one(tensors), ...);
}

// One digest per kind of result: tensors, pixels, detections, patches and grid.
template <class E>
void digest(Fnv& f, const xt::xexpression<E>& t) {
  add_tensor(f, t.derived_cast());
}
void digest(Fnv& f, const std::vector<uint8_t>& pixels) { f.all(pixels); }
void add_detections(Fnv& f, const std::vector<yolo::Detection>& dets) {
  f.u64(dets.size());
  for (const yolo::Detection& d : dets) {
    const float v[5] = {d.x1, d.y1, d.x2, d.y2, d.score};
    f.bytes(v, sizeof v);
    f.u64(uint64_t(int64_t(d.class_id)));
  }
}
void digest(Fnv& f, const std::vector<yolo::Detection>& dets) { add_detections(f, dets); }
void digest(Fnv& f, const qwen2vl::Qwen2VLImageOutput& out) {
  add_tensor(f, out.patches, out.grid_thw);
}

// True when the table is being regenerated rather than checked.
bool updating() {
  const char* v = std::getenv("VEMOPROC_UPDATE_DIGESTS");
  return v != nullptr && *v != '\0' && std::strcmp(v, "0") != 0;
}

// The results of one family: name -> digest, in a fixed order.
using Results = std::map<std::string, uint64_t>;

struct Recorder {
  std::string family;
  Results out;

  // Runs `compute` and records its digest; an exception is a result too (its
  // message is digested).
  void add(const std::string& name, const std::function<void(Fnv&)>& compute) {
    Fnv f;
    try {
      compute(f);
    } catch (const std::exception& e) {
      f = Fnv{};
      f.text(std::string("threw: ") + e.what());
      if (updating()) std::printf("%s.%s threw: %s\n", family.c_str(), name.c_str(), e.what());
    }
    out[family + "." + name] = f.h;
  }
  // Records the digest of what `make` returns.
  template <class Make>
  void put(const std::string& name, Make make) {
    add(name, [&](Fnv& f) { digest(f, make()); });
  }
};

// A small linear congruential generator: the same numbers everywhere.
struct Lcg {
  uint32_t s;
  uint32_t next() { return s = s * 1664525u + 1013904223u; }
  float unit() { return float(next() >> 8) / 16777216.0f; }  // [0, 1)
};

// Smooth gradients, a hard edge and some noise: enough structure for the
// resizers and the JPEG coder to have work to do.
testimg::Pixels pattern(int w, int h, int channels, uint32_t seed) {
  Lcg rng{seed};
  std::vector<uint8_t> noise(static_cast<size_t>(w) * h);
  for (auto& n : noise) n = uint8_t(rng.next() >> 27);
  return testimg::make(w, h, channels, [&](int x, int y, int c) {
    const int base = (x * 255 / std::max(1, w - 1) + y * 128 / std::max(1, h - 1) + c * 70) & 255;
    const int edge = (x > w / 3 && y < 2 * h / 3) ? 60 : 0;
    return uint8_t((base + edge + noise[size_t(y) * w + x]) & 255);
  });
}

// Formats, channel counts, odd sizes and extreme aspect ratios, written once
// per process (seeds 1, 2, ... in this order); name -> path.
const std::map<std::string, std::string>& image_paths() {
  struct TestImage {
    const char* name;
    int width, height, channels;
    Format format;
  };
  static const TestImage list[] = {
      {"rgb_64x48.png", 64, 48, 3, Format::Png},   {"grey_33x17.png", 33, 17, 1, Format::Png},
      {"ga_20x21.png", 20, 21, 2, Format::Png},    {"rgba_31x29.png", 31, 29, 4, Format::Png},
      {"one_1x1.png", 1, 1, 3, Format::Png},       {"wide_400x3.png", 400, 3, 3, Format::Png},
      {"tall_2x300.png", 2, 300, 3, Format::Png},  {"rgb_64x48.jpg", 64, 48, 3, Format::Jpeg},
      {"grey_45x31.jpg", 45, 31, 1, Format::Jpeg}, {"odd_17x3.jpg", 17, 3, 3, Format::Jpeg},
      {"rgb_37x23.bmp", 37, 23, 3, Format::Bmp},   {"rgba_12x9.bmp", 12, 9, 4, Format::Bmp},
      {"rgb_29x41.tga", 29, 41, 3, Format::Tga},   {"rgba_8x8.tga", 8, 8, 4, Format::Tga},
  };
  static const std::map<std::string, std::string> paths = [] {
    std::map<std::string, std::string> p;
    uint32_t seed = 1;
    for (const TestImage& t : list)
      p[t.name] = testimg::write(pattern(t.width, t.height, t.channels, seed++), t.format, t.name);
    return p;
  }();
  return paths;
}

vemoproc::Image decoded(const char* name) { return testimg::decode(image_paths().at(name)); }

std::string num(int v) { return std::to_string(v); }

void image_family(Recorder& r) {
  using vemoproc::PixelFormat;
  using vemoproc::Rotation;
  for (const auto& [name, path] : image_paths()) {
    const std::vector<uint8_t> bytes = testimg::read_bytes(path);
    r.put("file." + name, [&] { return bytes; });
    r.add("decode." + name, [&](Fnv& f) {
      const vemoproc::Image img = vemoproc::decode_image(bytes.data(), bytes.size());
      f.u64(uint64_t(img.width) << 32 | uint64_t(img.height));
      f.all(img.rgb);
    });
  }
  const Rotation turns[] = {Rotation::None, Rotation::Clockwise90, Rotation::Rotate180,
                            Rotation::Clockwise270};
  for (int pf = 0; pf < 5; ++pf)
    for (Rotation rot : turns) {
      const testimg::Layout l = testimg::lay_out(decoded("rgb_37x23.bmp"), PixelFormat(pf), 3);
      r.put("to_rgb.view" + num(pf) + ".rot" + num(int(rot)),
            [&] { return vemoproc::to_rgb(l.view, rot).rgb; });
    }
  // A YUV 4:2:0 frame, odd-sized and with rows long enough for the wide path.
  const int w = 37, h = 23, cw = 19;
  Lcg rng{77};
  std::vector<uint8_t> Y(size_t(w) * h), U(size_t(cw) * 12), V(U.size()), UV(2 * U.size());
  for (auto& v : Y) v = uint8_t(rng.next() >> 24);
  for (size_t i = 0; i < U.size(); ++i) {
    U[i] = UV[2 * i] = uint8_t(rng.next() >> 24);
    V[i] = UV[2 * i + 1] = uint8_t(rng.next() >> 24);
  }
  for (int lay = 0; lay < 3; ++lay)  // NV12, NV21, I420
    for (int range = 0; range < 2; ++range)
      for (Rotation rot : {Rotation::None, Rotation::Clockwise90}) {
        vemoproc::YuvView frame{
            Y.data(),   size_t(w), UV.data(), size_t(2 * cw),           nullptr,
            size_t(cw), w,         h,         vemoproc::YuvLayout(lay), vemoproc::YuvRange(range)};
        if (lay == 2) frame.u = U.data(), frame.u_stride = cw, frame.v = V.data();
        r.put("to_rgb.yuv" + num(lay) + "." + num(range) + ".rot" + num(int(rot)),
              [&] { return vemoproc::to_rgb(frame, rot).rgb; });
      }
}

// A raw head [rows, 4 + classes]: centres across the input, assorted sizes,
// scores from 0 to 1 with repeats (ties) among them.
xt::xtensor<float, 2> detection_head(size_t rows, size_t classes, float side, uint32_t seed) {
  Lcg rng{seed};
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, 4 + classes});
  for (size_t i = 0; i < rows; ++i) {
    head(i, 0) = rng.unit() * side;
    head(i, 1) = rng.unit() * side;
    head(i, 2) = 2.0f + rng.unit() * side / 3;
    head(i, 3) = 2.0f + rng.unit() * side / 3;
    for (size_t c = 0; c < classes; ++c) head(i, 4 + c) = (rng.next() & 7) == 0 ? 0.5f : rng.unit();
  }
  return head;
}

// A task head [rows, 4 + classes + extra]: the detection head's boxes and
// scores followed by `extra` values in [-2, 2) scaled by `scale`.
xt::xtensor<float, 2> task_head(size_t rows, size_t classes, size_t extra, float scale,
                                uint32_t seed) {
  const xt::xtensor<float, 2> det = detection_head(rows, classes, 640, seed);
  Lcg rng{seed + 100};
  xt::xtensor<float, 2> head = xt::zeros<float>({rows, 4 + classes + extra});
  xt::view(head, xt::all(), xt::range(0, 4 + classes)) = det;
  for (size_t i = 0; i < rows; ++i)
    for (size_t k = 0; k < extra; ++k) head(i, 4 + classes + k) = (rng.unit() * 4 - 2) * scale;
  return head;
}

void add_mask(Fnv& f, const yolo::InstanceMask& m) {
  for (int v : {m.x0, m.y0, m.width, m.height}) f.u64(uint64_t(int64_t(v)));
  f.bytes(m.bits.data(), m.bits.size());
}

void add_segments(Fnv& f, const std::vector<yolo::SegmentedDetection>& dets) {
  f.u64(dets.size());
  for (const auto& d : dets) {
    add_detections(f, {d.box});
    add_mask(f, d.mask);
    for (const auto& poly : d.outlines) f.bytes(poly.data(), poly.size() * sizeof poly[0]);
  }
}

void add_poses(Fnv& f, const std::vector<yolo::PoseDetection>& dets) {
  f.u64(dets.size());
  for (const auto& d : dets) {
    add_detections(f, {d.box});
    f.bytes(d.keypoints.data(), d.keypoints.size() * sizeof d.keypoints[0]);
  }
}

void add_oriented(Fnv& f, const std::vector<yolo::OrientedDetection>& dets) {
  f.u64(dets.size());
  for (const auto& d : dets) {
    const float v[6] = {d.cx, d.cy, d.width, d.height, d.angle, d.score};
    f.bytes(v, sizeof v);
    f.u64(uint64_t(int64_t(d.class_id)));
    f.bytes(d.corners.data(), sizeof d.corners);
  }
}

// Masks, keypoints, rotated boxes and classes: every public path of yolo_tasks.hpp.
void yolo_tasks(Recorder& r, const yolo::LetterboxInfo& geom) {
  Lcg rng{77};
  xt::xtensor<float, 3> protos = xt::zeros<float>({size_t(8), size_t(160), size_t(160)});
  for (size_t k = 0; k < 8; ++k)
    for (size_t y = 0; y < 160; ++y)
      for (size_t x = 0; x < 160; ++x)
        protos(k, y, x) =
            std::sin(0.05f * float(x * (k + 1)) + 0.07f * float(y)) + rng.unit() - 0.5f;
  const xt::xtensor<float, 2> seg = task_head(300, 3, 8, 1.0f, 21);
  yolo::PostprocessOptions o;
  o.iou_threshold = 0.5f;
  r.add("segment", [&](Fnv& f) { add_segments(f, yolo::segment(seg, protos, geom, o, true)); });
  r.add("segment_input_masks", [&](Fnv& f) {
    for (const auto& m : yolo::segment_input_masks(seg, protos, geom, o)) add_mask(f, m);
  });
  r.add("segment_batch", [&](Fnv& f) {
    const xt::xtensor<float, 3> heads = xt::stack(xt::xtuple(seg, task_head(300, 3, 8, 1.0f, 22)));
    const xt::xtensor<float, 4> both = xt::stack(xt::xtuple(protos, protos * -1.0f));
    for (const auto& dets :
         yolo::segment_batch(heads, both, {geom, yolo::letterbox_info(333, 900, {640, 640})}, o))
      add_segments(f, dets);
  });
  r.add("segment_end2end", [&](Fnv& f) {
    xt::xtensor<float, 2> rows = task_head(40, 2, 8, 1.0f, 23);
    for (size_t i = 0; i < 40; ++i) {
      rows(i, 2) += rows(i, 0);
      rows(i, 3) += rows(i, 1);
    }
    add_segments(f, yolo::segment_end2end(rows, protos, geom, o, true));
  });
  const xt::xtensor<float, 2> pose = task_head(300, 1, 17 * 3, 400.0f, 24);
  r.add("pose", [&](Fnv& f) { add_poses(f, yolo::postprocess_pose(pose, geom, o)); });
  r.add("pose_batch", [&](Fnv& f) {
    const xt::xtensor<float, 3> heads = xt::stack(xt::xtuple(pose, pose * 0.5f));
    for (const auto& dets : yolo::postprocess_pose_batch(
             heads, {geom, yolo::letterbox_info(1920, 1080, {640, 640})}, o))
      add_poses(f, dets);
  });
  r.add("pose_end2end", [&](Fnv& f) {
    add_poses(f, yolo::postprocess_pose_end2end(task_head(30, 2, 10, 300.0f, 25), geom, o, {5, 2}));
  });
  const xt::xtensor<float, 2> obb = task_head(300, 4, 1, 2.0f, 26);
  r.add("obb", [&](Fnv& f) { add_oriented(f, yolo::postprocess_obb(obb, geom, o)); });
  r.add("obb_batch", [&](Fnv& f) {
    const xt::xtensor<float, 3> heads = xt::stack(xt::xtuple(obb, obb * 0.75f));
    for (const auto& dets :
         yolo::postprocess_obb_batch(heads, {geom, yolo::letterbox_info(500, 90, {640, 640})}, o))
      add_oriented(f, dets);
  });
  r.add("obb_end2end", [&](Fnv& f) {
    add_oriented(f, yolo::postprocess_obb_end2end(task_head(30, 3, 0, 1.0f, 27), geom, o));
  });
  r.add("classify", [&](Fnv& f) {
    const xt::xtensor<float, 2> scores = task_head(4, 40, 0, 1.0f, 28);
    for (bool softmax : {false, true})
      for (const auto& top : yolo::classify_batch(scores, 7, softmax))
        for (const yolo::ClassScore& c : top) f.u64(uint64_t(c.class_id)), f.bytes(&c.score, 4);
  });
  r.add("draw_tasks", [&](Fnv& f) {
    yolo::RawImage img(image_paths().at("rgb_64x48.png"));
    const yolo::LetterboxInfo small = yolo::letterbox_info(64, 48, {640, 640});
    yolo::draw_masks(img, yolo::segment(seg, protos, small, o), {"a"}, true);
    yolo::draw_pose(img, yolo::postprocess_pose(pose, small, o), yolo::human_skeleton());
    yolo::draw_oriented(img, yolo::postprocess_obb(obb, small, o), {}, true, 1);
    f.bytes(img.data.data(), img.data.size());
  });
}

void yolo_family(Recorder& r) {
  using yolo::PostprocessOptions;
  const auto& paths = image_paths();
  for (const auto& [name, path] : paths) {
    r.put("preprocess64." + name, [&] { return yolo::preprocess({path}, {64, 64}); });
    r.add("letterbox80x48." + name, [&](Fnv& f) {
      const yolo::RawImage lb = yolo::letterbox(yolo::RawImage(path), {80, 48});
      f.u64(uint64_t(lb.width) << 32 | uint64_t(lb.height));
      f.all(lb.data);
    });
  }
  const testimg::Layout grey =
      testimg::lay_out(decoded("rgba_31x29.png"), vemoproc::PixelFormat::GRAY, 2);
  r.put("letterbox_view", [&] {
    return yolo::letterbox(yolo::RawImage(grey.view), {40, 64}, 0).data;
  });
  r.put("preprocess_batch", [&] {
    return yolo::preprocess(
        {paths.at("rgb_64x48.jpg"), paths.at("rgb_29x41.tga"), paths.at("odd_17x3.jpg")}, {96, 40});
  });
  r.add("letterbox_info", [&](Fnv& f) {
    for (auto [w, h] : {std::array<int, 2>{1, 1}, {64, 48}, {400, 3}, {2, 300}, {1920, 1080}}) {
      const yolo::LetterboxInfo li = yolo::letterbox_info(w, h, {640, 384});
      f.bytes(&li.scale, sizeof li.scale);
      for (int v :
           {li.original_width, li.original_height, li.new_width, li.new_height, li.left, li.top})
        f.u64(uint64_t(int64_t(v)));
    }
  });
  // Pixels in memory: a strided RGB view (read in place) and a BGRA one.
  const vemoproc::Image mem = decoded("rgb_64x48.jpg");
  const testimg::Layout strided = testimg::lay_out(mem, vemoproc::PixelFormat::RGB, 7);
  const testimg::Layout bgra = testimg::lay_out(mem, vemoproc::PixelFormat::BGRA, 0);
  r.add("preprocess_images", [&](Fnv& f) {
    const yolo::DetectionBatch b = yolo::preprocess_images({strided.view, bgra.view}, {96, 64});
    add_tensor(f, b.tensor);
    for (const yolo::LetterboxInfo& li : b.letterbox)
      f.bytes(&li.scale, sizeof li.scale), f.u64(uint64_t(li.left) << 32 | uint64_t(li.top));
  });
  // The geometry overloads, each option on its own, a batch and an end-to-end
  // head.
  const yolo::LetterboxInfo geom = yolo::letterbox_info(720, 480, {640, 640});
  const xt::xtensor<float, 2> head = detection_head(400, 6, 640, 9);
  const std::pair<const char*, void (*)(PostprocessOptions&)> variants[] = {
      {"default", [](PostprocessOptions&) {}},
      {"agnostic", [](PostprocessOptions& o) { o.agnostic = true; }},
      {"objectness", [](PostprocessOptions& o) { o.objectness = true; }},
      {"classes",
       [](PostprocessOptions& o) {
         o.classes = {1, 4};
       }},
      {"candidates", [](PostprocessOptions& o) { o.max_candidates = 17; }},
      {"max_det", [](PostprocessOptions& o) { o.max_det = 3, o.iou_threshold = 0.1f; }},
      {"channels_first", [](PostprocessOptions& o) { o.channels_first = true; }}};
  for (const auto& [tag, set] : variants)
    r.put(std::string("postprocess_geometry.") + tag, [&] {
      PostprocessOptions o;
      set(o);
      const xt::xtensor<float, 2> in = o.channels_first ? xt::transpose(head) : head;
      return yolo::postprocess(in, geom, o);
    });
  r.add("postprocess_batch", [&](Fnv& f) {
    xt::xtensor<float, 3> heads = xt::zeros<float>({size_t(2), size_t(120), size_t(7)});
    xt::view(heads, 0) = detection_head(120, 3, 640, 10);
    xt::view(heads, 1) = detection_head(120, 3, 640, 11);
    for (const auto& dets : yolo::postprocess_batch(
             heads, {geom, yolo::letterbox_info(33, 900, {640, 640})}, PostprocessOptions{}))
      digest(f, dets);
  });
  r.put("postprocess_end2end", [&] {
    xt::xtensor<float, 2> rows = detection_head(60, 2, 640, 12);
    for (size_t i = 0; i < rows.shape(0); ++i) {
      rows(i, 2) += rows(i, 0);  // x2, y2 beyond x1, y1
      rows(i, 3) += rows(i, 1);
      rows(i, 5) = float(i % 7) + 0.75f;
    }
    return yolo::postprocess_end2end(rows, geom, 0.3f);
  });
  // The positional overload: many boxes, a tall original, and none above the
  // threshold.
  r.put("postprocess.wide", [&] {
    return yolo::postprocess(detection_head(400, 6, 640, 5), {640, 640}, {480, 720}, 0.25f, 0.45f,
                             100);
  });
  r.put("postprocess.tight", [&] {
    return yolo::postprocess(detection_head(200, 3, 320, 6), {320, 320}, {17, 1000}, 0.6f, 0.7f, 5);
  });
  r.put("postprocess.none_above", [&] {
    return yolo::postprocess(detection_head(50, 2, 64, 7), {64, 64}, {64, 64}, 1.0f, 0.5f, 10);
  });
  r.put("draw", [&] {
    yolo::RawImage img(paths.at("rgb_64x48.png"));
    const auto dets =
        yolo::postprocess(detection_head(30, 4, 64, 8), {64, 64}, {48, 64}, 0.5f, 0.45f, 6);
    yolo::draw_detections(img, dets, {"person", "car"}, true, 2);
    yolo::draw_detections(img, {{-5, 3, 1e9f, NAN, 0.25f, -3}}, {}, false, 1);
    return img.data;
  });
  yolo_tasks(r, geom);
}

void vision_family(Recorder& r) {
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 28 * 28 * 16, true, 1.0f / 255, true,
                                      qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd, 14, 2,
                                      2);
  convnext::ConvNextPreprocessor convnext64(64, 0.875f);
  zentil::ZentilPreprocessor zentil32(32);
  for (const auto& [name, path] : image_paths()) {
    r.put("convnext64." + name, [&] { return convnext64.process(path); });
    r.put("zentil32." + name, [&] { return zentil32.process(path); });
    r.put("qwen2vl." + name, [&] { return qwen.preprocess(path); });
  }
  const auto load = [](const char* name) {
    return qwen2vl::Qwen2VLImageProcessor::load_image(image_paths().at(name));
  };
  r.put("convnext384", [&] {
    return convnext::ConvNextPreprocessor(384, 0.875f).process(image_paths().at("rgb_64x48.jpg"));
  });
  r.put("qwen2vl.batch", [&] {
    return qwen.preprocess(
        std::vector<xt::xtensor<uint8_t, 3>>{load("rgb_64x48.jpg"), load("wide_400x3.png")});
  });
  r.add("qwen2vl.resize_image", [&](Fnv& f) {
    const auto a = load("rgba_31x29.png");
    add_tensor(f, qwen2vl::resize_image(a, 56, 28), qwen2vl::resize_image(a, 3, 97));
  });
  r.add("qwen2vl.smart_resize", [&](Fnv& f) {
    for (int hgt : {1, 27, 28, 29, 111, 480, 1080, 5000})
      for (int wid : {1, 14, 56, 333, 640, 1920, 40000}) try {
          const auto [nh, nw] = qwen2vl::smart_resize(hgt, wid, 28, 56 * 56, 28 * 28 * 1280);
          f.u64(uint64_t(nh) << 32 | uint64_t(nw));
        } catch (const std::exception& e) {
          f.text(e.what());
        }
  });
  // Views in another pixel layout, and a three-frame video (padded to the
  // temporal patch with its last frame).
  const vemoproc::Image tga = decoded("rgb_29x41.tga");
  const testimg::Layout bgra = testimg::lay_out(tga, vemoproc::PixelFormat::BGRA, 5);
  r.put("convnext64.view", [&] { return convnext64.process(bgra.view); });
  r.put("zentil32.view", [&] { return zentil32.process(bgra.view); });
  r.put("qwen2vl.video", [&] { return qwen.preprocess_video({bgra.view, tga.view(), bgra.view}); });
  r.add("qwen2vl.sample_frame_indices", [&](Fnv& f) {
    for (int total : {1, 7, 16, 300})
      for (float fps : {2.0f, 29.97f}) {
        for (int i : qwen2vl::sample_frame_indices(total, fps, 2.0f, 4, 768, 2))
          f.u64(uint64_t(int64_t(i)));
        f.u64(~0ull);
      }
  });
}

void dia_family(Recorder& r) {
  dia::DiaPreprocessor dp;
  r.add("text", [&](Fnv& f) {
    add_tensor(f, dp.prepareTextInput("[S1] Hello there. [S2] w\xc3\xb6rld [S1]", 0, 48),
               dp.prepareTextInput("[S2]cut short", 7, 5));
  });
  // Blocks with a short and a long frame axis; nine channels reach the
  // eight-a-step path.
  struct Shape {
    int B, T, C;
    std::vector<int> delays;
  };
  for (const Shape& s :
       {Shape{2, 9, 4, {0, 1, 3, 7}}, Shape{1, 40, 9, {0, 8, 9, 10, 11, 12, 13, 14, 15}}}) {
    const std::string tag = num(s.B) + "x" + num(s.T) + "x" + num(s.C);
    xt::xarray<float> audio = xt::zeros<float>({size_t(s.B), size_t(s.T), size_t(s.C)});
    for (size_t i = 0; i < audio.size(); ++i) audio.flat(i) = float(i) * 1.5f - 3.0f;
    r.add("delay." + tag, [&](Fnv& f) {
      const auto idx = dp.buildDelayIndices(s.B, s.T, s.C, s.delays);
      add_tensor(f, std::get<0>(idx), std::get<1>(idx), dp.applyAudioDelay(audio, -1, -2, idx));
    });
    r.add("revert." + tag, [&](Fnv& f) {
      const auto idx = dp.buildRevertIndices(s.B, s.T, s.C, s.delays);
      add_tensor(f, std::get<0>(idx), std::get<1>(idx), dp.revertAudioDelay(audio, -1, idx, s.T));
    });
  }
  r.add("prompt", [&](Fnv& f) {
    xt::xarray<int> prompt = xt::zeros<int>({5, 4});
    for (size_t i = 0; i < prompt.size(); ++i) prompt.flat(i) = int(i * 37 % 1024);
    for (const xt::xarray<int>* p : {&prompt, static_cast<xt::xarray<int>*>(nullptr)}) {
      const auto [codes, n] = dp.prepareAudioPrompt(p, 1026, 1025, 4, {0, 1, 2, 5});
      add_tensor(f, codes), f.u64(uint64_t(n));
    }
  });
  r.add("masks", [&](Fnv& f) {
    xt::xarray<bool> q = xt::zeros<bool>({2, 5}), k = xt::zeros<bool>({2, 7});
    for (size_t i = 0; i < q.size(); ++i) q.flat(i) = i % 3 != 1;
    for (size_t i = 0; i < k.size(); ++i) k.flat(i) = i % 4 != 2;
    add_tensor(f, dp.createAttnMask(q, q, true), dp.createAttnMask(q, k, false));
  });
  // Logits with ties; greedy decoding, and top-k / top-p so narrow that only
  // the most probable code can be drawn, are exact; the seeded form is
  // reproducible whatever the filters.
  Lcg rng{99};
  xt::xarray<float> logits = xt::zeros<float>({9, 1031});
  for (size_t i = 0; i < logits.size(); ++i)
    logits.flat(i) = float(int(rng.next() >> 20) % 400) / 16.0f - 12.0f;
  r.add("sample.greedy", [&](Fnv& f) {
    add_tensor(f, dp.sampleNextToken(logits, 0.0f, 0.9f, 50),
               dp.sampleNextToken(logits, -0.0f, 1.0f, 0));
  });
  r.add("sample.seeded", [&](Fnv& f) {
    add_tensor(f, dp.sampleNextToken(logits, 1.0f, 1.0f, 0, 42),
               dp.sampleNextToken(logits, 0.7f, 0.9f, 40, 0xFFFFFFFFFFFFFFFFull),
               dp.sampleNextToken(logits, dia::SamplingParams{1.2f, 0.95f, 100, 0.05f}, 7),
               dp.sampleNextToken(logits, dia::SamplingParams{0.0f, 1.0f, 0, 0.0f}, 7));
  });
  r.put("sample.top_k_1", [&] { return dp.sampleNextToken(logits, 0.8f, 1.0f, 1); });
  r.put("sample.top_p_narrow", [&] { return dp.sampleNextToken(logits, 1.3f, 1e-6f, 0); });
  r.add("cfg_and_mask", [&](Fnv& f) {
    xt::xarray<float> uncond = logits * 0.5f - 1.0f;
    xt::xarray<float> guided = dp.applyCfg(logits, uncond, 3.0f);
    add_tensor(f, guided);
    dp.maskAudioLogits(guided, 1024);
    add_tensor(f, guided);
  });
}

// A tokenizer whose ids are byte values, so multi-byte characters arrive split
// across calls.
struct ByteTokenizer : Tokenizer {
  std::string decode(const std::vector<int>& ids) override { return {ids.begin(), ids.end()}; }
};

std::vector<int> ids(const std::string& s) { return {s.begin(), s.end()}; }

void streamer_family(Recorder& r) {
  const std::vector<std::string> pieces = {" Hello",           ", wor",      "ld.\n", "\xe4\xbd",
                                           "\xa0\xe5\xa5\xbd", " next",      "\n\n",  "end  ",
                                           "\xe3\x81\x93\xe3", "\x82\x93 ok"};
  for (bool skip : {true, false})
    for (bool strip : {true, false})
      r.add(std::string("stream.skip") + (skip ? "1" : "0") + ".strip" + (strip ? "1" : "0"),
            [&](Fnv& f) {
              ByteTokenizer tok;
              std::ostringstream out;
              TextStreamer s(tok, out, skip, strip);
              s.put(ids("prompt text"));
              for (const std::string& p : pieces) s.put(ids(p)), f.text(out.str());
              s.end();
              f.text(out.str());
            });
  r.add("stream.callback", [&](Fnv& f) {
    ByteTokenizer tok;
    TextStreamer s(tok, [&](std::string_view piece) { f.text(std::string(piece)); });
    s.put(ids("prompt"));
    for (const std::string& p : pieces) s.put(ids(p));
    s.end();
  });
}

// The reference forms: libjpeg-turbo decoding (4:4:4, 4:2:0, grey) and the
// three reference resamplers over 1, 3 and 4 channels, on an image large
// enough to be split over the threads.
void reference_family(Recorder& r) {
  using vemoproc::Resample;
  const auto add_image = [](Fnv& f, const vemoproc::Image& img) {
    f.u64(uint64_t(img.width) << 32 | uint64_t(img.height));
    f.u64(uint64_t(img.format));
    f.bytes(img.rgb.data(), img.rgb.size());
  };
  std::vector<uint8_t> subsampled;
  const testimg::Pixels p = pattern(97, 61, 3, 40);
  stbi_write_jpg_to_func(
      [](void* out, void* data, int n) {
        auto* v = static_cast<std::vector<uint8_t>*>(out);
        v->insert(v->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + n);
      },
      &subsampled, p.width, p.height, 3, p.data.data(), 75);  // quality below 90: 4:2:0
  std::map<std::string, std::vector<uint8_t>> jpegs = {{"rgb_97x61_420.jpg", subsampled}};
  for (const char* name : {"rgb_64x48.jpg", "grey_45x31.jpg", "odd_17x3.jpg", "rgb_64x48.png"})
    jpegs[name] = testimg::read_bytes(image_paths().at(name));
  for (const auto& [name, bytes] : jpegs)
    r.add("decode." + name, [&](Fnv& f) {
      add_image(f,
                vemoproc::decode_image(bytes.data(), bytes.size(), vemoproc::Decoder::Reference));
    });

  const struct {
    const char* name;
    Resample method;
  } methods[] = {{"opencv", Resample::OpenCVLinear},
                 {"bicubic", Resample::PillowBicubic},
                 {"bilinear", Resample::PillowBilinear}};
  const struct {
    int channels;
    vemoproc::PixelFormat format;
  } layouts[] = {{1, vemoproc::PixelFormat::GRAY},
                 {3, vemoproc::PixelFormat::BGR},
                 {4, vemoproc::PixelFormat::RGBA}};
  const int targets[][2] = {{267, 133}, {1100, 560}, {400, 200}, {800, 133}, {31, 400}};
  for (const auto& l : layouts) {
    const testimg::Pixels src = pattern(800, 400, l.channels, 41);
    const vemoproc::ImageView view{src.data.data(), 800, 400, 0, l.format};
    for (const auto& m : methods)
      for (const auto& t : targets)
        r.add(std::string("resize.") + m.name + ".c" + std::to_string(l.channels) + "." +
                  std::to_string(t[0]) + "x" + std::to_string(t[1]),
              [&](Fnv& f) { add_image(f, vemoproc::resize(view, t[0], t[1], m.method)); });
  }
}

// The committed table, and the updates collected when regenerating.
const char* const kDigestFile = VEMOPROC_DIGESTS_FILE;

// The committed entries whose names start with `prefix`.
Results read_table(const std::string& prefix = "") {
  Results t;
  std::ifstream in(kDigestFile);
  std::string line, name, hex;
  while (std::getline(in, line))
    if (line[0] != '#' && std::istringstream(line) >> name >> hex && name.rfind(prefix, 0) == 0)
      t[name] = std::stoull(hex, nullptr, 16);
  return t;
}

// Replaces the family's entries and keeps the others.
void write_table(const std::string& family, const Results& fresh) {
  Results t = read_table();
  for (auto it = t.begin(); it != t.end();)
    it = it->first.rfind(family + ".", 0) == 0 ? t.erase(it) : std::next(it);
  t.insert(fresh.begin(), fresh.end());
  std::ofstream out(kDigestFile);
  out << "# FNV-1a 64 digests of every deterministic result in "
         "tests/digest_test.cpp,\n"
         "# the same on every architecture. Regenerate with\n"
         "#   VEMOPROC_UPDATE_DIGESTS=1 build/release/tests/digest_test\n";
  char hex[17];
  for (const auto& [name, value] : t)
    std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(value)),
        out << name << ' ' << hex << '\n';
  ASSERT_TRUE(out.good()) << "cannot write " << kDigestFile;
}

// Runs one family with the wide paths on, then off, then on with four
// threads; all must reproduce the committed digests, entry for entry.
void check_family(const std::string& family, void (*run)(Recorder&)) {
  Recorder wide{family, {}}, portable{family, {}}, threaded{family, {}};
  vemoproc::detail::set_wide_paths_enabled(true);
  run(wide);
  vemoproc::detail::set_wide_paths_enabled(false);
  run(portable);
  vemoproc::detail::set_wide_paths_enabled(true);
  vemoproc::set_num_threads(4);
  run(threaded);
  vemoproc::set_num_threads(1);
  EXPECT_EQ(wide.out, portable.out) << "wide and portable paths differ";
  EXPECT_EQ(wide.out, threaded.out) << "one thread and four differ";
  if (updating()) return write_table(family, wide.out);
  const Results want = read_table(family + ".");
  ASSERT_FALSE(want.empty()) << "no " << family << " digests in " << kDigestFile;
  Results names = want;
  names.insert(wide.out.begin(), wide.out.end());
  for (const auto& [name, unused] : names)
    if (!want.count(name) || !wide.out.count(name))
      ADD_FAILURE() << name
                    << (want.count(name) ? " is committed but no longer computed"
                                         : " has no committed digest");
    else
      EXPECT_EQ(want.at(name), wide.out.at(name)) << name << " changed";
}

}  // namespace

TEST(Digests, Images) { check_family("image", image_family); }
TEST(Digests, Yolo) {
  check_family("yolo", yolo_family);
}
TEST(Digests, Vision) { check_family("vision", vision_family); }
TEST(Digests, Dia) { check_family("dia", dia_family); }
TEST(Digests, Streamer) { check_family("streamer", streamer_family); }
TEST(Digests, Reference) {
  check_family("reference", reference_family);
}

namespace {

// The MatchPython forms of the image families, on the same data set.
void match_python_family(Recorder& r) {
  const auto python = vemoproc::Pipeline::MatchPython;
  qwen2vl::Qwen2VLImageProcessor qwen(true, 56 * 56, 28 * 28 * 16, true, 1.0f / 255, true,
                                      qwen2vl::kDefaultImageMean, qwen2vl::kDefaultImageStd, 14, 2,
                                      2);
  const auto add_batch = [](Fnv& f, const yolo::DetectionBatch& b) {
    add_tensor(f, b.tensor);
    for (const yolo::LetterboxInfo& g : b.letterbox) {
      for (int v : {g.original_width, g.original_height, g.new_width, g.new_height, g.left, g.top})
        f.u64(uint64_t(int64_t(v)));
      f.text(std::to_string(g.scale));
    }
  };
  for (const auto& [name, path] : image_paths()) {
    r.add("yolo64x48." + name, [&](Fnv& f) {
      add_batch(f, yolo::preprocess({path}, {64, 48}, python));
    });
    r.add("convnext64." + name, [&](Fnv& f) {
      add_tensor(f, convnext::ConvNextPreprocessor(64, 0.875f).process(path, python));
    });
    r.add("zentil32." + name,
          [&](Fnv& f) { add_tensor(f, zentil::ZentilPreprocessor(32).process(path, python)); });
    r.add("qwen2vl." + name, [&](Fnv& f) {
      const auto out = qwen.preprocess(path, python);
      add_tensor(f, out.patches);
      add_tensor(f, out.grid_thw);
    });
  }
  const vemoproc::Image decoded = testimg::decode(image_paths().at("rgb_29x41.tga"));
  const testimg::Layout bgra = testimg::lay_out(decoded, vemoproc::PixelFormat::BGRA, 5);
  r.add("yolo.view", [&](Fnv& f) {
    add_batch(f, yolo::preprocess_images({bgra.view, decoded.view()}, {33, 65}, python));
  });
  r.add("convnext.bilinear_view", [&](Fnv& f) {
    convnext::ConvNextPreprocessor pre(64, 0.875f);
    pre.resample = vemoproc::Resample::PillowBilinear;
    add_tensor(f, pre.process(bgra.view, python));
  });
  r.add("convnext384.view", [&](Fnv& f) {
    add_tensor(f, convnext::ConvNextPreprocessor(384, 0.875f).process(bgra.view, python));
  });
  r.add("qwen2vl.video", [&](Fnv& f) {
    const auto out = qwen.preprocess_video({bgra.view, decoded.view(), bgra.view}, python);
    add_tensor(f, out.patches);
    add_tensor(f, out.grid_thw);
  });
  r.add("qwen2vl.smart_resize", [&](Fnv& f) {
    for (int hgt : {1, 27, 28, 29, 70, 111, 480, 1080, 1200, 5000})
      for (int wid : {14, 56, 98, 333, 640, 1600, 1920, 40000}) {
        try {
          const auto [nh, nw] =
              qwen2vl::smart_resize_match_python(hgt, wid, 28, 56 * 56, 28 * 28 * 1280);
          f.u64(uint64_t(nh) << 32 | uint64_t(nw));
        } catch (const std::exception& e) {
          f.text(e.what());
        }
      }
  });
  r.add("yolo.box_mapping", [&](Fnv& f) {
    const yolo::LetterboxInfo g = yolo::letterbox_info(1280, 721, {640, 640}, python);
    yolo::PostprocessOptions options;
    options.box_mapping = python;
    add_detections(f, yolo::postprocess(detection_head(500, 5, 640.0f, 11), g, options));
  });
}

}  // namespace

TEST(Digests, MatchPython) {
  check_family("match_python", match_python_family);
}
