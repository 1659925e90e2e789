// Reserved thread-local keys with versioned slots.

#include <tessera/assert.h>
#include <tessera/logger.h>
#include <tessera/system/tls.h>

#include "system/platform/diagnostics.h"
#include "system/perThread.h"

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <utility>
#include <vector>

namespace Tessera {
namespace System {
namespace {

constexpr std::uint32_t INDEX_BITS = 17;
constexpr std::uint32_t INDEX_MASK = 0x1FFFF;
constexpr std::uint32_t INVALID_INDEX = 0x1FFFF;
constexpr std::uint32_t MAX_INDEX = 131070;
constexpr std::uint32_t VERSION_MASK = 0x7FFF;

std::uint32_t IndexOf(TlsKey key) noexcept { return static_cast<std::uint32_t>(key) & INDEX_MASK; }
std::uint32_t VersionOf(TlsKey key) noexcept { return static_cast<std::uint32_t>(key) >> INDEX_BITS; }

// The process-wide table of keys: the key of every index in use, and the free
// indexes chained through the same words.
class KeyTable {
public:
    TlsKey Reserve() {
        std::lock_guard<std::mutex> hold(_lock);
        // A version is never 0 in its 15 bits, so no key equals a plain index.
        ++_version;
        if ((_version & VERSION_MASK) == 0) ++_version;
        const std::uint32_t version = _version & VERSION_MASK;
        std::uint32_t index;
        if (_firstFreeIndex != INVALID_INDEX) {
            index = _firstFreeIndex;
            _firstFreeIndex = _keys[index];
            TESSERA_ASSERT(_firstFreeIndex == INVALID_INDEX || _firstFreeIndex < _keys.size());
            _keys[index] = (version << INDEX_BITS) | index;
        } else {
            TESSERA_ASSERT(_keys.size() < MAX_INDEX);
            index = static_cast<std::uint32_t>(_keys.size());
            TESSERA_ASSERT(index <= MAX_INDEX);
            _keys.push_back((version << INDEX_BITS) | index);
        }
        return static_cast<TlsKey>(_keys[index]);
    }

    void Release(TlsKey key) {
        std::lock_guard<std::mutex> hold(_lock);
        const std::uint32_t index = IndexOf(key);
        TESSERA_ASSERT(index < _keys.size());
        TESSERA_ASSERT(key == (TlsKey)_keys[index]);
        _keys[index] = _firstFreeIndex;
        _firstFreeIndex = index;
    }

    // The key in force at an index, for reports; 0 when it is free.
    TlsKey CurrentKey(std::uint32_t index) {
        std::lock_guard<std::mutex> hold(_lock);
        if (index >= _keys.size() || (_keys[index] & INDEX_MASK) != index ||
            (_keys[index] >> INDEX_BITS) == 0) {
            return 0;
        }
        return static_cast<TlsKey>(_keys[index]);
    }

private:
    std::mutex _lock;
    std::uint32_t _firstFreeIndex = INVALID_INDEX;
    std::uint32_t _version = 0;
    std::vector<std::uint32_t> _keys;
};

KeyTable& Keys() {
    static KeyTable* table = new KeyTable; // lives until the process ends
    return *table;
}

// At thread exit the logger may already have lost its per-thread state, so a
// leaked slot is reported straight to standard error.
void ReportSlot(const char* what, std::uint32_t index, std::uint32_t expected,
                std::uint32_t found, const void* object) {
    char text[256];
    std::snprintf(text, sizeof(text),
                  "Found %s TLS object at index %" PRIu32 ". Expected version=%" PRIu32
                  ", found version=%" PRIu32 ", found object=%p\n",
                  what, index, expected, found, object);
    Platform::WriteStandardError(text, std::char_traits<char>::length(text));
}

// One thread's slots: (value, version of the key that stored it) per index.
struct SlotTable {
    std::vector<std::pair<void*, std::uint32_t>> slots;

    ~SlotTable() {
        for (std::uint32_t index = 0; index < slots.size(); ++index) {
            if (slots[index].first != nullptr) {
                ReportSlot("leaked", index, VersionOf(Keys().CurrentKey(index)),
                           slots[index].second, slots[index].first);
            }
        }
    }
};

PerThread<SlotTable>& Slots() {
    static PerThread<SlotTable>* slots = new PerThread<SlotTable>;
    return *slots;
}

} // namespace

TlsKey ReserveTlsKey() { return Keys().Reserve(); }

void ReleaseTlsKey(TlsKey key) { Keys().Release(key); }

namespace {

// The calling thread's filled slot for `key`, or null. A slot filled through
// another version of the key means a released key is still in use.
std::pair<void*, std::uint32_t>* FilledSlot(TlsKey key) {
    SlotTable* table = Slots().Find();
    const std::uint32_t index = IndexOf(key);
    if (table == nullptr || index >= table->slots.size() || table->slots[index].first == nullptr) {
        return nullptr;
    }
    auto& slot = table->slots[index];
    if (slot.second != VersionOf(key)) {
        TESSERA_LOG(Service::DefaultLogger(), Service::Logger::LOG_ERROR,
                    "Found unexpected TLS object at index %1. Expected version=%2, found "
                    "version=%3, found object=%4",
                    static_cast<unsigned>(index), static_cast<unsigned>(VersionOf(key)),
                    static_cast<unsigned>(slot.second), static_cast<const void*>(slot.first));
        PanicExit("A thread-local slot was used through a released key");
    }
    return &slot;
}

} // namespace

void* GetTlsValue(TlsKey key) {
    const auto* slot = FilledSlot(key);
    return slot != nullptr ? slot->first : nullptr;
}

void SetTlsValue(TlsKey key, void* value) {
    if (auto* slot = FilledSlot(key)) {
        *slot = {value, value != nullptr ? VersionOf(key) : 0};
        return;
    }
    if (value == nullptr) return;
    SlotTable& table = Slots().Get();
    const std::uint32_t index = IndexOf(key);
    if (index >= table.slots.size()) table.slots.resize(index + 1);
    table.slots[index] = {value, VersionOf(key)};
}

} // namespace System
} // namespace Tessera
