// Requests on their way down and up, cancellation, files and the lives of device objects, against a driver of two layers.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "kernel/executive.h"
#include "kernel/file.h"
#include "kernel/thread.h"
#include "kernel/work.h"

namespace {

using Dispatch = std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)>;

// What the test's driver does with a request, by layer and major function; anything else succeeds.
struct Script {
    Dispatch lower[IRP_MJ_MAXIMUM_FUNCTION + 1];
    Dispatch upper[IRP_MJ_MAXIMUM_FUNCTION + 1];
    std::function<NTSTATUS(PDEVICE_OBJECT, PIRP)> completion;
    std::vector<std::string> log;
    PDEVICE_OBJECT lowerDevice = nullptr;
    PDEVICE_OBJECT upperDevice = nullptr;
    LIST_ENTRY reads{};
    KSPIN_LOCK lock{};
};

Script* script;

NTSTATUS complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0) {
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS dispatch(PDEVICE_OBJECT device, PIRP irp) {
    UCHAR major = IoGetCurrentIrpStackLocation(irp)->MajorFunction;
    const Dispatch& routine = (device == script->upperDevice ? script->upper : script->lower)[major];
    if (routine) {
        return routine(device, irp);
    }
    if (device == script->upperDevice) {
        IoSkipCurrentIrpStackLocation(irp);
        return IoCallDriver(script->lowerDevice, irp);
    }
    return complete(irp, STATUS_SUCCESS);
}

NTSTATUS completed(PDEVICE_OBJECT device, PIRP irp, PVOID) { return script->completion(device, irp); }

NTSTATUS entry(PDRIVER_OBJECT driver, PUNICODE_STRING) {
    for (auto& major : driver->MajorFunction) {
        major = dispatch;
    }
    UNICODE_STRING name, link;
    RtlInitUnicodeString(&name, u"\\Device\\Test0");
    RtlInitUnicodeString(&link, u"\\DosDevices\\TEST");
    EXPECT_EQ(IoCreateDevice(driver, 64, &name, FILE_DEVICE_UNKNOWN, 0, FALSE, &script->lowerDevice), STATUS_SUCCESS);
    script->lowerDevice->Flags |= DO_BUFFERED_IO;
    InitializeListHead(&script->reads);
    KeInitializeSpinLock(&script->lock);
    return IoCreateSymbolicLink(&link, &name);
}

void addUpper() {
    PDEVICE_OBJECT lower = script->lowerDevice;
    ASSERT_EQ(IoCreateDevice(lower->DriverObject, 0, nullptr, FILE_DEVICE_UNKNOWN, 0, FALSE, &script->upperDevice), 0);
    script->upperDevice->Flags |= DO_BUFFERED_IO;
    ASSERT_EQ(IoAttachDeviceToDeviceStack(script->upperDevice, lower), lower);
}

// One system with the driver loaded; nothing may be left behind.
class System {
public:
    explicit System(std::uint64_t seed = 1) : exec_({.mode = nt::Mode::simulated, .seed = seed}) {
        script = &script_;
        EXPECT_EQ(exec_.loadDriver("test", entry), STATUS_SUCCESS);
    }
    ~System() {
        file_.close();
        UNICODE_STRING link;
        RtlInitUnicodeString(&link, u"\\??\\TEST");
        IoDeleteSymbolicLink(&link);
        if (script_.upperDevice) {
            IoDetachDevice(script_.lowerDevice);
            IoDeleteDevice(script_.upperDevice);
        }
        if (script_.lowerDevice) {
            IoDeleteDevice(script_.lowerDevice);
        }
        for (const std::string& line : exec_.stop().lines) {
            ADD_FAILURE() << "left: " << line;
        }
    }

    nt::File& open() {
        EXPECT_EQ(file_.open("\\DosDevices\\TEST"), STATUS_SUCCESS);
        return file_;
    }

private:
    nt::Executive exec_;
    Script script_;
    nt::File file_;
};

NTSTATUS down(PDEVICE_OBJECT, PIRP irp, bool onSuccess = true, bool onError = true, bool onCancel = true) {
    IoCopyCurrentIrpStackLocationToNext(irp);
    IoSetCompletionRoutine(irp, completed, nullptr, onSuccess, onError, onCancel);
    return IoCallDriver(script->lowerDevice, irp);
}

// Reads that wait in a list with a cancel routine, as drivers do it.
VOID cancelRead(PDEVICE_OBJECT, PIRP irp) {
    IoReleaseCancelSpinLock(irp->CancelIrql);
    KIRQL irql;
    KeAcquireSpinLock(&script->lock, &irql);
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&script->lock, irql);
    complete(irp, STATUS_CANCELLED);
}

NTSTATUS queueRead(PDEVICE_OBJECT, PIRP irp) {
    KIRQL irql;
    KeAcquireSpinLock(&script->lock, &irql);
    IoSetCancelRoutine(irp, cancelRead);
    if (irp->Cancel && IoSetCancelRoutine(irp, nullptr)) {
        KeReleaseSpinLock(&script->lock, irql);
        return complete(irp, STATUS_CANCELLED);
    }
    IoMarkIrpPending(irp);
    InsertTailList(&script->reads, &irp->Tail.Overlay.ListEntry);
    KeReleaseSpinLock(&script->lock, irql);
    return STATUS_PENDING;
}

// Completes the oldest read the cancel routine has not taken; with the lock held when asked to.
bool completeRead(bool underLock = false) {
    KIRQL irql;
    KeAcquireSpinLock(&script->lock, &irql);
    PIRP found = nullptr;
    for (PLIST_ENTRY e = script->reads.Flink; e != &script->reads && !found; e = e->Flink) {
        PIRP irp = CONTAINING_RECORD(e, IRP, Tail.Overlay.ListEntry);
        if (IoSetCancelRoutine(irp, nullptr)) {
            found = irp;
        }
    }
    if (found) {
        RemoveEntryList(&found->Tail.Overlay.ListEntry);
        std::memcpy(found->AssociatedIrp.SystemBuffer, "data", 4);
        if (underLock) {
            complete(found, STATUS_SUCCESS, 4);
        }
    }
    KeReleaseSpinLock(&script->lock, irql);
    if (found && !underLock) {
        complete(found, STATUS_SUCCESS, 4);
    }
    return found != nullptr;
}

// A read, its memory, and what its end leads to.
struct Reading {
    explicit Reading(nt::File& f, std::function<void()> t = nullptr) : file(f), then(std::move(t)) { start(); }
    void start() { file.read(request, buffer, sizeof buffer); }
    static void done(nt::Request&, void* context) {
        auto self = static_cast<Reading*>(context);
        ++self->calls;
        if (self->then) {
            self->then();
        }
    }
    nt::File& file;
    std::function<void()> then;
    char buffer[4];
    int calls = 0;
    nt::Request request{done, this};
};

TEST(KernelIo, CompletionRoutinesRunForTheOutcomesTheyAskedFor) {
    struct {
        bool success, error, cancel, cancelled;
        NTSTATUS status;
        bool called;
    } table[] = {
        {true, false, false, false, STATUS_SUCCESS, true},    {false, true, true, false, STATUS_SUCCESS, false},
        {false, true, false, false, STATUS_UNSUCCESSFUL, true}, {true, false, false, false, STATUS_UNSUCCESSFUL, false},
        {false, false, true, true, STATUS_CANCELLED, true},   {false, false, true, false, STATUS_CANCELLED, false},
        {false, true, false, false, STATUS_BUFFER_OVERFLOW, true},
    };
    for (const auto& row : table) {
        System system;
        addUpper();
        bool called = false;
        script->upper[IRP_MJ_FLUSH_BUFFERS] = [&](PDEVICE_OBJECT device, PIRP irp) {
            return down(device, irp, row.success, row.error, row.cancel);
        };
        script->lower[IRP_MJ_FLUSH_BUFFERS] = [&](PDEVICE_OBJECT, PIRP irp) {
            if (row.cancelled) {
                IoCancelIrp(irp);
            }
            return complete(irp, row.status);
        };
        script->completion = [&](PDEVICE_OBJECT device, PIRP) {
            EXPECT_EQ(device, script->upperDevice);
            called = true;
            return STATUS_SUCCESS;
        };
        nt::File& file = system.open();
        EXPECT_EQ(file.flush().status, row.status);
        EXPECT_EQ(called, row.called);
    }
}

TEST(KernelIo, BufferedOutputFollowsTheStatus) {
    struct {
        NTSTATUS status;
        ULONG_PTR information;
        const char* seen;
    } table[] = {{STATUS_SUCCESS, 4, "data??"},
                 {STATUS_SUCCESS, 2, "da????"},
                 {STATUS_BUFFER_OVERFLOW, 3, "dat???"},
                 {STATUS_UNSUCCESSFUL, 4, "??????"},
                 {STATUS_SUCCESS, 0, "??????"}};
    for (const auto& row : table) {
        System system;
        script->lower[IRP_MJ_DEVICE_CONTROL] = [&](PDEVICE_OBJECT, PIRP irp) {
            EXPECT_EQ(std::memcmp(irp->AssociatedIrp.SystemBuffer, "in", 2), 0);
            std::memcpy(irp->AssociatedIrp.SystemBuffer, "data", 4);
            return complete(irp, row.status, row.information);
        };
        nt::File& file = system.open();
        char output[] = "??????";
        nt::IoResult result = file.control(CTL_CODE(FILE_DEVICE_UNKNOWN, 1, METHOD_BUFFERED, 0), "in", 2, output, 6);
        EXPECT_EQ(result.status, row.status);
        EXPECT_STREQ(output, row.seen);
    }
}

TEST(KernelIo, ACompletionUnderADriversLockMaySendTheNextRequest) {
    System system;
    script->lower[IRP_MJ_READ] = queueRead;
    Reading read(system.open(), [&read] {
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        if (read.calls < 3) {
            read.start();
        }
    });
    while (completeRead(true)) {
    }
    EXPECT_EQ(read.calls, 3);
}

TEST(KernelIo, CancellationAndCompletionShareOutTheRequest) {
    int cancelled = 0;
    int ended = 0;
    for (std::uint64_t seed = 1; seed <= 500; ++seed) {
        System system(seed);
        script->lower[IRP_MJ_READ] = queueRead;
        nt::File& file = system.open();
        Reading first(file);
        nt::Thread canceller("canceller", [&] {
            file.cancel(first.request);
            file.cancelAll();
        });
        nt::Thread completer("completer", [&] {
            completeRead();
            completeRead();
        });
        Reading second(file);
        canceller.join();
        completer.join();
        file.cancelAll();
        for (Reading* one : {&first, &second}) {
            ASSERT_EQ(one->calls, 1) << "seed " << seed;
            bool wasCancelled = one->request.status() == STATUS_CANCELLED;
            ASSERT_TRUE(wasCancelled || one->request.information() == 4) << "seed " << seed;
            (wasCancelled ? cancelled : ended) += 1;
        }
    }
    EXPECT_GT(cancelled, 50);
    EXPECT_GT(ended, 50);
}

TEST(KernelIo, AFileClosesWhenItsLastRequestHasEnded) {
    System system;
    script->lower[IRP_MJ_READ] = queueRead;
    for (UCHAR major : {IRP_MJ_CLEANUP, IRP_MJ_CLOSE}) {
        script->lower[major] = [major](PDEVICE_OBJECT, PIRP irp) {
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            script->log.push_back(major == IRP_MJ_CLOSE ? "close" : "cleanup");
            return complete(irp, STATUS_SUCCESS);
        };
    }
    nt::File& file = system.open();
    Reading read(file);
    file.close();
    EXPECT_EQ(script->log, std::vector<std::string>{"cleanup"});
    EXPECT_TRUE(completeRead());
    nt::flushWork();
    EXPECT_EQ(read.calls, 1);
    EXPECT_EQ(script->log, (std::vector<std::string>{"cleanup", "close"}));
    EXPECT_EQ(file.write("x", 1).status, STATUS_FILE_CLOSED);
}

TEST(KernelIo, ADeletedDeviceLivesUntilItsWorkIsDone) {
    System system;
    PDEVICE_OBJECT device = std::exchange(script->lowerDevice, nullptr);
    std::memset(device->DeviceExtension, 0x5a, 64);
    PIO_WORKITEM item = IoAllocateWorkItem(device);
    bool intact = false;
    IoQueueWorkItem(
        item,
        [](PDEVICE_OBJECT served, PVOID context) {
            *static_cast<bool*>(context) = static_cast<UCHAR*>(served->DeviceExtension)[63] == 0x5a;
        },
        DelayedWorkQueue, &intact);
    IoDeleteDevice(device);
    nt::flushWork();
    EXPECT_TRUE(intact);
    IoFreeWorkItem(item);
}

void readOnce(System& system) {
    char buffer[8];
    system.open().read(buffer, sizeof buffer);
}

// The read is still outstanding when this returns.
void readAndForget(System& system) {
    Reading read(system.open());
}

void readThroughUpper(System& system) {
    addUpper();
    script->upper[IRP_MJ_READ] = [](PDEVICE_OBJECT device, PIRP irp) { return down(device, irp); };
    script->completion = [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; };
    Reading read(system.open());
    completeRead();
}

void requestPower(System&) {
    PoRequestPowerIrp(script->lowerDevice, IRP_MN_SET_POWER, {.DeviceState = PowerDeviceD2}, nullptr, nullptr, nullptr);
}

// What a driver must not do, the rule that says so, and what leads to it.
struct Offence {
    const char* name;
    const char* rule;
    NTSTATUS (*act)(PDEVICE_OBJECT device, PIRP irp);
    void (*scene)(System& system) = readOnce;
};

const Offence offences[] = {
    {"CompletesTwice", "I1",
     [](PDEVICE_OBJECT, PIRP irp) {
         complete(irp, STATUS_SUCCESS);
         return complete(irp, STATUS_SUCCESS);
     }},
    {"CompletesWithPending", "I2", [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_PENDING); }},
    {"LeavesItsCancelRoutine", "I3",
     [](PDEVICE_OBJECT, PIRP irp) {
         IoSetCancelRoutine(irp, cancelRead);
         return complete(irp, STATUS_SUCCESS);
     }},
    {"ForwardsWithACancelRoutine", "I4",
     [](PDEVICE_OBJECT device, PIRP irp) {
         IoSetCancelRoutine(irp, cancelRead);
         IoSkipCurrentIrpStackLocation(irp);
         return IoCallDriver(device, irp);
     }},
    {"RunsOutOfLocations", "I5",
     [](PDEVICE_OBJECT device, PIRP irp) {
         return IoCallDriver(device, irp);
     }},
    {"MarksPendingAndReturnsOtherwise", "I8",
     [](PDEVICE_OBJECT, PIRP irp) {
         IoMarkIrpPending(irp);
         return complete(irp, STATUS_SUCCESS);
     }},
    {"ReturnsPendingUnmarked", "I8",
     [](PDEVICE_OBJECT, PIRP irp) {
         complete(irp, STATUS_SUCCESS);
         return STATUS_PENDING;
     }},
    {"ReturnsAnotherStatus", "I8",
     [](PDEVICE_OBJECT, PIRP irp) {
         complete(irp, STATUS_SUCCESS);
         return STATUS_UNSUCCESSFUL;
     }},
    {"ForgetsTheRequest", "I9", [](PDEVICE_OBJECT, PIRP) { return STATUS_SUCCESS; }},
    {"GivesMoreThanThereIsRoom", "I15", [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS, 99); }},
    {"KeepsThePendingMarkFromTheDriverAbove", "I10", queueRead, readThroughUpper},
    {"OutlivesItsOwner", "I18", queueRead, readAndForget},
    {"NeverStartsTheNextPowerRequest", "P6", [](PDEVICE_OBJECT, PIRP irp) { return complete(irp, STATUS_SUCCESS); }, requestPower},
};

class KernelIoOffence : public testing::TestWithParam<Offence> {};

TEST_P(KernelIoOffence, StopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto offend = [] {
        System system;
        script->lower[IRP_MJ_READ] = script->lower[IRP_MJ_POWER] = GetParam().act;
        GetParam().scene(system);
    };
    EXPECT_DEATH(offend(), std::string("verifier: ") + GetParam().rule + " (.|\n)*last events of request");
}

INSTANTIATE_TEST_SUITE_P(All, KernelIoOffence, testing::ValuesIn(offences),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
