// dia-text, dia-delay, dia-sample: the Dia speech-synthesis helpers on .npy
// files and scripts.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>
#include <type_traits>

#include "cli_common.hpp"
#include "npy.hpp"
#include "dia.hpp"

namespace {

// "0,8,9" -> {0, 8, 9}; throws naming --delays on anything else.
std::vector<int> parse_delays(const std::string& text) {
  std::vector<int> delays;
  std::stringstream in(text);
  std::string item;
  while (std::getline(in, item, ',')) {
    size_t used = 0;
    int value = 0;
    try {
      value = std::stoi(item, &used);
    } catch (const std::exception&) {
      used = 0;
    }
    if (used == 0 || used != item.size()) {
      throw std::runtime_error("--delays expects comma-separated integers (e.g. 0,8,9), got '" +
                               text + "'");
    }
    delays.push_back(value);
  }
  if (delays.empty()) throw std::runtime_error("--delays needs at least one delay");
  return delays;
}

// Float to the file's element type; integers truncate and saturate.
template <class T>
xt::xarray<T> from_float(const xt::xarray<float>& values) {
  xt::xarray<T> out = xt::xarray<T>::from_shape(values.shape());
  std::transform(values.begin(), values.end(), out.begin(), [](float v) {
    if constexpr (std::is_integral_v<T>) {
      if (std::isnan(v)) return T{0};
      if (v >= static_cast<float>(std::numeric_limits<T>::max())) {
        return std::numeric_limits<T>::max();
      }
      if (v <= static_cast<float>(std::numeric_limits<T>::min())) {
        return std::numeric_limits<T>::min();
      }
    }
    return static_cast<T>(v);
  });
  return out;
}

// Codes pass through float on their way through the delay: integers beyond
// +-2^24 (and float64 values float cannot hold) would come back changed.
constexpr double kExactInFloat = 16777216.0;

template <class T>
xt::xarray<float> exact_codes(const cli::NpyHeader& header, const uint8_t* bytes,
                              const std::string& path) {
  const xt::xarray<T> values = cli::npy_values<T>(header, bytes, path);
  for (const T v : values) {
    bool exact = true;
    if constexpr (std::is_integral_v<T>) {
      exact = static_cast<double>(v) >= -kExactInFloat && static_cast<double>(v) <= kExactInFloat;
    } else {
      exact = std::isnan(v) || (std::abs(v) <= 3.4028234663852886e38 &&
                                static_cast<double>(static_cast<float>(v)) == v);
    }
    if (!exact) {
      std::ostringstream text;
      text << std::setprecision(17) << v;
      throw std::runtime_error(
          "dia-delay: " + path + " holds the code " + text.str() +
          ", which float cannot hold exactly (codes must lie within +-16777216)");
    }
  }
  return xt::cast<float>(values);
}

// Runs `shift` on the file's values as float and writes the result back in
// the file's own element type.
template <class Shift>
void shift_file(const std::string& in_path, const std::string& out_path, Shift shift) {
  const std::vector<uint8_t> bytes = cli::read_file(in_path);
  const cli::NpyHeader header = cli::parse_npy(bytes.data(), bytes.size(), in_path);
  const uint8_t* data = bytes.data();
  switch (header.type) {
    case cli::NpyType::Int32:
      return cli::write_npy(
          out_path, from_float<int32_t>(shift(exact_codes<int32_t>(header, data, in_path))));
    case cli::NpyType::Int64:
      return cli::write_npy(
          out_path, from_float<int64_t>(shift(exact_codes<int64_t>(header, data, in_path))));
    case cli::NpyType::Float32:
      return cli::write_npy(out_path, shift(cli::npy_values<float>(header, data, in_path)));
    case cli::NpyType::Float64:
      return cli::write_npy(out_path,
                            from_float<double>(shift(exact_codes<double>(header, data, in_path))));
    default:
      throw std::runtime_error(in_path + " holds " + header.descr +
                               " values; expected int32, int64, float32 or float64");
  }
}

void add_text(CLI::App& app) {
  auto* cmd = app.add_subcommand("dia-text", "Encode a script as byte tokens ([S1]/[S2] folded)");
  auto script = std::make_shared<std::string>();
  auto max_len = std::make_shared<int>(1024);
  auto pad = std::make_shared<int>(0);
  auto out = std::make_shared<std::string>();
  cmd->add_option("script", *script, "Text to encode, speaker tags included")->required();
  cmd->add_option("--max-len", *max_len, "Token count (pad or cut)")
      ->check(cli::integer_in(0, 1 << 24))
      ->capture_default_str();
  cmd->add_option("--pad", *pad, "Pad token")
      ->check(cli::integer_in(0, 255))
      ->capture_default_str();
  cmd->add_option("-o,--output", *out, "Write the [1, max-len] uint8 tokens as .npy");
  cmd->callback([=] {
    dia::DiaPreprocessor dp;
    const auto tokens = dp.prepareTextInput(*script, static_cast<unsigned char>(*pad), *max_len);
    if (!out->empty()) return cli::write_npy(*out, tokens);
    for (size_t i = 0; i < tokens.size(); ++i) {
      std::cout << (i ? " " : "") << static_cast<int>(tokens.data()[i]);
    }
    std::cout << "\n";
  });
}

void add_delay(CLI::App& app) {
  auto* cmd =
      app.add_subcommand("dia-delay", "Apply or revert the channel delay on [B, T, C] codes");
  auto in = std::make_shared<std::string>();
  auto delays = std::make_shared<std::string>();
  auto bos = std::make_shared<int>(0);
  auto pad = std::make_shared<int>(0);
  auto revert = std::make_shared<bool>(false);
  auto out = std::make_shared<std::string>();
  cmd->add_option("codes", *in, "[B, T, C] codes (.npy: int32, int64, float32 or float64)")
      ->required();
  cmd->add_option("--delays", *delays, "Per-channel delays, e.g. 0,8,9,10,11,12,13,14,15")
      ->required();
  auto* bos_opt = cmd->add_option("--bos", *bos, "BOS code (for frames before a channel starts)")
                      ->check(cli::integer_in(-(1 << 24), 1 << 24));
  cmd->add_option("--pad", *pad, "Pad code (for frames past the end)")
      ->check(cli::integer_in(-(1 << 24), 1 << 24))
      ->required();
  cmd->add_flag("--revert", *revert, "Shift the channels back instead");
  cmd->add_option("-o,--output", *out, "Output .npy, same element type as the input")->required();
  cmd->callback([=] {
    if (!*revert && bos_opt->count() == 0) {
      throw std::runtime_error("dia-delay: --bos is required to apply the delay");
    }
    const std::vector<int> pattern = parse_delays(*delays);
    shift_file(*in, *out, [&](const xt::xarray<float>& codes) {
      if (codes.dimension() != 3) {
        throw std::runtime_error("dia-delay: " + *in + " must hold a [B, T, C] block");
      }
      if (codes.shape(2) != pattern.size()) {
        throw std::runtime_error("dia-delay: --delays has " + std::to_string(pattern.size()) +
                                 " entries but the codes have " + std::to_string(codes.shape(2)) +
                                 " channels");
      }
      for (size_t axis = 0; axis < 3; ++axis) {
        if (codes.shape(axis) > static_cast<size_t>(std::numeric_limits<int>::max())) {
          throw std::runtime_error("dia-delay: " + *in + " has an axis longer than " +
                                   std::to_string(std::numeric_limits<int>::max()));
        }
      }
      dia::DiaPreprocessor dp;
      const int B = static_cast<int>(codes.shape(0));
      const int T = static_cast<int>(codes.shape(1));
      const int C = static_cast<int>(codes.shape(2));
      if (*revert) {
        return dp.revertAudioDelay(codes, static_cast<float>(*pad),
                                   dp.buildRevertIndices(B, T, C, pattern), T);
      }
      return dp.applyAudioDelay(codes, static_cast<float>(*pad), static_cast<float>(*bos),
                                dp.buildDelayIndices(B, T, C, pattern));
    });
  });
}

void add_sample(CLI::App& app) {
  auto* cmd = app.add_subcommand("dia-sample", "Sample one code per row of [C, V] logits");
  auto in = std::make_shared<std::string>();
  auto temperature = std::make_shared<float>(1.3f);
  auto top_p = std::make_shared<float>(0.95f);
  auto top_k = std::make_shared<int>(35);
  auto seed = std::make_shared<uint64_t>(0);
  auto min_p = std::make_shared<float>(0.0f);
  cmd->add_option("logits", *in, "[C, V] logits (.npy: float32, float64, int32 or int64)")
      ->required();
  cmd->add_option("--temperature", *temperature, "0 picks the argmax")
      ->check(cli::finite_float())
      ->capture_default_str();
  cmd->add_option("--top-p", *top_p, "Nucleus threshold (1 disables)")
      ->check(cli::finite_float())
      ->capture_default_str();
  cmd->add_option("--top-k", *top_k, "Best scores kept (0 disables)")
      ->check(cli::integer_in(0, std::numeric_limits<int>::max()))
      ->capture_default_str();
  auto* seed_opt =
      cmd->add_option("--seed", *seed, "Reproducible draw: the same seed gives the same codes")
          ->check(cli::unsigned_in(0, std::numeric_limits<uint64_t>::max()));
  cmd->add_option("--min-p", *min_p, "Drop codes below this share of the row's best (0 disables)")
      ->check(cli::finite_float())
      ->needs(seed_opt)
      ->capture_default_str();
  cmd->callback([=] {
    const xt::xarray<float> logits = cli::load_npy_as_float(*in);
    dia::DiaPreprocessor dp;
    const auto codes =
        seed_opt->count() == 0
            ? dp.sampleNextToken(logits, *temperature, *top_p, *top_k)
            : dp.sampleNextToken(logits, {*temperature, *top_p, *top_k, *min_p}, *seed);
    for (int code : codes) std::cout << code << "\n";
  });
}

}  // namespace

void add_dia_commands(CLI::App& app) {
  add_text(app);
  add_delay(app);
  add_sample(app);
}
