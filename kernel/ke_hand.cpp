#include "kernel/hand.h"

#include "kernel/core.h"

namespace nt {

namespace {

struct Hand {
    bool open = false;
    HandWork* first = nullptr;
};

constinit thread_local Hand hand;

HandWork* takeFirst() {
    HandWork* work = hand.first;
    if (work != nullptr) {
        hand.first = work->next;
    }
    return work;
}

}  // namespace

HandScope::HandScope() { hand.open = !simulated(); }

HandScope::~HandScope() {
    hand.open = false;
    emptyHand();
}

void HandScope::work() {
    while (HandWork* work = takeFirst()) {
        work->work(*work);
    }
}

bool hasHand() { return hand.open; }

void leaveToHand(HandWork& work) {
    work.next = hand.first;
    hand.first = &work;
}

void emptyHand() {
    while (HandWork* work = takeFirst()) {
        work->handOver(*work);
    }
}

}  // namespace nt
