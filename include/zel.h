/* Zel: an embeddable image-processing kernel with file interchange.
 *
 * Plain C interface (C11 and C++). An application opens a context with
 * Zel004, creates objects in it, reads and writes their attributes by name,
 * applies numbered operators, compresses and expands pixel data, and moves
 * objects to and from files or memory. Zel001 closes the context and releases
 * everything it holds.
 *
 * Results. A function that returns `int` returns 0 on success, -1 when an
 * operating-system call or an allocation failed (errno tells why), or a code
 * of the message table below. A function that returns a handle returns NULL
 * on failure. The code of the last failure stays in the context until the
 * next failure and is read with Zel003b. A handle that is not a usable
 * context gives 24 (or NULL / 0) and is never recorded.
 *
 * Message table (code: text):
 *   0 No error                        14 Not a positive integer
 *   1 Closure failure                 15 Not a positive even integer
 *   2 Division by zero                16 Not a positive odd integer
 *   3 Exceed implementation           17 Not a power of two
 *   4 Illegal data type conversion    18 Out of range
 *   5 Incorrect data type             19 Semantical error within data stream
 *   6 Incorrect object class          20 State is CLOSED when OPEN is expected
 *   7 Initialization failure          21 State is OPEN when CLOSED is expected
 *   8 Insufficient size               22 Syntactical error within data stream
 *   9 Invalid instance                23 Upper bound is smaller than lower bound
 *  10 Mismatch data type              24 Invalid handle
 *  11 Mismatch object class           25 File Open Failure
 *  12 Non-permissible option          26 File Not Found
 *  13 Not integer multiples of the block
 *
 * Threads. A context and its objects belong to one thread at a time; two
 * contexts share nothing and may be used on two threads.
 */
#ifndef ZEL_H
#define ZEL_H

#include <stdint.h>

#include "zel_enum.h"

#if defined(ZEL_BUILDING_LIBRARY)
#define ZEL_API __attribute__((visibility("default")))
#else
#define ZEL_API
#endif

#ifdef __cplusplus
extern "C" {
#define ZEL_NOEXCEPT noexcept
#else
#define ZEL_NOEXCEPT
#endif

/* ---- Types ------------------------------------------------------------ */

/* An attribute word: an integer, an enumerator, a text, a handle or the
 * address of a table, as the attribute's kind says. Integer attributes hold
 * 32 bits: a write keeps the low 32 bits, a read sign-extends them. */
typedef intptr_t ZelValue;

/* One entry of an attribute list. For writes `value` is the value itself;
 * for reads it is the address of a ZelValue that receives the value. Lists
 * carry no end marker: a count goes with them. */
typedef struct ZelAttribute {
  const char *name;
  ZelValue value;
} ZelAttribute;

/* A constant for the operators: tag ZelReal (161) marks a double in v.d; any
 * other tag marks a 32-bit integer in the low half of v.i. */
typedef struct ZelScalar {
  int32_t tag;
  int32_t reserved;
  union {
    double d;
    int64_t i;
  } v;
} ZelScalar;

typedef struct ZelContext ZelContext; /* opaque */
typedef struct ZelObject ZelObject;   /* opaque */

/* A class descriptor. Classes are compared by the descriptor's address. */
typedef struct ZelObjectClass {
  const char *className;
  const void *classTemplate;
} ZelObjectClass;

ZEL_API extern const ZelObjectClass ZelClassColourImage;
ZEL_API extern const ZelObjectClass ZelClassGenericImage;
ZEL_API extern const ZelObjectClass ZelClassMonochromeImage;
ZEL_API extern const ZelObjectClass ZelClassHistogram;
ZEL_API extern const ZelObjectClass ZelClassLookupTable;
ZEL_API extern const ZelObjectClass ZelClassMatrix;
ZEL_API extern const ZelObjectClass ZelClassDitherArray;
ZEL_API extern const ZelObjectClass ZelClassImpulseResponseArray;
ZEL_API extern const ZelObjectClass ZelClassMaskArray;
ZEL_API extern const ZelObjectClass ZelClassROI;
ZEL_API extern const ZelObjectClass ZelClassPowerSpectrumArray;
ZEL_API extern const ZelObjectClass ZelClassTransferFunctionArray;
ZEL_API extern const ZelObjectClass ZelClassWindowFunctionArray;
ZEL_API extern const ZelObjectClass ZelClassTuple;
ZEL_API extern const ZelObjectClass ZelClassCompositeIDArray;

/* ---- Context ---------------------------------------------------------- */

/* Opens a context. With a non-empty `errorFile` every reported failure is
 * also written as "zel: <message>\n" at the start of that file, which is
 * opened afresh for each report. NULL or "" gives a context without a log.
 * Returns NULL when no memory is left. */
ZEL_API ZelContext *Zel004(const char *errorFile) ZEL_NOEXCEPT;

/* Closes the context: destroys every object (deleting the temporary files
 * the library made) and releases the context. Returns 0, or 24. */
ZEL_API int Zel001(ZelContext *ctx) ZEL_NOEXCEPT;

/* The code of the last failure in this context (0 if none), or 24. */
ZEL_API int Zel003b(ZelContext *ctx) ZEL_NOEXCEPT;

/* ---- Objects ---------------------------------------------------------- */

/* Creates an object of class `objectClass`. With a `parent` the new object
 * derives from it: it takes the parent's shape and format state, not its
 * data, and dies with it. `list` is then applied as by Zel006; its failure
 * stays in the context while the object is returned. NULL on failure: 6 for
 * an unknown class, 11 for a derivation between classes that don't allow it,
 * 9 for a dead parent, -1 without memory. */
ZEL_API ZelObject *Zel000(ZelContext *ctx, const char *name, const ZelObjectClass *objectClass,
                          ZelObject *parent, const ZelAttribute *list, int count) ZEL_NOEXCEPT;

/* Zel000 with a fixed class: ColourImage, GenericImage, MonochromeImage,
 * Histogram, LookupTable, Matrix, DitherArray, ImpulseResponseArray,
 * MaskArray, ROI, PowerSpectrumArray, TransferFunctionArray,
 * WindowFunctionArray, Tuple and CompositeIDArray. */
ZEL_API ZelObject *Zel000a(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000b(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000c(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000d(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000e(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000f(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000g(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000h(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000i(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000j(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000k(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000l(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000m(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000n(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;
ZEL_API ZelObject *Zel000z(ZelContext *ctx, const char *name, ZelObject *parent,
                           const ZelAttribute *list, int count) ZEL_NOEXCEPT;

/* Destroys the object and everything derived from it. Temporary files that
 * the library made and wrote for them are deleted; files the application
 * named are not. Returns 0 or the code (9 for a dead handle). */
ZEL_API int Zel002(ZelContext *ctx, ZelObject *object) ZEL_NOEXCEPT;

/* The object's class descriptor, or NULL after an invalid handle. */
ZEL_API const ZelObjectClass *Zel097(ZelContext *ctx, ZelObject *object) ZEL_NOEXCEPT;

/* The object's parent, or NULL. */
ZEL_API ZelObject *Zel098(ZelContext *ctx, ZelObject *object) ZEL_NOEXCEPT;

/* Finds the live object called `name` (exact comparison). With `object`
 * NULL the whole context is searched; otherwise that object, its later
 * siblings and everything derived from them. NULL after reporting 9. */
ZEL_API ZelObject *Zel099(ZelContext *ctx, ZelObject *object, const char *name) ZEL_NOEXCEPT;

/* ---- Tuples ----------------------------------------------------------- */

/* A new Tuple in work space with `entries` entries of `dataType`, filled
 * from `array` (which must hold them) as by Zel609; NULL when the tuple
 * can't be made (18 for a negative count). A failed fill is left in the
 * context. */
ZEL_API ZelObject *Zel000o(ZelContext *ctx, const void *array, int entries,
                           int dataType) ZEL_NOEXCEPT;
/* A new five-entry Word tuple holding a..e. */
ZEL_API ZelObject *Zel000p(ZelContext *ctx, int32_t a, int32_t b, int32_t c, int32_t d,
                           int32_t e) ZEL_NOEXCEPT;
/* A new Word tuple of `count` words; a count above 4 or below 0, or a
 * null `words` with a positive count, gives 18 and NULL. */
ZEL_API ZelObject *Zel000p2(ZelContext *ctx, const int32_t *words, int count) ZEL_NOEXCEPT;
/* Reads a tuple of at most five words into the five places (missing
 * words read 0); 0 or a code: 18 for a longer tuple or a null place,
 * 9 for a dead handle. */
ZEL_API int Zel000q(ZelContext *ctx, ZelObject *tuple, int32_t *a, int32_t *b, int32_t *c,
                    int32_t *d, int32_t *e) ZEL_NOEXCEPT;
/* Reads `count` words of a tuple of at most four words; a count above 4,
 * a longer tuple or a null `out` gives 18. With `count` below 1 the
 * tuple is still read and nothing is copied. */
ZEL_API int Zel000q2(ZelContext *ctx, ZelObject *tuple, int32_t *out, int count) ZEL_NOEXCEPT;

/* ---- Object attributes -------------------------------------------------- */

/* Reads `count` attributes: each entry's value is the address of a ZelValue
 * to fill. Unknown names leave their place untouched. A table or text read
 * is the library's pointer, valid until the attribute changes or the object
 * goes. Returns 0, or the code of an invalid object. */
ZEL_API int Zel005(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) ZEL_NOEXCEPT;

/* Reads one attribute. When there is no value (bad handle, unknown name)
 * the result is the `ctx` handle itself; Zel003b tells a failure apart. */
ZEL_API ZelValue Zel005a(ZelContext *ctx, ZelObject *object, const char *name) ZEL_NOEXCEPT;

/* Writes `count` attributes in list order; unknown names are ignored.
 * Writing "fileFormat" or "stripsPerImage" applies the list once more, so a
 * list's effect doesn't depend on its order. Texts and tables are copied,
 * but for "applicationAddressSpace". Returns 0, the code of an invalid
 * object, or -1 when memory for a record or file name ran out. */
ZEL_API int Zel006(ZelContext *ctx, ZelObject *object, const ZelAttribute *list,
                   int count) ZEL_NOEXCEPT;

/* Writes one attribute; returns as Zel006. */
ZEL_API int Zel006a(ZelContext *ctx, ZelObject *object, const char *name,
                    ZelValue value) ZEL_NOEXCEPT;

/* ---- System attributes (settings of the context) ------------------------ */

/* Reads settings: each value is the address of a ZelValue to fill. An
 * unknown name gives 18 at once, with the entries before it done. */
ZEL_API int Zel007(ZelContext *ctx, const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Reads one setting; the `ctx` handle itself when there is none. */
ZEL_API ZelValue Zel007a(ZelContext *ctx, const char *name) ZEL_NOEXCEPT;
/* Writes settings; an unknown name gives 18 at once. Writing
 * "operationalState" with anything but ZelOpen abandons the context. */
ZEL_API int Zel008(ZelContext *ctx, const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Writes one setting; returns as Zel008. */
ZEL_API int Zel008a(ZelContext *ctx, const char *name, ZelValue value) ZEL_NOEXCEPT;

/* ---- Composites ------------------------------------------------------- */

/* The object handle stored at `index` of a CompositeIDArray, or NULL. */
ZEL_API ZelObject *Zel010(ZelContext *ctx, ZelObject *composite, int index) ZEL_NOEXCEPT;
/* Stores `entry` (or NULL) at `index` of a CompositeIDArray. */
ZEL_API int Zel011(ZelContext *ctx, ZelObject *entry, ZelObject *composite, int index) ZEL_NOEXCEPT;

/* ---- Movement and exchange -------------------------------------------- */

/* Copies the pixels of `source` into `destination`, converting to the
 * destination's data type, over the overlap after match points and under
 * both regions of interest (as far as the context's settings apply them).
 * Boolean sets become 255 (NonNegative) or 32767 (Signed); nonzero values
 * become set bits; Signed to NonNegative clamps; Real to NonNegative or
 * Signed clamps and truncates toward zero; Signed between byte orders
 * swaps. Nothing but Real converts to Real; Word and ObjectHandle data
 * copy only to their own type. The destination's attributes are not
 * changed. 0, 10 "Mismatch data type", 9, or the code of a line. */
ZEL_API int Zel601(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* Puts `source` into the plane (zIndex, tIndex, bIndex) of a larger object
 * by Zel601. With "matchPointState" off both objects meet at x = y = 0;
 * the setting and all match points are put back on every path. */
ZEL_API int Zel600(ZelContext *ctx, ZelObject *source, ZelObject *destination, int zIndex,
                   int tIndex, int bIndex) ZEL_NOEXCEPT;
/* Takes the planes from (zIndex, tIndex, bIndex) on out of a larger object,
 * as Zel600 does with the roles swapped. */
ZEL_API int Zel603(ZelContext *ctx, ZelObject *source, ZelObject *destination, int zIndex,
                   int tIndex, int bIndex) ZEL_NOEXCEPT;
/* Exports an object into the application's `buffer` by Zel601. The buffer
 * is seen as an object of the same class and shape, changed by `list`
 * (another "dataType", for example), and must hold all of its bytes:
 * rows without padding, x fastest, then y, z, t, b. 18 for a null buffer
 * or a bad list. */
ZEL_API int Zel605(ZelContext *ctx, ZelObject *object, void *buffer, const ZelAttribute *list,
                   int count) ZEL_NOEXCEPT;
/* Imports an object from the application's `buffer`, the reverse of
 * Zel605. */
ZEL_API int Zel609(ZelContext *ctx, void *buffer, ZelObject *object, const ZelAttribute *list,
                   int count) ZEL_NOEXCEPT;

/* ---- Point, colour and orientation operators ---------------------------- */

/* Smallest and largest pixel values, per `grouping` (ZelOne ... ZelFive). */
ZEL_API int Zel101(ZelContext *ctx, ZelObject *source, ZelObject *minimum, ZelObject *maximum,
                   int grouping) ZEL_NOEXCEPT;
/* Colour space conversion between the objects' "colourSpace" values. */
ZEL_API int Zel102(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* Conversion from and to the subtractive spaces; `blackRatio` applies to
 * Tristimulus to Cmyk only. */
ZEL_API int Zel103(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   double blackRatio) ZEL_NOEXCEPT;
/* Conversion between Tristimulus and the gamma and CIE spaces. */
ZEL_API int Zel104(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* One band of luminance from a three-band image. */
ZEL_API int Zel105(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* Three bands from one through a three-row lookup table (pseudo-colour). */
ZEL_API int Zel105a(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                    ZelObject *lookupTable) ZEL_NOEXCEPT;
/* Combines two images pixel by pixel with `operation` (ZelAdd, ZelAnd ...). */
ZEL_API int Zel106(ZelContext *ctx, ZelObject *sourceA, ZelObject *sourceB, ZelObject *destination,
                   int operation) ZEL_NOEXCEPT;
/* Mirrors, rotates by quarter turns or transposes. */
ZEL_API int Zel108(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   int orientation) ZEL_NOEXCEPT;

/* ---- Geometry (kernel chosen by the "interpolation" setting) ------------ */

/* Rescales a source window onto the whole destination. */
ZEL_API int Zel109(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   ZelObject *sourceOrigin, ZelObject *sourceSize) ZEL_NOEXCEPT;
/* Rescales the whole source onto the whole destination. */
ZEL_API int Zel110(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* Rotates by `angle` radians about (xCentre, yCentre). */
ZEL_API int Zel111(ZelContext *ctx, ZelObject *source, ZelObject *destination, int xCentre,
                   int yCentre, double angle) ZEL_NOEXCEPT;
/* Rescales a source window onto a destination window; each tuple may be
 * NULL (origin zero, size the whole object). */
ZEL_API int Zel112(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   ZelObject *sourceOrigin, ZelObject *sourceSize, ZelObject *destinationOrigin,
                   ZelObject *destinationSize) ZEL_NOEXCEPT;
/* Warps through two bivariate polynomials of 16 coefficients each. */
ZEL_API int Zel115(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   const double rowA[16], const double rowB[16]) ZEL_NOEXCEPT;

/* ---- Neighbourhood and rank filters ----------------------------------- */

/* Convolution with an ImpulseResponseArray kernel. */
ZEL_API int Zel107(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   ZelObject *kernel) ZEL_NOEXCEPT;
/* Weighted sum of the pixel, the filtered sample and an offset. */
ZEL_API int Zel200(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *kernel,
                   double pixelWeight, double sampleWeight, double offset) ZEL_NOEXCEPT;
/* Median under a MaskArray. */
ZEL_API int Zel201(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   ZelObject *mask) ZEL_NOEXCEPT;
/* Value of `rank` (1 = smallest) under a MaskArray. */
ZEL_API int Zel202(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *mask,
                   int rank) ZEL_NOEXCEPT;
/* Gradient from two kernels, combined by ZelAbsoluteSum or ZelRootSumSquare. */
ZEL_API int Zel203(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *kernelA,
                   ZelObject *kernelB, int combination) ZEL_NOEXCEPT;

/* ---- Lookup, scalar arithmetic, threshold and blend -------------------- */

/* Maps every NonNegative pixel through the first line of a LookupTable of
 * at least 256 entries: into NonNegative with a NonNegative table, into
 * Signed with a Signed table (10 otherwise, 18 for a shorter table). */
ZEL_API int Zel120(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                   ZelObject *table) ZEL_NOEXCEPT;
/* Combines every pixel with a scalar by `operation` (ZelAdd, ZelAverage,
 * ZelDivideByScalar, ZelDivideScalarBy, logic, ZelMaximum, ZelMinimum,
 * ZelMultiply, the four subtractions; on Real also the saturation rows).
 * Source and destination share one type (10 otherwise). Integer results
 * are computed in 32 bits and limited to the pixel type; Real in double.
 * Operations a type doesn't have, a division by zero and ZelNot on
 * integers leave the destination pixel as it was. */
ZEL_API int Zel121(ZelContext *ctx, ZelObject *source, ZelObject *destination, int operation,
                   ZelScalar scalar) ZEL_NOEXCEPT;
/* Threshold of a NonNegative image: pixels below `threshold` become `low`,
 * the others `high` (all three taken as bytes). A Boolean destination gets
 * a set bit where that byte isn't 0. */
ZEL_API int Zel122(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelScalar threshold,
                   ZelScalar low, ZelScalar high) ZEL_NOEXCEPT;
/* Complement: each bit of a Boolean image, 255 - p of a NonNegative one. */
ZEL_API int Zel130(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;
/* Blend of two NonNegative images: (a * wA + b * wB + 128) >> 8 with
 * wA = trunc(256 * weight), wB = trunc(256 * (1 - weight)); results
 * outside 0..255 wrap. */
ZEL_API int Zel132(ZelContext *ctx, ZelObject *sourceA, ZelObject *sourceB, ZelObject *destination,
                   double weight) ZEL_NOEXCEPT;
/* Fold of a NonNegative image: p below 128 stays, from 128 up 255 - p. */
ZEL_API int Zel135(ZelContext *ctx, ZelObject *source, ZelObject *destination) ZEL_NOEXCEPT;

/* ---- Halftoning and quantisation --------------------------------------- */

/* Ordered dither by a DitherArray to the levels of a Tuple. */
ZEL_API int Zel125(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *dither,
                   ZelObject *levels) ZEL_NOEXCEPT;
/* Error diffusion chosen by the "errorDiffusion" setting. */
ZEL_API int Zel125a(ZelContext *ctx, ZelObject *source, ZelObject *destination,
                    ZelObject *levels) ZEL_NOEXCEPT;
/* Colour quantisation to an index image and a palette table, chosen by the
 * "colourQuantization" setting. */
ZEL_API int Zel127(ZelContext *ctx, ZelObject *source, ZelObject *destination, ZelObject *table,
                   ZelObject *levels) ZEL_NOEXCEPT;

/* ---- Generators of test images and kernels ----------------------------- */

ZEL_API int Zel500(ZelContext *ctx, ZelObject *object,
                   ZelScalar amplitude) ZEL_NOEXCEPT; /* step wedge or colour bars */
ZEL_API int Zel501(ZelContext *ctx, ZelObject *object, ZelScalar value) ZEL_NOEXCEPT; /* constant */
ZEL_API int Zel502(ZelContext *ctx, ZelObject *object, int direction,
                   ZelScalar amplitude) ZEL_NOEXCEPT;                /* linear ramp */
ZEL_API int Zel503(ZelContext *ctx, ZelObject *object) ZEL_NOEXCEPT; /* box kernel */
ZEL_API int Zel506(ZelContext *ctx, ZelObject *object, int dimensionality, ZelObject *centre,
                   ZelObject *size) ZEL_NOEXCEPT; /* ellipsoid */
ZEL_API int Zel507(ZelContext *ctx, ZelObject *object, int dimensionality, ZelObject *origin,
                   ZelObject *size) ZEL_NOEXCEPT; /* box */
ZEL_API int Zel508(ZelContext *ctx, ZelObject *object, int xCentre, int yCentre, double xSigma,
                   double ySigma, ZelScalar amplitude) ZEL_NOEXCEPT; /* Gaussian spot */
ZEL_API int Zel509(ZelContext *ctx, ZelObject *source, ZelObject *destination, int reserved,
                   ZelObject *low,
                   ZelObject *high) ZEL_NOEXCEPT; /* marks pixels outside a colour box */
ZEL_API int Zel561(ZelContext *ctx, ZelObject *object,
                   int direction) ZEL_NOEXCEPT; /* half-plane difference */
ZEL_API int Zel562(ZelContext *ctx, ZelObject *object, int direction, double xSigma,
                   double ySigma) ZEL_NOEXCEPT; /* derivative of a Gaussian */
ZEL_API int Zel563(ZelContext *ctx, ZelObject *object, double xSigmaA, double ySigmaA,
                   double xSigmaB, double ySigmaB) ZEL_NOEXCEPT;     /* difference of Gaussians */
ZEL_API int Zel564(ZelContext *ctx, ZelObject *object) ZEL_NOEXCEPT; /* ellipse disc */
ZEL_API int Zel565(ZelContext *ctx, ZelObject *object, double xSigma,
                   double ySigma) ZEL_NOEXCEPT; /* Gaussian low pass */
ZEL_API int Zel566(ZelContext *ctx, ZelObject *object,
                   double sigma) ZEL_NOEXCEPT; /* Laplacian of Gaussian */
ZEL_API int Zel567(ZelContext *ctx, ZelObject *object, int kind) ZEL_NOEXCEPT; /* pyramid */
ZEL_API int Zel568(ZelContext *ctx, ZelObject *object, double a,
                   double b) ZEL_NOEXCEPT; /* separable sinc */

/* ---- Histogram, tone curves and colour adjustment ----------------------- */

/* Counts the levels of every pixel of a NonNegative image, all bands in one
 * count and under the image's region of interest, into the 32-bit counters
 * of a Histogram of 2 to 256 entries (levels 256 / entries to a bin; the
 * remainder goes into the last). 18 for fewer entries, 2 for more. */
ZEL_API int Zel126(ZelContext *ctx, ZelObject *source, ZelObject *histogram) ZEL_NOEXCEPT;
/* Histogram modification to `shape` (ZelCubeRoot, ZelExponential,
 * ZelLogarithmic, ZelUniform, ZelRayleigh) between `low` and `high`,
 * applied as a table by Zel120. An image without counted pixels is copied
 * unchanged. 18 for another shape or a low bound not above 0 under
 * ZelLogarithmic. */
ZEL_API int Zel129(ZelContext *ctx, ZelObject *source, ZelObject *destination, int shape,
                   ZelScalar low, ZelScalar high, double alpha) ZEL_NOEXCEPT;
/* Gamma curve with a linear toe, ZelEncode or ZelDecode, applied as a table
 * by Zel120. Does nothing and returns 0 unless both images are
 * NonNegative. Another direction applies an all-zero table. */
ZEL_API int Zel133(ZelContext *ctx, ZelObject *source, ZelObject *destination, int direction,
                   double a, double gamma, double c, double slope, double breakpoint) ZEL_NOEXCEPT;
/* S-curve of brightness and contrast through the point (0.5 - 0.2 b,
 * 0.5 + 0.2 b), applied as a table by Zel120; 10 unless both images are
 * NonNegative. */
ZEL_API int Zel134(ZelContext *ctx, ZelObject *source, ZelObject *destination, double brightness,
                   double contrast) ZEL_NOEXCEPT;
/* Hue, saturation and intensity adjustment of a three-band image. */
ZEL_API int Zel136(ZelContext *ctx, ZelObject *source, ZelObject *destination, int hueDegrees,
                   int saturationPercent, int intensityPercent) ZEL_NOEXCEPT;
/* Band offsets, each a percentage of the full scale. */
ZEL_API int Zel137(ZelContext *ctx, ZelObject *source, ZelObject *destination, int offset0,
                   int offset1, int offset2) ZEL_NOEXCEPT;

/* ---- Compression ------------------------------------------------------ */

/* Compresses `image` (whose "compression" must be 0) into `compressed` by
 * the latter's "compression": ZelFaxGroup3OneDimensional,
 * ZelFaxGroup3TwoDimensional, ZelFaxGroup4, ZelModifiedHuffman, ZelJpeg,
 * ZelLzw, ZelPackBits, ZelKolLine, ZelBmpRunLength, ZelPcxRunLength or
 * ZelPngDeflate. 12 for any other value, and for a family whose codec this
 * build of the library doesn't contain; 9 for a dead handle. */
ZEL_API int Zel700(ZelContext *ctx, ZelObject *image, ZelObject *compressed) ZEL_NOEXCEPT;
/* Expands `compressed` into `image`, as Zel700 in the other direction.
 *
 * ZelPngDeflate: PNG scanlines, each behind its filter byte, through one
 * zlib stream per plane. Compressing takes the compressed object's
 * "bDimension" (1 or 3), "dataPrecision" (1, 2, 4, 8 or 16; 8 or 16 for
 * three bands), "compressionLevel" (1 to 9) and "filter" (0: no filter,
 * ZelAdaptiveFilter: the five filters chosen row by row); others give 12,
 * pixels of another type 10. "size" gets the stream's length. Expanding
 * reads Adam7 passes when the object comes from a PNG file with
 * "interlacedImage" 1; with the setting "progressive" on, passes up to
 * "interlacePass" (1 to 7, else 18) fill the image block by block. Any
 * fault in the data, a stream too short or too long, is 22. */
ZEL_API int Zel701(ZelContext *ctx, ZelObject *compressed, ZelObject *image) ZEL_NOEXCEPT;

/* ---- File interchange ------------------------------------------------- */

/* ZelPng writes a plain object as grey, palette (a "lut" of 3 bands and 1
 * to 256 entries), grey with alpha, RGB or RGBA by its bands or by
 * "colourType", at its "dataPrecision", Adam7 with "interlacedImage" 1,
 * with tEXt for "copyright" and tRNS for "transparency"; an object that
 * holds ZelPngDeflate data is stored as it stands. */

/* Writes `object` as it stands (compressed data stays compressed) to
 * `fileName` in `fileFormat`; format 0 writes the pixels as they lie in
 * memory. A CompositeIDArray writes one page per entry. 18 for a format
 * that can't be written, 12 for one whose writer this build doesn't
 * contain. A half-written file stays on disk. */
ZEL_API int Zel702(ZelContext *ctx, ZelObject *object, const char *fileName, int fileFormat,
                   const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Compresses with the format's default codec (or the list's
 * "compression"), then writes as Zel702. A composite writes all its pages
 * to TIFF, its first entry otherwise. 12 for an already compressed
 * object, 18 when the image uses levels beyond its palette's
 * "usedXDimension". */
ZEL_API int Zel702x(ZelContext *ctx, ZelObject *object, const char *fileName, int fileFormat,
                    const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Writes Bmp, Dib or DibHeaderOnly to application memory at `address`,
 * which must be large enough; the list may ask for ZelBmpRunLength. */
ZEL_API int Zel702z(ZelContext *ctx, ZelObject *object, void *address, int fileFormat,
                    const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Reads; `mode` is 0 (all), ZelReadData or ZelReadAttributes (18
 * otherwise). `fileName` may be NULL when the list holds
 * "applicationAddressSpace" and "size". Format 0 reads raw pixels in the
 * object's shape. Compressed data stay compressed in `object`. */
ZEL_API int Zel703(ZelContext *ctx, const char *fileName, ZelObject *object, int fileFormat,
                   int mode, const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* ZelPng reads 1-, 4- and 8-bit grey and palette and 8-bit RGB and RGBA
 * files; 2- and 16-bit files and grey with alpha give 22, as do a bad CRC
 * in any chunk and IDAT chunks that don't follow each other. A "lut" on
 * the object gets the palette, or a grey ramp for grey files. */

/* Reads and expands. The file is read into memory first unless it is a
 * TIFF of 5 MiB or more. 25 when it can't be opened. */
ZEL_API int Zel703x(ZelContext *ctx, const char *fileName, ZelObject *object, int fileFormat,
                    const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Reads and expands from `size` bytes of memory. */
ZEL_API int Zel703w(ZelContext *ctx, const void *address, ZelObject *object, int fileFormat,
                    int size, const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Reads Bmp or Dib from memory; the byte count comes as "size" in `list`. */
ZEL_API int Zel703z(ZelContext *ctx, const void *address, ZelObject *object, int fileFormat,
                    const ZelAttribute *list, int count) ZEL_NOEXCEPT;
/* Page count of a ZelTiff or ZelSegmentedDocument file; 0 on failure (12
 * for another format, 22 for a bad head). A TIFF directory chain counts
 * as far as each directory lies beyond the one before. */
ZEL_API int Zel704(ZelContext *ctx, const char *fileName, int fileFormat) ZEL_NOEXCEPT;
/* Page count of `size` bytes of memory; 0 on failure. */
ZEL_API int Zel704w(ZelContext *ctx, const void *address, int fileFormat, int size) ZEL_NOEXCEPT;
/* Detected "fileFormat" of a file by its first bytes, then by trying the
 * readers with the log switched off; 0 when unknown. */
ZEL_API int Zel705(ZelContext *ctx, const char *fileName) ZEL_NOEXCEPT;
/* Detected "fileFormat" of `size` bytes of memory (at least 10, else 8);
 * 0 when unknown. */
ZEL_API int Zel705w(ZelContext *ctx, const void *address, int size) ZEL_NOEXCEPT;

#ifdef __cplusplus
}
#endif

#endif /* ZEL_H */
