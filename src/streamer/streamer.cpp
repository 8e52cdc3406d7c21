// Token streaming, top to bottom: decode the segment, strip leading
// whitespace, decide how much of it is final, deliver that (write and flush,
// or hand it to a callback); then the queue that carries the callback's
// pieces to a consumer thread.
#include "streamer.hpp"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <limits>
#include <mutex>
#include <ostream>
#include <set>
#include <stdexcept>
#include <utility>

namespace {

// Whitespace as the "C" locale classifies it, matched byte by byte so that
// neither the host program's global locale nor a negative char can change it;
// bytes 0x80 and above never match. All-whitespace text becomes empty.
void strip_leading_whitespace(std::string& text) {
  text.erase(0, text.find_first_not_of(" \t\n\v\f\r"));
}

// A decode of an incomplete multi-byte character ends in U+FFFD (EF BF BD);
// texts shorter than that encoding are never taken for one.
bool ends_with_replacement_character(const std::string& text) {
  const std::size_t n = text.size();
  return n >= 3 && text[n - 3] == '\xEF' && text[n - 2] == '\xBF' && text[n - 1] == '\xBD';
}

// The written-length counter is 32-bit; a longer segment cannot be tracked.
int32_t checked_print_len(std::size_t length) {
  if (length > static_cast<std::size_t>(std::numeric_limits<int32_t>::max())) {
    throw std::runtime_error("TextStreamer: decoded segment longer than INT_MAX bytes");
  }
  return static_cast<int32_t>(length);
}

// The whole segment's text, leading whitespace removed when asked.
std::string decode_segment(Tokenizer& tokenizer, const std::vector<int>& cache, bool strip) {
  std::string text = tokenizer.decode(cache);
  if (strip) strip_leading_whitespace(text);
  return text;
}

// Throws std::out_of_range when the text has become shorter than what was
// already written; callers change nothing before this succeeds.
std::string unwritten_rest(const std::string& text, int32_t print_len) {
  return text.substr(static_cast<std::size_t>(print_len));
}

// Unformatted: exactly the bytes, whatever width or fill the stream has set.
void write_piece(std::ostream& output, const std::string& piece) {
  output.write(piece.data(), static_cast<std::streamsize>(piece.size()));
}

}  // namespace

// Out of line so that the vtable and type information have one home, in the
// library.
BaseStreamer::~BaseStreamer() = default;

TextStreamer::TextStreamer(Tokenizer& tokenizer, std::ostream& output, bool skip_prompt,
                           bool strip_leading_space)
    : output(&output),
      tokenizer(&tokenizer),
      next_tokens_are_prompt(skip_prompt),
      strip_leading_space(strip_leading_space),
      print_len(0) {}

TextStreamer::TextStreamer(Tokenizer& tokenizer, std::function<void(std::string_view)> sink,
                           bool skip_prompt, bool strip_leading_space)
    : output(nullptr),
      tokenizer(&tokenizer),
      next_tokens_are_prompt(skip_prompt),
      strip_leading_space(strip_leading_space),
      print_len(0),
      sink(std::move(sink)) {}

TextStreamer::~TextStreamer() = default;

void TextStreamer::deliver(const std::string& piece) {
  if (output != nullptr) {
    write_piece(*output, piece);
    output->flush();
  } else if (!piece.empty()) {
    sink(piece);
  }
}

void TextStreamer::put(const std::vector<int>& tokens) {
  if (next_tokens_are_prompt) {
    next_tokens_are_prompt = false;
    return;
  }
  // Text ending in one of these may still be followed by more of its phrase;
  // built once, thread-safe under concurrent first use, read-only afterwards.
  static const std::set<char> hold_back{',', '.', ':', ';', '?'};

  token_cache.insert(token_cache.end(), tokens.begin(), tokens.end());
  const std::string text = decode_segment(*tokenizer, token_cache, strip_leading_space);
  if (text.empty()) return;

  const char last = text.back();
  std::string piece;
  if (last == '\n') {
    // A line end is final: write the rest and start a new segment.
    piece = unwritten_rest(text, print_len);
    strip_leading_space = false;
    token_cache.clear();
    print_len = 0;
  } else if (hold_back.count(last) != 0 || ends_with_replacement_character(text)) {
    // Held back: print_len stays, so a later step writes this text.
  } else {
    const int32_t new_len = checked_print_len(text.size());
    piece = unwritten_rest(text, print_len);
    print_len = new_len;
  }
  deliver(piece);
}

void TextStreamer::end() {
  const std::string piece =
      unwritten_rest(decode_segment(*tokenizer, token_cache, strip_leading_space), print_len);
  if (output != nullptr) {
    write_piece(*output, piece);
    *output << std::endl;  // the stream's widened line feed, then a flush
  } else {
    if (!piece.empty()) sink(piece);
    sink("\n");
  }
  next_tokens_are_prompt = true;
  strip_leading_space = true;
  token_cache.clear();
  print_len = 0;
}

// ---------------------------------------------------------------------------
// Queue to a consumer thread
// ---------------------------------------------------------------------------

// Out of line so that the exception types' type information has one home, in
// the library, and catch clauses in the caller's program match them.
vemoproc::StreamTimeout::~StreamTimeout() = default;
vemoproc::Cancelled::~Cancelled() = default;

struct QueueStreamer::Channel {
  std::mutex mutex;
  std::condition_variable ready;
  // Pieces in order; an empty optional marks where end() was called.
  std::deque<std::optional<std::string>> items;
  std::exception_ptr error;
  std::atomic<bool> cancelled{false};

  void push(std::optional<std::string> item) {
    {
      const std::lock_guard<std::mutex> lock(mutex);
      items.push_back(std::move(item));
    }
    ready.notify_one();
  }
};

QueueStreamer::QueueStreamer(Tokenizer& tokenizer, bool skip_prompt, bool strip_leading_space)
    : channel(std::make_unique<Channel>()),
      text(
          tokenizer,
          [queue = channel.get()](std::string_view piece) { queue->push(std::string(piece)); },
          skip_prompt, strip_leading_space) {}

QueueStreamer::~QueueStreamer() = default;

void QueueStreamer::put(const std::vector<int>& tokens) {
  if (channel->cancelled.load()) {
    throw vemoproc::Cancelled("QueueStreamer::put(): generation cancelled");
  }
  text.put(tokens);
}

void QueueStreamer::end() {
  text.end();
  channel->push(std::nullopt);
}

void QueueStreamer::fail(std::exception_ptr error) {
  {
    const std::lock_guard<std::mutex> lock(channel->mutex);
    channel->error = std::move(error);
  }
  channel->ready.notify_one();
}

void QueueStreamer::cancel() { channel->cancelled.store(true); }

std::optional<std::string> QueueStreamer::next(std::chrono::milliseconds timeout) {
  // The wait adds the timeout, in nanoseconds, to the steady clock's time:
  // held to [0, a century] so that neither extreme overflows (a negative
  // timeout does not wait; milliseconds::max() waits "for ever").
  constexpr std::chrono::milliseconds kCentury = std::chrono::hours(24 * 365 * 100);
  Channel& c = *channel;
  std::unique_lock<std::mutex> lock(c.mutex);
  const bool arrived =
      c.ready.wait_for(lock, std::clamp(timeout, std::chrono::milliseconds(0), kCentury),
                       [&c] { return c.error != nullptr || !c.items.empty(); });
  if (!arrived) {
    throw vemoproc::StreamTimeout("QueueStreamer::next(): nothing arrived within " +
                                  std::to_string(timeout.count()) + " ms");
  }
  if (c.error != nullptr) {
    // Handed over once; the lock is released as the exception leaves.
    std::exception_ptr error = std::exchange(c.error, nullptr);
    std::rethrow_exception(error);
  }
  std::optional<std::string> item = std::move(c.items.front());
  c.items.pop_front();
  return item;
}
