#include <gtest/gtest.h>

#include "log/log_manager.h"
#include "support/test_support.h"

namespace zpdf {
namespace {

// The only test of this program that touches the process-wide manager: it must be first.
TEST(LogProcess, ManagerReadsTheFileChosenBeforeFirstUse) {
    const auto dir = test::ScratchDir();
    const std::string ini = (dir / "chosen.ini").string();
    const std::string log = (dir / "pdf.log").string();
    test::WriteBytes(ini, "[categories]\nPDF=error," + log + "\n[output]\nlevel=1\ncategory=1\n");

    ASSERT_TRUE(LogManager::SetConfigPath(ini));

    PdfLog().Info("dropped");
    PdfLog().Error("kept %d", 7);

    EXPECT_FALSE(LogManager::SetConfigPath((dir / "late.ini").string()));
    EXPECT_EQ(LogManager::ConfigPath(), ini);
    EXPECT_EQ(test::ReadBytes(log), "ERR;PDF;kept 7\n");
}

}  // namespace
}  // namespace zpdf
