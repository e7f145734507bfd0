#include "platform/cleanup_registry.h"

#include <atomic>
#include <cstring>
#include <mutex>

#if defined(_WIN32)
#include <io.h>
#include <cwchar>
#else
#include <signal.h>
#include <unistd.h>
#endif

namespace zpdf::fs {
namespace {

#if defined(_WIN32)
using NativeChar = wchar_t;
#else
using NativeChar = char;
#endif

constexpr int kSlots = 64;
constexpr std::size_t kMaxPath = 4096;

// A slot is Free, being Filled by a registering thread, or Live (its name complete). The
// handler only reads Live slots.
enum SlotState : int { kFree = 0, kFilling = 1, kLive = 2 };

struct Slot {
    std::atomic<int> state{kFree};
    NativeChar name[kMaxPath];
};

Slot g_slots[kSlots];
std::mutex g_mutex;  // serialises registering threads; the handler never takes it

void RemoveNative(const NativeChar* name) noexcept {
#if defined(_WIN32)
    _wunlink(name);
#else
    ::unlink(name);
#endif
}

}  // namespace

bool RegisterForCleanup(const std::filesystem::path& path) {
    const auto& native = path.native();
    if (native.empty() || native.size() >= kMaxPath) return false;
    std::lock_guard lock(g_mutex);
    for (Slot& slot : g_slots) {
        if (slot.state.load(std::memory_order_acquire) != kFree) continue;
        slot.state.store(kFilling, std::memory_order_relaxed);
        std::memcpy(slot.name, native.c_str(), (native.size() + 1) * sizeof(NativeChar));
        slot.state.store(kLive, std::memory_order_release);
        return true;
    }
    return false;
}

void UnregisterCleanup(const std::filesystem::path& path) {
    const auto& native = path.native();
    std::lock_guard lock(g_mutex);
    for (Slot& slot : g_slots) {
        if (slot.state.load(std::memory_order_acquire) != kLive) continue;
        if (native.compare(slot.name) != 0) continue;
        slot.state.store(kFree, std::memory_order_release);
        return;
    }
}

void RemoveRegisteredFiles() noexcept {
    for (Slot& slot : g_slots) {
        if (slot.state.load(std::memory_order_acquire) == kLive) RemoveNative(slot.name);
    }
}

int RegisteredFileCount() {
    int count = 0;
    for (const Slot& slot : g_slots) count += slot.state.load() == kLive ? 1 : 0;
    return count;
}

#if defined(_WIN32)
// The console's interrupt arrives on a thread of its own; there is nothing to block.
CleanupSignalBlock::CleanupSignalBlock() = default;
CleanupSignalBlock::~CleanupSignalBlock() = default;
#else
static_assert(sizeof(sigset_t) <= 256, "the saved signal mask must fit");

CleanupSignalBlock::CleanupSignalBlock() {
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigaddset(&block, SIGHUP);
    sigset_t saved;
    blocked_ = pthread_sigmask(SIG_BLOCK, &block, &saved) == 0;
    std::memcpy(saved_, &saved, sizeof saved);
}

CleanupSignalBlock::~CleanupSignalBlock() {
    if (!blocked_) return;
    sigset_t saved;
    std::memcpy(&saved, saved_, sizeof saved);
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}
#endif

}  // namespace zpdf::fs
