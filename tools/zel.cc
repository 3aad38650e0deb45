// zel: tells what an image file holds, and converts image files from one format to another,
// applying point operators on the way. Everything it does goes through the public interface of
// the library; the text of a failure is the library's own, taken from the context's log.
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zel.h"

namespace {

constexpr int libraryFailure = 1;
constexpr int usageFailure = 2;

// What ends the program: the text for stderr and the exit status.
struct Failure {
  int status;
  std::string message;
};

[[noreturn]] void usageError(std::string message) {
  throw Failure{usageFailure, std::move(message)};
}

// ---- Names of enumerators --------------------------------------------------------------------

struct Named {
  int value;
  std::string_view name;
};

constexpr Named fileFormats[] = {
    {ZelGif, "Gif"},
    {ZelTiff, "Tiff"},
    {ZelKolShort, "KolShort"},
    {ZelSegmentedDocument, "SegmentedDocument"},
    {ZelBmp, "Bmp"},
    {ZelJpegInterchange, "JpegInterchange"},
    {ZelMacPaint, "MacPaint"},
    {ZelPcx, "Pcx"},
    {ZelKolLong, "KolLong"},
    {ZelDib, "Dib"},
    {ZelPng, "Png"},
    {ZelSgiRgb, "SgiRgb"},
    {ZelDibHeaderOnly, "DibHeaderOnly"},
    {ZelJpegDirect, "JpegDirect"},
    {ZelWbmp, "Wbmp"},
    {ZelJpegColourFax, "JpegColourFax"},
};

constexpr Named dataTypes[] = {
    {ZelBoolean, "Boolean"},
    {ZelNonNegative, "NonNegative"},
    {ZelSigned, "Signed"},
    {ZelReal, "Real"},
    {ZelComplex, "Complex"},
    {ZelWord, "Word"},
    {ZelObjectHandle, "ObjectHandle"},
};

constexpr Named compressions[] = {
    {0, "None"},
    {ZelFaxGroup3OneDimensional, "FaxGroup3OneDimensional"},
    {ZelFaxGroup3TwoDimensional, "FaxGroup3TwoDimensional"},
    {ZelFaxGroup4, "FaxGroup4"},
    {ZelModifiedHuffman, "ModifiedHuffman"},
    {ZelJpeg, "Jpeg"},
    {ZelLzw, "Lzw"},
    {ZelPackBits, "PackBits"},
    {ZelKolLine, "KolLine"},
    {ZelBmpRunLength, "BmpRunLength"},
    {ZelPcxRunLength, "PcxRunLength"},
    {ZelPngDeflate, "PngDeflate"},
};

constexpr Named colourSpaces[] = {
    {0, "None"},
    {ZelBlackIsZero, "BlackIsZero"},
    {ZelWhiteIsZero, "WhiteIsZero"},
    {ZelRgb, "Rgb"},
    {ZelPalette, "Palette"},
    {ZelTransparencyMask, "TransparencyMask"},
    {ZelCmy, "Cmy"},
    {ZelCmyk, "Cmyk"},
    {ZelYCbCr, "YCbCr"},
    {ZelYiq, "Yiq"},
    {ZelYuv, "Yuv"},
    {ZelIhs, "Ihs"},
    {ZelCieLab, "CieLab"},
    {ZelCieUvw, "CieUvw"},
    {ZelCieXyz, "CieXyz"},
    {ZelCieRgb, "CieRgb"},
    {ZelCcirRgb, "CcirRgb"},
    {ZelEbuRgb, "EbuRgb"},
    {ZelSmpteRgb, "SmpteRgb"},
    {ZelGammaRgb, "GammaRgb"},
    {ZelGammaSmpteRgb, "GammaSmpteRgb"},
    {ZelTristimulus, "Tristimulus"},
};

std::string nameOf(std::span<const Named> table, ZelValue value) {
  for (const Named &entry : table)
    if (entry.value == value) return std::string(entry.name);
  return std::to_string(value);
}

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool sameIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i)
    if (lower(a[i]) != lower(b[i])) return false;
  return true;
}

std::optional<int> valueNamed(std::span<const Named> table, std::string_view name) {
  for (const Named &entry : table)
    if (sameIgnoringCase(entry.name, name)) return entry.value;
  return std::nullopt;
}

std::string namesOf(std::span<const Named> table) {
  std::string names;
  for (const Named &entry : table)
    names += (names.empty() ? "" : ", ") + std::string(entry.name);
  return names;
}

// ---- Output formats by file name -------------------------------------------------------------

struct Extension {
  std::string_view suffix;
  int format;
};

constexpr Extension outputExtensions[] = {
    {".png", ZelPng},
    {".tif", ZelTiff},
    {".tiff", ZelTiff},
    {".gif", ZelGif},
    {".bmp", ZelBmp},
    {".dib", ZelDib},
    {".pcx", ZelPcx},
    {".jpg", ZelJpegInterchange},
    {".jpeg", ZelJpegInterchange},
    {".wbmp", ZelWbmp},
    {".rgb", ZelSgiRgb},
    {".sgi", ZelSgiRgb},
    {".raw", 0},
};

// Formats whose writers interlace on request.
constexpr int interlacingFormats[] = {ZelPng, ZelGif};

// Appends `word` to a list of words parted by blanks.
void appendWord(std::string &words, std::string_view word) {
  if (!words.empty()) words += ' ';
  words += word;
}

std::string knownExtensions() {
  std::string known;
  for (const Extension &extension : outputExtensions)
    appendWord(known, extension.suffix);
  return known;
}

std::string_view extensionOf(std::string_view fileName) {
  size_t slash = fileName.rfind('/');
  std::string_view base = slash == std::string_view::npos ? fileName : fileName.substr(slash + 1);
  size_t dot = base.rfind('.');
  return dot == std::string_view::npos || dot == 0 ? std::string_view{} : base.substr(dot);
}

int outputFormatOf(std::string_view fileName) {
  std::string_view extension = extensionOf(fileName);
  for (const Extension &known : outputExtensions)
    if (sameIgnoringCase(known.suffix, extension)) return known.format;
  usageError(std::string(fileName) +
             ": no output format for this file name; known extensions: " + knownExtensions());
}

// ---- Numbers on the command line -------------------------------------------------------------

double number(std::string_view option, std::string_view text) {
  double value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || !std::isfinite(value))
    usageError(std::string(option) + ": '" + std::string(text) + "' is not a number");
  return value;
}

double numberWithin(std::string_view option, std::string_view text, double low, double high) {
  double value = number(option, text);
  if (value < low || value > high) {
    std::ostringstream limits;
    limits << option << ": " << text << " is outside " << low << " to " << high;
    usageError(limits.str());
  }
  return value;
}

int byteValue(std::string_view option, std::string_view text) {
  int value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc{} || end != text.data() + text.size() || value < 0 || value > 255)
    usageError(std::string(option) + ": '" + std::string(text) + "' is not a number from 0 to 255");
  return value;
}

// The comma-separated fields of an operand.
std::vector<std::string_view> fields(std::string_view text) {
  std::vector<std::string_view> parts;
  for (size_t start = 0;;) {
    size_t comma = text.find(',', start);
    parts.push_back(text.substr(start, comma - start));
    if (comma == std::string_view::npos) return parts;
    start = comma + 1;
  }
}

ZelScalar scalarOf(double value) {
  ZelScalar scalar{};
  if (value == std::trunc(value) && std::fabs(value) <= INT32_MAX) {
    scalar.tag = ZelNonNegative;
    scalar.v.i = static_cast<int64_t>(value);
  } else {
    scalar.tag = ZelReal;
    scalar.v.d = value;
  }
  return scalar;
}

// ---- The library's context ---------------------------------------------------------------------

std::string temporaryDirectory() {
  const char *directory = std::getenv("TMPDIR");
  return directory && *directory ? directory : "/tmp";
}

// A context whose failures are logged to a private file, so that each failure can be told in the
// library's words. The file goes with the context.
class Session {
 public:
  Session() {
    std::string pattern = temporaryDirectory() + "/zel-log-XXXXXX";
    int descriptor = mkstemp(pattern.data());
    if (descriptor < 0)
      throw Failure{libraryFailure,
                    "no log file in " + temporaryDirectory() + ": " + std::strerror(errno)};
    close(descriptor);
    log_ = pattern;
    ctx_ = Zel004(log_.c_str());
    if (!ctx_) {
      std::remove(log_.c_str());
      throw Failure{libraryFailure, std::strerror(ENOMEM)};
    }
  }
  ~Session() {
    Zel001(ctx_);
    std::remove(log_.c_str());
  }
  Session(const Session &) = delete;
  Session &operator=(const Session &) = delete;

  ZelContext *context() const { return ctx_; }

  void check(int code) const {
    if (code != 0) fail(code);
  }
  ZelObject *check(ZelObject *object) const {
    if (!object) fail(Zel003b(ctx_));
    return object;
  }
  [[noreturn]] void fail(int code) const {
    throw Failure{libraryFailure, takeLogged().value_or("failure " + std::to_string(code))};
  }
  // Ends the program with the failure the library logged, if any, else with `message`.
  [[noreturn]] void failWithLoggedOr(std::string message) const {
    throw Failure{libraryFailure, takeLogged().value_or(std::move(message))};
  }

  // Empties the log, so that what it holds afterwards was reported after this point.
  void clearLog() const { truncate(log_.c_str(), 0); }

 private:
  // The text of the last logged failure. The library writes each report over the start of the
  // file, so the first line is the latest one.
  std::optional<std::string> takeLogged() const {
    std::ifstream in(log_);
    std::string line;
    std::getline(in, line);
    clearLog();
    constexpr std::string_view prefix = "zel: ";
    if (line.starts_with(prefix)) line.erase(0, prefix.size());
    if (line.empty()) return std::nullopt;
    return line;
  }

  std::string log_;
  ZelContext *ctx_ = nullptr;
};

// An object destroyed with its owner.
class Owned {
 public:
  Owned(const Session &session, ZelObject *object) : ctx_(session.context()), object_(object) {}
  Owned(Owned &&other) noexcept
      : ctx_(other.ctx_), object_(std::exchange(other.object_, nullptr)) {}
  Owned &operator=(Owned &&other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~Owned() {
    if (object_) Zel002(ctx_, object_);
  }
  ZelObject *get() const { return object_; }
  // Leaves the object to the context, which destroys it when it closes.
  void release() { object_ = nullptr; }

 private:
  ZelContext *ctx_;
  ZelObject *object_;
};

ZelValue attribute(const Session &session, ZelObject *object, const char *name) {
  ZelValue value = 0;
  const ZelAttribute read{name, reinterpret_cast<ZelValue>(&value)};
  session.check(Zel005(session.context(), object, &read, 1));
  return value;
}

ZelValue word(const void *pointer) {
  return reinterpret_cast<ZelValue>(pointer);
}

constexpr ZelAttribute inWorkSpace{"repository", ZelWorkSpace};

// ---- Reading -----------------------------------------------------------------------------------

int detectFormat(const Session &session, const std::string &fileName) {
  session.clearLog();
  int format = Zel705(session.context(), fileName.c_str());
  if (format == 0) session.failWithLoggedOr(fileName + ": not an image format the library reads");
  return format;
}

int pageCount(const Session &session, const std::string &fileName, int format) {
  if (format != ZelTiff && format != ZelSegmentedDocument) return 1;
  int pages = Zel704(session.context(), fileName.c_str(), format);
  if (pages == 0) session.fail(Zel003b(session.context()));
  return pages;
}

int rampEntry(int index, int entries) {
  return entries > 1 ? index * 255 / (entries - 1) : 0;
}

// True when a reader filled `table` with colours. A grey ramp tells no more than the levels
// themselves, so that an image that comes with one stays a grey image.
bool holdsColours(const Session &session, ZelObject *table) {
  if (!attribute(session, table, "inited")) return false;
  if (attribute(session, table, "dataType") != ZelNonNegative) return false;
  auto entries = static_cast<int>(attribute(session, table, "xDimension"));
  auto bands = static_cast<int>(attribute(session, table, "bDimension"));
  if (entries < 1 || bands < 1) return false;
  std::vector<uint8_t> bytes(static_cast<size_t>(entries) * static_cast<size_t>(bands));
  session.check(Zel605(session.context(), table, bytes.data(), nullptr, 0));
  for (size_t i = 0; i < bytes.size(); ++i)
    if (bytes[i] != rampEntry(static_cast<int>(i % static_cast<size_t>(entries)), entries))
      return true;
  return false;
}

// Reads and expands a file into work space. The image is offered a palette table; it keeps it
// when the file's pixels are indices into colours. A table that asks for a count of its entries
// in use gets the count of colours the file holds, so that as many are written again.
Owned readImage(const Session &session, const std::string &fileName, int format) {
  ZelContext *ctx = session.context();
  const ZelAttribute table[] = {inWorkSpace, {"usedXDimension", 1}};
  Owned palette(session, session.check(Zel000e(ctx, nullptr, nullptr, table, 2)));
  const ZelAttribute shape[] = {inWorkSpace, {"lut", word(palette.get())}};
  Owned image(session, session.check(Zel000b(ctx, nullptr, nullptr, shape, 2)));
  session.check(Zel703x(ctx, fileName.c_str(), image.get(), format, nullptr, 0));
  if (holdsColours(session, palette.get()))
    palette.release();
  else
    session.check(Zel006a(ctx, image.get(), "lut", 0));
  return image;
}

// ---- Operators ---------------------------------------------------------------------------------

// One step of a conversion: fills `destination`, a copy of `source`, from `source`.
using Operator = std::function<void(const Session &, ZelObject *source, ZelObject *destination)>;

// A new object in work space of the same class, shape, type and palette as `image`, holding its
// pixels. An operator that leaves a pixel alone thus leaves it as it was.
Owned copyOf(const Session &session, ZelObject *image) {
  static constexpr const char *carried[] = {
      "xDimension",    "yDimension",  "zDimension", "tDimension", "bDimension", "dataType",
      "dataPrecision", "colourSpace", "bitOrder",   "byteOrder",  "lut"};
  std::vector<ZelAttribute> list{inWorkSpace};
  for (const char *name : carried)
    list.push_back({name, attribute(session, image, name)});
  ZelContext *ctx = session.context();
  const ZelObjectClass *objectClass = Zel097(ctx, image);
  Owned copy(session, session.check(Zel000(ctx, nullptr, objectClass, nullptr, list.data(),
                                           static_cast<int>(list.size()))));
  session.check(Zel601(ctx, image, copy.get()));
  return copy;
}

Operator threshold(int level) {
  return [level](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(Zel122(session.context(), source, destination, scalarOf(level), scalarOf(0),
                         scalarOf(255)));
  };
}

Operator gamma(double exponent) {
  return [exponent](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(Zel133(session.context(), source, destination, ZelEncode, 1.0, 1.0 / exponent,
                         0.0, 1.0, 0.0));
  };
}

Operator lookup(std::vector<uint8_t> entries) {
  return [entries = std::move(entries)](const Session &session, ZelObject *source,
                                        ZelObject *destination) {
    ZelContext *ctx = session.context();
    const ZelAttribute shape[] = {inWorkSpace,
                                  {"xDimension", static_cast<ZelValue>(entries.size())},
                                  {"dataType", ZelNonNegative}};
    Owned table(session, session.check(Zel000e(ctx, nullptr, nullptr, shape, 3)));
    std::vector<uint8_t> buffer = entries;
    session.check(Zel609(ctx, buffer.data(), table.get(), nullptr, 0));
    session.check(Zel120(ctx, source, destination, table.get()));
  };
}

Operator scalarOperation(int operation, double value) {
  return [operation, value](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(Zel121(session.context(), source, destination, operation, scalarOf(value)));
  };
}

Operator plain(int (*function)(ZelContext *, ZelObject *, ZelObject *)) {
  return [function](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(function(session.context(), source, destination));
  };
}

// ---- Histogram shapes ----------------------------------------------------------------------

struct Shape {
  std::string_view name;
  int shape;
  double low;
  double high;
  double alpha;
};

constexpr Shape histogramShapes[] = {
    {"Uniform", ZelUniform, 0, 255, 0},         {"CubeRoot", ZelCubeRoot, 0, 255, 0},
    {"Logarithmic", ZelLogarithmic, 1, 255, 0}, {"Exponential", ZelExponential, 0, 255, 0.02},
    {"Rayleigh", ZelRayleigh, 0, 255, 60},
};

std::string shapeNames() {
  std::string names;
  for (const Shape &shape : histogramShapes)
    names += (names.empty() ? "" : ", ") + std::string(shape.name);
  return names;
}

// SHAPE[,LOW,HIGH[,ALPHA]]
Operator histogram(std::string_view operand) {
  constexpr std::string_view option = "--histogram";
  std::vector<std::string_view> parts = fields(operand);
  const Shape *chosen = nullptr;
  for (const Shape &shape : histogramShapes)
    if (sameIgnoringCase(shape.name, parts[0])) chosen = &shape;
  if (!chosen)
    usageError(std::string(option) + ": unknown shape '" + std::string(parts[0]) +
               "'; shapes: " + shapeNames());
  if (parts.size() == 2 || parts.size() > 4)
    usageError(std::string(option) + ": give SHAPE, SHAPE,LOW,HIGH or SHAPE,LOW,HIGH,ALPHA");
  double low = parts.size() > 1 ? number(option, parts[1]) : chosen->low;
  double high = parts.size() > 2 ? number(option, parts[2]) : chosen->high;
  double alpha = parts.size() > 3 ? number(option, parts[3]) : chosen->alpha;
  int shape = chosen->shape;
  return [=](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(Zel129(session.context(), source, destination, shape, scalarOf(low),
                         scalarOf(high), alpha));
  };
}

// B,C
Operator brightnessContrast(std::string_view operand) {
  constexpr std::string_view option = "--brightness-contrast";
  std::vector<std::string_view> parts = fields(operand);
  if (parts.size() != 2) usageError(std::string(option) + ": give BRIGHTNESS,CONTRAST");
  double brightness = numberWithin(option, parts[0], -1, 1);
  double contrast = numberWithin(option, parts[1], -1, 1);
  return [=](const Session &session, ZelObject *source, ZelObject *destination) {
    session.check(Zel134(session.context(), source, destination, brightness, contrast));
  };
}

std::vector<uint8_t> lookupEntries(std::string_view option, const std::string &fileName) {
  std::ifstream in(fileName);
  if (!in) usageError(std::string(option) + ": " + fileName + ": " + std::strerror(errno));
  std::vector<uint8_t> entries;
  for (std::string token; in >> token;) {
    if (entries.size() == 256) usageError(fileName + ": more than 256 numbers");
    entries.push_back(static_cast<uint8_t>(byteValue(fileName, token)));
  }
  if (entries.size() != 256)
    usageError(fileName + ": " + std::to_string(entries.size()) + " numbers, not 256");
  return entries;
}

// ---- The convert command -----------------------------------------------------------------------

struct Conversion {
  std::vector<std::string> files;  // input, then output
  std::vector<Operator> steps;
  bool interlace = false;
  std::optional<int> compression;
};

struct Option {
  std::string_view name;
  std::string_view operand;  // empty when the option takes none
  std::string_view help;
  void (*take)(Conversion &, std::string_view operand);
};

constexpr Option options[] = {
    {"--threshold", "V", "pixels below V become 0, the others 255 (8-bit pixels)",
     [](Conversion &c, std::string_view v) {
       c.steps.push_back(threshold(byteValue("--threshold", v)));
     }},
    {"--complement", "", "255 - p for 8-bit pixels; inverts bilevel pixels",
     [](Conversion &c, std::string_view) { c.steps.push_back(plain(Zel130)); }},
    {"--fold", "", "p below 128 stays, from 128 on 255 - p (8-bit pixels)",
     [](Conversion &c, std::string_view) { c.steps.push_back(plain(Zel135)); }},
    {"--gamma", "G",
     "power curve p' = 255 (p / 255)^(1/G), G from 0.01 to 100; above 1 brightens (8-bit)",
     [](Conversion &c, std::string_view v) {
       c.steps.push_back(gamma(numberWithin("--gamma", v, 0.01, 100)));
     }},
    {"--lookup", "FILE", "map pixels through 256 numbers from 0 to 255 in FILE (8-bit pixels)",
     [](Conversion &c, std::string_view v) {
       c.steps.push_back(lookup(lookupEntries("--lookup", std::string(v))));
     }},
    {"--histogram", "SHAPE[,LOW,HIGH[,ALPHA]]",
     "reshape the histogram to Uniform, CubeRoot, Logarithmic, Exponential or Rayleigh "
     "between LOW and HIGH (default 0,255; 1,255 for Logarithmic; ALPHA 0.02 for Exponential, 60 "
     "for Rayleigh) (8-bit pixels)",
     [](Conversion &c, std::string_view v) { c.steps.push_back(histogram(v)); }},
    {"--brightness-contrast", "B,C", "S-curve of brightness B and contrast C, each -1 to 1",
     [](Conversion &c, std::string_view v) { c.steps.push_back(brightnessContrast(v)); }},
    {"--interlace", "", "write the output interlaced (.png Adam7, .gif)",
     [](Conversion &c, std::string_view) { c.interlace = true; }},
    {"--compression", "NAME",
     "compress the output with NAME instead of the format's own choice (None, Lzw, PackBits, "
     "...)",
     [](Conversion &c, std::string_view v) {
       c.compression = valueNamed(compressions, v);
       if (!c.compression)
         usageError("--compression: unknown '" + std::string(v) +
                    "'; names: " + namesOf(compressions));
     }},
};

// Pixel against a number, N taken toward zero for integer pixels; results are limited to the
// pixels' range.
struct ScalarOption {
  std::string_view name;
  int operation;
  std::string_view help;
};

constexpr ScalarOption scalarOptions[] = {
    {"--add", ZelAdd, "p + N"},
    {"--subtract", ZelSubtractScalar, "p - N"},
    {"--multiply", ZelMultiply, "p * N"},
    {"--divide", ZelDivideByScalar, "p / N (by 0: pixels stay)"},
    {"--min", ZelMinimum, "the smaller of p and N"},
    {"--max", ZelMaximum, "the larger of p and N"},
    {"--and", ZelAnd, "p AND N (integer and bilevel pixels)"},
    {"--or", ZelOr, "p OR N (integer and bilevel pixels)"},
    {"--xor", ZelXor, "p XOR N (integer and bilevel pixels)"},
};

// Takes the option at args[at] and its operand; returns the index of the last argument used.
size_t takeOption(Conversion &conversion, std::span<const std::string_view> args, size_t at) {
  std::string_view name = args[at];
  auto operand = [&]() -> std::string_view {
    if (at + 1 >= args.size()) usageError(std::string(name) + " needs a value");
    return args[at + 1];
  };
  for (const ScalarOption &option : scalarOptions) {
    if (option.name != name) continue;
    conversion.steps.push_back(scalarOperation(option.operation, number(name, operand())));
    return at + 1;
  }
  for (const Option &option : options) {
    if (option.name != name) continue;
    if (option.operand.empty()) {
      option.take(conversion, {});
      return at;
    }
    option.take(conversion, operand());
    return at + 1;
  }
  usageError("unknown option " + std::string(name));
}

bool interlaces(int format) {
  for (int known : interlacingFormats)
    if (known == format) return true;
  return false;
}

Conversion parseConversion(std::span<const std::string_view> args) {
  Conversion conversion;
  for (size_t i = 0; i < args.size(); ++i) {
    if (args[i].starts_with("--"))
      i = takeOption(conversion, args, i);
    else
      conversion.files.emplace_back(args[i]);
  }
  if (conversion.files.size() != 2) usageError("convert takes an input and an output file");
  return conversion;
}

void writeImage(const Session &session, ZelObject *image, const Conversion &conversion,
                int format) {
  std::vector<ZelAttribute> list;
  if (interlaces(format)) list.push_back({"interlacedImage", conversion.interlace ? 1 : 0});
  if (conversion.compression) list.push_back({"compression", *conversion.compression});
  session.check(Zel702x(session.context(), image, conversion.files[1].c_str(), format, list.data(),
                        static_cast<int>(list.size())));
}

int convert(std::span<const std::string_view> args) {
  Conversion conversion = parseConversion(args);
  int format = outputFormatOf(conversion.files[1]);
  if (conversion.interlace && !interlaces(format))
    usageError("--interlace: " + conversion.files[1] + " is not a .png or .gif file");
  Session session;
  Owned image = readImage(session, conversion.files[0], detectFormat(session, conversion.files[0]));
  for (const Operator &step : conversion.steps) {
    Owned next = copyOf(session, image.get());
    step(session, image.get(), next.get());
    image = std::move(next);
  }
  writeImage(session, image.get(), conversion, format);
  return 0;
}

// ---- The info command --------------------------------------------------------------------------

struct Field {
  std::string_view label;
  const char *attribute;
  std::span<const Named> names;  // empty: the value is a number
};

constexpr Field infoFields[] = {
    {"data type", "dataType", dataTypes},
    {"precision", "dataPrecision", {}},
    {"compression", "compression", compressions},
    {"colour space", "colourSpace", colourSpaces},
};

void printLine(std::string_view label, const std::string &value) {
  std::printf("%-14s%s\n", (std::string(label) + ":").c_str(), value.c_str());
}

int info(std::span<const std::string_view> args) {
  if (args.size() != 1) usageError("info takes one file");
  std::string fileName(args[0]);
  Session session;
  int format = detectFormat(session, fileName);
  int pages = pageCount(session, fileName, format);
  Owned image(session, session.check(Zel000b(session.context(), nullptr, nullptr, nullptr, 0)));
  session.check(Zel703(session.context(), fileName.c_str(), image.get(), format, ZelReadAttributes,
                       nullptr, 0));
  std::string dimensions;
  for (const char *axis : {"xDimension", "yDimension", "zDimension", "tDimension", "bDimension"})
    appendWord(dimensions, std::to_string(attribute(session, image.get(), axis)));
  printLine("format", nameOf(fileFormats, format));
  printLine("pages", std::to_string(pages));
  printLine("dimensions", dimensions);
  for (const Field &field : infoFields)
    printLine(field.label, nameOf(field.names, attribute(session, image.get(), field.attribute)));
  return 0;
}

// ---- Commands and help -------------------------------------------------------------------------

struct Command {
  std::string_view name;
  std::string_view operands;
  std::string_view help;
  int (*run)(std::span<const std::string_view> args);
};

constexpr Command commands[] = {
    {"info", "FILE",
     "print FILE's format (found from its contents), page count, dimensions (x y z t b), data "
     "type, precision, compression and colour space",
     info},
    {"convert", "IN OUT [OPTION...]",
     "read IN (format found from its contents), apply the operators in the order given, and "
     "write OUT in the format its extension names",
     convert},
};

void printUsage(std::FILE *out) {
  for (const Command &command : commands)
    std::fprintf(out, "%s zel %.*s %.*s\n", &command == commands ? "Usage:" : "      ",
                 static_cast<int>(command.name.size()), command.name.data(),
                 static_cast<int>(command.operands.size()), command.operands.data());
  std::fprintf(out, "       zel --help\n");
}

// One entry of the help: the term in a column of its own, the text wrapped beside it.
void printEntry(std::string_view term, std::string_view text) {
  constexpr size_t column = 28, width = 100;
  std::string line = "  " + std::string(term);
  if (line.size() >= column) {
    std::printf("%s\n", line.c_str());
    line.clear();
  }
  line.resize(column, ' ');
  std::istringstream words{std::string(text)};
  bool first = true;
  for (std::string w; words >> w; first = false) {
    if (!first && line.size() + 1 + w.size() > width) {
      std::printf("%s\n", line.c_str());
      line.assign(column, ' ');
      first = true;
    }
    line += (first ? "" : " ") + w;
  }
  std::printf("%s\n", line.c_str());
}

void printHelp() {
  printUsage(stdout);
  std::printf("\nCommands:\n");
  for (const Command &command : commands)
    printEntry(std::string(command.name) + " " + std::string(command.operands), command.help);
  std::printf("\nOutput formats of convert, by extension:\n");
  printEntry(knownExtensions(), ".raw holds the pixels as they lie in memory, without a header");
  std::printf("\nOptions of convert; operators apply in the order given:\n");
  for (const Option &option : options)
    printEntry(std::string(option.name) + (option.operand.empty() ? "" : " ") +
                   std::string(option.operand),
               option.help);
  for (const ScalarOption &option : scalarOptions)
    printEntry(std::string(option.name) + " N", option.help);
  std::printf(
      "\nN of the arithmetic options is taken toward zero for integer pixels, and their\n"
      "results are limited to the range of the pixels. Operators act on the pixel\n"
      "values; those of a palette image are indices into its colours.\n");
  std::printf("\nOther options:\n");
  printEntry("-h, --help", "print this help and exit");
  std::printf("\nExit status: 0 done, 1 a failure the library reported, 2 a usage error.\n");
}

bool asksForHelp(std::span<const std::string_view> args) {
  for (std::string_view arg : args)
    if (arg == "-h" || arg == "--help") return true;
  return false;
}

int run(std::span<const std::string_view> args) {
  if (args.empty()) {
    printUsage(stderr);
    return usageFailure;
  }
  if (asksForHelp(args)) {
    printHelp();
    return 0;
  }
  for (const Command &command : commands)
    if (command.name == args[0]) return command.run(args.subspan(1));
  usageError("unknown command '" + std::string(args[0]) + "'");
}

}  // namespace

int main(int argc, char **argv) {
  std::vector<std::string_view> args(argv + 1, argv + argc);
  try {
    return run(args);
  } catch (const Failure &failure) {
    std::fprintf(stderr, "zel: %s\n", failure.message.c_str());
    if (failure.status == usageFailure) std::fprintf(stderr, "Try 'zel --help'.\n");
    return failure.status;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "zel: %s\n", error.what());
    return libraryFailure;
  }
}
