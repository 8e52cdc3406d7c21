// The vemoproc command line driven by fuzzed argument vectors: the input is
// split at newlines (or NULs) into arguments for the tool's own CLI11 app,
// which runs its subcommands on small fixture files in a private temporary
// folder (recreated for every input). Arguments cannot leave that folder ('/'
// becomes '_'), standard input is /dev/null and standard output is
// discarded. Parse errors are CLI11 exceptions and run-time errors
// std::exception, both caught here: the tool never exits the process.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <streambuf>
#include <string>
#include <vector>

#include "cli_common.hpp"
#include "pixels.hpp"

namespace fs = std::filesystem;

namespace {

class NullBuf : public std::streambuf {
 protected:
  int_type overflow(int_type c) override { return traits_type::not_eof(c); }
  std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

fs::path g_dir;

void save(const std::string& name, const std::string& bytes) {
  std::ofstream(g_dir / name, std::ios::binary).write(bytes.data(), std::streamsize(bytes.size()));
}

std::string npy(const std::string& descr, const std::string& shape, const std::string& data) {
  std::string header = "{'descr': '" + descr + "', 'fortran_order': False, 'shape': " + shape + ", }";
  header.append(63 - (10 + header.size()) % 64, ' ');
  header += '\n';
  std::string out = "\x93NUMPY\x01";
  out += '\0';
  out += static_cast<char>(header.size() & 255);
  out += static_cast<char>(header.size() >> 8);
  return out + header + data;
}

template <class T>
std::string le(std::initializer_list<T> values) {
  std::string s;
  for (T v : values) s.append(reinterpret_cast<const char*>(&v), sizeof v);
  return s;
}

void make_fixtures() {
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(g_dir, ec)) fs::remove_all(entry.path(), ec);
  save("head.npy", npy("<f4", "(2, 6)", le<float>({320, 320, 64, 64, 0.1f, 0.9f, 100, 100, 10, 10,
                                                   0.2f, 0.1f})));
  save("logits.npy", npy("<f4", "(2, 3)", le<float>({0, 5, 1, 2, 0, 1})));
  save("codes.npy", npy("<i4", "(1, 4, 2)", le<int32_t>({10, 20, 11, 21, 12, 22, 13, 23})));
  save("codes8.npy", npy("<i8", "(1, 2, 2)", le<int64_t>({-5, 6, 7, 8})));
  std::string ppm = "P6\n8 6\n255\n";
  for (int i = 0; i < 8 * 6 * 3; ++i) ppm += static_cast<char>(i * 37);
  save("img.ppm", ppm);
  save("img.raw", ppm.substr(ppm.size() - 8 * 6 * 3));
  save("names.txt", "a\nb\n");
  save("ids.txt", "72 101 108\n32 119\n\n");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char templ[] = "/tmp/fuzz_cli_args.XXXXXX";
  if (mkdtemp(templ) == nullptr) std::abort();
  g_dir = templ;
  setenv("TMPDIR", templ, 1);  // demo's scene goes here too
  std::atexit([] {
    std::error_code ec;
    fs::remove_all(g_dir, ec);
  });
  if (std::freopen("/dev/null", "r", stdin) == nullptr) std::abort();
  static NullBuf null;
  std::cout.rdbuf(&null);
  // Small images and resize targets keep every run quick and small.
  vemoproc::set_max_image_pixels(1 << 16);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::vector<std::string> args = {"vemoproc"};
  std::string arg;
  for (size_t i = 0; i <= size; ++i) {
    const char c = i < size ? static_cast<char>(data[i]) : '\n';
    if (c == '\n' || c == '\0') {
      if (args.size() > 32) break;
      args.push_back(arg);
      arg.clear();
    } else {
      arg += c == '/' ? '_' : c;  // stay inside the folder
    }
  }
  std::vector<const char*> argv;
  for (const std::string& a : args) argv.push_back(a.c_str());

  // Inside the folder only while the tool runs: libFuzzer's own paths
  // (corpus, artifacts) stay relative to where it was started.
  const fs::path start = fs::current_path();
  make_fixtures();
  fs::current_path(g_dir);
  {
    const auto app = cli::make_app();
    try {
      app->parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::Error&) {
    } catch (const std::exception&) {
    }
  }
  std::cout.clear();
  fs::current_path(start);
  return 0;
}
