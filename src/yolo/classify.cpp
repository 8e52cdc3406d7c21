// Classification: optional softmax, then the top k by descending score.
#include <algorithm>
#include <cmath>
#include <numeric>

#include "yolo_tasks.hpp"

namespace yolo {

std::vector<ClassScore> classify(const std::vector<float>& scores, size_t top_k,
                                 bool apply_softmax) {
  std::vector<float> p = scores;
  if (apply_softmax && !p.empty()) {
    const float m = *std::max_element(p.begin(), p.end());
    float sum = 0.0f;
    for (float& v : p) {
      v = std::exp(v - m);
      sum += v;
    }
    for (float& v : p) v = v / sum;
  }
  std::vector<int> order(p.size());
  std::iota(order.begin(), order.end(), 0);
  const size_t k = std::min(top_k, p.size());
  // NaN ranks below every number; the class id breaks ties.
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(k), order.end(),
                    [&p](int a, int b) {
                      const float sa = p[static_cast<size_t>(a)];
                      const float sb = p[static_cast<size_t>(b)];
                      if (std::isnan(sa) || std::isnan(sb)) {
                        return std::isnan(sa) == std::isnan(sb) ? a < b : std::isnan(sb);
                      }
                      return sa > sb || (sa == sb && a < b);
                    });
  std::vector<ClassScore> out(k);
  for (size_t i = 0; i < k; ++i) out[i] = {order[i], p[static_cast<size_t>(order[i])]};
  return out;
}

std::vector<std::vector<ClassScore>> classify_batch(const xt::xtensor<float, 2>& scores,
                                                    size_t top_k, bool apply_softmax) {
  std::vector<std::vector<ClassScore>> out;
  out.reserve(scores.shape(0));
  const size_t n = scores.shape(1);
  for (size_t i = 0; i < scores.shape(0); ++i) {
    const float* row = scores.data() + i * n;
    out.push_back(classify(std::vector<float>(row, row + n), top_k, apply_softmax));
  }
  return out;
}

}  // namespace yolo
