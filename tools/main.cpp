// vemoproc: the library's families on real files, from a shell.
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iostream>
#include <streambuf>

#include "cli_common.hpp"

namespace {

// Standard output through write(2) with a buffer of its own, remembering the
// first failed write (a full disk, a closed descriptor), so the tool can exit
// non-zero with the reason instead of losing the error in iostream state.
class CheckedStdout : public std::streambuf {
 public:
  CheckedStdout() { setp(buffer_, buffer_ + sizeof buffer_); }

  // Flushes; 0 when every byte so far reached the descriptor, else the errno
  // of the first failure.
  int finish() {
    sync();
    return error_;
  }

 protected:
  int_type overflow(int_type c) override {
    if (!drain()) return traits_type::eof();
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
      *pptr() = traits_type::to_char_type(c);
      pbump(1);
    }
    return traits_type::not_eof(c);
  }
  int sync() override { return drain() ? 0 : -1; }

 private:
  bool drain() {
    const char* p = pbase();
    while (p < pptr() && error_ == 0) {
      const ssize_t n = ::write(STDOUT_FILENO, p, static_cast<size_t>(pptr() - p));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        error_ = n < 0 ? errno : EIO;
        break;
      }
      p += n;
    }
    setp(buffer_, buffer_ + sizeof buffer_);  // after a failure the rest is dropped
    return error_ == 0;
  }

  char buffer_[1 << 14];
  int error_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  CheckedStdout out;
  std::streambuf* const original = std::cout.rdbuf(&out);
  const auto app = cli::make_app();
  int status = 0;
  try {
    app->parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    status = app->exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    status = app->exit(e);
  } catch (const CLI::ParseError& e) {
    // A usage error is one line, like every other error of the tool.
    std::cerr << "vemoproc: error: " << e.what() << " (see --help)\n";
    status = e.get_exit_code();
  } catch (const std::exception& e) {
    std::cout.flush();
    std::cerr << "vemoproc: error: " << e.what() << "\n";
    status = 1;
  }
  std::cout.clear();
  const int err = out.finish();
  std::cout.rdbuf(original);
  if (err != 0 || (::close(STDOUT_FILENO) != 0 && errno != EBADF)) {
    std::cerr << "vemoproc: error: cannot write standard output: "
              << std::strerror(err != 0 ? err : errno) << "\n";
    return status != 0 ? status : 1;
  }
  return status;
}
