#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <future>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "streamer.hpp"

namespace {

using Ids = std::vector<int>;

// Decodes by concatenating a fixed string per id; a whole cache listed in
// `whole` decodes to its own text instead (a decode that rewrites earlier
// text, as real tokenizers do). Records every cache it is asked to decode.
class FakeTokenizer : public Tokenizer {
 public:
  std::map<int, std::string> pieces;
  std::map<Ids, std::string> whole;
  std::vector<Ids> calls;

  std::string decode(const Ids& tokens) override {
    calls.push_back(tokens);
    const auto it = whole.find(tokens);
    if (it != whole.end()) return it->second;
    std::string text;
    for (const int id : tokens) text += pieces.at(id);
    return text;
  }
};

// Keeps what is written, with a '|' for every flush.
class MarkingBuf : public std::streambuf {
 public:
  std::string text;

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
    text += '|';
    return 0;
  }
};

const Ids kEnd{-1};  // a step that calls end() instead of put()

void run(BaseStreamer& s, const std::vector<Ids>& steps) {
  for (const Ids& step : steps) step == kEnd ? s.end() : s.put(step);
}

struct Script {
  const char* name;
  std::map<int, std::string> pieces;
  std::map<Ids, std::string> whole;
  bool skip_prompt, strip;
  std::vector<Ids> steps;
  std::string written;  // what the stream form writes, '|' for each flush
};

const std::string fffd = "\xEF\xBF\xBD";

// clang-format off
const Script kScripts[] = {
    {"each step writes only the new text; an empty step still flushes",
     {{1, "Hello"}, {2, " world"}, {3, "!"}}, {}, false, true,
     {{1}, {2}, {}, {3}, kEnd}, "Hello| world||!|\n|"},
    {"other punctuation is written at once", {{1, "Hi"}, {2, "!"}, {3, "-"}}, {}, false, true,
     {{1, 2}, {3}}, "Hi!|-|"},
    {"held text is written by a line end and by end()",
     {{1, "Why"}, {2, "?"}, {3, "\n"}, {4, "Ok"}, {5, "."}}, {}, false, true,
     {{1}, {2}, {2}, {3}, {4}, {5}, kEnd}, "Why|||??\n|Ok||.\n|"},
    {"an incomplete character is held until completed; end() writes it",
     {{1, "caf"}, {2, "\xC3"}, {3, "\xA9"}, {4, "!"}},
     {{{1, 2}, "caf" + fffd}, {{1, 2, 3, 4, 2}, "caf\xC3\xA9!" + fffd}}, false, true,
     {{1}, {2}, {3}, {4, 2}, kEnd}, "caf||\xC3\xA9||!" + fffd + "\n|"},
    {"the replacement character needs its three bytes at the end",
     {{1, "\xBF\xBD"}, {2, "\xBD"}, {3, fffd}, {4, "x"}}, {}, false, true,
     {{1}, {2}, {2}, {3}, {4}}, "\xBF\xBD|\xBD|\xBD||" + fffd + "x|"},
    {"a line end starts a new segment that keeps leading whitespace",
     {{1, "  one"}, {2, " two"}, {3, "\n"}, {4, " three"}}, {}, false, true,
     {{1}, {2, 3}, {4}, {3}, {1}}, "one| two\n| three|\n|  one|"},
    {"the prompt is dropped, also after end(), and stripping starts again",
     {{1, "prompt"}, {2, " Answer"}, {3, "\n"}}, {}, true, true,
     {{1}, {2}, {3}, kEnd, {1}, {2}}, "Answer|\n|\n|Answer|"},
    {"whitespace-only text writes and flushes nothing; bytes above 0x7F are not space",
     {{3, " \t\n\v\f\r"}, {4, "\xC2\xA0x"}}, {}, false, true, {{3}, {4}}, "\xC2\xA0x|"},
    {"without stripping, whitespace is text (ends in \\r: no line end)",
     {{1, "  ab"}, {3, " \t\n\v\f\r"}}, {}, false, false, {{1}, {3}}, "  ab| \t\n\v\f\r|"},
};
// clang-format on

// The decoded caches of some scripts: a new segment starts with an empty cache.
const std::map<std::string, std::vector<Ids>> kCalls = {
    {kScripts[0].name, {{1}, {1, 2}, {1, 2}, {1, 2, 3}, {1, 2, 3}}},
    {kScripts[5].name, {{1}, {1, 2, 3}, {4}, {4, 3}, {1}}},
    {kScripts[6].name, {{2}, {2, 3}, {}, {2}}},
    {kScripts[7].name, {{3}, {3, 4}}},
};

// The message of the E that `call` throws.
template <class E, class Call>
std::string message_of(Call call) {
  try {
    call();
  } catch (const E& e) {
    return e.what();
  }
  return "no error";
}

std::string without_flushes(std::string s) {
  s.erase(std::remove(s.begin(), s.end(), '|'), s.end());
  return s;
}

}  // namespace

// Each script through the three forms: the stream form writes and flushes as
// listed, the callback form gets the same text as non-empty pieces, and the
// queue hands those pieces on in order, with one empty optional per end().
TEST(Streamer, ScriptsThroughEveryForm) {
  for (const Script& script : kScripts) {
    SCOPED_TRACE(script.name);
    FakeTokenizer tok;
    tok.pieces = script.pieces;
    tok.whole = script.whole;
    MarkingBuf buf;
    std::ostream out(&buf);
    TextStreamer stream_form(tok, out, script.skip_prompt, script.strip);
    run(stream_form, script.steps);
    EXPECT_EQ(buf.text, script.written);
    const auto calls = kCalls.find(script.name);
    if (calls != kCalls.end()) {
      EXPECT_EQ(tok.calls, calls->second);
    }

    std::vector<std::string> pieces;
    TextStreamer callback_form(
        tok, [&](std::string_view p) { pieces.emplace_back(p); }, script.skip_prompt, script.strip);
    run(callback_form, script.steps);
    std::string joined;
    for (const auto& p : pieces) {
      EXPECT_FALSE(p.empty());
      joined += p;
    }
    EXPECT_EQ(joined, without_flushes(script.written));

    QueueStreamer queue(tok, script.skip_prompt, script.strip);
    run(queue, script.steps);
    std::vector<std::string> queued;
    for (const Ids& step : script.steps) {
      if (step != kEnd) continue;
      while (auto piece = queue.next(std::chrono::milliseconds(0))) queued.push_back(*piece);
    }
    const auto rest = [&] {
      while (auto piece = queue.next(std::chrono::milliseconds(0))) queued.push_back(*piece);
    };  // ends only by a timeout: no empty optional without an end()
    EXPECT_EQ(message_of<vemoproc::StreamTimeout>(rest),
              "QueueStreamer::next(): nothing arrived within 0 ms");
    EXPECT_EQ(queued, pieces);
  }
}

TEST(Streamer, ShorterDecodeThrowsAndKeepsTheState) {
  FakeTokenizer tok;
  tok.pieces = {{1, "Hello"}, {2, " x"}, {3, "\n"}, {4, "y"}};
  tok.whole = {{{1, 2}, "Hel"}, {{1, 2, 3}, "He\n"}, {{1, 2, 3, 4}, "Hello xy"}};
  MarkingBuf buf;
  std::ostream out(&buf);
  TextStreamer s(tok, out, false);
  s.put({1});
  EXPECT_THROW(s.put({2}), std::out_of_range);
  EXPECT_THROW(s.put({3}), std::out_of_range);
  s.put({4});  // the cache kept every id, print_len is still 5
  EXPECT_EQ(buf.text, "Hello| xy|");
  tok.whole[{1, 2, 3, 4}] = "short";
  EXPECT_THROW(s.end(), std::out_of_range);
  tok.whole.erase({1, 2, 3, 4});
  s.put({});  // end() failed before changing anything: no prompt skip, print_len 8
  EXPECT_EQ(buf.text, "Hello| xy|y|");
}

// --- queue to a consumer thread: blocking handoffs only --------------------------

constexpr std::chrono::milliseconds kLong{60000};  // only reached if a test hangs

TEST(Streamer, QueueCarriesPiecesAndTheErrorToAnotherThreadAndCancels) {
  FakeTokenizer tok;
  tok.pieces = {{1, "Hello"}, {2, ","}, {3, " world"}, {4, "\n"}};
  QueueStreamer q(tok, false);
  std::promise<void> taken;  // the error jumps the queue: fail once the consumer took five
  std::thread producer([&] {
    run(q, {{1}, {2}, {3}, {4}, kEnd, {9}, {1}});  // 9: the next prompt
    taken.get_future().wait();
    // The producer lets go of the exception before handing it over:
    // libstdc++ counts its references in code ThreadSanitizer does not see.
    std::exception_ptr error;
    try {
      throw std::invalid_argument("decoder lost");
    } catch (...) {
      error = std::current_exception();
    }
    q.fail(std::move(error));
  });
  std::vector<std::optional<std::string>> got;
  for (int i = 0; i < 5; ++i) got.push_back(q.next(kLong));
  const std::vector<std::optional<std::string>> want{"Hello", ", world", "\n", "\n", std::nullopt};
  EXPECT_EQ(got, want);
  taken.set_value();
  producer.join();  // the error comes first, once; the piece queued before it stays
  EXPECT_EQ(message_of<std::invalid_argument>([&] { q.next(kLong); }), "decoder lost");
  EXPECT_EQ(q.next(kLong), "Hello");
  EXPECT_THROW(q.next(std::chrono::milliseconds::min()), vemoproc::StreamTimeout);

  // After cancel(), put throws before decoding anything; end() still closes the queue.
  q.cancel();
  const size_t decodes = tok.calls.size();
  EXPECT_EQ(message_of<vemoproc::Cancelled>([&] { q.put({1}); }),
            "QueueStreamer::put(): generation cancelled");
  EXPECT_EQ(tok.calls.size(), decodes);
  q.end();
  EXPECT_EQ(q.next(kLong), "\n");
  EXPECT_EQ(q.next(kLong), std::nullopt);
}
