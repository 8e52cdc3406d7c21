// `vemoproc stream`: token ids from a file or standard input, one generation
// step per line, streamed as text to standard output through a byte-level
// tokenizer, so the streamer's hold-back rules can be watched on real UTF-8.
#include <charconv>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

#include "cli_common.hpp"
#include "streamer.hpp"

namespace {

const char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

// Bytes as UTF-8, each ill-formed or cut-short sequence replaced by one U+FFFD
// (its longest valid prefix, or one stray byte), as a real tokenizer's decode
// does. A character split across steps therefore ends the text in U+FFFD until
// its last byte arrives.
std::string to_valid_utf8(const std::string& in) {
  std::string out;
  size_t i = 0;
  while (i < in.size()) {
    const auto lead = static_cast<unsigned char>(in[i]);
    if (lead < 0x80) {
      out += in[i++];
      continue;
    }
    size_t tail = 0;  // continuation bytes the lead byte asks for
    unsigned char lo = 0x80;
    unsigned char hi = 0xBF;  // allowed range of the first continuation byte
    if (lead >= 0xC2 && lead <= 0xDF) {
      tail = 1;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      tail = 2;
      if (lead == 0xE0) lo = 0xA0;  // no overlong forms
      if (lead == 0xED) hi = 0x9F;  // no surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      tail = 3;
      if (lead == 0xF0) lo = 0x90;
      if (lead == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
    }
    size_t n = 1;
    while (n <= tail && i + n < in.size()) {
      const auto c = static_cast<unsigned char>(in[i + n]);
      if (c < (n == 1 ? lo : 0x80) || c > (n == 1 ? hi : 0xBF)) break;
      ++n;
    }
    if (tail != 0 && n == tail + 1) {
      out.append(in, i, n);
    } else {
      out += kReplacement;
    }
    i += n;
  }
  return out;
}

// id = byte value; the ids are checked to be bytes when they are read.
class ByteTokenizer : public Tokenizer {
 public:
  std::string decode(const std::vector<int>& tokens) override {
    std::string bytes;
    bytes.reserve(tokens.size());
    for (const int id : tokens) bytes += static_cast<char>(static_cast<unsigned char>(id));
    return to_valid_utf8(bytes);
  }
};

// Forwards everything to `target` and writes `marker` there at every flush,
// so the moments the streamer flushes can be seen in the output.
class FlushMarkingBuf : public std::streambuf {
 public:
  FlushMarkingBuf(std::streambuf& target, std::string marker)
      : target_(target), marker_(std::move(marker)) {}

 protected:
  int_type overflow(int_type c) override {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    return target_.sputc(traits_type::to_char_type(c));
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override { return target_.sputn(s, n); }
  int sync() override {
    target_.sputn(marker_.data(), static_cast<std::streamsize>(marker_.size()));
    return target_.pubsync();
  }

 private:
  std::streambuf& target_;
  std::string marker_;
};

// The ids of one line; anything but whole numbers 0 to 255 is an error.
std::vector<int> parse_step(const std::string& line, size_t line_no) {
  std::istringstream words(line);
  std::vector<int> ids;
  std::string word;
  while (words >> word) {
    int id = -1;
    const char* last = word.data() + word.size();
    const auto [end, ec] = std::from_chars(word.data(), last, id);
    if (ec != std::errc() || end != last || id < 0 || id > 255) {
      throw std::runtime_error("stream: line " + std::to_string(line_no) + ": '" + word +
                               "' is not a byte value (0 to 255)");
    }
    ids.push_back(id);
  }
  return ids;
}

struct StreamOptions {
  std::string input = "-";
  bool show_prompt = false;
  bool keep_leading_space = false;
  std::string flush_marker;
};

// Every put decodes its whole segment again (the streamer's rule), so a
// segment fed one id per line costs the square of its length. The tool stops
// a segment once its puts have decoded this many ids in all (about a tenth of
// a second of decoding; 16384 one-id steps reach it).
constexpr size_t kMaxSegmentDecodeIds = size_t{1} << 27;

// One put per line with ids; a line without ids ends the generation (further
// empty lines are ignored), as does the end of the input.
void stream_steps(std::istream& in, TextStreamer& streamer) {
  bool generating = false;
  std::string line;
  size_t line_no = 0;
  size_t segment_ids = 0;  // ids since the segment began (a put ending in a line feed)
  size_t decoded_ids = 0;  // ids the segment's puts have decoded so far
  while (std::getline(in, line)) {
    const std::vector<int> ids = parse_step(line, ++line_no);
    if (!ids.empty()) {
      segment_ids += ids.size();
      decoded_ids += segment_ids;
      if (decoded_ids > kMaxSegmentDecodeIds) {
        throw std::runtime_error("stream: line " + std::to_string(line_no) +
                                 ": the text since the last line feed has been decoded " +
                                 std::to_string(kMaxSegmentDecodeIds) +
                                 " ids over again; give longer steps or line feeds");
      }
      streamer.put(ids);
      generating = true;
      if (ids.back() == '\n') segment_ids = decoded_ids = 0;
    } else if (generating) {
      streamer.end();
      generating = false;
      segment_ids = decoded_ids = 0;
    }
  }
  if (generating) streamer.end();
}

void run_stream(const StreamOptions& opt) {
  std::ifstream file;
  if (opt.input != "-") {
    cli::require_file(opt.input);
    file.open(opt.input, std::ios::binary);
  }
  std::istream& in = opt.input == "-" ? std::cin : file;

  FlushMarkingBuf marking(*std::cout.rdbuf(), opt.flush_marker);
  std::ostream marked(&marking);
  std::ostream& out = opt.flush_marker.empty() ? std::cout : marked;

  ByteTokenizer tokenizer;
  TextStreamer streamer(tokenizer, out, !opt.show_prompt, !opt.keep_leading_space);
  stream_steps(in, streamer);
  if (in.bad()) {
    throw std::runtime_error("stream: cannot read " +
                             (opt.input == "-" ? std::string("standard input") : opt.input));
  }
}

}  // namespace

void add_stream_command(CLI::App& app) {
  auto opt = std::make_shared<StreamOptions>();
  auto* cmd = app.add_subcommand(
      "stream",
      "Stream token ids as text: one generation step per line (whitespace-separated byte "
      "values 0-255, decoded as UTF-8), an empty line ends the generation. As in a "
      "generation loop, the first line of each generation is its prompt and is not "
      "printed.");
  cmd->add_option("input", opt->input, "File of token ids, or - for standard input")
      ->default_val("-");
  cmd->add_flag("--show-prompt", opt->show_prompt,
                "Print the first generation's first line (later generations still skip theirs)");
  cmd->add_flag("--keep-leading-space", opt->keep_leading_space,
                "Do not strip leading whitespace before the first line end");
  cmd->add_option("--flush-marker", opt->flush_marker,
                  "Write this text after every flush of the stream, e.g. '|'");
  cmd->callback([opt] { run_stream(*opt); });
}
