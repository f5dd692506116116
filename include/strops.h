// strops: small string utilities shared by the library and the application:
// the checked bounded copy every module uses instead of strncpy, tracking
// tags, line-end trimming, hexadecimal conversion and numbers with size
// suffixes. Owns no state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "tags.h"

// Result codes of the number readers.
constexpr int A2N_RANGE = -2;     // does not fit the integer type asked for
constexpr int A2N_TOO_LONG = -3;  // the number before the suffix is over 63 characters
constexpr int A2N_CONVERT = -4;   // not a number
constexpr int A2N_SUFFIX = -5;    // the suffix is not K, Kb, M, Mb, G or Gb

// Copies src into dst as a terminated string when it fits: src.size() + 1 <=
// size. Otherwise nothing of src is copied, dst becomes "" and the result is
// 34 (too long). Does not log: the caller knows what the text was and says so.
// A zero size is a fatal assertion. src must not be built from a null pointer.
[[nodiscard]] int str_copy(char *dst, size_t size, std::string_view src);

// Bounded copy for places where cutting is the intended behaviour: copies at
// most size - 1 characters of src and always terminates dst. True when src did
// not fit and was cut. A zero size is a fatal assertion.
bool str_copy_cut(char *dst, size_t size, std::string_view src);

// Makes the next tracking tag "<kind><counter>" in tag: the counter restarts at
// 0 once it has reached max, then is incremented, so tags run kind1 ..
// kind<max> and start again at kind1. A counter needing more than 5 digits is
// a fatal assertion.
void mk_trk_tag(size_t *counter, n64_tag *tag, char kind, size_t max);

// Cuts up to two trailing line-end characters ('\n' or '\r') in place; the
// first other character from the end stops it.
void chomp(char *text);

// Writes n bytes as "%02x" items, each followed by separator (none when null),
// while one more item and the terminator fit. The buffer's last byte is always
// a terminator. Returns the characters written, terminator not counted. A
// zero size writes nothing.
size_t bin_to_dhex(const void *bytes, size_t n, char *buffer, size_t size, const char *separator);

// Reads text two characters per byte, high nibble first; a character that is
// not a hexadecimal digit counts as 0. Stops at the end of the text (a lone
// last character makes no byte) or after max bytes. Returns the bytes made.
size_t hex_to_bin(const char *text, void *out, size_t max);

// Reads a number with an optional size suffix: K or Kb (x 1024), M or Mb
// (x 1048576), G or Gb (x 1073741824), any case. The suffix starts at the first
// letter of the text, so exponent forms such as "1e3" are refused. 0, or
// A2N_SUFFIX, A2N_TOO_LONG, A2N_CONVERT. *value is set only on success.
// A null text is a fatal assertion.
[[nodiscard]] int a2double(const char *text, double *value);
// The same, truncated toward zero to a signed 64-bit integer; A2N_RANGE when
// the value lies outside its range.
[[nodiscard]] int a2int64(const char *text, int64_t *value);
// The same for an unsigned 64-bit size; negative values are A2N_RANGE.
[[nodiscard]] int a2size(const char *text, size_t *value);
