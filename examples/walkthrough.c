/* A walk through a Zel context: objects, derivation, attributes, settings, format attributes,
 * lookups by name, and failures with their codes and the log. Prints what it does; exits 0 when
 * every step gave what it should. */
#define _POSIX_C_SOURCE 200809L

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zel.h"

static int surprises;

/* Notes a step whose result is not the expected one. */
static void expect(int condition, const char *what) {
  if (!condition) {
    printf("   !! unexpected: %s\n", what);
    ++surprises;
  }
}

static void section(const char *title) {
  printf("\n== %s\n", title);
}

static ZelValue attribute(ZelContext *ctx, ZelObject *object, const char *name) {
  return Zel005a(ctx, object, name);
}

static const char *className(ZelContext *ctx, ZelObject *object) {
  const ZelObjectClass *objectClass = Zel097(ctx, object);
  return objectClass ? objectClass->className : "(none)";
}

static void describe(ZelContext *ctx, ZelObject *object, const char *name) {
  ZelObject *parent = Zel098(ctx, object);
  printf("   %-10s %-16s %ld x %ld, %ld band(s), dataType %ld, precision %ld, %s\n", name,
         className(ctx, object), (long)attribute(ctx, object, "xDimension"),
         (long)attribute(ctx, object, "yDimension"), (long)attribute(ctx, object, "bDimension"),
         (long)attribute(ctx, object, "dataType"), (long)attribute(ctx, object, "dataPrecision"),
         parent ? "derived" : "top level");
}

/* Prints the first line of the log file. */
static void showLog(const char *logName) {
  char text[256] = {0};
  FILE *log = fopen(logName, "rb");
  if (log) {
    size_t bytes = fread(text, 1, sizeof text - 1, log);
    text[bytes] = '\0';
    fclose(log);
  }
  char *end = strchr(text, '\n');
  if (end) *end = '\0';
  printf("   log now starts with: \"%s\"\n", text);
}

static void strips(const char *label, const int32_t *offsets, const int32_t *counts, long n) {
  printf("   %s: %ld strips at", label, n);
  for (long i = 0; offsets && i < n; ++i)
    printf(" %ld", (long)offsets[i]);
  printf(", of");
  for (long i = 0; counts && i < n; ++i)
    printf(" %ld", (long)counts[i]);
  printf(" bytes\n");
}

int main(void) {
  const char *base = getenv("TMPDIR");
  char directory[4096];
  snprintf(directory, sizeof directory, "%s/zelwalkXXXXXX", base && base[0] ? base : "/tmp");
  if (!mkdtemp(directory)) {
    perror("walkthrough: no scratch directory");
    return 1;
  }
  char logName[4200];
  snprintf(logName, sizeof logName, "%s/zel.log", directory);

  section("A context with a log");
  ZelContext *ctx = Zel004(logName);
  if (!ctx) {
    printf("   Zel004 gave no context\n");
    return 1;
  }
  printf("   Zel004(\"%s\") opened a context\n", logName);
  printf("   settings: interpolation %ld, boundaryCondition %ld, errorReportingState %ld\n",
         (long)Zel007a(ctx, "interpolation"), (long)Zel007a(ctx, "boundaryCondition"),
         (long)Zel007a(ctx, "errorReportingState"));
  expect(Zel007a(ctx, "interpolation") == ZelNearestNeighbour, "default interpolation");
  ZelAttribute settings[] = {{"interpolation", ZelBilinear}, {"boundaryCondition", ZelReflect}};
  expect(Zel008(ctx, settings, 2) == 0, "Zel008 writes two settings");
  printf("   Zel008 set interpolation %ld (Bilinear), boundaryCondition %ld (Reflect)\n",
         (long)Zel007a(ctx, "interpolation"), (long)Zel007a(ctx, "boundaryCondition"));

  section("A colour image");
  ZelAttribute shape[] = {
      {"xDimension", 2480},         {"yDimension", 3508},    {"bDimension", 3},
      {"dataType", ZelNonNegative}, {"colourSpace", ZelRgb},
  };
  ZelObject *scan = Zel000a(ctx, "scan", NULL, shape, 5);
  expect(scan != NULL, "Zel000a makes the colour image");
  if (!scan) return 1;
  printf("   Zel000a made \"scan\":\n");
  describe(ctx, scan, "scan");
  expect(attribute(ctx, scan, "xDimension") == 2480 && attribute(ctx, scan, "bDimension") == 3,
         "the image has the dimensions of its list");
  expect(attribute(ctx, scan, "dataPrecision") == 8, "NonNegative data has 8 bits");

  section("TIFF attributes with a strip table");
  /* The strip tables come first in the list: writing fileFormat and stripsPerImage applies the
   * list again, so the order of the entries does not matter. */
  int32_t offsets[4] = {8, 6525248, 13050488, 19575728};
  int32_t counts[4] = {6525240, 6525240, 6525240, 6525240};
  int32_t resolution[2] = {300, 1};
  ZelAttribute tiff[] = {
      {"stripOffsets", (ZelValue)offsets},
      {"stripByteCounts", (ZelValue)counts},
      {"fileFormat", ZelTiff},
      {"stripsPerImage", 4},
      {"rowsPerStrip", 877},
      {"xResolution", (ZelValue)resolution},
      {"yResolution", (ZelValue)resolution},
      {"resolutionUnit", ZelInch},
      {"photometricInterpretation", 2},
      {"imageDescription", (ZelValue) "a scanned page"},
  };
  expect(Zel006(ctx, scan, tiff, 10) == 0, "Zel006 writes the TIFF attributes");
  ZelValue format = 0, count = 0, rows = 0, offsetTable = 0, countTable = 0, xRes = 0, text = 0;
  ZelAttribute back[] = {
      {"fileFormat", (ZelValue)&format},          {"stripsPerImage", (ZelValue)&count},
      {"rowsPerStrip", (ZelValue)&rows},          {"stripOffsets", (ZelValue)&offsetTable},
      {"stripByteCounts", (ZelValue)&countTable}, {"xResolution", (ZelValue)&xRes},
      {"imageDescription", (ZelValue)&text},
  };
  expect(Zel005(ctx, scan, back, 7) == 0, "Zel005 reads the TIFF attributes");
  printf("   Zel005 reads fileFormat %ld, stripsPerImage %ld, rowsPerStrip %ld\n", (long)format,
         (long)count, (long)rows);
  strips("scan", (const int32_t *)offsetTable, (const int32_t *)countTable, (long)count);
  const int32_t *xr = (const int32_t *)xRes;
  if (xr)
    printf("   xResolution %ld/%ld, description \"%s\"\n", (long)xr[0], (long)xr[1],
           text ? (const char *)text : "");
  expect(format == ZelTiff && count == 4 && rows == 877, "the TIFF words read back");
  expect(offsetTable && memcmp((const void *)offsetTable, offsets, sizeof offsets) == 0,
         "the strip offsets read back");
  expect(countTable && memcmp((const void *)countTable, counts, sizeof counts) == 0,
         "the strip byte counts read back");
  expect(offsetTable != (ZelValue)offsets, "the library keeps its own copy of the table");
  expect(attribute(ctx, scan, "scaleFactor") == 75, "TIFF sets the quality to 75");

  section("Derived objects");
  ZelObject *grey = Zel000c(ctx, "scan-grey", scan, NULL, 0);
  ZelAttribute roiList[] = {{"xDimension", 600}, {"yDimension", 400}};
  ZelObject *roi = Zel000j(ctx, "scan-roi", scan, roiList, 2);
  expect(grey != NULL && roi != NULL, "a MonochromeImage and an ROI derive from the image");
  if (!grey || !roi) return 1;
  printf("   Zel000c made \"scan-grey\" and Zel000j \"scan-roi\" from \"scan\":\n");
  describe(ctx, grey, "scan-grey");
  describe(ctx, roi, "scan-roi");
  expect(Zel098(ctx, grey) == scan && Zel098(ctx, roi) == scan, "both have scan as parent");
  expect(attribute(ctx, grey, "bDimension") == 1, "a monochrome image has one band");
  expect(attribute(ctx, grey, "xDimension") == 2480, "the derived image keeps the width");
  ZelValue greyCount = attribute(ctx, grey, "stripsPerImage");
  ZelValue greyOffsets = attribute(ctx, grey, "stripOffsets");
  ZelValue greyCounts = attribute(ctx, grey, "stripByteCounts");
  strips("scan-grey", (const int32_t *)greyOffsets, (const int32_t *)greyCounts, (long)greyCount);
  expect(greyCount == 4 && greyOffsets != offsetTable &&
             memcmp((const void *)greyOffsets, offsets, sizeof offsets) == 0,
         "the derived image has its own copy of the strip table");

  section("Finding objects by name");
  ZelObject *found = Zel099(ctx, NULL, "scan-roi");
  printf("   Zel099(NULL, \"scan-roi\") found %s (class %s)\n",
         found == roi ? "the ROI" : "something else", className(ctx, found));
  expect(found == roi, "the ROI is found from the top");
  found = Zel099(ctx, scan, "scan-grey");
  printf("   Zel099(scan, \"scan-grey\") found %s\n",
         found == grey ? "the monochrome image" : "something else");
  expect(found == grey, "the monochrome image is found below scan");

  section("Failures, their codes and the log");
  int code = Zel008a(ctx, "noSuchSetting", 1);
  printf("   an unknown setting: Zel008a gives %d, Zel003b %d\n", code, Zel003b(ctx));
  expect(code == 18 && Zel003b(ctx) == 18, "an unknown setting is out of range (18)");
  showLog(logName);

  ZelObject *histogram = Zel000d(ctx, "counts", scan, NULL, 0);
  printf("   a Histogram derived from an image: %s, Zel003b %d\n", histogram ? "made" : "refused",
         Zel003b(ctx));
  expect(!histogram && Zel003b(ctx) == 11, "a histogram can't derive from an image (11)");
  showLog(logName);

  ZelObjectClass madeUp = {"Picture", NULL};
  ZelObject *picture = Zel000(ctx, "picture", &madeUp, NULL, NULL, 0);
  printf("   a class the library does not know: %s, Zel003b %d\n", picture ? "made" : "refused",
         Zel003b(ctx));
  expect(!picture && Zel003b(ctx) == 6, "an unknown class is refused (6)");
  showLog(logName);

  expect(Zel002(ctx, roi) == 0, "Zel002 destroys the ROI");
  ZelValue x = Zel005a(ctx, roi, "xDimension");
  printf("   the destroyed ROI: Zel005a gives %s, Zel003b %d\n",
         x == (ZelValue)ctx ? "the context word (no value)" : "a value", Zel003b(ctx));
  expect(x == (ZelValue)ctx && Zel003b(ctx) == 9, "a destroyed object is an invalid instance (9)");
  showLog(logName);

  ZelValue unknown = 5;
  ZelAttribute quiet = {"noSuchAttribute", (ZelValue)&unknown};
  printf("   an unknown object attribute is ignored: Zel005 gives %d, place still %ld\n",
         Zel005(ctx, scan, &quiet, 1), (long)unknown);

  section("Destroying and closing");
  expect(Zel002(ctx, scan) == 0, "Zel002 destroys the image");
  found = Zel099(ctx, NULL, "scan-grey");
  printf("   Zel002(scan) also destroyed \"scan-grey\": Zel099 gives %s (code %d)\n",
         found ? "an object" : "nothing", Zel003b(ctx));
  expect(found == NULL, "derived objects die with their parent");
  code = Zel001(ctx);
  printf("   Zel001 closed the context: %d; the handle is now invalid: Zel003b gives %d\n", code,
         Zel003b(ctx));
  expect(code == 0 && Zel003b(ctx) == 24, "a closed context is an invalid handle (24)");

  unlink(logName);
  rmdir(directory);
  printf("\n%s\n", surprises == 0 ? "walkthrough: every step went as expected"
                                  : "walkthrough: some steps went wrong");
  return surprises == 0 ? 0 : 1;
}
