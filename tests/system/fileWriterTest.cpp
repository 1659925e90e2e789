#include <tessera/exception.h>
#include <tessera/system/runtime.h>
#include <tessera/system/system.h>

#include <gtest/gtest.h>

#include <functional>

#include "tests/scratchDir.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using namespace Tessera;
namespace fs = std::filesystem;

namespace {

class FileWriterTest : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        fs::create_directories(_dir);
        _path = (_dir / "out.txt").u8string();
    }

    std::string Contents() const { return ScratchDirTest::Contents(fs::u8path(_path)); }

    // A writer on the file, with a header when one is given.
    Ref<Writer> Open(bool append, const char* header = nullptr) const {
        Ref<Writer> w;
        if (header != nullptr) {
            System::GetSystemFactory()->CreateFileWriter(_path, header, append, w);
        } else {
            System::GetSystemFactory()->CreateFileWriter(_path, append, w);
        }
        return w;
    }

    std::string _path;
};

TEST_F(FileWriterTest, AppendKeepsWhatWasThereAndTruncateDropsIt) {
    {
        Ref<Writer> w = Open(false);
        Put(*w, "first\n");
        Put(*w, std::string("a\0b\n", 4));
        // Unbuffered: the bytes are there while the writer is still open.
        EXPECT_EQ(Contents(), std::string("first\na\0b\n", 10));
    }
    Put(*Open(true), "second\n");
    EXPECT_EQ(Contents(), std::string("first\na\0b\nsecond\n", 17));
    {
        Ref<Writer> w = Open(false);
        EXPECT_EQ(Contents(), ""); // emptied on opening, before any write
        Put(*w, "third\n");
    }
    EXPECT_EQ(Contents(), "third\n");

    // Appending writers on one file: each write lands at the end, none
    // overwrites another.
    Ref<Writer> a = Open(true), b = Open(true);
    Put(*a, "a1\n");
    Put(*b, "b1\n");
    Put(*a, "a2\n");
    EXPECT_EQ(Contents(), "third\na1\nb1\na2\n");
}

TEST_F(FileWriterTest, HeaderStartsOnlyAnEmptyFile) {
    const char* header = "time,caller,ms\n";
    {
        Ref<Writer> w = Open(true, header);
        EXPECT_EQ(Contents(), header); // written at creation, not with the first record
        Put(*w, "1,a,5\n");
    }
    Put(*Open(true, header), "2,b,7\n");
    EXPECT_EQ(Contents(), std::string(header) + "1,a,5\n2,b,7\n");
    Put(*Open(false, header), "3,c,9\n");
    EXPECT_EQ(Contents(), std::string(header) + "3,c,9\n");
}

// Every writer that opens files reports the same failure with the same
// exception, naming the path.
TEST_F(FileWriterTest, MissingDirectoryIsNotFoundAndNamesThePath) {
    const std::string missing = (_dir / "no-such-dir" / "out.txt").u8string();
    auto expectNotFound = [](const std::function<void()>& open, const std::string& path) {
        try {
            open();
            ADD_FAILURE() << "no exception for " << path;
        } catch (const FileIONotFoundException& e) {
            EXPECT_NE(std::string(e.what()).find(path), std::string::npos) << e.what();
        }
    };
    Ref<Writer> w;
    expectNotFound(
        [&] { System::GetSystemFactory()->CreateFileWriter(missing, "header\n", true, w); },
        missing);
    EXPECT_FALSE(w);
    EXPECT_FALSE(fs::exists(_dir / "no-such-dir"));

    // The rolling writers make their directory; one below a plain file cannot be.
    std::ofstream(_dir / "plain") << "x";
    const std::string underFile = (_dir / "plain" / "logs").u8string();
    expectNotFound(
        [&] {
            System::GetSystemFactory()->CreateRolloverLogWriter(underFile, "svc", 1000, 2,
                                                                "continue", true, w);
        },
        underFile);
    Ref<System::FileRoller> roller;
    expectNotFound(
        [&] {
            System::GetSystemFactory()->CreateFileRoller(underFile, "data", ".csv", "h\n", 2, 1000,
                                                         roller);
        },
        underFile);
    expectNotFound([&] { System::GetCanonicalPath(missing); }, missing);

    // A directory cannot be opened as a file.
    EXPECT_THROW(System::GetSystemFactory()->CreateFileWriter(_dir.u8string(), false, w),
                 FileIOException);
    EXPECT_TRUE(fs::is_directory(_dir));
}

TEST_F(FileWriterTest, WriteAfterCloseIsRefusedAndLeavesTheFileAlone) {
    Ref<Writer> w = Open(false);
    Put(*w, "kept\n");
    w->Close();
    EXPECT_THROW(Put(*w, "lost\n"), InvalidStateException);
    EXPECT_EQ(Contents(), "kept\n");
    // The file is free again: a new writer may empty it.
    Ref<Writer> again = Open(false);
    EXPECT_EQ(Contents(), "");
}

} // namespace
