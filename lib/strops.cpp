// strops: string utilities (see strops.h).
#include "strops.h"

#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "log.h"

LOG_MODULE(0);

namespace {

constexpr size_t TRK_MAX_DIGITS = 5;
constexpr size_t A2N_NUM_SIZE = 64;  // 63 characters and the terminator

struct size_suffix {
    const char *text;
    double factor;
};

constexpr size_suffix SUFFIXES[] = {
    {"Kb", 1024.0},   {"K", 1024.0},        {"Mb", 1048576.0},
    {"M", 1048576.0}, {"Gb", 1073741824.0}, {"G", 1073741824.0},
};

int hex_nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return 0;
}

// strtod over the whole of text, trailing blanks allowed. 0 or A2N_CONVERT.
int read_double(const char *text, double *out) {
    char *end = nullptr;
    errno = 0;
    double d = strtod(text, &end);
    if (end == text || errno == ERANGE) return A2N_CONVERT;
    while (*end == ' ' || *end == '\t') ++end;
    if (*end != '\0') return A2N_CONVERT;
    *out = d;
    return 0;
}

}  // namespace

int str_copy(char *dst, size_t size, std::string_view src) {
    XASSERT(dst != nullptr && size > 0);
    if (src.size() >= size) {
        dst[0] = '\0';
        return 34;
    }
    memcpy(dst, src.data(), src.size());
    dst[src.size()] = '\0';
    return 0;
}

bool str_copy_cut(char *dst, size_t size, std::string_view src) {
    XASSERT(dst != nullptr && size > 0);
    size_t n = src.size() < size ? src.size() : size - 1;
    memcpy(dst, src.data(), n);
    dst[n] = '\0';
    return n < src.size();
}

void mk_trk_tag(size_t *counter, n64_tag *tag, char kind, size_t max) {
    if (*counter >= max) *counter = 0;
    *counter += 1;
    tag->num = 0;
    tag->str[0] = kind;
    // Room for exactly five digits and the terminator after the kind letter.
    int n =
        snprintf(tag->str + 1, sizeof tag->str - 1, "%lu", static_cast<unsigned long>(*counter));
    XASSERT(n > 0 && static_cast<size_t>(n) <= TRK_MAX_DIGITS);
}

void chomp(char *text) {
    XASSERT(text != nullptr);
    size_t len = strlen(text);
    for (int i = 0; i < 2 && len > 0; ++i) {
        char c = text[len - 1];
        if (c != '\n' && c != '\r') break;
        text[--len] = '\0';
    }
}

size_t bin_to_dhex(const void *bytes, size_t n, char *buffer, size_t size, const char *separator) {
    if (size == 0) return 0;
    const char *sep = separator != nullptr ? separator : "";
    const size_t item = 2 + strlen(sep);
    const auto *in = static_cast<const unsigned char *>(bytes);
    size_t pos = 0;
    buffer[0] = '\0';
    for (size_t i = 0; i < n && pos + item + 1 <= size; ++i) {
        int rc = snprintf(buffer + pos, size - pos, "%02x%s", in[i], sep);
        if (rc < 0 || static_cast<size_t>(rc) != item) break;
        pos += item;
    }
    buffer[size - 1] = '\0';
    return pos;
}

size_t hex_to_bin(const char *text, void *out, size_t max) {
    auto *dst = static_cast<unsigned char *>(out);
    size_t count = 0;
    for (const char *p = text; count < max && p[0] != '\0' && p[1] != '\0'; p += 2)
        dst[count++] = static_cast<unsigned char>(hex_nibble(p[0]) << 4 | hex_nibble(p[1]));
    return count;
}

int a2double(const char *text, double *value) {
    XASSERT(text != nullptr);
    const char *alpha = text;
    while (*alpha != '\0' && !isalpha(static_cast<unsigned char>(*alpha))) ++alpha;
    if (*alpha == '\0') return read_double(text, value);

    double factor = 0;
    for (const size_suffix &s : SUFFIXES) {
        if (strcasecmp(alpha, s.text) == 0) {
            factor = s.factor;
            break;
        }
    }
    if (factor == 0) return A2N_SUFFIX;

    char num[A2N_NUM_SIZE];
    if (str_copy(num, sizeof num, std::string_view(text, alpha - text)) != 0) return A2N_TOO_LONG;
    double d = 0;
    if (int rc = read_double(num, &d); rc != 0) return rc;
    *value = d * factor;
    return 0;
}

int a2int64(const char *text, int64_t *value) {
    double d = 0;
    if (int rc = a2double(text, &d); rc != 0) return rc;
    // 2^63 is exact as a double; everything below it truncates into range.
    if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return A2N_RANGE;
    *value = static_cast<int64_t>(d);
    return 0;
}

int a2size(const char *text, size_t *value) {
    double d = 0;
    if (int rc = a2double(text, &d); rc != 0) return rc;
    if (!(d >= 0.0 && d < 18446744073709551616.0)) return A2N_RANGE;
    *value = static_cast<size_t>(d);
    return 0;
}
