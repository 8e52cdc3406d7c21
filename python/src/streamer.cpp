// vemoproc.TextStreamer driven by a Python tokenizer and writing to a Python
// text stream.
#include <algorithm>
#include <chrono>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "common.hpp"
#include "streamer.hpp"

namespace vemoproc_py {

namespace {

// Text from the library as a Python str; bytes that are not valid UTF-8 are
// replaced rather than failing.
py::str utf8_str(const std::string& text) {
  PyObject* str =
      PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace");
  if (!str) throw py::error_already_set();
  return py::reinterpret_steal<py::str>(str);
}

// A Tokenizer whose decode calls the Python object's decode(list) -> str.
class PyTokenizer : public Tokenizer {
 public:
  explicit PyTokenizer(py::object tokenizer) : tokenizer_(std::move(tokenizer)) {}
  std::string decode(const std::vector<int>& tokens) override {
    py::gil_scoped_acquire gil;
    py::object text = tokenizer_.attr("decode")(py::cast(tokens));
    if (!py::isinstance<py::str>(text)) {
      throw py::type_error("tokenizer.decode must return str");
    }
    return text.cast<std::string>();
  }

 private:
  py::object tokenizer_;
};

// Collects what the streamer writes and hands it to the Python stream's
// write() on every flush, followed by its flush(). Text is only ever cut at
// the streamer's own boundaries, so each write gets whole UTF-8 characters.
class PyStreamBuf : public std::streambuf {
 public:
  explicit PyStreamBuf(py::object stream) : stream_(std::move(stream)) {}

 protected:
  std::streamsize xsputn(const char* s, std::streamsize n) override {
    pending_.append(s, static_cast<size_t>(n));
    return n;
  }
  int_type overflow(int_type c) override {
    if (!traits_type::eq_int_type(c, traits_type::eof())) pending_ += traits_type::to_char_type(c);
    return traits_type::not_eof(c);
  }
  int sync() override {
    py::gil_scoped_acquire gil;
    std::string text;
    text.swap(pending_);
    if (!text.empty()) stream_.attr("write")(utf8_str(text));
    stream_.attr("flush")();
    return 0;
  }

 private:
  py::object stream_;
  std::string pending_;
};

// The streamer with the tokenizer and stream it refers to, kept together so
// that they live exactly as long as it does.
class PyTextStreamer {
 public:
  PyTextStreamer(py::object tokenizer, py::object stream, bool skip_prompt,
                 bool strip_leading_space)
      : tokenizer_(std::move(tokenizer)),
        buf_(std::move(stream)),
        out_(&buf_),
        streamer_(tokenizer_, out_, skip_prompt, strip_leading_space) {
    // Errors raised by the Python stream propagate instead of only setting
    // the stream's bad bit.
    out_.exceptions(std::ios::badbit);
  }

  // Python threads may share a streamer: one step at a time. The GIL is
  // released before the lock is taken, so a waiting thread never holds the
  // GIL the working thread's callbacks need.
  void put(const std::vector<int>& tokens) {
    released([&] {
      std::lock_guard<std::mutex> lock(mutex_);
      out_.clear();
      streamer_.put(tokens);
    });
  }
  void end() {
    released([&] {
      std::lock_guard<std::mutex> lock(mutex_);
      out_.clear();
      streamer_.end();
    });
  }

 private:
  PyTokenizer tokenizer_;
  PyStreamBuf buf_;
  std::ostream out_;
  TextStreamer streamer_;
  std::mutex mutex_;
};

// A Python exception handed to QueueStreamer::fail, carried through the C++
// queue and raised again in the consumer. Its object is released with the GIL.
class PyErrorHolder : public std::exception {
 public:
  explicit PyErrorHolder(py::object error) : error_(new py::object(std::move(error))) {}
  PyErrorHolder(const PyErrorHolder&) = default;
  ~PyErrorHolder() override {
    if (error_.use_count() == 1 && Py_IsInitialized()) {
      py::gil_scoped_acquire gil;
      error_.reset();
    }
  }
  const char* what() const noexcept override { return "Python exception"; }
  const py::object& error() const { return *error_; }

 private:
  std::shared_ptr<py::object> error_;
};

// QueueStreamer with its Python tokenizer. Producer calls (put, end, fail)
// and consumer calls (next) are each serialised, taking the lock only after
// the GIL is released.
class PyQueueStreamer {
 public:
  PyQueueStreamer(py::object tokenizer, bool skip_prompt, bool strip_leading_space)
      : tokenizer_(std::move(tokenizer)), queue_(tokenizer_, skip_prompt, strip_leading_space) {}

  void put(const std::vector<int>& tokens) {
    released([&] {
      std::lock_guard<std::mutex> lock(producer_);
      queue_.put(tokens);
    });
  }
  void end() {
    released([&] {
      std::lock_guard<std::mutex> lock(producer_);
      queue_.end();
    });
  }
  void fail(py::object error) {
    if (!PyExceptionInstance_Check(error.ptr())) {
      throw py::type_error("error: expected an exception instance");
    }
    std::exception_ptr e = std::make_exception_ptr(PyErrorHolder(std::move(error)));
    released([&] {
      std::lock_guard<std::mutex> lock(producer_);
      queue_.fail(e);
    });
  }
  void cancel() { queue_.cancel(); }

  // The next piece, None at an end(); waits up to `timeout` seconds (None:
  // without limit, still answering Ctrl-C). Longer timeouts (inf included) are
  // held to 100 years, as in C++, so the clock arithmetic cannot overflow.
  py::object next(std::optional<double> timeout) {
    using std::chrono::milliseconds;
    constexpr double kMaxSeconds = 100 * 365.25 * 86400;
    const bool bounded = timeout.has_value();
    if (bounded && !(*timeout >= 0)) throw py::value_error("timeout: must be >= 0 seconds");
    const auto limit =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(bounded ? std::min(*timeout, kMaxSeconds) : 0.0));
    for (;;) {
      auto wait = milliseconds(100);
      if (bounded) {
        const auto left =
            std::chrono::duration_cast<milliseconds>(limit - std::chrono::steady_clock::now());
        wait = std::max(milliseconds(0), std::min(wait, left));
      }
      try {
        // A daemon thread waiting here at interpreter exit is ended when
        // it takes the GIL back: released() does that outside a destructor.
        const std::optional<std::string> piece = released([&] {
          std::lock_guard<std::mutex> lock(consumer_);
          return queue_.next(wait);
        });
        if (!piece) return py::none();
        return utf8_str(*piece);
      } catch (const PyErrorHolder& e) {
        PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(e.error().ptr())), e.error().ptr());
        throw py::error_already_set();
      } catch (const vemoproc::StreamTimeout&) {
        if (bounded && std::chrono::steady_clock::now() >= limit) throw;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
      }
    }
  }

 private:
  PyTokenizer tokenizer_;
  QueueStreamer queue_;
  std::mutex producer_;
  std::mutex consumer_;
};

std::vector<int> token_ids(py::handle ids) {
  if (py::isinstance<py::int_>(ids)) return {ids.cast<int>()};
  auto a = as_array<int>(ids, "ids", -1);
  if (a.ndim() > 2 || (a.ndim() == 2 && a.shape(0) != 1)) {
    throw py::value_error("ids: expected a flat list of token ids (or a [1, N] array)");
  }
  return std::vector<int>(a.data(), a.data() + a.size());
}

}  // namespace

void bind_streamer(py::module_& m) {
  py::class_<PyTextStreamer>(m, "TextStreamer",
                             R"(Writes generated text to a stream as it becomes final.

tokenizer: any object with decode(list_of_ids) -> str. stream: any object with
write(str) and flush() (default: sys.stdout at construction). skip_prompt: the
first put (the prompt) is dropped unwritten. strip_leading_space: leading
whitespace is removed until the first line end.

Each put decodes the segment so far and writes only the newly final text;
text ending in , . : ; ? or an incomplete UTF-8 character is held back. end()
writes the rest and a line feed. Errors of the tokenizer or the stream
propagate; IndexError when the tokenizer shortens already written text.)")
      .def(py::init([](py::object tokenizer, py::object stream, bool skip_prompt,
                       bool strip_leading_space) {
             if (!py::hasattr(tokenizer, "decode")) {
               throw py::type_error("tokenizer: expected an object with decode(ids)");
             }
             if (stream.is_none()) stream = py::module_::import("sys").attr("stdout");
             if (!py::hasattr(stream, "write") || !py::hasattr(stream, "flush")) {
               throw py::type_error("stream: expected an object with write() and flush()");
             }
             return new PyTextStreamer(std::move(tokenizer), std::move(stream), skip_prompt,
                                       strip_leading_space);
           }),
           py::arg("tokenizer"), py::arg("stream") = py::none(), py::arg("skip_prompt") = true,
           py::arg("strip_leading_space") = true)
      .def(
          "put", [](PyTextStreamer& s, py::handle ids) { s.put(token_ids(ids)); }, py::arg("ids"),
          "Hand over one generation step's new token ids (a list, an int or an integer array).")
      .def("end", &PyTextStreamer::end, "Write the rest of the text and a line feed.");

  py::register_exception<vemoproc::StreamTimeout>(m, "StreamTimeout", PyExc_TimeoutError);
  py::register_exception<vemoproc::Cancelled>(m, "Cancelled", PyExc_RuntimeError);
  py::class_<PyQueueStreamer>(m, "QueueStreamer",
                              R"(Hands generated text to a consumer on another thread.

The generation thread calls put(ids) and end() (and fail(exception) to pass an
error on); the consumer calls next(timeout) or iterates: `for piece in
streamer` yields the pieces of one generation and stops at its end(). The
hold-back rules are TextStreamer's. next() raises StreamTimeout (a
TimeoutError) when nothing arrives in time; after cancel() every put raises
Cancelled, so the generation loop stops.)")
      .def(py::init([](py::object tokenizer, bool skip_prompt, bool strip_leading_space) {
             if (!py::hasattr(tokenizer, "decode")) {
               throw py::type_error("tokenizer: expected an object with decode(ids)");
             }
             return new PyQueueStreamer(std::move(tokenizer), skip_prompt, strip_leading_space);
           }),
           py::arg("tokenizer"), py::arg("skip_prompt") = true,
           py::arg("strip_leading_space") = true)
      .def(
          "put", [](PyQueueStreamer& s, py::handle ids) { s.put(token_ids(ids)); }, py::arg("ids"),
          "Queue the newly final text of one generation step.")
      .def("end", &PyQueueStreamer::end, "Queue the rest of the text, a line feed and the end.")
      .def("fail", &PyQueueStreamer::fail, py::arg("error"),
           "Make the consumer's next call of next() raise `error` (an exception instance).")
      .def("cancel", &PyQueueStreamer::cancel, "Make every later put raise Cancelled.")
      .def("next", &PyQueueStreamer::next, py::arg("timeout") = py::none(),
           "The next piece (str), or None where end() was called; waits up to timeout seconds "
           "(None: no limit) and raises StreamTimeout after that.")
      .def("__iter__", [](py::object self) { return self; })
      .def("__next__", [](PyQueueStreamer& s) {
        py::object piece = s.next(std::nullopt);
        if (piece.is_none()) throw py::stop_iteration();
        return piece;
      });
}

}  // namespace vemoproc_py
