// tala/src/cancellation.cpp: stopping a blocking call from another thread while it waits.
#include "tala/cancellation.hpp"

#include <atomic>
#include <mutex>
#include <unordered_map>

namespace tala {

// What other threads reach of one thread: its innermost blocking call. `lock` guards the chain
// of calls and scopes and their flags; the record is listed in the registry while the thread
// lives and it has made a call.
struct BlockingThread {
    std::mutex lock;
    BlockingCall* innermost = nullptr;
    std::uint64_t key = current_thread_key();
    bool listed = false;

    BlockingThread& listedSelf();
    ~BlockingThread();

    // Asks this thread's innermost call to stop; the thread's lock is held.
    CancelOutcome cancelLocked() {
        BlockingCall* call = innermost;
        if (call == nullptr) return CancelOutcome::NoCall;
        call->cancelled_ = true;
        CancelScope* scope = call->scope_;
        if (scope == nullptr || scope->ran_ || !scope->cancel_) return CancelOutcome::Requested;
        scope->ran_ = true;
        scope->cancel_();
        return CancelOutcome::Cancelled;
    }
};

namespace {

// Thread key -> its record. `mutex` guards the map and is held while a record found in it is
// used, so that its thread cannot unlist and destroy it meanwhile. Never destroyed: threads may
// end after static destruction began.
struct Registry {
    std::mutex mutex;
    std::unordered_map<std::uint64_t, BlockingThread*> threads;
};

Registry& registry() {
    static auto* instance = new Registry();
    return *instance;
}

thread_local BlockingThread t_thread;

}  // namespace

BlockingThread& BlockingThread::listedSelf() {
    if (!listed) {
        std::lock_guard guard(registry().mutex);
        registry().threads[key] = this;
        listed = true;
    }
    return *this;
}

BlockingThread::~BlockingThread() {
    if (!listed) return;
    std::lock_guard guard(registry().mutex);
    registry().threads.erase(key);
}

std::uint64_t current_thread_key() noexcept {
    // Numbered in the order threads first ask: never reused, unlike native thread handles.
    static std::atomic<std::uint64_t> next{1};
    thread_local const std::uint64_t key = next.fetch_add(1, std::memory_order_relaxed);
    return key;
}

BlockingCall::BlockingCall() noexcept {
    BlockingThread& thread = t_thread.listedSelf();
    std::lock_guard guard(thread.lock);
    outer_ = thread.innermost;
    thread.innermost = this;
}

BlockingCall::~BlockingCall() {
    std::lock_guard guard(t_thread.lock);
    t_thread.innermost = outer_;
}

bool BlockingCall::cancelled() const noexcept {
    std::lock_guard guard(t_thread.lock);
    return cancelled_;
}

CancelScope::CancelScope(std::function<void()> cancel) : cancel_(std::move(cancel)) {
    std::lock_guard guard(t_thread.lock);
    call_ = t_thread.innermost;
    if (call_ == nullptr) return;
    outer_ = call_->scope_;
    call_->scope_ = this;
    // Asked before the wait began: the wait ends as soon as it starts.
    if (call_->cancelled_ && cancel_) {
        ran_ = true;
        cancel_();
    }
}

CancelScope::~CancelScope() {
    // A cancel that runs right now holds the lock: taking it waits for the run to end.
    std::lock_guard guard(t_thread.lock);
    if (call_ != nullptr) call_->scope_ = outer_;
}

bool CancelScope::cancelled() const noexcept {
    std::lock_guard guard(t_thread.lock);
    return call_ != nullptr && call_->cancelled_;
}

CancelOutcome cancel_blocking_call(std::uint64_t threadKey) {
    std::lock_guard guard(registry().mutex);
    auto found = registry().threads.find(threadKey);
    if (found == registry().threads.end()) return CancelOutcome::NoCall;
    std::lock_guard threadGuard(found->second->lock);
    return found->second->cancelLocked();
}

}  // namespace tala
