// A matched transfer becomes a detour:
//
//   held --due: ended with its status--> completed by this backend's thread
//   held (delay) --due or at once (shorten)--> forwarded to the inner backend --> completed with it
//   held --cancel, leave, stop--> completed by this backend's thread
#include "usb/faulty.h"

#include <algorithm>

namespace usb {

FaultyBackend::FaultyBackend(std::shared_ptr<Backend> inner) : inner_(std::move(inner)) {
    KeInitializeEvent(&event_, SynchronizationEvent, FALSE);
    KeInitializeSpinLock(&lock_);
}

FaultyBackend::~FaultyBackend() { stop(); }

void FaultyBackend::add(const Fault& fault) {
    SpinGuard guard(lock_);
    faults_.push_back({fault, 0});
}

void FaultyBackend::clear() {
    SpinGuard guard(lock_);
    faults_.clear();
}

std::uint64_t FaultyBackend::applied() const {
    SpinGuard guard(lock_);
    return applied_;
}

bool FaultyBackend::start(BackendEvents& events) {
    if (thread_.joinable()) return false;
    events_ = &events;
    leaving_ = goneTold_ = stopping_ = false;
    if (!inner_->start(*this)) return false;
    thread_.start("usb faults", [this] { run(); });
    return true;
}

void FaultyBackend::stop() {
    if (!thread_.joinable()) return;
    inner_->stop();
    {
        SpinGuard guard(lock_);
        stopping_ = true;
    }
    KeSetEvent(&event_, 0, FALSE);
    thread_.join();
}

const Fault* FaultyBackend::match(const Transfer& transfer) {
    const bool control = transfer.type == TransferType::control;
    for (Armed& armed : faults_) {
        const Fault& fault = armed.fault;
        if (fault.type && *fault.type != transfer.type) continue;
        if (fault.endpoint && *fault.endpoint != transfer.endpoint) continue;
        if (fault.request && (!control || *fault.request != transfer.setup.request)) continue;
        if (fault.requestType && (!control || *fault.requestType != transfer.setup.requestType)) continue;
        const unsigned count = ++armed.seen;
        if (count < fault.nth || (fault.times != 0 && count >= fault.nth + fault.times)) continue;
        return &fault;
    }
    return nullptr;
}

void FaultyBackend::submit(Transfer* transfer) {
    {
        SpinGuard guard(lock_);
        const Fault* const fault = leaving_ ? nullptr : match(*transfer);
        if (fault == nullptr && !leaving_) {
            inner_->submit(transfer);
            return;
        }
        auto detour = std::make_unique<Detour>();
        detour->outer = transfer;
        detour->owner = this;
        if (fault != nullptr) {
            ++applied_;
            detour->fault = *fault;
            leaving_ = fault->action == Fault::Action::leave;
        }
        detour->dueTime = KeQueryInterruptTime() + std::uint64_t{detour->fault.delayMs} * 10000;
        transfer->actual = 0;
        if (detour->fault.action == Fault::Action::shorten) forward(*detour);
        detours_.push_back(std::move(detour));
    }
    KeSetEvent(&event_, 0, FALSE);
}

void FaultyBackend::forward(Detour& detour) {
    const Transfer& outer = *detour.outer;
    detour.inner.endpoint = outer.endpoint;
    detour.inner.type = outer.type;
    detour.inner.setup = outer.setup;
    detour.inner.data = outer.data;
    detour.inner.length = outer.length;
    detour.inner.complete = innerDone;
    detour.inner.context = &detour;
    detour.forwarded = true;
    inner_->submit(&detour.inner);
}

void FaultyBackend::cancel(Transfer* transfer) {
    {
        SpinGuard guard(lock_);
        const auto found = std::find_if(detours_.begin(), detours_.end(),
                                        [transfer](const auto& known) { return known->outer == transfer; });
        if (found == detours_.end()) return inner_->cancel(transfer);
        Detour* const detour = found->get();
        if (detour->forwarded) return inner_->cancel(&detour->inner);
        detour->cancelled = true;
    }
    KeSetEvent(&event_, 0, FALSE);
}

void FaultyBackend::innerDone(Transfer* transfer) {
    auto* const detour = static_cast<Detour*>(transfer->context);
    FaultyBackend& owner = *detour->owner;
    Transfer* const outer = detour->outer;
    outer->status = transfer->status;
    outer->actual = transfer->actual;
    if (detour->fault.action == Fault::Action::shorten) outer->actual = std::min(outer->actual, detour->fault.length);
    {
        SpinGuard guard(owner.lock_);
        std::erase_if(owner.detours_, [detour](const auto& known) { return known.get() == detour; });
    }
    outer->complete(outer);
}

void FaultyBackend::gone() {
    {
        SpinGuard guard(lock_);
        if (goneTold_) return;
        goneTold_ = leaving_ = true;
    }
    KeSetEvent(&event_, 0, FALSE);
    events_->gone();
}

bool FaultyBackend::endsNow(const Detour& detour) {
    return detour.cancelled || detour.owner->leaving_ || detour.owner->stopping_ ||
           detour.fault.action == Fault::Action::end;
}

// Takes out what ends now, sends on what was delayed long enough, and says when to look again.
void FaultyBackend::collectDue(Detours& ended, std::uint64_t now, std::uint64_t& next) {
    for (auto at = detours_.begin(); at != detours_.end();) {
        Detour& detour = **at;
        const auto following = std::next(at);
        if (!detour.forwarded) {
            if (endsNow(detour)) {
                const bool lost = leaving_ || stopping_;
                detour.outer->status = detour.cancelled ? TransferStatus::cancelled
                                       : lost           ? TransferStatus::gone
                                                        : detour.fault.status;
                ended.splice(ended.end(), detours_, at);
            } else if (detour.fault.action == Fault::Action::delay) {
                if (detour.dueTime <= now) {
                    forward(detour);
                } else {
                    next = std::min(next, detour.dueTime);
                }
            }
        }
        at = following;
    }
}

void FaultyBackend::run() {
    for (;;) {
        Detours ended;
        std::uint64_t next = UINT64_MAX;
        const std::uint64_t now = KeQueryInterruptTime();
        bool stopping;
        bool tellGone;
        {
            SpinGuard guard(lock_);
            stopping = stopping_;
            collectDue(ended, now, next);
            tellGone = leaving_ && !goneTold_;
            goneTold_ |= tellGone;
        }
        for (const auto& detour : ended) detour->outer->complete(detour->outer);
        if (tellGone) events_->gone();
        if (stopping) return;
        LARGE_INTEGER timeout;
        timeout.QuadPart = -static_cast<LONGLONG>(next - now);
        KeWaitForSingleObject(&event_, Executive, KernelMode, FALSE, next == UINT64_MAX ? nullptr : &timeout);
    }
}

}  // namespace usb
