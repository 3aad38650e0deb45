// PNG encoding and decoding of an RGB image of 8 bits (4096 x 4096 unless ZEL_BENCH_PNG_SIZE
// says otherwise), by the library and by libpng set up for the same job: deflate level 6 (zlib's
// default), window 15, memory level 8, the filtered strategy, all five row filters chosen per row
// by the smallest sum of absolute values, and IDAT chunks of 8192 bytes. Two contents: smooth
// gradients and fixed-seed noise.
//
// Each job runs as a pair, BM_<Job>/zel and BM_<Job>/libpng:
//   Encode: from an image held in memory (a work-space ColourImage for the library, interleaved
//           rows for libpng) to a file in a scratch folder.
//   Decode: one file, written by libpng, read into a work-space ColourImage or into a buffer.
// Counters: peak_MB is the growth of the resident set, in MiB, while the job runs once in a forked
// child (inputs already in memory, the decoded image counted); file_bytes is the size of the file
// an encoder wrote. After the table, one summary line per job gives zel/libpng.
//
// Smoke run: ZEL_BENCH_PNG_SIZE=256 zel_bench_png --benchmark_min_time=0.01
#include <benchmark/benchmark.h>
#include <png.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zlib.h>

#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "bench_support.h"
#include "zel.h"

namespace {

constexpr int defaultSide = 4096;
int side = defaultSide;
std::string scratch;

size_t imageBytes() {
  return size_t(side) * size_t(side) * 3;
}

// ---- Contents ---------------------------------------------------------------------------------

enum class Content { Smooth, Noisy };

const char *contentName(Content content) {
  return content == Content::Smooth ? "Smooth" : "Noisy";
}

uint32_t nextRandom(uint32_t &seed) {
  seed = seed * 1664525u + 1013904223u;
  return seed >> 8;
}

// Interleaved RGB rows, made once per content.
const std::vector<uint8_t> &interleaved(Content content) {
  static std::map<Content, std::vector<uint8_t>> made;
  std::vector<uint8_t> &pixels = made[content];
  if (!pixels.empty()) return pixels;
  pixels.resize(imageBytes());
  if (content == Content::Noisy) {
    uint32_t seed = 12345;
    for (uint8_t &value : pixels)
      value = static_cast<uint8_t>(nextRandom(seed));
    return pixels;
  }
  // Red across, green down, blue along the diagonal.
  const size_t span = side > 1 ? size_t(side) - 1 : 1;
  uint8_t *p = pixels.data();
  for (size_t y = 0; y < size_t(side); ++y)
    for (size_t x = 0; x < size_t(side); ++x) {
      *p++ = static_cast<uint8_t>(x * 255 / span);
      *p++ = static_cast<uint8_t>(y * 255 / span);
      *p++ = static_cast<uint8_t>((x + y) * 255 / (2 * span));
    }
  return pixels;
}

// The same pixels band after band, the layout of the library's exchange functions.
std::vector<uint8_t> planar(const std::vector<uint8_t> &rgb) {
  const size_t pixels = rgb.size() / 3;
  std::vector<uint8_t> bands(rgb.size());
  for (size_t i = 0; i < pixels; ++i)
    for (size_t b = 0; b < 3; ++b)
      bands[b * pixels + i] = rgb[3 * i + b];
  return bands;
}

// libpng takes rows through non-const pointers, also for writing, where it only reads them.
std::vector<png_bytep> rowPointers(const uint8_t *rgb) {
  std::vector<png_bytep> rows(static_cast<size_t>(side));
  for (size_t y = 0; y < rows.size(); ++y)
    rows[y] = const_cast<uint8_t *>(rgb) + y * size_t(side) * 3;
  return rows;
}

std::string pathOf(const std::string &name) {
  return scratch + "/" + name + ".png";
}

long long fileSize(const std::string &path) {
  struct stat about {};
  return stat(path.c_str(), &about) == 0 ? static_cast<long long>(about.st_size) : -1;
}

// ---- libpng -----------------------------------------------------------------------------------

// libpng reports failures by longjmp into these two functions; nothing between their setjmp and
// their end has a destructor.
bool libpngWriteRows(FILE *file, png_bytepp rows) {
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_write_struct(&png, &info);
    return false;
  }
  png_init_io(png, file);
  png_set_IHDR(png, info, png_uint_32(side), png_uint_32(side), 8, PNG_COLOR_TYPE_RGB,
               PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  png_set_filter(png, PNG_FILTER_TYPE_BASE, PNG_ALL_FILTERS);
  png_set_compression_level(png, Z_DEFAULT_COMPRESSION);
  png_set_compression_method(png, Z_DEFLATED);
  png_set_compression_window_bits(png, 15);
  png_set_compression_mem_level(png, 8);
  png_set_compression_strategy(png, Z_FILTERED);
  png_set_compression_buffer_size(png, 8192);
  png_write_info(png, info);
  png_write_image(png, rows);
  png_write_end(png, nullptr);
  png_destroy_write_struct(&png, &info);
  return true;
}

// Reads an RGB file of 8 bits and of the benchmark's size into `rows`; false for anything else.
bool libpngReadRows(FILE *file, png_bytepp rows) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  if (!png) return false;
  png_infop info = png_create_info_struct(png);
  if (!info || setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return false;
  }
  png_init_io(png, file);
  png_read_info(png, info);
  bool fits = png_get_image_width(png, info) == png_uint_32(side) &&
              png_get_image_height(png, info) == png_uint_32(side) &&
              png_get_bit_depth(png, info) == 8 &&
              png_get_color_type(png, info) == PNG_COLOR_TYPE_RGB &&
              png_get_interlace_type(png, info) == PNG_INTERLACE_NONE;
  if (fits) {
    png_read_image(png, rows);
    png_read_end(png, nullptr);
  }
  png_destroy_read_struct(&png, &info, nullptr);
  return fits;
}

bool libpngEncode(const std::string &path, png_bytepp rows) {
  FILE *file = std::fopen(path.c_str(), "wb");
  if (!file) return false;
  bool written = libpngWriteRows(file, rows);
  return std::fclose(file) == 0 && written;
}

bool libpngDecode(const std::string &path, png_bytepp rows) {
  FILE *file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  bool read = libpngReadRows(file, rows);
  std::fclose(file);
  return read;
}

// The one file both decoders read, written by libpng once per content.
const std::string &commonInput(Content content) {
  static std::map<Content, std::string> written;
  std::string &path = written[content];
  if (path.empty()) {
    std::vector<png_bytep> rows = rowPointers(interleaved(content).data());
    std::string name = pathOf(std::string("input") + contentName(content));
    if (libpngEncode(name, rows.data())) path = name;
  }
  return path;
}

// ---- The library ------------------------------------------------------------------------------

class Context : public zel::bench::ContextOwner {
 public:
  // A work-space ColourImage of three bands, filled from interleaved `rgb` when given.
  ZelObject *colourImage(const std::vector<uint8_t> *rgb) {
    ZelAttribute shape[] = {{"xDimension", side},
                            {"yDimension", side},
                            {"bDimension", 3},
                            {"dataType", ZelNonNegative},
                            {"repository", ZelWorkSpace}};
    ZelObject *image = Zel000a(ctx_, nullptr, nullptr, shape, 5);
    if (!image || Zel003b(ctx_) != 0) return nullptr;
    if (rgb) {
      std::vector<uint8_t> bands = planar(*rgb);
      if (Zel609(ctx_, bands.data(), image, nullptr, 0) != 0) return nullptr;
    }
    return image;
  }

  // An empty work-space ColourImage for a reader to shape and fill.
  ZelObject *readTarget() {
    ZelAttribute where[] = {{"repository", ZelWorkSpace}};
    return Zel000a(ctx_, nullptr, nullptr, where, 1);
  }
};

// True when `image` holds the pixels of `content`.
bool holds(ZelContext *ctx, ZelObject *image, Content content) {
  if (Zel005a(ctx, image, "xDimension") != side || Zel005a(ctx, image, "yDimension") != side ||
      Zel005a(ctx, image, "bDimension") != 3)
    return false;
  // An image read from a compressed file keeps the stream's byte count in "size", which would
  // bound the buffer; the list gives the buffer's own size.
  std::vector<uint8_t> bands(imageBytes());
  ZelAttribute buffer[] = {{"size", static_cast<ZelValue>(bands.size())}};
  return Zel605(ctx, image, bands.data(), buffer, 1) == 0 && bands == planar(interleaved(content));
}

// True when libpng reads the pixels of `content` back from `path`.
bool libpngReadsBack(const std::string &path, Content content) {
  std::vector<uint8_t> rgb(imageBytes());
  std::vector<png_bytep> rows = rowPointers(rgb.data());
  return libpngDecode(path, rows.data()) && rgb == interleaved(content);
}

// ---- Peak memory ------------------------------------------------------------------------------

long residentKiB() {
  FILE *status = std::fopen("/proc/self/status", "r");
  if (!status) return -1;
  char line[256];
  long kib = -1;
  while (std::fgets(line, sizeof line, status))
    if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1) break;
  std::fclose(status);
  return kib;
}

// Runs `job` once in a forked child. The result is the growth of the child's resident set, in
// MiB, from the fork to the child's peak (ru_maxrss of wait4); -1 when the job or the
// measurement failed.
template <class Job>
double peakGrowthMiB(Job job) {
  int channel[2];
  if (pipe(channel) != 0) return -1;
  std::fflush(nullptr);
  pid_t child = fork();
  if (child < 0) {
    close(channel[0]);
    close(channel[1]);
    return -1;
  }
  if (child == 0) {
    close(channel[0]);
    long before = residentKiB();
    bool sent = write(channel[1], &before, sizeof before) == ssize_t(sizeof before);
    _exit(sent && before >= 0 && job() ? 0 : 1);
  }
  close(channel[1]);
  long before = -1;
  bool received = read(channel[0], &before, sizeof before) == ssize_t(sizeof before);
  close(channel[0]);
  int status = 0;
  struct rusage usage {};
  if (wait4(child, &status, 0, &usage) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
      !received || before < 0)
    return -1;
  return double(usage.ru_maxrss > before ? usage.ru_maxrss - before : 0) / 1024.0;
}

// Measured once per benchmark name; later calls of the benchmark function reuse the figure.
template <class Job>
void countPeak(benchmark::State &state, const std::string &name, Job job) {
  static std::map<std::string, double> measured;
  auto found = measured.find(name);
  if (found == measured.end()) found = measured.emplace(name, peakGrowthMiB(job)).first;
  if (found->second < 0)
    state.SkipWithError("the job failed in the child that measures its memory");
  else
    state.counters["peak_MB"] = found->second;
}

// Done once per name: the check after the first run of a job.
bool firstTime(const std::string &name) {
  static std::map<std::string, bool> seen;
  return !std::exchange(seen[name], true);
}

void finish(benchmark::State &state) {
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(imageBytes()));
}

std::string failure(const char *call, int code) {
  return std::string(call) + " returned " + std::to_string(code);
}

// ---- The jobs ---------------------------------------------------------------------------------

void encodeZel(benchmark::State &state, Content content) {
  const std::string name = std::string("Encode") + contentName(content) + "/zel";
  const std::string path = pathOf(std::string("zel") + contentName(content));
  Context ctx;
  ZelObject *image = ctx.colourImage(&interleaved(content));
  if (!image) return state.SkipWithError("the source image could not be made");
  int code = Zel702x(ctx.get(), image, path.c_str(), ZelPng, nullptr, 0);
  if (code != 0) return state.SkipWithError(failure("Zel702x", code).c_str());
  if (firstTime(name) && !libpngReadsBack(path, content))
    return state.SkipWithError("libpng does not read the written file back as the image");
  state.counters["file_bytes"] = double(fileSize(path));
  countPeak(state, name,
            [&] { return Zel702x(ctx.get(), image, path.c_str(), ZelPng, nullptr, 0) == 0; });
  for (auto _ : state) {
    code = Zel702x(ctx.get(), image, path.c_str(), ZelPng, nullptr, 0);
    if (code != 0) {
      state.SkipWithError(failure("Zel702x", code).c_str());
      break;
    }
  }
  finish(state);
}

void encodeLibpng(benchmark::State &state, Content content) {
  const std::string name = std::string("Encode") + contentName(content) + "/libpng";
  const std::string path = pathOf(std::string("libpng") + contentName(content));
  std::vector<png_bytep> rows = rowPointers(interleaved(content).data());
  if (!libpngEncode(path, rows.data())) return state.SkipWithError("libpng failed to write");
  if (firstTime(name) && !libpngReadsBack(path, content))
    return state.SkipWithError("libpng does not read the written file back as the image");
  state.counters["file_bytes"] = double(fileSize(path));
  countPeak(state, name, [&] { return libpngEncode(path, rows.data()); });
  for (auto _ : state)
    if (!libpngEncode(path, rows.data())) {
      state.SkipWithError("libpng failed to write");
      break;
    }
  finish(state);
}

void decodeZel(benchmark::State &state, Content content) {
  const std::string name = std::string("Decode") + contentName(content) + "/zel";
  const std::string &path = commonInput(content);
  if (path.empty()) return state.SkipWithError("libpng failed to write the input file");
  Context ctx;
  ZelObject *image = ctx.readTarget();
  if (!image) return state.SkipWithError("the target image could not be made");
  int code = Zel703x(ctx.get(), path.c_str(), image, ZelPng, nullptr, 0);
  if (code != 0) return state.SkipWithError(failure("Zel703x", code).c_str());
  if (firstTime(name) && !holds(ctx.get(), image, content))
    return state.SkipWithError("the image read differs from the one written");
  countPeak(state, name, [&] {
    ZelObject *fresh = ctx.readTarget();
    return fresh && Zel703x(ctx.get(), path.c_str(), fresh, ZelPng, nullptr, 0) == 0;
  });
  for (auto _ : state) {
    code = Zel703x(ctx.get(), path.c_str(), image, ZelPng, nullptr, 0);
    if (code != 0) {
      state.SkipWithError(failure("Zel703x", code).c_str());
      break;
    }
  }
  finish(state);
}

void decodeLibpng(benchmark::State &state, Content content) {
  const std::string name = std::string("Decode") + contentName(content) + "/libpng";
  const std::string &path = commonInput(content);
  if (path.empty()) return state.SkipWithError("libpng failed to write the input file");
  if (firstTime(name) && !libpngReadsBack(path, content))
    return state.SkipWithError("the image read differs from the one written");
  countPeak(state, name, [&] {
    std::vector<uint8_t> fresh(imageBytes());
    std::vector<png_bytep> freshRows = rowPointers(fresh.data());
    return libpngDecode(path, freshRows.data());
  });
  std::vector<uint8_t> rgb(imageBytes());
  std::vector<png_bytep> rows = rowPointers(rgb.data());
  for (auto _ : state)
    if (!libpngDecode(path, rows.data())) {
      state.SkipWithError("libpng failed to read");
      break;
    }
  finish(state);
}

// ---- Registration and summary -----------------------------------------------------------------

using Runner = void (*)(benchmark::State &, Content);
struct Job {
  const char *verb;
  Runner zel, libpng;
};
constexpr Job jobs[] = {{"Encode", encodeZel, encodeLibpng}, {"Decode", decodeZel, decodeLibpng}};
constexpr Content contents[] = {Content::Smooth, Content::Noisy};

std::string jobName(const Job &job, Content content) {
  return std::string("BM_") + job.verb + contentName(content);
}

void registerAll() {
  for (const Job &job : jobs)
    for (Content content : contents)
      for (bool zel : {true, false}) {
        std::string name = jobName(job, content) + (zel ? "/zel" : "/libpng");
        benchmark::RegisterBenchmark(name.c_str(), zel ? job.zel : job.libpng, content)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
      }
}

struct Outcome {
  double realMs = 0, cpuMs = 0;  // sums over `runs`
  int runs = 0;
  double peakMiB = -1;
  double fileBytes = -1;
  std::string error;
};

// Passes everything to the display reporter of the command line and keeps each benchmark's mean
// times and counters for the summary: the mean of the repetitions when they are aggregated,
// else the mean of the runs reported.
class Collector : public benchmark::BenchmarkReporter {
 public:
  explicit Collector(benchmark::BenchmarkReporter *display) : display_(display) {}
  bool ReportContext(const Context &context) override { return display_->ReportContext(context); }
  void ReportRuns(const std::vector<Run> &runs) override {
    display_->ReportRuns(runs);
    for (const Run &run : runs) {
      bool mean = run.run_type == Run::RT_Aggregate && run.aggregate_name == "mean";
      if (run.run_type != Run::RT_Iteration && !mean) continue;
      Outcome &outcome = outcomes_[run.run_name.function_name];
      if (run.error_occurred) {
        outcome.error = run.error_message;
        continue;
      }
      if (mean) outcome = Outcome{};
      outcome.realMs += run.GetAdjustedRealTime();
      outcome.cpuMs += run.GetAdjustedCPUTime();
      ++outcome.runs;
      if (auto peak = run.counters.find("peak_MB"); peak != run.counters.end())
        outcome.peakMiB = peak->second.value;
      if (auto bytes = run.counters.find("file_bytes"); bytes != run.counters.end())
        outcome.fileBytes = bytes->second.value;
    }
  }
  void Finalize() override { display_->Finalize(); }
  const Outcome *find(const std::string &name) const {
    auto found = outcomes_.find(name);
    return found == outcomes_.end() ? nullptr : &found->second;
  }

 private:
  benchmark::BenchmarkReporter *display_;
  std::map<std::string, Outcome> outcomes_;
};

std::string formatted(const char *format, double a, double b) {
  char text[128];
  std::snprintf(text, sizeof text, format, a, b);
  return text;
}

std::string describe(const Outcome *outcome) {
  if (!outcome) return "not run";
  if (outcome->runs == 0) return "failed (" + outcome->error + ")";
  char text[32];
  std::snprintf(text, sizeof text, "%.2f ms", outcome->realMs / outcome->runs);
  return text;
}

std::vector<char> contentsOf(const std::string &path) {
  std::vector<char> bytes;
  if (FILE *file = std::fopen(path.c_str(), "rb")) {
    char block[65536];
    for (size_t got; (got = std::fread(block, 1, sizeof block, file)) > 0;)
      bytes.insert(bytes.end(), block, block + got);
    std::fclose(file);
  }
  return bytes;
}

// One line per job: both times and zel/libpng of real and CPU time, peak memory, and for the
// encoders the file sizes and whether the two files are the same bytes.
void printSummary(std::ostream &out, const Collector &collected) {
  bool headed = false;
  for (const Job &job : jobs)
    for (Content content : contents) {
      std::string name = jobName(job, content);
      const Outcome *zel = collected.find(name + "/zel");
      const Outcome *libpng = collected.find(name + "/libpng");
      if (!zel && !libpng) continue;
      if (!std::exchange(headed, true))
        out << "\nzel / libpng, " << side << " x " << side << " RGB, 8 bits:\n";
      out << name << ": zel " << describe(zel) << ", libpng " << describe(libpng);
      if (zel && libpng && zel->runs > 0 && libpng->runs > 0) {
        out << formatted(", ratio %.2f (CPU time %.2f)",
                         (zel->realMs / zel->runs) / (libpng->realMs / libpng->runs),
                         (zel->cpuMs / zel->runs) / (libpng->cpuMs / libpng->runs))
            << formatted("; peak RSS zel %.1f MB libpng %.1f MB", zel->peakMiB, libpng->peakMiB);
        if (zel->fileBytes >= 0 && libpng->fileBytes >= 0) {
          bool same = contentsOf(pathOf(std::string("zel") + contentName(content))) ==
                      contentsOf(pathOf(std::string("libpng") + contentName(content)));
          out << formatted("; file zel %.0f B libpng %.0f B", zel->fileBytes, libpng->fileBytes)
              << (same ? ", identical" : ", different bytes");
        }
      }
      out << '\n';
    }
}

void removeScratch() {
  for (const char *who : {"zel", "libpng", "input"})
    for (Content content : contents)
      std::remove(pathOf(std::string(who) + contentName(content)).c_str());
  rmdir(scratch.c_str());
}

// The side from ZEL_BENCH_PNG_SIZE, or the default; 0 for a value that isn't 1 to 16384.
int sideFromEnvironment() {
  const char *text = std::getenv("ZEL_BENCH_PNG_SIZE");
  if (!text || !*text) return defaultSide;
  char *end = nullptr;
  long value = std::strtol(text, &end, 10);
  return *end == '\0' && value >= 1 && value <= 16384 ? int(value) : 0;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  side = sideFromEnvironment();
  if (side == 0) {
    std::cerr << "ZEL_BENCH_PNG_SIZE must be a side length from 1 to 16384\n";
    return 1;
  }
  const char *tmp = std::getenv("TMPDIR");
  std::string folder = std::string(tmp && *tmp ? tmp : "/tmp") + "/zelbenchpngXXXXXX";
  if (!mkdtemp(folder.data())) {
    std::perror("mkdtemp");
    return 1;
  }
  scratch = folder;
  registerAll();
  benchmark::BenchmarkReporter *display = benchmark::CreateDefaultDisplayReporter();
  Collector collector(display);
  benchmark::RunSpecifiedBenchmarks(&collector);
  // The summary goes with the table on the console; beside JSON or CSV it goes to stderr.
  bool console = dynamic_cast<benchmark::ConsoleReporter *>(display) != nullptr;
  printSummary(console ? std::cout : std::cerr, collector);
  removeScratch();
  benchmark::Shutdown();
  return 0;
}
