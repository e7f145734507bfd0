#include "platform/host_info.h"

namespace zpdf {

std::string UserAtComputer() {
    return CurrentUserName() + "@" + ComputerName();
}

}  // namespace zpdf
