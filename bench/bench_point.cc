// Conversion, lookup, scalar arithmetic and histogram on 4096 x 4096 images in work space, each
// against a plain loop doing the same arithmetic on the same data.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "bench_support.h"
#include "zel.h"

namespace {

constexpr int side = 4096;
constexpr size_t pixels = size_t{side} * side;

uint32_t nextRandom(uint32_t &seed) {
  seed = seed * 1664525u + 1013904223u;
  return seed >> 8;
}

std::vector<uint8_t> randomBytes(uint32_t seed) {
  std::vector<uint8_t> values(pixels);
  for (auto &value : values)
    value = static_cast<uint8_t>(nextRandom(seed));
  return values;
}

// Values around and beyond the byte range, so that both clamps are taken.
std::vector<float> randomReals(uint32_t seed) {
  std::vector<float> values(pixels);
  for (auto &value : values)
    value = static_cast<float>(nextRandom(seed) % 40000) * 0.01f - 50.0f;
  return values;
}

class Context : public zel::bench::ContextOwner {
 public:
  // A work-space image of `type`, filled from `data` when given.
  ZelObject *image(int type, const void *data = nullptr) {
    ZelAttribute shape[] = {{"xDimension", side},
                            {"yDimension", side},
                            {"dataType", type},
                            {"repository", ZelWorkSpace}};
    ZelObject *object = Zel000b(ctx_, nullptr, nullptr, shape, 4);
    if (data) Zel609(ctx_, const_cast<void *>(data), object, nullptr, 0);
    return object;
  }
};

template <class Call>
void runLibrary(benchmark::State &state, Call call) {
  for (auto _ : state)
    if (call() != 0) state.SkipWithError("the library call failed");
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(pixels));
}

template <class Loop>
void runPlain(benchmark::State &state, Loop loop) {
  for (auto _ : state)
    loop();
  state.SetItemsProcessed(int64_t(state.iterations()) * int64_t(pixels));
}

void Zel601RealToNonNegative(benchmark::State &state) {
  Context ctx;
  std::vector<float> reals = randomReals(1);
  ZelObject *source = ctx.image(ZelReal, reals.data());
  ZelObject *destination = ctx.image(ZelNonNegative);
  runLibrary(state, [&] { return Zel601(ctx.get(), source, destination); });
}

void PlainRealToNonNegative(benchmark::State &state) {
  std::vector<float> reals = randomReals(1);
  std::vector<uint8_t> bytes(pixels);
  runPlain(state, [&] {
    for (size_t i = 0; i < pixels; ++i) {
      float x = reals[i];
      bytes[i] = x > 255.0f ? 255 : x >= 0.0f ? static_cast<uint8_t>(x) : 0;
    }
    benchmark::DoNotOptimize(bytes.data());
  });
}

void Zel601NonNegativeToSigned(benchmark::State &state) {
  Context ctx;
  std::vector<uint8_t> bytes = randomBytes(2);
  ZelObject *source = ctx.image(ZelNonNegative, bytes.data());
  ZelObject *destination = ctx.image(ZelSigned);
  runLibrary(state, [&] { return Zel601(ctx.get(), source, destination); });
}

void PlainNonNegativeToSigned(benchmark::State &state) {
  std::vector<uint8_t> bytes = randomBytes(2);
  std::vector<int16_t> words(pixels);
  runPlain(state, [&] {
    for (size_t i = 0; i < pixels; ++i)
      words[i] = bytes[i];
    benchmark::DoNotOptimize(words.data());
  });
}

void Zel601SignedToNonNegative(benchmark::State &state) {
  Context ctx;
  std::vector<uint8_t> bytes = randomBytes(3);
  std::vector<int16_t> words(bytes.begin(), bytes.end());
  for (size_t i = 0; i < pixels; i += 3)
    words[i] = static_cast<int16_t>(words[i] * 4 - 500);
  ZelObject *source = ctx.image(ZelSigned, words.data());
  ZelObject *destination = ctx.image(ZelNonNegative);
  runLibrary(state, [&] { return Zel601(ctx.get(), source, destination); });
}

void PlainSignedToNonNegative(benchmark::State &state) {
  std::vector<uint8_t> bytes = randomBytes(3), out(pixels);
  std::vector<int16_t> words(bytes.begin(), bytes.end());
  for (size_t i = 0; i < pixels; i += 3)
    words[i] = static_cast<int16_t>(words[i] * 4 - 500);
  runPlain(state, [&] {
    for (size_t i = 0; i < pixels; ++i)
      out[i] = static_cast<uint8_t>(std::clamp<int16_t>(words[i], 0, 255));
    benchmark::DoNotOptimize(out.data());
  });
}

std::vector<uint8_t> invertingTable() {
  std::vector<uint8_t> table(256);
  for (int i = 0; i < 256; ++i)
    table[i] = static_cast<uint8_t>(255 - i);
  return table;
}

void Zel120Lookup(benchmark::State &state) {
  Context ctx;
  std::vector<uint8_t> bytes = randomBytes(4), entries = invertingTable();
  ZelObject *source = ctx.image(ZelNonNegative, bytes.data());
  ZelObject *destination = ctx.image(ZelNonNegative);
  ZelObject *table = Zel000e(ctx.get(), nullptr, nullptr, nullptr, 0);
  Zel609(ctx.get(), entries.data(), table, nullptr, 0);
  runLibrary(state, [&] { return Zel120(ctx.get(), source, destination, table); });
}

void PlainLookup(benchmark::State &state) {
  std::vector<uint8_t> bytes = randomBytes(4), table = invertingTable(), out(pixels);
  runPlain(state, [&] {
    for (size_t i = 0; i < pixels; ++i)
      out[i] = table[bytes[i]];
    benchmark::DoNotOptimize(out.data());
  });
}

void Zel121AddScalar(benchmark::State &state) {
  Context ctx;
  std::vector<uint8_t> bytes = randomBytes(5);
  ZelObject *source = ctx.image(ZelNonNegative, bytes.data());
  ZelObject *destination = ctx.image(ZelNonNegative);
  ZelScalar forty{};
  forty.tag = ZelNonNegative;
  forty.v.i = 40;
  runLibrary(state, [&] { return Zel121(ctx.get(), source, destination, ZelAdd, forty); });
}

void PlainAddScalar(benchmark::State &state) {
  std::vector<uint8_t> bytes = randomBytes(5), out(pixels);
  int32_t v = 40;
  benchmark::DoNotOptimize(v);
  runPlain(state, [&] {
    for (size_t i = 0; i < pixels; ++i)
      out[i] = static_cast<uint8_t>(std::clamp(bytes[i] + v, 0, 255));
    benchmark::DoNotOptimize(out.data());
  });
}

void Zel126Histogram(benchmark::State &state) {
  Context ctx;
  std::vector<uint8_t> bytes = randomBytes(6);
  ZelObject *source = ctx.image(ZelNonNegative, bytes.data());
  ZelObject *histogram = Zel000d(ctx.get(), nullptr, nullptr, nullptr, 0);
  runLibrary(state, [&] { return Zel126(ctx.get(), source, histogram); });
}

void PlainHistogram(benchmark::State &state) {
  std::vector<uint8_t> bytes = randomBytes(6);
  uint32_t counts[256];
  runPlain(state, [&] {
    std::memset(counts, 0, sizeof counts);
    for (size_t i = 0; i < pixels; ++i)
      ++counts[bytes[i]];
    benchmark::DoNotOptimize(counts);
  });
}

BENCHMARK(Zel601RealToNonNegative)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainRealToNonNegative)->Unit(benchmark::kMillisecond);
BENCHMARK(Zel601NonNegativeToSigned)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainNonNegativeToSigned)->Unit(benchmark::kMillisecond);
BENCHMARK(Zel601SignedToNonNegative)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainSignedToNonNegative)->Unit(benchmark::kMillisecond);
BENCHMARK(Zel120Lookup)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainLookup)->Unit(benchmark::kMillisecond);
BENCHMARK(Zel121AddScalar)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainAddScalar)->Unit(benchmark::kMillisecond);
BENCHMARK(Zel126Histogram)->Unit(benchmark::kMillisecond);
BENCHMARK(PlainHistogram)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
