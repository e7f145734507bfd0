#include "platform/text.h"

namespace zpdf {

std::string Utf16ToUtf8(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t c = text[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (c >= 0xD800 && c <= 0xDFFF) {
            c = 0xFFFD;  // a lone surrogate cannot be encoded
        }
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | (c >> 12));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | (c >> 18));
            out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
            out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

namespace {

// `c` (a code point) as one UTF-16 unit or a surrogate pair.
void AppendUtf16(std::u16string& out, char32_t c) {
    if (c >= 0x10000) {
        c -= 0x10000;
        out += static_cast<char16_t>(0xD800 + (c >> 10));
        out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
        out += static_cast<char16_t>(c);
    }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view text) {
    std::u16string out;
    out.reserve(text.size());
    std::size_t i = 0;
    while (i < text.size()) {
        const auto b = static_cast<unsigned char>(text[i]);
        char32_t c = 0xFFFD;
        std::size_t extra = 0;
        if (b < 0x80) {
            c = b;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            extra = 3;
        }
        bool valid = b < 0x80 || extra > 0;
        for (std::size_t k = 1; valid && k <= extra; ++k) {
            if (i + k >= text.size() || (static_cast<unsigned char>(text[i + k]) & 0xC0) != 0x80) {
                valid = false;
            } else {
                c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
            }
        }
        if (!valid || c > 0x10FFFF) {
            c = 0xFFFD;
            extra = 0;
        }
        i += extra + 1;
        AppendUtf16(out, c);
    }
    return out;
}

std::u16string BytesToUtf16(std::string_view bytes) {
    std::u16string out;
    out.reserve(bytes.size());
    std::size_t i = 0;
    while (i < bytes.size()) {
        const auto b = static_cast<unsigned char>(bytes[i]);
        std::size_t extra = 0;
        char32_t c = b;
        char32_t least = 0;  // the smallest value a sequence of this length may carry
        if (b >= 0xC2 && b <= 0xDF) {
            extra = 1, c = b & 0x1F, least = 0x80;
        } else if (b >= 0xE0 && b <= 0xEF) {
            extra = 2, c = b & 0x0F, least = 0x800;
        } else if (b >= 0xF0 && b <= 0xF4) {
            extra = 3, c = b & 0x07, least = 0x10000;
        }
        bool valid = b < 0x80 || extra > 0;
        for (std::size_t k = 1; valid && k <= extra; ++k) {
            const auto next = i + k < bytes.size() ? static_cast<unsigned char>(bytes[i + k]) : 0;
            valid = (next & 0xC0) == 0x80;
            c = (c << 6) | (next & 0x3F);
        }
        // Overlong forms, encoded surrogates and values past the last code point are bytes
        // like any other invalid one, so that every byte sequence comes back unchanged.
        if (valid && extra > 0 && (c < least || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)))
            valid = false;
        if (!valid) {
            out += static_cast<char16_t>(kEscapedByteBase + b);
            ++i;
            continue;
        }
        i += extra + 1;
        AppendUtf16(out, c);
    }
    return out;
}

std::string Utf16ToBytes(std::u16string_view text) {
    std::string out;
    out.reserve(text.size());
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        const bool escaped = i < text.size() && text[i] >= kEscapedByteBase + 0x80 &&
                             text[i] <= kEscapedByteBase + 0xFF;
        // A low surrogate right after a high one is half of a pair, not an escaped byte.
        const bool paired = escaped && i > 0 && text[i - 1] >= 0xD800 && text[i - 1] <= 0xDBFF;
        if (i < text.size() && (!escaped || paired)) continue;
        out += Utf16ToUtf8(text.substr(start, i - start));
        if (i < text.size()) out += static_cast<char>(text[i] - kEscapedByteBase);
        start = i + 1;
    }
    return out;
}

}  // namespace zpdf
