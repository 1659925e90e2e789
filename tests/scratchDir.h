// A fixture with a scratch directory of its own for each test, removed
// afterwards, and the small file helpers the writer tests share.
#pragma once

#include <tessera/system/runtime.h>
#include <tessera/writer.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class ScratchDirTest : public testing::Test {
protected:
    // The directory is named after the test but not created.
    void SetUp() override {
        const testing::TestInfo* info = testing::UnitTest::GetInstance()->current_test_info();
        _dir = std::filesystem::temp_directory_path() /
               ("tessera-" + std::to_string(Tessera::System::GetThreadId()) + "-" +
                info->test_suite_name() + "-" + info->name());
        std::filesystem::remove_all(_dir);
    }
    void TearDown() override {
        std::error_code ignored;
        std::filesystem::remove_all(_dir, ignored);
    }

    // A file's bytes; a relative path is taken inside the scratch directory.
    std::string Contents(const std::filesystem::path& file) const {
        std::ifstream in(file.is_absolute() ? file : _dir / file, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    static void Put(Tessera::Writer& w, const std::string& text) {
        w.Write(text.data(), static_cast<int>(text.size()));
    }

    std::filesystem::path _dir;
};
