// Process and thread services that need no platform code of their own.

#include <tessera/assert.h>
#include <tessera/exception.h>
#include <tessera/system/runtime.h>

#include "system/platform/nativeError.h"
#include "system/platform/runtime.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <mutex>
#include <system_error>
#include <vector>

namespace Tessera {
namespace System {
namespace {

namespace fs = std::filesystem;


// Named thread states of the whole process, in the order they were added.
class ThreadStateRegistry {
public:
    std::uint64_t Add(const char* name) {
        std::lock_guard<std::mutex> hold(_lock);
        const std::uint64_t handle = ++_lastHandle;
        _states.emplace(handle, State{Platform::CurrentThreadId(), name != nullptr ? name : ""});
        return handle;
    }

    // The thread that added the state, or 0 when the handle is unknown.
    std::uint64_t Remove(std::uint64_t handle) {
        std::lock_guard<std::mutex> hold(_lock);
        const auto at = _states.find(handle);
        if (at == _states.end()) return 0;
        const std::uint64_t thread = at->second.thread;
        _states.erase(at);
        return thread;
    }

    std::string Dump() {
        std::map<std::uint64_t, std::string> byThread;
        {
            std::lock_guard<std::mutex> hold(_lock);
            for (const auto& s : _states) {
                std::string& line = byThread[s.second.thread];
                if (!line.empty()) line += ' ';
                line += s.second.name;
            }
        }
        std::string text;
        for (const auto& t : byThread) {
            text += std::to_string(t.first) + ": " + t.second + "\n";
        }
        return text;
    }

private:
    struct State {
        std::uint64_t thread;
        std::string name;
    };
    std::mutex _lock;
    std::uint64_t _lastHandle = 0;
    std::map<std::uint64_t, State> _states; // handles rise, so this is age order
};

ThreadStateRegistry& Registry() {
    static ThreadStateRegistry* registry = new ThreadStateRegistry; // never destroyed
    return *registry;
}

// The calling thread's own states, so that reading them (once per log record)
// takes no lock. It exists only while the thread has states: a plain pointer
// keeps thread exit free of destructors (which some runtimes run badly from a
// DLL).
struct ThisThreadStates {
    std::vector<std::pair<std::uint64_t, std::string>> states;
    std::string text;

    void Rebuild() {
        text.clear();
        for (const auto& s : states) {
            if (!text.empty()) text += ' ';
            text += s.second;
        }
    }
};
thread_local ThisThreadStates* tStates = nullptr;

std::mutex sExitLock;
boost::function<void()>* sExitHandler = nullptr; // set once, never freed

} // namespace

std::uint64_t GetThreadId() { return Platform::CurrentThreadId(); }

std::string GetHostName() {
    std::string name;
    if (const Platform::NativeError error = Platform::HostName(name)) {
        ThrowSystemError(error, "Cannot read the host name");
    }
    return name;
}

void GetCpuTime(std::uint64_t& userMicroseconds, std::uint64_t& kernelMicroseconds) {
    if (const Platform::NativeError error =
            Platform::ProcessCpuTime(userMicroseconds, kernelMicroseconds)) {
        ThrowSystemError(error, "Cannot read the process's CPU time");
    }
}

std::string GetCurrentWorkingDirectory() {
    std::error_code error;
    const fs::path path = fs::current_path(error);
    if (error) ThrowFileError(error, "Cannot read the working directory", "");
    return path.u8string();
}

void SetCurrentWorkingDirectory(const std::string& path) {
    std::error_code error;
    fs::current_path(fs::u8path(path), error);
    if (error) ThrowFileError(error, "Cannot change the working directory to", path);
}

std::string GetCanonicalPath(const std::string& path) {
    std::error_code error;
    const fs::path canonical = fs::canonical(fs::u8path(path), error);
    if (error) ThrowFileError(error, "Cannot resolve the path", path);
    return canonical.u8string();
}

std::uint64_t AddThreadState(const char* name) {
    const std::uint64_t handle = Registry().Add(name);
    if (tStates == nullptr) tStates = new ThisThreadStates;
    tStates->states.emplace_back(handle, name != nullptr ? name : "");
    tStates->Rebuild();
    return handle;
}

void RemoveThreadState(std::uint64_t handle) {
    const std::uint64_t owner = Registry().Remove(handle);
    // A state is the thread's own: only the thread that added it removes it.
    TESSERA_ASSERT(owner == 0 || owner == Platform::CurrentThreadId());
    if (tStates == nullptr) return;
    for (auto it = tStates->states.begin(); it != tStates->states.end(); ++it) {
        if (it->first == handle) {
            tStates->states.erase(it);
            tStates->Rebuild();
            break;
        }
    }
    if (tStates->states.empty()) {
        delete tStates;
        tStates = nullptr;
    }
}

std::string GetThreadStates() { return tStates != nullptr ? tStates->text : std::string(); }

std::string DumpThreadStates() { return Registry().Dump(); }

void SetExitHandler(const boost::function<void()>& handler) {
    std::lock_guard<std::mutex> hold(sExitLock);
    if (sExitHandler != nullptr) {
        throw AlreadyExistsException("SetExitHandler called more than once");
    }
    sExitHandler = new boost::function<void()>(handler);
}

void QuickExit(int code) {
    boost::function<void()>* handler;
    {
        std::lock_guard<std::mutex> hold(sExitLock);
        handler = sExitHandler;
    }
    if (handler != nullptr && !handler->empty()) {
        try {
            (*handler)();
        } catch (...) {
            // The process is ending either way; a failing handler must not
            // turn a chosen exit code into a crash.
        }
    }
    std::fflush(nullptr);
    std::_Exit(code);
}

} // namespace System
} // namespace Tessera
