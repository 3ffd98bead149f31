#ifndef ZELK_COMMON_STRING_UTIL_H
#define ZELK_COMMON_STRING_UTIL_H

#include <cstdarg>
#include <cstdint>
#include <string>
#include <vector>

// Helpers for formatting, trimming, splitting and converting text. None of them reports an error:
// text that is too long is cut, text that is no number is 0.
//
// Usable from any thread, but for the form of FormatString() that owns its result.

// vsnprintf() and snprintf(): at most iSize bytes with the final NUL. The result is the length
// that the whole text has, or negative for a format that can not be carried out.
int vFormatString(char* pBuffer, unsigned int iSize, const char* pFormat, va_list sAp)
    __attribute__((format(printf, 3, 0)));
int FormatString(char* pBuffer, unsigned int iSize, const char* pFormat, ...)
    __attribute__((format(printf, 3, 4)));

// Formats into one static buffer, at most 2047 characters, and returns it. The next call
// overwrites it: copy what is kept. Not for several threads, and the result may not be an
// argument of the next call.
const char* FormatString(const char* pFormat, ...) __attribute__((format(printf, 1, 2)));

// Remove from the left end, the right end or both all characters that are in the set pChars.
// The NUL is never in the set; an empty set changes nothing.
void TrimLeft(std::string& strText, const char* pChars);
void TrimRight(std::string& strText, const char* pChars);
void Trim(std::string& strText, const char* pChars);

// The two splitters differ on purpose. Both append to vecFields and never clear it.

// Splits at every character of the set strDelimiters. Runs of delimiters count as one, so there
// are no empty fields: "a,,b" gives "a" and "b". Text and set end at their first NUL.
void StringSplit(const std::string& strText, const std::string& strDelimiters,
                 std::vector<std::string>& vecFields);

// Splits at the whole string strSeparator and keeps empty fields, except after a separator that
// ends the text: "a,,b" gives "a", "" and "b"; "a," gives "a"; "," gives ""; "" gives nothing.
// An empty separator never advances and must not be passed. strText is not one of vecFields.
void Split(const std::string& strText, const std::string& strSeparator,
           std::vector<std::string>& vecFields);

// The number at the start of the text, decimal (blanks and a sign before it are fine; a leading 0
// means nothing), or hexadecimal when the text begins with 0x or 0X right away; a value beyond 64
// bits is the nearest that fits. One character after it scales: K 1024, M 1024^2, G 1024^3, in
// either case; anything else is ignored, so "10KB" is 10240 and "1.5M" is 1.
// Text without a number is 0. Bits that the scale shifts out are lost.
int64_t StringToInt(const std::string& strText);

// True for "true" and "yes" in any case, for nothing else: "1" and "on" are false on purpose.
bool StringToBool(const std::string& strText);

#endif
