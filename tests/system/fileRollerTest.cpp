#include <tessera/exception.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include "tests/scratchDir.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using namespace Tessera;
namespace fs = std::filesystem;

namespace {

using FileRollerTest = ScratchDirTest;

TEST_F(FileRollerTest, RollsWithItsExtensionAndAHeaderInEachFile) {
    Ref<System::FileRoller> r;
    System::GetSystemFactory()->CreateFileRoller(_dir.u8string(), "samples", ".csv", "t,v\n", 3, 16,
                                                 r);
    EXPECT_EQ(r->GetPath(), (_dir / "samples.csv").u8string());
    EXPECT_EQ(Contents("samples.csv"), "t,v\n"); // the header is there before any record
    Put(*r, "1,10\n"); // 9 bytes
    Put(*r, "2,20\n"); // 14
    Put(*r, "3,30\n"); // would be 19: rolls
    Put(*r, "4,40\n");
    Put(*r, "5,50\n"); // rolls again
    EXPECT_EQ(Contents("samples-2.csv"), "t,v\n1,10\n2,20\n");
    EXPECT_EQ(Contents("samples-1.csv"), "t,v\n3,30\n4,40\n");
    EXPECT_EQ(Contents("samples.csv"), "t,v\n5,50\n");
    Put(*r, "6,60\n");
    Put(*r, "7,70\n"); // a third roll drops the oldest: three files kept
    EXPECT_EQ(Contents("samples-2.csv"), "t,v\n3,30\n4,40\n");
    EXPECT_FALSE(fs::exists(_dir / "samples-3.csv"));
    EXPECT_FALSE(fs::exists(_dir / "samples.log"));
}

TEST_F(FileRollerTest, ARecordLargerThanAFileIsWrittenWhole) {
    Ref<System::FileRoller> r;
    System::GetSystemFactory()->CreateFileRoller(_dir.u8string(), "big", ".dat", "H\n", 2, 8, r);
    Put(*r, "0123456789abcdef\n"); // only the header there: no roll, no empty file left behind
    EXPECT_EQ(Contents("big.dat"), "H\n0123456789abcdef\n");
    EXPECT_FALSE(fs::exists(_dir / "big-1.dat"));
    Put(*r, "x\n");
    EXPECT_EQ(Contents("big-1.dat"), "H\n0123456789abcdef\n");
    EXPECT_EQ(Contents("big.dat"), "H\nx\n");
}

TEST_F(FileRollerTest, RollOnDemandAndContinuingAnExistingFile) {
    {
        Ref<System::FileRoller> r;
        System::GetSystemFactory()->CreateFileRoller(_dir.u8string(), "audit", ".txt", "",
                                                     "continue", 4, 1000, r);
        Put(*r, "a\n");
        r->Roll();
        Put(*r, "b\n");
    }
    Ref<System::FileRoller> r;
    System::GetSystemFactory()->CreateFileRoller(_dir.u8string(), "audit", ".txt", "# h\n", 4, 1000,
                                                 r);
    Put(*r, "c\n");
    EXPECT_EQ(Contents("audit-1.txt"), "a\n");
    EXPECT_EQ(Contents("audit.txt"), "b\nc\n"); // continued, so no header in the middle
    r->Close();
    EXPECT_THROW(r->Roll(), InvalidStateException);
    EXPECT_THROW(Put(*r, "d\n"), InvalidStateException);
}

TEST_F(FileRollerTest, RefusesBadSettings) {
    Ref<System::FileRoller> r;
    auto* factory = System::GetSystemFactory();
    try {
        factory->CreateFileRoller(_dir.u8string(), "x", ".csv", "", 1, 100, r);
        FAIL() << "one file accepted";
    } catch (const InvalidArgumentException& e) {
        EXPECT_NE(std::string(e.what()).find("At least two files required. 1 specified"),
                  std::string::npos)
            << e.what();
    }
    EXPECT_THROW(factory->CreateFileRoller(_dir.u8string(), "x", ".csv", "", 2, 0, r),
                 InvalidArgumentException);
    EXPECT_THROW(factory->CreateFileRoller(_dir.u8string(), "x", ".csv", "", "retry", 2, 100, r),
                 InvalidArgumentException);
    EXPECT_FALSE(r);
}

} // namespace
