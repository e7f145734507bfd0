#include "platform/text.h"

namespace zpdf {

// Outside Windows the narrow code page is UTF-8, and names are bytes: arguments that are not
// valid UTF-8 keep their bytes on the way to a file name and back.
std::string ToAnsi(std::u16string_view text) {
    return Utf16ToBytes(text);
}
std::u16string FromAnsi(std::string_view text) {
    return BytesToUtf16(text);
}

std::filesystem::path ToPath(std::u16string_view text) {
    return std::filesystem::path(Utf16ToBytes(text));
}

std::u16string FromPath(const std::filesystem::path& path) {
    return BytesToUtf16(path.native());
}

}  // namespace zpdf
