// TextStreamer driven by a fuzzed tokenizer: every id decodes to a fuzzed
// piece of bytes, and some decodes drop bytes so the text shrinks under what
// was already written. Fuzzed steps of puts and ends, fuzzed flags.
#include <sstream>
#include <stdexcept>

#include "fuzz_input.hpp"
#include "streamer.hpp"

namespace {

class FuzzTokenizer : public Tokenizer {
 public:
  std::vector<std::string> pieces;
  size_t shrink_every = 0;
  size_t calls = 0;

  std::string decode(const std::vector<int>& tokens) override {
    std::string text;
    for (int id : tokens) text += pieces[static_cast<unsigned>(id) % pieces.size()];
    if (shrink_every != 0 && ++calls % shrink_every == 0) text.resize(text.size() / 2);
    return text;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  FuzzTokenizer tokenizer;
  for (int i = in.range(1, 8); i > 0; --i) tokenizer.pieces.push_back(in.string(6));
  tokenizer.shrink_every = static_cast<size_t>(in.range(0, 7));
  std::ostringstream out;
  const auto flags = in.take<uint8_t>();
  TextStreamer streamer(tokenizer, out, flags & 1, flags & 2);
  while (in.remaining() > 0) {
    const int op = in.range(0, 7);
    try {
      if (op == 0) {
        streamer.end();
      } else {
        std::vector<int> tokens(static_cast<size_t>(op - 1));
        for (int& t : tokens) t = in.take<int>();
        streamer.put(tokens);
      }
    } catch (const std::out_of_range&) {
    }
  }
  return 0;
}
