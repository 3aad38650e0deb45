// Zel106 Add on two 4096 x 4096 NonNegative images in work space, against a plain loop doing
// the same saturating addition on the same bytes.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "zel.h"

namespace {

constexpr int side = 4096;
constexpr size_t pixels = size_t{side} * side;

std::vector<uint8_t> randomImage(uint32_t seed) {
  std::vector<uint8_t> image(pixels);
  for (auto &pixel : image) {
    seed = seed * 1664525u + 1013904223u;
    pixel = static_cast<uint8_t>(seed >> 24);
  }
  return image;
}

// A work-space image holding `data`, filled through an application-memory image.
ZelObject *workSpaceImage(ZelContext *ctx, std::vector<uint8_t> &data) {
  ZelAttribute shape[] = {{"xDimension", side}, {"yDimension", side}, {"repository", ZelWorkSpace}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, shape, 3);
  ZelAttribute memory[] = {{"xDimension", side},
                           {"yDimension", side},
                           {"repository", ZelApplicationAddressSpace},
                           {"applicationAddressSpace", reinterpret_cast<ZelValue>(data.data())},
                           {"inited", 1}};
  ZelObject *view = Zel000b(ctx, nullptr, nullptr, memory, 5);
  ZelObject *same = Zel000b(ctx, nullptr, nullptr, memory, 5);
  Zel106(ctx, view, same, image, ZelOr);  // a | a = a
  Zel002(ctx, view);
  Zel002(ctx, same);
  return image;
}

void Zel106AddInWorkSpace(benchmark::State &state) {
  ZelContext *ctx = Zel004(nullptr);
  std::vector<uint8_t> a = randomImage(1), b = randomImage(2);
  ZelObject *imageA = workSpaceImage(ctx, a);
  ZelObject *imageB = workSpaceImage(ctx, b);
  ZelAttribute shape[] = {{"xDimension", side}, {"yDimension", side}, {"repository", ZelWorkSpace}};
  ZelObject *sum = Zel000b(ctx, nullptr, nullptr, shape, 3);
  for (auto _ : state)
    if (Zel106(ctx, imageA, imageB, sum, ZelAdd) != 0) state.SkipWithError("Zel106 failed");
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pixels));
  Zel001(ctx);
}

void PlainSaturatingAdd(benchmark::State &state) {
  std::vector<uint8_t> a = randomImage(1), b = randomImage(2), sum(pixels);
  for (auto _ : state) {
    for (size_t i = 0; i < pixels; ++i)
      sum[i] = static_cast<uint8_t>(std::min(a[i] + b[i], 255));
    benchmark::DoNotOptimize(sum.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(pixels));
}

BENCHMARK(Zel106AddInWorkSpace)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainSaturatingAdd)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
