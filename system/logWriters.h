// The log writers that SystemFactoryImpl makes.
#pragma once

#include <tessera/system/system.h>
#include <tessera/writer.h>

#include <cstdint>
#include <string>

namespace Tessera {
namespace System {

// What a rolling writer does when it cannot roll its files over.
enum class RolloverFailureAction { CONTINUE, ABORT, BREAK };

// Parses "continue", "abort" or "break"; throws InvalidArgumentException
// "Bad failure action string" for anything else.
RolloverFailureAction ParseRolloverFailureAction(const std::string& text);

Ref<Writer> NewRolloverLogWriter(const std::string& directory, const std::string& name,
                                 std::int64_t maxSize, std::int32_t numFiles,
                                 RolloverFailureAction action, bool append);

// A rolling writer over <name><extension>, <name>-1<extension>, ... (see
// SystemFactory::CreateFileRoller); appends to the current file.
Ref<FileRoller> NewFileRoller(const std::string& directory, const std::string& name,
                              const std::string& extension, const std::string& header,
                              RolloverFailureAction action, std::int32_t numFiles,
                              std::uint32_t maxSize);

// A writer appending to the file at `path` (see SystemFactory::CreateFileWriter).
Ref<Writer> NewFileWriter(const std::string& path, const std::string& header, bool append);

// Standard output, or standard error when `error`.
Ref<Writer> NewStandardWriter(bool error);

} // namespace System
} // namespace Tessera
