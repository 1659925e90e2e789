// POSIX side of the platform services: unwinding, symbol names, error texts.

#include "system/platform/diagnostics.h"

#include <boost/stacktrace/frame.hpp>

#include <cxxabi.h>
#include <dlfcn.h>
#include <errno.h>
#include <string.h>
#include <unistd.h>
#include <unwind.h>

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Tessera {
namespace System {
namespace Platform {
namespace {

struct UnwindState {
    void** frames;
    int max;
    int skip;
    int count;
};

_Unwind_Reason_Code CollectFrame(struct _Unwind_Context* context, void* arg) {
    auto* state = static_cast<UnwindState*>(arg);
    const _Unwind_Ptr ip = _Unwind_GetIP(context);
    if (ip == 0) {
        return _URC_END_OF_STACK;
    }
    if (state->skip > 0) {
        --state->skip;
        return _URC_NO_REASON;
    }
    if (state->count >= state->max) {
        return _URC_END_OF_STACK;
    }
    state->frames[state->count++] = reinterpret_cast<void*>(ip);
    return _URC_NO_REASON;
}

}  // namespace

// noinline keeps this frame real, so that `skip` counts what the caller sees.
__attribute__((noinline)) int CaptureFrames(void** frames, int max, int skip, bool) noexcept {
    // The unwinder reports this function as its first frame.
    UnwindState state{frames, max, skip + 1, 0};
    _Unwind_Backtrace(&CollectFrame, &state);
    return state.count;
}

std::string DescribeFrames(void* const* frames, int count, bool names) {
    std::string text;
    char line[1024];
    for (int i = 0; i < count; ++i) {
        void* address = frames[i];
        std::string where;
        if (names) {
            // Return addresses point past the call; look up the call itself.
            const boost::stacktrace::frame frame(static_cast<char*>(address) - 1);
            const std::string name = frame.name();
            if (!name.empty()) {
                where = " in " + name;
                const std::string file = frame.source_file();
                if (!file.empty()) {
                    where += " at " + file + ":" + std::to_string(frame.source_line());
                }
            }
        }
        if (where.empty()) {
            Dl_info info;
            if (dladdr(address, &info) != 0 && info.dli_fname != nullptr) {
                const char* module = std::strrchr(info.dli_fname, '/');
                std::snprintf(line, sizeof(line), " in %s+0x%" PRIxPTR,
                              module != nullptr ? module + 1 : info.dli_fname,
                              reinterpret_cast<std::uintptr_t>(address) -
                                  reinterpret_cast<std::uintptr_t>(info.dli_fbase));
                where = line;
            }
        }
        std::snprintf(line, sizeof(line), "#%d 0x%016" PRIxPTR, i,
                      reinterpret_cast<std::uintptr_t>(address));
        text += line;
        text += where;
        text += "\n";
    }
    return text;
}

std::string GetSystemErrorText(int code) {
    // strerrorname_np knows exactly the codes the C library has a text for.
    if (code <= 0 || strerrorname_np(code) == nullptr) {
        return std::string();
    }
    char buffer[256];
    // The GNU strerror_r returns the text, in the buffer or elsewhere.
    const char* text = strerror_r(code, buffer, sizeof(buffer));
    return text != nullptr ? std::string(text) : std::string();
}

int GetLastSystemError() noexcept {
    return errno;
}

void WriteStandardError(const char* text, std::size_t length) noexcept {
    while (length > 0) {
        const ssize_t written = ::write(STDERR_FILENO, text, length);
        if (written < 0) {
            if (errno == EINTR) continue;
            return;
        }
        text += written;
        length -= static_cast<std::size_t>(written);
    }
}

void AbortProcess() noexcept {
    std::abort();
}

}  // namespace Platform
}  // namespace System
}  // namespace Tessera
