// The zel command-line program, run as a separate process on files made and checked through the
// library.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>

#include "test_support.h"

extern char **environ;

namespace zel::test {
namespace {

// The program: named by the build, or beside the test program's own folder.
fs::path toolPath() {
#ifdef ZEL_TOOL
  return ZEL_TOOL;
#else
  return fs::canonical("/proc/self/exe").parent_path().parent_path() / "tools" / "zel";
#endif
}

struct Outcome {
  int status = -1;  // the exit status; -1 when the program didn't exit by itself
  std::string out;
  std::string err;
};

std::string fileText(const fs::path &path) {
  std::vector<uint8_t> bytes = fileBytes(path);
  return {bytes.begin(), bytes.end()};
}

// A picture of 8-bit pixels, bands one after the other as the library lays them out.
struct Picture {
  int width = 0;
  int height = 0;
  int bands = 1;
  std::vector<uint8_t> pixels;
};

Picture greyRamp() {
  Picture ramp{16, 16, 1, std::vector<uint8_t>(256)};
  for (int i = 0; i < 256; ++i)
    ramp.pixels[static_cast<size_t>(i)] = static_cast<uint8_t>((i * 37 + 11) % 256);
  return ramp;
}

Picture colourPicture() {
  Picture colour{5, 3, 3, std::vector<uint8_t>(45)};
  for (size_t i = 0; i < colour.pixels.size(); ++i)
    colour.pixels[i] = static_cast<uint8_t>(i * 29 % 251);
  return colour;
}

Picture mapped(const Picture &picture, const std::function<int(int)> &f) {
  Picture result = picture;
  for (uint8_t &pixel : result.pixels)
    pixel = static_cast<uint8_t>(f(pixel));
  return result;
}

// Pixels that differ, up to a few, for a failure message.
std::string differences(const Picture &expected, const Picture &actual) {
  if (expected.width != actual.width || expected.height != actual.height ||
      expected.bands != actual.bands || expected.pixels.size() != actual.pixels.size())
    return "shape " + std::to_string(actual.width) + "x" + std::to_string(actual.height) + "x" +
           std::to_string(actual.bands) + ", not " + std::to_string(expected.width) + "x" +
           std::to_string(expected.height) + "x" + std::to_string(expected.bands);
  std::string found;
  int count = 0;
  for (size_t i = 0; i < expected.pixels.size(); ++i) {
    if (expected.pixels[i] == actual.pixels[i]) continue;
    if (count++ < 6)
      found += " [" + std::to_string(i) + "] expected " + std::to_string(expected.pixels[i]) +
               " got " + std::to_string(actual.pixels[i]) + ";";
  }
  return count == 0 ? "" : std::to_string(count) + " pixels differ:" + found;
}

// The line the library logs for the failure of `call` in a fresh context: what the program must
// print for the same failure.
std::string libraryMessage(const std::function<void(ZelContext *)> &call) {
  const fs::path log = fs::current_path() / "library.log";
  std::string text;
  {
    ContextGuard ctx(log.c_str());
    call(ctx);
    std::istringstream lines(fileText(log));
    std::getline(lines, text);
  }
  fs::remove(log);
  EXPECT_TRUE(text.starts_with("zel: ")) << "the library logged '" << text << "'";
  return text + "\n";
}

// An image in work space holding `picture`, with a table of colours when `palette` has any
// (three bands of its size / 3 entries each).
ZelObject *imageOf(ZelContext *ctx, const Picture &picture, int dataType = ZelNonNegative,
                   const std::vector<uint8_t> &palette = {}) {
  std::vector<ZelAttribute> list{{"repository", ZelWorkSpace},
                                 {"xDimension", picture.width},
                                 {"yDimension", picture.height},
                                 {"bDimension", picture.bands},
                                 {"dataType", dataType}};
  if (!palette.empty()) {
    const ZelAttribute shape[] = {{"repository", ZelWorkSpace},
                                  {"xDimension", static_cast<ZelValue>(palette.size() / 3)},
                                  {"bDimension", 3}};
    ZelObject *table = Zel000e(ctx, nullptr, nullptr, shape, 3);
    EXPECT_NE(table, nullptr);
    std::vector<uint8_t> colours = palette;
    EXPECT_EQ(Zel609(ctx, colours.data(), table, nullptr, 0), 0);
    list.push_back({"lut", word(table)});
  }
  ZelObject *image = makeImage(ctx, list);
  EXPECT_NE(image, nullptr);
  std::vector<uint8_t> pixels = picture.pixels;
  EXPECT_EQ(Zel609(ctx, pixels.data(), image, nullptr, 0), 0);
  return image;
}

// Copies the pixels of an image that a reader expanded into `buffer`. The image keeps the byte
// count of its compressed data as its "size", which would bound the buffer; the buffer is known
// to be large enough.
int exportPixels(ZelContext *ctx, ZelObject *image, void *buffer) {
  const ZelAttribute unbounded{"size", 0};
  return Zel605(ctx, image, buffer, &unbounded, 1);
}

// Two lines of eight bilevel pixels, packed most significant bit first.
Picture bilevelRows() {
  return {8, 2, 1, {0xB2, 0x71}};
}

// `count` copies of `number`, one line each.
std::vector<uint8_t> numbers(int count, const std::string &number) {
  std::string text;
  for (int i = 0; i < count; ++i)
    text += number + "\n";
  return {text.begin(), text.end()};
}

// Runs the program in the scratch directory with its own temporary directory, which must be
// empty again when it has finished.
class ZelTool : public ::testing::Test {
 protected:
  Outcome run(const std::vector<std::string> &args) {
    const std::string program = toolPath().string();
    if (!fs::exists(program)) {
      ADD_FAILURE() << "no program at " << program;
      return {};
    }
    std::vector<char *> argv{const_cast<char *>(program.c_str())};
    for (const std::string &arg : args)
      argv.push_back(const_cast<char *>(arg.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "tool.out", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, "tool.err", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_t child = 0;
    int spawned = posix_spawn(&child, program.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    Outcome outcome;
    int wait = 0;
    if (spawned == 0 && waitpid(child, &wait, 0) == child && WIFEXITED(wait))
      outcome.status = WEXITSTATUS(wait);
    EXPECT_EQ(spawned, 0) << "posix_spawn: " << std::strerror(spawned);
    outcome.out = fileText("tool.out");
    outcome.err = fileText("tool.err");
    fs::remove("tool.out");
    fs::remove("tool.err");
    EXPECT_EQ(temporary_.fileCount(), 0u) << "the program left temporary files behind";
    temporary_.clear();
    return outcome;
  }

  // Runs a conversion that must succeed.
  void convert(const std::vector<std::string> &args) {
    std::vector<std::string> all{"convert"};
    all.insert(all.end(), args.begin(), args.end());
    Outcome outcome = run(all);
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
  }

  // Writes `picture` as a PNG file through the library.
  void writePng(const std::string &name, const Picture &picture,
                const std::vector<ZelAttribute> &extra = {}, int dataType = ZelNonNegative,
                const std::vector<uint8_t> &palette = {}) {
    ZelObject *image = imageOf(ctx_, picture, dataType, palette);
    ASSERT_NE(image, nullptr);
    ASSERT_EQ(
        Zel702x(ctx_, image, name.c_str(), ZelPng, extra.data(), static_cast<int>(extra.size())),
        0);
  }

  // Reads a PNG file back through the library; with `palette`, also its colours, bands one
  // after the other, as many as the file holds.
  Picture readPng(const std::string &name, std::vector<uint8_t> *palette = nullptr) {
    const ZelAttribute tableShape[] = {{"repository", ZelWorkSpace}, {"usedXDimension", 1}};
    ZelObject *table = palette ? Zel000e(ctx_, nullptr, nullptr, tableShape, 2) : nullptr;
    ZelObject *image = makeImage(ctx_, {{"repository", ZelWorkSpace}, {"lut", word(table)}});
    Picture picture;
    if (!image) {
      ADD_FAILURE() << "no image";
      return picture;
    }
    EXPECT_EQ(Zel703x(ctx_, name.c_str(), image, ZelPng, nullptr, 0), 0) << name;
    picture.width = static_cast<int>(readAttribute(ctx_, image, "xDimension"));
    picture.height = static_cast<int>(readAttribute(ctx_, image, "yDimension"));
    picture.bands = static_cast<int>(readAttribute(ctx_, image, "bDimension"));
    picture.pixels.resize(static_cast<size_t>(picture.width * picture.height * picture.bands));
    EXPECT_EQ(exportPixels(ctx_, image, picture.pixels.data()), 0);
    if (palette) *palette = colours(table);
    EXPECT_EQ(Zel002(ctx_, image), 0);
    if (table) {
      EXPECT_EQ(Zel002(ctx_, table), 0);
    }
    return picture;
  }

  std::vector<uint8_t> colours(ZelObject *table) {
    auto entries = static_cast<size_t>(readAttribute(ctx_, table, "xDimension"));
    auto used = static_cast<size_t>(readAttribute(ctx_, table, "usedXDimension"));
    std::vector<uint8_t> all(entries * 3);
    EXPECT_EQ(Zel605(ctx_, table, all.data(), nullptr, 0), 0);
    if (used == 0) used = entries;
    std::vector<uint8_t> kept;
    for (size_t band = 0; band < 3; ++band)
      kept.insert(kept.end(), all.begin() + static_cast<std::ptrdiff_t>(band * entries),
                  all.begin() + static_cast<std::ptrdiff_t>(band * entries + used));
    return kept;
  }

  // A PNG attribute of the file's own record, as the reader gives it.
  ZelValue pngAttribute(const std::string &name, const char *attribute) {
    ZelObject *image = makeImage(ctx_, {});
    EXPECT_EQ(Zel703(ctx_, name.c_str(), image, ZelPng, ZelReadAttributes, nullptr, 0), 0);
    ZelValue value = readAttribute(ctx_, image, attribute);
    EXPECT_EQ(Zel002(ctx_, image), 0);
    return value;
  }

  void expectPicture(const Picture &expected, const std::string &name) {
    EXPECT_EQ(differences(expected, readPng(name)), "") << name;
  }

  ScratchDirectory scratch_;
  PrivateTemporaryDirectory temporary_;
  ContextGuard ctx_;
};

// ---- Help and usage ----------------------------------------------------------------------------

TEST_F(ZelTool, HelpNamesEveryCommandOptionAndExtension) {
  const char *expected[] = {"info FILE",
                            "convert IN OUT",
                            "--threshold V",
                            "--complement",
                            "--fold",
                            "--gamma G",
                            "--lookup FILE",
                            "--histogram SHAPE",
                            "--brightness-contrast B,C",
                            "--interlace",
                            "--compression NAME",
                            "--add N",
                            "--subtract N",
                            "--multiply N",
                            "--divide N",
                            "--min N",
                            "--max N",
                            "--and N",
                            "--or N",
                            "--xor N",
                            "--help",
                            "Uniform",
                            "CubeRoot",
                            "Logarithmic",
                            "Exponential",
                            "Rayleigh",
                            ".png",
                            ".tif",
                            ".tiff",
                            ".gif",
                            ".bmp",
                            ".dib",
                            ".pcx",
                            ".jpg",
                            ".jpeg",
                            ".wbmp",
                            ".rgb",
                            ".sgi",
                            ".raw"};
  Outcome help = run({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.err, "");
  for (const char *text : expected)
    EXPECT_NE(help.out.find(text), std::string::npos) << text;
  Outcome shortHelp = run({"-h"});
  EXPECT_EQ(shortHelp.status, 0);
  EXPECT_EQ(shortHelp.out, help.out);
  Outcome inCommand = run({"convert", "a.png", "b.png", "--help"});
  EXPECT_EQ(inCommand.status, 0);
  EXPECT_EQ(inCommand.out, help.out);
}

TEST_F(ZelTool, NoArgumentsPrintsUsageAndExitsTwo) {
  Outcome outcome = run({});
  EXPECT_EQ(outcome.status, 2);
  EXPECT_EQ(outcome.out, "");
  EXPECT_TRUE(outcome.err.starts_with("Usage: zel info FILE\n")) << outcome.err;
  EXPECT_NE(outcome.err.find("zel convert IN OUT"), std::string::npos) << outcome.err;
}

TEST_F(ZelTool, UsageErrorsExitTwoBeforeAnythingIsWritten) {
  writePng("in.png", greyRamp());
  writeFile("short.txt", numbers(255, "7"));
  writeFile("long.txt", numbers(257, "7"));
  std::vector<uint8_t> wide = numbers(255, "7"), over = numbers(1, "256");
  wide.insert(wide.end(), over.begin(), over.end());
  writeFile("wide.txt", wide);
  const std::vector<std::vector<std::string>> cases = {
      {"frob"},
      {"info"},
      {"info", "in.png", "more.png"},
      {"convert", "in.png"},
      {"convert", "in.png", "out.png", "extra.png"},
      {"convert", "in.png", "out.png", "--bogus"},
      {"convert", "in.png", "out.png", "--threshold"},
      {"convert", "in.png", "out.png", "--threshold", "256"},
      {"convert", "in.png", "out.png", "--threshold", "12x"},
      {"convert", "in.png", "out.png", "--and", "0xF0"},
      {"convert", "in.png", "out.png", "--gamma", "0"},
      {"convert", "in.png", "out.png", "--gamma", "nan"},
      {"convert", "in.png", "out.png", "--add", "ten"},
      {"convert", "in.png", "out.png", "--histogram", "Triangle"},
      {"convert", "in.png", "out.png", "--histogram", "Uniform,0"},
      {"convert", "in.png", "out.png", "--histogram", "Uniform,0,255,1,2"},
      {"convert", "in.png", "out.png", "--brightness-contrast", "0.5"},
      {"convert", "in.png", "out.png", "--brightness-contrast", "2,0"},
      {"convert", "in.png", "out.png", "--compression", "Zip"},
      {"convert", "in.png", "out.png", "--lookup", "missing.txt"},
      {"convert", "in.png", "out.png", "--lookup", "short.txt"},
      {"convert", "in.png", "out.png", "--lookup", "long.txt"},
      {"convert", "in.png", "out.png", "--lookup", "wide.txt"},
      {"convert", "in.png", "out.bmp", "--interlace"},
  };
  for (const std::vector<std::string> &args : cases) {
    std::string shown;
    for (const std::string &arg : args)
      shown += arg + " ";
    Outcome outcome = run(args);
    EXPECT_EQ(outcome.status, 2) << shown;
    EXPECT_TRUE(outcome.err.starts_with("zel: ")) << shown << ": " << outcome.err;
    EXPECT_NE(outcome.err.find("zel --help"), std::string::npos) << shown << ": " << outcome.err;
    EXPECT_EQ(outcome.out, "") << shown;
    EXPECT_FALSE(fs::exists("out.png") || fs::exists("out.bmp")) << shown;
  }
}

TEST_F(ZelTool, OutputWithoutAKnownExtensionIsRefused) {
  writePng("in.png", greyRamp());
  for (const char *output : {"out.xyz", "out", "dir.png/out", ".png"}) {
    Outcome outcome = run({"convert", "in.png", output});
    EXPECT_EQ(outcome.status, 2) << output;
    EXPECT_NE(outcome.err.find(std::string(output) + ": "), std::string::npos) << outcome.err;
    EXPECT_FALSE(fs::exists(output)) << output;
  }
}

TEST_F(ZelTool, ExtensionsAreMatchedWithoutRegardToCase) {
  writePng("in.png", greyRamp());
  convert({"in.png", "OUT.PNG"});
  expectPicture(greyRamp(), "OUT.PNG");
}

// ---- Failures of the library -------------------------------------------------------------------

TEST_F(ZelTool, MissingInputPrintsTheLibraryMessageAndExitsOne) {
  const std::string expected =
      libraryMessage([](ZelContext *ctx) { EXPECT_EQ(Zel705(ctx, "missing.png"), 0); });
  for (std::vector<std::string> args :
       {std::vector<std::string>{"info", "missing.png"},
        std::vector<std::string>{"convert", "missing.png", "out.png", "--complement"}}) {
    Outcome outcome = run(args);
    EXPECT_EQ(outcome.status, 1) << args[0];
    EXPECT_EQ(outcome.err, expected) << args[0];
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_FALSE(fs::exists("out.png"));
}

TEST_F(ZelTool, FileOfNoKnownFormatExitsOne) {
  writeFile("notes.txt", std::vector<uint8_t>(64, 'z'));
  for (const char *command : {"info", "convert"}) {
    std::vector<std::string> args{command, "notes.txt"};
    if (args[0] == "convert") args.push_back("out.png");
    Outcome outcome = run(args);
    EXPECT_EQ(outcome.status, 1) << command;
    EXPECT_TRUE(outcome.err.starts_with("zel: ")) << outcome.err;
    EXPECT_EQ(outcome.err.find("zel --help"), std::string::npos) << outcome.err;
  }
}

TEST_F(ZelTool, FailedWritePrintsTheLibraryMessageAndExitsOne) {
  writePng("in.png", greyRamp());
  const std::string target = "no/such/folder/out.png";
  const std::string expected = libraryMessage([&](ZelContext *ctx) {
    EXPECT_NE(Zel702x(ctx, imageOf(ctx, greyRamp()), target.c_str(), ZelPng, nullptr, 0), 0);
  });
  Outcome outcome = run({"convert", "in.png", target});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, expected);
}

TEST_F(ZelTool, OperatorThatRefusesThePixelTypePrintsTheLibraryMessage) {
  writePng("bits.png", bilevelRows(), {}, ZelBoolean);
  const std::string expected = libraryMessage([](ZelContext *ctx) {
    ZelObject *bits = imageOf(ctx, bilevelRows(), ZelBoolean);
    ZelObject *out = imageOf(ctx, bilevelRows(), ZelBoolean);
    ZelScalar level{};
    EXPECT_NE(Zel122(ctx, bits, out, level, level, level), 0);
  });
  Outcome outcome = run({"convert", "bits.png", "out.png", "--threshold", "3"});
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.err, expected);
  EXPECT_FALSE(fs::exists("out.png"));
}

TEST_F(ZelTool, BilevelImagesAreComplementedBitByBit) {
  writePng("bits.png", bilevelRows(), {}, ZelBoolean);
  convert({"bits.png", "out.png", "--complement"});
  EXPECT_EQ(pngAttribute("out.png", "dataType"), ZelBoolean);
  ZelObject *image = makeImage(ctx_, {{"repository", ZelWorkSpace}});
  ASSERT_EQ(Zel703x(ctx_, "out.png", image, ZelPng, nullptr, 0), 0);
  std::vector<uint8_t> packed(2);
  ASSERT_EQ(exportPixels(ctx_, image, packed.data()), 0);
  EXPECT_EQ(packed, (std::vector<uint8_t>{0x4D, 0x8E}));
}

// ---- info
// ----------------------------------------------------------------------------------------

std::map<std::string, std::string> infoLines(const std::string &out) {
  std::map<std::string, std::string> lines;
  std::istringstream in(out);
  for (std::string line; std::getline(in, line);) {
    size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    size_t value = line.find_first_not_of(' ', colon + 1);
    lines[line.substr(0, colon)] = value == std::string::npos ? "" : line.substr(value);
  }
  return lines;
}

TEST_F(ZelTool, InfoDescribesAGreyPng) {
  Picture grey{7, 3, 1, std::vector<uint8_t>(21, 9)};
  writePng("grey.png", grey);
  Outcome outcome = run({"info", "grey.png"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  EXPECT_EQ(outcome.err, "");
  const std::map<std::string, std::string> expected = {
      {"format", "Png"},           {"pages", "1"},
      {"dimensions", "7 3 1 1 1"}, {"data type", "NonNegative"},
      {"precision", "8"},          {"compression", "PngDeflate"},
      {"colour space", "None"}};
  EXPECT_EQ(infoLines(outcome.out), expected) << outcome.out;
}

TEST_F(ZelTool, InfoDescribesAColourPng) {
  writePng("colour.png", colourPicture());
  Outcome outcome = run({"info", "colour.png"});
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  std::map<std::string, std::string> lines = infoLines(outcome.out);
  EXPECT_EQ(lines["format"], "Png");
  EXPECT_EQ(lines["dimensions"], "5 3 1 1 3");
  EXPECT_EQ(lines["data type"], "NonNegative");
  EXPECT_EQ(lines["colour space"], "Rgb");
}

// ---- convert
// -------------------------------------------------------------------------------------

TEST_F(ZelTool, ConvertWithoutOperatorsKeepsThePixels) {
  writePng("grey.png", greyRamp());
  writePng("colour.png", colourPicture());
  convert({"grey.png", "grey-out.png"});
  convert({"colour.png", "colour-out.png"});
  expectPicture(greyRamp(), "grey-out.png");
  expectPicture(colourPicture(), "colour-out.png");
  EXPECT_EQ(pngAttribute("grey-out.png", "colourType"), ZelPngGreyscale);
  EXPECT_EQ(pngAttribute("colour-out.png", "colourType"), ZelPngTrueColour);
}

int clampByte(double value) {
  return static_cast<int>(std::min(255.0, std::max(0.0, value)));
}

// The table of a histogram modification of greyRamp(), where every level occurs once, by the
// curve of the share of pixels up to a level.
std::function<int(int)> reshaped(const std::function<double(double)> &curve) {
  return [curve](int p) { return static_cast<uint8_t>(static_cast<int>(curve((p + 1) / 256.0))); };
}

// The S-curve through (0.5 - 0.2 b, 0.5 + 0.2 b) with both halves power curves; the ends repeat
// their neighbours.
std::function<int(int)> sCurve(double brightness, double contrast) {
  auto entry = [=](int i) {
    double p = brightness * 0.2, c = 0.5 - p, d = 0.5 + p, g = contrast + 1;
    double e1 = g * c / d, e2 = g * (1 - c) / (1 - d);
    double k1 = d * std::pow(c, -e1), k2 = -(1 - d) * std::pow(1 - c, -e2);
    double t = i / 255.0;
    if (t < c) return static_cast<int>(std::pow(t, e1) * k1 * 255);
    return static_cast<int>((std::pow(1 - t, e2) * k2 + 1) * 255);
  };
  return [entry](int p) { return entry(std::clamp(p, 1, 254)); };
}

struct OperatorCase {
  const char *name;
  std::vector<std::string> options;
  std::function<int(int)> pixel;
};

class ZelToolOperator : public ZelTool, public ::testing::WithParamInterface<OperatorCase> {};

TEST_P(ZelToolOperator, GivesTheExpectedPixels) {
  const OperatorCase &c = GetParam();
  writePng("in.png", greyRamp());
  std::vector<std::string> args{"in.png", "out.png"};
  args.insert(args.end(), c.options.begin(), c.options.end());
  convert(args);
  expectPicture(mapped(greyRamp(), c.pixel), "out.png");
}

const OperatorCase operatorCases[] = {
    {"Threshold", {"--threshold", "100"}, [](int p) { return p < 100 ? 0 : 255; }},
    {"ThresholdZeroGivesWhite", {"--threshold", "0"}, [](int) { return 255; }},
    {"Complement", {"--complement"}, [](int p) { return 255 - p; }},
    {"Fold", {"--fold"}, [](int p) { return p < 128 ? p : 255 - p; }},
    {"GammaAboveOneBrightens",
     {"--gamma", "2"},
     [](int p) { return clampByte(std::pow(p * (1.0 / 255), 0.5) * 255 + 0.5); }},
    {"GammaBelowOneDarkens",
     {"--gamma", "0.5"},
     [](int p) { return clampByte(std::pow(p * (1.0 / 255), 2.0) * 255 + 0.5); }},
    {"HistogramUniform", {"--histogram", "uniform"}, reshaped([](double share) {
       return 255 * share + 0.5;
     })},
    {"HistogramUniformBetweenBounds", {"--histogram", "Uniform,10,100"}, reshaped([](double share) {
       return 90 * share + 10 + 0.5;
     })},
    {"HistogramLogarithmic", {"--histogram", "LOGARITHMIC,2,200"}, reshaped([](double share) {
       return 2 * std::pow(100.0, share) + 0.5;
     })},
    {"HistogramCubeRoot", {"--histogram", "CubeRoot,0,255"}, reshaped([](double share) {
       double top = std::pow(255.0, 0.3333333333333333);
       return std::pow(top * share, 3.0) + 0.5;
     })},
    {"BrightnessContrastFlat", {"--brightness-contrast", "0,0"}, sCurve(0, 0)},
    {"BrightnessContrast", {"--brightness-contrast", "0.25,0.5"}, sCurve(0.25, 0.5)},
    {"Add", {"--add", "100"}, [](int p) { return std::min(p + 100, 255); }},
    {"AddNegative", {"--add", "-100"}, [](int p) { return std::max(p - 100, 0); }},
    {"AddTakesTheNumberTowardZero", {"--add", "2.9"}, [](int p) { return std::min(p + 2, 255); }},
    {"Subtract", {"--subtract", "60"}, [](int p) { return std::max(p - 60, 0); }},
    {"Multiply", {"--multiply", "3"}, [](int p) { return std::min(p * 3, 255); }},
    {"Divide", {"--divide", "7"}, [](int p) { return p / 7; }},
    {"DivideByZeroKeepsThePixels", {"--divide", "0"}, [](int p) { return p; }},
    {"Min", {"--min", "90"}, [](int p) { return std::min(p, 90); }},
    {"Max", {"--max", "90"}, [](int p) { return std::max(p, 90); }},
    {"And", {"--and", "240"}, [](int p) { return p & 240; }},
    {"Or", {"--or", "15"}, [](int p) { return p | 15; }},
    {"Xor", {"--xor", "170"}, [](int p) { return p ^ 170; }},
    {"OperatorsApplyInTheOrderGiven",
     {"--add", "100", "--complement"},
     [](int p) { return 255 - std::min(p + 100, 255); }},
    {"OperatorsApplyInTheOtherOrder",
     {"--complement", "--add", "100"},
     [](int p) { return std::min(255 - p + 100, 255); }},
    {"ThresholdAfterGamma",
     {"--gamma", "2", "--threshold", "128"},
     [](int p) { return clampByte(std::pow(p * (1.0 / 255), 0.5) * 255 + 0.5) < 128 ? 0 : 255; }},
};

INSTANTIATE_TEST_SUITE_P(Convert, ZelToolOperator, ::testing::ValuesIn(operatorCases),
                         [](const ::testing::TestParamInfo<OperatorCase> &test) {
                           return std::string(test.param.name);
                         });

TEST_F(ZelTool, HistogramShapesWithAnAlphaFollowTheirCurves) {
  writePng("in.png", greyRamp());
  convert({"in.png", "exponential.png", "--histogram", "exponential,10,255,0.05"});
  convert({"in.png", "rayleigh.png", "--histogram", "Rayleigh,5,255,40"});
  Picture exponential = readPng("exponential.png");
  Picture rayleigh = readPng("rayleigh.png");
  ASSERT_EQ(exponential.pixels.size(), 256u);
  ASSERT_EQ(rayleigh.pixels.size(), 256u);
  // The top level has the whole image below it; the curves have no value there.
  for (size_t i = 0; i < 256; ++i) {
    int p = greyRamp().pixels[i];
    if (p == 255) continue;
    double share = (p + 1) / 256.0;
    EXPECT_EQ(exponential.pixels[i], static_cast<uint8_t>(10 - std::log(1 - share) / 0.05)) << p;
    EXPECT_EQ(rayleigh.pixels[i],
              static_cast<uint8_t>(5 + std::sqrt(2 * 40.0 * 40.0 * std::log(1 / (1 - share)))))
        << p;
  }
}

TEST_F(ZelTool, LookupMapsThroughTheNumbersOfTheFile) {
  writePng("in.png", greyRamp());
  std::string table;
  for (int i = 0; i < 256; ++i)
    table += std::to_string((i * 7 + 3) % 256) + (i % 16 ? " " : "\n");
  writeFile("table.txt", std::vector<uint8_t>(table.begin(), table.end()));
  convert({"in.png", "out.png", "--lookup", "table.txt"});
  expectPicture(mapped(greyRamp(), [](int p) { return (p * 7 + 3) % 256; }), "out.png");
}

TEST_F(ZelTool, OperatorsApplyToEveryBandOfAColourImage) {
  writePng("colour.png", colourPicture());
  convert({"colour.png", "out.png", "--complement", "--threshold", "128"});
  expectPicture(mapped(colourPicture(), [](int p) { return 255 - p < 128 ? 0 : 255; }), "out.png");
  EXPECT_EQ(pngAttribute("out.png", "colourType"), ZelPngTrueColour);
}

TEST_F(ZelTool, InterlaceWritesAdam7AndKeepsThePixels) {
  writePng("colour.png", colourPicture());
  convert({"colour.png", "interlaced.png", "--interlace"});
  EXPECT_EQ(pngAttribute("interlaced.png", "interlacedImage"), 1);
  expectPicture(colourPicture(), "interlaced.png");
}

TEST_F(ZelTool, InterlacedInputGivesPlainOutputUnlessAsked) {
  writePng("interlaced.png", greyRamp(), {{"interlacedImage", 1}});
  ASSERT_EQ(pngAttribute("interlaced.png", "interlacedImage"), 1);
  convert({"interlaced.png", "plain.png"});
  EXPECT_EQ(pngAttribute("plain.png", "interlacedImage"), 0);
  expectPicture(greyRamp(), "plain.png");
  convert({"interlaced.png", "again.png", "--complement", "--interlace"});
  EXPECT_EQ(pngAttribute("again.png", "interlacedImage"), 1);
  expectPicture(mapped(greyRamp(), [](int p) { return 255 - p; }), "again.png");
}

TEST_F(ZelTool, PaletteImagesKeepTheirColours) {
  const std::vector<uint8_t> palette = {200, 10, 0, 40,    // red of the four colours
                                        0,   20, 0, 80,    // green
                                        100, 30, 0, 120};  // blue
  Picture indices{6, 2, 1, {0, 1, 2, 3, 3, 2, 1, 0, 0, 1, 2, 3}};
  writePng("palette.png", indices, {}, ZelNonNegative, palette);
  ASSERT_EQ(pngAttribute("palette.png", "colourType"), ZelPalette);
  for (const std::vector<std::string> &options :
       {std::vector<std::string>{}, std::vector<std::string>{"--min", "2"}}) {
    std::vector<std::string> args{"palette.png", "out.png"};
    args.insert(args.end(), options.begin(), options.end());
    convert(args);
    std::vector<uint8_t> colours;
    Picture expected =
        options.empty() ? indices : mapped(indices, [](int p) { return std::min(p, 2); });
    EXPECT_EQ(differences(expected, readPng("out.png", &colours)), "");
    EXPECT_EQ(colours, palette);
    EXPECT_EQ(pngAttribute("out.png", "colourType"), ZelPalette);
  }
}

TEST_F(ZelTool, RawOutputHoldsThePixelsAsTheyLie) {
  writePng("colour.png", colourPicture());
  convert({"colour.png", "out.raw"});
  EXPECT_EQ(fileBytes("out.raw"), colourPicture().pixels);
}

TEST_F(ZelTool, OutputOverwritesAnExistingFile) {
  writePng("in.png", greyRamp());
  writeFile("out.png", std::vector<uint8_t>(10000, 0xAB));
  convert({"in.png", "out.png", "--complement"});
  expectPicture(mapped(greyRamp(), [](int p) { return 255 - p; }), "out.png");
}

}  // namespace
}  // namespace zel::test
