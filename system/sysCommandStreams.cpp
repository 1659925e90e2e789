// A command's standard streams: its output read from memory the pump fills,
// its standard input written.

#include "system/sysCommandImpl.h"

#include <tessera/assert.h>

#include "system/platform/nativeError.h"

namespace Tessera {
namespace System {

int SysCommandImpl::Read(SysCommandStream stream, char* buffer, int sizeRead) {
    if (stream != SC_STDOUT && stream != SC_STDERR) {
        throw InvalidArgumentException(MessageFormatter::ASPrint("Invalid stream type argument: %1",
                                                                 static_cast<int>(stream)));
    }
    TESSERA_ASSERT(sizeRead >= 0);
    std::lock_guard<std::mutex> output(_outputLock);
    {
        Synchronized hold(this);
        if (_currentSn == 0 || _pump == nullptr) {
            throw InvalidStateException(kNoOutput);
        }
    }
    OutputBuffer& from = stream == SC_STDOUT ? _out : _err;
    while (from.Available() == 0 && !from.ended && sizeRead > 0) {
        Platform::PumpResult result;
        const Platform::NativeError error =
            Platform::PumpOutput(_pump, nullptr, -1, _out.data, _err.data, result);
        if (error != Platform::kSuccess) {
            ThrowSystemError(error, Platform::kPumpCall);
        }
        _out.ended = _out.ended || result.outEnded;
        _err.ended = _err.ended || result.errEnded;
    }
    return static_cast<int>(from.Take(buffer, static_cast<std::size_t>(sizeRead)));
}

std::string SysCommandImpl::ReadAll(SysCommandStream stream) {
    std::string all;
    char buffer[65536];
    for (;;) {
        const int n = Read(stream, buffer, sizeof buffer);
        if (n == 0) {
            return all;
        }
        all.append(buffer, static_cast<std::size_t>(n));
    }
}

void SysCommandImpl::WriteStdin(const char* data, std::size_t size) {
    std::lock_guard<std::mutex> in(_stdinLock);
    Platform::NativeHandle handle;
    {
        Synchronized hold(this);
        handle = _pipes.parentIn;
    }
    if (handle == Platform::kNoHandle) {
        throw InvalidStateException(kNoStdin);
    }
    const Platform::NativeError error = Platform::WriteToChild(handle, data, size);
    if (error != Platform::kSuccess) {
        ThrowSystemError(error, Platform::kWriteCall);
    }
}

void SysCommandImpl::CloseStdin() {
    std::lock_guard<std::mutex> in(_stdinLock);
    Synchronized hold(this);
    if (_pipes.parentIn == Platform::kNoHandle) {
        throw InvalidStateException(kNoStdin);
    }
    ClosePipeEnd(_pipes.parentIn);
}

} // namespace System
} // namespace Tessera
