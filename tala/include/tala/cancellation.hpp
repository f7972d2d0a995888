// tala/cancellation.hpp: stopping a blocking call from another thread while it waits.
#pragma once

#include <cstdint>
#include <functional>

namespace tala {

// The calling thread's key for cancel_blocking_call: no two threads of the process ever share one.
std::uint64_t current_thread_key() noexcept;

class CancelScope;

// One call of a blocking function, made by a language runtime around the call on the calling
// thread. While it lives, cancel_blocking_call with this thread's key asks it to stop. Calls nest
// (a blocking function may call back into a language that calls another blocking function); a
// request reaches the innermost one. A request made to one call never reaches a later call.
class BlockingCall {
public:
    BlockingCall() noexcept;
    ~BlockingCall();
    BlockingCall(const BlockingCall&) = delete;
    BlockingCall& operator=(const BlockingCall&) = delete;

    // Whether the call was asked to stop; the runtime then reports the interruption, whatever
    // error the function gave for it.
    bool cancelled() const noexcept;

private:
    friend class CancelScope;
    friend struct BlockingThread;
    BlockingCall* outer_;
    CancelScope* scope_ = nullptr;  // the innermost wait that can be ended, or null
    bool cancelled_ = false;        // guarded by the thread's lock
};

// Made by a blocking function around a wait that `cancel` can end. While it lives, a request to
// stop the calling thread's blocking call runs `cancel` on the requesting thread; a request that
// came before the scope began runs it at once, here. `cancel` runs at most once, must make the
// wait end soon (the function then returns an error of its own), and may run at any moment of the
// scope: after the destructor it never runs, and a run in progress is waited for. Outside a
// BlockingCall the scope does nothing.
class CancelScope {
public:
    explicit CancelScope(std::function<void()> cancel);
    ~CancelScope();
    CancelScope(const CancelScope&) = delete;
    CancelScope& operator=(const CancelScope&) = delete;

    // Whether the blocking call was asked to stop (before or during the scope).
    bool cancelled() const noexcept;

private:
    friend struct BlockingThread;
    std::function<void()> cancel_;
    CancelScope* outer_ = nullptr;
    BlockingCall* call_ = nullptr;
    bool ran_ = false;  // guarded by the thread's lock
};

// What cancel_blocking_call found.
enum class CancelOutcome {
    NoCall,     // the thread runs no blocking call (or no such thread lives)
    Requested,  // the call was asked to stop; it has no wait that can be ended right now
    Cancelled,  // the call's cancel function ran
};

// From any thread: asks the blocking call running on the thread `threadKey` to stop.
CancelOutcome cancel_blocking_call(std::uint64_t threadKey);

}  // namespace tala
