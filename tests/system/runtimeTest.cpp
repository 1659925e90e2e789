#include <tessera/exception.h>
#include <tessera/system/runtime.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <thread>

using namespace Tessera;
using namespace Tessera::System;

TEST(Runtime, IdentitiesAndCpuTime) {
    const std::uint64_t mine = GetThreadId();
    EXPECT_EQ(GetThreadId(), mine);
    std::uint64_t other = mine;
    std::thread([&] { other = GetThreadId(); }).join();
    EXPECT_NE(other, mine);
    EXPECT_FALSE(GetHostName().empty());

    std::uint64_t user0 = 0, kernel0 = 0, user1 = 0, kernel1 = 0;
    GetCpuTime(user0, kernel0);
    // Burn CPU until the clock moves (its tick may be coarse); bounded.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    volatile std::uint64_t sink = 0;
    do {
        for (int i = 0; i < 1000000; ++i) sink = sink + static_cast<std::uint64_t>(i);
        GetCpuTime(user1, kernel1);
    } while (user1 + kernel1 == user0 + kernel0 && std::chrono::steady_clock::now() < deadline);
    EXPECT_GT(user1 + kernel1, user0 + kernel0);
    EXPECT_GE(user1, user0);
    EXPECT_GE(kernel1, kernel0);
}

TEST(Runtime, WorkingDirectoryAndCanonicalPaths) {
    namespace fs = std::filesystem;
    const std::string start = GetCurrentWorkingDirectory();
    const fs::path dir = fs::temp_directory_path() / "tessera-runtime-test";
    fs::create_directories(dir / "sub");
    SetCurrentWorkingDirectory(dir.u8string());
    EXPECT_EQ(fs::u8path(GetCurrentWorkingDirectory()), fs::canonical(dir));
    EXPECT_EQ(fs::u8path(GetCanonicalPath("sub/../sub/.")), fs::canonical(dir / "sub"));
    SetCurrentWorkingDirectory(start);
    EXPECT_EQ(GetCurrentWorkingDirectory(), start);

    const std::string missing = (dir / "missing" / "x").u8string();
    try {
        GetCanonicalPath(missing);
        ADD_FAILURE() << "resolved a missing path";
    } catch (const FileIONotFoundException& e) {
        EXPECT_NE(std::string(e.what()).find(missing), std::string::npos) << e.what();
    }
    EXPECT_THROW(SetCurrentWorkingDirectory(missing), FileIOException);
    fs::remove_all(dir);
}

TEST(Runtime, ThreadStatesBelongToTheirThread) {
    const std::uint64_t a = AddThreadState("loading");
    const std::uint64_t b = AddThreadState("request 42");
    EXPECT_EQ(GetThreadStates(), "loading request 42");
    std::string elsewhere = "unset", dumped;
    std::thread([&] {
        elsewhere = GetThreadStates();
        const std::uint64_t c = AddThreadState("worker");
        dumped = DumpThreadStates();
        RemoveThreadState(c);
    }).join();
    EXPECT_EQ(elsewhere, "");
    EXPECT_NE(dumped.find(std::to_string(GetThreadId()) + ": loading request 42\n"),
              std::string::npos)
        << dumped;
    EXPECT_NE(dumped.find(": worker\n"), std::string::npos) << dumped;
    RemoveThreadState(a);
    EXPECT_EQ(GetThreadStates(), "request 42");
    RemoveThreadState(b);
    EXPECT_EQ(GetThreadStates(), "");
    EXPECT_EQ(DumpThreadStates().find(": worker"), std::string::npos);
}

TEST(RuntimeDeathTest, OneExitHandlerRunsOnQuickExit) {
    EXPECT_EXIT(
        {
            SetExitHandler([] { std::fputs("first handler ran\n", stderr); });
            try {
                SetExitHandler([] { std::fputs("second handler ran\n", stderr); });
                std::fputs("second call accepted\n", stderr);
            } catch (const AlreadyExistsException& e) {
                std::fprintf(stderr, "%s\n", e.what());
            }
            QuickExit(7);
        },
        testing::ExitedWithCode(7),
        "Already exists: SetExitHandler called more than once\nfirst handler ran\n");
}
