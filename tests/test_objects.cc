// Objects: the fifteen classes and their defaults, derivation, the object tree, destruction,
// free-record reuse and the lookups by handle and by name.
#include "kernel/objects.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "kernel/memory.h"
#include "test_support.h"

namespace {

using zel::test::ContextGuard;
using zel::test::readAttribute;
using zel::test::ScratchDirectory;

namespace fs = std::filesystem;

using Wrapper = ZelObject *(*)(ZelContext *, const char *, ZelObject *, const ZelAttribute *, int);

struct ClassInfo {
  const char *name;
  const ZelObjectClass *descriptor;
  Wrapper wrapper;
};

// The classes, in the order of the wrappers Zel000a .. Zel000n, Zel000z.
const ClassInfo kClasses[] = {
    {"ColourImage", &ZelClassColourImage, Zel000a},
    {"GenericImage", &ZelClassGenericImage, Zel000b},
    {"MonochromeImage", &ZelClassMonochromeImage, Zel000c},
    {"Histogram", &ZelClassHistogram, Zel000d},
    {"LookupTable", &ZelClassLookupTable, Zel000e},
    {"Matrix", &ZelClassMatrix, Zel000f},
    {"DitherArray", &ZelClassDitherArray, Zel000g},
    {"ImpulseResponseArray", &ZelClassImpulseResponseArray, Zel000h},
    {"MaskArray", &ZelClassMaskArray, Zel000i},
    {"ROI", &ZelClassROI, Zel000j},
    {"PowerSpectrumArray", &ZelClassPowerSpectrumArray, Zel000k},
    {"TransferFunctionArray", &ZelClassTransferFunctionArray, Zel000l},
    {"WindowFunctionArray", &ZelClassWindowFunctionArray, Zel000m},
    {"Tuple", &ZelClassTuple, Zel000n},
    {"CompositeIDArray", &ZelClassCompositeIDArray, Zel000z},
};
constexpr size_t kClassCount = sizeof kClasses / sizeof kClasses[0];

bool isClass(const ClassInfo &info, const char *name) {
  return std::strcmp(info.name, name) == 0;
}

bool isImageClass(const ClassInfo &info) {
  return isClass(info, "ColourImage") || isClass(info, "GenericImage") ||
         isClass(info, "MonochromeImage");
}

// Classes that may derive from an image of another class.
bool derivesFromImages(const ClassInfo &info) {
  return isImageClass(info) || isClass(info, "ROI") || isClass(info, "PowerSpectrumArray") ||
         isClass(info, "TransferFunctionArray") || isClass(info, "WindowFunctionArray");
}

bool derivationAllowed(const ClassInfo &child, const ClassInfo &parent) {
  return child.descriptor == parent.descriptor ||
         (derivesFromImages(child) && isImageClass(parent));
}

// Every attribute word of an object record, by its first name.
constexpr const char *kWordNames[] = {
    "applicationAddressSpace",
    "bitOrder",
    "byteOrder",
    "colourSpace",
    "compression",
    "k",
    "eolState",
    "dataPrecision",
    "dataType",
    "fileFormat",
    "fileName",
    "jIndexAssignment",
    "kIndexAssignment",
    "lIndexAssignment",
    "mIndexAssignment",
    "nIndexAssignment",
    "repository",
    "lut",
    "roi",
    "samplingFactor",
    "scaleFactor",
    "size",
    "xDimension",
    "yDimension",
    "zDimension",
    "tDimension",
    "bDimension",
    "xMatchPoint",
    "yMatchPoint",
    "zMatchPoint",
    "tMatchPoint",
    "bMatchPoint",
    "workSpace",
    "applAddressSpaceHandle",
    "workSpaceHandle",
    "pixelInterpretation",
    "widthByteBoundary",
    "compressionLevel",
    "filter",
    "externalCompression",
    "usedXDimension",
    "usedYDimension",
    "usedZDimension",
    "usedTDimension",
    "usedBDimension",
};
constexpr size_t kWordCount = sizeof kWordNames / sizeof kWordNames[0];
static_assert(kWordCount == 45, "the template's 47 words less the two reserved ones");

using Words = std::map<std::string, ZelValue>;

constexpr ZelValue kUntouched = static_cast<ZelValue>(0x5A5A5A5A5A5A5A5Aull);

// All words of an object, with its "inited" and "tmpnam" flags, read in one list.
Words readWords(ZelContext *ctx, ZelObject *object) {
  std::vector<const char *> names(std::begin(kWordNames), std::end(kWordNames));
  names.push_back("inited");
  names.push_back("tmpnam");
  std::vector<ZelValue> places(names.size(), kUntouched);
  std::vector<ZelAttribute> list;
  for (size_t i = 0; i < names.size(); ++i)
    list.push_back({names[i], reinterpret_cast<ZelValue>(&places[i])});
  EXPECT_EQ(Zel005(ctx, object, list.data(), static_cast<int>(list.size())), 0);
  Words words;
  for (size_t i = 0; i < names.size(); ++i)
    words[names[i]] = places[i];
  return words;
}

void expectWords(const Words &actual, const Words &expected, const std::string &what) {
  for (const auto &[name, value] : expected) {
    auto found = actual.find(name);
    ASSERT_NE(found, actual.end()) << what << ": " << name;
    EXPECT_EQ(found->second, value) << what << ": " << name;
  }
  EXPECT_EQ(actual.size(), expected.size()) << what;
}

struct Precisions {
  ZelValue nonnegative = 8;
  ZelValue real = 32;
  ZelValue complex = 64;
};

Precisions precisionsOf(ZelContext *ctx) {
  return {Zel007a(ctx, "nonnegativeIntegerPrecision"), Zel007a(ctx, "realArithmeticPrecision"),
          Zel007a(ctx, "complexArithmeticPrecision")};
}

// The words of a new object of this class without a parent: the class table, then the
// adjustments that take the context's current precisions.
Words expectedNewWords(const ClassInfo &info, const Precisions &precisions) {
  Words w;
  for (const char *name : kWordNames)
    w[name] = 0;
  w["inited"] = 0;
  w["tmpnam"] = 0;
  w["bitOrder"] = 150;
  w["byteOrder"] = 150;
  w["k"] = 2;
  w["scaleFactor"] = 1;
  w["compressionLevel"] = 6;
  w["pixelInterpretation"] = 222;
  for (const char *axis : {"xDimension", "yDimension", "zDimension", "tDimension", "bDimension"})
    w[axis] = 1;
  auto set = [&w](ZelValue dataType, ZelValue precision, ZelValue repository, ZelValue x,
                  ZelValue y) {
    w["dataType"] = dataType;
    w["dataPrecision"] = precision;
    w["repository"] = repository;
    w["xDimension"] = x;
    w["yDimension"] = y;
  };
  if (isImageClass(info)) {
    set(153, 8, 83, 1, 1);
    w["jIndexAssignment"] = 226;
    w["kIndexAssignment"] = 227;
    w["lIndexAssignment"] = 228;
    w["mIndexAssignment"] = 201;
    w["nIndexAssignment"] = 14;
    w["samplingFactor"] = 239;
  } else if (isClass(info, "Histogram")) {
    set(175, 32, 223, 256, 1);
  } else if (isClass(info, "LookupTable")) {
    set(153, 8, 223, 256, 1);
  } else if (isClass(info, "Matrix")) {
    set(161, 32, 223, 3, 3);
  } else if (isClass(info, "DitherArray")) {
    set(174, 16, 223, 3, 3);
    w["dataType"] = 153;
    w["dataPrecision"] = precisions.nonnegative;
    w["xDimension"] = 4;
    w["yDimension"] = 4;
    w["scaleFactor"] = 16;
  } else if (isClass(info, "ImpulseResponseArray")) {
    set(174, 16, 223, 3, 3);
  } else if (isClass(info, "MaskArray")) {
    set(174, 16, 223, 3, 3);
    w["dataType"] = 153;
    w["dataPrecision"] = precisions.nonnegative;
  } else if (isClass(info, "ROI")) {
    set(153, 8, 83, 1, 1);
    w["samplingFactor"] = 239;
  } else if (isClass(info, "PowerSpectrumArray") || isClass(info, "TransferFunctionArray")) {
    set(35, 64, 83, 1, 1);
  } else if (isClass(info, "WindowFunctionArray")) {
    set(35, 64, 83, 1, 1);
    w["dataType"] = 161;
    w["dataPrecision"] = precisions.real;
  } else if (isClass(info, "Tuple")) {
    set(161, 32, 223, 1, 1);
  } else if (isClass(info, "CompositeIDArray")) {
    // Its entries are object handles, as wide as an address on this host.
    set(277, static_cast<ZelValue>(8 * sizeof(void *)), 223, 1, 1);
  }
  return w;
}

// The words of an object derived from a parent with `parentWords`.
Words expectedDerivedWords(const Words &parentWords, const ClassInfo &child,
                           const Precisions &precisions) {
  Words w = parentWords;
  w["applicationAddressSpace"] = 0;
  w["fileFormat"] = 0;
  w["fileName"] = 0;
  w["workSpace"] = 0;
  w["inited"] = 0;
  w["tmpnam"] = 0;
  if (isClass(child, "ColourImage")) {
    w["zDimension"] = 1;
    w["tDimension"] = 1;
  } else if (isClass(child, "MonochromeImage")) {
    w["zDimension"] = 1;
    w["tDimension"] = 1;
    w["bDimension"] = 1;
  } else if (isClass(child, "ROI")) {
    w["dataType"] = 153;
    w["dataPrecision"] = precisions.nonnegative;
  } else if (isClass(child, "PowerSpectrumArray") || isClass(child, "TransferFunctionArray")) {
    w["dataType"] = 35;
    w["dataPrecision"] = precisions.complex;
  } else if (isClass(child, "WindowFunctionArray")) {
    w["dataType"] = 161;
    w["dataPrecision"] = precisions.real;
  }
  return w;
}

std::string fileContent(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void makeFile(const fs::path &path) {
  std::ofstream out(path, std::ios::binary);
  out << "data";
}

// ---- Classes and their defaults -------------------------------------------------------------

TEST(ObjectClasses, DescriptorsCarryTheClassNames) {
  for (const ClassInfo &info : kClasses) {
    ASSERT_NE(info.descriptor->className, nullptr) << info.name;
    EXPECT_STREQ(info.descriptor->className, info.name);
  }
}

TEST(ObjectClasses, DescriptorsAreFifteenDistinctAddresses) {
  for (size_t i = 0; i < kClassCount; ++i)
    for (size_t j = i + 1; j < kClassCount; ++j)
      EXPECT_NE(kClasses[i].descriptor, kClasses[j].descriptor)
          << kClasses[i].name << " " << kClasses[j].name;
}

class ClassDefaults : public ::testing::TestWithParam<size_t> {
 protected:
  const ClassInfo &info() const { return kClasses[GetParam()]; }
};

TEST_P(ClassDefaults, NewObjectWithoutParentHoldsTheClassTemplate) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *object = Zel000(ctx, "object", info().descriptor, nullptr, nullptr, 0);
  ASSERT_NE(object, nullptr);
  expectWords(readWords(ctx, object), expectedNewWords(info(), precisionsOf(ctx)), info().name);
  EXPECT_EQ(Zel097(ctx, object), info().descriptor);
  EXPECT_EQ(Zel098(ctx, object), nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_P(ClassDefaults, AdjustmentsTakeTheCurrentPrecisionSettings) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute settings[] = {{"booleanPrecision", 2},
                             {"nonnegativeIntegerPrecision", 5},
                             {"signedIntegerPrecision", 12},
                             {"realArithmeticPrecision", 40},
                             {"complexArithmeticPrecision", 96}};
  ASSERT_EQ(Zel008(ctx, settings, 5), 0);
  Precisions precisions = precisionsOf(ctx);
  ASSERT_EQ(precisions.nonnegative, 5);
  ASSERT_EQ(precisions.real, 40);
  ZelObject *object = Zel000(ctx, nullptr, info().descriptor, nullptr, nullptr, 0);
  ASSERT_NE(object, nullptr);
  expectWords(readWords(ctx, object), expectedNewWords(info(), precisions), info().name);
}

TEST_P(ClassDefaults, WrapperCreatesItsClass) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"size", 321}};
  ZelObject *wrapped = info().wrapper(ctx, "wrapped", nullptr, list, 1);
  ASSERT_NE(wrapped, nullptr);
  EXPECT_EQ(Zel097(ctx, wrapped), info().descriptor);
  EXPECT_EQ(Zel099(ctx, nullptr, "wrapped"), wrapped);
  Words expected = expectedNewWords(info(), precisionsOf(ctx));
  expected["size"] = 321;
  expectWords(readWords(ctx, wrapped), expected, info().name);

  ZelObject *direct = Zel000(ctx, nullptr, info().descriptor, nullptr, list, 1);
  ASSERT_NE(direct, nullptr);
  EXPECT_EQ(readWords(ctx, direct), readWords(ctx, wrapped));
}

INSTANTIATE_TEST_SUITE_P(AllClasses, ClassDefaults, ::testing::Range<size_t>(0, kClassCount),
                         [](const ::testing::TestParamInfo<size_t> &param) {
                           return std::string(kClasses[param.param].name);
                         });

TEST(ObjectClasses, ClassOfAnObjectIsTheDescriptorAddress) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  for (const ClassInfo &info : kClasses) {
    ZelObject *object = Zel000(ctx, nullptr, info.descriptor, nullptr, nullptr, 0);
    ASSERT_NE(object, nullptr) << info.name;
    const ZelObjectClass *found = Zel097(ctx, object);
    EXPECT_EQ(found, info.descriptor) << info.name;
    ASSERT_NE(found, nullptr);
    EXPECT_STREQ(found->className, info.name);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectClasses, UnknownClassHandleIsRefused) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  // A copy of a descriptor is not the class: classes are told apart by address.
  const ZelObjectClass copy = ZelClassGenericImage;
  int local = 0;
  const ZelObjectClass *impostors[] = {nullptr, &copy,
                                       reinterpret_cast<const ZelObjectClass *>(&local)};
  for (const ZelObjectClass *impostor : impostors) {
    EXPECT_EQ(Zel000(ctx, "impostor", impostor, nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(Zel003b(ctx), 6);
  }
  // Also on a context with objects, and with a valid parent.
  ZelObject *image = Zel000b(ctx, "image", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "image"), image);
  for (const ZelObjectClass *impostor : impostors) {
    EXPECT_EQ(Zel000(ctx, "impostor", impostor, image, nullptr, 0), nullptr);
    EXPECT_EQ(Zel003b(ctx), 6);
  }
  EXPECT_EQ(Zel099(ctx, nullptr, "impostor"), nullptr);
  EXPECT_EQ(local, 0);
}

// ---- Creation ---------------------------------------------------------------------------

TEST(ObjectCreation, AttributeListIsAppliedToTheNewObject) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {
      {"xDimension", 640}, {"yDimension", 480}, {"colourSpace", ZelRgb}, {"noSuchAttribute", 5}};
  ZelObject *image = Zel000a(ctx, "picture", nullptr, list, 4);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(readAttribute(ctx, image, "xDimension"), 640);
  EXPECT_EQ(readAttribute(ctx, image, "yDimension"), 480);
  EXPECT_EQ(readAttribute(ctx, image, "colourSpace"), ZelRgb);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectCreation, NullListWithPositiveCountStillGivesTheObject) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *image = Zel000b(ctx, "picture", nullptr, nullptr, 2);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel003b(ctx), 18);
  EXPECT_EQ(Zel099(ctx, nullptr, "picture"), image);
  expectWords(readWords(ctx, image), expectedNewWords(kClasses[1], precisionsOf(ctx)),
              "GenericImage");
}

TEST(ObjectCreation, ListCountBelowOneAppliesNothing) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute list[] = {{"xDimension", 640}};
  for (int count : {0, -1}) {
    ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, count);
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(readAttribute(ctx, image, "xDimension"), 1);
    EXPECT_NE(Zel000b(ctx, nullptr, nullptr, nullptr, count), nullptr);
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectCreation, FailingAttributeListLeavesALiveObject) {
  // Some allocation made by the list fails: the object stands, the failure is in lastError.
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>("picture.dat")}};
  bool sawListFailure = false;
  for (long successes = 0; successes < 64; ++successes) {
    ContextGuard ctx;
    ASSERT_NE(ctx.get(), nullptr);
    zel::testing::failAllocationAfter(successes);
    ZelObject *object = Zel000b(ctx, "picture", nullptr, list, 1);
    zel::testing::failAllocationAfter(-1);
    if (!object) continue;  // no record
    const int code = Zel003b(ctx);
    const ZelValue fileName = readAttribute(ctx, object, "fileName");
    if (Zel099(ctx, nullptr, "picture") != object) continue;  // no name, list not applied
    if (fileName != 0) {
      EXPECT_STREQ(reinterpret_cast<const char *>(fileName), "picture.dat");
      EXPECT_EQ(code, 0);
      break;  // nothing failed any more
    }
    EXPECT_EQ(code, -1) << successes;
    EXPECT_EQ(Zel097(ctx, object), &ZelClassGenericImage);
    sawListFailure = true;
  }
  EXPECT_TRUE(sawListFailure);
}

TEST(ObjectCreation, NameIsCopiedAndEmptyNameGivesNone) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  char name[] = "original";
  ZelObject *named = Zel000b(ctx, name, nullptr, nullptr, 0);
  ASSERT_NE(named, nullptr);
  std::strcpy(name, "changed!");
  EXPECT_EQ(Zel099(ctx, nullptr, "original"), named);
  EXPECT_EQ(Zel099(ctx, nullptr, "changed!"), nullptr);

  ZelObject *unnamed = Zel000b(ctx, "", nullptr, nullptr, 0);
  ASSERT_NE(unnamed, nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, ""), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(ObjectCreation, NewObjectsHaveNoData) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ASSERT_NE(parent, nullptr);
  EXPECT_EQ(readAttribute(ctx, parent, "inited"), 0);
  ASSERT_EQ(Zel006a(ctx, parent, "inited", 1), 0);
  ASSERT_EQ(readAttribute(ctx, parent, "inited"), 1);
  ZelObject *child = Zel000b(ctx, "child", parent, nullptr, 0);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "inited"), 0);
  EXPECT_EQ(readAttribute(ctx, child, "tmpnam"), 0);
  EXPECT_EQ(readAttribute(ctx, parent, "inited"), 1);
}

TEST(ObjectCreation, ParentOnAnEmptyContextIsRefused) {
  ContextGuard ctx;
  ContextGuard other;
  ASSERT_NE(ctx.get(), nullptr);
  ASSERT_NE(other.get(), nullptr);
  ZelObject *foreign = Zel000b(other, "foreign", nullptr, nullptr, 0);
  ASSERT_NE(foreign, nullptr);
  int local = 0;
  for (ZelObject *parent : {foreign, reinterpret_cast<ZelObject *>(&local)}) {
    EXPECT_EQ(Zel000b(ctx, "child", parent, nullptr, 0), nullptr);
    EXPECT_EQ(Zel003b(ctx), 9);
  }
  EXPECT_EQ(Zel003b(other), 0);
  EXPECT_EQ(local, 0);
  // Nothing was made, and the context works as before.
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr);
  ZelObject *first = Zel000b(ctx, "first", nullptr, nullptr, 0);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "first"), first);
  EXPECT_EQ(Zel098(ctx, first), nullptr);
}

TEST(ObjectCreation, DeadParentIsRefused) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *keep = Zel000b(ctx, "keep", nullptr, nullptr, 0);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ASSERT_NE(keep, nullptr);
  ASSERT_NE(parent, nullptr);
  ASSERT_EQ(Zel002(ctx, parent), 0);
  EXPECT_EQ(Zel000b(ctx, "child", parent, nullptr, 0), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr);
}

TEST(ObjectCreation, RecordAllocationFailureGivesNullAndMinusOne) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  // The first record of the context, a record appended to the top level, and the first record
  // of a child level.
  zel::testing::failAllocationAfter(0);
  EXPECT_EQ(Zel000b(ctx, "root", nullptr, nullptr, 0), nullptr);
  zel::testing::failAllocationAfter(-1);
  EXPECT_EQ(Zel003b(ctx), -1);

  ZelObject *root = Zel000b(ctx, "root", nullptr, nullptr, 0);
  ASSERT_NE(root, nullptr);
  zel::reportError(ctx, 0);
  zel::testing::failAllocationAfter(0);
  EXPECT_EQ(Zel000b(ctx, "second", nullptr, nullptr, 0), nullptr);
  zel::testing::failAllocationAfter(-1);
  EXPECT_EQ(Zel003b(ctx), -1);

  zel::reportError(ctx, 0);
  zel::testing::failAllocationAfter(0);
  EXPECT_EQ(Zel000b(ctx, "child", root, nullptr, 0), nullptr);
  zel::testing::failAllocationAfter(-1);
  EXPECT_EQ(Zel003b(ctx), -1);

  // Nothing half-made was left behind, and the context goes on.
  EXPECT_EQ(Zel099(ctx, nullptr, "second"), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr);
  ZelObject *child = Zel000b(ctx, "child", root, nullptr, 0);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(Zel098(ctx, child), root);
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), child);
}

TEST(ObjectCreation, EveryAllocationFailureWhileCreatingIsHandled) {
  bool sawNull = false;
  bool sawNameless = false;
  bool sawComplete = false;
  ZelAttribute list[] = {{"xDimension", 77}};
  for (long successes = 0; successes < 64 && !sawComplete; ++successes) {
    ContextGuard ctx;
    ASSERT_NE(ctx.get(), nullptr);
    zel::testing::failAllocationAfter(successes);
    ZelObject *object = Zel000b(ctx, "named", nullptr, list, 1);
    zel::testing::failAllocationAfter(-1);
    if (!object) {
      EXPECT_EQ(Zel003b(ctx), -1) << successes;
      EXPECT_EQ(Zel099(ctx, nullptr, "named"), nullptr);
      sawNull = true;
      continue;
    }
    const int code = Zel003b(ctx);
    if (Zel099(ctx, nullptr, "named") == object) {
      EXPECT_EQ(code, 0);
      EXPECT_EQ(readAttribute(ctx, object, "xDimension"), 77);
      sawComplete = true;
      continue;
    }
    // No memory for the name: the object stands with its class and template, without a name,
    // and the list was not applied.
    sawNameless = true;
    EXPECT_EQ(code, -1) << successes;
    EXPECT_EQ(Zel097(ctx, object), &ZelClassGenericImage);
    expectWords(readWords(ctx, object), expectedNewWords(kClasses[1], precisionsOf(ctx)),
                "nameless GenericImage");
    EXPECT_EQ(Zel002(ctx, object), 0);
  }
  EXPECT_TRUE(sawNull);
  EXPECT_TRUE(sawNameless);
  EXPECT_TRUE(sawComplete);
}

TEST(ObjectCreation, FileFormatAndFormatAttributesApplyInAnyOrder) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const int32_t offsets[] = {10, 20, 30};
  std::array<ZelAttribute, 5> entries = {{{"fileFormat", ZelTiff},
                                          {"rowsPerStrip", 16},
                                          {"stripOffsets", reinterpret_cast<ZelValue>(offsets)},
                                          {"stripsPerImage", 3},
                                          {"scaleFactor", 50}}};
  std::sort(entries.begin(), entries.end(), [](const ZelAttribute &a, const ZelAttribute &b) {
    return std::strcmp(a.name, b.name) < 0;
  });
  Words first;
  int orders = 0;
  do {
    ZelObject *image = Zel000b(ctx, nullptr, nullptr, entries.data(), 5);
    ASSERT_NE(image, nullptr);
    std::string order;
    for (const ZelAttribute &entry : entries)
      order += std::string(entry.name) + " ";
    Words words = readWords(ctx, image);
    EXPECT_EQ(words["fileFormat"], ZelTiff) << order;
    EXPECT_EQ(words["scaleFactor"], 50) << order;
    EXPECT_EQ(Zel005a(ctx, image, "rowsPerStrip"), 16) << order;
    EXPECT_EQ(Zel005a(ctx, image, "stripsPerImage"), 3) << order;
    auto *table = reinterpret_cast<const int32_t *>(Zel005a(ctx, image, "stripOffsets"));
    ASSERT_NE(table, nullptr) << order;
    EXPECT_EQ(table[0], 10) << order;
    EXPECT_EQ(table[1], 20) << order;
    EXPECT_EQ(table[2], 30) << order;
    if (orders++ == 0) {
      first = words;
    } else {
      EXPECT_EQ(words, first) << order;
    }
  } while (std::next_permutation(entries.begin(), entries.end(),
                                 [](const ZelAttribute &a, const ZelAttribute &b) {
                                   return std::strcmp(a.name, b.name) < 0;
                                 }));
  EXPECT_EQ(orders, 120);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Derivation -------------------------------------------------------------------------

TEST(ObjectDerivation, AllowedPairsOfClasses) {
  for (const ClassInfo &parentClass : kClasses) {
    for (const ClassInfo &childClass : kClasses) {
      const std::string pair = std::string(childClass.name) + " from " + parentClass.name;
      ContextGuard ctx;
      ASSERT_NE(ctx.get(), nullptr);
      ZelObject *parent = Zel000(ctx, "parent", parentClass.descriptor, nullptr, nullptr, 0);
      ASSERT_NE(parent, nullptr) << pair;
      ZelObject *child = Zel000(ctx, "child", childClass.descriptor, parent, nullptr, 0);
      if (derivationAllowed(childClass, parentClass)) {
        ASSERT_NE(child, nullptr) << pair;
        EXPECT_EQ(Zel097(ctx, child), childClass.descriptor) << pair;
        EXPECT_EQ(Zel098(ctx, child), parent) << pair;
        EXPECT_EQ(Zel099(ctx, nullptr, "child"), child) << pair;
        EXPECT_EQ(Zel003b(ctx), 0) << pair;
      } else {
        EXPECT_EQ(child, nullptr) << pair;
        EXPECT_EQ(Zel003b(ctx), 11) << pair;
        EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr) << pair;
      }
    }
  }
}

TEST(ObjectDerivation, LookupTableDerivesOnlyFromLookupTable) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *table = Zel000e(ctx, "table", nullptr, nullptr, 0);
  ASSERT_NE(table, nullptr);
  ZelObject *copy = Zel000e(ctx, "copy", table, nullptr, 0);
  EXPECT_NE(copy, nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
  for (const ClassInfo &info : kClasses) {
    if (isClass(info, "LookupTable")) continue;
    ZelObject *parent = Zel000(ctx, nullptr, info.descriptor, nullptr, nullptr, 0);
    ASSERT_NE(parent, nullptr) << info.name;
    zel::reportError(ctx, 0);
    EXPECT_EQ(Zel000e(ctx, "lut", parent, nullptr, 0), nullptr) << info.name;
    EXPECT_EQ(Zel003b(ctx), 11) << info.name;
  }
}

TEST(ObjectDerivation, HistogramFromAnImageIsAMismatch) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  for (Wrapper image : {Zel000a, Zel000b, Zel000c}) {
    ZelObject *parent = image(ctx, nullptr, nullptr, nullptr, 0);
    ASSERT_NE(parent, nullptr);
    zel::reportError(ctx, 0);
    EXPECT_EQ(Zel000d(ctx, "histogram", parent, nullptr, 0), nullptr);
    EXPECT_EQ(Zel003b(ctx), 11);
  }
  EXPECT_EQ(Zel099(ctx, nullptr, "histogram"), nullptr);
}

TEST(ObjectDerivation, MonochromeFromThreeBandColourImageHasOneBand) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute shape[] = {
      {"xDimension", 640}, {"yDimension", 480}, {"bDimension", 3}, {"colourSpace", ZelRgb}};
  ZelObject *colour = Zel000a(ctx, "colour", nullptr, shape, 4);
  ASSERT_NE(colour, nullptr);
  ZelObject *grey = Zel000c(ctx, "grey", colour, nullptr, 0);
  ASSERT_NE(grey, nullptr);
  EXPECT_EQ(readAttribute(ctx, grey, "bDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, grey, "xDimension"), 640);
  EXPECT_EQ(readAttribute(ctx, grey, "yDimension"), 480);
  EXPECT_EQ(readAttribute(ctx, grey, "colourSpace"), ZelRgb);
  EXPECT_EQ(readAttribute(ctx, colour, "bDimension"), 3);
}

TEST(ObjectDerivation, ColourImageFromGenericImageDropsDepthAndKeepsBands) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute shape[] = {{"xDimension", 32},
                          {"yDimension", 16},
                          {"zDimension", 5},
                          {"tDimension", 2},
                          {"bDimension", 4}};
  ZelObject *generic = Zel000b(ctx, "generic", nullptr, shape, 5);
  ASSERT_NE(generic, nullptr);
  ZelObject *colour = Zel000a(ctx, "colour", generic, nullptr, 0);
  ASSERT_NE(colour, nullptr);
  EXPECT_EQ(readAttribute(ctx, colour, "zDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, colour, "tDimension"), 1);
  EXPECT_EQ(readAttribute(ctx, colour, "bDimension"), 4);
  EXPECT_EQ(readAttribute(ctx, colour, "xDimension"), 32);
  EXPECT_EQ(readAttribute(ctx, colour, "yDimension"), 16);
  // A generic image keeps all five.
  ZelObject *copy = Zel000b(ctx, "copy", generic, nullptr, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(readAttribute(ctx, copy, "zDimension"), 5);
  EXPECT_EQ(readAttribute(ctx, copy, "tDimension"), 2);
  EXPECT_EQ(readAttribute(ctx, copy, "bDimension"), 4);
}

TEST(ObjectDerivation, RoiFromAnImageHasItsShapeAndOwnData) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ASSERT_EQ(Zel008a(ctx, "nonnegativeIntegerPrecision", 6), 0);
  int application[4] = {};
  ZelAttribute shape[] = {{"xDimension", 200},
                          {"yDimension", 100},
                          {"bDimension", 3},
                          {"dataType", ZelSigned},
                          {"fileName", reinterpret_cast<ZelValue>("image.dat")},
                          {"applicationAddressSpace", reinterpret_cast<ZelValue>(application)},
                          {"inited", 1}};
  ZelObject *image = Zel000b(ctx, "image", nullptr, shape, 7);
  ASSERT_NE(image, nullptr);
  ASSERT_EQ(readAttribute(ctx, image, "dataPrecision"), 16);
  ZelObject *roi = Zel000j(ctx, "roi", image, nullptr, 0);
  ASSERT_NE(roi, nullptr);
  EXPECT_EQ(readAttribute(ctx, roi, "xDimension"), 200);
  EXPECT_EQ(readAttribute(ctx, roi, "yDimension"), 100);
  EXPECT_EQ(readAttribute(ctx, roi, "bDimension"), 3);
  EXPECT_EQ(readAttribute(ctx, roi, "dataType"), 153);
  EXPECT_EQ(readAttribute(ctx, roi, "dataPrecision"), 6);
  EXPECT_EQ(readAttribute(ctx, roi, "fileName"), 0);
  EXPECT_EQ(readAttribute(ctx, roi, "applicationAddressSpace"), 0);
  EXPECT_EQ(readAttribute(ctx, roi, "workSpace"), 0);
  EXPECT_EQ(readAttribute(ctx, roi, "inited"), 0);
  // The parent keeps its own.
  EXPECT_STREQ(reinterpret_cast<const char *>(readAttribute(ctx, image, "fileName")), "image.dat");
  EXPECT_EQ(readAttribute(ctx, image, "applicationAddressSpace"),
            reinterpret_cast<ZelValue>(application));
  EXPECT_EQ(readAttribute(ctx, image, "dataType"), ZelSigned);
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

// Writes a distinct value into every word of `object` that an application can write.
void fillWords(ZelContext *ctx, ZelObject *object, void *applicationBlock, void *workBlock,
               ZelObject *lut, ZelObject *roi) {
  std::vector<ZelAttribute> list;
  ZelValue next = 1000;
  for (const char *name : kWordNames) {
    std::string word = name;
    if (word == "fileFormat" || word == "fileName" || word == "dataType" ||
        word == "dataPrecision" || word == "repository" || word == "applicationAddressSpace" ||
        word == "workSpace" || word == "lut" || word == "roi")
      continue;
    list.push_back({name, next++});
  }
  list.push_back({"repository", ZelFile});
  list.push_back({"fileName", reinterpret_cast<ZelValue>("parent.dat")});
  list.push_back({"applicationAddressSpace", reinterpret_cast<ZelValue>(applicationBlock)});
  list.push_back({"workSpace", reinterpret_cast<ZelValue>(workBlock)});
  list.push_back({"lut", reinterpret_cast<ZelValue>(lut)});
  list.push_back({"roi", reinterpret_cast<ZelValue>(roi)});
  list.push_back({"applAddressSpaceHandle", reinterpret_cast<ZelValue>(applicationBlock) + 1});
  list.push_back({"workSpaceHandle", reinterpret_cast<ZelValue>(workBlock) + 2});
  list.push_back({"dataType", ZelSigned});
  list.push_back({"dataPrecision", 13});
  list.push_back({"inited", 1});
  ASSERT_EQ(Zel006(ctx, object, list.data(), static_cast<int>(list.size())), 0);
}

TEST(ObjectDerivation, ChildCopiesParentWordsButNotItsStorage) {
  for (const ClassInfo &parentClass : kClasses) {
    for (const ClassInfo &childClass : kClasses) {
      if (!derivationAllowed(childClass, parentClass)) continue;
      const std::string pair = std::string(childClass.name) + " from " + parentClass.name;
      ContextGuard ctx;
      ASSERT_NE(ctx.get(), nullptr);
      ZelAttribute settings[] = {{"nonnegativeIntegerPrecision", 6},
                                 {"realArithmeticPrecision", 40},
                                 {"complexArithmeticPrecision", 96}};
      ASSERT_EQ(Zel008(ctx, settings, 3), 0);
      ZelObject *lut = Zel000e(ctx, "lut", nullptr, nullptr, 0);
      ZelObject *roi = Zel000j(ctx, "roi", nullptr, nullptr, 0);
      ZelObject *parent = Zel000(ctx, "parent", parentClass.descriptor, nullptr, nullptr, 0);
      ASSERT_NE(parent, nullptr) << pair;
      int applicationBlock[4] = {};
      int workBlock[4] = {};
      fillWords(ctx, parent, applicationBlock, workBlock, lut, roi);
      Words parentWords = readWords(ctx, parent);
      ASSERT_EQ(parentWords["inited"], 1) << pair;
      ASSERT_EQ(parentWords["lut"], reinterpret_cast<ZelValue>(lut)) << pair;

      ZelObject *child = Zel000(ctx, "child", childClass.descriptor, parent, nullptr, 0);
      ASSERT_NE(child, nullptr) << pair;
      expectWords(readWords(ctx, child),
                  expectedDerivedWords(parentWords, childClass, precisionsOf(ctx)), pair);
      // The parent is as it was.
      EXPECT_EQ(readWords(ctx, parent), parentWords) << pair;
      EXPECT_EQ(Zel003b(ctx), 0) << pair;
    }
  }
}

TEST(ObjectDerivation, PrecisionsOfDerivedArraysFollowTheCurrentSettings) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *image = Zel000b(ctx, "image", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  ZelAttribute settings[] = {{"realArithmeticPrecision", 48}, {"complexArithmeticPrecision", 80}};
  ASSERT_EQ(Zel008(ctx, settings, 2), 0);
  for (Wrapper complexArray : {Zel000k, Zel000l}) {
    ZelObject *spectrum = complexArray(ctx, nullptr, image, nullptr, 0);
    ASSERT_NE(spectrum, nullptr);
    EXPECT_EQ(readAttribute(ctx, spectrum, "dataType"), ZelComplex);
    EXPECT_EQ(readAttribute(ctx, spectrum, "dataPrecision"), 80);
  }
  ZelObject *window = Zel000m(ctx, nullptr, image, nullptr, 0);
  ASSERT_NE(window, nullptr);
  EXPECT_EQ(readAttribute(ctx, window, "dataType"), ZelReal);
  EXPECT_EQ(readAttribute(ctx, window, "dataPrecision"), 48);
}

TEST(ObjectDerivation, SameClassArraysKeepTheParentsWords) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  // A dither array derived from another is not given the 4 by 4 shape again.
  ZelAttribute shape[] = {
      {"xDimension", 8}, {"yDimension", 2}, {"dataType", ZelSigned}, {"scaleFactor", 3}};
  ZelObject *dither = Zel000g(ctx, "dither", nullptr, shape, 4);
  ASSERT_NE(dither, nullptr);
  ZelObject *copy = Zel000g(ctx, "copy", dither, nullptr, 0);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(readAttribute(ctx, copy, "xDimension"), 8);
  EXPECT_EQ(readAttribute(ctx, copy, "yDimension"), 2);
  EXPECT_EQ(readAttribute(ctx, copy, "dataType"), ZelSigned);
  EXPECT_EQ(readAttribute(ctx, copy, "dataPrecision"), 16);
  EXPECT_EQ(readAttribute(ctx, copy, "scaleFactor"), 3);
}

TEST(ObjectDerivation, FileFormatWithoutRecordIsCopied) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelAttribute format[] = {{"fileFormat", ZelSgiRgb}};
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, format, 1);
  ASSERT_NE(parent, nullptr);
  ZelObject *child = Zel000b(ctx, "child", parent, nullptr, 0);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "fileFormat"), ZelSgiRgb);

  ZelObject *plain = Zel000b(ctx, "plain", nullptr, nullptr, 0);
  ZelObject *plainChild = Zel000b(ctx, "plainChild", plain, nullptr, 0);
  ASSERT_NE(plainChild, nullptr);
  EXPECT_EQ(readAttribute(ctx, plainChild, "fileFormat"), 0);
}

TEST(ObjectDerivation, ChildGetsCopiesOfTheParentsFormatRecord) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const int32_t offsets[] = {100, 200};
  const int32_t resolution[] = {300, 1};
  ZelAttribute tiff[] = {{"fileFormat", ZelTiff},
                         {"stripsPerImage", 2},
                         {"stripOffsets", reinterpret_cast<ZelValue>(offsets)},
                         {"xResolution", reinterpret_cast<ZelValue>(resolution)},
                         {"rowsPerStrip", 8},
                         {"imageDescription", reinterpret_cast<ZelValue>("scan")}};
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, tiff, 6);
  ASSERT_NE(parent, nullptr);
  ZelObject *child = Zel000a(ctx, "child", parent, nullptr, 0);
  ASSERT_NE(child, nullptr);
  EXPECT_EQ(readAttribute(ctx, child, "fileFormat"), ZelTiff);
  EXPECT_EQ(Zel005a(ctx, child, "rowsPerStrip"), 8);
  EXPECT_EQ(Zel005a(ctx, child, "stripsPerImage"), 2);
  auto *parentOffsets = reinterpret_cast<const int32_t *>(Zel005a(ctx, parent, "stripOffsets"));
  auto *childOffsets = reinterpret_cast<const int32_t *>(Zel005a(ctx, child, "stripOffsets"));
  ASSERT_NE(childOffsets, nullptr);
  EXPECT_NE(childOffsets, parentOffsets);
  EXPECT_EQ(childOffsets[0], 100);
  EXPECT_EQ(childOffsets[1], 200);
  auto *childResolution = reinterpret_cast<const int32_t *>(Zel005a(ctx, child, "xResolution"));
  ASSERT_NE(childResolution, nullptr);
  EXPECT_NE(childResolution,
            reinterpret_cast<const int32_t *>(Zel005a(ctx, parent, "xResolution")));
  EXPECT_EQ(childResolution[0], 300);
  EXPECT_EQ(childResolution[1], 1);
  auto *childText = reinterpret_cast<const char *>(Zel005a(ctx, child, "imageDescription"));
  ASSERT_NE(childText, nullptr);
  EXPECT_STREQ(childText, "scan");
  EXPECT_NE(childText, reinterpret_cast<const char *>(Zel005a(ctx, parent, "imageDescription")));

  // A change on the child leaves the parent alone.
  const int32_t moved[] = {7, 9};
  ASSERT_EQ(Zel006a(ctx, child, "stripOffsets", reinterpret_cast<ZelValue>(moved)), 0);
  ASSERT_EQ(Zel006a(ctx, child, "imageDescription", reinterpret_cast<ZelValue>("other")), 0);
  EXPECT_EQ(parentOffsets[0], 100);
  EXPECT_EQ(parentOffsets[1], 200);
  EXPECT_STREQ(reinterpret_cast<const char *>(Zel005a(ctx, parent, "imageDescription")), "scan");

  ZelAttribute png[] = {{"fileFormat", ZelPng},
                        {"colourType", 3},
                        {"copyright", reinterpret_cast<ZelValue>("(c) zel")}};
  ZelObject *pngParent = Zel000b(ctx, "pngParent", nullptr, png, 3);
  ASSERT_NE(pngParent, nullptr);
  ZelObject *pngChild = Zel000b(ctx, "pngChild", pngParent, nullptr, 0);
  ASSERT_NE(pngChild, nullptr);
  EXPECT_EQ(readAttribute(ctx, pngChild, "fileFormat"), ZelPng);
  EXPECT_EQ(Zel005a(ctx, pngChild, "colourType"), 3);
  auto *copyright = reinterpret_cast<const char *>(Zel005a(ctx, pngChild, "copyright"));
  ASSERT_NE(copyright, nullptr);
  EXPECT_STREQ(copyright, "(c) zel");
  EXPECT_NE(copyright, reinterpret_cast<const char *>(Zel005a(ctx, pngParent, "copyright")));
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectDerivation, EveryFormatRecordIsCopiedToTheChild) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  struct FormatCase {
    ZelValue fileFormat;
    const char *field;
    ZelValue value;
  };
  const FormatCase cases[] = {
      {ZelGif, "left", 12},
      {ZelTiff, "orientation", 3},
      {ZelSegmentedDocument, "xVDC2ndCorner", 77},
      {ZelBmp, "xResolution", 2835},
      {ZelJpegInterchange, "restartInterval", 4},
      {ZelPcx, "versionNumber", 3},
      {ZelPng, "transparencyRed", 9},
      {ZelJpegDirect, "progressive", 1},
      {ZelJpegColourFax, "lGamutRange", 90},
  };
  for (const FormatCase &c : cases) {
    ZelAttribute list[] = {{"fileFormat", c.fileFormat}, {c.field, c.value}};
    ZelObject *parent = Zel000b(ctx, nullptr, nullptr, list, 2);
    ASSERT_NE(parent, nullptr) << c.fileFormat;
    ASSERT_EQ(Zel005a(ctx, parent, c.field), c.value) << c.fileFormat;
    ZelObject *child = Zel000c(ctx, nullptr, parent, nullptr, 0);
    ASSERT_NE(child, nullptr) << c.fileFormat;
    EXPECT_EQ(readAttribute(ctx, child, "fileFormat"), c.fileFormat);
    EXPECT_EQ(Zel005a(ctx, child, c.field), c.value) << c.fileFormat << " " << c.field;
    // The child's record is its own.
    ASSERT_EQ(Zel006a(ctx, child, c.field, c.value + 1), 0);
    EXPECT_EQ(Zel005a(ctx, parent, c.field), c.value) << c.fileFormat;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectDerivation, ChildGetsCopiesOfTheParentsByteTables) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  unsigned char quantisation[64];
  for (int i = 0; i < 64; ++i)
    quantisation[i] = static_cast<unsigned char>(i + 1);
  const unsigned char alpha[4] = {0, 64, 128, 192};
  ZelAttribute jpeg[] = {{"fileFormat", ZelJpegInterchange},
                         {"luminanceQuantizationTable", reinterpret_cast<ZelValue>(quantisation)}};
  ZelAttribute png[] = {{"fileFormat", ZelPng},
                        {"transparencyEntry", 4},
                        {"transparencyPaletteIndex", reinterpret_cast<ZelValue>(alpha)}};
  struct TableCase {
    ZelAttribute *list;
    const char *table;
    size_t bytes;
  };
  const TableCase cases[] = {{jpeg, "luminanceQuantizationTable", 64},
                             {png, "transparencyPaletteIndex", 256}};
  for (const TableCase &c : cases) {
    ZelObject *parent = Zel000b(ctx, nullptr, nullptr, c.list, c.bytes == 64 ? 2 : 3);
    ASSERT_NE(parent, nullptr) << c.table;
    ZelObject *child = Zel000b(ctx, nullptr, parent, nullptr, 0);
    ASSERT_NE(child, nullptr) << c.table;
    auto *parentTable = reinterpret_cast<const unsigned char *>(Zel005a(ctx, parent, c.table));
    auto *childTable = reinterpret_cast<const unsigned char *>(Zel005a(ctx, child, c.table));
    ASSERT_NE(parentTable, nullptr) << c.table;
    ASSERT_NE(childTable, nullptr) << c.table;
    EXPECT_NE(childTable, parentTable) << c.table;
    EXPECT_EQ(std::memcmp(childTable, parentTable, c.bytes), 0) << c.table;
  }
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Parent and class lookups --------------------------------------------------------------

TEST(ObjectTree, ParentOfAnObject) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *root = Zel000b(ctx, "root", nullptr, nullptr, 0);
  ZelObject *child = Zel000c(ctx, "child", root, nullptr, 0);
  ZelObject *grandchild = Zel000c(ctx, "grandchild", child, nullptr, 0);
  ASSERT_NE(grandchild, nullptr);
  EXPECT_EQ(Zel098(ctx, root), nullptr);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_EQ(Zel098(ctx, child), root);
  EXPECT_EQ(Zel098(ctx, grandchild), child);
  EXPECT_EQ(Zel003b(ctx), 0);
}

// ---- Finding by name --------------------------------------------------------------------

// A tree whose duplicate names tell the search order:
//   top level:   top1, top2, a, top1(2)
//   under top1:  a(c1a), b(c1b), d(c1c), d(c1d)
//   under top2:  c(c2a)
//   under a:     b(c3a), and under that c(g)
class NameSearch : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(ctx.get(), nullptr);
    top1 = Zel000b(ctx, "top1", nullptr, nullptr, 0);
    top2 = Zel000b(ctx, "top2", nullptr, nullptr, 0);
    top3 = Zel000b(ctx, "a", nullptr, nullptr, 0);
    top4 = Zel000b(ctx, "top1", nullptr, nullptr, 0);
    c1a = Zel000b(ctx, "a", top1, nullptr, 0);
    c1b = Zel000b(ctx, "b", top1, nullptr, 0);
    c1c = Zel000b(ctx, "d", top1, nullptr, 0);
    c1d = Zel000b(ctx, "d", top1, nullptr, 0);
    c2a = Zel000b(ctx, "c", top2, nullptr, 0);
    c3a = Zel000b(ctx, "b", top3, nullptr, 0);
    g = Zel000b(ctx, "c", c3a, nullptr, 0);
    for (ZelObject *object : {top1, top2, top3, top4, c1a, c1b, c1c, c1d, c2a, c3a, g})
      ASSERT_NE(object, nullptr);
    ASSERT_EQ(Zel003b(ctx), 0);
  }

  ContextGuard ctx;
  ZelObject *top1 = nullptr, *top2 = nullptr, *top3 = nullptr, *top4 = nullptr;
  ZelObject *c1a = nullptr, *c1b = nullptr, *c1c = nullptr, *c1d = nullptr;
  ZelObject *c2a = nullptr, *c3a = nullptr, *g = nullptr;
};

TEST_F(NameSearch, FirstOfALevelWins) {
  EXPECT_EQ(Zel099(ctx, nullptr, "top1"), top1);
  EXPECT_EQ(Zel099(ctx, nullptr, "d"), c1c);
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST_F(NameSearch, WholeLevelComesBeforeAnyChild) {
  EXPECT_EQ(Zel099(ctx, nullptr, "a"), top3);
}

TEST_F(NameSearch, ChildrenOfLaterSiblingsComeBeforeThoseOfEarlierOnes) {
  EXPECT_EQ(Zel099(ctx, nullptr, "b"), c3a);
  // Even a grandchild under a later sibling comes before a child of an earlier one.
  EXPECT_EQ(Zel099(ctx, nullptr, "c"), g);
}

TEST_F(NameSearch, StartObjectLimitsTheSearchToItsLaterSiblingsAndTheirChildren) {
  EXPECT_EQ(Zel099(ctx, top2, "top2"), top2);
  EXPECT_EQ(Zel099(ctx, top2, "top1"), top4);
  EXPECT_EQ(Zel099(ctx, top2, "a"), top3);
  EXPECT_EQ(Zel099(ctx, top2, "b"), c3a);
  EXPECT_EQ(Zel099(ctx, top2, "c"), g);
  EXPECT_EQ(Zel099(ctx, top4, "top1"), top4);
  EXPECT_EQ(Zel099(ctx, c1b, "d"), c1c);
  EXPECT_EQ(Zel099(ctx, c1d, "d"), c1d);
  EXPECT_EQ(Zel099(ctx, c3a, "c"), g);
  EXPECT_EQ(Zel003b(ctx), 0);

  // Earlier siblings, their children and anything above are not searched.
  EXPECT_EQ(Zel099(ctx, top2, "d"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, c1b, "a"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, c1a, "top1"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, top4, "c"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, g, "b"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST_F(NameSearch, NamesCompareExactly) {
  EXPECT_EQ(Zel099(ctx, nullptr, "Top1"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_EQ(Zel099(ctx, nullptr, "top"), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "top1 "), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, ""), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, nullptr), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST_F(NameSearch, DestroyedObjectsAreNotFound) {
  ASSERT_EQ(Zel002(ctx, top3), 0);  // takes b(c3a) and c(g) with it
  EXPECT_EQ(Zel099(ctx, nullptr, "a"), c1a);
  EXPECT_EQ(Zel099(ctx, nullptr, "b"), c1b);
  EXPECT_EQ(Zel099(ctx, nullptr, "c"), c2a);
  ASSERT_EQ(Zel002(ctx, top1), 0);
  EXPECT_EQ(Zel099(ctx, nullptr, "top1"), top4);
  EXPECT_EQ(Zel099(ctx, nullptr, "d"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(ObjectTree, FindingInAnEmptyContextReportsInvalidInstance) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "anything"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

TEST(ObjectTree, FindingNoMatchReportsInvalidInstance) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *image = Zel000b(ctx, "image", nullptr, nullptr, 0);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "missing"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  // A context with only free records is searched just as well.
  ASSERT_EQ(Zel002(ctx, image), 0);
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, nullptr, "image"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
}

// ---- Destruction and reuse of records ---------------------------------------------------

TEST(ObjectTree, DestroyedHandleIsRefusedUntilTheRecordIsReused) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *first = Zel000b(ctx, "first", nullptr, nullptr, 0);
  ZelAttribute shape[] = {{"xDimension", 640}};
  ZelObject *gone = Zel000a(ctx, "gone", nullptr, shape, 1);
  ZelObject *last = Zel000b(ctx, "last", nullptr, nullptr, 0);
  ASSERT_NE(first, nullptr);
  ASSERT_NE(gone, nullptr);
  ASSERT_NE(last, nullptr);
  EXPECT_EQ(Zel002(ctx, gone), 0);

  ZelValue place = kUntouched;
  ZelAttribute read{"xDimension", reinterpret_cast<ZelValue>(&place)};
  ZelAttribute write{"xDimension", 5};
  auto expectRefused = [&](const char *call) {
    EXPECT_EQ(Zel003b(ctx), 9) << call;
    zel::reportError(ctx, 0);
  };
  EXPECT_EQ(Zel005(ctx, gone, &read, 1), 9);
  expectRefused("Zel005");
  EXPECT_EQ(place, kUntouched);
  EXPECT_EQ(Zel005a(ctx, gone, "xDimension"), reinterpret_cast<ZelValue>(ctx.get()));
  expectRefused("Zel005a");
  EXPECT_EQ(Zel006(ctx, gone, &write, 1), 9);
  expectRefused("Zel006");
  EXPECT_EQ(Zel006a(ctx, gone, "xDimension", 5), 9);
  expectRefused("Zel006a");
  EXPECT_EQ(Zel002(ctx, gone), 9);
  expectRefused("Zel002");
  EXPECT_EQ(Zel097(ctx, gone), nullptr);
  expectRefused("Zel097");
  EXPECT_EQ(Zel098(ctx, gone), nullptr);
  expectRefused("Zel098");
  EXPECT_EQ(Zel099(ctx, gone, "last"), nullptr);
  expectRefused("Zel099");
  EXPECT_EQ(Zel000b(ctx, "child", gone, nullptr, 0), nullptr);
  expectRefused("Zel000");
  EXPECT_EQ(Zel099(ctx, nullptr, "gone"), nullptr);
  expectRefused("Zel099 by name");

  // The next object on that level takes the free record, and the old handle now means it.
  ZelObject *reused = Zel000d(ctx, "reused", nullptr, nullptr, 0);
  ASSERT_EQ(reused, gone);
  EXPECT_EQ(Zel097(ctx, gone), &ZelClassHistogram);
  EXPECT_EQ(Zel005a(ctx, gone, "xDimension"), 256);
  EXPECT_EQ(Zel099(ctx, nullptr, "reused"), gone);
  EXPECT_EQ(Zel099(ctx, nullptr, "gone"), nullptr);
  EXPECT_EQ(Zel099(ctx, first, "last"), last);
  // Records stay in their place in the chain: the reused one is still between the others.
  EXPECT_EQ(Zel099(ctx, gone, "first"), nullptr);
  EXPECT_EQ(Zel099(ctx, gone, "last"), last);
}

TEST(ObjectTree, ReusedRecordKeepsNothingOfItsFormerObject) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  int block[4] = {};
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>("former.dat")},
                         {"fileFormat", ZelPng},
                         {"copyright", reinterpret_cast<ZelValue>("(c) former")},
                         {"applicationAddressSpace", reinterpret_cast<ZelValue>(block)},
                         {"size", 99},
                         {"xDimension", 640},
                         {"inited", 1}};
  ZelObject *former = Zel000a(ctx, "former", nullptr, list, 7);
  ASSERT_NE(former, nullptr);
  ASSERT_NE(Zel000a(ctx, "child", former, nullptr, 0), nullptr);
  ASSERT_EQ(Zel002(ctx, former), 0);

  for (const ClassInfo &info : kClasses) {
    ZelObject *reused = Zel000(ctx, nullptr, info.descriptor, nullptr, nullptr, 0);
    ASSERT_EQ(reused, former) << info.name;
    expectWords(readWords(ctx, reused), expectedNewWords(info, precisionsOf(ctx)), info.name);
    EXPECT_EQ(Zel098(ctx, reused), nullptr);
    EXPECT_EQ(Zel099(ctx, reused, "former"), nullptr);
    EXPECT_EQ(Zel099(ctx, reused, "child"), nullptr);
    ZelValue copyright = kUntouched;
    ZelAttribute read{"copyright", reinterpret_cast<ZelValue>(&copyright)};
    EXPECT_EQ(Zel005(ctx, reused, &read, 1), 0);
    EXPECT_EQ(copyright, kUntouched) << info.name;
    ASSERT_EQ(Zel002(ctx, reused), 0);
  }
  EXPECT_TRUE(fs::is_empty(scratch.path()));
}

TEST(ObjectTree, FirstFreeRecordOfTheLevelIsTakenFirst) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *a = Zel000b(ctx, "a", nullptr, nullptr, 0);
  ZelObject *b = Zel000b(ctx, "b", nullptr, nullptr, 0);
  ZelObject *c = Zel000b(ctx, "c", nullptr, nullptr, 0);
  ZelObject *d = Zel000b(ctx, "d", nullptr, nullptr, 0);
  ASSERT_NE(d, nullptr);
  ASSERT_EQ(Zel002(ctx, c), 0);
  ASSERT_EQ(Zel002(ctx, a), 0);
  EXPECT_EQ(Zel000b(ctx, nullptr, nullptr, nullptr, 0), a);
  EXPECT_EQ(Zel000b(ctx, nullptr, nullptr, nullptr, 0), c);
  ZelObject *appended = Zel000b(ctx, "appended", nullptr, nullptr, 0);
  ASSERT_NE(appended, nullptr);
  for (ZelObject *old : {a, b, c, d})
    EXPECT_NE(appended, old);
  // Appended at the end of the chain: found from d, not before it.
  EXPECT_EQ(Zel099(ctx, d, "appended"), appended);
  EXPECT_EQ(Zel099(ctx, appended, "d"), nullptr);
}

TEST(ObjectTree, FreeRecordOfAChildLevelIsReusedOnThatLevel) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ZelObject *first = Zel000b(ctx, "first", parent, nullptr, 0);
  ZelObject *second = Zel000b(ctx, "second", parent, nullptr, 0);
  ASSERT_NE(second, nullptr);
  ASSERT_EQ(Zel002(ctx, first), 0);
  EXPECT_EQ(Zel097(ctx, first), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  ZelObject *again = Zel000c(ctx, "again", parent, nullptr, 0);
  EXPECT_EQ(again, first);
  EXPECT_EQ(Zel098(ctx, first), parent);
  EXPECT_EQ(Zel097(ctx, first), &ZelClassMonochromeImage);
  EXPECT_EQ(Zel099(ctx, again, "second"), second);
}

TEST(ObjectTree, RecordFreedOnAnotherLevelIsNotTaken) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ZelObject *topFree = Zel000b(ctx, "topFree", nullptr, nullptr, 0);
  ZelObject *child = Zel000b(ctx, "child", parent, nullptr, 0);
  ZelObject *childFree = Zel000b(ctx, "childFree", parent, nullptr, 0);
  ASSERT_NE(childFree, nullptr);
  ASSERT_EQ(Zel002(ctx, topFree), 0);

  // A new child does not take the free record of the top level...
  ZelObject *newChild = Zel000b(ctx, "newChild", parent, nullptr, 0);
  ASSERT_NE(newChild, nullptr);
  EXPECT_NE(newChild, topFree);
  EXPECT_EQ(Zel097(ctx, topFree), nullptr);

  // ...nor a new top-level object that of a child level.
  ASSERT_EQ(Zel002(ctx, childFree), 0);
  ZelObject *top = Zel000b(ctx, "top", nullptr, nullptr, 0);
  EXPECT_EQ(top, topFree);
  ZelObject *top2 = Zel000b(ctx, "top2", nullptr, nullptr, 0);
  ASSERT_NE(top2, nullptr);
  EXPECT_NE(top2, childFree);
  EXPECT_EQ(Zel097(ctx, childFree), nullptr);
  EXPECT_EQ(Zel000b(ctx, "childAgain", parent, nullptr, 0), childFree);
  EXPECT_EQ(Zel098(ctx, child), parent);
}

TEST(ObjectTree, DestroyingAParentInvalidatesAllItsDescendants) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ZelObject *sibling = Zel000b(ctx, "sibling", nullptr, nullptr, 0);
  ZelObject *siblingChild = Zel000j(ctx, "siblingChild", sibling, nullptr, 0);
  ZelObject *child1 = Zel000c(ctx, "child1", parent, nullptr, 0);
  ZelObject *child2 = Zel000a(ctx, "child2", parent, nullptr, 0);
  ZelObject *grandchild = Zel000j(ctx, "grandchild", child1, nullptr, 0);
  for (ZelObject *object : {parent, sibling, siblingChild, child1, child2, grandchild})
    ASSERT_NE(object, nullptr);

  EXPECT_EQ(Zel002(ctx, parent), 0);
  for (ZelObject *dead : {parent, child1, child2, grandchild}) {
    zel::reportError(ctx, 0);
    EXPECT_EQ(Zel097(ctx, dead), nullptr);
    EXPECT_EQ(Zel003b(ctx), 9);
    EXPECT_EQ(Zel002(ctx, dead), 9);
    EXPECT_EQ(Zel006a(ctx, dead, "size", 1), 9);
  }
  for (const char *name : {"parent", "child1", "child2", "grandchild"})
    EXPECT_EQ(Zel099(ctx, nullptr, name), nullptr) << name;
  // Siblings and their children survive.
  zel::reportError(ctx, 0);
  EXPECT_EQ(Zel099(ctx, nullptr, "sibling"), sibling);
  EXPECT_EQ(Zel099(ctx, nullptr, "siblingChild"), siblingChild);
  EXPECT_EQ(Zel098(ctx, siblingChild), sibling);
  EXPECT_EQ(Zel003b(ctx), 0);

  // The parent's record comes back without children.
  ZelObject *reused = Zel000b(ctx, "reused", nullptr, nullptr, 0);
  ASSERT_EQ(reused, parent);
  EXPECT_EQ(Zel099(ctx, reused, "child1"), nullptr);
  EXPECT_EQ(Zel099(ctx, reused, "grandchild"), nullptr);
  ZelObject *newChild = Zel000b(ctx, "newChild", reused, nullptr, 0);
  ASSERT_NE(newChild, nullptr);
  EXPECT_EQ(Zel098(ctx, newChild), reused);
}

TEST(ObjectTree, StaleAndForeignHandlesAreInvalidInstances) {
  ContextGuard ctx;
  ContextGuard other;
  ASSERT_NE(ctx.get(), nullptr);
  ASSERT_NE(other.get(), nullptr);
  ZelObject *live = Zel000b(ctx, "live", nullptr, nullptr, 0);
  ZelObject *doomed = Zel000b(ctx, "doomed", nullptr, nullptr, 0);
  ZelObject *freed = Zel000b(ctx, "freed", doomed, nullptr, 0);  // its record is released
  ZelObject *foreign = Zel000b(other, "foreign", nullptr, nullptr, 0);
  ASSERT_NE(live, nullptr);
  ASSERT_NE(freed, nullptr);
  ASSERT_NE(foreign, nullptr);
  ASSERT_EQ(Zel002(ctx, doomed), 0);

  alignas(64) unsigned char stackRecord[1024] = {};
  ZelObject *handles[] = {
      reinterpret_cast<ZelObject *>(stackRecord),
      freed,
      foreign,
      reinterpret_cast<ZelObject *>(ctx.get()),
      reinterpret_cast<ZelObject *>(static_cast<uintptr_t>(1)),
  };
  for (ZelObject *handle : handles) {
    ZelValue place = kUntouched;
    ZelAttribute read{"xDimension", reinterpret_cast<ZelValue>(&place)};
    ZelAttribute write{"xDimension", 5};
    EXPECT_EQ(Zel005(ctx, handle, &read, 1), 9);
    EXPECT_EQ(place, kUntouched);
    EXPECT_EQ(Zel005a(ctx, handle, "xDimension"), reinterpret_cast<ZelValue>(ctx.get()));
    EXPECT_EQ(Zel006(ctx, handle, &write, 1), 9);
    EXPECT_EQ(Zel006a(ctx, handle, "xDimension", 5), 9);
    EXPECT_EQ(Zel097(ctx, handle), nullptr);
    EXPECT_EQ(Zel098(ctx, handle), nullptr);
    EXPECT_EQ(Zel099(ctx, handle, "live"), nullptr);
    EXPECT_EQ(Zel000b(ctx, "child", handle, nullptr, 0), nullptr);
    EXPECT_EQ(Zel002(ctx, handle), 9);
    EXPECT_EQ(Zel003b(ctx), 9);
  }
  EXPECT_EQ(Zel002(ctx, nullptr), 9);
  EXPECT_EQ(Zel097(ctx, nullptr), nullptr);
  // The stack block was never written, and the other context saw nothing.
  for (unsigned char byte : stackRecord)
    ASSERT_EQ(byte, 0);
  EXPECT_EQ(Zel003b(other), 0);
  EXPECT_EQ(Zel097(other, foreign), &ZelClassGenericImage);
  EXPECT_EQ(Zel099(ctx, nullptr, "live"), live);
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr);
}

// ---- Storage released with an object ------------------------------------------------------

TEST(ObjectStorage, TemporaryFileWrittenByTheLibraryIsDeleted) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "zel1").string();
  makeFile(path);
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, 1);
  ASSERT_NE(image, nullptr);
  image->flags = zel::tmpnamFlag | zel::initedFlag;
  EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 1);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectStorage, FilesTheApplicationNamedAreKept) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "mine.dat").string();
  makeFile(path);
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}, {"inited", 1}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, 2);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(readAttribute(ctx, image, "tmpnam"), 0);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(fileContent(path), "data");
}

TEST(ObjectStorage, TemporaryFileIsDeletedAlsoAfterItsDataWasReset) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "zel2").string();
  makeFile(path);
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, 1);
  ASSERT_NE(image, nullptr);
  image->flags = zel::tmpnamFlag | zel::initedFlag;
  // A new shape drops the data; the file is still the library's own.
  ASSERT_EQ(Zel006a(ctx, image, "xDimension", 32), 0);
  ASSERT_EQ(readAttribute(ctx, image, "inited"), 0);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectStorage, TemporaryFileIsDeletedAlsoAfterTheRepositoryChanged) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "zel3").string();
  makeFile(path);
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}};
  ZelObject *image = Zel000b(ctx, nullptr, nullptr, list, 1);
  ASSERT_NE(image, nullptr);
  image->flags = zel::tmpnamFlag | zel::initedFlag;
  ASSERT_EQ(Zel006a(ctx, image, "repository", ZelWorkSpace), 0);
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(Zel003b(ctx), 0);
}

TEST(ObjectStorage, UnwrittenTemporaryFileThatIsGoneIsNoError) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "zel7").string();
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}};
  ZelObject *image = Zel000b(ctx, "image", nullptr, list, 1);
  ASSERT_NE(image, nullptr);
  image->flags = zel::tmpnamFlag;
  EXPECT_EQ(Zel002(ctx, image), 0);
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_EQ(Zel099(ctx, nullptr, "image"), nullptr);
}

TEST(ObjectStorage, DestroyingAParentDeletesTheTemporaryFilesOfItsChildren) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "zel4").string();
  makeFile(path);
  ZelObject *parent = Zel000b(ctx, "parent", nullptr, nullptr, 0);
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())}};
  ZelObject *child = Zel000b(ctx, "child", parent, list, 1);
  ASSERT_NE(child, nullptr);
  child->flags = zel::tmpnamFlag | zel::initedFlag;
  EXPECT_EQ(Zel002(ctx, parent), 0);
  EXPECT_FALSE(fs::exists(path));
}

TEST(ObjectStorage, ClosingTheContextDeletesTemporaryFiles) {
  ScratchDirectory scratch;
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  const std::string topPath = (scratch.path() / "zel5").string();
  const std::string childPath = (scratch.path() / "zel6").string();
  const std::string keptPath = (scratch.path() / "kept.dat").string();
  for (const std::string *path : {&topPath, &childPath, &keptPath})
    makeFile(*path);
  ZelAttribute top[] = {{"fileName", reinterpret_cast<ZelValue>(topPath.c_str())}};
  ZelAttribute sub[] = {{"fileName", reinterpret_cast<ZelValue>(childPath.c_str())}};
  ZelAttribute kept[] = {{"fileName", reinterpret_cast<ZelValue>(keptPath.c_str())}, {"inited", 1}};
  ZelObject *image = Zel000b(ctx, "image", nullptr, top, 1);
  ZelObject *child = Zel000c(ctx, "child", image, sub, 1);
  ZelObject *named = Zel000b(ctx, "named", nullptr, kept, 2);
  ASSERT_NE(child, nullptr);
  ASSERT_NE(named, nullptr);
  image->flags = zel::tmpnamFlag | zel::initedFlag;
  child->flags = zel::tmpnamFlag | zel::initedFlag;
  EXPECT_EQ(Zel001(ctx), 0);
  EXPECT_FALSE(fs::exists(topPath));
  EXPECT_FALSE(fs::exists(childPath));
  EXPECT_EQ(fileContent(keptPath), "data");
}

TEST(ObjectStorage, UndeletableTemporaryFileStillReleasesEverythingElse) {
  ScratchDirectory scratch;
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  const std::string path = (scratch.path() / "vanished").string();
  ZelAttribute list[] = {{"fileName", reinterpret_cast<ZelValue>(path.c_str())},
                         {"fileFormat", ZelPng},
                         {"copyright", reinterpret_cast<ZelValue>("(c) zel")}};
  ZelObject *image = Zel000b(ctx, "image", nullptr, list, 3);
  ASSERT_NE(image, nullptr);
  ZelObject *child = Zel000b(ctx, "child", image, nullptr, 0);
  ASSERT_NE(child, nullptr);
  image->flags = zel::tmpnamFlag | zel::initedFlag;
  EXPECT_EQ(Zel002(ctx, image), -1);
  EXPECT_EQ(Zel003b(ctx), -1);
  EXPECT_EQ(Zel099(ctx, nullptr, "image"), nullptr);
  EXPECT_EQ(Zel099(ctx, nullptr, "child"), nullptr);
  EXPECT_EQ(Zel097(ctx, child), nullptr);
  // The record is free and is taken again.
  EXPECT_EQ(Zel000b(ctx, "again", nullptr, nullptr, 0), image);
  EXPECT_EQ(readAttribute(ctx, image, "fileName"), 0);
  EXPECT_EQ(readAttribute(ctx, image, "fileFormat"), 0);
}

TEST(ObjectStorage, ApplicationWorkSpaceIsNeverFreedByTheLibrary) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  alignas(16) unsigned char block[64] = {1, 2, 3};
  ZelAttribute list[] = {{"workSpace", reinterpret_cast<ZelValue>(block)},
                         {"workSpaceHandle", reinterpret_cast<ZelValue>(block)},
                         {"inited", 1}};
  ZelObject *matrix = Zel000f(ctx, "matrix", nullptr, list, 3);
  ASSERT_NE(matrix, nullptr);
  ZelObject *tuple = Zel000n(ctx, "tuple", nullptr, list, 3);
  ASSERT_NE(tuple, nullptr);
  EXPECT_EQ(readAttribute(ctx, matrix, "workSpace"), reinterpret_cast<ZelValue>(block));
  EXPECT_EQ(Zel002(ctx, matrix), 0);
  EXPECT_EQ(block[0], 1);
  EXPECT_EQ(block[2], 3);
  // The tuple goes with the context.
}

TEST(ObjectStorage, ClosingTheContextReleasesEveryObject) {
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  const int32_t offsets[] = {1, 2, 3, 4};
  ZelAttribute tiff[] = {{"fileFormat", ZelTiff},
                         {"stripsPerImage", 4},
                         {"stripOffsets", reinterpret_cast<ZelValue>(offsets)},
                         {"stripByteCounts", reinterpret_cast<ZelValue>(offsets)},
                         {"imageDescription", reinterpret_cast<ZelValue>("text")},
                         {"fileName", reinterpret_cast<ZelValue>("not-written.tif")}};
  ZelAttribute png[] = {{"fileFormat", ZelPng},
                        {"copyright", reinterpret_cast<ZelValue>("(c)")},
                        {"fileName", reinterpret_cast<ZelValue>("not-written.png")}};
  for (int i = 0; i < 50; ++i) {
    std::string name = "object" + std::to_string(i);
    ZelObject *image = Zel000b(ctx, name.c_str(), nullptr, i % 2 ? tiff : png, i % 2 ? 6 : 3);
    ASSERT_NE(image, nullptr);
    ZelObject *child = Zel000a(ctx, (name + "child").c_str(), image, nullptr, 0);
    ASSERT_NE(child, nullptr);
    ASSERT_NE(Zel000c(ctx, (name + "grandchild").c_str(), child, nullptr, 0), nullptr);
    if (i % 5 == 0) {
      ASSERT_EQ(Zel002(ctx, child), 0);
    }
    if (i % 7 == 0) {
      ASSERT_EQ(Zel002(ctx, image), 0);
    }
  }
  EXPECT_EQ(Zel003b(ctx), 0);
  EXPECT_EQ(Zel001(ctx), 0);
  // The leak checker of the sanitizer build finds anything that stayed behind.
}

// ---- Large trees ------------------------------------------------------------------------

constexpr int kManyObjects = 100000;

TEST(ObjectTree, HundredThousandObjectsOnOneLevel) {
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ZelObject *first = nullptr;
  ZelObject *last = nullptr;
  for (int i = 0; i < kManyObjects; ++i) {
    std::string name = "object" + std::to_string(i);
    last = Zel000b(ctx, name.c_str(), nullptr, nullptr, 0);
    ASSERT_NE(last, nullptr) << i;
    if (i == 0) first = last;
  }
  EXPECT_EQ(Zel099(ctx, nullptr, ("object" + std::to_string(kManyObjects - 1)).c_str()), last);
  EXPECT_EQ(Zel099(ctx, first, "object0"), first);
  EXPECT_EQ(Zel099(ctx, last, "object0"), nullptr);
  EXPECT_EQ(Zel097(ctx, first), &ZelClassGenericImage);
  EXPECT_EQ(Zel001(ctx), 0);
}

TEST(ObjectTree, ChainOfAHundredThousandDerivedObjects) {
  ZelContext *ctx = Zel004(nullptr);
  ASSERT_NE(ctx, nullptr);
  ZelObject *root = nullptr;
  ZelObject *previous = nullptr;
  ZelObject *last = nullptr;
  for (int i = 0; i < kManyObjects; ++i) {
    std::string name = "link" + std::to_string(i);
    last = Zel000b(ctx, name.c_str(), previous, nullptr, 0);
    ASSERT_NE(last, nullptr) << i;
    if (i == 0) root = last;
    previous = last;
  }
  EXPECT_EQ(Zel099(ctx, nullptr, ("link" + std::to_string(kManyObjects - 1)).c_str()), last);
  EXPECT_EQ(Zel099(ctx, root, "link50000"), Zel099(ctx, nullptr, "link50000"));
  ZelObject *beforeLast = Zel099(ctx, nullptr, ("link" + std::to_string(kManyObjects - 2)).c_str());
  ASSERT_NE(beforeLast, nullptr);
  EXPECT_EQ(Zel098(ctx, last), beforeLast);
  EXPECT_EQ(Zel099(ctx, last, "link0"), nullptr);
  EXPECT_EQ(Zel001(ctx), 0);
}

TEST(ObjectTree, DestroyingTheTopOfADeepChainReleasesIt) {
  ContextGuard ctx;
  ASSERT_NE(ctx.get(), nullptr);
  ZelObject *root = nullptr;
  ZelObject *last = nullptr;
  for (int i = 0; i < kManyObjects; ++i) {
    last = Zel000b(ctx, i == kManyObjects - 1 ? "deepest" : nullptr, last, nullptr, 0);
    ASSERT_NE(last, nullptr) << i;
    if (i == 0) root = last;
  }
  EXPECT_EQ(Zel099(ctx, nullptr, "deepest"), last);
  EXPECT_EQ(Zel002(ctx, root), 0);
  EXPECT_EQ(Zel099(ctx, nullptr, "deepest"), nullptr);
  EXPECT_EQ(Zel003b(ctx), 9);
  EXPECT_EQ(Zel000b(ctx, "fresh", nullptr, nullptr, 0), root);
}

}  // namespace
