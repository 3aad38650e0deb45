// The enumeration's numbers are part of the binary interface: every enumerator keeps its value,
// and each value has exactly one name.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>

#include "zel_enum.h"

namespace {

struct Published {
  int actual;    // the enumerator as the header defines it
  int expected;  // the value applications rely on
  const char *name;
};

// Every enumerator with its value, in order of value.
constexpr Published published[] = {
    {ZelRotateHalfTurn, 1, "ZelRotateHalfTurn"},
    {ZelRotateThreeQuarterTurn, 2, "ZelRotateThreeQuarterTurn"},
    {ZelRotateQuarterTurn, 3, "ZelRotateQuarterTurn"},
    {ZelAbsoluteDifference, 5, "ZelAbsoluteDifference"},
    {ZelAdd, 7, "ZelAdd"},
    {ZelAverage, 8, "ZelAverage"},
    {ZelApplicationAddressSpace, 9, "ZelApplicationAddressSpace"},
    {ZelAxisB, 14, "ZelAxisB"},
    {ZelBlackIsZero, 17, "ZelBlackIsZero"},
    {ZelBoolean, 18, "ZelBoolean"},
    {ZelBottom, 19, "ZelBottom"},
    {ZelCentimetre, 23, "ZelCentimetre"},
    {ZelCieLab, 24, "ZelCieLab"},
    {ZelCieUvw, 26, "ZelCieUvw"},
    {ZelCieXyz, 27, "ZelCieXyz"},
    {ZelClosed, 31, "ZelClosed"},
    {ZelCmy, 32, "ZelCmy"},
    {ZelCmyk, 33, "ZelCmyk"},
    {ZelComplex, 35, "ZelComplex"},
    {ZelCubic, 42, "ZelCubic"},
    {ZelCubeRoot, 43, "ZelCubeRoot"},
    {ZelDivide, 47, "ZelDivide"},
    {ZelDivideByScalar, 48, "ZelDivideByScalar"},
    {ZelDivideScalarBy, 49, "ZelDivideScalarBy"},
    {ZelClearBorder, 51, "ZelClearBorder"},
    {ZelErosion, 71, "ZelErosion"},
    {ZelExponential, 78, "ZelExponential"},
    {ZelFaxGroup3OneDimensional, 80, "ZelFaxGroup3OneDimensional"},
    {ZelFaxGroup3TwoDimensional, 81, "ZelFaxGroup3TwoDimensional"},
    {ZelFaxGroup4, 82, "ZelFaxGroup4"},
    {ZelFile, 83, "ZelFile"},
    {ZelFive, 84, "ZelFive"},
    {ZelFloydSteinberg, 85, "ZelFloydSteinberg"},
    {ZelFour, 87, "ZelFour"},
    {ZelForward, 88, "ZelForward"},
    {ZelModifiedHuffman, 90, "ZelModifiedHuffman"},
    {ZelGif, 92, "ZelGif"},
    {ZelGammaRgb, 95, "ZelGammaRgb"},
    {ZelGammaSmpteRgb, 96, "ZelGammaSmpteRgb"},
    {ZelHorizontal, 101, "ZelHorizontal"},
    {ZelIhs, 103, "ZelIhs"},
    {ZelInch, 106, "ZelInch"},
    {ZelInverse, 109, "ZelInverse"},
    {ZelJarvisJudiceNinke, 112, "ZelJarvisJudiceNinke"},
    {ZelJpeg, 114, "ZelJpeg"},
    {ZelMirrorHorizontal, 117, "ZelMirrorHorizontal"},
    {ZelCcirRgb, 118, "ZelCcirRgb"},
    {ZelCieRgb, 119, "ZelCieRgb"},
    {ZelEbuRgb, 120, "ZelEbuRgb"},
    {ZelRgb, 121, "ZelRgb"},
    {ZelSmpteRgb, 122, "ZelSmpteRgb"},
    {ZelLogarithmic, 125, "ZelLogarithmic"},
    {ZelAnd, 126, "ZelAnd"},
    {ZelNand, 127, "ZelNand"},
    {ZelNor, 128, "ZelNor"},
    {ZelNot, 129, "ZelNot"},
    {ZelOr, 130, "ZelOr"},
    {ZelXor, 131, "ZelXor"},
    {ZelTransverse, 132, "ZelTransverse"},
    {ZelLeastSignificantFirst, 135, "ZelLeastSignificantFirst"},
    {ZelLzw, 136, "ZelLzw"},
    {ZelAbsoluteSum, 137, "ZelAbsoluteSum"},
    {ZelMaximum, 141, "ZelMaximum"},
    {ZelMetre, 145, "ZelMetre"},
    {ZelMinimum, 146, "ZelMinimum"},
    {ZelMostSignificantFirst, 150, "ZelMostSignificantFirst"},
    {ZelMultiply, 151, "ZelMultiply"},
    {ZelNonNegative, 153, "ZelNonNegative"},
    {ZelOne, 154, "ZelOne"},
    {ZelOpen, 155, "ZelOpen"},
    {ZelPackBits, 156, "ZelPackBits"},
    {ZelPalette, 157, "ZelPalette"},
    {ZelPopularity, 158, "ZelPopularity"},
    {ZelReal, 161, "ZelReal"},
    {ZelReflect, 165, "ZelReflect"},
    {ZelRight, 168, "ZelRight"},
    {ZelReadData, 171, "ZelReadData"},
    {ZelReadAttributes, 172, "ZelReadAttributes"},
    {ZelSigned, 174, "ZelSigned"},
    {ZelWord, 175, "ZelWord"},
    {ZelSquare, 181, "ZelSquare"},
    {ZelRootSumSquare, 182, "ZelRootSumSquare"},
    {ZelStucki, 184, "ZelStucki"},
    {ZelSubtract, 185, "ZelSubtract"},
    {ZelSubtractScalar, 186, "ZelSubtractScalar"},
    {ZelHalfSubtractScalar, 187, "ZelHalfSubtractScalar"},
    {ZelSubtractFromScalar, 188, "ZelSubtractFromScalar"},
    {ZelHalfSubtractFromScalar, 189, "ZelHalfSubtractFromScalar"},
    {ZelHalfDifference, 190, "ZelHalfDifference"},
    {ZelNearestNeighbour, 191, "ZelNearestNeighbour"},
    {ZelBilinear, 192, "ZelBilinear"},
    {ZelBilinearAlternate, 193, "ZelBilinearAlternate"},
    {ZelCubicBSpline, 194, "ZelCubicBSpline"},
    {ZelCubicConvolution, 195, "ZelCubicConvolution"},
    {ZelAxisT, 201, "ZelAxisT"},
    {ZelThree, 206, "ZelThree"},
    {ZelTiff, 207, "ZelTiff"},
    {ZelMirrorVertical, 208, "ZelMirrorVertical"},
    {ZelTransparencyMask, 209, "ZelTransparencyMask"},
    {ZelTwo, 210, "ZelTwo"},
    {ZelUniform, 211, "ZelUniform"},
    {ZelTranspose, 213, "ZelTranspose"},
    {ZelTristimulus, 214, "ZelTristimulus"},
    {ZelKolShort, 215, "ZelKolShort"},
    {ZelSegmentedDocument, 216, "ZelSegmentedDocument"},
    {ZelKolLine, 217, "ZelKolLine"},
    {ZelVertical, 218, "ZelVertical"},
    {ZelYCbCr, 219, "ZelYCbCr"},
    {ZelYiq, 220, "ZelYiq"},
    {ZelYuv, 221, "ZelYuv"},
    {ZelWhiteIsZero, 222, "ZelWhiteIsZero"},
    {ZelWorkSpace, 223, "ZelWorkSpace"},
    {ZelBmp, 225, "ZelBmp"},
    {ZelAxisX, 226, "ZelAxisX"},
    {ZelAxisY, 227, "ZelAxisY"},
    {ZelAxisZ, 228, "ZelAxisZ"},
    {ZelZero, 231, "ZelZero"},
    {ZelBmpRunLength, 234, "ZelBmpRunLength"},
    {ZelJpegInterchange, 235, "ZelJpegInterchange"},
    {ZelGif87a, 236, "ZelGif87a"},
    {ZelGif89a, 237, "ZelGif89a"},
    {ZelSamplingOneOne, 238, "ZelSamplingOneOne"},
    {ZelSamplingTwoOne, 239, "ZelSamplingTwoOne"},
    {ZelSamplingTwoTwo, 240, "ZelSamplingTwoTwo"},
    {ZelMacPaint, 241, "ZelMacPaint"},
    {ZelEncode, 242, "ZelEncode"},
    {ZelDecode, 243, "ZelDecode"},
    {ZelRayleigh, 244, "ZelRayleigh"},
    {ZelPcx, 246, "ZelPcx"},
    {ZelPcxRunLength, 247, "ZelPcxRunLength"},
    {ZelChunky, 248, "ZelChunky"},
    {ZelPlanar, 249, "ZelPlanar"},
    {ZelKolLong, 250, "ZelKolLong"},
    {ZelSubfileFullImage, 252, "ZelSubfileFullImage"},
    {ZelSubfileReducedImage, 253, "ZelSubfileReducedImage"},
    {ZelSubfilePage, 254, "ZelSubfilePage"},
    {ZelDib, 255, "ZelDib"},
    {ZelPng, 259, "ZelPng"},
    {ZelSaturationFall, 260, "ZelSaturationFall"},
    {ZelSaturationRise, 261, "ZelSaturationRise"},
    {ZelSaturationSubtract, 262, "ZelSaturationSubtract"},
    {ZelSaturationAdd, 263, "ZelSaturationAdd"},
    {ZelPngDeflate, 264, "ZelPngDeflate"},
    {ZelPngGreyscale, 265, "ZelPngGreyscale"},
    {ZelPngTrueColour, 266, "ZelPngTrueColour"},
    {ZelPngGreyscaleAlpha, 267, "ZelPngGreyscaleAlpha"},
    {ZelPngTrueColourAlpha, 268, "ZelPngTrueColourAlpha"},
    {ZelSgiRgb, 269, "ZelSgiRgb"},
    {ZelAdaptiveFilter, 270, "ZelAdaptiveFilter"},
    {ZelDibHeaderOnly, 271, "ZelDibHeaderOnly"},
    {ZelAreaAverage, 272, "ZelAreaAverage"},
    {ZelSamplingOneTwo, 273, "ZelSamplingOneTwo"},
    {ZelJpegDirect, 274, "ZelJpegDirect"},
    {ZelWbmp, 275, "ZelWbmp"},
    {ZelFixedPalette, 276, "ZelFixedPalette"},
    {ZelObjectHandle, 277, "ZelObjectHandle"},
    {ZelJpegColourFax, 278, "ZelJpegColourFax"},
};

constexpr size_t publishedCount = sizeof published / sizeof published[0];

// A switch over the whole enumeration: a duplicate value fails to compile, and with warnings on
// (-Wswitch) an enumerator missing here is reported.
bool isPublished(ZelEnumerator value) {
  switch (value) {
    case ZelRotateHalfTurn:
    case ZelRotateThreeQuarterTurn:
    case ZelRotateQuarterTurn:
    case ZelAbsoluteDifference:
    case ZelAdd:
    case ZelAverage:
    case ZelApplicationAddressSpace:
    case ZelAxisB:
    case ZelBlackIsZero:
    case ZelBoolean:
    case ZelBottom:
    case ZelCentimetre:
    case ZelCieLab:
    case ZelCieUvw:
    case ZelCieXyz:
    case ZelClosed:
    case ZelCmy:
    case ZelCmyk:
    case ZelComplex:
    case ZelCubic:
    case ZelCubeRoot:
    case ZelDivide:
    case ZelDivideByScalar:
    case ZelDivideScalarBy:
    case ZelClearBorder:
    case ZelErosion:
    case ZelExponential:
    case ZelFaxGroup3OneDimensional:
    case ZelFaxGroup3TwoDimensional:
    case ZelFaxGroup4:
    case ZelFile:
    case ZelFive:
    case ZelFloydSteinberg:
    case ZelFour:
    case ZelForward:
    case ZelModifiedHuffman:
    case ZelGif:
    case ZelGammaRgb:
    case ZelGammaSmpteRgb:
    case ZelHorizontal:
    case ZelIhs:
    case ZelInch:
    case ZelInverse:
    case ZelJarvisJudiceNinke:
    case ZelJpeg:
    case ZelMirrorHorizontal:
    case ZelCcirRgb:
    case ZelCieRgb:
    case ZelEbuRgb:
    case ZelRgb:
    case ZelSmpteRgb:
    case ZelLogarithmic:
    case ZelAnd:
    case ZelNand:
    case ZelNor:
    case ZelNot:
    case ZelOr:
    case ZelXor:
    case ZelTransverse:
    case ZelLeastSignificantFirst:
    case ZelLzw:
    case ZelAbsoluteSum:
    case ZelMaximum:
    case ZelMetre:
    case ZelMinimum:
    case ZelMostSignificantFirst:
    case ZelMultiply:
    case ZelNonNegative:
    case ZelOne:
    case ZelOpen:
    case ZelPackBits:
    case ZelPalette:
    case ZelPopularity:
    case ZelReal:
    case ZelReflect:
    case ZelRight:
    case ZelReadData:
    case ZelReadAttributes:
    case ZelSigned:
    case ZelWord:
    case ZelSquare:
    case ZelRootSumSquare:
    case ZelStucki:
    case ZelSubtract:
    case ZelSubtractScalar:
    case ZelHalfSubtractScalar:
    case ZelSubtractFromScalar:
    case ZelHalfSubtractFromScalar:
    case ZelHalfDifference:
    case ZelNearestNeighbour:
    case ZelBilinear:
    case ZelBilinearAlternate:
    case ZelCubicBSpline:
    case ZelCubicConvolution:
    case ZelAxisT:
    case ZelThree:
    case ZelTiff:
    case ZelMirrorVertical:
    case ZelTransparencyMask:
    case ZelTwo:
    case ZelUniform:
    case ZelTranspose:
    case ZelTristimulus:
    case ZelKolShort:
    case ZelSegmentedDocument:
    case ZelKolLine:
    case ZelVertical:
    case ZelYCbCr:
    case ZelYiq:
    case ZelYuv:
    case ZelWhiteIsZero:
    case ZelWorkSpace:
    case ZelBmp:
    case ZelAxisX:
    case ZelAxisY:
    case ZelAxisZ:
    case ZelZero:
    case ZelBmpRunLength:
    case ZelJpegInterchange:
    case ZelGif87a:
    case ZelGif89a:
    case ZelSamplingOneOne:
    case ZelSamplingTwoOne:
    case ZelSamplingTwoTwo:
    case ZelMacPaint:
    case ZelEncode:
    case ZelDecode:
    case ZelRayleigh:
    case ZelPcx:
    case ZelPcxRunLength:
    case ZelChunky:
    case ZelPlanar:
    case ZelKolLong:
    case ZelSubfileFullImage:
    case ZelSubfileReducedImage:
    case ZelSubfilePage:
    case ZelDib:
    case ZelPng:
    case ZelSaturationFall:
    case ZelSaturationRise:
    case ZelSaturationSubtract:
    case ZelSaturationAdd:
    case ZelPngDeflate:
    case ZelPngGreyscale:
    case ZelPngTrueColour:
    case ZelPngGreyscaleAlpha:
    case ZelPngTrueColourAlpha:
    case ZelSgiRgb:
    case ZelAdaptiveFilter:
    case ZelDibHeaderOnly:
    case ZelAreaAverage:
    case ZelSamplingOneTwo:
    case ZelJpegDirect:
    case ZelWbmp:
    case ZelFixedPalette:
    case ZelObjectHandle:
    case ZelJpegColourFax:
      return true;
  }
  return false;
}

TEST(Enumeration, EveryEnumeratorKeepsItsPublishedValue) {
  EXPECT_EQ(publishedCount, 157u);
  for (const Published &entry : published)
    EXPECT_EQ(entry.actual, entry.expected) << entry.name;
}

TEST(Enumeration, EveryEnumeratorIsKnownToASwitchOverTheEnumeration) {
  for (const Published &entry : published)
    EXPECT_TRUE(isPublished(static_cast<ZelEnumerator>(entry.actual))) << entry.name;
  EXPECT_FALSE(isPublished(static_cast<ZelEnumerator>(0)));
  EXPECT_FALSE(isPublished(static_cast<ZelEnumerator>(4)));
  EXPECT_FALSE(isPublished(static_cast<ZelEnumerator>(279)));
}

TEST(Enumeration, NoTwoEnumeratorsShareAValue) {
  std::map<int, const char *> byValue;
  for (const Published &entry : published) {
    auto [it, inserted] = byValue.emplace(entry.actual, entry.name);
    EXPECT_TRUE(inserted) << entry.name << " and " << it->second << " both have value "
                          << entry.actual;
  }
}

TEST(Enumeration, NoNameIsGivenTwice) {
  std::set<std::string> names;
  for (const Published &entry : published)
    EXPECT_TRUE(names.insert(entry.name).second) << entry.name;
}

TEST(Enumeration, ValuesAscendWithinOneToTwoHundredSeventyEight) {
  int previous = 0;
  for (const Published &entry : published) {
    EXPECT_GT(entry.expected, previous) << entry.name;
    previous = entry.expected;
  }
  EXPECT_EQ(published[0].expected, 1);
  EXPECT_EQ(published[publishedCount - 1].expected, 278);
}

TEST(Enumeration, HeaderDeclaresExactlyTheListedEnumerators) {
  std::filesystem::path header =
      std::filesystem::path(__FILE__).parent_path().parent_path() / "include" / "zel_enum.h";
  std::ifstream in(header);
  ASSERT_TRUE(in) << "enumeration header not found at " << header;
  std::stringstream text;
  text << in.rdbuf();
  const std::string source = text.str();

  // Every "Zel<Name> = <digits>" of the header.
  std::map<std::string, int> declared;
  for (size_t at = source.find("Zel"); at != std::string::npos; at = source.find("Zel", at + 1)) {
    size_t end = at + 3;
    while (end < source.size() && std::isalnum(static_cast<unsigned char>(source[end])))
      ++end;
    size_t equals = source.find_first_not_of(" \t\n", end);
    if (equals == std::string::npos || source[equals] != '=') continue;
    size_t digits = source.find_first_not_of(" \t\n", equals + 1);
    if (digits == std::string::npos || !std::isdigit(static_cast<unsigned char>(source[digits])))
      continue;
    declared[source.substr(at, end - at)] = std::stoi(source.substr(digits));
  }

  std::map<std::string, int> expected;
  for (const Published &entry : published)
    expected[entry.name] = entry.expected;
  EXPECT_EQ(declared, expected);
}

}  // namespace
