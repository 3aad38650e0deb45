/* The interface as a C11 application sees it: zel.h compiles as plain C, and a context is driven
 * through objects, attributes, settings and errors using nothing but the exported functions.
 * Prints every failed check and exits non-zero when there was one. */
#define _POSIX_C_SOURCE 200809L

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zel.h"

_Static_assert(sizeof(ZelScalar) == 16, "a tagged scalar is 16 bytes");
_Static_assert(offsetof(ZelScalar, v) == 8, "the scalar's value follows tag and reserved word");
_Static_assert(sizeof(ZelValue) == sizeof(void *), "an attribute word holds a pointer");
_Static_assert(sizeof(ZelAttribute) == 2 * sizeof(void *), "an entry is a name and a word");
_Static_assert(ZelRotateHalfTurn == 1, "enumerator value");
_Static_assert(ZelNonNegative == 153, "enumerator value");
_Static_assert(ZelOpen == 155, "enumerator value");
_Static_assert(ZelReal == 161, "enumerator value");
_Static_assert(ZelTiff == 207, "enumerator value");
_Static_assert(ZelPng == 259, "enumerator value");
_Static_assert(ZelJpegColourFax == 278, "enumerator value");

static int failures;
static int checks;

#define CHECK(condition)                                                            \
  do {                                                                              \
    ++checks;                                                                       \
    if (!(condition)) {                                                             \
      ++failures;                                                                   \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
    }                                                                               \
  } while (0)

#define CHECK_EQ(actual, expected)                                                            \
  do {                                                                                        \
    long long actual_ = (long long)(actual);                                                  \
    long long expected_ = (long long)(expected);                                              \
    ++checks;                                                                                 \
    if (actual_ != expected_) {                                                               \
      ++failures;                                                                             \
      fprintf(stderr, "%s:%d: %s is %lld, expected %s = %lld\n", __FILE__, __LINE__, #actual, \
              actual_, #expected, expected_);                                                 \
    }                                                                                         \
  } while (0)

/* Reads one attribute through a one-entry read list. */
static ZelValue readOne(ZelContext *ctx, ZelObject *object, const char *name) {
  ZelValue value = -12345;
  ZelAttribute entry = {name, (ZelValue)&value};
  CHECK_EQ(Zel005(ctx, object, &entry, 1), 0);
  return value;
}

static void contextsOpenWithAndWithoutLog(void) {
  ZelContext *plain = Zel004(NULL);
  ZelContext *empty = Zel004("");
  CHECK(plain != NULL);
  CHECK(empty != NULL);
  CHECK(plain != empty);
  CHECK_EQ(Zel003b(plain), 0);
  CHECK_EQ(Zel007a(plain, "errorReportingState"), 0);
  CHECK_EQ(Zel007a(empty, "errorReportingState"), 0);
  CHECK_EQ(Zel007a(plain, "operationalState"), ZelOpen);
  CHECK_EQ(Zel001(plain), 0);
  CHECK_EQ(Zel001(empty), 0);
}

static void objectsOfSeveralClassesTakeTheirLists(void) {
  ZelContext *ctx = Zel004(NULL);
  CHECK(ctx != NULL);

  ZelAttribute colourList[] = {
      {"xDimension", 640},          {"yDimension", 480},     {"bDimension", 3},
      {"dataType", ZelNonNegative}, {"colourSpace", ZelRgb}, {"noSuchAttribute", 99},
  };
  ZelObject *colour = Zel000a(ctx, "photo", NULL, colourList, 6);
  CHECK(colour != NULL);
  CHECK_EQ(Zel003b(ctx), 0);

  ZelValue x = 0, y = 0, b = 0, type = 0, precision = 0, space = 0, untouched = 77;
  ZelAttribute readList[] = {
      {"xDimension", (ZelValue)&x},
      {"yDimension", (ZelValue)&y},
      {"bDimension", (ZelValue)&b},
      {"dataType", (ZelValue)&type},
      {"dataPrecision", (ZelValue)&precision},
      {"colourSpace", (ZelValue)&space},
      {"noSuchAttribute", (ZelValue)&untouched},
  };
  CHECK_EQ(Zel005(ctx, colour, readList, 7), 0);
  CHECK_EQ(x, 640);
  CHECK_EQ(y, 480);
  CHECK_EQ(b, 3);
  CHECK_EQ(type, ZelNonNegative);
  CHECK_EQ(precision, 8);
  CHECK_EQ(space, ZelRgb);
  CHECK_EQ(untouched, 77);
  CHECK_EQ(Zel005a(ctx, colour, "xDimension"), 640);
  CHECK(Zel097(ctx, colour) == &ZelClassColourImage);
  CHECK(Zel098(ctx, colour) == NULL);

  ZelAttribute histogramList[] = {{"entries", 1024}};
  ZelObject *histogram = Zel000d(ctx, "counts", NULL, histogramList, 1);
  CHECK(histogram != NULL);
  CHECK_EQ(readOne(ctx, histogram, "xDimension"), 1024);
  CHECK_EQ(readOne(ctx, histogram, "dataType"), ZelWord);
  CHECK(Zel097(ctx, histogram) == &ZelClassHistogram);

  ZelAttribute matrixList[] = {{"xDimension", 4}, {"yDimension", 4}};
  ZelObject *matrix = Zel000f(ctx, "transform", NULL, matrixList, 2);
  CHECK(matrix != NULL);
  CHECK_EQ(readOne(ctx, matrix, "dataType"), ZelReal);
  CHECK_EQ(readOne(ctx, matrix, "repository"), ZelWorkSpace);

  ZelAttribute tableList[] = {{"dataType", ZelSigned}, {"entries", 512}};
  ZelObject *table = Zel000(ctx, "curve", &ZelClassLookupTable, NULL, tableList, 2);
  CHECK(table != NULL);
  CHECK(Zel097(ctx, table) == &ZelClassLookupTable);
  CHECK_EQ(Zel005a(ctx, table, "dataType"), ZelSigned);
  CHECK_EQ(Zel005a(ctx, table, "dataPrecision"), 16);
  CHECK_EQ(Zel005a(ctx, table, "xDimension"), 512);

  ZelObject *tuple = Zel000n(ctx, NULL, NULL, NULL, 0);
  CHECK(tuple != NULL);
  CHECK(Zel097(ctx, tuple) == &ZelClassTuple);

  /* Writes after creation, one entry and a list. */
  CHECK_EQ(Zel006a(ctx, colour, "yDimension", 200), 0);
  ZelAttribute writeList[] = {{"xMatchPoint", 5}, {"yMatchPoint", -7}};
  CHECK_EQ(Zel006(ctx, colour, writeList, 2), 0);
  CHECK_EQ(Zel005a(ctx, colour, "yDimension"), 200);
  CHECK_EQ(Zel005a(ctx, colour, "xMatchPoint"), 5);
  CHECK_EQ(Zel005a(ctx, colour, "yMatchPoint"), -7);
  CHECK_EQ(Zel003b(ctx), 0);

  CHECK_EQ(Zel001(ctx), 0);
}

static void derivedObjectsTakeTheParentsShapeAndDieWithIt(void) {
  ZelContext *ctx = Zel004(NULL);
  ZelAttribute list[] = {{"xDimension", 320}, {"yDimension", 240}, {"bDimension", 3}};
  ZelObject *colour = Zel000a(ctx, "colour", NULL, list, 3);
  ZelObject *grey = Zel000c(ctx, "grey", colour, NULL, 0);
  ZelObject *roi = Zel000j(ctx, "region", colour, NULL, 0);
  CHECK(colour != NULL);
  CHECK(grey != NULL);
  CHECK(roi != NULL);
  CHECK(Zel098(ctx, grey) == colour);
  CHECK(Zel098(ctx, roi) == colour);
  CHECK(Zel097(ctx, grey) == &ZelClassMonochromeImage);
  CHECK_EQ(Zel005a(ctx, grey, "xDimension"), 320);
  CHECK_EQ(Zel005a(ctx, grey, "yDimension"), 240);
  CHECK_EQ(Zel005a(ctx, grey, "bDimension"), 1);
  CHECK_EQ(Zel005a(ctx, roi, "xDimension"), 320);
  CHECK_EQ(Zel005a(ctx, roi, "dataType"), ZelNonNegative);

  /* Only some classes may derive from an image. */
  CHECK(Zel000d(ctx, "histogram", colour, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(ctx), 11);

  /* Destroying the parent destroys the derived objects. */
  CHECK_EQ(Zel002(ctx, colour), 0);
  CHECK(Zel098(ctx, grey) == NULL);
  CHECK_EQ(Zel003b(ctx), 9);
  CHECK(Zel099(ctx, NULL, "region") == NULL);
  CHECK_EQ(Zel001(ctx), 0);
}

static void settingsAreReadAndWrittenByName(void) {
  ZelContext *ctx = Zel004(NULL);
  ZelValue interpolation = 0, boundary = 0, precision = 0;
  ZelAttribute reads[] = {
      {"interpolation", (ZelValue)&interpolation},
      {"boundaryCondition", (ZelValue)&boundary},
      {"nonnegativeIntegerPrecision", (ZelValue)&precision},
  };
  CHECK_EQ(Zel007(ctx, reads, 3), 0);
  CHECK_EQ(interpolation, ZelNearestNeighbour);
  CHECK_EQ(boundary, ZelZero);
  CHECK_EQ(precision, 8);

  ZelAttribute writes[] = {{"interpolation", ZelBilinear}, {"boundaryCondition", ZelReflect}};
  CHECK_EQ(Zel008(ctx, writes, 2), 0);
  CHECK_EQ(Zel008a(ctx, "thresholdRamp", ZelSquare), 0);
  CHECK_EQ(Zel007a(ctx, "interpolation"), ZelBilinear);
  CHECK_EQ(Zel007a(ctx, "boundaryCondition"), ZelReflect);
  CHECK_EQ(Zel007a(ctx, "thresholdRamp"), ZelSquare);

  /* A setting changes what new objects get. */
  CHECK_EQ(Zel008a(ctx, "signedIntegerPrecision", 12), 0);
  ZelAttribute list[] = {{"dataType", ZelSigned}};
  ZelObject *image = Zel000b(ctx, "image", NULL, list, 1);
  CHECK_EQ(Zel005a(ctx, image, "dataPrecision"), 12);

  /* An unknown setting stops the walk with 18; the entries before it are done. */
  ZelAttribute mixed[] = {{"roiState", 1}, {"noSuchSetting", 5}, {"matchPointState", 1}};
  CHECK_EQ(Zel008(ctx, mixed, 3), 18);
  CHECK_EQ(Zel003b(ctx), 18);
  CHECK_EQ(Zel007a(ctx, "roiState"), 1);
  CHECK_EQ(Zel007a(ctx, "matchPointState"), 0);
  CHECK(Zel007a(ctx, "noSuchSetting") == (ZelValue)ctx);
  CHECK_EQ(Zel008a(ctx, "noSuchSetting", 1), 18);
  CHECK_EQ(Zel001(ctx), 0);
}

static void failuresGiveTheirCodes(void) {
  ZelContext *ctx = Zel004(NULL);
  CHECK_EQ(Zel003b(ctx), 0);

  /* A descriptor the library did not make is no class. */
  ZelObjectClass impostor = ZelClassColourImage;
  CHECK(Zel000(ctx, "impostor", &impostor, NULL, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(ctx), 6);
  CHECK(Zel000(ctx, "nothing", NULL, NULL, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(ctx), 6);

  /* A destroyed object is a dead handle everywhere. */
  ZelObject *object = Zel000a(ctx, "short-lived", NULL, NULL, 0);
  CHECK(object != NULL);
  CHECK_EQ(Zel002(ctx, object), 0);
  CHECK_EQ(Zel002(ctx, object), 9);
  CHECK_EQ(Zel003b(ctx), 9);
  CHECK(Zel005a(ctx, object, "xDimension") == (ZelValue)ctx);
  CHECK_EQ(Zel006a(ctx, object, "xDimension", 1), 9);
  CHECK(Zel097(ctx, object) == NULL);
  CHECK(Zel000c(ctx, "orphan", object, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(ctx), 9);

  /* A null list with a positive count is out of range; the object is still made. */
  ZelObject *made = Zel000b(ctx, "made", NULL, NULL, 2);
  CHECK(made != NULL);
  CHECK_EQ(Zel003b(ctx), 18);

  /* The code stays until the next failure. */
  CHECK_EQ(Zel005a(ctx, made, "xDimension"), 1);
  CHECK_EQ(Zel003b(ctx), 18);

  /* An unknown object attribute is ignored; an unknown setting is not. */
  CHECK_EQ(Zel006a(ctx, made, "noSuchAttribute", 3), 0);
  CHECK_EQ(Zel008a(ctx, "noSuchSetting", 3), 18);

  /* A closed context is an invalid handle, never read. */
  CHECK_EQ(Zel001(ctx), 0);
  CHECK_EQ(Zel003b(ctx), 24);
  CHECK_EQ(Zel001(ctx), 24);
  CHECK(Zel000a(ctx, "late", NULL, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(NULL), 24);
}

static void objectsAreFoundByName(void) {
  ZelContext *ctx = Zel004(NULL);
  ZelObject *first = Zel000a(ctx, "first", NULL, NULL, 0);
  ZelObject *second = Zel000b(ctx, "second", NULL, NULL, 0);
  ZelObject *child = Zel000c(ctx, "child", first, NULL, 0);
  CHECK(first && second && child);

  CHECK(Zel099(ctx, NULL, "first") == first);
  CHECK(Zel099(ctx, NULL, "second") == second);
  CHECK(Zel099(ctx, NULL, "child") == child);
  CHECK(Zel099(ctx, first, "child") == child);
  CHECK(Zel099(ctx, first, "second") == second);
  /* A search from an object covers its later siblings, not earlier ones. */
  CHECK(Zel099(ctx, second, "first") == NULL);
  CHECK_EQ(Zel003b(ctx), 9);
  CHECK(Zel099(ctx, NULL, "nobody") == NULL);
  CHECK_EQ(Zel003b(ctx), 9);
  CHECK(Zel099(ctx, NULL, "firs") == NULL);

  CHECK_EQ(Zel002(ctx, second), 0);
  CHECK(Zel099(ctx, NULL, "second") == NULL);
  CHECK_EQ(Zel001(ctx), 0);
}

static void failuresAreLoggedToTheNamedFile(void) {
  const char *base = getenv("TMPDIR");
  char directory[4096];
  snprintf(directory, sizeof directory, "%s/zelcXXXXXX", base && base[0] ? base : "/tmp");
  if (!mkdtemp(directory)) {
    CHECK(!"a scratch directory can be made");
    return;
  }
  char logName[4200];
  snprintf(logName, sizeof logName, "%s/zel.log", directory);

  ZelContext *ctx = Zel004(logName);
  CHECK(ctx != NULL);
  CHECK_EQ(Zel007a(ctx, "errorReportingState"), 1);
  CHECK_EQ(Zel008a(ctx, "noSuchSetting", 0), 18);

  char text[256] = {0};
  FILE *log = fopen(logName, "rb");
  CHECK(log != NULL);
  if (log) {
    size_t bytes = fread(text, 1, sizeof text - 1, log);
    text[bytes] = '\0';
    fclose(log);
  }
  CHECK(strcmp(text, "zel: Out of range\n") == 0);
  if (strcmp(text, "zel: Out of range\n") != 0) fprintf(stderr, "log holds \"%s\"\n", text);

  /* With reporting switched off nothing more is written. */
  CHECK_EQ(Zel008a(ctx, "errorReportingState", 0), 0);
  CHECK(Zel000(ctx, "x", NULL, NULL, NULL, 0) == NULL);
  CHECK_EQ(Zel003b(ctx), 6);
  log = fopen(logName, "rb");
  if (log) {
    size_t bytes = fread(text, 1, sizeof text - 1, log);
    text[bytes] = '\0';
    fclose(log);
  }
  CHECK(strcmp(text, "zel: Out of range\n") == 0);

  CHECK_EQ(Zel001(ctx), 0);
  unlink(logName);
  rmdir(directory);
}

int main(void) {
  contextsOpenWithAndWithoutLog();
  objectsOfSeveralClassesTakeTheirLists();
  derivedObjectsTakeTheParentsShapeAndDieWithIt();
  settingsAreReadAndWrittenByName();
  failuresGiveTheirCodes();
  objectsAreFoundByName();
  failuresAreLoggedToTheNamedFile();
  printf("%d checks, %d failed\n", checks, failures);
  return failures == 0 ? 0 : 1;
}
