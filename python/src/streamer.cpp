// vemoproc.TextStreamer driven by a Python tokenizer and writing to a Python
// text stream.
#include <mutex>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

#include "common.hpp"
#include "streamer.hpp"

namespace vemoproc_py {

namespace {

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
    // Bytes the decoder produced that are not valid UTF-8 are replaced rather
    // than failing the write.
    if (!text.empty()) {
      py::object str = py::reinterpret_steal<py::object>(
          PyUnicode_DecodeUTF8(text.data(), static_cast<py::ssize_t>(text.size()), "replace"));
      if (!str) throw py::error_already_set();
      stream_.attr("write")(str);
    }
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
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(mutex_);
    out_.clear();
    streamer_.put(tokens);
  }
  void end() {
    py::gil_scoped_release nogil;
    std::lock_guard<std::mutex> lock(mutex_);
    out_.clear();
    streamer_.end();
  }

 private:
  PyTokenizer tokenizer_;
  PyStreamBuf buf_;
  std::ostream out_;
  TextStreamer streamer_;
  std::mutex mutex_;
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
}

}  // namespace vemoproc_py
