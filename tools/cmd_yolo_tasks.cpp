// yolo-postprocess for the heads beyond boxes: reading the head and prototypes,
// printing text or JSON, writing masks and drawings.
#include "cmd_yolo_tasks.hpp"

#include <cstdio>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>

#include <xtensor/xview.hpp>

#include "cli_common.hpp"
#include "yolo_tasks.hpp"

namespace yolo_cli {

namespace {

// A float as JSON: enough digits to read back the same float; non-finite as null.
std::string num(float v) {
  if (!std::isfinite(v)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.9g", static_cast<double>(v));
  return buf;
}

std::string box_json(const yolo::Detection& d) {
  return "\"class\": " + std::to_string(d.class_id) + ", \"score\": " + num(d.score) +
         ", \"box\": [" + num(d.x1) + ", " + num(d.y1) + ", " + num(d.x2) + ", " + num(d.y2) + "]";
}

// Prints the items (each a JSON object body) as one array, one item a line.
void print_array(const std::vector<std::string>& items) {
  std::cout << "[";
  for (size_t i = 0; i < items.size(); ++i) {
    std::cout << (i ? ",\n " : "\n ") << "{" << items[i] << "}";
  }
  std::cout << (items.empty() ? "]\n" : "\n]\n");
}

std::string label(int class_id, const std::vector<std::string>& names) {
  return class_id >= 0 && class_id < static_cast<int>(names.size())
             ? names[static_cast<size_t>(class_id)]
             : "cls_" + std::to_string(class_id);
}

std::array<size_t, 2> parse_kpt_shape(const std::string& text) {
  const size_t x = text.find('x');
  try {
    if (x != std::string::npos && x > 0 &&
        text.find_first_not_of("0123456789x") == std::string::npos) {
      const unsigned long k = std::stoul(text.substr(0, x));
      const unsigned long d = std::stoul(text.substr(x + 1));
      if (k >= 1 && k <= 1000 && (d == 2 || d == 3)) return {k, d};
    }
  } catch (const std::exception&) {
  }
  throw std::runtime_error("--kpt-shape: expected KxD with K from 1 to 1000 and D 2 or 3, got \"" +
                           text + "\"");
}

xt::xtensor<float, 3> load_protos(const std::string& path) {
  if (path.empty()) throw std::runtime_error("--task segment needs --protos P.npy");
  xt::xarray<float> p = cli::load_npy_as_float(path);
  if (p.dimension() == 4 && p.shape(0) == 1) p = xt::view(p, 0);
  if (p.dimension() != 3) {
    throw std::runtime_error(path + ": expected prototypes of shape [m, h, w] or [1, m, h, w]");
  }
  return p;
}

void write_mask_png(const xt::xtensor<uint8_t, 2>& mask, const std::string& path) {
  std::vector<uint8_t> grey(mask.size());
  for (size_t i = 0; i < grey.size(); ++i) grey[i] = mask.data()[i] ? 255 : 0;
  cli::write_png(path, grey.data(), static_cast<int>(mask.shape(1)),
                 static_cast<int>(mask.shape(0)), 1);
}

void write_png(const yolo::RawImage& image, const std::string& path) {
  cli::write_png(path, image.data.data(), image.width, image.height, 3);
}

void print_text_box(const yolo::Detection& d, const std::vector<std::string>& names) {
  std::cout << d.class_id << ' ' << label(d.class_id, names) << ' ' << std::fixed
            << std::setprecision(4) << d.score << std::setprecision(1) << ' ' << d.x1 << ' ' << d.y1
            << ' ' << d.x2 << ' ' << d.y2;
}

void run_segment(const TaskArgs& a, TaskInput& in) {
  const xt::xtensor<float, 3> protos = load_protos(a.protos);
  const auto dets = in.end2end ? yolo::segment_end2end(in.head, protos, in.letterbox, in.options)
                               : yolo::segment(in.head, protos, in.letterbox, in.options);
  if (a.json) {
    std::vector<std::string> items;
    for (const auto& d : dets) {
      items.push_back(box_json(d.box) + ", \"mask_area\": " + std::to_string(d.mask.area()));
    }
    print_array(items);
  } else {
    std::cout << dets.size() << " detection(s): class name score x1 y1 x2 y2 mask_area\n";
    for (const auto& d : dets) {
      print_text_box(d.box, in.names);
      std::cout << ' ' << d.mask.area() << '\n';
    }
  }
  if (!a.masks_out.empty()) {
    std::filesystem::create_directories(a.masks_out);
    for (size_t i = 0; i < dets.size(); ++i) {
      char name[32];
      std::snprintf(name, sizeof name, "mask_%03zu.png", i);
      write_mask_png(yolo::full_mask(dets[i].mask, in.image.width, in.image.height),
                     (std::filesystem::path(a.masks_out) / name).string());
    }
    if (!a.json) std::cout << "wrote " << dets.size() << " mask(s) to " << a.masks_out << "\n";
  }
  if (!in.draw.empty()) yolo::draw_masks(in.image, dets, in.names, true, in.thickness);
}

void run_pose(const TaskArgs& a, TaskInput& in) {
  const auto shape = parse_kpt_shape(a.kpt_shape);
  const auto dets = in.end2end
                        ? yolo::postprocess_pose_end2end(in.head, in.letterbox, in.options, shape)
                        : yolo::postprocess_pose(in.head, in.letterbox, in.options, shape);
  if (a.json) {
    std::vector<std::string> items;
    for (const auto& d : dets) {
      std::string points;
      for (const auto& p : d.keypoints) {
        points += (points.empty() ? "[" : ", [") + num(p.x) + ", " + num(p.y) + ", " +
                  num(p.visibility) + "]";
      }
      items.push_back(box_json(d.box) + ", \"keypoints\": [" + points + "]");
    }
    print_array(items);
  } else {
    std::cout << dets.size()
              << " detection(s): class name score x1 y1 x2 y2 then x y v per keypoint\n";
    for (const auto& d : dets) {
      print_text_box(d.box, in.names);
      for (const auto& p : d.keypoints)
        std::cout << ' ' << p.x << ' ' << p.y << ' ' << std::setprecision(2) << p.visibility
                  << std::setprecision(1);
      std::cout << '\n';
    }
  }
  if (!in.draw.empty()) {
    const std::vector<std::pair<int, int>> none;
    yolo::draw_pose(in.image, dets, shape[0] == 17 ? yolo::human_skeleton() : none, 0.5f, 4,
                    in.thickness);
  }
}

void run_obb(const TaskArgs& a, TaskInput& in) {
  const auto dets = in.end2end ? yolo::postprocess_obb_end2end(in.head, in.letterbox, in.options)
                               : yolo::postprocess_obb(in.head, in.letterbox, in.options);
  const int w = in.image.width;
  const int h = in.image.height;
  if (a.json) {
    std::vector<std::string> items;
    for (const auto& d : dets) {
      std::string corners;
      for (const auto& c : d.corners) {
        corners += (corners.empty() ? "[" : ", [") + num(c[0]) + ", " + num(c[1]) + "]";
      }
      items.push_back(box_json(yolo::bounding_box(d, w, h)) + ", \"obb\": [" + num(d.cx) + ", " +
                      num(d.cy) + ", " + num(d.width) + ", " + num(d.height) + ", " + num(d.angle) +
                      "], \"corners\": [" + corners + "]");
    }
    print_array(items);
  } else {
    std::cout << dets.size() << " detection(s): class name score cx cy w h angle\n";
    for (const auto& d : dets) {
      std::cout << d.class_id << ' ' << label(d.class_id, in.names) << ' ' << std::fixed
                << std::setprecision(4) << d.score << std::setprecision(1) << ' ' << d.cx << ' '
                << d.cy << ' ' << d.width << ' ' << d.height << ' ' << std::setprecision(4)
                << d.angle << '\n';
    }
  }
  if (!in.draw.empty()) yolo::draw_oriented(in.image, dets, in.names, true, in.thickness);
}

}  // namespace

void add_task_options(CLI::App& q, TaskArgs& t) {
  q.add_option("--task", t.task, "What the head holds")
      ->check(CLI::IsMember({"detect", "segment", "pose", "obb", "classify"}))
      ->capture_default_str();
  q.add_option("--protos", t.protos, "segment: prototypes .npy, [m, h, w] or [1, m, h, w]");
  q.add_option("--kpt-shape", t.kpt_shape, "pose: keypoints per detection KxD (D 2 or 3)")
      ->capture_default_str();
  q.add_option("--masks-out", t.masks_out,
               "segment: write mask_000.png ... (255 inside, original size) to this directory");
  q.add_flag("--json", t.json, "Print the results as one JSON array");
  q.add_option("--top-k", t.top_k, "classify: how many classes to print")->capture_default_str();
}

void run_task(const TaskArgs& a, TaskInput& in) {
  if (a.task == "segment") run_segment(a, in);
  if (a.task == "pose") run_pose(a, in);
  if (a.task == "obb") run_obb(a, in);
  if (!in.draw.empty()) {
    write_png(in.image, in.draw);
    if (!a.json) std::cout << "wrote " << in.draw << "\n";
  }
}

void run_classify(const TaskArgs& a, const xt::xarray<float>& scores,
                  const std::vector<std::string>& names) {
  if (scores.dimension() < 1 || scores.dimension() > 2 ||
      (scores.dimension() == 2 && scores.shape(0) != 1)) {
    throw std::runtime_error("--task classify expects scores of shape [classes] or [1, classes]");
  }
  const std::vector<float> v(scores.begin(), scores.end());
  const auto top = yolo::classify(v, a.top_k, false);
  if (a.json) {
    std::vector<std::string> items;
    for (const auto& c : top) {
      items.push_back("\"class\": " + std::to_string(c.class_id) + ", \"score\": " + num(c.score));
    }
    print_array(items);
    return;
  }
  std::cout << top.size() << " class(es): class name score\n";
  for (const auto& c : top) {
    std::cout << c.class_id << ' ' << label(c.class_id, names) << ' ' << std::fixed
              << std::setprecision(4) << c.score << '\n';
  }
}

void print_json(const std::vector<yolo::Detection>& dets) {
  std::vector<std::string> items;
  for (const auto& d : dets) items.push_back(box_json(d));
  print_array(items);
}

}  // namespace yolo_cli
