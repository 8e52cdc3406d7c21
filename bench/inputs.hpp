#pragma once
// Inputs the benchmarks share: a photo-like 1080p frame (raw and as a JPEG
// file) and a realistic [8400, 84] detection head.
#include <filesystem>
#include <random>
#include <string>

#include <xtensor/xbuilder.hpp>
#include <xtensor/xtensor.hpp>

#include "stb_image_write.h"
#include "yolo.hpp"

namespace benchinputs {

// A 1920x1080 photo-like frame: smooth gradients with some texture.
inline yolo::RawImage frame_1080p() {
  yolo::RawImage im;
  im.width = 1920;
  im.height = 1080;
  im.channels = 3;
  im.data.resize(1920u * 1080u * 3u);
  std::mt19937 rng(1);
  for (int y = 0; y < 1080; ++y)
    for (int x = 0; x < 1920; ++x)
      for (int c = 0; c < 3; ++c)
        im.data[(static_cast<size_t>(y) * 1920 + x) * 3 + c] =
            static_cast<uint8_t>((x / 8 + y / 5 + 60 * c + (rng() & 15)) & 255);
  return im;
}

// The frame as a quality-90 JPEG in the temporary folder, written once.
inline const std::string& jpeg_1080p() {
  static const std::string path = [] {
    const auto p = (std::filesystem::temp_directory_path() / "vemoproc-bench-1080p.jpg").string();
    const auto im = frame_1080p();
    stbi_write_jpg(p.c_str(), im.width, im.height, 3, im.data.data(), 90);
    return p;
  }();
  return path;
}

// [8400, 84] head: most candidates score below 0.25; ~300 rows in clusters of
// 15 around 20 objects score above it.
inline xt::xtensor<float, 2> realistic_head() {
  xt::xtensor<float, 2> head = xt::zeros<float>({8400, 84});
  std::mt19937 rng(3);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::normal_distribution<float> jitter(0.0f, 4.0f);
  for (size_t i = 0; i < 8400; ++i) {
    head(i, 0) = 640 * u(rng);
    head(i, 1) = 640 * u(rng);
    head(i, 2) = 8 + 120 * u(rng);
    head(i, 3) = 8 + 120 * u(rng);
    for (size_t c = 4; c < 84; ++c) head(i, c) = 0.1f * u(rng) * u(rng);
  }
  for (size_t obj = 0; obj < 20; ++obj) {
    const float cx = 40 + 560 * u(rng), cy = 40 + 560 * u(rng), w = 30 + 150 * u(rng),
                h = 30 + 150 * u(rng);
    const size_t cls = 4 + static_cast<size_t>(80 * u(rng)) % 80;
    for (size_t k = 0; k < 15; ++k) {
      const size_t i = 400 * obj + 7 * k;
      head(i, 0) = cx + jitter(rng);
      head(i, 1) = cy + jitter(rng);
      head(i, 2) = w + jitter(rng);
      head(i, 3) = h + jitter(rng);
      head(i, cls) = 0.3f + 0.65f * u(rng);
    }
  }
  return head;
}

}  // namespace benchinputs
