// Shared by the journal tests: a scratch directory, a logger whose records
// are captured, and raw file helpers.
#pragma once

#include <tessera/exception.h>
#include <tessera/logger.h>
#include <tessera/writer.h>

#include "tests/scratchDir.h"

#include <cstdint>
#include <string>

class JournalTest : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        std::filesystem::create_directories(_dir);
        Tessera::CreateStringWriter(_log);
        Tessera::Service::LogManager::AddWriter("journal-test", _log,
                                                Tessera::Service::Logger::MASK_TRIVIA);
        _logger = new Tessera::Service::Logger("jrnl", Tessera::Service::Logger::MASK_TRIVIA);
    }
    void TearDown() override {
        Tessera::Service::LogManager::RemoveWriter("journal-test");
        ScratchDirTest::TearDown();
    }

    std::string PathOf(const std::string& name) const { return (_dir / name).u8string(); }
    void PutFile(const std::string& name, const std::string& bytes) const {
        std::ofstream out(_dir / name, std::ios::binary | std::ios::trunc);
        out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    }
    bool Logged(const std::string& text) const {
        return _log->GetString().find(text) != std::string::npos;
    }
    std::string TakeLog() { return _log->TakeString(); }
    // The text of the JrnlException `f` raises, or "" when none.
    template <class F>
    static std::string Raised(F f) {
        try {
            f();
        } catch (const Tessera::Service::JrnlException& e) {
            return e.what();
        }
        return std::string();
    }

    static std::string Le32(std::uint32_t v) {
        std::string s(4, '\0');
        for (int i = 0; i < 4; ++i) s[i] = static_cast<char>((v >> (8 * i)) & 0xFF);
        return s;
    }
    static std::string Le64(std::uint64_t v) { return Le32(v & 0xFFFFFFFFu) + Le32(v >> 32); }
    static std::string Str(const std::string& s) {
        return Le32(static_cast<std::uint32_t>(s.size() + 1)) + s + std::string(1, '\0');
    }

    Tessera::Ref<Tessera::StringWriter> _log;
    Tessera::Ref<Tessera::Service::Logger> _logger;
};
