// SPDX-License-Identifier: MIT
// VUtil: helpers over the bus's tagged values (VARIANT) and one-dimensional arrays,
// in which every bus call's parameters arrive. Shape checks, typed element readers
// and writers, name/value pairs, return codes and text renderings. Every failure
// throws KibInvalidParameterException with a fixed English text; the renderers never
// throw. The functions keep no state and may be called from any thread; a value must
// not be changed by another thread while a function reads it.
//
// Arrays must be zero-based. Elements are addressed by a zero-based `int` index; an
// index outside the array makes the element access fail (it is not checked first).
// VT_I4 and VT_UI4 elements are 32 bits wide; `long` results are widened from them.
#pragma once

#include <map>
#include <vector>

#include "KibException.h"
#include "KibVariant.h"
#include "StdString.h"

namespace VUtil {

// ---- Shape checks -------------------------------------------------------------------

// Returns when `v.vt` equals `vt`; else throws "<context>: checkType failed, got %d,
// expected %d" (without the prefix when `context` is null).
void CheckType(const tagVARIANT& v, unsigned short vt, const char* context);

// Checks that `v` is an array of `elementVt` with exactly `length` elements (at least
// `length` when `orMore`), and returns its length.
int CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, bool orMore,
                   const char* context);
int CheckArrayType(const tagVARIANT& v, unsigned short elementVt, int length, const char* context);

// Number of elements of an array VARIANT; throws for a non-array or a lower bound
// other than 0.
int GetArrayLength(const tagVARIANT& v);
// As GetArrayLength, but 0 for a VT_EMPTY value.
int GetArrayLengthEmpty(const tagVARIANT& v);

// ---- Raw element reads: the array must have exactly the output's type ---------------

// Clears `out`, then deep-copies the element into it; the caller clears the copy.
void GetElement(const tagVARIANT& v, int index, tagVARIANT& out);
void GetElement(const tagVARIANT& v, int index, CStdStr& out);
void GetElement(const tagVARIANT& v, int index, long& out);  // VT_I4 elements
void GetElement(const tagVARIANT& v, int index, int& out);   // VT_I4 elements
void GetElement(const tagVARIANT& v, int index, short& out);
void GetElement(const tagVARIANT& v, int index, unsigned short& out);
void GetElement(const tagVARIANT& v, int index, unsigned long& out);  // VT_UI4 elements
void GetElement(const tagVARIANT& v, int index, long long& out);
void GetElement(const tagVARIANT& v, int index, unsigned long long& out);
void GetElement(const tagVARIANT& v, int index, float& out);
void GetElement(const tagVARIANT& v, int index, double& out);
void GetElement(const tagVARIANT& v, int index, bool& out);  // VT_BOOL elements

// ---- Typed getters: a typed array or an array of VARIANTs holding the type ----------

long GetLongElement(const tagVARIANT& v, int index);
long GetLongElementEmpty(const tagVARIANT& v, int index);  // VT_EMPTY element gives 0
int GetIntElement(const tagVARIANT& v, int index);
short GetShortElement(const tagVARIANT& v, int index);
unsigned short GetUnsignedShortElement(const tagVARIANT& v, int index);
double GetDoubleElement(const tagVARIANT& v, int index);
float GetFloatElement(const tagVARIANT& v, int index);  // doubles are narrowed
// Booleans are readable only as VT_BOOL elements of an array of VARIANTs: a typed
// boolean array is read as a short array and so always fails.
bool GetBoolElement(const tagVARIANT& v, int index);
// Also accepts VT_EMPTY and VT_NULL (false) and the 16- and 32-bit integer types.
bool GetBoolElementEmpty(const tagVARIANT& v, int index);
// A null or VT_EMPTY string element gives "".
CStdStr GetStringElement(const tagVARIANT& v, int index);
CStdStr GetStringElementEmpty(const tagVARIANT& v, int index);
// A date element as seconds since 1970 UTC.
long GetDateElement(const tagVARIANT& v, int index);

// ---- Dates: OLE days since 1899-12-30 <-> seconds since 1970 UTC ----------------------

// The time of day is rounded half up to whole seconds. A date too far from 1970 to
// count in seconds (or not a number) gives LONG_MIN.
long DateToTime(double date);
// The same moment to the nearest millisecond; LLONG_MIN where DateToTime gives LONG_MIN.
long long DateToMilliseconds(double date);
double TimeToDate(long t);

// ---- Arrays and element writers --------------------------------------------------

// Puts a new zero-based array of `count` elements of `vt` into `v` without clearing
// what `v` held (pass an empty value). Throws "Could not create safe array".
void CreateArray(tagVARIANT& v, unsigned short vt, unsigned long count);
// Resizes the array of `v` to `count` elements, keeping the first ones.
void RedimArray(tagVARIANT& v, unsigned long count);

// Each writer stores into a typed array of its own type or, wrapped in a VARIANT,
// into an array of VARIANTs; the array keeps its own copy of strings.
void PutElement(tagVARIANT& v, int index, short value);
void PutElement(tagVARIANT& v, int index, int value);
void PutElement(tagVARIANT& v, int index, long value);  // stored as 32-bit VT_I4
void PutElement(tagVARIANT& v, int index, unsigned short value);
void PutElement(tagVARIANT& v, int index, unsigned char value);
void PutElement(tagVARIANT& v, int index, long long value);
void PutElement(tagVARIANT& v, int index, unsigned long long value);
void PutElement(tagVARIANT& v, int index, float value);
void PutElement(tagVARIANT& v, int index, double value);
void PutElement(tagVARIANT& v, int index, const CStdStr& value);
void PutElement(tagVARIANT& v, int index, const char* value);
// Wrapped: VT_BOOL -1 / 0. Into a typed boolean array the value goes unconverted, so
// true is stored as 1 there.
void PutBoolElement(tagVARIANT& v, int index, bool value);
// Stores TimeToDate(seconds).
void PutDateElement(tagVARIANT& v, int index, long seconds);
// Untyped: stores what `data` points at as one element of whatever type the array
// has (for an array of strings, `data` is the BSTR itself).
void PutElement(tagVARIANT& v, int index, void* data);
// Stores a deep copy of `value` (meant for arrays of VARIANTs).
void PutElement(tagVARIANT& v, int index, const tagVARIANT& value);

// ---- Name/value pairs: two-element arrays of VARIANTs inside an array of VARIANTs ----

void PutPair(tagVARIANT& v, int index, const CStdStr& name, const CStdStr& value);
void PutPair(tagVARIANT& v, int index, CStdStr name, long value);  // value as VT_I4
void PutPair(tagVARIANT& v, int index, CStdStr name, const tagVARIANT& value);

// Reads pair `index`: name and value as strings (VT_EMPTY reads as "").
void GetPair(const tagVARIANT& list, int index, CStdStr& name, CStdStr& value);
// The first pair named exactly `name`; false (and `value` untouched) when none.
bool FindPair(const tagVARIANT& list, CStdStr name, CStdStr& value);
// As FindPair, with names compared lower-cased.
bool FindPairNoCase(const tagVARIANT& list, CStdStr name, CStdStr& value);
// The value as an integer: a string through atoi, or a VT_I4.
bool FindPairNoCase(const tagVARIANT& list, CStdStr name, int& value);
// A deep copy of the value; the caller clears it.
bool FindPairNoCase(const tagVARIANT& list, CStdStr name, tagVARIANT& value);
// The whole list as a map (a later pair overwrites an earlier one of the same name).
std::map<CStdStr, CStdStr> toStringMap(const tagVARIANT& list, bool lowerCaseNames);
std::map<CStdStr, CStdStr> toStringAMap(const tagVARIANT& list, bool lowerCaseNames);
// Element `index` read as a string and split at commas and blanks (no empty tokens).
// An index outside the array, beyond `int` included, fails as any element read does.
std::vector<CStdStr> GetCSVElement(const tagVARIANT& v, long index);

// ---- Comparison and return codes ---------------------------------------------------

// Deep comparison; throws for a type it cannot compare.
bool Equals(const tagVARIANT& a, const tagVARIANT& b);
// The 32-bit return code, bare (VT_I4) or as element 0 of an array.
long GetSingleRetcode(tagVARIANT& v);
// Throws "<context>: Kib error detected ..." unless the return code is 0 (a value of
// another type counts as -1).
void CheckSingleRetcode(tagVARIANT& v, const char* context);
// The string in element 0 of an array of VARIANTs.
void GetSingleOutParamString(tagVARIANT& v, CStdStr& out);

// ---- Binary blocks: arrays of bytes (VT_UI1, read also as VT_I1) ----------------------

// Replaces `*v` by a byte array holding a copy of `length` bytes at `data`.
void PutBinaryIntoVariant(tagVARIANT* v, unsigned char* data, unsigned long length);
// Copies at most `maxLength` bytes from `offset` of the byte array `v` into `dest`;
// returns the count copied (0 when `offset` is past the end).
unsigned long GetBinaryElement(const tagVARIANT& v, unsigned char* dest, unsigned long offset,
                               unsigned long maxLength);
// Copies the byte array in element `index` of an array of VARIANTs into a new[]
// buffer that the caller delete[]s.
void GetBinaryElement(const tagVARIANT& v, int index, unsigned char*& data, unsigned long& length);
// As above, into a malloc()ed buffer that the caller free()s; returns the length.
unsigned long GetByteArray(const tagVARIANT& v, int index, unsigned char** data);

// ---- Renderings for logs and diagnostics; they never throw ---------------------------

// Appends an XML rendering of `*v` (three blanks per depth) to `out`.
void VariantToXML(const tagVARIANT* v, CStdStr& out);
void VariantToXML(const tagVARIANT* v, int depth, CStdStr& out);
// Appends a compact rendering of `*v` (four blanks per depth) to `out`.
void VariantToFriendlyString(const tagVARIANT* v, CStdStr& out, int depth = 0);
// "Dumping <label>: " followed by the XML rendering.
CStdStr Dump(const tagVARIANT* v, const CStdStr& label);

}  // namespace VUtil
