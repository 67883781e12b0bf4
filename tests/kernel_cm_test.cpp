// The registry: its text, its file, and the calls drivers use.
#include <gtest/gtest.h>

#include <wdm.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "kernel/executive.h"
#include "kernel/faults.h"
#include "kernel/registry.h"

namespace {

const std::string header = "Windows Registry Editor Version 5.00\n";

std::string utf16File(const std::string& text) {
    std::string bytes = "\xff\xfe";
    for (char16_t c : nt::toUtf16(text)) {
        bytes += static_cast<char>(c);
        bytes += static_cast<char>(c >> 8);
    }
    return bytes;
}

TEST(KernelCm, TextsSurviveWritingAndReading) {
    const char* values[] = {
        "@=\"default\"",
        "\"quotes \\\" and \\\\\"=\"a \\\"b\\\" \\\\ \xc3\xa4\xf0\x9f\x98\x80\"",
        "\"d\"=dword:fffffffe",
        "\"odd dword\"=hex(4):01,02,03",
        "\"unterminated\"=hex(1):41,00",
        "\"two lines\"=hex(1):41,00,0a,00,00,00",
        "\"lone surrogate\"=hex(1):00,d8,00,00",
        "\"multi\"=hex(7):41,00,00,00,42,00,00,00,00,00",
        "\"none\"=hex(0):",
        "\"empty\"=hex:",
        "\"long\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17,18,\\\n  19,1a",
    };
    for (const char* value : values) {
        for (bool wide : {false, true}) {
            std::string text = header + "\n[HKEY_LOCAL_MACHINE\\Software\\T; [x]]\n" + value + "\n";
            nt::Registry registry;
            registry.merge(wide ? utf16File(text) : text, "t");
            nt::Registry again;
            again.merge(registry.text(), "again");
            EXPECT_EQ(registry.text(), again.text());
            EXPECT_EQ(registry.valueNames("HKLM\\SOFTWARE\\t; [X]").size(), 1u) << value;
            EXPECT_NE(registry.text().find(std::string(value).substr(0, 30)), std::string::npos) << registry.text();
        }
    }
}

TEST(KernelCm, DeletionsAndCommentsAndLineEnds) {
    nt::Registry registry;
    registry.merge(header + "[HKLM\\A\\B]\r\n\"x\"=dword:1 ; why\r\n\"y\"=\"z\"\r\n[HKLM\\C\\D]\r\n@=dword:2", "t");
    registry.merge(header + "; away\n[hklm\\a\\b]\n\"X\"=-\n[-HKEY_LOCAL_MACHINE\\C]\n", "t");
    EXPECT_FALSE(registry.dword("HKLM\\A\\B", "x"));
    EXPECT_EQ(registry.string("HKLM\\A\\B", "Y"), "z");
    EXPECT_FALSE(registry.keyExists("HKLM\\C\\D"));
}

TEST(KernelCm, MalformedTextsAreRefusedWholeWithTheirLine) {
    const std::pair<std::string, const char*> table[] = {
        {"", ":0: the first line"},
        {"REGEDIT4\n", ":1: the first line"},
        {header + "rubbish\n", ":2: expected [key]"},
        {header + "[HKLM\\A\n", ":2: key without its closing bracket"},
        {header + "[HKEY_SOMEWHERE\\A]\n", ":2: no such key"},
        {header + "[HKLM\\A\\\\B]\n", ":2: no such key"},
        {header + "[-HKLM]\n", ":2: a root key"},
        {header + "[HKLM\\A] x\n", ":2: text behind the key"},
        {header + "\"x\"=dword:1\n", ":2: a value before any"},
        {header + "[-HKLM\\A]\n\"x\"=dword:1\n", ":3: a value before any"},
        {header + "[HKLM\\A]\n\n\"x=dword:1\n", ":4: text without its closing quote"},
        {header + "[HKLM\\A]\n\"x\"=\"a\\n\"\n", ":3: \\ must be followed"},
        {header + "[HKLM\\A]\n\"x\" dword:1\n", ":3: expected ="},
        {header + "[HKLM\\A]\n\"x\"=qword:1\n", ":3: expected \"text\""},
        {header + "[HKLM\\A]\n\"x\"=dword:123456789\n", ":3: expected 1 to 8"},
        {header + "[HKLM\\A]\n\"x\"=dword:\n", ":3: expected 1 to 8"},
        {header + "[HKLM\\A]\n\"x\"=hex(7:00\n", ":3: expected )"},
        {header + "[HKLM\\A]\n\"x\"=hex:0g\n", ":3: text behind the value"},
        {header + "[HKLM\\A]\n\"x\"=hex:00,\n", ":3: expected a byte"},
        {header + "[HKLM\\A]\n\"x\"=hex:00,\\\n", ":3: the text ends"},
        {header + "[HKLM\\A]\n\"x\"=hex:00,\\\n  zz\n", ":4: expected a byte"},
        {header + "\xc3(\n", ":1: neither UTF-8"},
        {std::string("\xff\xfe\0\xd8", 4), ":1: ill-formed UTF-16"},
        {std::string("\xff\xfe\x41", 3), ":1: UTF-16 text with an odd"},
    };
    for (const auto& [text, message] : table) {
        nt::Registry registry;
        registry.setDword("HKLM\\A", "old", 1);
        std::string before = registry.text();
        try {
            registry.merge(text, "FILE");
            ADD_FAILURE() << "taken: " << text;
        } catch (const nt::RegistryError& error) {
            EXPECT_EQ(std::string(error.what()).find(std::string("FILE") + message), 0u) << error.what();
        }
        EXPECT_EQ(registry.text(), before);
    }
}

TEST(KernelCm, TheFileKeepsWhatLastsAndSurvivesABadOne) {
    const std::string path = testing::TempDir() + "kernel_cm_" + std::to_string(getpid()) + ".reg";
    std::ofstream(path) << header << "[HKEY_LOCAL_MACHINE\\A]\n\"x\"=dword:1\n";
    auto text = [&path] {
        std::ifstream in(path, std::ios::binary);
        return std::string{std::istreambuf_iterator<char>(in), {}};
    };
    {
        nt::Executive exec({.mode = nt::Mode::simulated, .registryFile = path});
        exec.registry().setDword("HKLM\\A", "x", 2);
        exec.registry().setString("HKLM\\HARDWARE\\DeviceMap\\SERIALCOMM", "p", "COM3");
        EXPECT_TRUE(exec.stop().clean());
    }
    EXPECT_EQ(text().find("COM3"), std::string::npos);
    EXPECT_NE(text().find("\"x\"=dword:00000002"), std::string::npos);
    std::ofstream(path) << header << "oops\n";
    EXPECT_THROW(nt::Executive({.mode = nt::Mode::simulated, .registryFile = path}), nt::RegistryError);
    EXPECT_EQ(nt::Executive::current(), nullptr);
    EXPECT_EQ(text(), header + "oops\n");
    std::filesystem::remove(path);
}

TEST(KernelCm, DriversReadAndWriteThroughHandles) {
    nt::Executive exec({.mode = nt::Mode::simulated});
    exec.registry().setDword("HKLM\\SYSTEM\\K", "Word", 7);
    UNICODE_STRING path, name;
    RtlInitUnicodeString(&path, u"\\Registry\\Machine\\System\\k");
    RtlInitUnicodeString(&name, u"WORD");
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &path, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    HANDLE key = nullptr;
    ASSERT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_SUCCESS);
    union {
        KEY_VALUE_PARTIAL_INFORMATION record;
        UCHAR bytes[32];
    } info;
    ULONG length = 0;
    const std::pair<ULONG, NTSTATUS> table[] = {
        {11, STATUS_BUFFER_TOO_SMALL}, {12, STATUS_BUFFER_OVERFLOW}, {15, STATUS_BUFFER_OVERFLOW}, {16, STATUS_SUCCESS}};
    for (const auto& [room, status] : table) {
        EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, &info, room, &length), status);
        EXPECT_EQ(length, 16u);
    }
    EXPECT_EQ(info.record.DataLength, 4u);
    EXPECT_EQ(info.record.Data[0], 7);
    ULONG number = 9;
    EXPECT_EQ(ZwSetValueKey(key, &name, 0, REG_DWORD, &number, 4), STATUS_SUCCESS);
    EXPECT_EQ(exec.registry().dword("HKLM\\System\\K", "word"), 9u);
    nt::faults::failNth(nt::faults::Kind::registry, 1);
    EXPECT_EQ(ZwDeleteValueKey(key, &name), STATUS_INSUFFICIENT_RESOURCES);
    nt::faults::clear();
    EXPECT_EQ(ZwDeleteValueKey(key, &name), STATUS_SUCCESS);
    EXPECT_EQ(ZwDeleteValueKey(key, &name), STATUS_OBJECT_NAME_NOT_FOUND);
    exec.registry().deleteKey("HKLM\\SYSTEM\\K");
    EXPECT_EQ(ZwQueryValueKey(key, &name, KeyValuePartialInformation, &info, 32, &length), STATUS_KEY_DELETED);
    EXPECT_EQ(ZwOpenKey(&key, KEY_READ, &attributes), STATUS_OBJECT_NAME_NOT_FOUND);
    const WCHAR com[] = u"COM3";
    EXPECT_EQ(RtlWriteRegistryValue(RTL_REGISTRY_DEVICEMAP, u"SERIALCOMM", u"\\Device\\x", REG_SZ,
                                    const_cast<PWSTR>(com), sizeof com),
              STATUS_SUCCESS);
    EXPECT_EQ(exec.registry().string("HKLM\\HARDWARE\\DEVICEMAP\\SERIALCOMM", "\\Device\\x"), "COM3");
    EXPECT_EQ(RtlDeleteRegistryValue(RTL_REGISTRY_DEVICEMAP, u"SERIALCOMM", u"\\Device\\x"), STATUS_SUCCESS);
    nt::LeakReport report = exec.stop();
    ASSERT_EQ(report.lines.size(), 1u);
    EXPECT_EQ(report.lines[0], "registry handle open: K (deleted)");
}

}  // namespace
