// What the stand-in library does of itself and the service does not show.
#include <alloca.h>
#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include <kesto/device.h>

namespace fs = std::filesystem;
using testing::KilledBySignal;

TEST(CrashDumpDeathTest, IsItsOwnersFollowsNoLinkAndLeavesTheSignalItsEffect) {
    EXPECT_EXIT((init_fault_dump("/tmp/dump"), raise(SIGABRT)), KilledBySignal(SIGABRT), "");
    EXPECT_EQ(fs::status("/tmp/dump").permissions(), fs::perms::owner_read | fs::perms::owner_write);
    std::error_code is_there;
    fs::create_symlink("/tmp/elsewhere", "/tmp/link", is_there);  // so that the dump goes to standard error
    EXPECT_EXIT((init_fault_dump("/tmp/link"), raise(SIGTRAP)), KilledBySignal(SIGTRAP), "signal: 5 SIGTRAP");
    const auto use_up_stack = [] {
        for (;;) *static_cast<volatile char *>(alloca(4096)) = 0;
    };
    EXPECT_DEATH((init_fault_dump("/tmp/link"), use_up_stack()), "signal: 11 SIGSEGV");
}
