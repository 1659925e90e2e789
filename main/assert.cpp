// The panic path: report, backtrace, end of process.

#include <tessera/assert.h>

#include "main/logPanic.h"
#include "system/platform/diagnostics.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace Tessera {
namespace {

namespace Platform = System::Platform;

std::atomic<int> sPanicking{0};

void Write(const char* text) noexcept { Platform::WriteStandardError(text, std::strlen(text)); }

// Shortens __FILE__ to the path in the source tree without extension:
// "<root>/main/object.cpp" becomes "main/object", an installed
// "<prefix>/include/tessera/weak.h" becomes "public/tessera/weak".
void SourceName(const char* file, char* out, std::size_t size) noexcept {
    char path[512];
    std::size_t n = 0;
    for (const char* p = file; *p != '\0' && n + 1 < sizeof(path); ++p) {
        path[n++] = (*p == '\\') ? '/' : *p;
    }
    path[n] = '\0';

    const char* rest = path;
    const char* prefix = "";
    static const char kRoot[] = TESSERA_SOURCE_ROOT;
    char root[sizeof(kRoot)];
    for (std::size_t i = 0; i < sizeof(kRoot); ++i) {
        root[i] = (kRoot[i] == '\\') ? '/' : kRoot[i];
    }
    const std::size_t rootLen = std::strlen(root);
    const char* installed = nullptr;
    if (std::strncmp(path, root, rootLen) == 0) {
        rest = path + rootLen;
    } else {
        // Look for the last "include/tessera/" of an installed header.
        for (const char* p = std::strstr(path, "include/tessera/"); p != nullptr;
             p = std::strstr(p + 1, "include/tessera/")) {
            installed = p;
        }
        if (installed != nullptr) {
            rest = installed + std::strlen("include/");
            prefix = "public/";
        }
    }
    std::size_t used = 0;
    for (const char* part : {prefix, rest}) {
        for (const char* p = part; *p != '\0' && used + 1 < size; ++p) {
            out[used++] = *p;
        }
    }
    out[used] = '\0';
    char* slash = std::strrchr(out, '/');
    char* dot = std::strrchr(out, '.');
    if (dot != nullptr && (slash == nullptr || dot > slash)) {
        *dot = '\0';
    }
}

void WriteBacktrace() noexcept {
    // A fault inside the symbolizer must not start a second report.
    if (sPanicking.fetch_add(1) != 0) {
        return;
    }
    void* frames[62];
    const int count = Platform::CaptureFrames(frames, 62, 2, false);
    try {
        const std::string text = Platform::DescribeFrames(frames, count, true);
        Write("Backtrace:\n");
        Write(text.c_str());
    } catch (...) {
        Write("Backtrace unavailable\n");
    }
}

} // namespace

void AssertFailed(const char* condition, const char* file, int line) noexcept {
    char source[512];
    SourceName(file, source, sizeof(source));
    char report[1536];
    std::snprintf(report, sizeof(report), "PANIC: Assertion \"%s\" failed at %s:%d\n", condition,
                  source, line);
    Write(report);
    Service::LogPanicReport(report);
    WriteBacktrace();
    Platform::AbortProcess();
}

void PanicExit(const char* message) noexcept {
    Write("PANIC: ");
    Write(message);
    const std::size_t len = std::strlen(message);
    if (len == 0 || message[len - 1] != '\n') {
        Write("\n");
    }
    char report[1536];
    std::snprintf(report, sizeof(report), "PANIC: %.*s", static_cast<int>(len), message);
    Service::LogPanicReport(report);
    WriteBacktrace();
    Platform::AbortProcess();
}

} // namespace Tessera
