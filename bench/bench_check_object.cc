// What a handle check costs as a context grows. Every call on an object first makes sure that
// the handle is a live record of the context; these benchmarks time cheap calls that do little
// else, on contexts of 100, 10 000 and 100 000 objects, placed at the end of a wide tree and at
// the bottom of a deep chain of derived objects. A plain field read is the baseline, and a
// lookup by name (which walks the tree) shows what a walk per call would cost.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "zel.h"

namespace {

enum class Shape { Wide, Deep };

// A context holding `count` objects, either all at the top level (wide) or each derived from the
// one before (deep). `last` is the object made last: at the end of the top level, or the deepest.
struct Tree {
  ZelContext *ctx = nullptr;
  ZelObject *last = nullptr;
  std::string lastName;

  Tree(Shape shape, int count) : ctx(Zel004(nullptr)) {
    ZelAttribute list[] = {{"xDimension", 64}, {"yDimension", 64}};
    char name[32];
    for (int i = 0; i < count; ++i) {
      std::snprintf(name, sizeof name, "object-%d", i);
      ZelObject *parent = shape == Shape::Deep ? last : nullptr;
      last = Zel000a(ctx, name, parent, list, 2);
      if (!last) break;
    }
    lastName = name;
  }
  ~Tree() { Zel001(ctx); }
  Tree(const Tree &) = delete;
  Tree &operator=(const Tree &) = delete;
};

// Trees are built once per shape and size and kept for all benchmarks of the run.
Tree &tree(Shape shape, int count) {
  static std::map<std::pair<Shape, int>, std::unique_ptr<Tree>> trees;
  auto &slot = trees[{shape, count}];
  if (!slot) slot = std::make_unique<Tree>(shape, count);
  return *slot;
}

void describe(benchmark::State &state, const Tree &t) {
  state.SetComplexityN(state.range(0));
  if (!t.last) state.SkipWithError("the tree could not be built");
}

// Baseline: the cost of reading one 32-bit field of a record through a pointer.
struct PlainRecord {
  void *firstWords[4];
  int32_t xDimension;
};

void ReadPlainField(benchmark::State &state) {
  PlainRecord record{};
  record.xDimension = 64;
  PlainRecord *pointer = &record;
  for (auto _ : state) {
    benchmark::DoNotOptimize(pointer);
    int32_t value = pointer->xDimension;
    benchmark::DoNotOptimize(value);
  }
  state.SetComplexityN(state.range(0));
}

template <Shape shape>
void ParentOf(benchmark::State &state) {
  Tree &t = tree(shape, static_cast<int>(state.range(0)));
  describe(state, t);
  for (auto _ : state)
    benchmark::DoNotOptimize(Zel098(t.ctx, t.last));
}

template <Shape shape>
void ReadXDimensionOf(benchmark::State &state) {
  Tree &t = tree(shape, static_cast<int>(state.range(0)));
  describe(state, t);
  for (auto _ : state)
    benchmark::DoNotOptimize(Zel005a(t.ctx, t.last, "xDimension"));
}

template <Shape shape>
void FindByName(benchmark::State &state) {
  Tree &t = tree(shape, static_cast<int>(state.range(0)));
  describe(state, t);
  const char *name = t.lastName.c_str();
  for (auto _ : state)
    benchmark::DoNotOptimize(Zel099(t.ctx, nullptr, name));
}

// One object made and destroyed while `count` others live in the context.
template <Shape shape>
void CreateAndDestroy(benchmark::State &state) {
  Tree &t = tree(shape, static_cast<int>(state.range(0)));
  describe(state, t);
  ZelAttribute list[] = {{"xDimension", 64}, {"yDimension", 64}};
  ZelObject *parent = shape == Shape::Deep ? t.last : nullptr;
  for (auto _ : state) {
    ZelObject *object = Zel000a(t.ctx, "transient", parent, list, 2);
    benchmark::DoNotOptimize(object);
    if (Zel002(t.ctx, object) != 0) {
      state.SkipWithError("Zel002 failed");
      break;
    }
  }
}

void sizes(benchmark::internal::Benchmark *b) {
  b->Arg(100)->Arg(10'000)->Arg(100'000)->ArgName("objects")->Complexity();
}

BENCHMARK(ReadPlainField)->Apply(sizes);
BENCHMARK(ParentOf<Shape::Wide>)->Name("ParentOfLastObject/wide")->Apply(sizes);
BENCHMARK(ParentOf<Shape::Deep>)->Name("ParentOfLastObject/deep")->Apply(sizes);
BENCHMARK(ReadXDimensionOf<Shape::Wide>)->Name("ReadXDimensionOfLastObject/wide")->Apply(sizes);
BENCHMARK(ReadXDimensionOf<Shape::Deep>)->Name("ReadXDimensionOfLastObject/deep")->Apply(sizes);
BENCHMARK(CreateAndDestroy<Shape::Wide>)->Name("CreateAndDestroyObject/wide")->Apply(sizes);
BENCHMARK(CreateAndDestroy<Shape::Deep>)->Name("CreateAndDestroyObject/deep")->Apply(sizes);
BENCHMARK(FindByName<Shape::Wide>)->Name("FindLastObjectByName/wide")->Apply(sizes);
BENCHMARK(FindByName<Shape::Deep>)->Name("FindLastObjectByName/deep")->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
