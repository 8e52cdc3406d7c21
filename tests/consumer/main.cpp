// A program outside the tree using the installed library: writes a PNG with
// the exported stb writer, then runs it through each family.
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "stb_image_write.h"
#include "convnext.hpp"
#include "dia.hpp"
#include "qwen2vl.hpp"
#include "streamer.hpp"
#include "yolo.hpp"
#include "zentil.hpp"

// A tokenizer defined outside the library: id = byte value.
struct ByteTokenizer : Tokenizer {
  std::string decode(const std::vector<int>& ids) override { return {ids.begin(), ids.end()}; }
};

int main() {
  const std::string path = "consumer-input.png";
  std::vector<unsigned char> pixels(32 * 16 * 3, 200);
  if (!stbi_write_png(path.c_str(), 32, 16, 3, pixels.data(), 32 * 3)) return 1;

  const auto batch = yolo::preprocess({path}, {64, 64});
  if (batch.shape(2) != 64 || batch(0, 0, 32, 32) != 200 / 255.0f) return 2;

  xt::xtensor<float, 2> head = {{32, 32, 10, 10, 0.9f, 0.1f}};
  const auto dets = yolo::postprocess(head, {64, 64}, {16, 32}, 0.25f, 0.45f, 10);
  if (dets.size() != 1 || dets[0].class_id != 0) return 3;

  ByteTokenizer tokenizer;
  std::ostringstream streamed;
  TextStreamer streamer(tokenizer, streamed, false);
  streamer.put({'H', 'i', ','});
  streamer.put({' ', 'y', 'o'});
  streamer.end();
  if (streamed.str() != "Hi, yo\n") return 4;

  dia::DiaPreprocessor dp;
  if (dp.prepareTextInput("[S1]a", 0, 3) != xt::xarray<uint8_t>{{1, 'a', 0}}) return 5;

  if (qwen2vl::smart_resize(224, 224, 28, 3136, 1003520).first != 224 ||
      qwen2vl::kDefaultImageStd.size() != 3 ||
      zentil::ZentilPreprocessor(8).process(path).size() != 192)
    return 6;

  std::remove(path.c_str());
  std::puts("consumer: ok");
  return 0;
}
