// Starts the library once for the whole test binary.
#include <gtest/gtest.h>

#include "vael/vael_apps.h"

namespace {
class LibraryEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { ASSERT_EQ(vael_apps_init(nullptr), 0); }
    void TearDown() override { vael_apps_fini(); }
};
}  // namespace

int main(int argc, char **argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new LibraryEnvironment);
    return RUN_ALL_TESTS();
}
