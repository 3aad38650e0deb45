/* Zel enumeration: every option, mode and attribute value of the interface.
 *
 * The numbers are part of the binary interface and never change. One value may
 * serve several attributes; the comment after each enumerator names its roles.
 */
#ifndef ZEL_ENUM_H
#define ZEL_ENUM_H

enum ZelEnumerator {
  ZelRotateHalfTurn = 1,          /* Zel108 orientation */
  ZelRotateThreeQuarterTurn = 2,  /* Zel108 orientation */
  ZelRotateQuarterTurn = 3,       /* Zel108 orientation */
  ZelAbsoluteDifference = 5,      /* Zel106 operation */
  ZelAdd = 7,                     /* Zel106 operation */
  ZelAverage = 8,                 /* Zel106 operation */
  ZelApplicationAddressSpace = 9, /* repository: memory the application gave */
  ZelAxisB = 14,                  /* index assignment: axis b */
  ZelBlackIsZero = 17,            /* colourSpace / photometric: grey, zero is black (TIFF 1) */
  ZelBoolean = 18,                /* dataType: boolean */
  ZelBottom = 19,                 /* Zel502 ramp */
  ZelCentimetre = 23,             /* resolutionUnit: per centimetre */
  ZelCieLab = 24,                 /* colourSpace: CIE L*a*b* (TIFF photometric 8) */
  ZelCieUvw = 26,                 /* colourSpace: CIE 1960 UVW */
  ZelCieXyz = 27,                 /* colourSpace: CIE XYZ */
  ZelClosed = 31,                 /* operationalState: context not usable */
  ZelCmy = 32,                    /* colourSpace: three subtractive bands */
  ZelCmyk = 33,                   /* colourSpace: separated, four bands (TIFF photometric 5) */
  ZelComplex = 35,                /* dataType: complex */
  ZelCubic = 42,                  /* thresholdRamp: cubic ramp (default) */
  ZelCubeRoot = 43,               /* Zel129 shape */
  ZelDivide = 47,                 /* Zel106 operation */
  ZelDivideByScalar = 48,         /* Zel121 operation */
  ZelDivideScalarBy = 49,         /* Zel121 operation */
  ZelClearBorder = 51,            /* boundaryCondition: rank filter output 0 on the border */
  ZelErosion = 71,     /* morphologicalOperation: zero bits win when a boolean image is resampled */
  ZelExponential = 78, /* Zel129 shape */
  ZelFaxGroup3OneDimensional = 80, /* compression: CCITT G3 1-D with EOL */
  ZelFaxGroup3TwoDimensional = 81, /* compression: CCITT G3 2-D */
  ZelFaxGroup4 = 82,               /* compression: CCITT G4 */
  ZelFile = 83,                    /* repository: file */
  ZelFive = 84, /* number word: Zel101 grouping (one pair for the image); Zel506, Zel507 axes in
                   force (all five) */
  ZelFloydSteinberg = 85, /* errorDiffusion: default */
  ZelFour =
      87, /* number word: Zel101 grouping (a pair per b); Zel506, Zel507 axes in force (four) */
  ZelForward = 88,         /* direction of a transform: compression side of the JPEG block coder */
  ZelModifiedHuffman = 90, /* compression: TIFF 2, no EOL, byte-aligned rows */
  ZelGif = 92,             /* fileFormat: GIF */
  ZelGammaRgb = 95,        /* colourSpace: gamma-corrected RGB with NTSC weights */
  ZelGammaSmpteRgb = 96,   /* colourSpace: gamma-corrected RGB with SMPTE weights */
  ZelHorizontal = 101,     /* Zel561, Zel562 direction */
  ZelIhs = 103,            /* colourSpace: intensity, hue, saturation */
  ZelInch = 106,           /* resolutionUnit: per inch */
  ZelInverse = 109,        /* direction of a transform: expansion side of the JPEG block coder */
  ZelJarvisJudiceNinke = 112,     /* errorDiffusion */
  ZelJpeg = 114,                  /* compression: JPEG */
  ZelMirrorHorizontal = 117,      /* orientation: TIFF orientation 2 */
  ZelCcirRgb = 118,               /* colourSpace: linear RGB, luminance weights .2126 .7152 .0722 */
  ZelCieRgb = 119,                /* colourSpace: CIE RGB primaries */
  ZelEbuRgb = 120,                /* colourSpace: linear RGB, luminance weights .2327 .6887 .0786 */
  ZelRgb = 121,                   /* colourSpace: RGB (TIFF photometric 2) */
  ZelSmpteRgb = 122,              /* colourSpace: SMPTE RGB primaries */
  ZelLogarithmic = 125,           /* Zel129 shape */
  ZelAnd = 126,                   /* Zel106 operation */
  ZelNand = 127,                  /* Zel106 operation */
  ZelNor = 128,                   /* Zel106 operation */
  ZelNot = 129,                   /* logic operation, no effect in Zel106 */
  ZelOr = 130,                    /* Zel106 operation */
  ZelXor = 131,                   /* Zel106 operation */
  ZelTransverse = 132,            /* orientation: TIFF orientation 7 */
  ZelLeastSignificantFirst = 135, /* bitOrder/byteOrder */
  ZelLzw = 136,                   /* compression: LZW */
  ZelAbsoluteSum = 137,           /* Zel203 combination */
  ZelMaximum = 141,               /* Zel106 operation */
  ZelMetre = 145,   /* resolutionUnit: per metre (PICT-style code in segmented documents) */
  ZelMinimum = 146, /* Zel106 operation */
  ZelMostSignificantFirst = 150, /* bitOrder/byteOrder */
  ZelMultiply = 151,             /* Zel106 operation */
  ZelNonNegative = 153,          /* dataType: nonnegative integer */
  ZelOne =
      154, /* number word: Zel101 grouping (no resetting); Zel506, Zel507 axes in force (one) */
  ZelOpen = 155,       /* operationalState: context usable */
  ZelPackBits = 156,   /* compression: PackBits */
  ZelPalette = 157,    /* colourSpace: palette (TIFF photometric 3, PNG colour type 3) */
  ZelPopularity = 158, /* colourQuantization */
  ZelReal = 161,       /* dataType: real */
  ZelReflect = 165,    /* boundaryCondition: mirror the image at its edge (edge pixel repeated) */
  ZelRight = 168,      /* Zel502 ramp */
  ZelReadData = 171,   /* read mode: data only */
  ZelReadAttributes = 172,         /* read mode: attributes only */
  ZelSigned = 174,                 /* dataType: signed integer */
  ZelWord = 175,                   /* dataType: 32-bit words of Histogram and tuples */
  ZelSquare = 181,                 /* thresholdRamp: quadratic ramp */
  ZelRootSumSquare = 182,          /* Zel203 combination */
  ZelStucki = 184,                 /* errorDiffusion */
  ZelSubtract = 185,               /* Zel106 operation */
  ZelSubtractScalar = 186,         /* Zel121 operation */
  ZelHalfSubtractScalar = 187,     /* Zel121 operation */
  ZelSubtractFromScalar = 188,     /* Zel121 operation */
  ZelHalfSubtractFromScalar = 189, /* Zel121 operation */
  ZelHalfDifference = 190,         /* Zel106 operation */
  ZelNearestNeighbour = 191,       /* interpolation: nearest pixel (default) */
  ZelBilinear = 192,               /* interpolation: two by two taps */
  ZelBilinearAlternate =
      193,               /* interpolation: known to the threshold ramp only; operators reject it */
  ZelCubicBSpline = 194, /* interpolation: four by four taps, cubic B-spline */
  ZelCubicConvolution = 195, /* interpolation: four by four taps, cubic convolution with a=-0.5 */
  ZelAxisT = 201,            /* index assignment: axis t */
  ZelThree = 206, /* number word: Zel101 grouping (a pair per b and t); Zel506, Zel507 axes in force
                     (three) */
  ZelTiff = 207,  /* fileFormat: TIFF */
  ZelMirrorVertical = 208,   /* orientation: TIFF orientation 4 */
  ZelTransparencyMask = 209, /* colourSpace: TIFF photometric 4 */
  ZelTwo =
      210, /* number word: Zel101 grouping (a pair per row); Zel506, Zel507 axes in force (two) */
  ZelUniform = 211,   /* thresholdRamp: linear ramp; colourQuantization default; histogram shape */
  ZelTranspose = 213, /* orientation: TIFF orientation 5 */
  ZelTristimulus = 214,       /* colourSpace: additive three bands of Zel103 and Zel104 */
  ZelKolShort = 215,          /* fileFormat: KOL1 with 27-byte header */
  ZelSegmentedDocument = 216, /* fileFormat: segmented page document with CGM segments, read only */
  ZelKolLine = 217,           /* compression: bit-stuffed framed 2-D code of the KOL1 formats */
  ZelVertical = 218,          /* Zel561, Zel562 direction */
  ZelYCbCr = 219,             /* colourSpace: YCbCr (TIFF photometric 6) */
  ZelYiq = 220,               /* colourSpace: YIQ */
  ZelYuv = 221,               /* colourSpace: YUV */
  ZelWhiteIsZero = 222,       /* colourSpace: grey, zero is white (TIFF photometric 0) */
  ZelWorkSpace = 223,         /* repository: block allocated by the library */
  ZelBmp = 225,               /* fileFormat: BMP with file header */
  ZelAxisX = 226,             /* index assignment: axis x */
  ZelAxisY = 227,             /* index assignment: axis y */
  ZelAxisZ = 228,             /* index assignment: axis z */
  ZelZero = 231,              /* boundaryCondition: only taps inside the image count (default) */
  ZelBmpRunLength = 234,      /* compression: BMP RLE4/RLE8 */
  ZelJpegInterchange = 235, /* fileFormat: JFIF file around a compressed object; own marker code */
  ZelGif87a = 236,          /* version attribute */
  ZelGif89a = 237,          /* version attribute */
  ZelSamplingOneOne = 238,  /* samplingFactor: H1V1 */
  ZelSamplingTwoOne = 239,  /* samplingFactor: H2V1 */
  ZelSamplingTwoTwo = 240,  /* samplingFactor: H2V2 */
  ZelMacPaint =
      241, /* fileFormat: 576 x 720 PackBits; reachable only in Zel702x; Zel702 refuses it */
  ZelEncode = 242,              /* Zel133 direction */
  ZelDecode = 243,              /* Zel133 direction */
  ZelRayleigh = 244,            /* Zel129 shape */
  ZelPcx = 246,                 /* fileFormat: PCX */
  ZelPcxRunLength = 247,        /* compression: PCX RLE */
  ZelChunky = 248,              /* planarConfiguration: TIFF 1 */
  ZelPlanar = 249,              /* planarConfiguration: TIFF 2 */
  ZelKolLong = 250,             /* fileFormat: KOL1 with 32-byte header, read only */
  ZelSubfileFullImage = 252,    /* newSubfileType 0 */
  ZelSubfileReducedImage = 253, /* newSubfileType 1 */
  ZelSubfilePage = 254,         /* newSubfileType 2 */
  ZelDib = 255,                 /* fileFormat: BMP without file header */
  ZelPng = 259,                 /* fileFormat: PNG */
  ZelSaturationFall = 260,      /* Zel121 operation on Real */
  ZelSaturationRise = 261,      /* Zel121 operation on Real */
  ZelSaturationSubtract = 262,  /* Zel121 operation on Real */
  ZelSaturationAdd = 263,       /* Zel121 operation on Real */
  ZelPngDeflate = 264,          /* compression: PNG filters and deflate */
  ZelPngGreyscale = 265,        /* colourType: PNG 0 */
  ZelPngTrueColour = 266,       /* colourType: PNG 2 */
  ZelPngGreyscaleAlpha = 267,   /* colourType: PNG 4 */
  ZelPngTrueColourAlpha = 268,  /* colourType: PNG 6 */
  ZelSgiRgb = 269,              /* fileFormat: SGI RGB, write only */
  ZelAdaptiveFilter = 270,      /* filter: PNG row filter chosen per row from all five */
  ZelDibHeaderOnly = 271,  /* fileFormat: BMP info header and palette without pixels, memory only */
  ZelAreaAverage = 272,    /* interpolation: exact coverage average */
  ZelSamplingOneTwo = 273, /* samplingFactor: H1V2 */
  ZelJpegDirect = 274,     /* fileFormat: JPEG through the JPEG library from plain pixels */
  ZelWbmp = 275,           /* fileFormat: WBMP type 0 */
  ZelFixedPalette = 276,   /* colourQuantization: palette given by the caller */
  ZelObjectHandle = 277,   /* dataType: object handles of CompositeIDArray */
  ZelJpegColourFax = 278,  /* fileFormat: JPEG with G3FAX application segment, CIELAB, read only */
};

#endif /* ZEL_ENUM_H */
