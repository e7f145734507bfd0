#include "platform/text.h"

namespace zpdf {

// Outside Windows the narrow code page is UTF-8.
std::string ToAnsi(std::u16string_view text) {
    return Utf16ToUtf8(text);
}
std::u16string FromAnsi(std::string_view text) {
    return Utf8ToUtf16(text);
}

}  // namespace zpdf
