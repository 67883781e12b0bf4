// A listener on the bus that checks what it is owed: each transfer that leaves comes back once, at the latest when the listener
// ends, and with the device it left with. It must be there before the bus and after it.
#pragma once

#include "usb/tap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace test {

class TapCheck final : public usb::Tap {
public:
    struct Seen {
        unsigned device;
        std::uint8_t endpoint;
        std::string data;  // as it left, or came
        usb::TransferStatus status = usb::TransferStatus::ok;
        bool over = false;
    };

    ~TapCheck() {
        for (const Seen& one : seen) EXPECT_TRUE(one.over) << "endpoint " << unsigned{one.endpoint};
    }

    void submitted(unsigned device, usb::Transfer& transfer) override {
        seen.push_back({device, transfer.endpoint, transfer.isIn() ? "" : text(transfer, transfer.length)});
        transfer.tapTag = seen.size();
    }
    void completed(unsigned device, const usb::Transfer& transfer) override {
        ASSERT_TRUE(transfer.tapTag >= 1 && transfer.tapTag <= seen.size());
        Seen& one = seen[transfer.tapTag - 1];
        EXPECT_FALSE(one.over);
        EXPECT_EQ(one.device, device);
        one.over = true;
        one.status = transfer.status;
        if (transfer.isIn()) {
            one.data = text(transfer, transfer.actual);
        } else if (transfer.status == usb::TransferStatus::ok) {
            EXPECT_EQ(one.data, text(transfer, transfer.actual)) << "the data is still there";
        }
    }

    // What went over an endpoint.
    std::string all(std::uint8_t endpoint) const {
        std::string result;
        for (const Seen& one : seen) {
            if (one.endpoint == endpoint) result += one.data;
        }
        return result;
    }
    std::size_t count(usb::TransferStatus status) const {
        return static_cast<std::size_t>(std::count_if(seen.begin(), seen.end(), [&](const Seen& one) { return one.status == status; }));
    }

    std::vector<Seen> seen;

private:
    static std::string text(const usb::Transfer& transfer, std::uint32_t length) {
        return length == 0 ? std::string() : std::string(reinterpret_cast<const char*>(transfer.data), length);
    }
};

}  // namespace test
