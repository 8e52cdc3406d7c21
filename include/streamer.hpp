#pragma once
// Token streaming: a generation loop hands each step's new token ids to a
// streamer, which decodes the current segment through the caller's tokenizer
// and writes only the newly final text to the caller's stream.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "vemoproc_export.hpp"

// The caller's tokenizer: turns token ids into UTF-8 text. Derive from it in
// your own program; the streamer calls nothing but decode.
class VEMOPROC_API Tokenizer {
 public:
  virtual ~Tokenizer() = default;
  virtual std::string decode(const std::vector<int>& tokens) = 0;
};

// A receiver of generated tokens: put once per generation step, end once when
// generation stops.
class VEMOPROC_API BaseStreamer {
 public:
  virtual ~BaseStreamer();
  virtual void put(const std::vector<int>& tokens) = 0;
  virtual void end() = 0;
};

// Writes generated text to `output` as it becomes final.
//
// Every put appends the ids to the segment's cache, decodes the whole cache
// (leading whitespace removed while strip_leading_space is set: space, \t, \n,
// \v, \f, \r; bytes 0x80 and above never count) and then:
//  - decoded text empty: nothing is written and nothing is flushed;
//  - ends in a line feed: the unwritten rest, line feed included, is written
//    and a new segment starts (empty cache, leading whitespace kept from now on);
//  - ends in one of , . : ; ? or in the UTF-8 replacement character
//    EF BF BD (an incomplete multi-byte character, texts of 3+ bytes only):
//    the text is held back until a later step ends otherwise;
//  - otherwise the unwritten rest is written.
// Each of the last three cases then flushes the stream, also when nothing was
// written. end() writes the unwritten rest and a line feed, flushes, and
// starts a new segment whose first put (the next prompt) is dropped unwritten
// and unflushed; leading whitespace is stripped again until the next line end.
//
// Failures: when the tokenizer decodes a longer cache to a text shorter than
// what was already written, std::out_of_range (from std::string::substr)
// propagates and the streamer stays as it was before the failing step (the
// cache keeps the ids just appended). A decoded segment longer than INT_MAX
// bytes cannot be counted in the 32-bit written-length and throws
// std::runtime_error "TextStreamer: decoded segment longer than INT_MAX bytes",
// also with the state unchanged. Errors of the tokenizer and of the stream
// propagate; a stream in a failed state is not checked.
//
// The tokenizer and the stream are not owned and must outlive the streamer.
// One generation loop drives a streamer at a time; there is no lock.
class VEMOPROC_API TextStreamer : public BaseStreamer {
 public:
  // skip_prompt: whether the first put is the prompt (dropped unwritten).
  TextStreamer(Tokenizer& tokenizer, std::ostream& output, bool skip_prompt = true,
               bool strip_leading_space = true);
  ~TextStreamer() override;

  void put(const std::vector<int>& tokens) override;
  void end() override;

 private:
  std::ostream* output;
  Tokenizer* tokenizer;
  bool next_tokens_are_prompt;
  bool strip_leading_space;
  std::vector<int> token_cache;
  int32_t print_len;
};
