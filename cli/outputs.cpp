#include "cli/outputs.h"

#include "platform/files.h"
#include "platform/text.h"

namespace zpdf::cli {

int RefuseOutputOverInputs(const Command& command, const std::filesystem::path& output,
                           const std::vector<std::string>& inputs) {
    for (const std::string& input : inputs) {
        if (!fs::SameFile(output, ToPath(FromAnsi(input)))) continue;
        return Failure(command, output.string(),
                       "is the input " + input + "; the output needs a name of its own",
                       hr::kInvalidArg);
    }
    return kExitOk;
}

}  // namespace zpdf::cli
