#pragma once

// String and character-encoding helpers of the common layer. Stateless: any
// thread may call any of them.
//
// A wide string holds UTF-16 code units, one unit per wchar_t element, even
// where wchar_t is 32 bits wide: a code point above U+FFFF takes two elements.

#include <cstdarg>
#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace quorvan {
namespace utf8 {

// printf into a new string of any length. A measured length of 0 or less,
// and any failure while formatting, give the empty string.
std::string format(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string formatV(const char* format, va_list args);

// A copy with every occurrence of from replaced by to, left to right.
std::string replace(const std::string& str, const std::string& from, const std::string& to);

// Byte to wide element through the locale's ctype facet; not a UTF-8 decoder.
std::wstring widen(const std::string& str);

// Splits at delimiter as std::getline reads lines: no piece after a final
// delimiter, none at all for the empty string.
std::vector<std::string> split(const std::string& str, char delimiter);
// With keepTrailing, a string ending in the delimiter gets a last empty piece.
std::vector<std::string> split(const std::string& str, char delimiter, bool keepTrailing);

// The pieces with the delimiter between them. An empty list gives "".
std::string join(const std::vector<std::string>& pieces, const std::string& delimiter);

// The first count code points (bytes that aren't continuation bytes start
// one); the whole string if it is shorter.
std::string substr(const std::string& str, size_t count);

// One string per character, its length fixed by the lead byte. A stray
// continuation byte and a sequence cut off by the end are left out.
std::vector<std::string> tokenize(const std::string& str);

// True if the string holds a code point above U+FFFF.
bool Utf8StringContainsSurrogateCharacters(const std::string& str);

} // namespace utf8

namespace utf16 {

// swprintf into a new string; the empty string when it can't be formatted.
std::wstring format(const wchar_t* format, ...);
std::wstring formatV(const wchar_t* format, va_list args);

std::wstring replace(const std::wstring& str, const std::wstring& from, const std::wstring& to);

// Wide element to byte through the locale's ctype facet; an element with no
// narrow form becomes '\0'.
std::string narrow(const std::wstring& str);

} // namespace utf16
} // namespace quorvan

// Wide printf into out: FormatString and FormatStringV assign, AppendFormat
// appends. A failure assigns (or appends) nothing but the empty string.
void FormatString(std::wstring& out, const wchar_t* format, ...);
void FormatStringV(std::wstring& out, const wchar_t* format, va_list args);
void AppendFormat(std::wstring& out, const wchar_t* format, ...);
// As quorvan::utf8::format, into out. A failure while formatting leaves out
// as it was.
void FormatStringA(std::string& out, const char* format, ...) __attribute__((format(printf, 2, 3)));

// UTF-16 to UTF-8; true when all of in was converted. Strict: an unpaired
// surrogate stops the conversion (out keeps what came before) and gives
// false. Lenient: it is encoded as if it were a character.
bool Convert16toUTF8(const std::wstring& in, std::string& out, bool lenient);
// UTF-8 to UTF-16; an ill-formed or cut-off sequence stops the conversion
// with false, out keeping what came before. Strict: surrogate code points and
// those above U+10FFFF fail too. Lenient: the first pass through, the second
// become U+FFFD.
bool Convert8toUTF16(const std::string& in, std::wstring& out, bool lenient);
// A forgiving decoder: never fails, drops what it can't represent.
bool Convert8toUTF16_Method2(const std::string& in, std::wstring& out);

// The well-formedness test of one sequence of length bytes (1 to 4).
bool IsLegalUTF8(const unsigned char* source, int length);
// The same for the sequence at start, its length taken from the lead byte;
// false when it runs past end.
bool IsLegalUTF8Sequence(const unsigned char* start, const unsigned char* end);

// In place, element by element, through the C library's toupper/tolower.
void ToUpper(std::wstring& str);
void ToLower(std::wstring& str);
void ToUpperUTF8(std::string& str);
void ToLowerUTF8(std::string& str);

// Remove what isspace accepts from the left, the right or both ends.
void TrimLeftInplace(std::string& str);
void TrimRightInplace(std::string& str);
void TrimInplace(std::string& str);
// Remove any element of chars from the left, the right or both ends.
void TrimLeftInplace(std::wstring& str, const std::wstring& chars);
void TrimRightInplace(std::wstring& str, const std::wstring& chars);
void TrimInplace(std::wstring& str, const std::wstring& chars);

// The pieces between occurrences of separator; empty pieces between two
// separators stay, a separator at the very end adds none.
std::vector<std::string> Split(const std::string& str, const std::string& separator);
// Text before the first separator, and the text from one character after
// its start.
std::pair<std::string, std::string> Split2(const std::string& str, const std::string& separator);

// "+" becomes a blank and "%hh" the byte hh.
std::string UrlDecode(const std::string& str);
