#ifndef AMBIT_CONVERTUTF_H_
#define AMBIT_CONVERTUTF_H_

#include "ambit/export.h"

// Conversion among UTF-8, UTF-16 and UTF-32 in caller-supplied buffers, and
// counters that measure a conversion's output without writing it.
//
// The interface and error handling are those of the classic ConvertUTF
// routines published by Unicode, Inc., with two additions of this library:
//   - ConvertUTF8toUTF16, ConvertUTF8toUTF32, ConvertUTF16toUTF8,
//     ConvertUTF32toUTF8 and the four SizeOf counters stop at a zero unit:
//     the zero is not converted, not counted and not consumed, and the
//     source start is left pointing at it. ConvertUTF32toUTF16 and
//     ConvertUTF16toUTF32 have no such stop and convert a zero like any
//     other unit.
//   - the SizeOf counters.
//
// Every function is reentrant, allocates nothing, never throws and logs
// nothing. Results are reported through ConversionResult and through the
// source and target start pointers, which on return point just past what was
// consumed and produced. After targetExhausted or sourceExhausted the caller
// can resume by calling again from the returned positions; after a strict
// sourceIllegal the source start points at the offending sequence. No
// function reads at or past a source end or writes at or past a target end.

typedef unsigned long UTF32;   // 32 bits on i386; 32-bit wchar_t holds it
typedef unsigned short UTF16;  // 16 bits
typedef unsigned char UTF8;    // 8 bits
typedef unsigned char Boolean;

enum ConversionResult {
  conversionOK = 0,     // converted up to the source end or a stopping zero
  sourceExhausted = 1,  // the source ends inside a multi-unit sequence
  targetExhausted = 2,  // the next character does not fit in the target
  sourceIllegal = 3     // illegal or out-of-range input
};

// Strict treats surrogate code points in UTF-32 or UTF-8 input, and unpaired
// surrogates in UTF-16 input, as errors; any non-zero value is lenient and
// replaces them with U+FFFD or passes them through. The underlying type is
// fixed so that every int value is a valid flags value.
enum ConversionFlags : int {
  strictConversion = 0,
  lenientConversion = 1
};

// --- Converters --------------------------------------------------------------
// (source start, source end, target start, target end, flags). End pointers
// point one past the last usable unit.

// No stop at zero. A surrogate is sourceIllegal under strict (source left at
// it) and U+FFFD under lenient. A value above 0x10FFFF is skipped with
// sourceIllegal recorded under strict, and written as U+FFFD under lenient.
AMBIT_API ConversionResult ConvertUTF32toUTF16(
    const UTF32** sourceStart, const UTF32* sourceEnd,
    UTF16** targetStart, UTF16* targetEnd, ConversionFlags flags);

// No stop at zero. A high surrogate as the last unit is sourceExhausted; an
// unpaired surrogate is sourceIllegal under strict and passed on under
// lenient.
AMBIT_API ConversionResult ConvertUTF16toUTF32(
    const UTF16** sourceStart, const UTF16* sourceEnd,
    UTF32** targetStart, UTF32* targetEnd, ConversionFlags flags);

// Stops at zero. Surrogates as in ConvertUTF16toUTF32; a lone surrogate
// passed on under lenient becomes three bytes.
AMBIT_API ConversionResult ConvertUTF16toUTF8(
    const UTF16** sourceStart, const UTF16* sourceEnd,
    UTF8** targetStart, UTF8* targetEnd, ConversionFlags flags);

// Stops at zero. A sequence cut by the source end is sourceExhausted and an
// ill-formed one sourceIllegal, both with the source left at its lead byte.
// A supplementary character needs two units of room or gives
// targetExhausted.
AMBIT_API ConversionResult ConvertUTF8toUTF16(
    const UTF8** sourceStart, const UTF8* sourceEnd,
    UTF16** targetStart, UTF16* targetEnd, ConversionFlags flags);

// Stops at zero. A surrogate is sourceIllegal under strict (source left at
// it) and encoded in three bytes under lenient. A value above 0x10FFFF is
// always written as U+FFFD in three bytes, with sourceIllegal recorded and
// conversion going on.
AMBIT_API ConversionResult ConvertUTF32toUTF8(
    const UTF32** sourceStart, const UTF32* sourceEnd,
    UTF8** targetStart, UTF8* targetEnd, ConversionFlags flags);

// Stops at zero. Source errors as in ConvertUTF8toUTF16.
AMBIT_API ConversionResult ConvertUTF8toUTF32(
    const UTF8** sourceStart, const UTF8* sourceEnd,
    UTF32** targetStart, UTF32* targetEnd, ConversionFlags flags);

// --- Counters ----------------------------------------------------------------
// (source start, source end, flags, count). Each sets *count (it does not add
// to it) to the number of units the matching converter would write from the
// same source, given unlimited room, up to where it would stop, and moves the
// source start exactly as that converter would. On sourceExhausted or
// sourceIllegal the count covers the characters before the error. They never
// return targetExhausted. Size a buffer with one of these, then convert.

// UTF-16 units.
AMBIT_API ConversionResult SizeOfConvertUTF8toUTF16(
    const UTF8** sourceStart, const UTF8* sourceEnd,
    ConversionFlags flags, unsigned* count);
// UTF-8 bytes.
AMBIT_API ConversionResult SizeOfConvertUTF16toUTF8(
    const UTF16** sourceStart, const UTF16* sourceEnd,
    ConversionFlags flags, unsigned* count);
// UTF-32 units, that is, characters.
AMBIT_API ConversionResult SizeOfConvertUTF8toUTF32(
    const UTF8** sourceStart, const UTF8* sourceEnd,
    ConversionFlags flags, unsigned* count);
// UTF-8 bytes.
AMBIT_API ConversionResult SizeOfConvertUTF32toUTF8(
    const UTF32** sourceStart, const UTF32* sourceEnd,
    ConversionFlags flags, unsigned* count);

// --- Validity ----------------------------------------------------------------

// True when the sequence that starts at source (its length given by the lead
// byte) lies wholly before sourceEnd and is legal UTF-8 by the converters'
// own check. False for an empty range.
AMBIT_API Boolean isLegalUTF8Sequence(const UTF8* source, const UTF8* sourceEnd);

#endif  // AMBIT_CONVERTUTF_H_
