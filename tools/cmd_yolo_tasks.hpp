#pragma once
// yolo-postprocess beyond boxes: --task segment|pose|obb|classify, --json,
// --masks-out and the drawing of each task's results.
#include <CLI/CLI.hpp>

#include <string>
#include <vector>

#include <xtensor/xarray.hpp>
#include <xtensor/xtensor.hpp>

#include "yolo.hpp"

namespace yolo_cli {

struct TaskArgs {
  std::string task = "detect";
  std::string protos;
  std::string kpt_shape = "17x3";
  std::string masks_out;
  bool json = false;
  size_t top_k = 5;
};

// What the task needs from the rest of yolo-postprocess.
struct TaskInput {
  xt::xtensor<float, 2> head;  // rows
  yolo::RawImage& image;
  const std::vector<std::string>& names;
  yolo::LetterboxInfo letterbox;
  yolo::PostprocessOptions options;
  bool end2end;
  std::string draw;
  int thickness;
};

void add_task_options(CLI::App& command, TaskArgs& args);

// segment, pose or obb: prints the results (text or JSON), writes masks and
// the drawing when asked.
void run_task(const TaskArgs& args, TaskInput& input);

// classify: the top-k of a [classes] or [1, classes] score vector.
void run_classify(const TaskArgs& args, const xt::xarray<float>& scores,
                  const std::vector<std::string>& names);

// Detections as one JSON array: class, score, box.
void print_json(const std::vector<yolo::Detection>& dets);

}  // namespace yolo_cli
