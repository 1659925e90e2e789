// The file layer through the factory: handles, paths, directories, and the
// failures that name the path.

#include <tessera/exception.h>
#include <tessera/system/system.h>

#include "tests/scratchDir.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace Tessera;
using System::File;
using System::FileHandle;

namespace {

class FileLayerTest : public ScratchDirTest {
protected:
    std::string PathOf(const std::string& name) const {
        return (_dir / std::filesystem::u8path(name)).u8string();
    }
    static Ref<FileHandle> Open(const std::string& path, FileHandle::OpenMode mode) {
        Ref<FileHandle> f;
        System::GetSystemFactory()->GetFileHandle(path, mode, f);
        return f;
    }
    static Ref<File> Path(const std::string& path) {
        Ref<File> f;
        System::GetSystemFactory()->GetFile(path, f);
        return f;
    }
};

// ---- handles: modes, positions, sizes, and what a closed handle does ----

TEST_F(FileLayerTest, HandlesReadWriteSeekAppendAndTruncate) {
    Path(_dir.u8string())->MakeDirectories();
    const std::string path = PathOf("data.bin");
    Ref<FileHandle> w = Open(path, FileHandle::OPEN_WRITE);
    w->Write("hello world", 11);
    EXPECT_EQ(w->GetSize(), 11);
    EXPECT_EQ(w->Seek(6, FileHandle::FROM_BEGIN), 6);
    w->Write("WORLD", 5);
    EXPECT_EQ(w->Seek(-2, FileHandle::FROM_END), 9);
    char buffer[16] = {};
    EXPECT_EQ(w->Read(buffer, sizeof(buffer)), 2u);
    EXPECT_EQ(std::string(buffer, 2), "LD");
    EXPECT_EQ(w->Read(buffer, sizeof(buffer)), 0u); // the end
    w->Flush();
    w->Close();
    w->Close(); // harmless
    EXPECT_THROW(w->Write("x", 1), InvalidStateException);

    // Writing an existing file starts at its beginning and keeps the rest.
    Ref<FileHandle> again = Open(path, FileHandle::OPEN_WRITE);
    again->Write("J", 1);
    again->Close();
    EXPECT_EQ(Contents("data.bin"), "Jello WORLD");

    // Appends land at the end whatever the position.
    Ref<FileHandle> a = Open(path, FileHandle::OPEN_APPEND);
    a->Write("!", 1);
    a->Close();
    EXPECT_EQ(Contents("data.bin"), "Jello WORLD!");

    Ref<FileHandle> u = Open(path, FileHandle::OPEN_UPDATE);
    u->Seek(0, FileHandle::FROM_END);
    u->Truncate(5);
    EXPECT_EQ(u->GetSize(), 5);
    u->Close();
    EXPECT_EQ(Contents("data.bin"), "Jello");

    EXPECT_THROW(Open(path, FileHandle::OPEN_CREATE), FileIOAlreadyExistsException);
    Ref<FileHandle> fresh = Open(PathOf("new.bin"), FileHandle::OPEN_CREATE);
    fresh->Write("n", 1);
    EXPECT_EQ(fresh->GetSize(), 1);

    Ref<FileHandle> r = Open(path, FileHandle::OPEN_READ);
    EXPECT_EQ(r->Read(buffer, 3), 3u);
    EXPECT_THROW(r->Write("x", 1), FileIOException);
}

TEST_F(FileLayerTest, FailuresNameThePathAndKeepTheirKind) {
    const std::string missing = PathOf("nowhere/none.txt");
    try {
        Open(missing, FileHandle::OPEN_READ);
        FAIL() << "opened a missing file";
    } catch (const FileIONotFoundException& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
    // Update and write need the directory; update needs the file too.
    EXPECT_THROW(Open(missing, FileHandle::OPEN_UPDATE), FileIONotFoundException);
    EXPECT_THROW(Open(missing, FileHandle::OPEN_WRITE), FileIONotFoundException);
    EXPECT_THROW(Path(missing)->Delete(), FileIONotFoundException);
    EXPECT_THROW(Path(missing)->Rename(PathOf("x")), FileIONotFoundException);
    std::vector<File::Entry> entries;
    try {
        Path(PathOf("nowhere"))->List(entries);
        FAIL() << "listed a missing directory";
    } catch (const FileIONotFoundException& e) {
        EXPECT_NE(std::string(e.what()).find("nowhere"), std::string::npos);
    }
}

TEST_F(FileLayerTest, PathsThatAreNotUtf8AreInvalidArguments) {
    Path(_dir.u8string())->MakeDirectories();
    const std::string dir = _dir.u8string() + "/";
    // A stray byte, a lone continuation byte, an overlong '/', a surrogate, a
    // sequence cut short, a code point above U+10FFFF.
    const char* const bad[] = {"a\xFF.txt",        "\x80",      "\xC0\xAF",
                               "\xED\xA0\x80.txt", "a\xE2\x82", "\xF4\x90\x80\x80"};
    for (const char* name : bad) {
        const std::string path = dir + name;
        EXPECT_THROW(Open(path, FileHandle::OPEN_WRITE), InvalidArgumentException) << name;
        EXPECT_THROW(Open(path, FileHandle::OPEN_CREATE), InvalidArgumentException) << name;
        EXPECT_THROW(Open(path, FileHandle::OPEN_READ), InvalidArgumentException) << name;
        // A path object touches nothing until used.
        Ref<File> file = Path(path);
        EXPECT_EQ(file->GetParent(), _dir.u8string());
        EXPECT_THROW(file->Exists(), InvalidArgumentException) << name;
        EXPECT_THROW(file->MakeDirectories(), InvalidArgumentException) << name;
        EXPECT_THROW(file->Delete(), InvalidArgumentException) << name;
    }
    try {
        Open(dir + "a\xFF.txt", FileHandle::OPEN_WRITE);
        FAIL() << "opened a path that is not UTF-8";
    } catch (const InvalidArgumentException& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Invalid argument : Path is not valid UTF-8: '" + dir + "a\\xFF.txt'");
    }
    // Nothing was made, on any platform; a good file is not renamed to a bad name.
    Open(PathOf("good.txt"), FileHandle::OPEN_WRITE)->Write("1", 1);
    EXPECT_THROW(Path(PathOf("good.txt"))->Rename(dir + "a\xFF.txt"), InvalidArgumentException);
    // Four-byte sequences are UTF-8 all the same.
    Open(dir + "\xF0\x9F\x98\x80.txt", FileHandle::OPEN_WRITE)->Write("2", 1);
    std::vector<File::Entry> entries;
    Path(_dir.u8string())->List(entries);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].name, "good.txt");
    EXPECT_EQ(entries[1].name, "\xF0\x9F\x98\x80.txt");
}

// ---- paths: directories, listing, renaming, UTF-8 names ----

TEST_F(FileLayerTest, DirectoriesListingsRenamesAndUtf8Names) {
    const std::string deep = PathOf("a/b/c");
    Path(deep)->MakeDirectories();
    Path(deep)->MakeDirectories(); // existing: fine
    EXPECT_TRUE(Path(deep)->IsDirectory());
    EXPECT_EQ(Path(deep)->GetParent(), PathOf("a/b"));

    const std::string utf8 = PathOf(
        "a/\xC3\xBC"
        "ber-\xE2\x82\xAC.txt"); // "über-€.txt"
    Open(utf8, FileHandle::OPEN_WRITE)->Write("1", 1);
    Open(PathOf("a/z.txt"), FileHandle::OPEN_WRITE)->Write("22", 2);
    std::vector<File::Entry> entries;
    Path(PathOf("a"))->List(entries);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0].name, "b");
    EXPECT_TRUE(entries[0].isDirectory);
    EXPECT_EQ(entries[1].name, "z.txt");
    EXPECT_FALSE(entries[1].isDirectory);
    EXPECT_EQ(entries[2].name,
              "\xC3\xBC"
              "ber-\xE2\x82\xAC.txt");

    // Renaming replaces the target.
    Path(utf8)->Rename(PathOf("a/z.txt"));
    EXPECT_FALSE(Path(utf8)->Exists());
    EXPECT_EQ(Contents("a/z.txt"), "1");
    Path(PathOf("a"))->SyncDirectory();

    Path(PathOf("a/z.txt"))->Delete();
    EXPECT_FALSE(Path(PathOf("a/z.txt"))->Exists());
    EXPECT_THROW(Path(PathOf("a/b"))->DeleteEmptyDirectory(), FileIOException); // holds c
    Path(deep)->DeleteEmptyDirectory();
    EXPECT_FALSE(Path(deep)->Exists());

    std::string temp;
    System::GetSystemFactory()->GetTempDir(temp);
    EXPECT_FALSE(temp.empty());
    EXPECT_TRUE(Path(temp)->IsDirectory()) << temp;
}

} // namespace
