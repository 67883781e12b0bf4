// The serial port of the tests of the bridge and of its network clients.
#pragma once

#include <gtest/gtest.h>

#include <ntddser.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "comport/bridge.h"

namespace test {

// Takes writes and fills reads oldest first, as a driver does. Its modem may be away, take bytes when told only, or refuse its lines.
// `log` holds what reached it in its order: bytes as they are, a control in angle brackets.
struct FakePort : comport::Port {
    using Transfer = comport::Transfer;
    using Queue = std::deque<Transfer*>;

    bool present = true;
    bool opened = false;
    bool stalled = false;  // takes what takeBytes() says
    bool refusesLines = false;
    bool logsFlushes = true;
    bool delayNews = false;
    std::string log;
    ULONG baud = 9600;
    SERIAL_LINE_CONTROL line = {STOP_BIT_1, NO_PARITY, 8};
    ULONG raised = 0;
    ULONG modemStatus = 0;
    ULONG mask = 0;
    unsigned heldBack = 0;
    Transfer* wait = nullptr;
    Queue reads, writes, flushes;
    std::size_t headTaken = 0;
    std::vector<Transfer*> unseen;  // ended, and the news of it still on its way

    void end(Transfer& transfer, NTSTATUS status, std::size_t moved = 0) {
        transfer.status = status;
        transfer.moved = moved;
        if (delayNews) {
            unseen.push_back(&transfer);
        } else {
            transfer.ended = true;
        }
    }
    static void refuse(Transfer& transfer) {
        transfer.status = STATUS_UNSUCCESSFUL;
        transfer.moved = 0;
        transfer.ended = true;
    }
    void endWrites(NTSTATUS status) {
        for (; !writes.empty(); writes.pop_front()) {
            end(*writes.front(), status, std::exchange(headTaken, 0));
        }
    }
    void endAll(NTSTATUS status) {
        endWrites(status);
        for (Queue* queue : {&reads, &flushes}) {
            for (; !queue->empty(); queue->pop_front()) {
                end(*queue->front(), status);
            }
        }
        endWait(0, status);
    }
    void endWait(ULONG events, NTSTATUS status = STATUS_SUCCESS) {
        if (Transfer* transfer = std::exchange(wait, nullptr)) {
            std::memcpy(transfer->data.data(), &events, sizeof(events));
            end(*transfer, status, sizeof(events));
        }
    }
    // The news of a failure are not on their way for long: nothing is issued meanwhile.
    void unplug() {
        present = false;
        raised = 0;
        endAll(STATUS_DEVICE_REMOVED);
        deliverNews();
    }
    void deliverNews() {
        for (Transfer* transfer : std::exchange(unseen, {})) {
            transfer->ended = true;
        }
    }
    void takeBytes(std::size_t count) {
        while (!writes.empty() && count > 0) {
            Transfer& head = *writes.front();
            std::size_t whole = head.length - head.offset;
            std::size_t length = std::min(count, whole - headTaken);
            const std::uint8_t* from = head.data.data() + head.offset + headTaken;
            log.append(from, from + length);
            count -= length;
            headTaken += length;
            if (headTaken == whole) {
                writes.pop_front();
                headTaken = 0;
                end(head, STATUS_SUCCESS, whole);
            }
        }
        for (; writes.empty() && !flushes.empty(); flushes.pop_front()) {
            log += logsFlushes ? "<flush>" : "";
            end(*flushes.front(), STATUS_SUCCESS);
        }
    }
    void serve() { takeBytes(stalled ? 0 : SIZE_MAX); }
    bool feed(const std::string& bytes) {
        if (reads.empty()) {
            return false;
        }
        std::ranges::copy(bytes, reads.front()->data.begin());
        end(*reads.front(), STATUS_SUCCESS, bytes.size());
        reads.pop_front();
        return true;
    }
    void setModemLines(ULONG status) {
        ULONG events = 0;
        ULONG changed = status ^ modemStatus;
        events |= changed & SERIAL_CTS_STATE ? SERIAL_EV_CTS : 0;
        events |= changed & SERIAL_DSR_STATE ? SERIAL_EV_DSR : 0;
        events |= changed & SERIAL_DCD_STATE ? SERIAL_EV_RLSD : 0;
        events |= changed & SERIAL_RI_STATE ? SERIAL_EV_RING : 0;
        modemStatus = status;
        if (events & mask) {
            endWait(events & mask);
        }
    }

    bool open() override {
        opened = present;
        return present;
    }
    void close() override {
        log += "<close>";
        opened = false;
        endAll(STATUS_CANCELLED);
    }
    void issue(Queue& queue, Transfer& transfer) {
        EXPECT_TRUE(opened);
        if (present) {
            queue.push_back(&transfer);
        } else {
            refuse(transfer);
        }
        serve();
    }
    void read(Transfer& transfer) override { issue(reads, transfer); }
    void write(Transfer& transfer) override { issue(writes, transfer); }
    void flush(Transfer& transfer) override {
        flushes.push_back(&transfer);
        serve();
    }
    void readHeldBack() override { ++heldBack; }
    void purge(ULONG purged) override {
        log += "<purge " + std::to_string(purged) + ">";
        if (purged & SERIAL_PURGE_TXABORT) {
            endWrites(STATUS_CANCELLED);
        }
        serve();
    }
    static ULONG numberIn(const Transfer& transfer) {
        ULONG number = 0;
        std::memcpy(&number, transfer.data.data(), std::min(sizeof(number), transfer.length));
        return number;
    }
    bool setLine(ULONG bit, bool up, const char* name) {
        raised = up ? raised | bit : raised & ~bit;
        log += name;
        return !refusesLines;
    }
    bool carryOut(Transfer& transfer, ULONG code) {
        switch (code) {
        case IOCTL_SERIAL_SET_TIMEOUTS: log += "<timeouts>"; return true;
        case IOCTL_SERIAL_SET_BAUD_RATE:
            baud = numberIn(transfer);
            log += "<baud " + std::to_string(baud) + ">";
            return true;
        case IOCTL_SERIAL_SET_LINE_CONTROL:
            std::memcpy(&line, transfer.data.data(), sizeof(line));
            log += "<" + std::to_string(line.WordLength) + "NOEMS"[line.Parity] + std::to_string(line.StopBits) + ">";
            return true;
        case IOCTL_SERIAL_SET_HANDFLOW: log += "<flow " + std::to_string(numberIn(transfer)) + ">"; return true;
        case IOCTL_SERIAL_SET_DTR: return setLine(SERIAL_DTR_STATE, true, "<+dtr>");
        case IOCTL_SERIAL_CLR_DTR: return setLine(SERIAL_DTR_STATE, false, "<-dtr>");
        case IOCTL_SERIAL_SET_RTS: return setLine(SERIAL_RTS_STATE, true, "<+rts>");
        case IOCTL_SERIAL_CLR_RTS: return setLine(SERIAL_RTS_STATE, false, "<-rts>");
        case IOCTL_SERIAL_SET_BREAK_ON: return setLine(0, true, "<+break>");
        case IOCTL_SERIAL_SET_BREAK_OFF: return setLine(0, false, "<-break>");
        case IOCTL_SERIAL_SET_WAIT_MASK:
            mask = numberIn(transfer);
            endWait(0);
            return true;
        default: log += "<?>"; return true;
        }
    }
    void control(Transfer& transfer, ULONG code) override {
        bool good = present && carryOut(transfer, code);
        end(transfer, good ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL);
    }
    void query(Transfer& transfer, ULONG code) override {
        if (!present || (refusesLines && code == IOCTL_SERIAL_GET_DTRRTS)) {
            end(transfer, STATUS_UNSUCCESSFUL);
            return;
        }
        auto answer = [&](const auto& value) {
            std::memcpy(transfer.data.data(), &value, sizeof(value));
            end(transfer, STATUS_SUCCESS, sizeof(value));
        };
        switch (code) {
        case IOCTL_SERIAL_GET_BAUD_RATE: answer(baud); break;
        case IOCTL_SERIAL_GET_LINE_CONTROL: answer(line); break;
        case IOCTL_SERIAL_GET_DTRRTS: answer(raised); break;
        case IOCTL_SERIAL_GET_MODEMSTATUS: answer(modemStatus); break;
        case IOCTL_SERIAL_WAIT_ON_MASK: wait = &transfer; break;
        default: end(transfer, STATUS_INVALID_PARAMETER);
        }
    }
};

}  // namespace test
