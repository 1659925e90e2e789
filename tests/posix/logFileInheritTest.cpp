#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>

using namespace Tessera;
namespace fs = std::filesystem;

TEST(LogFileInheritTest, ChildProcessesDoNotKeepTheLogOpen) {
    const fs::path dir =
        fs::temp_directory_path() / ("tessera-inherit-" + std::to_string(System::GetThreadId()));
    fs::remove_all(dir);
    Ref<Writer> w;
    System::GetSystemFactory()->CreateRolloverLogWriter(dir.string(), "child", 1 << 20, 2, true, w);
    w->Write("open\n", 5);

    // The listing of the child's own descriptors.
    std::string listing;
    std::FILE* ls = ::popen("ls -l /proc/self/fd/ 2>&1", "r");
    ASSERT_NE(ls, nullptr);
    char buffer[512];
    while (std::fgets(buffer, sizeof(buffer), ls) != nullptr) listing += buffer;
    ::pclose(ls);

    EXPECT_NE(listing.find("/dev/"), std::string::npos) << listing; // it did list something
    EXPECT_EQ(listing.find("child.log"), std::string::npos) << listing;
    w->Close();
    fs::remove_all(dir);
}
