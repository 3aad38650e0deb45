/* An application built against an installed Zel: opens a context, makes an object with an
 * attribute list, writes and reads attributes, closes the context. Exit 0 when all went as
 * expected. */
#include <stdio.h>

#include <zel.h>

static int failures;

static void expect(int condition, const char *what) {
  if (!condition) {
    fprintf(stderr, "consumer: %s\n", what);
    ++failures;
  }
}

int main(void) {
  ZelContext *ctx = Zel004(NULL);
  expect(ctx != NULL, "Zel004 opened no context");
  if (!ctx) return 1;

  ZelAttribute list[] = {{"xDimension", 64}, {"yDimension", 48}, {"dataType", ZelNonNegative}};
  ZelObject *image = Zel000a(ctx, "image", NULL, list, 3);
  expect(image != NULL, "Zel000a made no object");
  expect(Zel097(ctx, image) == &ZelClassColourImage, "the object is not a ColourImage");

  expect(Zel006a(ctx, image, "yDimension", 50) == 0, "Zel006a failed");
  ZelValue x = 0, y = 0;
  ZelAttribute reads[] = {{"xDimension", (ZelValue)&x}, {"yDimension", (ZelValue)&y}};
  expect(Zel005(ctx, image, reads, 2) == 0, "Zel005 failed");
  expect(x == 64, "xDimension does not read 64");
  expect(y == 50, "yDimension does not read 50");
  expect(Zel005a(ctx, image, "dataType") == ZelNonNegative, "dataType does not read NonNegative");
  expect(Zel099(ctx, NULL, "image") == image, "Zel099 did not find the object");
  expect(Zel003b(ctx) == 0, "a failure was recorded");

  expect(Zel001(ctx) == 0, "Zel001 failed");
  if (failures == 0)
    printf("consumer: a %dx%d image made, read back and released\n", (int)x, (int)y);
  return failures == 0 ? 0 : 1;
}
