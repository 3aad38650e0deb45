// PNG interchange checked against independent tools: the public corpus decoded by Pillow,
// files Zel writes validated by pngcheck and decoded by Pillow, and files Pillow writes read
// back by Zel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

namespace fs = std::filesystem;
using zel::test::ContextGuard;
using zel::test::ScratchDirectory;
using zel::test::word;

// Pillow's view of a file: mode, size and samples in band-planar order.
struct Decoded {
  bool ok = false;
  std::string mode;
  std::string error;
  int width = 0, height = 0, bands = 0;
  std::vector<uint32_t> samples;
};

// Zel's view of a read image.
struct ZelPixels {
  int width = 0, height = 0, bands = 0, precision = 0;
  bool boolean = false;
  std::vector<uint32_t> samples;
};

// Decodes every file named in a manifest (one path a line) into out/<index>.raw, and with
// "make" writes a few images of its own into a directory.
constexpr const char *kPillowScript = R"PY(
import array, sys
from PIL import Image

def dump(path, out):
    try:
        im = Image.open(path)
        im.load()
        mode = im.mode
        if mode == '1':
            bands = [im.convert('L')]
        elif mode.startswith('I'):
            bands = [im]
        else:
            bands = list(im.split())
        data = array.array('H')
        for band in bands:
            if band.mode.startswith('I'):
                values = list(band.getdata())
            else:
                values = list(band.tobytes())
            if mode == '1':
                values = [v // 255 for v in values]
            data.extend(values)
        with open(out, 'wb') as f:
            f.write(('%s %d %d %d\n' % (mode, im.size[0], im.size[1], len(bands))).encode())
            f.write(data.tobytes())
    except Exception as e:
        with open(out, 'wb') as f:
            f.write(('ERR %s\n' % str(e).replace('\n', ' ')).encode())

def make(directory):
    w, h = 37, 23
    def value(x, y, k):
        return (x * 7 + y * 13 + k * 61 + x * y) % 256
    im = Image.new('1', (w, h))
    im.putdata([255 if (x * 3 + y * 5) % 7 < 3 else 0 for y in range(h) for x in range(w)])
    im.save(directory + '/pil_1.png')
    im = Image.new('L', (w, h))
    im.putdata([value(x, y, 0) for y in range(h) for x in range(w)])
    im.save(directory + '/pil_L.png')
    im = Image.new('P', (w, h))
    im.putpalette([(i * 37 + c * 91) % 256 for i in range(256) for c in range(3)])
    im.putdata([value(x, y, 1) for y in range(h) for x in range(w)])
    im.save(directory + '/pil_P.png')
    im = Image.new('RGB', (w, h))
    im.putdata([(value(x, y, 0), value(x, y, 1), value(x, y, 2)) for y in range(h) for x in range(w)])
    im.save(directory + '/pil_RGB.png')
    im = Image.new('RGBA', (w, h))
    im.putdata([(value(x, y, 0), value(x, y, 1), value(x, y, 2), value(x, y, 3))
                for y in range(h) for x in range(w)])
    im.save(directory + '/pil_RGBA.png')

if sys.argv[1] == 'make':
    make(sys.argv[2])
else:
    with open(sys.argv[2]) as f:
        paths = [line.rstrip('\n') for line in f]
    for i, p in enumerate(paths):
        dump(p, '%s/%d.raw' % (sys.argv[3], i))
)PY";

std::string quoted(const std::string &text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'')
      out += "'\\''";
    else
      out += c;
  }
  return out + "'";
}

int runCommand(const std::string &command) {
  int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

fs::path writeScript(const fs::path &directory) {
  fs::path script = directory / "pillow_dump.py";
  std::ofstream(script) << kPillowScript;
  return script;
}

Decoded parseDecoded(const fs::path &raw) {
  Decoded d;
  std::ifstream in(raw, std::ios::binary);
  std::string line;
  if (!std::getline(in, line)) {
    d.error = "no output";
    return d;
  }
  std::istringstream header(line);
  header >> d.mode;
  if (d.mode == "ERR") {
    d.error = line;
    return d;
  }
  header >> d.width >> d.height >> d.bands;
  size_t count = static_cast<size_t>(d.width) * d.height * d.bands;
  std::vector<uint16_t> values(count);
  in.read(reinterpret_cast<char *>(values.data()), static_cast<std::streamsize>(count * 2));
  if (static_cast<size_t>(in.gcount()) != count * 2) {
    d.error = "short output";
    return d;
  }
  d.samples.assign(values.begin(), values.end());
  d.ok = true;
  return d;
}

// Pillow's decoding of each file, in order; one Python process for all of them.
std::vector<Decoded> decodeWithPillow(const std::vector<fs::path> &files, const fs::path &work) {
  fs::path manifest = work / "manifest.txt", out = work / "decoded";
  fs::create_directories(out);
  {
    std::ofstream list(manifest);
    for (const fs::path &file : files)
      list << file.string() << '\n';
  }
  fs::path script = writeScript(work);
  std::string command = "/usr/bin/python3 " + quoted(script.string()) + " decode " +
                        quoted(manifest.string()) + " " + quoted(out.string());
  EXPECT_EQ(runCommand(command), 0) << command;
  std::vector<Decoded> decoded;
  for (size_t i = 0; i < files.size(); ++i)
    decoded.push_back(parseDecoded(out / (std::to_string(i) + ".raw")));
  return decoded;
}

ZelValue attribute(ZelContext *ctx, ZelObject *object, const char *name) {
  return zel::test::readAttribute(ctx, object, name);
}

// Copies a read image into application memory and unpacks its samples band-planar.
bool pixelsOf(ZelContext *ctx, ZelObject *image, ZelPixels &out) {
  out.width = static_cast<int>(attribute(ctx, image, "xDimension"));
  out.height = static_cast<int>(attribute(ctx, image, "yDimension"));
  out.bands = static_cast<int>(attribute(ctx, image, "bDimension"));
  out.precision = static_cast<int>(attribute(ctx, image, "dataPrecision"));
  ZelValue type = attribute(ctx, image, "dataType");
  out.boolean = type == ZelBoolean;
  size_t count = static_cast<size_t>(out.width) * out.height * out.bands;
  size_t bytes = out.boolean ? (count + 7) / 8 : count * (out.precision > 8 ? 2 : 1);
  std::vector<uint8_t> buffer(bytes + 8, 0);
  std::vector<ZelAttribute> list = {{"xDimension", out.width},
                                    {"yDimension", out.height},
                                    {"bDimension", out.bands},
                                    {"dataType", type},
                                    {"dataPrecision", out.precision},
                                    {"repository", ZelApplicationAddressSpace},
                                    {"applicationAddressSpace", word(buffer.data())}};
  ZelObject *copy = Zel000(ctx, nullptr, &ZelClassGenericImage, nullptr, list.data(),
                           static_cast<int>(list.size()));
  if (!copy) return false;
  int code = Zel601(ctx, image, copy);
  EXPECT_EQ(Zel002(ctx, copy), 0);
  if (code != 0) {
    ADD_FAILURE() << "copying the read image gave " << code;
    return false;
  }
  out.samples.resize(count);
  for (size_t i = 0; i < count; ++i) {
    if (out.boolean) {
      out.samples[i] = (buffer[i / 8] >> (7 - i % 8)) & 1;
    } else if (out.precision > 8) {
      uint16_t v;
      std::memcpy(&v, buffer.data() + 2 * i, 2);
      out.samples[i] = v;
    } else {
      out.samples[i] = buffer[i];
    }
  }
  return true;
}

// Pillow's sample for Zel's sample: Pillow widens grey of 2 and 4 bits to 8, keeps only the
// high byte of 16-bit colour, and shows grey with alpha of 16 bits as RGBA.
uint32_t expectedPillowSample(const Decoded &pil, const ZelPixels &zel, uint32_t v) {
  if (pil.mode == "L" && zel.precision == 2) return v * 85;
  if (pil.mode == "L" && zel.precision == 4) return v * 17;
  if (zel.precision == 16 && !(pil.mode.rfind("I", 0) == 0)) return v >> 8;
  return v;
}

int pillowBandOf(const Decoded &pil, const ZelPixels &zel, int band) {
  if (pil.bands == 4 && zel.bands == 2) return band == 0 ? 0 : 3;
  return band;
}

// Pixel-identical comparison; reports the first difference.
void expectSamePixels(const Decoded &pil, const ZelPixels &zel, const std::string &what) {
  ASSERT_TRUE(pil.ok) << what << ": Pillow could not decode it: " << pil.error;
  ASSERT_EQ(pil.width, zel.width) << what;
  ASSERT_EQ(pil.height, zel.height) << what;
  bool greyAsRgba = pil.bands == 4 && zel.bands == 2;
  ASSERT_TRUE(pil.bands == zel.bands || greyAsRgba) << what << " Pillow mode " << pil.mode;
  size_t plane = static_cast<size_t>(zel.width) * zel.height;
  for (int b = 0; b < zel.bands; ++b) {
    size_t pb = static_cast<size_t>(pillowBandOf(pil, zel, b));
    for (size_t i = 0; i < plane; ++i) {
      uint32_t v = zel.samples[b * plane + i];
      uint32_t want = expectedPillowSample(pil, zel, v);
      uint32_t got = pil.samples[pb * plane + i];
      if (greyAsRgba && b == 0) {
        ASSERT_TRUE(pil.samples[i] == got && pil.samples[plane + i] == got &&
                    pil.samples[2 * plane + i] == got)
            << what << ": grey shown as unequal colour at " << i;
      }
      ASSERT_EQ(got, want) << what << " (Pillow mode " << pil.mode << ") band " << b << " x "
                           << i % zel.width << " y " << i / zel.width;
    }
  }
}

// Reads a PNG file with Zel into a work-space image; the code of the read.
int readPng(ZelContext *ctx, const fs::path &file, ZelObject *&image) {
  std::vector<ZelAttribute> list = {{"repository", ZelWorkSpace}};
  image = Zel000(ctx, nullptr, &ZelClassGenericImage, nullptr, list.data(), 1);
  if (!image) return -2;
  return Zel703x(ctx, file.c_str(), image, ZelPng, nullptr, 0);
}

// ---- The public corpus ---------------------------------------------------------------------

struct Ihdr {
  int depth = 0, colourType = 0, interlace = 0;
};

Ihdr headerOf(const fs::path &file) {
  std::vector<uint8_t> bytes = zel::test::fileBytes(file);
  Ihdr h;
  if (bytes.size() >= 26 && std::memcmp(bytes.data() + 12, "IHDR", 4) == 0) {
    h.depth = bytes[24];
    h.colourType = bytes[25];
    h.interlace = bytes[28];
  }
  return h;
}

enum class Kind { Good, Bad, Edge };

Kind kindOf(const fs::path &relative) {
  std::string first = relative.begin()->string();
  if (first == "bad") return Kind::Bad;
  if (first == "edge") return Kind::Edge;
  return Kind::Good;
}

fs::path corpusPng() {
  return fs::path(ZEL_CORPUS_DIR) / "png";
}

bool corpusRequired() {
  const char *ci = std::getenv("CI");
  return ci && std::string(ci) == "true";
}

TEST(PngInterop, CorpusFilesDecodeLikePillowAndDamagedOnesAreRefused) {
  fs::path root = corpusPng();
  if (!fs::is_directory(root)) {
    ASSERT_FALSE(corpusRequired()) << "the PNG corpus is missing: " << root;
    GTEST_SKIP() << "no PNG corpus at " << root;
  }
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);

  std::vector<fs::path> files;
  for (const auto &entry : fs::recursive_directory_iterator(root))
    if (entry.is_regular_file()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  ASSERT_FALSE(files.empty());

  std::vector<fs::path> readFiles;
  std::vector<ZelPixels> readPixels;
  int refusedByDesign = 0, badRefused = 0, edgeRead = 0, edgeRefused = 0;
  for (const fs::path &file : files) {
    fs::path relative = fs::relative(file, root);
    Kind kind = kindOf(relative);
    ZelObject *image = nullptr;
    int code = readPng(ctx, file, image);
    ASSERT_NE(image, nullptr) << relative;
    if (kind == Kind::Bad) {
      EXPECT_NE(code, 0) << relative << " is damaged but was read";
      badRefused += code != 0;
    } else if (kind == Kind::Edge) {
      // Any outcome will do, as long as the reader comes back.
      (code == 0 ? edgeRead : edgeRefused)++;
    } else if (code != 0) {
      Ihdr h = headerOf(file);
      // The reader keeps to the depths and colour types it stores; any other refusal of a
      // well-formed file is a fault.
      bool byDesign = h.depth == 2 || h.depth == 16 || h.colourType == 4;
      EXPECT_TRUE(byDesign) << relative << " refused with " << code << " (depth " << h.depth
                            << ", colour type " << h.colourType << ")";
      refusedByDesign += byDesign;
    } else {
      ZelPixels pixels;
      if (pixelsOf(ctx, image, pixels)) {
        readFiles.push_back(file);
        readPixels.push_back(std::move(pixels));
      }
    }
    EXPECT_EQ(Zel002(ctx, image), 0);
  }

  std::vector<Decoded> decoded = decodeWithPillow(readFiles, scratch.path());
  ASSERT_EQ(decoded.size(), readFiles.size());
  for (size_t i = 0; i < readFiles.size(); ++i)
    expectSamePixels(decoded[i], readPixels[i], fs::relative(readFiles[i], root).string());
  std::cout << "[ corpus ] " << files.size() << " files: " << readFiles.size()
            << " read and compared, " << refusedByDesign << " refused by design, " << badRefused
            << " damaged refused, " << edgeRead << " edge read, " << edgeRefused
            << " edge refused\n";
}

// ---- Files that Zel writes -----------------------------------------------------------------

struct WriteCase {
  const char *name;
  int bands;
  int precision;
  bool palette;
};

const WriteCase kWriteCases[] = {
    {"Grey1", 1, 1, false},        {"Grey2", 1, 2, false},   {"Grey4", 1, 4, false},
    {"Grey8", 1, 8, false},        {"Grey16", 1, 16, false}, {"Palette1", 1, 1, true},
    {"Palette2", 1, 2, true},      {"Palette4", 1, 4, true}, {"Palette8", 1, 8, true},
    {"Rgb8", 3, 8, false},         {"Rgb16", 3, 16, false},  {"GreyAlpha8", 2, 8, false},
    {"GreyAlpha16", 2, 16, false}, {"Rgba8", 4, 8, false},   {"Rgba16", 4, 16, false},
};

struct Size {
  int width, height;
};
constexpr Size kSizes[] = {{37, 23}, {1, 1}, {1, 9}, {9, 1}};

// An image over application memory holding varied samples of the case's depth.
struct HeldImage {
  std::vector<uint8_t> bytes;
  std::vector<uint8_t> table;
  ZelObject *image = nullptr;
  ZelObject *lut = nullptr;
};

void makeImage(ZelContext *ctx, const WriteCase &c, Size size, uint32_t seed, HeldImage &held,
               ZelPixels &expected) {
  std::mt19937 random(seed);
  size_t count = static_cast<size_t>(size.width) * size.height * c.bands;
  bool boolean = c.precision == 1;
  uint32_t levels = 1u << c.precision;
  expected = ZelPixels{size.width, size.height, c.bands, c.precision, boolean, {}};
  held.bytes.assign(boolean ? (count + 7) / 8 : count * (c.precision > 8 ? 2 : 1), 0);
  for (size_t i = 0; i < count; ++i) {
    // The extremes first, then random samples.
    uint32_t v = i == 0 ? levels - 1 : i == 1 ? 0 : static_cast<uint32_t>(random() % levels);
    expected.samples.push_back(v);
    if (boolean) {
      if (v) held.bytes[i / 8] |= static_cast<uint8_t>(0x80 >> (i % 8));
    } else if (c.precision > 8) {
      auto s = static_cast<uint16_t>(v);
      std::memcpy(held.bytes.data() + 2 * i, &s, 2);
    } else {
      held.bytes[i] = static_cast<uint8_t>(v);
    }
  }
  std::vector<ZelAttribute> list = {{"xDimension", size.width},
                                    {"yDimension", size.height},
                                    {"bDimension", c.bands},
                                    {"dataType", boolean ? ZelBoolean : ZelNonNegative},
                                    {"dataPrecision", c.precision},
                                    {"repository", ZelApplicationAddressSpace},
                                    {"applicationAddressSpace", word(held.bytes.data())}};
  held.image = Zel000(ctx, nullptr, &ZelClassGenericImage, nullptr, list.data(),
                      static_cast<int>(list.size()));
  ASSERT_NE(held.image, nullptr);
  if (!c.palette) return;
  int entries = static_cast<int>(std::min(levels, 256u));
  held.table.resize(static_cast<size_t>(3 * entries));
  for (auto &t : held.table)
    t = static_cast<uint8_t>(random());
  std::vector<ZelAttribute> lutList = {{"xDimension", entries},
                                       {"yDimension", 1},
                                       {"bDimension", 3},
                                       {"dataType", ZelNonNegative},
                                       {"dataPrecision", 8},
                                       {"repository", ZelApplicationAddressSpace},
                                       {"applicationAddressSpace", word(held.table.data())}};
  held.lut = Zel000(ctx, nullptr, &ZelClassLookupTable, nullptr, lutList.data(),
                    static_cast<int>(lutList.size()));
  ASSERT_NE(held.lut, nullptr);
  ASSERT_EQ(Zel006a(ctx, held.image, "lut", word(held.lut)), 0);
}

TEST(PngInterop, EveryKindOfFileZelWritesPassesPngcheckAndDecodesLikePillow) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  std::vector<fs::path> written;
  std::vector<ZelPixels> expected;
  uint32_t seed = 20261121;
  for (const WriteCase &c : kWriteCases) {
    for (int interlaced = 0; interlaced < 2; ++interlaced) {
      for (Size size : kSizes) {
        std::string name = std::string(c.name) + (interlaced ? "_interlaced_" : "_") +
                           std::to_string(size.width) + "x" + std::to_string(size.height) + ".png";
        HeldImage held;
        ZelPixels pixels;
        makeImage(ctx, c, size, seed++, held, pixels);
        ASSERT_NE(held.image, nullptr) << name;
        std::vector<ZelAttribute> list = {{"interlacedImage", interlaced},
                                          {"dataPrecision", c.precision}};
        if (c.palette) list.push_back({"colourType", ZelPalette});
        fs::path path = scratch.path() / name;
        ASSERT_EQ(Zel702x(ctx, held.image, path.c_str(), ZelPng, list.data(),
                          static_cast<int>(list.size())),
                  0)
            << name;
        EXPECT_EQ(runCommand("pngcheck -q " + quoted(path.string()) + " >/dev/null"), 0)
            << name << " fails pngcheck";
        // The header says what was asked for: PNG colour types 0, 4, 2, 6 by bands, 3 with a
        // palette.
        constexpr int kTypeOfBands[5] = {0, 0, 4, 2, 6};
        Ihdr h = headerOf(path);
        EXPECT_EQ(h.depth, c.precision) << name;
        EXPECT_EQ(h.colourType, c.palette ? 3 : kTypeOfBands[c.bands]) << name;
        EXPECT_EQ(h.interlace, interlaced) << name;
        written.push_back(path);
        expected.push_back(std::move(pixels));
        if (held.lut) {
          EXPECT_EQ(Zel002(ctx, held.lut), 0);
        }
        EXPECT_EQ(Zel002(ctx, held.image), 0);
      }
    }
  }
  std::vector<Decoded> decoded = decodeWithPillow(written, scratch.path());
  ASSERT_EQ(decoded.size(), written.size());
  for (size_t i = 0; i < written.size(); ++i)
    expectSamePixels(decoded[i], expected[i], written[i].filename().string());
}

// ---- Files that Pillow writes --------------------------------------------------------------

TEST(PngInterop, FilesPillowWritesReadBackPixelIdentical) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  fs::path made = scratch.path() / "made";
  fs::create_directories(made);
  fs::path script = writeScript(scratch.path());
  ASSERT_EQ(
      runCommand("/usr/bin/python3 " + quoted(script.string()) + " make " + quoted(made.string())),
      0);
  std::vector<fs::path> files;
  for (const char *mode : {"1", "L", "P", "RGB", "RGBA"})
    files.push_back(made / (std::string("pil_") + mode + ".png"));
  std::vector<Decoded> decoded = decodeWithPillow(files, scratch.path());
  ASSERT_EQ(decoded.size(), files.size());
  for (size_t i = 0; i < files.size(); ++i) {
    ZelObject *image = nullptr;
    ASSERT_EQ(readPng(ctx, files[i], image), 0) << files[i].filename();
    ZelPixels pixels;
    ASSERT_TRUE(pixelsOf(ctx, image, pixels)) << files[i].filename();
    expectSamePixels(decoded[i], pixels, files[i].filename().string());
    EXPECT_EQ(Zel002(ctx, image), 0);
  }
}

}  // namespace
