#pragma once
// Token streaming: a generation loop hands each step's new token ids to a
// streamer, which decodes the current segment through the caller's tokenizer
// and writes only the newly final text to the caller's stream.
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
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

namespace vemoproc {

// Thrown by QueueStreamer::next when no piece arrives within its timeout.
class VEMOPROC_API StreamTimeout : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~StreamTimeout() override;
};

// Thrown by QueueStreamer::put once cancel() has been called, so that the
// generation loop driving it stops.
class VEMOPROC_API Cancelled : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
  ~Cancelled() override;
};

}  // namespace vemoproc

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

  // Same rules, but every non-empty piece the stream form would write goes
  // to `sink` instead, in the same order; end() hands over its unwritten
  // rest (if any) and then "\n" as a piece of its own. Flushes have no
  // counterpart: a step that would write nothing calls nothing. An exception
  // from the sink propagates like a failing stream write (in put, after the
  // step's state change; in end, before the new segment starts). An empty
  // sink throws std::bad_function_call at the first piece.
  TextStreamer(Tokenizer& tokenizer, std::function<void(std::string_view)> sink,
               bool skip_prompt = true, bool strip_leading_space = true);
  ~TextStreamer() override;

  void put(const std::vector<int>& tokens) override;
  void end() override;

 private:
  // Writes and flushes (stream form) or hands a non-empty piece to the sink.
  void deliver(const std::string& piece);

  std::ostream* output;  // null in the callback form
  Tokenizer* tokenizer;
  bool next_tokens_are_prompt;
  bool strip_leading_space;
  std::vector<int> token_cache;
  int32_t print_len;
  std::function<void(std::string_view)> sink;  // empty in the stream form
};

// Hands generated text to a consumer on another thread, with TextStreamer's
// hold-back rules (it drives one internally through the callback form).
//
// Generation thread: put() and end() queue the pieces the stream form would
// write (end's "\n" included, empty pieces never), and fail() queues an
// error for the consumer. Consumer thread: next() waits up to `timeout` for
// the next piece. Any thread: cancel().
//
//  - next() returns the queued pieces in order, and an empty optional where
//    end() was called, once every piece before it has been taken: each end()
//    yields exactly one, so a streamer can serve one generation after
//    another. Nothing to take within `timeout` (also after the last end())
//    throws vemoproc::StreamTimeout. A negative timeout does not wait; one
//    beyond a century counts as a century.
//  - fail(error): the consumer's next call of next() rethrows `error`
//    (pieces queued before it stay queued for the calls after that). Hand
//    over the only reference (std::move it, after leaving the catch block):
//    the standard library counts references where ThreadSanitizer cannot
//    see, so one dropped later on the producer thread is reported as a race.
//  - cancel(): every later put throws vemoproc::Cancelled before touching any
//    state; end() and fail() still work, so the producer can close the queue.
//
// The tokenizer must outlive the streamer and is called on the generation
// thread only. put, end and fail come from one thread at a time; next from
// one consumer at a time.
class VEMOPROC_API QueueStreamer : public BaseStreamer {
 public:
  explicit QueueStreamer(Tokenizer& tokenizer, bool skip_prompt = true,
                         bool strip_leading_space = true);
  ~QueueStreamer() override;
  QueueStreamer(const QueueStreamer&) = delete;
  QueueStreamer& operator=(const QueueStreamer&) = delete;

  void put(const std::vector<int>& tokens) override;
  void end() override;
  void fail(std::exception_ptr error);
  void cancel();
  std::optional<std::string> next(std::chrono::milliseconds timeout);

 private:
  struct Channel;  // the queue, its lock and the cancel flag
  std::unique_ptr<Channel> channel;
  TextStreamer text;  // its sink queues into channel
};
