#include "comport/port_file.h"

#include <ntddser.h>

#include <thread>
#include <utility>

namespace comport {

PortFile::PortFile(std::string portName, PortLease& lease, Wake wake, void* context)
    : name_("\\DosDevices\\" + std::move(portName)), lease_(lease), wake_(wake), context_(context) {}

PortFile::~PortFile() {
    while (callsInside_.load(std::memory_order_acquire) != 0) {
        std::this_thread::yield();
    }
}

bool PortFile::open() {
    if (!lease_.take(this)) {
        return false;
    }
    bool opened = NT_SUCCESS(file_.open(name_));
    if (opened) {
        lease_.lend(file_);
    } else {
        lease_.give(this);
    }
    return opened;
}

void PortFile::close() {
    lease_.withdraw();
    file_.close();
    lease_.give(this);
}

void PortFile::ended(nt::Request& request, void* context) {
    Transfer& transfer = *static_cast<Transfer*>(context);
    transfer.status = request.status();
    transfer.moved = request.information();
    PortFile* self = transfer.port;
    self->callsInside_.fetch_add(1, std::memory_order_relaxed);
    // The owner may issue the transfer again, or go, as soon as it sees this.
    transfer.ended.store(true, std::memory_order_release);
    self->wake_(self->context_);
    self->callsInside_.fetch_sub(1, std::memory_order_release);
}

nt::Request& PortFile::prepare(Transfer& transfer) {
    transfer.port = this;
    transfer.request.setCompletion(ended, &transfer);
    return transfer.request;
}

void PortFile::read(Transfer& transfer) {
    file_.read(prepare(transfer), transfer.data.data() + transfer.offset,
               static_cast<ULONG>(transfer.length - transfer.offset));
}

void PortFile::write(Transfer& transfer) {
    file_.write(prepare(transfer), transfer.data.data() + transfer.offset,
                static_cast<ULONG>(transfer.length - transfer.offset));
}

void PortFile::flush(Transfer& transfer) {
    file_.flush(prepare(transfer));
}

void PortFile::control(Transfer& transfer, ULONG code) {
    file_.control(prepare(transfer), code, transfer.data.data(), static_cast<ULONG>(transfer.length), nullptr, 0);
}

void PortFile::query(Transfer& transfer, ULONG code) {
    file_.control(prepare(transfer), code, nullptr, 0, transfer.data.data(), static_cast<ULONG>(transfer.length));
}

void PortFile::readHeldBack() {
    lease_.heldBackReads.fetch_add(1, std::memory_order_relaxed);
}

void PortFile::purge(ULONG mask) {
    file_.control(IOCTL_SERIAL_PURGE, &mask, sizeof(mask));
}

}  // namespace comport
