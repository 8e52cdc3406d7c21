// vemoproc.convnext, vemoproc.zentil and vemoproc.qwen2vl: vision-model inputs.
#include <string>
#include <utility>
#include <vector>

#include <xtensor/xadapt.hpp>

#include "common.hpp"
#include "convnext.hpp"
#include "qwen2vl.hpp"
#include "zentil.hpp"

namespace vemoproc_py {

namespace {

// process(x) for a preprocessor with path and view overloads. The call works
// on a copy of the settings: other threads may change them meanwhile.
template <class Preprocessor>
py::array_t<float> process(Preprocessor& self, py::handle x, vemoproc::Pipeline pipeline) {
  ImageArg arg = image_arg(x, "x", decoder_for(pipeline));
  Preprocessor pre = self;
  xt::xarray<float> out = released([&] {
    return arg.is_path ? pre.process(arg.path, pipeline) : pre.process(arg.view, pipeline);
  });
  return to_numpy(std::move(out));
}

constexpr const char* kPipelineDoc =
    "\n\npipeline=Pipeline.MatchPython gives the Hugging Face processor's tensor bit for bit "
    "(paths and bytes decoded as Pillow does, EXIF applied; Pillow resampling).";

constexpr const char* kImageArgDoc =
    "x: a path (str or os.PathLike), encoded image bytes, or a uint8 array of shape HxWx3 "
    "(RGB), HxWx4 (RGBA) or HxW (grey). Arrays whose rows are packed pixels at a positive "
    "stride (e.g. a crop of a larger array) are read in place.";

py::tuple qwen_output(qwen2vl::Qwen2VLImageOutput&& out) {
  return py::make_tuple(to_numpy(std::move(out.patches)), to_numpy(std::move(out.grid_thw)));
}

// The Python processor's types: image_grid_thw is int64 there.
py::tuple qwen_output(qwen2vl::Qwen2VLImageOutput&& out, vemoproc::Pipeline pipeline) {
  if (pipeline == vemoproc::Pipeline::Native) return qwen_output(std::move(out));
  py::array_t<int64_t> grid = to_numpy(std::move(out.grid_thw)).attr("astype")("int64");
  return py::make_tuple(to_numpy(std::move(out.patches)), grid);
}

}  // namespace

void bind_vision(py::module_& parent) {
  py::module_ cn = parent.def_submodule(
      "convnext", "ConvNeXt classifier input: shortest-edge resize, centre crop, normalise.");
  py::class_<convnext::ConvNextPreprocessor>(cn, "ConvNextPreprocessor")
      .def(py::init<int, float>(), py::arg("size") = 224, py::arg("crop_pct") = 0.875f,
           "Store the crop side and fraction (validated when processing).")
      .def_readwrite("size", &convnext::ConvNextPreprocessor::size)
      .def_readwrite("crop_pct", &convnext::ConvNextPreprocessor::crop_pct)
      .def_readwrite("mean", &convnext::ConvNextPreprocessor::mean, "R, G, B means")
      .def_readwrite("std", &convnext::ConvNextPreprocessor::std, "R, G, B deviations")
      .def_readwrite("resample", &convnext::ConvNextPreprocessor::resample,
                     "MatchPython's filter: Resample.PillowBicubic (default) or PillowBilinear")
      .def("process", &process<convnext::ConvNextPreprocessor>, py::arg("x"), py::kw_only(),
           py::arg("pipeline") = vemoproc::Pipeline::Native,
           (std::string(R"(Classifier input of one image: float32 [3, size, size].

Scales the shortest edge to int(size / crop_pct) (Catmull-Rom), cuts the
centred size x size square and normalises ((byte / 255) - mean[c]) / std[c].
)") + kImageArgDoc +
            kPipelineDoc +
            "\n\nRaises RuntimeError for a file that cannot be decoded, bad size or crop_pct.")
               .c_str());

  py::module_ ze = parent.def_submodule(
      "zentil", "Zentil vision-encoder input: stretch to a square, normalise to [-1, 1].");
  py::class_<zentil::ZentilPreprocessor>(ze, "ZentilPreprocessor")
      .def(py::init<int>(), py::arg("size") = 224, "Store the output side.")
      .def_readwrite("size", &zentil::ZentilPreprocessor::size)
      .def_readwrite("mean", &zentil::ZentilPreprocessor::mean, "0.5 on every channel")
      .def_readwrite("std", &zentil::ZentilPreprocessor::std, "0.5 on every channel")
      .def("process", &process<zentil::ZentilPreprocessor>, py::arg("x"), py::kw_only(),
           py::arg("pipeline") = vemoproc::Pipeline::Native,
           (std::string(R"(Encoder input of one image: float32 [1, 3, size, size].

Stretches the whole image to size x size (Catmull-Rom, aspect ratio not kept)
and maps each byte to (byte / 255 - 0.5) / 0.5.
)") + kImageArgDoc +
            kPipelineDoc +
            "\n\nRaises RuntimeError for a file that cannot be decoded or a bad size.")
               .c_str());

  py::module_ qw = parent.def_submodule(
      "qwen2vl", "Qwen2-VL image input: patch-aligned resize, merge-ordered patch rows.");
  qw.attr("DEFAULT_IMAGE_MEAN") = py::tuple(py::cast(qwen2vl::kDefaultImageMean));
  qw.attr("DEFAULT_IMAGE_STD") = py::tuple(py::cast(qwen2vl::kDefaultImageStd));
  qw.def("smart_resize", &qwen2vl::smart_resize, py::arg("height"), py::arg("width"),
         py::arg("factor") = 28, py::arg("min_pixels") = 56 * 56,
         py::arg("max_pixels") = 14 * 14 * 4 * 1280,
         R"(Target (height, width): each side rounded to a multiple of factor, then
scaled into [min_pixels, max_pixels] keeping the aspect ratio.

Raises RuntimeError "Absolute aspect ratio must be smaller than 200", or naming
factor when it is 0.)");
  qw.def("smart_resize_match_python", &qwen2vl::smart_resize_match_python, py::arg("height"),
         py::arg("width"), py::arg("factor") = 28, py::arg("min_pixels") = 56 * 56,
         py::arg("max_pixels") = 14 * 14 * 4 * 1280,
         R"(The Hugging Face processor's size rule, in double precision: sides rounded
to multiples of factor (halves to even), then the original sides scaled into
[min_pixels, max_pixels]. 1600x1200 -> (840, 1148).

Raises RuntimeError for a side below factor, an aspect ratio above 200, or a
non-positive factor or max_pixels.)");
  qw.def(
      "resize_image",
      [](py::array image, int new_height, int new_width) {
        xt::xtensor<uint8_t, 3> in = to_xtensor<uint8_t, 3>(image, "image");
        if (in.shape(2) != 3) throw py::value_error("image: expected an HxWx3 array");
        xt::xtensor<uint8_t, 3> out =
            released([&] { return qwen2vl::resize_image(in, new_height, new_width); });
        return to_numpy(std::move(out));
      },
      py::arg("image"), py::arg("new_height"), py::arg("new_width"),
      "Resample a uint8 HxWx3 RGB image to [new_height, new_width, 3] with Catmull-Rom.");

  qw.def("sample_frame_indices", &qwen2vl::sample_frame_indices, py::arg("total_frames"),
         py::arg("video_fps"), py::arg("target_fps"), py::arg("min_frames"), py::arg("max_frames"),
         py::arg("temporal_patch_size") = 2,
         R"(Indices of the decoded frames to pass to preprocess_video: about
total_frames / video_fps * target_fps of them, clamped to
[min_frames, min(max_frames, total_frames)], whole temporal groups, evenly
spaced from 0.

Raises RuntimeError naming the argument for non-positive counts or rates.)");

  py::class_<qwen2vl::Qwen2VLImageProcessor>(qw, "Qwen2VLImageProcessor")
      .def(py::init<bool, long long, long long, bool, float, bool, std::vector<float>,
                    std::vector<float>, size_t, size_t, size_t>(),
           py::arg("do_resize") = true, py::arg("min_pixels") = 56 * 56,
           py::arg("max_pixels") = 28 * 28 * 1280, py::arg("do_rescale") = true,
           py::arg_v("rescale_factor", 1.0f / 255.0f, "1 / 255"), py::arg("do_normalize") = true,
           py::arg("image_mean") = qwen2vl::kDefaultImageMean,
           py::arg("image_std") = qwen2vl::kDefaultImageStd, py::arg("patch_size") = 14,
           py::arg("temporal_patch_size") = 2, py::arg("merge_size") = 2,
           "Store the settings (validated when processing).")
      .def_readwrite("do_resize", &qwen2vl::Qwen2VLImageProcessor::do_resize)
      .def_readwrite("min_pixels", &qwen2vl::Qwen2VLImageProcessor::min_pixels)
      .def_readwrite("max_pixels", &qwen2vl::Qwen2VLImageProcessor::max_pixels)
      .def_readwrite("do_rescale", &qwen2vl::Qwen2VLImageProcessor::do_rescale)
      .def_readwrite("rescale_factor", &qwen2vl::Qwen2VLImageProcessor::rescale_factor)
      .def_readwrite("do_normalize", &qwen2vl::Qwen2VLImageProcessor::do_normalize)
      .def_readwrite("patch_size", &qwen2vl::Qwen2VLImageProcessor::patch_size)
      .def_readwrite("temporal_patch_size", &qwen2vl::Qwen2VLImageProcessor::temporal_patch_size)
      .def_readwrite("merge_size", &qwen2vl::Qwen2VLImageProcessor::merge_size)
      .def(
          "preprocess",
          [](qwen2vl::Qwen2VLImageProcessor& self, py::handle x, vemoproc::Pipeline pipeline) {
            qwen2vl::Qwen2VLImageOutput out;
            if (is_path_like(x)) {
              std::string path = path_string(x);
              qwen2vl::Qwen2VLImageProcessor p = self;  // settings other threads may change
              out = released([&] { return p.preprocess(path, pipeline); });
            } else {
              // One image or a list of them, each an array or encoded bytes.
              py::object list = py::reinterpret_borrow<py::object>(x);
              if (py::isinstance<py::array>(x) || is_bytes_like(x)) list = py::make_tuple(x);
              ImageBatch batch = image_batch(list, "images", decoder_for(pipeline));
              qwen2vl::Qwen2VLImageProcessor p = self;
              out = released([&] { return p.preprocess(batch.views, pipeline); });
            }
            return qwen_output(std::move(out), pipeline);
          },
          py::arg("x"), py::kw_only(), py::arg("pipeline") = vemoproc::Pipeline::Native,
          R"(Patch rows and grid of a path, or of a list of images.

x: a path (str or os.PathLike), or a list of uint8 arrays (HxWx3, HxWx4 or
HxW, read in place when rows are packed) or encoded bytes; one array alone
also works. Returns (patches, grid_thw): float32
[patches, 3 * temporal_patch_size * patch_size**2] rows stacked in input order
and uint64 [images, 3] rows of (grid_t, grid_h, grid_w).

pipeline=Pipeline.MatchPython gives the Hugging Face processor's pixel_values
and image_grid_thw (int64) bit for bit (decoding as Pillow does).

Raises RuntimeError for a file that cannot be decoded or invalid settings,
ValueError when the patch matrix would not fit in memory.)")
      .def(
          "preprocess_video",
          [](qwen2vl::Qwen2VLImageProcessor& self, py::handle frames, vemoproc::Pipeline pipeline) {
            ImageBatch batch = image_batch(frames, "frames", decoder_for(pipeline));
            qwen2vl::Qwen2VLImageProcessor p = self;  // settings other threads may change
            qwen2vl::Qwen2VLImageOutput out =
                released([&] { return p.preprocess_video(batch.views, pipeline); });
            return qwen_output(std::move(out), pipeline);
          },
          py::arg("frames"), py::kw_only(), py::arg("pipeline") = vemoproc::Pipeline::Native,
          R"(Patch rows and grid of one video.

frames: a list of same-size uint8 arrays (HxWx3, HxWx4 or HxW) or encoded
bytes, in time order. Each frame is resized as a still image of its size; the
count is padded with the last frame to whole temporal groups. Returns
(patches, grid_thw) with grid_thw [[groups, grid_h, grid_w]].

Raises RuntimeError for no frames, frames of different sizes or invalid
settings.)")
      .def_property(
          "image_mean",
          [](const qwen2vl::Qwen2VLImageProcessor& s) {
            return std::vector<float>(s.image_mean.begin(), s.image_mean.end());
          },
          [](qwen2vl::Qwen2VLImageProcessor& s, const std::vector<float>& v) {
            s.image_mean = xt::adapt(v, {v.size()});
          })
      .def_property(
          "image_std",
          [](const qwen2vl::Qwen2VLImageProcessor& s) {
            return std::vector<float>(s.image_std.begin(), s.image_std.end());
          },
          [](qwen2vl::Qwen2VLImageProcessor& s, const std::vector<float>& v) {
            s.image_std = xt::adapt(v, {v.size()});
          });
}

}  // namespace vemoproc_py
