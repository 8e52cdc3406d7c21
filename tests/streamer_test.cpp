#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "streamer.hpp"

namespace {

// Decodes by concatenating a fixed string per id; a whole cache listed in
// `whole` decodes to its own text instead (a decode that rewrites earlier
// text, as real tokenizers do). Records every cache it is asked to decode.
class FakeTokenizer : public Tokenizer {
 public:
  std::map<int, std::string> pieces;
  std::map<std::vector<int>, std::string> whole;
  std::vector<std::vector<int>> calls;

  std::string decode(const std::vector<int>& tokens) override {
    calls.push_back(tokens);
    const auto it = whole.find(tokens);
    if (it != whole.end()) return it->second;
    std::string text;
    for (const int id : tokens) text += pieces.at(id);
    return text;
  }
};

// Keeps what is written and counts the flushes (each flush syncs the buffer).
class CountingBuf : public std::streambuf {
 public:
  std::string text;
  int syncs = 0;

 protected:
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) text += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
  }
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    text.append(s, static_cast<size_t>(n));
    return n;
  }
  int sync() override {
    ++syncs;
    return 0;
  }
};

class StreamerTest : public ::testing::Test {
 protected:
  FakeTokenizer tok;
  CountingBuf buf;
  std::ostream out{&buf};

  // After each call: everything written so far and the number of flushes.
  void expect(const std::string& text, int syncs) {
    EXPECT_EQ(buf.text, text);
    EXPECT_EQ(buf.syncs, syncs);
  }
};

using Calls = std::vector<std::vector<int>>;

TEST_F(StreamerTest, EachStepWritesOnlyTheNewTextAndFlushes) {
  tok.pieces = {{1, "Hello"}, {2, " world"}, {3, "!"}};
  TextStreamer s(tok, out, false);
  s.put({1});
  expect("Hello", 1);
  s.put({2});
  expect("Hello world", 2);
  s.put({});  // an empty step decodes the same text: nothing new, still a flush
  expect("Hello world", 3);
  s.put({3});
  expect("Hello world!", 4);
  EXPECT_EQ(tok.calls, (Calls{{1}, {1, 2}, {1, 2}, {1, 2, 3}}));
  s.end();
  expect("Hello world!\n", 5);
}

TEST_F(StreamerTest, HoldBackCharactersWaitForTheNextStep) {
  for (const char c : std::string(",.:;?")) {
    SCOPED_TRACE(c);
    FakeTokenizer t;
    t.pieces = {{1, "Hi"}, {2, std::string(1, c)}, {3, " there"}};
    CountingBuf b;
    std::ostream o(&b);
    TextStreamer s(t, o, false);
    s.put({1});
    s.put({2});  // held back, but flushed
    EXPECT_EQ(b.text, "Hi");
    EXPECT_EQ(b.syncs, 2);
    s.put({3});
    EXPECT_EQ(b.text, "Hi" + std::string(1, c) + " there");
    EXPECT_EQ(b.syncs, 3);
  }
  // Other punctuation is written at once.
  tok.pieces = {{1, "Hi"}, {2, "!"}, {3, "-"}};
  TextStreamer s(tok, out, false);
  s.put({1, 2});
  s.put({3});
  expect("Hi!-", 2);
}

TEST_F(StreamerTest, HeldTextIsWrittenByEndAndByALineEnd) {
  tok.pieces = {{1, "Why"}, {2, "?"}, {3, "\n"}, {4, "Ok"}, {5, "."}};
  TextStreamer s(tok, out, false);
  s.put({1});
  s.put({2});
  s.put({2});
  expect("Why", 3);
  s.put({3});
  expect("Why??\n", 4);
  s.put({4});
  s.put({5});
  expect("Why??\nOk", 6);
  s.end();
  expect("Why??\nOk.\n", 7);
}

TEST_F(StreamerTest, ReplacementCharacterAtTheEndIsHeldBack) {
  const std::string fffd = "\xEF\xBF\xBD";
  tok.pieces = {{1, "caf"}, {2, "\xC3"}, {3, "\xA9"}, {4, "!"}};
  tok.whole = {{{1, 2}, "caf" + fffd}, {{1, 2, 3, 4, 2}, "caf\xC3\xA9!" + fffd}};
  TextStreamer s(tok, out, false);
  s.put({1});
  s.put({2});  // incomplete character: held back
  expect("caf", 2);
  s.put({3});  // completed on the next step
  expect("caf\xC3\xA9", 3);
  s.put({4, 2});
  expect("caf\xC3\xA9", 4);
  s.end();  // end() writes held text, replacement character included
  expect("caf\xC3\xA9!" + fffd + "\n", 5);
}

TEST_F(StreamerTest, ReplacementCharacterTestNeedsThreeBytesAtTheEnd) {
  tok.pieces = {{1, "\xBF\xBD"}, {2, "\xBD"}, {3, "\xEF\xBF\xBD"}, {4, "x"}};
  {
    TextStreamer s(tok, out, false);
    s.put({1});  // 2 bytes: not a replacement character
    expect("\xBF\xBD", 1);
  }
  {
    TextStreamer s(tok, out, false);
    s.put({2});  // 1 byte, then 2 bytes: both written
    s.put({2});
    expect("\xBF\xBD\xBD\xBD", 3);
  }
  {
    TextStreamer s(tok, out, false);
    s.put({3});  // exactly the 3 bytes: held
    expect("\xBF\xBD\xBD\xBD", 4);
    s.put({4});  // in the middle: written
    expect("\xBF\xBD\xBD\xBD\xEF\xBF\xBDx", 5);
  }
}

TEST_F(StreamerTest, LineEndStartsANewSegment) {
  tok.pieces = {{1, "  one"}, {2, " two"}, {3, "\n"}, {4, " three"}};
  TextStreamer s(tok, out, false);
  s.put({1});
  expect("one", 1);
  s.put({2, 3});  // the rest, line feed included
  expect("one two\n", 2);
  s.put({4});  // fresh cache, print_len 0, leading space now kept
  expect("one two\n three", 3);
  EXPECT_EQ(tok.calls, (Calls{{1}, {1, 2, 3}, {4}}));
  s.put({3});
  s.put({1});
  expect("one two\n three\n  one", 5);
}

TEST_F(StreamerTest, PromptIsDroppedAfterEnd) {
  tok.pieces = {{1, "prompt"}, {2, " Answer"}, {3, "\n"}};
  TextStreamer s(tok, out);  // skip_prompt defaults to true
  s.put({1});
  expect("", 0);
  EXPECT_TRUE(tok.calls.empty());
  s.put({2});
  expect("Answer", 1);
  s.put({3});
  expect("Answer\n", 2);
  s.end();  // empty cache: just a line feed
  expect("Answer\n\n", 3);
  EXPECT_EQ(tok.calls.back(), std::vector<int>{});

  s.put({1});  // the next generation's prompt
  expect("Answer\n\n", 3);
  s.put({2});  // leading whitespace stripped again after end()
  expect("Answer\n\nAnswer", 4);
}

TEST_F(StreamerTest, LeadingWhitespaceStripping) {
  tok.pieces = {{1, "  ab"}, {2, "!"}, {3, " \t\n\v\f\r"}, {4, "\xC2\xA0x"}};
  {
    TextStreamer s(tok, out, false);
    s.put({1});  // counts as "ab": 2 bytes
    s.put({2});
    expect("ab!", 2);
  }
  {
    TextStreamer s(tok, out, false);
    s.put({3});  // whitespace only: empty, no write, no flush, no new segment
    expect("ab!", 2);
    s.put({4});  // bytes above 0x7F are never whitespace
    expect("ab!\xC2\xA0x", 3);
    EXPECT_EQ(tok.calls.back(), (std::vector<int>{3, 4}));
  }
  {
    TextStreamer s(tok, out, false, false);
    s.put({1});
    s.put({3});  // kept: ends in \r, not a line end
    expect("ab!\xC2\xA0x  ab \t\n\v\f\r", 5);
  }
}

TEST_F(StreamerTest, ShorterDecodeThrowsAndKeepsTheState) {
  tok.pieces = {{1, "Hello"}, {2, " x"}, {3, "\n"}, {4, "y"}};
  tok.whole = {{{1, 2}, "Hel"}, {{1, 2, 3}, "He\n"}, {{1, 2, 3, 4}, "Hello xy"}};
  TextStreamer s(tok, out, false);
  s.put({1});
  EXPECT_THROW(s.put({2}), std::out_of_range);
  EXPECT_THROW(s.put({3}), std::out_of_range);
  expect("Hello", 1);
  s.put({4});  // the cache kept every id, print_len is still 5
  expect("Hello xy", 2);
  EXPECT_EQ(tok.calls.back(), (std::vector<int>{1, 2, 3, 4}));

  tok.whole[{1, 2, 3, 4}] = "short";
  EXPECT_THROW(s.end(), std::out_of_range);
  expect("Hello xy", 2);
  tok.whole.erase({1, 2, 3, 4});
  s.put({});  // end() failed before changing anything: no prompt skip, print_len 8
  expect("Hello xyy", 3);
}

// --- callback form -------------------------------------------------------------

using Pieces = std::vector<std::string>;

// Prompt, a held comma, a line end, a held question mark, end(): the
// callback gets exactly the non-empty pieces the stream form writes.
void run_script(BaseStreamer& s) {
  s.put({9});  // the prompt: dropped, never decoded
  s.put({1});  // "Hello"
  s.put({2});  // "Hello,": held
  s.put({3});  // ", world"
  s.put({4});  // "\n": the segment ends
  s.put({5});  // "Bye"
  s.put({6});  // "Bye?": held
  s.end();     // "?", then the line feed
}
const Pieces kScriptPieces{"Hello", ", world", "\n", "Bye", "?", "\n"};

TEST_F(StreamerTest, CallbackGetsTheStreamFormsPieces) {
  tok.pieces = {{1, "Hello"}, {2, ","}, {3, " world"}, {4, "\n"}, {5, "Bye"}, {6, "?"}};
  TextStreamer stream_form(tok, out);
  run_script(stream_form);
  expect("Hello, world\nBye?\n", 7);  // one flush per put after the prompt, one for end
  const Calls stream_calls = tok.calls;

  tok.calls.clear();
  Pieces pieces;
  TextStreamer callback_form(tok, [&](std::string_view p) { pieces.emplace_back(p); });
  run_script(callback_form);
  EXPECT_EQ(pieces, kScriptPieces);
  EXPECT_EQ(tok.calls, stream_calls);

  // A whitespace-only decode calls nothing; end() of an empty segment gives
  // the line feed alone; the next generation's prompt is dropped.
  tok.pieces[7] = "  ";
  pieces.clear();
  callback_form.put({7});
  callback_form.put({7});
  callback_form.end();
  EXPECT_EQ(pieces, (Pieces{"\n"}));
}

// --- queue to a consumer thread ---------------------------------------------------

constexpr std::chrono::milliseconds kLong{20000};  // only reached if a test hangs

// Takes pieces until the end marker.
Pieces drain(QueueStreamer& q) {
  Pieces pieces;
  while (auto piece = q.next(kLong)) pieces.push_back(*piece);
  return pieces;
}

TEST_F(StreamerTest, QueueCarriesThePiecesToAnotherThread) {
  tok.pieces = {{1, "Hello"}, {2, ","}, {3, " world"}, {4, "\n"}, {5, "Bye"}, {6, "?"}};
  QueueStreamer q(tok);
  std::thread producer([&] { run_script(q); });
  EXPECT_EQ(drain(q), kScriptPieces);
  producer.join();
  q.end();  // a generation of nothing but the line feed
  EXPECT_EQ(q.next(std::chrono::milliseconds::max()), "\n");
  EXPECT_EQ(q.next(std::chrono::milliseconds::max()), std::nullopt);
  // One end, one empty optional: the next generation follows on.
  EXPECT_THROW(q.next(std::chrono::milliseconds(0)), vemoproc::StreamTimeout);
  std::thread second([&] { run_script(q); });
  EXPECT_EQ(drain(q), kScriptPieces);
  second.join();
}

TEST_F(StreamerTest, QueueTimesOutWhenNothingArrives) {
  QueueStreamer q(tok);
  EXPECT_THROW(q.next(std::chrono::milliseconds(1)), vemoproc::StreamTimeout);
  // Extreme timeouts neither overflow the clock nor wait when nothing can come.
  EXPECT_THROW(q.next(std::chrono::milliseconds::min()), vemoproc::StreamTimeout);
  q.put({});  // the prompt: nothing queued
  try {
    q.next(std::chrono::milliseconds(0));
    ADD_FAILURE() << "no timeout";
  } catch (const std::runtime_error& e) {  // a StreamTimeout is a runtime_error
    EXPECT_EQ(std::string(e.what()), "QueueStreamer::next(): nothing arrived within 0 ms");
  }
}

TEST_F(StreamerTest, QueueHandsTheProducersErrorToTheConsumer) {
  tok.pieces = {{1, "Hello"}};
  QueueStreamer q(tok, false);
  // The consumer is already waiting when the producer fails.
  std::thread producer([&] {
    q.put({1});
    // The producer lets go of the exception before handing it over:
    // libstdc++ counts its references in code ThreadSanitizer does not see,
    // so a reference dropped on this thread afterwards would be reported.
    std::exception_ptr error;
    try {
      throw std::invalid_argument("decoder lost");
    } catch (...) {
      error = std::current_exception();
    }
    q.fail(std::move(error));
  });
  std::optional<std::string> first;
  try {
    first = q.next(kLong);
    q.next(kLong);  // the error, if the piece came first
    ADD_FAILURE() << "no error";
  } catch (const std::invalid_argument& e) {
    EXPECT_EQ(std::string(e.what()), "decoder lost");
  }
  producer.join();
  // Handed over once; a piece queued before it is still there.
  if (!first) {
    EXPECT_EQ(q.next(kLong), "Hello");
  }
  EXPECT_THROW(q.next(std::chrono::milliseconds(0)), vemoproc::StreamTimeout);
}

TEST_F(StreamerTest, CancelStopsTheGenerationLoop) {
  tok.pieces = {{1, "line\n"}};
  QueueStreamer q(tok, false);
  bool stopped = false;
  std::thread producer([&] {
    try {
      for (int step = 0; step < 1000000; ++step) q.put({1});
    } catch (const vemoproc::Cancelled& e) {
      stopped = std::string(e.what()) == "QueueStreamer::put(): generation cancelled";
    }
    q.end();
  });
  EXPECT_EQ(q.next(kLong), "line\n");
  q.cancel();  // from the consumer thread
  const Pieces rest = drain(q);
  producer.join();
  EXPECT_TRUE(stopped);
  ASSERT_FALSE(rest.empty());
  EXPECT_EQ(rest.back(), "\n");  // end() still closes the queue
  EXPECT_EQ(std::count(rest.begin(), rest.end(), "line\n") + 1, static_cast<long>(rest.size()));
  // Later puts throw before decoding anything.
  const size_t decodes = tok.calls.size();
  EXPECT_THROW(q.put({1}), vemoproc::Cancelled);
  EXPECT_EQ(tok.calls.size(), decodes);
}

}  // namespace
