// Streaming an 8192 x 8192 NonNegative image line by line through an access frame, written and
// read back, against the same job done with plain calls: a fresh file written line by line and
// read back with pwrite/pread (File), and memcpy into and out of one block (WorkSpace). As an
// operator would, each line is built in a line buffer and consumed from one. Each iteration
// writes 64 MiB and reads them back.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "access/frame.h"
#include "zel.h"

namespace {

constexpr int side = 8192;
constexpr size_t lineBytes = side;

std::vector<uint8_t> patternLine() {
  std::vector<uint8_t> line(lineBytes);
  for (size_t i = 0; i < lineBytes; ++i)
    line[i] = static_cast<uint8_t>(i * 7);
  return line;
}

std::string scratchDirectory() {
  const char *tmp = std::getenv("TMPDIR");
  return tmp && *tmp ? tmp : "/tmp";
}

// Writes every line through a "w" frame, then reads every line through an "r" frame.
void streamThroughFrames(benchmark::State &state, int repository) {
  ZelContext *ctx = Zel004(nullptr);
  ZelAttribute shape[] = {{"xDimension", side}, {"yDimension", side}, {"repository", repository}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, shape, 3);
  std::vector<uint8_t> source = patternLine(), sink(lineBytes);
  ZelAttribute fresh{"inited", 0};
  for (auto _ : state) {
    // A file starts afresh each time, as with the plain calls; a work-space block is reused.
    if (repository == ZelFile) Zel006(ctx, image, &fresh, 1);
    zel::Frame out = zel::openFrame(ctx, image, "w", 1);
    for (int64_t y = 0; y < side; ++y) {
      uint8_t *line = zel::lineForUpdate(ctx, out->stream, y * side);
      std::memcpy(line, source.data(), lineBytes);
      zel::writeLine(ctx, out->stream, y * side);
    }
    out.reset();
    zel::Frame in = zel::openFrame(ctx, image, "r", 1);
    for (int64_t y = 0; y < side; ++y)
      std::memcpy(sink.data(), zel::readLine(ctx, in->stream, y * side), lineBytes);
    benchmark::DoNotOptimize(sink.data());
  }
  if (Zel003b(ctx) != 0) state.SkipWithError("a stream failed");
  state.SetBytesProcessed(int64_t(state.iterations()) * 2 * side * int64_t{side});
  Zel001(ctx);
}

void FrameOnFile(benchmark::State &state) {
  streamThroughFrames(state, ZelFile);
}
void FrameOnWorkSpace(benchmark::State &state) {
  streamThroughFrames(state, ZelWorkSpace);
}

void PlainFileReadWrite(benchmark::State &state) {
  std::string path = scratchDirectory() + "/zelbenchXXXXXX";
  close(mkstemp(path.data()));
  std::vector<uint8_t> source = patternLine(), sink(lineBytes), line(lineBytes);
  for (auto _ : state) {
    int out = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    for (off_t y = 0; y < side; ++y) {
      std::memcpy(line.data(), source.data(), lineBytes);
      if (pwrite(out, line.data(), lineBytes, y * off_t{lineBytes}) < 0) std::abort();
    }
    close(out);
    int in = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    for (off_t y = 0; y < side; ++y) {
      if (pread(in, line.data(), lineBytes, y * off_t{lineBytes}) < 0) std::abort();
      std::memcpy(sink.data(), line.data(), lineBytes);
    }
    close(in);
    benchmark::DoNotOptimize(sink.data());
  }
  unlink(path.c_str());
  state.SetBytesProcessed(int64_t(state.iterations()) * 2 * side * int64_t{side});
}

void PlainMemcpy(benchmark::State &state) {
  std::vector<uint8_t> block(size_t{side} * lineBytes);
  std::vector<uint8_t> source = patternLine(), sink(lineBytes);
  for (auto _ : state) {
    for (size_t y = 0; y < side; ++y)
      std::memcpy(&block[y * lineBytes], source.data(), lineBytes);
    for (size_t y = 0; y < side; ++y)
      std::memcpy(sink.data(), &block[y * lineBytes], lineBytes);
    benchmark::DoNotOptimize(sink.data());
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * 2 * side * int64_t{side});
}

BENCHMARK(FrameOnFile)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PlainFileReadWrite)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FrameOnWorkSpace)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PlainMemcpy)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
