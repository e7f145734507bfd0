#include <array>
#include <atomic>
#include <cstring>
#include <memory>
#include <mutex>

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// The engine's locks. Recursive: the engine takes its allocation lock while it compares the keys
// of its store, and comparing two equal dictionaries can grow the document's cross-reference
// table, which allocates and takes that lock again on the same thread. An engine context without
// locks lets that pass; a plain mutex would wait for itself forever.
//
// The allocation lock guards reference counts and the store, which belong to one context; a
// document's context shares neither with the others, and one document is used by one thread at
// a time, so each context has an allocation lock of its own. One shared lock made every document
// of the process wait for every other one's allocations. The other locks guard what the engine
// keeps once per process (the font and image libraries are handed the context of the caller
// through a global), so they stay shared by every context.
struct ContextLocks {
    std::recursive_mutex allocation;
};
std::array<std::recursive_mutex, FZ_LOCK_MAX> g_shared_locks;

std::recursive_mutex& LockOf(void* user, int lock) {
    if (lock == FZ_LOCK_ALLOC) return static_cast<ContextLocks*>(user)->allocation;
    return g_shared_locks[static_cast<std::size_t>(lock)];
}
void LockEngine(void* user, int lock) {
    LockOf(user, lock).lock();
}
void UnlockEngine(void* user, int lock) {
    LockOf(user, lock).unlock();
}

ContextLocks g_process_locks;
fz_locks_context g_lock_context{&g_process_locks, LockEngine, UnlockEngine};

std::mutex g_start_mutex;
fz_context* g_process_context = nullptr;
std::atomic<DiagnosticSink> g_sink{nullptr};

void ForwardError(void* /*user*/, const char* message) {
    if (DiagnosticSink sink = g_sink.load()) sink(2, message);
}

void ForwardWarning(void* /*user*/, const char* message) {
    if (DiagnosticSink sink = g_sink.load()) sink(3, message);
}

void RouteDiagnostics(fz_context* ctx) {
    fz_set_error_callback(ctx, ForwardError, nullptr);
    fz_set_warning_callback(ctx, ForwardWarning, nullptr);
}

// Started at load time as well, so the first document does not pay for it.
const struct EagerStart {
    EagerStart() { StartProcessEngine(); }
} g_eager_start;

}  // namespace

void StartProcessEngine() {
    std::lock_guard guard(g_start_mutex);
    if (g_process_context != nullptr) return;
    fz_context* ctx = fz_new_context(nullptr, &g_lock_context, FZ_STORE_DEFAULT);
    if (ctx == nullptr) return;  // documents report the failure when they need the engine
    RouteDiagnostics(ctx);
    fz_try(ctx) {
        fz_register_document_handlers(ctx);
    }
    fz_catch(ctx) {
        fz_drop_context(ctx);
        return;
    }
    g_process_context = ctx;
}

void StopProcessEngine() {
    std::lock_guard guard(g_start_mutex);
    if (g_process_context == nullptr) return;
    fz_drop_context(g_process_context);
    g_process_context = nullptr;
}

void SetDiagnosticSink(DiagnosticSink sink) {
    g_sink.store(sink);
}

fz_context* ProcessContext() {
    StartProcessEngine();
    std::lock_guard guard(g_start_mutex);
    return g_process_context;
}

fz_context* NewDocumentContext() {
    if (ProcessContext() == nullptr)
        throw EngineError(ErrorCategory::Other, "the PDF engine could not start");
    auto locks = std::make_unique<ContextLocks>();
    const fz_locks_context callbacks{locks.get(), LockEngine, UnlockEngine};
    fz_context* ctx = fz_new_context(nullptr, &callbacks, FZ_STORE_DEFAULT);
    if (ctx == nullptr)
        throw EngineError(ErrorCategory::Other, "out of memory for an engine context");
    locks.release();  // DropDocumentContext frees it with the context
    RouteDiagnostics(ctx);
    return ctx;
}

void DropDocumentContext(fz_context* ctx) {
    if (ctx == nullptr) return;
    auto* locks = static_cast<ContextLocks*>(ctx->locks.user);
    fz_drop_context(ctx);
    delete locks;  // NOLINT(cppcoreguidelines-owning-memory): owned by the context until now
}

void ThrowCaught(fz_context* ctx, ErrorCategory category, const char* doing) {
    std::string what = doing;
    what += ": ";
    what += fz_caught_message(ctx);
    throw EngineError(category, what);
}

bool LooksLinearized(std::FILE* file) {
    // The linearization dictionary must be the first object, within the first 1024 bytes.
    char head[1024];
    std::rewind(file);
    const std::size_t got = std::fread(head, 1, sizeof head, file);
    std::rewind(file);
    const std::string_view text(head, got);
    const std::size_t obj = text.find("obj");
    if (obj == std::string_view::npos) return false;
    const std::size_t dict = text.find("<<", obj);
    if (dict == std::string_view::npos) return false;
    const std::size_t end = text.find(">>", dict);
    const std::size_t key = text.find("/Linearized", dict);
    return key != std::string_view::npos && (end == std::string_view::npos || key < end);
}

}  // namespace zpdf::engine
